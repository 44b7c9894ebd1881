// What stands behind CAsyncSocket, for the sources of this folder only.
#pragma once

#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>
#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/loop_core.h"
#include "platform/posix/line_watch.h"
#include "platform/posix/wakeup_impl.h"
#include "platform/socket.h"

namespace kvl {

// Lives as long as its socket object or a handler that Asio still holds. All on the loop's
// thread, but for what stands under "shared".
struct CAsyncSocket::Impl final : CLoopResource, std::enable_shared_from_this<CAsyncSocket::Impl> {
  using Tcp = asio::ip::tcp;
  static constexpr uint32_t kMaxPort = 65535;

  enum class State { kIdle, kConnecting, kConnected, kListening };

  explicit Impl(CAsyncSocket* pSocket) : pOwner(pSocket) {}

  void Begin(std::shared_ptr<CLoopCore> pNewLoop, int32_t nNewEvents);
  void End();
  void OnLoopEnd() override { pOwner->Close(); }

  int32_t Bind(const Tcp::endpoint& local);
  int32_t Listen(int32_t nBacklog);
  int32_t Connect(const std::string& strHost, uint32_t nPort);
  int32_t Adopt(Tcp::socket&& accepted);
  int32_t Receive(void* pBuffer, int32_t nSize);

  // Any thread.
  bool ReceiveHere(CWakeup& woken, std::span<uint8_t> buffer, const FTakeBytes& take);
  int32_t Send(const void* pBuffer, int32_t nSize);
  bool WaitWritable(int32_t timeoutMs);
  void Interrupt();

  CAsyncSocket* const pOwner;  // gone once End has run
  int32_t nEvents = 0;
  State state = State::kIdle;
  std::optional<Tcp::socket> socket;  // until it is connected
  std::optional<Tcp::acceptor> acceptor;
  std::optional<Tcp::socket> pending;       // an accepted connection that waits for Accept
  std::optional<asio::steady_timer> timer;  // of the connect, or until OnAccept is told anew
  std::vector<Tcp::endpoint> endpoints;     // still to be tried by the connect
  int64_t nConnectDeadline = 0;
  bool bBound = false;
  bool bCloseTold = false;
  bool bInReceive = false;
  bool bReadPosted = false;    // WaitRead has its turn soon
  int32_t nReceiveBudget = 0;  // what the OnReceive under way may still hand out

  // Shared, under the lock; nRound, pLoop, pLine and watch are written on the loop's thread alone.
  std::mutex lock;
  std::shared_ptr<CLoopCore> pLoop;
  uint64_t nRound = 0;                 // handlers of an earlier round do nothing
  std::shared_ptr<CDescriptor> pLine;  // while connected; closed by who lets go of it last
  std::optional<CLineWatch> watch;     // while connected
  bool bInterrupted = false;
  bool bReadWanted = false;   // OnReceive is due when bytes are there
  bool bWriteWanted = false;  // OnSend is due when there is room
  bool bReadLent = false;     // a ReceiveHere looks for bytes meanwhile
  int32_t nLost = 0;          // the failure that has ended the connection

  CWakeup wakeup;

 private:
  class CLoan;

  template <typename Body>
  auto Handler(Body body);
  bool Notify(int32_t nEvent, void (CAsyncSocket::*pNotification)(int32_t), int32_t nCode);
  void StartTimer(int32_t delayMs, void (Impl::*pTask)());
  void NextRound();
  void DropSocket();
  void Lose(int32_t nCode);

  void BeginConnect(const std::string& strHost, uint16_t nPort);
  void FinishLater(int32_t nCode);
  void TryNext(int32_t nCode);
  void TriedLongEnough();
  void Finish(int32_t nCode);
  int32_t Establish(Tcp::socket&& connected);
  void WaitForLine();
  void LineReady();
  void Watch();
  void WaitRead();
  void WaitReadLater();
  void Readable();
  void RaiseClose(int32_t nCode);
  int32_t ReadLine(void* pBuffer, int32_t nSize, int32_t nFlags);
  int32_t Take(int fd, void* pBuffer, int32_t nSize, int32_t nFlags);
  void WaitAccept();
  void TakePending(std::error_code& ec);
  void RaiseAccept();
  void RaiseAcceptLater();
};

// Wraps a handler so that it does nothing once the socket has been closed, keeps the Impl alive
// and lets no exception into the loop.
template <typename Body>
auto CAsyncSocket::Impl::Handler(Body body) {
  return [pSelf = shared_from_this(), round = nRound, body = std::move(body)](auto&&... args) {
    if (round != pSelf->nRound) return;
    RunGuarded([&] { body(std::forward<decltype(args)>(args)...); });
  };
}

}  // namespace kvl
