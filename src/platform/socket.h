// The asynchronous stream socket: no operation waits, and what happens on the line is told by
// notifications on the creating thread's loop.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "platform/api.h"
#include "platform/wakeup.h"

namespace kvl {

// Names an open socket, as the messages about it do. A handle is never given to a second socket.
using SOCKET = uintptr_t;
inline constexpr SOCKET kInvalidSocket = ~SOCKET{0};

// The kind of socket that Create knows.
inline constexpr int32_t kSockStream = 1;

// Bits of Create's event mask.
inline constexpr int32_t kFdRead = 0x01;
inline constexpr int32_t kFdWrite = 0x02;
inline constexpr int32_t kFdOob = 0x04;
inline constexpr int32_t kFdAccept = 0x08;
inline constexpr int32_t kFdConnect = 0x10;
inline constexpr int32_t kFdClose = 0x20;
inline constexpr int32_t kFdAll = 0x3F;

// Error codes that this system itself tells apart; others are passed on. All are the numbers of
// Windows Sockets, whatever the system beneath, and fit in 16 bits.
inline constexpr int32_t kSockErrInvalid = 10022;
inline constexpr int32_t kSockErrWouldBlock = 10035;
inline constexpr int32_t kSockErrNotSocket = 10038;
inline constexpr int32_t kSockErrAddressRequired = 10039;
inline constexpr int32_t kSockErrType = 10044;
inline constexpr int32_t kSockErrFlags = 10045;
inline constexpr int32_t kSockErrFamily = 10047;
inline constexpr int32_t kSockErrAddressNotAvailable = 10049;
inline constexpr int32_t kSockErrAborted = 10053;
inline constexpr int32_t kSockErrReset = 10054;
inline constexpr int32_t kSockErrNoBuffers = 10055;
inline constexpr int32_t kSockErrConnected = 10056;
inline constexpr int32_t kSockErrNotConnected = 10057;
inline constexpr int32_t kSockErrTimedOut = 10060;
inline constexpr int32_t kSockErrRefused = 10061;

// Threads: everything on the thread that calls Create, whose loop brings the notifications, but
//          for Send, WaitWritable, ReceiveHere, Interrupt, GetHandle and GetLastError, which any
//          thread may call, also while Close runs: the last two threads to meet find the socket
//          closed. The object itself must outlive those calls. Once closed it may be destroyed by
//          any thread.
// Owner:   the object closes its socket in its destructor. A notification may close and destroy
//          the object that it runs on, if it touches nothing of it afterwards.
// Errors:  operations give 0, false or -1, and the code with GetLastError. A Listen or Accept that
//          there is no memory for closes the socket; the constructor throws std::bad_alloc.
class KVL_API CAsyncSocket {
 public:
  // How long a connect may take, and what one OnReceive hands out before other events of the loop
  // have their turn (the rest is told by a further OnReceive).
  static constexpr int32_t kConnectTimeoutMs = 20000;
  static constexpr int32_t kMaxBytesPerReceive = 256 * 1024;

  CAsyncSocket();
  virtual ~CAsyncSocket();
  CAsyncSocket(const CAsyncSocket&) = delete;
  CAsyncSocket& operator=(const CAsyncSocket&) = delete;

  // Gives the object a handle; non-zero on success. Resources of the system are taken by Bind and
  // Connect, so that a shortage shows as a connect's outcome. With a port other than 0 or an
  // address it binds at once. `nEvents` chooses the notifications.
  int32_t Create(uint32_t nPort = 0, int32_t nType = kSockStream, int32_t nEvents = kFdAll,
                 const char* szAddress = nullptr);

  // Binds to a local port (0: any free one) and numeric address (null: all of IPv4). Non-zero on
  // success.
  int32_t Bind(uint32_t nPort, const char* szAddress = nullptr);

  // The local address of a bound or connected socket. Non-zero on success.
  int32_t GetSockName(std::string& strAddress, uint32_t& nPort) const;

  // Non-zero on success; connections are then told by OnAccept.
  int32_t Listen(int32_t nBacklog = 128);

  // Starts a connect to a numeric address or a name, which is looked up without holding up the
  // loop. Non-zero if the outcome will come as OnConnect, failures of every kind included; 0 if
  // there is no handle, a connect or connection already, or no memory to begin one.
  int32_t Connect(const std::string& strHost, uint32_t nPort);

  // Gives the connection that OnAccept tells of to `socket`, which is closed first if need be,
  // gets a handle and belongs to this thread from then on. Non-zero on success; 0 with
  // kSockErrWouldBlock if no connection waits. A connection that OnAccept leaves waiting is told
  // anew every 100 ms.
  virtual int32_t Accept(CAsyncSocket& socket);

  // Reads what has arrived, at most `nSize` bytes: their number, 0 if the peer has closed, -1 for
  // an error, kSockErrWouldBlock when nothing waits. OnReceive is told anew only after it.
  virtual int32_t Receive(void* pBuffer, int32_t nSize, int32_t nFlags = 0);

  // Sends what the system takes at once: the number of bytes, which may be below `nSize`, or -1,
  // with kSockErrWouldBlock when it takes none; OnSend then tells of new room. `nFlags` is 0.
  virtual int32_t Send(const void* pBuffer, int32_t nSize, int32_t nFlags = 0);

  // Waits for bytes in the place of the loop, which spares them the way through its thread, and
  // hands them to `take` in pieces that `buffer` holds. Meanwhile there is no OnReceive, and
  // Receive finds nothing. Returns when it has handed some out, or when `wakeup` is set. False at
  // once if the loop is not waiting for bytes just now, and when the connection ends, which OnClose
  // tells: who gets it does best to wait for the loop.
  using FTakeBytes = std::function<void(std::span<const uint8_t>)>;
  bool ReceiveHere(CWakeup& wakeup, std::span<uint8_t> buffer, const FTakeBytes& take);

  // Ends the handle and the connection. No notification comes afterwards.
  virtual void Close();

  // Waits until Send can take bytes again. False after `timeoutMs` milliseconds, when the socket
  // is closed or not connected, and after Interrupt. One thread at a time.
  bool WaitWritable(int32_t timeoutMs);

  // Ends a WaitWritable and every later one, until the next Create.
  void Interrupt();

  SOCKET GetHandle() const { return m_hSocket; }

  // The object that has an open handle; null for an unknown one, and for one of another thread.
  static CAsyncSocket* LookupHandle(SOCKET hSocket);

  // The code of the last failure of an operation on the calling thread.
  static int32_t GetLastError();

 protected:
  // Notifications. The code is 0 when all is well. OnReceive tells of bytes, OnSend of room to
  // write (once connected, and after a Send that was cut short); OnClose comes once, after all
  // bytes have been received, but at once, with kSockErrNoBuffers, when no memory is left to go on
  // with; of a listening socket only then.
  virtual void OnReceive(int32_t nErrorCode);
  virtual void OnSend(int32_t nErrorCode);
  virtual void OnAccept(int32_t nErrorCode);
  virtual void OnConnect(int32_t nErrorCode);
  virtual void OnClose(int32_t nErrorCode);

 private:
  struct Impl;
  const std::shared_ptr<Impl> m_pImpl;
  std::atomic<SOCKET> m_hSocket{kInvalidSocket};
};

}  // namespace kvl
