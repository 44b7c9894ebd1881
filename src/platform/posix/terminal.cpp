#include "platform/terminal.h"

#include <unistd.h>

namespace kvl {

bool IsOutputTerminal() {
  return isatty(STDOUT_FILENO) == 1;
}

bool IsErrorTerminal() {
  return isatty(STDERR_FILENO) == 1;
}

}  // namespace kvl
