#include "platform/socket.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <asio/buffer.hpp>
#include <asio/post.hpp>
#include <cerrno>
#include <map>
#include <utility>

#include "platform/clock.h"
#include "platform/posix/name_lookup.h"
#include "platform/posix/socket_error.h"
#include "platform/posix/socket_impl.h"

namespace kvl {

namespace {

constexpr int32_t kAcceptRetryMs = 100;
constexpr int32_t kSockErrType = 10044;
constexpr int32_t kSockErrFlags = 10045;
constexpr int32_t kSockErrFamily = 10047;
constexpr int32_t kSockErrNoBuffers = 10055;
constexpr uint32_t kMaxPort = 65535;
constexpr int kMaxPieces = 4;  // that one ReceiveHere takes

thread_local int32_t t_nLastError = 0;

int32_t Fail(int32_t nCode, int32_t nResult = 0) {
  t_nLastError = nCode;
  return nResult;
}

struct CSocketTable {
  std::mutex lock;
  SOCKET nLast = 0;
  std::map<SOCKET, CAsyncSocket*> sockets;
};

// Never destroyed: sockets of static storage may end after everything else.
CSocketTable& Sockets() {
  static auto* pTable = new CSocketTable;
  return *pTable;
}

SOCKET Register(CAsyncSocket* pSocket) {
  CSocketTable& table = Sockets();
  const std::lock_guard guard(table.lock);
  table.sockets.emplace(++table.nLast, pSocket);
  return table.nLast;
}

void Unregister(SOCKET hSocket) {
  CSocketTable& table = Sockets();
  const std::lock_guard guard(table.lock);
  table.sockets.erase(hSocket);
}

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

// Two ends of one socket: on a local port the system may let a connect meet itself.
bool IsConnectedToItself(const asio::ip::tcp::socket& socket) {
  std::error_code ec;
  const auto local = socket.local_endpoint(ec);
  if (ec) return false;
  const auto remote = socket.remote_endpoint(ec);
  return !ec && local == remote;
}

int32_t LastErrorCode() {
  return SocketErrorCode({errno, asio::error::get_system_category()});
}

}  // namespace

// Wraps a handler so that it does nothing once the socket has been closed, keeps the Impl alive
// and lets no exception into the loop.
template <typename Body>
auto CAsyncSocket::Impl::Handler(Body body) {
  return [pSelf = shared_from_this(), round = nRound, body = std::move(body)](auto&&... args) {
    if (round != pSelf->nRound) return;
    RunGuarded([&] { body(std::forward<decltype(args)>(args)...); });
  };
}

// False if the notification has closed the socket, and perhaps destroyed its object.
bool CAsyncSocket::Impl::Notify(int32_t nEvent, void (CAsyncSocket::*pNotification)(int32_t),
                                int32_t nCode) {
  const uint64_t round = nRound;
  if ((nEvents & nEvent) != 0) RunGuarded([&] { (pOwner->*pNotification)(nCode); });
  return round == nRound;
}

void CAsyncSocket::Impl::StartTimer(int32_t delayMs, void (Impl::*pTask)()) {
  timer.emplace(pLoop->Io(), std::chrono::milliseconds(delayMs));
  timer->async_wait(Handler([this, pTask](const std::error_code& ec) {
    if (!ec) (this->*pTask)();
  }));
}

void CAsyncSocket::Impl::NextRound() {
  const std::lock_guard guard(lock);
  ++nRound;
}

void CAsyncSocket::Impl::Begin(std::shared_ptr<CLoopCore> pNewLoop, int32_t nNewEvents) {
  nEvents = nNewEvents;
  state = State::kIdle;
  bBound = false;
  bCloseTold = false;
  bInReceive = false;
  {
    const std::lock_guard guard(lock);
    ++nRound;
    pLoop = std::move(pNewLoop);
    bInterrupted = false;
    nLost = 0;
  }
  pLoop->Attach(this);
}

void CAsyncSocket::Impl::End() {
  NextRound();
  DropSocket();
  acceptor.reset();
  pending.reset();
  timer.reset();
  endpoints.clear();
  state = State::kIdle;
  pLoop->Detach(this);
}

// Another thread may be waiting on the line still: it closes it then, and the shutdown wakes it.
void CAsyncSocket::Impl::DropSocket() {
  {
    const std::lock_guard guard(lock);
    watch.reset();
    if (pLine.use_count() > 1) shutdown(pLine->Get(), SHUT_RDWR);
    pLine.reset();
    bReadWanted = false;
    bWriteWanted = false;
  }
  wakeup.Set();
  socket.reset();
}

int32_t CAsyncSocket::Impl::Bind(const Tcp::endpoint& local) {
  if (socket || state != State::kIdle) return Fail(kSockErrInvalid);
  std::error_code ec;
  socket.emplace(pLoop->Io());
  socket->open(local.protocol(), ec);
  if (!ec) socket->set_option(Tcp::socket::reuse_address(true), ec);
  if (!ec) socket->bind(local, ec);
  if (ec) {
    socket.reset();
    return Fail(SocketErrorCode(ec));
  }
  bBound = true;
  return 1;
}

int32_t CAsyncSocket::Impl::Listen(int32_t nBacklog) {
  if (state != State::kIdle) return Fail(kSockErrConnected);
  if (!socket && !Bind({Tcp::v4(), 0})) return 0;
  std::error_code ec;
  const auto protocol = socket->local_endpoint(ec).protocol();
  acceptor.emplace(pLoop->Io());
  if (!ec) acceptor->assign(protocol, socket->release(ec), ec);
  if (!ec) acceptor->listen(nBacklog, ec);
  socket.reset();
  if (ec) {
    acceptor.reset();
    return Fail(SocketErrorCode(ec));
  }
  state = State::kListening;
  WaitAccept();
  return 1;
}

void CAsyncSocket::Impl::Connect(const std::string& strHost, uint32_t nPort) {
  state = State::kConnecting;
  StartTimer(kConnectTimeoutMs, &Impl::ConnectTimedOut);
  if (strHost.empty()) return FinishLater(kSockErrAddressRequired);
  if (nPort == 0 || nPort > kMaxPort) return FinishLater(kSockErrAddressNotAvailable);

  std::error_code ec;
  const auto port = static_cast<uint16_t>(nPort);
  const auto address = asio::ip::make_address(strHost, ec);
  if (!ec) {
    endpoints = {{address, port}};
    asio::post(pLoop->Io(), Handler([this] { TryNext(0); }));
    return;
  }
  const auto take = [this, port](const std::error_code& failure,
                                 const std::vector<asio::ip::address>& addresses) {
    for (const asio::ip::address& found : addresses) endpoints.emplace_back(found, port);
    std::reverse(endpoints.begin(), endpoints.end());  // the next one is at the back
    TryNext(SocketErrorCode(failure));
  };
  try {
    LookUpName(strHost, pLoop, Handler(take));
  } catch (const std::system_error&) {
    FinishLater(kSockErrNoBuffers);
  }
}

void CAsyncSocket::Impl::FinishLater(int32_t nCode) {
  asio::post(pLoop->Io(), Handler([this, nCode] { Finish(nCode); }));
}

// Tries the next address; with none left the connect has failed with the last one's code.
void CAsyncSocket::Impl::TryNext(int32_t nCode) {
  if (endpoints.empty()) return Finish(nCode != 0 ? nCode : kSockErrAddressNotAvailable);
  const Tcp::endpoint remote = endpoints.back();
  endpoints.pop_back();
  std::error_code ec;
  if (!bBound) {
    socket.emplace(pLoop->Io());
    socket->open(remote.protocol(), ec);
  } else if (socket->local_endpoint(ec).protocol() != remote.protocol()) {
    return TryNext(kSockErrFamily);
  }
  if (ec) return TryNext(SocketErrorCode(ec));
  socket->async_connect(remote, Handler([this](const std::error_code& failure) {
                          if (failure) return TryNext(SocketErrorCode(failure));
                          if (IsConnectedToItself(*socket)) return TryNext(kSockErrRefused);
                          Finish(0);
                        }));
}

void CAsyncSocket::Impl::ConnectTimedOut() {
  NextRound();  // the attempt under way has nothing more to say
  endpoints.clear();
  Finish(kSockErrTimedOut);
}

void CAsyncSocket::Impl::Finish(int32_t nCode) {
  timer.reset();
  if (nCode != 0) {
    DropSocket();
    bBound = false;
    state = State::kIdle;
    Notify(kFdConnect, &CAsyncSocket::OnConnect, nCode);
    return;
  }
  const int32_t shortage = Establish(std::move(*socket));
  if (shortage != 0) return Finish(shortage);
  if (!Notify(kFdConnect, &CAsyncSocket::OnConnect, 0)) return;
  if (!Notify(kFdWrite, &CAsyncSocket::OnSend, 0)) return;
  WaitRead();
}

// The connection leaves Asio's hands, which would wake the loop for every byte.
int32_t CAsyncSocket::Impl::Establish(Tcp::socket&& connected) {
  std::error_code ec;
  auto line = std::make_shared<CDescriptor>(connected.release(ec));
  if (ec) return SocketErrorCode(ec);
  socket.reset();
  SetLineOptions(line->Get());
  try {
    const std::lock_guard guard(lock);
    watch.emplace(pLoop->Io(), line->Get());
    pLine = std::move(line);
  } catch (const std::system_error& shortage) {
    return SocketErrorCode(shortage.code());
  }
  state = State::kConnected;
  WaitForLine();
  return 0;
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
  WaitForLine();
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

void CAsyncSocket::Impl::Readable() {
  uint8_t probe = 0;
  const int32_t count = ReadLine(&probe, 1, MSG_PEEK);
  const int32_t code = count < 0 ? t_nLastError : 0;
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
  if (bInReceive && nReceiveBudget <= 0) return Fail(kSockErrWouldBlock, -1);
  const int32_t count = ReadLine(pBuffer, nSize, 0);
  --nReceiveBudget;
  if (bInReceive) {
    nReceiveBudget -= std::max(count, 0);
  } else {
    WaitRead();
  }
  return count;
}

int32_t CAsyncSocket::Impl::ReadLine(void* pBuffer, int32_t nSize, int32_t nFlags) {
  const std::lock_guard guard(lock);
  if (!pLine) return Fail(kSockErrNotConnected, -1);
  if (bReadLent) return Fail(kSockErrWouldBlock, -1);
  return Take(pLine->Get(), pBuffer, nSize, nFlags);
}

// What has arrived: its size, 0 at the connection's end, or -1. Needs: the lock.
int32_t CAsyncSocket::Impl::Take(int fd, void* pBuffer, int32_t nSize, int32_t nFlags) {
  const ssize_t count = recv(fd, pBuffer, static_cast<size_t>(nSize), nFlags | MSG_DONTWAIT);
  if (count >= 0) return static_cast<int32_t>(count);
  const int32_t code = LastErrorCode();
  if (code != kSockErrWouldBlock) Lose(code);
  return Fail(code, -1);
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
  if (!pLine) return Fail(kSockErrNotConnected, -1);
  const ssize_t sent =
      ::send(pLine->Get(), pBuffer, static_cast<size_t>(nSize), MSG_DONTWAIT | MSG_NOSIGNAL);
  const int32_t code = sent < 0 ? LastErrorCode() : 0;
  if (code != 0 && code != kSockErrWouldBlock) {
    Lose(code);
    return Fail(code, -1);
  }
  if (sent < nSize && !std::exchange(bWriteWanted, true)) Watch();
  return code == 0 ? static_cast<int32_t>(sent) : Fail(code, -1);
}

bool CAsyncSocket::Impl::WaitWritable(int32_t timeoutMs) {
  const int64_t deadline = GetTickCount() + timeoutMs;
  for (;;) {
    std::shared_ptr<CDescriptor> pUsed;
    {
      const std::lock_guard guard(lock);
      if (!pLine || bInterrupted) return Fail(kSockErrAborted);
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
        if (rest == 0) return Fail(kSockErrTimedOut);
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

void CAsyncSocket::Impl::WaitAccept() {
  acceptor->async_accept(Handler([this](const std::error_code& ec, Tcp::socket accepted) {
    // A shortage of the system's passes: the connection waits in its queue meanwhile.
    if (ec) return StartTimer(kAcceptRetryMs, &Impl::WaitAccept);
    pending.emplace(std::move(accepted));
    RaiseAccept();
  }));
}

void CAsyncSocket::Impl::RaiseAccept() {
  if (pending && !Notify(kFdAccept, &CAsyncSocket::OnAccept, 0)) return;
  if (pending) {
    StartTimer(kAcceptRetryMs, &Impl::RaiseAccept);
  } else {
    WaitAccept();
  }
}

CAsyncSocket::CAsyncSocket() : m_pImpl(std::make_shared<Impl>(this)) {}

CAsyncSocket::~CAsyncSocket() {
  CAsyncSocket::Close();
}

int32_t CAsyncSocket::Create(uint32_t nPort, int32_t nType, int32_t nEvents,
                             const char* szAddress) {
  if (m_hSocket != kInvalidSocket) return Fail(kSockErrInvalid);
  if (nType != kSockStream) return Fail(kSockErrType);
  std::shared_ptr<CLoopCore> pLoop = CLoopCore::Current();
  if (!pLoop) return Fail(kSockErrNoBuffers);
  m_pImpl->Begin(std::move(pLoop), nEvents);
  m_hSocket = Register(this);
  if ((nPort != 0 || szAddress) && !Bind(nPort, szAddress)) {
    CAsyncSocket::Close();
    return 0;
  }
  return 1;
}

int32_t CAsyncSocket::Bind(uint32_t nPort, const char* szAddress) {
  if (m_hSocket == kInvalidSocket) return Fail(kSockErrNotSocket);
  std::error_code ec;
  const auto address =
      szAddress ? asio::ip::make_address(szAddress, ec) : asio::ip::address_v4::any();
  if (ec || nPort > kMaxPort) return Fail(kSockErrAddressNotAvailable);
  return m_pImpl->Bind({address, static_cast<uint16_t>(nPort)});
}

int32_t CAsyncSocket::GetSockName(std::string& strAddress, uint32_t& nPort) const {
  if (m_hSocket == kInvalidSocket) return Fail(kSockErrNotSocket);
  std::error_code ec = asio::error::invalid_argument;
  Impl::Tcp::endpoint local;
  if (m_pImpl->acceptor) {
    local = m_pImpl->acceptor->local_endpoint(ec);
  } else if (m_pImpl->socket) {
    local = m_pImpl->socket->local_endpoint(ec);
  } else if (m_pImpl->pLine) {
    auto size = static_cast<socklen_t>(local.capacity());
    const int result = getsockname(m_pImpl->pLine->Get(), local.data(), &size);
    ec.assign(result == 0 ? 0 : errno, asio::error::get_system_category());
  }
  if (ec) return Fail(SocketErrorCode(ec));
  strAddress = local.address().to_string();
  nPort = local.port();
  return 1;
}

int32_t CAsyncSocket::Listen(int32_t nBacklog) {
  if (m_hSocket == kInvalidSocket) return Fail(kSockErrNotSocket);
  return m_pImpl->Listen(nBacklog);
}

int32_t CAsyncSocket::Connect(const std::string& strHost, uint32_t nPort) {
  if (m_hSocket == kInvalidSocket) return Fail(kSockErrNotSocket);
  if (m_pImpl->state != Impl::State::kIdle) return Fail(kSockErrConnected);
  m_pImpl->Connect(strHost, nPort);
  return 1;
}

int32_t CAsyncSocket::Accept(CAsyncSocket& socket) {
  if (!m_pImpl->pending) return Fail(kSockErrWouldBlock);
  socket.CAsyncSocket::Close();
  if (!socket.CAsyncSocket::Create()) return 0;
  const int32_t shortage = socket.m_pImpl->Adopt(std::move(*m_pImpl->pending));
  m_pImpl->pending.reset();
  if (shortage == 0) return 1;
  socket.CAsyncSocket::Close();
  return Fail(shortage);
}

int32_t CAsyncSocket::Receive(void* pBuffer, int32_t nSize, int32_t nFlags) {
  if (m_pImpl->state != Impl::State::kConnected) return Fail(kSockErrNotConnected, -1);
  if (nFlags != 0) return Fail(kSockErrFlags, -1);
  if (nSize <= 0) return Fail(kSockErrInvalid, -1);
  return m_pImpl->Receive(pBuffer, nSize);
}

bool CAsyncSocket::ReceiveHere(CWakeup& wakeup, std::span<uint8_t> buffer, const FTakeBytes& take) {
  return m_pImpl->ReceiveHere(wakeup, buffer, take);
}

int32_t CAsyncSocket::Send(const void* pBuffer, int32_t nSize, int32_t nFlags) {
  if (nFlags != 0) return Fail(kSockErrFlags, -1);
  if (nSize < 0) return Fail(kSockErrInvalid, -1);
  return m_pImpl->Send(pBuffer, nSize);
}

void CAsyncSocket::Close() {
  const SOCKET hSocket = m_hSocket.exchange(kInvalidSocket);
  if (hSocket == kInvalidSocket) return;
  Unregister(hSocket);
  m_pImpl->End();
}

bool CAsyncSocket::WaitWritable(int32_t timeoutMs) {
  return m_pImpl->WaitWritable(timeoutMs);
}

void CAsyncSocket::Interrupt() {
  m_pImpl->Interrupt();
}

CAsyncSocket* CAsyncSocket::LookupHandle(SOCKET hSocket) {
  CSocketTable& table = Sockets();
  const std::lock_guard guard(table.lock);
  const auto it = table.sockets.find(hSocket);
  if (it == table.sockets.end() || !it->second->m_pImpl->pLoop->IsOwnThread()) return nullptr;
  return it->second;
}

int32_t CAsyncSocket::GetLastError() {
  return t_nLastError;
}

void CAsyncSocket::OnReceive(int32_t) {}
void CAsyncSocket::OnSend(int32_t) {}
void CAsyncSocket::OnAccept(int32_t) {}
void CAsyncSocket::OnConnect(int32_t) {}
void CAsyncSocket::OnClose(int32_t) {}

}  // namespace kvl
