// A connection that stands: what it brings, what it takes, and its end.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <asio/post.hpp>
#include <cerrno>
#include <utility>

#include "platform/clock.h"
#include "platform/posix/socket_error.h"
#include "platform/posix/socket_impl.h"

namespace kvl {

namespace {

constexpr int kMaxPieces = 4;  // that one ReceiveHere takes

// Answers go out at once, and a peer that has vanished without a word is noticed in two minutes.
void SetLineOptions(int fd) {
  static constexpr struct {
    int level, name, value;
  } kOptions[] = {{IPPROTO_TCP, TCP_NODELAY, 1},
                  {SOL_SOCKET, SO_KEEPALIVE, 1},
                  {IPPROTO_TCP, TCP_KEEPIDLE, 60},
                  {IPPROTO_TCP, TCP_KEEPINTVL, 10},
                  {IPPROTO_TCP, TCP_KEEPCNT, 6}};
  for (const auto& option : kOptions) {
    setsockopt(fd, option.level, option.name, &option.value, sizeof option.value);
  }
}

int32_t LastErrorCode() {
  return SocketErrorCode({errno, asio::error::get_system_category()});
}

}  // namespace

// The connection leaves Asio's hands, which would wake the loop for every byte.
int32_t CAsyncSocket::Impl::Establish(Tcp::socket&& connected) try {
  std::error_code ec;
  CDescriptor descriptor(connected.release(ec));
  if (ec) return SocketErrorCode(ec);
  auto line = std::make_shared<CDescriptor>(std::move(descriptor));
  socket.reset();
  SetLineOptions(line->Get());
  {
    const std::lock_guard guard(lock);
    watch.emplace(pLoop->Io(), line->Get());
    pLine = std::move(line);
  }
  WaitForLine();
  state = State::kConnected;
  return 0;
} catch (const std::system_error& shortage) {
  return SocketErrorCode(shortage.code());
} catch (const std::bad_alloc&) {
  return kSockErrNoBuffers;
}

int32_t CAsyncSocket::Impl::Adopt(Tcp::socket&& accepted) {
  const int32_t shortage = Establish(std::move(accepted));
  if (shortage != 0) return shortage;
  // Later, so that who accepts hears of the connection first.
  asio::post(pLoop->Io(), Handler([this] {
               if (Notify(kFdWrite, &CAsyncSocket::OnSend, 0)) WaitRead();
             }));
  return 0;
}

void CAsyncSocket::Impl::WaitForLine() {
  watch->Wait(Handler([this](const std::error_code& ec) {
    if (!ec) LineReady();
  }));
}

void CAsyncSocket::Impl::LineReady() {
  bool readable = false;
  bool writable = false;
  {
    const std::lock_guard guard(lock);
    const uint32_t events = watch->Take();
    const bool ended = (events & (EPOLLHUP | EPOLLERR)) != 0;
    readable = bReadWanted && !bReadLent && (ended || (events & EPOLLIN) != 0);
    writable = bWriteWanted && (ended || (events & EPOLLOUT) != 0);
    bReadWanted = bReadWanted && !readable;
    bWriteWanted = bWriteWanted && !writable;
    // Even a watch for nothing tells the end of a connection, and would tell it without end.
    if ((bReadWanted && !bReadLent) || bWriteWanted) Watch();
  }
  try {
    WaitForLine();
  } catch (const std::bad_alloc&) {
    return RaiseClose(kSockErrNoBuffers);  // better ended than deaf
  }
  if (writable && !Notify(kFdWrite, &CAsyncSocket::OnSend, 0)) return;
  if (readable) Readable();
}

// Needs: the lock.
void CAsyncSocket::Impl::Watch() {
  const uint32_t read = bReadWanted && !bReadLent ? EPOLLIN : 0U;
  const uint32_t write = bWriteWanted ? EPOLLOUT : 0U;
  watch->Want(read | write);
}

void CAsyncSocket::Impl::WaitRead() {
  const std::lock_guard guard(lock);
  if (bReadWanted || bCloseTold || !pLine) return;
  bReadWanted = true;
  Watch();
}

// A Receive out of turn: whoever made it may be at work on the bytes still, and may want more. The
// loop watches again when it has its turn, so that no ReceiveHere comes between.
void CAsyncSocket::Impl::WaitReadLater() {
  if (bReadPosted) return;
  try {
    asio::post(pLoop->Io(), Handler([this] {
                 bReadPosted = false;
                 WaitRead();
               }));
    bReadPosted = true;
  } catch (const std::bad_alloc&) {
    WaitRead();  // better out of order than never
  }
}

void CAsyncSocket::Impl::Readable() {
  uint8_t probe = 0;
  const int32_t count = ReadLine(&probe, 1, MSG_PEEK);
  const int32_t code = count < 0 ? LastSocketError() : 0;
  if (code == kSockErrWouldBlock) return WaitRead();
  if (count <= 0) return RaiseClose(code);

  bInReceive = true;
  nReceiveBudget = kMaxBytesPerReceive;
  if (!Notify(kFdRead, &CAsyncSocket::OnReceive, 0)) return;
  bInReceive = false;
  // Without a Receive nothing more is told: the next Receive turns the notification on again.
  if (nReceiveBudget != kMaxBytesPerReceive) WaitRead();
}

void CAsyncSocket::Impl::RaiseClose(int32_t nCode) {
  bCloseTold = true;
  {
    const std::lock_guard guard(lock);
    if (nLost != 0) nCode = nLost;
  }
  // On a standing connection a time-out is an abort.
  if (nCode == kSockErrTimedOut) nCode = kSockErrAborted;
  Notify(kFdClose, &CAsyncSocket::OnClose, nCode);
}

int32_t CAsyncSocket::Impl::Receive(void* pBuffer, int32_t nSize) {
  if (bInReceive && nReceiveBudget <= 0) return FailSocket(kSockErrWouldBlock, -1);
  const int32_t count = ReadLine(pBuffer, nSize, 0);
  --nReceiveBudget;
  if (bInReceive) {
    nReceiveBudget -= std::max(count, 0);
  } else {
    WaitReadLater();
  }
  return count;
}

int32_t CAsyncSocket::Impl::ReadLine(void* pBuffer, int32_t nSize, int32_t nFlags) {
  const std::lock_guard guard(lock);
  if (!pLine) return FailSocket(kSockErrNotConnected, -1);
  if (bReadLent) return FailSocket(kSockErrWouldBlock, -1);
  bReadWanted = false;
  return Take(pLine->Get(), pBuffer, nSize, nFlags);
}

// What has arrived: its size, 0 at the connection's end, or -1. Needs: the lock.
int32_t CAsyncSocket::Impl::Take(int fd, void* pBuffer, int32_t nSize, int32_t nFlags) {
  const ssize_t count = recv(fd, pBuffer, static_cast<size_t>(nSize), nFlags | MSG_DONTWAIT);
  if (count >= 0) return static_cast<int32_t>(count);
  const int32_t code = LastErrorCode();
  if (code != kSockErrWouldBlock) Lose(code);
  return FailSocket(code, -1);
}

// The reading of a connection, taken over from its loop if that waits for bytes at this moment.
class CAsyncSocket::Impl::CLoan {
 public:
  explicit CLoan(Impl& impl) : m_impl(impl) {
    const std::lock_guard guard(m_impl.lock);
    if (!m_impl.pLine || !m_impl.bReadWanted || m_impl.bReadLent) return;
    m_pLine = m_impl.pLine;
    m_impl.bReadLent = true;
    m_impl.Watch();
  }
  ~CLoan() {
    if (!m_pLine) return;
    const std::lock_guard guard(m_impl.lock);
    m_impl.bReadLent = false;
    if (m_impl.pLine) m_impl.Watch();
  }
  CLoan(const CLoan&) = delete;
  CLoan& operator=(const CLoan&) = delete;

