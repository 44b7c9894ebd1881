#include "platform/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

namespace kvl {

bool IsTerminal(EPrintStream stream) {
  return isatty(stream == EPrintStream::kOutput ? STDOUT_FILENO : STDERR_FILENO) == 1;
}

CTerminalSize OutputTerminalSize() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) {
    return {};
  }
  return {size.ws_col, size.ws_row};
}

}  // namespace kvl
