#include "platform/socket.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <ctime>
#include <memory>
#include <optional>
#include <thread>

#include "platform/clock.h"
#include "support/loop_fixtures.h"
#include "support/name_server.h"

namespace kvl {
namespace {

// A client and the server's end of its connection.
class CAsyncSocketTest : public testing::Test {
 protected:
  void SetUp() override {
    listener.pAccepted = &server;
    port = listener.ListenLocal();
    ASSERT_NE(port, 0U);
  }

  void ConnectPair() {
    ASSERT_TRUE(client.Create());
    ASSERT_TRUE(client.Connect("127.0.0.1", port));
    EXPECT_TRUE(client.connects.empty()) << "never inside the call";
    ASSERT_TRUE(RunLoopUntil(
        [&] { return client.connects.size() == 1 && server.GetHandle() != kInvalidSocket; }));
    ASSERT_EQ(client.connects[0], 0);
  }

  uint32_t port = 0;
  CTestSock listener, server, client;
};

TEST_F(CAsyncSocketTest, BytesGoBothWaysThenTheCloseIsToldOnce) {
  ConnectPair();
  EXPECT_EQ(client.Send("ping", 4), 4);
  EXPECT_TRUE(RunLoopUntil([&] { return server.received == "ping"; }));
  EXPECT_EQ(server.Send("pong", 4), 4);
  server.Close();
  EXPECT_TRUE(RunLoopUntil([&] { return !client.closes.empty(); }));
  EXPECT_EQ(client.received, "pong") << "bytes come ahead of the close";
  char byte;
  EXPECT_EQ(client.Receive(&byte, 1), 0);
  CMessageLoop::Current().RunUntil([] { return false; }, 20);
  EXPECT_EQ(client.closes, std::vector<int32_t>{0});
}

TEST_F(CAsyncSocketTest, ReceiveTurnsTheNotificationOnAgain) {
  ConnectPair();
  client.onReceive = [] {};
  server.Send("abcdef", 6);
  EXPECT_TRUE(RunLoopUntil([&] { return client.nReceiveEvents == 1; }));
  CMessageLoop::Current().RunUntil([] { return false; }, 20);
  EXPECT_EQ(client.nReceiveEvents, 1) << "nothing new while nobody reads";
  char bytes[3];
  EXPECT_EQ(client.Receive(bytes, 2), 2);
  EXPECT_TRUE(RunLoopUntil([&] { return client.nReceiveEvents == 2; })) << "bytes remain";
  EXPECT_EQ(client.Receive(bytes, 3), 3);
  EXPECT_EQ(client.Receive(bytes, 3), 1);
  EXPECT_EQ(client.Receive(bytes, 3), -1);
  EXPECT_EQ(CAsyncSocket::GetLastError(), kSockErrWouldBlock);
}

// Another thread that takes the bytes in the place of the loop, as long as it gets them.
class CTaker {
 public:
  explicit CTaker(CAsyncSocket& socket)
      : m_thread([this, &socket] {
          uint8_t buffer[4];
          while (!m_bEnd && socket.ReceiveHere(m_wakeup, buffer, [this](auto bytes) {
            for (const uint8_t byte : bytes) m_nSum += byte;
          })) {
          }
          m_bEnded = true;
        }) {}
  ~CTaker() { Stop(); }
  void Stop() {
    m_bEnd = true;
    m_wakeup.Set();
    if (m_thread.joinable()) m_thread.join();
  }

