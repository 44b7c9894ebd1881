#include "transport/Sockets.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <random>
#include <thread>

#include "support/loop_fixtures.h"

namespace kvl {
namespace {

// Raises the notifications by hand.
class COpenClientSock : public CClientSock {
 public:
  using CClientSock::OnClose;
  using CClientSock::OnConnect;
  using CClientSock::OnReceive;
};

TEST(CClientSockTest, MessageCarriesSerialNumberAndCode) {
  CTestWnd window;
  COpenClientSock sock;
  sock.OnClose(0);  // no window: dropped
  sock.SetWnd(window.GetSafeHwnd());
  EXPECT_EQ(sock.bsGetSerialNo(), -1);
  static constexpr struct {
    int32_t serial;
    uint32_t message;
    void (COpenClientSock::*pRaise)(int32_t);
    int32_t code;
    uint32_t value;
  } kCases[] = {{-1, 0x402, &COpenClientSock::OnReceive, 10054, 0x0000FFFF},
                {-1, 0x404, &COpenClientSock::OnConnect, 0, 0x0000FFFF},
                {7, 0x404, &COpenClientSock::OnConnect, 10061, (10061U << 16) | 7},
                {7, 0x403, &COpenClientSock::OnClose, 10053, (10053U << 16) | 7},
                {0x12345, 0x403, &COpenClientSock::OnClose, 0, 0x2345}};
  ASSERT_TRUE(sock.Create());
  for (const auto& row : kCases) {
    sock.bsSetSerialNo(row.serial);
    (sock.*row.pRaise)(row.code);
    EXPECT_EQ(window.seen.back(), (SeenMessage{row.message, sock.GetHandle(), row.value}));
  }
  const size_t count = window.seen.size();
  sock.SetWnd(reinterpret_cast<HWND>(uintptr_t{0x7FFFFFFF}));  // a window that is gone
  sock.OnClose(0);
  EXPECT_EQ(window.seen.size(), count);
}

class CServerSockTest : public testing::Test {
 protected:
  // A server with the listener's end in the open.
  class COpenServerSock : public CServerSock {
   public:
    using CServerSock::OnAccept;
  };

  void SetUp() override {
    std::string address;
    server.SetWnd(window.GetSafeHwnd());
    ASSERT_TRUE(server.Create(0, kSockStream, kFdAll, "127.0.0.1"));
    ASSERT_TRUE(server.Listen());
    ASSERT_TRUE(server.GetSockName(address, port));
    window.handler = [this](const SeenMessage& message) -> LRESULT {
      CAsyncSocket* pSocket = CAsyncSocket::LookupHandle(message.wParam);
      if (!pSocket) return 0;
      uint8_t buffer[2048];
      if (message.nMessage == kMsgSocketReceive) {
        for (int32_t n = pSocket->Receive(buffer, sizeof buffer); n > 0;
             n = pSocket->Receive(buffer, sizeof buffer)) {
          received.append(reinterpret_cast<char*>(buffer), static_cast<size_t>(n));
        }
      } else if (message.nMessage == kMsgSocketClose) {
        pSocket->Close();
      }
      return 0;
    };
  }

  // Connects one more client and waits until the window has heard of it.
  CTestSock& AddClient() {
    const int before = window.Count(kMsgSocketAccept);
    clients.push_back(std::make_unique<CTestSock>());
    EXPECT_TRUE(clients.back()->Create());
    EXPECT_TRUE(clients.back()->Connect("127.0.0.1", port));
    EXPECT_TRUE(RunLoopUntil([&] { return window.Count(kMsgSocketAccept) > before; }));
    return *clients.back();
  }

  LPARAM LastSlot() const {
    const auto it = std::find_if(window.seen.rbegin(), window.seen.rend(), [](const auto& message) {
      return message.nMessage == kMsgSocketAccept;
    });
    return it == window.seen.rend() ? -1 : it->lParam;
  }

  void ExpectConnections(int32_t count) {
    server.CalcConnection();
    EXPECT_EQ(server.GetConnectionCount(), count);
  }

