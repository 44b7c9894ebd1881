// Waiting for what a loop brings, and ends of a line that write down what they are told.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/message_loop.h"
#include "platform/socket.h"
#include "platform/window.h"

namespace kvl {

#if defined(__has_feature)
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
#define KVL_TEST_SANITIZED 1
#endif
#endif
#ifdef KVL_TEST_SANITIZED
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

// Generous: it only bounds a failing test.
inline constexpr int32_t kTestPatienceMs = 30000;

// Serves the loop; asks in between too, for what another thread brings about.
inline bool RunLoopUntil(const std::function<bool()>& done) {
  const int64_t deadline = GetTickCount() + kTestPatienceMs;
  bool bDone = done();
  while (!bDone && GetTickCount() < deadline) bDone = CMessageLoop::Current().RunUntil(done, 1);
  return bDone;
}

// Waits for another thread, without a loop.
inline bool WaitFor(const std::function<bool()>& done) {
  const int64_t deadline = GetTickCount() + kTestPatienceMs;
  while (!done() && GetTickCount() < deadline) Sleep(1);
  return done();
}

struct SeenMessage {
  uint32_t nMessage;
  WPARAM wParam;
  LPARAM lParam;
  bool operator==(const SeenMessage&) const = default;
};

// A window that keeps its messages and answers through `handler`.
class CTestWnd : public CWnd {
 public:
  explicit CTestWnd(CWnd* pParent = nullptr) {
    Create(pParent ? kWsChild : 0, {0, 0, 10, 10}, pParent, 1);
  }
  ~CTestWnd() override { DestroyWindow(); }

  LRESULT WindowProc(uint32_t nMessage, WPARAM wParam, LPARAM lParam) override {
    seen.push_back({nMessage, wParam, lParam});
    return handler ? handler(seen.back()) : 0;
  }

  int Count(uint32_t nMessage) const {
    int count = 0;
    for (const SeenMessage& message : seen) count += message.nMessage == nMessage ? 1 : 0;
    return count;
  }

  std::vector<SeenMessage> seen;
  std::function<LRESULT(const SeenMessage&)> handler;
};

// A socket that keeps its notifications, reads what comes, and takes connections into `pAccepted`.
class CTestSock : public CAsyncSocket {
 public:
  ~CTestSock() override { CAsyncSocket::Close(); }

  // Listens on a free port of this machine and gives the port.
  uint32_t ListenLocal() {
    std::string address;
    uint32_t port = 0;
    if (!Create(0, kSockStream, kFdAll, "127.0.0.1") || !Listen() || !GetSockName(address, port)) {
      return 0;
    }
    return port;
  }

  void OnReceive(int32_t) override {
    ++nReceiveEvents;
    if (onReceive) return onReceive();
    char buffer[2048];
    for (int32_t n = Receive(buffer, sizeof buffer); n > 0; n = Receive(buffer, sizeof buffer)) {
      received.append(buffer, static_cast<size_t>(n));
    }
  }
  void OnSend(int32_t) override { ++nSendEvents; }
  void OnAccept(int32_t) override {
    ++nAcceptEvents;
    if (pAccepted && pAccepted->GetHandle() == kInvalidSocket) Accept(*pAccepted);
  }
  void OnConnect(int32_t nErrorCode) override { connects.push_back(nErrorCode); }
  void OnClose(int32_t nErrorCode) override {
    closes.push_back(nErrorCode);
    if (onClose) onClose();
  }

  std::string received;
  std::vector<int32_t> connects, closes;
  int nReceiveEvents = 0, nSendEvents = 0, nAcceptEvents = 0;
  CAsyncSocket* pAccepted = nullptr;
  std::function<void()> onReceive, onClose;
};

// A port of this machine at which a connect gets no answer: the queue is full, and nobody takes
// connections out of it.
class CSilentPeer {
 public:
  static constexpr const char* kAddress = "127.0.0.2";

  bool Open(uint32_t port) {
    if (!m_listener.Create(port, kSockStream, 0, kAddress) || !m_listener.Listen(0)) return false;
    for (CTestSock& caller : m_callers) {
      const auto isTaken = [&caller] { return !caller.connects.empty(); };
      if (!caller.Create() || !caller.Connect(kAddress, port)) return false;
      if (!CMessageLoop::Current().RunUntil(isTaken, 500)) return true;
    }
    return false;
  }

 private:
  CTestSock m_listener, m_callers[4];
};

}  // namespace kvl
