#include "platform/serial.h"

// termbits.h alone has the settings with free rates; termios.h can't be included beside it.
#include <asm/termbits.h>
#include <fcntl.h>
#include <linux/serial.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <mutex>

#include "platform/clock.h"
#include "platform/posix/wakeup_impl.h"

namespace kvl {

namespace {

constexpr struct {
  int system;
  uint32_t code;
} kCodes[] = {
    {ENOENT, kErrorNotFound},          {ENODEV, kErrorNotFound},     {ENXIO, kErrorNotFound},
    {EACCES, kErrorAccessDenied},      {EPERM, kErrorAccessDenied},  {EBUSY, kErrorAccessDenied},
    {EWOULDBLOCK, kErrorAccessDenied}, {EMFILE, kErrorTooManyOpen},  {ENFILE, kErrorTooManyOpen},
    {ENOMEM, kErrorNoMemory},          {EINVAL, kErrorBadParameter}, {ENOTTY, kErrorNotSerial},
    {EIO, kErrorDeviceLost},
};

uint32_t LastCode() {
  for (const auto& pair : kCodes) {
    if (pair.system == errno) return pair.code;
  }
  return kErrorGeneral;
}

constexpr tcflag_t kParityFlags[] = {0, PARENB | PARODD, PARENB, PARENB | PARODD | CMSPAR,
                                     PARENB | CMSPAR};
constexpr tcflag_t kSizeFlags[] = {CS5, CS6, CS7, CS8};
constexpr tcflag_t kStopFlags[] = {0, CSTOPB, CSTOPB};
constexpr tcflag_t kFormatFlags = CSIZE | PARENB | PARODD | CMSPAR | CSTOPB;

// Replaces the flags of `mask` by the entry of `table`; a negative index leaves them. False for an
// index behind the table.
template <size_t kCount>
bool Choose(tcflag_t& flags, tcflag_t mask, const tcflag_t (&table)[kCount], int32_t index) {
  if (index < 0) return true;
  if (index >= static_cast<int32_t>(kCount)) return false;
  flags = (flags & ~mask) | table[index];
  return true;
}

bool IsNear(speed_t got, speed_t wanted) {
  return std::llabs(int64_t{got} - int64_t{wanted}) * 100 <= int64_t{wanted} * 3;
}

// Bytes as they are: no editing, no echo, no signals, no translation, no need of a carrier.
void MakeRaw(termios2& settings) {
  settings.c_iflag &= ~static_cast<tcflag_t>(IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR |
                                             ICRNL | IXON | IXOFF);
  settings.c_oflag &= ~static_cast<tcflag_t>(OPOST);
  settings.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL | ICANON | ISIG | IEXTEN);
  settings.c_cflag |= CREAD | CLOCAL;
  settings.c_cc[VMIN] = 1;
  settings.c_cc[VTIME] = 0;
}

// Gives the settings to the device and finds out whether it took them: a driver passes over what
// it can't do. What it does not take leaves the settings before.
uint32_t Apply(int fd, const termios2& before, const termios2& wanted) {
  if (ioctl(fd, TCSETS2, &wanted) != 0) return LastCode();
  termios2 got{};
  if (ioctl(fd, TCGETS2, &got) != 0) return LastCode();
  if ((got.c_cflag & kFormatFlags) == (wanted.c_cflag & kFormatFlags) &&
      IsNear(got.c_ospeed, wanted.c_ospeed)) {
    return kErrorNone;
  }
  ioctl(fd, TCSETS2, &before);
  return kErrorBadParameter;
}

}  // namespace

struct CSerialDevice::Impl {
  using Port = std::shared_ptr<const CDescriptor>;

  // Keeps the descriptor alive for the length of one operation; null when closed.
  Port Use() {
    const std::lock_guard guard(lock);
    return pPort;
  }

  // What `port` takes at once; -1 as ::write. Nothing goes out behind a Close.
  ssize_t Put(const Port& port, const uint8_t* pBytes, int32_t nCount) {
    const std::lock_guard guard(lock);
    if (pPort == port) return ::write(port->Get(), pBytes, static_cast<size_t>(nCount));
    errno = EAGAIN;
    return -1;
  }

  bool MayWait(const Port& port) {
    const std::lock_guard guard(lock);
    return pPort == port && !bInterrupted;
  }

