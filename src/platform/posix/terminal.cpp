#include "platform/terminal.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>

namespace kvl {

namespace {

int DescriptorOf(EPrintStream stream) {
  return stream == EPrintStream::kOutput ? STDOUT_FILENO : STDERR_FILENO;
}

// Waits until the stream takes something. False if it doesn't within the time (-1: no limit).
bool WaitForRoom(EPrintStream stream, int timeoutMs) {
  pollfd room{DescriptorOf(stream), POLLOUT, 0};
  return poll(&room, 1, timeoutMs) == 1;
}

}  // namespace

bool IsTerminal(EPrintStream stream) {
  return isatty(DescriptorOf(stream)) == 1;
}

void HoldMissingStreams() {
  // A new descriptor is the lowest free number. Opened for the direction that nobody uses.
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(fd, F_GETFD) < 0) open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
}

bool WriteStream(EPrintStream stream, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(DescriptorOf(stream), text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<size_t>(written));
    } else if (errno == EAGAIN) {
      WaitForRoom(stream, -1);  // who started the program has made its stream non-blocking
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

bool IsStreamReady(EPrintStream stream) {
  return WaitForRoom(stream, 0);
}

CTerminalSize OutputTerminalSize() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) {
    return {};
  }
  return {size.ws_col, size.ws_row};
}

}  // namespace kvl
