#include "transport/Sockets.h"

#include <algorithm>

#include "platform/clock.h"

namespace kvl {

CClientSock::~CClientSock() {
  CClientSock::Close();
}

void CClientSock::Close() {
  m_nSlotState = kSlotFree;
  CAsyncSocket::Close();
}

int32_t CClientSock::Write(const uint8_t* pBytes, int32_t nCount) {
  const int64_t deadline = GetTickCount() + kWriteTimeoutMs;
  int32_t written = 0;
  while (written < nCount) {
    const int32_t sent = Send(pBytes + written, nCount - written, 0);
    if (sent > 0) {
      written += sent;
      continue;
    }
    if (sent < 0 && GetLastError() != kSockErrWouldBlock) break;
    const int64_t rest = std::max<int64_t>(deadline - GetTickCount(), 0);
    if (!WaitWritable(static_cast<int32_t>(rest))) break;
  }
  return written;
}

void CClientSock::Tell(uint32_t nMessage, int32_t nErrorCode) {
  if (!IsWindow(m_hWnd)) return;
  const uint32_t value =
      (static_cast<uint32_t>(nErrorCode) << 16) | (static_cast<uint32_t>(m_nSerialNo) & 0xFFFF);
  SendMessageA(m_hWnd, nMessage, GetHandle(), static_cast<LPARAM>(value));
}

void CClientSock::OnReceive(int32_t) {
  Tell(kMsgSocketReceive, 0);
}

void CClientSock::OnConnect(int32_t nErrorCode) {
  Tell(kMsgSocketConnect, nErrorCode);
}

void CClientSock::OnClose(int32_t nErrorCode) {
  m_nSlotState = kSlotFree;
  Tell(kMsgSocketClose, nErrorCode);
}

CServerSock::CServerSock() : m_pClients(std::make_unique<CClientSock[]>(kMaxConnection)) {
  for (int32_t i = 0; i < m_nMaxConnection; ++i)
    m_pClients[static_cast<size_t>(i)].bsSetSerialNo(i);
}

CServerSock::~CServerSock() = default;

CClientSock* CServerSock::GetClient(int32_t nSlot) {
  return nSlot >= 0 && nSlot < m_nMaxConnection ? &m_pClients[static_cast<size_t>(nSlot)] : nullptr;
}

void CServerSock::CalcConnection() {
  m_nConnection = static_cast<int32_t>(
      std::count_if(m_pClients.get(), m_pClients.get() + m_nMaxConnection,
                    [](const CClientSock& c) { return c.m_nSlotState != CClientSock::kSlotFree; }));
}

CClientSock* CServerSock::FindFreeSlot() {
  CClientSock* const pEnd = m_pClients.get() + m_nMaxConnection;
  CClientSock* const pFree = std::find_if(m_pClients.get(), pEnd, [](const CClientSock& c) {
    return c.m_nSlotState == CClientSock::kSlotFree;
  });
  return pFree == pEnd ? nullptr : pFree;
}

void CServerSock::OnAccept(int32_t) {
  CalcConnection();
  CClientSock* const pSlot = FindFreeSlot();
  if (!pSlot) return;
  pSlot->m_nSlotState = CClientSock::kSlotInUse;
  pSlot->SetWnd(m_hWnd);
  Accept(*pSlot);
  ++m_nConnection;
  SendMessageA(m_hWnd, kMsgSocketAccept, pSlot->GetHandle(),
               static_cast<LPARAM>(pSlot->bsGetSerialNo()));
}

}  // namespace kvl
