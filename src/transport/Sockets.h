// Client and server sockets that turn notifications into window messages.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/api.h"
#include "platform/socket.h"
#include "platform/window.h"
#include "transport/line.h"

namespace kvl {

// The messages. Each is sent, so that it has been handled when the notification returns. The first
// parameter is the socket's handle, the second one 32-bit value: in its low 16 bits the serial
// number of the socket; in its high 16 bits, of a connect and a close, the error code, 0 for none.
inline constexpr uint32_t kMsgSocketAccept = 0x401;
inline constexpr uint32_t kMsgSocketReceive = 0x402;
inline constexpr uint32_t kMsgSocketClose = 0x403;
inline constexpr uint32_t kMsgSocketConnect = 0x404;

// A socket that tells one window of its events. It reads and closes nothing by itself: that is the
// receiver's work, inside the message if it likes. Without a window events are dropped.
// Threads: as CAsyncSocket; Write and Interrupt like its Send.
class KVL_API CClientSock : public CAsyncSocket, public CLine {
 public:
  CClientSock() = default;
  ~CClientSock() override;

  void bsSetSerialNo(int32_t nSerialNo) { m_nSerialNo = nSerialNo; }
  int32_t bsGetSerialNo() const { return m_nSerialNo; }
  void SetWnd(HWND hWnd) { m_hWnd = hWnd; }

  // Also frees the socket's place in a server's pool.
  void Close() override;

  bool IsOpen() const override { return GetHandle() != kInvalidSocket; }
  int32_t Write(const uint8_t* pBytes, int32_t nCount) override;
  void Interrupt() override { CAsyncSocket::Interrupt(); }

 protected:
  void OnReceive(int32_t nErrorCode) override;
  void OnConnect(int32_t nErrorCode) override;
  void OnClose(int32_t nErrorCode) override;

 private:
  friend class CServerSock;
  static constexpr int32_t kSlotFree = -1;
  static constexpr int32_t kSlotInUse = 0;

  void Tell(uint32_t nMessage, int32_t nErrorCode);

  int32_t m_nSerialNo = -1;
  HWND m_hWnd = nullptr;
  int32_t m_nSlotState = kSlotFree;
};

// A listening socket with a pool of sockets for its connections. Each connection takes the lowest
// free place, and the window hears of it by kMsgSocketAccept, with the number of the place; the
// place is free again once the peer has closed or the window has closed the socket. With all
// places in use connections wait.
// Threads: all on the thread that creates it.
class KVL_API CServerSock : public CAsyncSocket {
 public:
  static constexpr int32_t kMaxConnection = 256;

  CServerSock();
  ~CServerSock() override;

  void SetWnd(HWND hWnd) { m_hWnd = hWnd; }

  // Counts the places in use anew.
  void CalcConnection();

  // As counted last, and raised by each connection since.
  int32_t GetConnectionCount() const { return m_nConnection; }

  // The socket of a place, 0 to 255; null for any other number. It stays the server's.
  CClientSock* GetClient(int32_t nSlot);

 protected:
  void OnAccept(int32_t nErrorCode) override;

 private:
  CClientSock* FindFreeSlot();

  const int32_t m_nMaxConnection = kMaxConnection;
  const std::unique_ptr<CClientSock[]> m_pClients;
  HWND m_hWnd = nullptr;
  int32_t m_nConnection = 0;
};

}  // namespace kvl