  explicit operator bool() const { return m_pLine != nullptr; }
  int Get() const { return m_pLine->Get(); }
  int32_t Take(std::span<uint8_t> buffer) {
    const std::lock_guard guard(m_impl.lock);
    return m_impl.Take(Get(), buffer.data(), static_cast<int32_t>(buffer.size()), 0);
  }

 private:
  Impl& m_impl;
  std::shared_ptr<CDescriptor> m_pLine;
};

bool CAsyncSocket::Impl::ReceiveHere(CWakeup& woken, std::span<uint8_t> buffer,
                                     const FTakeBytes& take) {
  CLoan loan(*this);
  if (!loan) return false;
  short events = 0;
  if (PollBeside(loan.Get(), POLLIN, woken, -1, &events) != PollResult::kReady) return true;
  for (int piece = 0; piece < kMaxPieces; ++piece) {
    const int32_t count = loan.Take(buffer);
    if (count <= 0) return piece > 0;
    take(buffer.first(static_cast<size_t>(count)));
    if (static_cast<size_t>(count) < buffer.size()) return true;
  }
  return true;
}

// The system tells a failure once, to whoever asks first: it is kept for OnClose. Needs: the lock.
void CAsyncSocket::Impl::Lose(int32_t nCode) {
  if (nLost == 0) nLost = nCode;
}

int32_t CAsyncSocket::Impl::Send(const void* pBuffer, int32_t nSize) {
  const std::lock_guard guard(lock);
  if (!pLine) return FailSocket(kSockErrNotConnected, -1);
  const ssize_t sent =
      ::send(pLine->Get(), pBuffer, static_cast<size_t>(nSize), MSG_DONTWAIT | MSG_NOSIGNAL);
  const int32_t code = sent < 0 ? LastErrorCode() : 0;
  if (code != 0 && code != kSockErrWouldBlock) {
    Lose(code);
    return FailSocket(code, -1);
  }
  if (sent < nSize && !std::exchange(bWriteWanted, true)) Watch();
  return code == 0 ? static_cast<int32_t>(sent) : FailSocket(code, -1);
}

bool CAsyncSocket::Impl::WaitWritable(int32_t timeoutMs) {
  const int64_t deadline = GetTickCount() + timeoutMs;
  for (;;) {
    std::shared_ptr<CDescriptor> pUsed;
    {
      const std::lock_guard guard(lock);
      if (!pLine || bInterrupted) return FailSocket(kSockErrAborted);
      pUsed = pLine;
    }
    const int64_t rest = timeoutMs < 0 ? -1 : std::max<int64_t>(deadline - GetTickCount(), 0);
    short events = 0;
    switch (PollBeside(pUsed->Get(), POLLOUT, wakeup, static_cast<int32_t>(rest), &events)) {
      case PollResult::kReady:
        return true;
      case PollResult::kWoken:  // perhaps for a connection long gone
        break;
      case PollResult::kTimeout:
        if (rest == 0) return FailSocket(kSockErrTimedOut);
        break;
    }
  }
}

void CAsyncSocket::Impl::Interrupt() {
  {
    const std::lock_guard guard(lock);
    bInterrupted = true;
  }
  wakeup.Set();
}

}  // namespace kvl
