#include "platform/socket.h"

#include <sys/socket.h>

#include <cerrno>
#include <map>
#include <utility>

#include "platform/never_destroyed.h"
#include "platform/posix/socket_error.h"
#include "platform/posix/socket_impl.h"

namespace kvl {

namespace {

struct CSocketTable {
  std::mutex lock;
  SOCKET nLast = 0;
  std::map<SOCKET, CAsyncSocket*> sockets;
};

// Never destroyed: sockets of static storage may end after everything else.
CSocketTable& Sockets() {
  static CNeverDestroyed<CSocketTable> s_table;
  return s_table.Get();
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

// What there is no memory for has failed, and leaves a closed socket.
template <typename Work>
int32_t OrClose(CAsyncSocket& socket, Work work) {
  try {
    return work();
  } catch (const std::bad_alloc&) {
    socket.CAsyncSocket::Close();
    return FailSocket(kSockErrNoBuffers);
  }
}

}  // namespace

CAsyncSocket::CAsyncSocket() : m_pImpl(std::make_shared<Impl>(this)) {}

CAsyncSocket::~CAsyncSocket() {
  CAsyncSocket::Close();
}

int32_t CAsyncSocket::Create(uint32_t nPort, int32_t nType, int32_t nEvents,
                             const char* szAddress) {
  if (m_hSocket != kInvalidSocket) return FailSocket(kSockErrInvalid);
  if (nType != kSockStream) return FailSocket(kSockErrType);
  std::shared_ptr<CLoopCore> pLoop = CLoopCore::Current();
  if (!pLoop) return FailSocket(kSockErrNoBuffers);
  try {
    m_pImpl->Begin(std::move(pLoop), nEvents);
    m_hSocket = Register(this);
  } catch (const std::bad_alloc&) {
    m_pImpl->End();
    return FailSocket(kSockErrNoBuffers);
  }
  if ((nPort != 0 || szAddress) && !Bind(nPort, szAddress)) {
    CAsyncSocket::Close();
    return 0;
  }
  return 1;
}

int32_t CAsyncSocket::Bind(uint32_t nPort, const char* szAddress) {
  if (m_hSocket == kInvalidSocket) return FailSocket(kSockErrNotSocket);
  std::error_code ec;
  const auto address =
      szAddress ? asio::ip::make_address(szAddress, ec) : asio::ip::address_v4::any();
  if (ec || nPort > Impl::kMaxPort) return FailSocket(kSockErrAddressNotAvailable);
  return m_pImpl->Bind({address, static_cast<uint16_t>(nPort)});
}

int32_t CAsyncSocket::GetSockName(std::string& strAddress, uint32_t& nPort) const {
  if (m_hSocket == kInvalidSocket) return FailSocket(kSockErrNotSocket);
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
  if (ec) return FailSocket(SocketErrorCode(ec));
  strAddress = local.address().to_string();
  nPort = local.port();
  return 1;
}

int32_t CAsyncSocket::Listen(int32_t nBacklog) {
  if (m_hSocket == kInvalidSocket) return FailSocket(kSockErrNotSocket);
  return OrClose(*this, [&] { return m_pImpl->Listen(nBacklog); });
}

int32_t CAsyncSocket::Connect(const std::string& strHost, uint32_t nPort) {
  if (m_hSocket == kInvalidSocket) return FailSocket(kSockErrNotSocket);
  if (m_pImpl->state != Impl::State::kIdle) return FailSocket(kSockErrConnected);
  return m_pImpl->Connect(strHost, nPort);
}

int32_t CAsyncSocket::Accept(CAsyncSocket& socket) {
  if (!m_pImpl->pending) return FailSocket(kSockErrWouldBlock);
  socket.CAsyncSocket::Close();
  if (!socket.CAsyncSocket::Create()) return 0;
  const int32_t result = OrClose(socket, [&] {
    const int32_t shortage = socket.m_pImpl->Adopt(std::move(*m_pImpl->pending));
    if (shortage == 0) return 1;
    socket.CAsyncSocket::Close();
    return FailSocket(shortage);
  });
  m_pImpl->pending.reset();
  return result;
}

int32_t CAsyncSocket::Receive(void* pBuffer, int32_t nSize, int32_t nFlags) {
  if (m_pImpl->state != Impl::State::kConnected) return FailSocket(kSockErrNotConnected, -1);
  if (nFlags != 0) return FailSocket(kSockErrFlags, -1);
  if (nSize <= 0) return FailSocket(kSockErrInvalid, -1);
  return m_pImpl->Receive(pBuffer, nSize);
}

bool CAsyncSocket::ReceiveHere(CWakeup& wakeup, std::span<uint8_t> buffer, const FTakeBytes& take) {
  return m_pImpl->ReceiveHere(wakeup, buffer, take);
}

int32_t CAsyncSocket::Send(const void* pBuffer, int32_t nSize, int32_t nFlags) {
  if (nFlags != 0) return FailSocket(kSockErrFlags, -1);
  if (nSize < 0) return FailSocket(kSockErrInvalid, -1);
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
  return LastSocketError();
}

void CAsyncSocket::OnReceive(int32_t) {}
void CAsyncSocket::OnSend(int32_t) {}
void CAsyncSocket::OnAccept(int32_t) {}
void CAsyncSocket::OnConnect(int32_t) {}
void CAsyncSocket::OnClose(int32_t) {}

}  // namespace kvl