  CWakeup m_wakeup;
  std::atomic<bool> m_bEnd{false};
  std::atomic<bool> m_bEnded{false};
  std::atomic<int> m_nSum{0};
  std::thread m_thread;
};

TEST_F(CAsyncSocketTest, AnotherThreadMayReceiveInTheLoopsPlace) {
  ConnectPair();
  {
    CTaker taker(client);
    server.Send("\1", 1);
    ASSERT_TRUE(WaitFor([&] { return taker.m_nSum == 1; })) << "without the loop's help";
    ASSERT_EQ(server.Send("\1\1\1\1\1\1", 6), 6);
    EXPECT_TRUE(WaitFor([&] { return taker.m_nSum == 7; }));
  }
  EXPECT_EQ(client.nReceiveEvents, 0);
  server.Send("x", 1);
  EXPECT_TRUE(RunLoopUntil([&] { return client.received == "x"; })) << "the loop has it back";
}

TEST_F(CAsyncSocketTest, EndOfALentConnectionIsTheLoopsToTell) {
  for (const bool reset : {false, true}) {
    SCOPED_TRACE(reset);
    ConnectPair();
    server.onReceive = [] {};
    if (reset) client.Send("unread", 6);
    ASSERT_TRUE(RunLoopUntil([&] { return server.nReceiveEvents == (reset ? 1 : 0); }));
    CTaker taker(client);
    server.Close();  // with bytes unread the system resets the connection
    EXPECT_TRUE(RunLoopUntil([&] { return !client.closes.empty() && taker.m_bEnded; }));
    EXPECT_EQ(client.closes, std::vector<int32_t>{reset ? kSockErrReset : 0});
    client.Close();
    client.closes.clear();
    client.connects.clear();
  }
  ConnectPair();
  CTaker taker(client);
  client.Close();
  EXPECT_TRUE(WaitFor([&] { return taker.m_bEnded.load(); })) << "freed by Close";
  EXPECT_TRUE(RunLoopUntil([&] { return !server.closes.empty(); })) << "nobody holds the line open";
}

TEST_F(CAsyncSocketTest, EndThatNobodyTakesCostsNothing) {
  for (const bool reads : {false, true}) {
    SCOPED_TRACE(reads);
    ConnectPair();
    client.onReceive = nullptr;
    if (!reads) client.onReceive = [] {};
    server.onReceive = [] {};
    client.Send("unread", 6);
    server.Send("x", 1);
    ASSERT_TRUE(
        RunLoopUntil([&] { return server.nReceiveEvents > 0 && client.nReceiveEvents > 0; }));
    server.Close();  // with bytes unread the system resets the connection
    if (reads) {
      ASSERT_TRUE(RunLoopUntil([&] { return !client.closes.empty(); }));
    }
    const std::clock_t before = std::clock();
    CMessageLoop::Current().RunUntil([] { return false; }, 300);
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 10);
    client.Close();
    client.connects.clear();
    server.nReceiveEvents = client.nReceiveEvents = 0;
  }
}

TEST_F(CAsyncSocketTest, FloodLeavesRoomForOtherEvents) {
  ConnectPair();
  std::atomic<bool> bEnd{false};
  std::thread flood([&] {
    const std::string block(65536, 'x');
    while (!bEnd) {
      if (server.Send(block.data(), 65536) < 0) server.WaitWritable(10);
    }
  });
  // A reader that never ends by itself still hands the loop back.
  client.onReceive = [&] {
    char buffer[2048];
    int32_t handedOut = 0;
    for (int32_t n = 1; n > 0;) {
      n = client.Receive(buffer, sizeof buffer);
      handedOut += n > 0 ? n : 0;
    }
    EXPECT_LE(handedOut, CAsyncSocket::kMaxBytesPerReceive + 2048);
  };
  EXPECT_TRUE(RunLoopUntil([&] { return client.nReceiveEvents > 20; }));
  bEnd = true;
  flood.join();
}

TEST_F(CAsyncSocketTest, ConnectAlwaysHasAnOutcome) {
  ConnectPair();
  listener.Close();
  const struct {
    const char* host;
    uint32_t port;
    int32_t code;
  } kCases[] = {{"127.0.0.1", port, kSockErrRefused},
                {"", port, kSockErrAddressRequired},
                {"127.0.0.1", 0, kSockErrAddressNotAvailable},
                {"127.0.0.1", 65536, kSockErrAddressNotAvailable},
                {"255.255.255.255", port, 0}};
  for (const auto& row : kCases) {
    SCOPED_TRACE(testing::Message() << row.host << ":" << row.port);
    CTestSock sock;
    ASSERT_TRUE(sock.Create());
    ASSERT_TRUE(sock.Connect(row.host, row.port));
    ASSERT_TRUE(RunLoopUntil([&] { return !sock.connects.empty(); }));
    if (row.code == 0) {
      EXPECT_NE(sock.connects[0], 0) << "no code of ours, but a failure";
    } else {
      EXPECT_EQ(sock.connects[0], row.code);
    }
    EXPECT_NE(sock.GetHandle(), kInvalidSocket) << "a failed connect leaves the handle";
  }
}

// While it lives the system gives no descriptor.
class CNoDescriptors {
 public:
  CNoDescriptors() {
    getrlimit(RLIMIT_NOFILE, &m_before);
    const int lowestFree = dup(0);
    close(lowestFree);
    const rlimit none{static_cast<rlim_t>(lowestFree), m_before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
  }
  ~CNoDescriptors() { setrlimit(RLIMIT_NOFILE, &m_before); }
  CNoDescriptors(const CNoDescriptors&) = delete;
  CNoDescriptors& operator=(const CNoDescriptors&) = delete;

 private:
  rlimit m_before{};
};

TEST_F(CAsyncSocketTest, ShortageOfDescriptorsIsAnOutcomeAndPasses) {
  if (kSanitized) GTEST_SKIP() << "UBSan needs descriptors itself";
  constexpr int32_t kTooManyOpen = 10024;
  std::optional<CNoDescriptors> none(std::in_place);
  ASSERT_TRUE(client.Create());
  ASSERT_TRUE(client.Connect("127.0.0.1", port));
  ASSERT_TRUE(RunLoopUntil([&] { return !client.connects.empty(); }));
  EXPECT_EQ(client.connects[0], kTooManyOpen);

  std::thread([&] {  // which has no loop yet
    CTestSock early;
    EXPECT_FALSE(early.Create());
    EXPECT_EQ(CAsyncSocket::GetLastError(), kSockErrNoBuffers);
    EXPECT_FALSE(CTimer().Start(0, [] {}));
    EXPECT_EQ(CTestWnd().GetSafeHwnd(), nullptr);
    none.reset();
    EXPECT_TRUE(early.Create());
    EXPECT_TRUE(early.Connect("127.0.0.1", port));
    EXPECT_TRUE(RunLoopUntil([&] { return !early.connects.empty(); }));
    EXPECT_EQ(early.connects, std::vector<int32_t>{0});
  })
      .join();
  client.Close();
  client.connects.clear();
  server.Close();
  ConnectPair();
}

TEST_F(CAsyncSocketTest, NameThatIsNotAnsweredHoldsUpNobody) {
  CNameServer::Hush();
  const int before = CNameServer::Begun();
  CTestSock first, second, gone;
  for (CTestSock* pSock : {&first, &second, &gone}) {
    ASSERT_TRUE(pSock->Create());
    ASSERT_TRUE(pSock->Connect("one.silent", port));
  }
  std::thread([&] {
    CTestSock sock;
    sock.Create();
    sock.Connect("two.silent", port);
    WaitFor([&] { return CNameServer::Begun() == before + 2; });
  }).join();
  gone.Close();

  ASSERT_TRUE(client.Create());
  ASSERT_TRUE(client.Connect("localhost", port));
  ASSERT_TRUE(RunLoopUntil([&] { return !client.connects.empty(); }));
  EXPECT_EQ(client.connects[0], 0);

  CNameServer::Answer();
  ASSERT_TRUE(RunLoopUntil([&] { return !first.connects.empty() && !second.connects.empty(); }));
  EXPECT_EQ(first.connects[0], 0);
  EXPECT_EQ(second.connects[0], 0);
  EXPECT_TRUE(gone.connects.empty());
  EXPECT_EQ(CNameServer::Begun(), before + 2) << "one look-up a name";
}

TEST_F(CAsyncSocketTest, AddressThatDoesNotAnswerLeavesTimeForTheNext) {
  CSilentPeer silent;
  ASSERT_TRUE(silent.Open(port));
  CTestSock hopeless;
  const int64_t start = GetTickCount();
  ASSERT_TRUE(hopeless.Create());
  ASSERT_TRUE(hopeless.Connect("127.0.0.2+127.0.0.2", port));
  ASSERT_TRUE(client.Create());
  ASSERT_TRUE(client.Connect("127.0.0.2+127.0.0.1", port));
  ASSERT_TRUE(RunLoopUntil([&] { return !client.connects.empty(); }));
  EXPECT_EQ(client.connects[0], 0);
  EXPECT_TRUE(RunLoopUntil([&] { return server.GetHandle() != kInvalidSocket; }));
  EXPECT_TRUE(hopeless.connects.empty());
  ASSERT_TRUE(RunLoopUntil([&] { return !hopeless.connects.empty(); }));
  EXPECT_EQ(hopeless.connects[0], kSockErrTimedOut);
  EXPECT_GE(GetTickCount() - start, CAsyncSocket::kConnectTimeoutMs);
}

TEST_F(CAsyncSocketTest, ResetCarriesItsCodeToTheClose) {
  ConnectPair();
  server.onReceive = [] {};
  client.Send("unread", 6);
  EXPECT_TRUE(RunLoopUntil([&] { return server.nReceiveEvents == 1; }));
  server.Close();  // with bytes unread the system resets the connection
  EXPECT_TRUE(RunLoopUntil([&] { return !client.closes.empty(); }));
  EXPECT_EQ(client.closes, std::vector<int32_t>{kSockErrReset});
}

TEST_F(CAsyncSocketTest, NotificationMayDestroyItsSocket) {
  ConnectPair();
  auto pOwn = std::make_unique<CTestSock>();
  server.Close();
  listener.pAccepted = &server;
  pOwn->onClose = [&] { pOwn.reset(); };
  ASSERT_TRUE(pOwn->Create());
  const SOCKET handle = pOwn->GetHandle();
  EXPECT_EQ(CAsyncSocket::LookupHandle(handle), pOwn.get());
  std::thread([&] { EXPECT_EQ(CAsyncSocket::LookupHandle(handle), nullptr); }).join();
  ASSERT_TRUE(pOwn->Connect("127.0.0.1", port));
  ASSERT_TRUE(RunLoopUntil(
      [&] { return pOwn->connects.size() == 1 && server.GetHandle() != kInvalidSocket; }));
  server.Close();
  EXPECT_TRUE(RunLoopUntil([&] { return pOwn == nullptr; }));
  EXPECT_EQ(CAsyncSocket::LookupHandle(handle), nullptr);
}

TEST_F(CAsyncSocketTest, ConnectionThatIsNotTakenIsToldAnew) {
  listener.pAccepted = nullptr;
  ASSERT_TRUE(client.Create());
  ASSERT_TRUE(client.Connect("127.0.0.1", port));
  EXPECT_TRUE(RunLoopUntil([&] { return listener.nAcceptEvents == 2; }));
  listener.pAccepted = &server;
  EXPECT_TRUE(RunLoopUntil([&] { return server.GetHandle() != kInvalidSocket; }));
  EXPECT_EQ(listener.Accept(client), 0) << "nothing waits any more";
}

TEST_F(CAsyncSocketTest, WriterOnAFullLineIsFreedByRoomInterruptAndClose) {
  ConnectPair();
  client.onReceive = [] {};
  const std::string block(1 << 20, 'x');
  while (server.Send(block.data(), 1 << 20) > 0) {
  }
  EXPECT_EQ(CAsyncSocket::GetLastError(), kSockErrWouldBlock);
  const int nSendEvents = server.nSendEvents;
  std::thread([&] {
    EXPECT_FALSE(server.WaitWritable(1));
    EXPECT_EQ(CAsyncSocket::GetLastError(), kSockErrTimedOut);
  }).join();

  std::atomic<bool> bRoom{false};
  std::thread byRoom([&] { bRoom = server.WaitWritable(kTestPatienceMs); });
  client.onReceive = nullptr;
  client.OnReceive(0);
  EXPECT_TRUE(RunLoopUntil([&] { return bRoom && server.nSendEvents > nSendEvents; }));
  byRoom.join();

  client.onReceive = [] {};
  while (server.Send(block.data(), 1 << 20) > 0) {
  }
  std::thread byInterrupt([&] { EXPECT_FALSE(server.WaitWritable(-1)); });
  Sleep(20);  // so that it waits, as a rule
  server.Interrupt();
  byInterrupt.join();
  EXPECT_FALSE(server.WaitWritable(-1)) << "until the socket is made anew";
}

TEST_F(CAsyncSocketTest, CloseMayMeetASendOnAnotherThread) {
  for (int round = 0; round < 50; ++round) {
    server.Close();
    client.Close();
    client.connects.clear();
    ConnectPair();
    std::atomic<int> nSent{0};
    std::thread sender([&] {
      const std::string block(65536, 'x');
      while (client.GetHandle() != kInvalidSocket) {
        if (client.Send(block.data(), 65536) < 0) client.WaitWritable(1000);
        ++nSent;
      }
    });
    EXPECT_TRUE(RunLoopUntil([&] { return nSent > round % 5; }));
    client.Close();
    sender.join();
    EXPECT_EQ(client.Send("x", 1), -1);
    EXPECT_EQ(CAsyncSocket::GetLastError(), kSockErrNotConnected);
  }
}

TEST_F(CAsyncSocketTest, SocketsEndWithTheirThread) {
  auto pSocket = std::make_unique<CTestSock>();
  std::thread([&] {
    ASSERT_TRUE(pSocket->Create());
    ASSERT_TRUE(pSocket->Connect("127.0.0.1", port));
    ASSERT_TRUE(RunLoopUntil([&] { return !pSocket->connects.empty(); }));
  }).join();
  EXPECT_EQ(pSocket->GetHandle(), kInvalidSocket);
  EXPECT_TRUE(RunLoopUntil([&] { return !server.closes.empty(); }));
}

}  // namespace
}  // namespace kvl
