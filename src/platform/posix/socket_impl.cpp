// What all states of a socket share, and the one that listens.
#include "platform/posix/socket_impl.h"

#include <sys/socket.h>

#include <utility>

#include "platform/posix/socket_error.h"

namespace kvl {

namespace {

constexpr int32_t kAcceptRetryMs = 100;

}  // namespace

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
  bReadPosted = false;
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
  if (socket || state != State::kIdle) return FailSocket(kSockErrInvalid);
  std::error_code ec;
  socket.emplace(pLoop->Io());
  socket->open(local.protocol(), ec);
  if (!ec) socket->set_option(Tcp::socket::reuse_address(true), ec);
  if (!ec) socket->bind(local, ec);
  if (ec) {
    socket.reset();
    return FailSocket(SocketErrorCode(ec));
  }
  bBound = true;
  return 1;
}

int32_t CAsyncSocket::Impl::Listen(int32_t nBacklog) {
  if (state != State::kIdle) return FailSocket(kSockErrConnected);
  if (!socket && !Bind({Tcp::v4(), 0})) return 0;
  std::error_code ec;
  const auto protocol = socket->local_endpoint(ec).protocol();
  acceptor.emplace(pLoop->Io());
  if (!ec) acceptor->assign(protocol, socket->release(ec), ec);
  if (!ec) acceptor->non_blocking(true, ec);
  // Else an accept of a connection that has gone already would wait for the next one.
  if (!ec) acceptor->set_option(asio::socket_base::enable_connection_aborted(true), ec);
  if (!ec) acceptor->listen(nBacklog, ec);
  socket.reset();
  if (ec) {
    acceptor.reset();
    return FailSocket(SocketErrorCode(ec));
  }
  state = State::kListening;
  WaitAccept();
  return 1;
}

void CAsyncSocket::Impl::WaitAccept() {
  acceptor->async_wait(Tcp::acceptor::wait_read, Handler([this](std::error_code ec) {
                         if (!ec) TakePending(ec);
                         if (ec) return RaiseAcceptLater();
                         RaiseAccept();
                       }));
}

void CAsyncSocket::Impl::TakePending(std::error_code& ec) try {
  auto accepted = acceptor->accept(ec);
  if (!ec) pending.emplace(std::move(accepted));
} catch (const std::bad_alloc&) {
  ec = asio::error::no_memory;
}

void CAsyncSocket::Impl::RaiseAccept() {
  if (pending && !Notify(kFdAccept, &CAsyncSocket::OnAccept, 0)) return;
  if (pending) return RaiseAcceptLater();
  try {
    WaitAccept();
  } catch (const std::bad_alloc&) {
    RaiseAcceptLater();
  }
}

// A shortage passes too: what connects waits in its queue meanwhile.
void CAsyncSocket::Impl::RaiseAcceptLater() try {
  StartTimer(kAcceptRetryMs, &Impl::RaiseAccept);
} catch (const std::bad_alloc&) {
  RaiseClose(kSockErrNoBuffers);  // better ended than deaf
}

}  // namespace kvl
