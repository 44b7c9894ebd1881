// The way to a connection: a name is looked up, and its addresses are tried one behind the other.
#include <algorithm>
#include <asio/post.hpp>
#include <iterator>
#include <utility>

#include "platform/clock.h"
#include "platform/posix/name_lookup.h"
#include "platform/posix/socket_error.h"
#include "platform/posix/socket_impl.h"

namespace kvl {

namespace {

// Two ends of one socket: on a local port the system may let a connect meet itself.
bool IsConnectedToItself(const asio::ip::tcp::socket& socket) {
  std::error_code ec;
  const auto local = socket.local_endpoint(ec);
  if (ec) return false;
  const auto remote = socket.remote_endpoint(ec);
  return !ec && local == remote;
}

}  // namespace

int32_t CAsyncSocket::Impl::Connect(const std::string& strHost, uint32_t nPort) try {
  state = State::kConnecting;
  nConnectDeadline = GetTickCount() + kConnectTimeoutMs;
  StartTimer(kConnectTimeoutMs, &Impl::TriedLongEnough);
  if (strHost.empty()) {
    FinishLater(kSockErrAddressRequired);
  } else if (nPort == 0 || nPort > kMaxPort) {
    FinishLater(kSockErrAddressNotAvailable);
  } else {
    BeginConnect(strHost, static_cast<uint16_t>(nPort));
  }
  return 1;
} catch (const std::bad_alloc&) {
  timer.reset();
  endpoints.clear();
  state = State::kIdle;
  return FailSocket(kSockErrNoBuffers);
}

void CAsyncSocket::Impl::BeginConnect(const std::string& strHost, uint16_t nPort) {
  std::error_code ec;
  const auto address = asio::ip::make_address(strHost, ec);
  if (!ec) {
    endpoints = {{address, nPort}};
    asio::post(pLoop->Io(), Handler([this] { TryNext(0); }));
    return;
  }
  const auto take = [this, nPort](const std::error_code& failure,
                                  const std::vector<asio::ip::address>& addresses) {
    try {
      for (const asio::ip::address& found : addresses) endpoints.emplace_back(found, nPort);
    } catch (const std::bad_alloc&) {
      return Finish(kSockErrNoBuffers);
    }
    std::reverse(endpoints.begin(), endpoints.end());  // the next one is at the back
    TryNext(SocketErrorCode(failure));
  };
  try {
    LookUpName(strHost, pLoop, Handler(take));
  } catch (const std::system_error&) {  // no thread for it
    FinishLater(kSockErrNoBuffers);
  }
}

void CAsyncSocket::Impl::FinishLater(int32_t nCode) {
  asio::post(pLoop->Io(), Handler([this, nCode] { Finish(nCode); }));
}

// Tries the next address; with none left the connect has failed with the last one's code.
void CAsyncSocket::Impl::TryNext(int32_t nCode) try {
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
  // An address that does not answer leaves those behind it their part of the time.
  const int64_t rest = std::max<int64_t>(nConnectDeadline - GetTickCount(), 0);
  StartTimer(static_cast<int32_t>(rest / (std::ssize(endpoints) + 1)), &Impl::TriedLongEnough);
  socket->async_connect(remote, Handler([this](const std::error_code& failure) {
                          if (failure) return TryNext(SocketErrorCode(failure));
                          if (IsConnectedToItself(*socket)) return TryNext(kSockErrRefused);
                          Finish(0);
                        }));
} catch (const std::bad_alloc&) {
  NextRound();
  Finish(kSockErrNoBuffers);
}

void CAsyncSocket::Impl::TriedLongEnough() {
  NextRound();                    // the attempt under way has nothing more to say
  if (bBound) endpoints.clear();  // its socket is still busy with that one
  TryNext(kSockErrTimedOut);
}

void CAsyncSocket::Impl::Finish(int32_t nCode) {
  timer.reset();
  if (nCode != 0) {
    endpoints.clear();
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

}  // namespace kvl
