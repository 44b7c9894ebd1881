#include "platform/output_file.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "platform/posix/wakeup_impl.h"

namespace kvl {

struct COutputFile::CFile {
  int fd = -1;
  CDescriptor own;  // empty for a standard stream
};

void HoldMissingStreams() {
  // A new descriptor is the lowest free number. Opened for the direction that nobody uses.
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(fd, F_GETFD) < 0) open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
}

void SurviveFailingWrites() {
  for (const int number : {SIGPIPE, SIGXFSZ}) std::signal(number, SIG_IGN);
}

COutputFile::COutputFile(EPrintStream stream) : m_pFile(std::make_unique<CFile>()) {
  m_pFile->fd = stream == EPrintStream::kOutput ? STDOUT_FILENO : STDERR_FILENO;
}

COutputFile::COutputFile(const std::string& path) {
  // A pipe without a reader must not hold up the program here.
  CDescriptor file(
      open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0666));
  if (!file) return;
  fcntl(file.Get(), F_SETFL, fcntl(file.Get(), F_GETFL) & ~O_NONBLOCK);
  m_pFile = std::make_unique<CFile>();
  m_pFile->fd = file.Get();
  m_pFile->own = std::move(file);
}

COutputFile::~COutputFile() = default;
COutputFile::COutputFile(COutputFile&& other) noexcept = default;

bool COutputFile::Write(std::string_view text) const {
  while (!text.empty()) {
    const ssize_t written = write(m_pFile->fd, text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<size_t>(written));
    } else if (errno == EAGAIN) {
      pollfd room{m_pFile->fd, POLLOUT, 0};  // who started the program has made it non-blocking
      poll(&room, 1, -1);
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

}  // namespace kvl