  template <typename Change>
  uint32_t Set(Change change);
  uint32_t ReadLineErrors(int fd);

  std::mutex lock;
  Port pPort;
  bool bInterrupted = false;
  bool bCounts = false;             // the device counts its line errors
  serial_icounter_struct counts{};  // as last read
  CWakeup wakeup;                   // ends the wait of Write
};

template <typename Change>
uint32_t CSerialDevice::Impl::Set(Change change) {
  const Port port = Use();
  if (!port) return kErrorInvalidHandle;
  termios2 before{};
  if (ioctl(port->Get(), TCGETS2, &before) != 0) return LastCode();
  termios2 wanted = before;
  if (!change(wanted)) return kErrorBadParameter;
  return Apply(port->Get(), before, wanted);
}

// Zero from a device that does not count, as virtual ones don't.
uint32_t CSerialDevice::Impl::ReadLineErrors(int fd) {
  serial_icounter_struct now{};
  if (!bCounts || ioctl(fd, TIOCGICOUNT, &now) != 0) return 0;
  uint32_t bits = 0;
  const std::lock_guard guard(lock);  // a reader and a writer may both ask
  if (now.overrun != counts.overrun || now.buf_overrun != counts.buf_overrun) bits |= kLineOverrun;
  if (now.parity != counts.parity) bits |= kLineParity;
  if (now.frame != counts.frame) bits |= kLineFrame;
  if (now.brk != counts.brk) bits |= kLineBreak;
  counts = now;
  return bits;
}

CSerialDevice::CSerialDevice() : m_pImpl(std::make_unique<Impl>()) {}

CSerialDevice::~CSerialDevice() {
  Close();
}