  CTestWnd window;
  COpenServerSock server;
  uint32_t port = 0;
  std::vector<std::unique_ptr<CTestSock>> clients;
  std::string received;
};

TEST_F(CServerSockTest, NewPoolIsFreeAndNumbered) {
  ExpectConnections(0);
  EXPECT_EQ(server.GetClient(0)->bsGetSerialNo(), 0);
  EXPECT_EQ(server.GetClient(255)->bsGetSerialNo(), 255);
  EXPECT_EQ(server.GetClient(256), nullptr);
  EXPECT_EQ(server.GetClient(-1), nullptr);
}

TEST_F(CServerSockTest, ConnectionTakesTheLowestFreePlace) {
  for (int i = 0; i < 3; ++i) {
    AddClient();
    EXPECT_EQ(LastSlot(), i);
    EXPECT_EQ(server.GetConnectionCount(), i + 1);
  }
  clients[1]->Close();  // heard of by kMsgSocketClose
  ASSERT_TRUE(RunLoopUntil([&] { return window.Count(kMsgSocketClose) == 1; }));
  EXPECT_EQ(window.seen.back().lParam, 1);
  ExpectConnections(2);
  AddClient();
  EXPECT_EQ(LastSlot(), 1);
  server.GetClient(0)->Close();  // by the host itself
  ExpectConnections(2);
  AddClient();
  EXPECT_EQ(LastSlot(), 0);
  clients.back()->Send("hello", 5);
  EXPECT_TRUE(RunLoopUntil([&] { return received == "hello"; }));
}

TEST_F(CServerSockTest, FullPoolLetsConnectionsWait) {
  for (int i = 0; i < CServerSock::kMaxConnection; ++i) AddClient();
  ExpectConnections(256);
  auto pWaiting = std::make_unique<CTestSock>();
  ASSERT_TRUE(pWaiting->Create());
  ASSERT_TRUE(pWaiting->Connect("127.0.0.1", port));
  ASSERT_TRUE(RunLoopUntil([&] { return !pWaiting->connects.empty(); }));
  server.OnAccept(0);
  CMessageLoop::Current().RunUntil([] { return false; }, 150);
  EXPECT_EQ(window.Count(kMsgSocketAccept), 256);
  EXPECT_EQ(server.GetConnectionCount(), 256);
  clients[100]->Close();
  ASSERT_TRUE(RunLoopUntil([&] { return window.Count(kMsgSocketAccept) == 257; }));
  EXPECT_EQ(LastSlot(), 100);
}

TEST_F(CServerSockTest, FramesOfRandomSplitsArriveWholeAndInOrder) {
  CTestSock& client = AddClient();
  constexpr int kFrames = 10000;
  std::string sent;
  for (int i = 0; i < kFrames; ++i) sent += "#" + std::to_string(i * 7919) + "\r\n";
  std::thread device([&] {
    std::mt19937 random(1);
    for (size_t at = 0; at < sent.size();) {
      const size_t size = std::min<size_t>(1 + random() % 300, sent.size() - at);
      const int32_t n = client.Send(sent.data() + at, static_cast<int32_t>(size));
      if (n > 0) at += static_cast<size_t>(n);
      if (n < 0) {
        ASSERT_EQ(CAsyncSocket::GetLastError(), kSockErrWouldBlock);
        ASSERT_TRUE(client.WaitWritable(kTestPatienceMs));
      }
    }
  });
  EXPECT_TRUE(RunLoopUntil([&] { return received.size() >= sent.size(); }));
  device.join();
  EXPECT_TRUE(received == sent);
}

TEST_F(CServerSockTest, WriteIsCompletedOrGivenUpInTime) {
  CTestSock& peer = AddClient();
  CClientSock& sock = *server.GetClient(0);
  const std::vector<uint8_t> block(32 << 20, 'x');  // more than any system keeps for us
  const auto size = static_cast<int32_t>(block.size());
  std::atomic<int32_t> written{-1};
  std::thread whole([&] { written = sock.Write(block.data(), size); });
  EXPECT_TRUE(RunLoopUntil([&] { return peer.received.size() == block.size(); }));
  whole.join();
  EXPECT_EQ(written, size) << "short sends are completed";

  peer.onReceive = [] {};
  const int64_t start = GetTickCount();
  EXPECT_LT(sock.Write(block.data(), size), size);
  EXPECT_GE(GetTickCount() - start, kWriteTimeoutMs);
  std::thread interrupted([&] { written = sock.Write(block.data(), size); });
  sock.Interrupt();
  interrupted.join();
  EXPECT_LT(written, size);
  sock.Close();
  EXPECT_FALSE(sock.IsOpen());
  EXPECT_EQ(sock.Write(block.data(), 1), 0);
}

}  // namespace
}  // namespace kvl
