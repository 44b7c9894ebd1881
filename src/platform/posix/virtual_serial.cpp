#include "platform/virtual_serial.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>

#include <algorithm>
#include <cstdlib>

#include "platform/clock.h"
#include "platform/posix/wakeup_impl.h"

namespace kvl {

struct CVirtualSerial::Impl {
  CDescriptor line;
  CDescriptor otherEnd;  // held open, so that a program that closes it does not end the line
  std::string strName;

  // False when the time is over.
  bool Wait(short events, int64_t deadline) const {
    pollfd fd = {line.Get(), events, 0};
    const int64_t rest = deadline - GetTickCount();
    return rest > 0 && (poll(&fd, 1, static_cast<int>(rest)) >= 0 || errno == EINTR);
  }
};

CVirtualSerial::CVirtualSerial() : m_pImpl(std::make_unique<Impl>()) {}

CVirtualSerial::~CVirtualSerial() = default;

bool CVirtualSerial::Open() {
  CDescriptor line(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK));
  char name[64];
  if (!line || grantpt(line.Get()) != 0 || unlockpt(line.Get()) != 0 ||
      ptsname_r(line.Get(), name, sizeof name) != 0) {
    return false;
  }
  CDescriptor otherEnd(::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC));
  termios settings{};
  if (!otherEnd || tcgetattr(otherEnd.Get(), &settings) != 0) return false;
  // Nothing may be echoed back while nobody has the port open.
  cfmakeraw(&settings);
  if (tcsetattr(otherEnd.Get(), TCSANOW, &settings) != 0) return false;
  m_pImpl->line = std::move(line);
  m_pImpl->otherEnd = std::move(otherEnd);
  m_pImpl->strName = name;
  return true;
}

const std::string& CVirtualSerial::GetDeviceName() const {
  return m_pImpl->strName;
}

int32_t CVirtualSerial::Read(void* pBuffer, int32_t nSize, int32_t timeoutMs) {
  const int64_t deadline = GetTickCount() + timeoutMs;
  do {
    const ssize_t count = ::read(m_pImpl->line.Get(), pBuffer, static_cast<size_t>(nSize));
    if (count > 0) return static_cast<int32_t>(count);
  } while (m_pImpl->Wait(POLLIN, deadline));
  return 0;
}

int32_t CVirtualSerial::Write(const void* pBuffer, int32_t nSize, int32_t timeoutMs) {
  const int64_t deadline = GetTickCount() + timeoutMs;
  int32_t written = 0;
  do {
    const ssize_t count =
        ::write(m_pImpl->line.Get(), static_cast<const uint8_t*>(pBuffer) + written,
                static_cast<size_t>(nSize - written));
    written += static_cast<int32_t>(std::max<ssize_t>(count, 0));
  } while (written < nSize && m_pImpl->Wait(POLLOUT, deadline));
  return written;
}

void CVirtualSerial::HangUp() {
  m_pImpl->line = CDescriptor();
  m_pImpl->otherEnd = CDescriptor();
}

}  // namespace kvl