uint32_t CSerialDevice::Open(std::string_view name) {
  const std::string device = FindSerialPort(name);
  if (device.empty()) return kErrorNotFound;
  // Non-blocking, or a port without a carrier would hold up the open itself.
  CDescriptor port(::open(device.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  if (!port) return LastCode();
  termios2 settings{};
  if (ioctl(port.Get(), TCGETS2, &settings) != 0) return LastCode();
  // The second holds off every later open but an administrator's, which the first catches among
  // programs that ask.
  if (flock(port.Get(), LOCK_EX | LOCK_NB) != 0) return LastCode();
  if (ioctl(port.Get(), TIOCEXCL) != 0) return LastCode();
  MakeRaw(settings);
  if (ioctl(port.Get(), TCSETS2, &settings) != 0) return LastCode();

  m_pImpl->bCounts = ioctl(port.Get(), TIOCGICOUNT, &m_pImpl->counts) == 0;
  const std::lock_guard guard(m_pImpl->lock);
  m_pImpl->bInterrupted = false;
  m_pImpl->pPort = std::make_shared<CDescriptor>(std::move(port));
  return kErrorNone;
}

void CSerialDevice::Close() {
  Impl::Port port;
  {
    const std::lock_guard guard(m_pImpl->lock);
    port.swap(m_pImpl->pPort);
  }
  if (!port) return;
  m_pImpl->wakeup.Set();
  // Unsent bytes would hold up the close for as long as the line takes to send them.
  ioctl(port->Get(), TCFLSH, TCIOFLUSH);
  ioctl(port->Get(), TIOCNXCL);
  flock(port->Get(), LOCK_UN);  // the port may be opened anew ahead of the last user's return
}

bool CSerialDevice::IsOpen() const {
  return m_pImpl->Use() != nullptr;
}

uint32_t CSerialDevice::SetBaudRate(int32_t nRate) {
  return m_pImpl->Set([nRate](termios2& wanted) {
    // The input rate follows the output rate when its own bits are clear.
    wanted.c_cflag &= ~static_cast<tcflag_t>(CBAUD | (CBAUD << IBSHIFT));
    wanted.c_cflag |= BOTHER;
    wanted.c_ospeed = static_cast<speed_t>(nRate);
    wanted.c_ispeed = wanted.c_ospeed;
    return nRate > 0;
  });
}

uint32_t CSerialDevice::SetFormat(int32_t nParity, int32_t nDataBits, int32_t nStopBits) {
  constexpr int32_t kLeastDataBits = 5;
  if (nDataBits >= 0 && nDataBits < kLeastDataBits) return kErrorBadParameter;
  const int32_t size = nDataBits < 0 ? -1 : nDataBits - kLeastDataBits;
  return m_pImpl->Set([=](termios2& wanted) {
    wanted.c_iflag |= INPCK;
    wanted.c_cc[VSTART] = 0;
    wanted.c_cc[VSTOP] = 0;
    return Choose(wanted.c_cflag, PARENB | PARODD | CMSPAR, kParityFlags, nParity) &&
           Choose(wanted.c_cflag, CSIZE, kSizeFlags, size) &&
           Choose(wanted.c_cflag, CSTOPB, kStopFlags, nStopBits);
  });
}

uint32_t CSerialDevice::Purge() {
  const Impl::Port port = m_pImpl->Use();
  if (!port) return kErrorInvalidHandle;
  return ioctl(port->Get(), TCFLSH, TCIOFLUSH) == 0 ? kErrorNone : LastCode();
}

uint32_t CSerialDevice::GetStatus(int32_t* pWaiting, uint32_t* pLineErrors) {
  *pWaiting = 0;
  *pLineErrors = 0;
  const Impl::Port port = m_pImpl->Use();
  if (!port) return kErrorInvalidHandle;
  int waiting = 0;
  if (ioctl(port->Get(), FIONREAD, &waiting) != 0) return LastCode();
  *pWaiting = waiting;
  *pLineErrors = m_pImpl->ReadLineErrors(port->Get());
  return kErrorNone;
}

uint32_t CSerialDevice::Read(void* pBuffer, int32_t nSize, int32_t* pRead) {
  *pRead = 0;
  const Impl::Port port = m_pImpl->Use();
  if (!port) return kErrorInvalidHandle;
  if (nSize <= 0) return kErrorNone;
  const ssize_t count = ::read(port->Get(), pBuffer, static_cast<size_t>(nSize));
  if (count == 0) return kErrorDeviceLost;
  if (count < 0) return errno == EAGAIN || errno == EINTR ? kErrorNone : LastCode();
  *pRead = static_cast<int32_t>(count);
  return kErrorNone;
}

uint32_t CSerialDevice::Write(const void* pBuffer, int32_t nSize, int32_t timeoutMs,
                              int32_t* pWritten) {
  *pWritten = 0;
  const Impl::Port port = m_pImpl->Use();
  if (!port) return kErrorInvalidHandle;
  const int64_t deadline = GetTickCount() + timeoutMs;
  while (*pWritten < nSize) {
    const ssize_t count =
        m_pImpl->Put(port, static_cast<const uint8_t*>(pBuffer) + *pWritten, nSize - *pWritten);
    if (count > 0) {
      *pWritten += static_cast<int32_t>(count);
      continue;
    }
    if (count < 0 && errno != EAGAIN && errno != EINTR) return LastCode();
    const int64_t rest = timeoutMs < 0 ? -1 : deadline - GetTickCount();
    if (!m_pImpl->MayWait(port) || (timeoutMs >= 0 && rest <= 0)) break;
    short events = 0;
    PollBeside(port->Get(), POLLOUT, m_pImpl->wakeup, static_cast<int32_t>(rest), &events);
  }
  return kErrorNone;
}

void CSerialDevice::Interrupt() {
  {
    const std::lock_guard guard(m_pImpl->lock);
    m_pImpl->bInterrupted = true;
  }
  m_pImpl->wakeup.Set();
}

SerialWait CSerialDevice::WaitReadable(CWakeup& wakeup, int32_t timeoutMs) {
  const Impl::Port port = m_pImpl->Use();
  if (!port) return SerialWait::kLost;
  short events = 0;
  switch (PollBeside(port->Get(), POLLIN, wakeup, timeoutMs, &events)) {
    case PollResult::kWoken:
      return SerialWait::kWoken;
    case PollResult::kTimeout:
      return SerialWait::kTimeout;
    case PollResult::kReady:
      break;
  }
  if ((events & (POLLERR | POLLHUP | POLLNVAL)) == 0) return SerialWait::kBytes;
  int waiting = 0;
  const bool readable = ioctl(port->Get(), FIONREAD, &waiting) == 0 && waiting > 0;
  return readable ? SerialWait::kBytes : SerialWait::kLost;
}

}  // namespace kvl
