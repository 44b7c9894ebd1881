// The life of a session: verification, both forms of Run, the socket events, a lost port, SYNC.
#include <sys/resource.h>

#include <ctime>

#include "control/sync_notify.h"
#include "session_fixtures.h"

namespace kvl {
namespace {

using CDecodeCtrlTest = SessionTest;

constexpr LPARAM ErrorParam(int32_t code) {
  return static_cast<LPARAM>(static_cast<uint32_t>(code) << 16);
}

TEST_F(CDecodeCtrlTest, PaintsABlueRectangle) {
  control.UpdateWindow();
  const CSurface& surface = control.GetSurface();
  ASSERT_EQ(surface.Width(), 20);
  ASSERT_EQ(surface.Height(), 10);
  EXPECT_EQ(surface.GetPixel(0, 0), 0xC86464U);
  EXPECT_EQ(surface.GetPixel(19, 9), 0xC86464U);
}

TEST_F(CDecodeCtrlTest, NothingStartsWithoutACleanVerification) {
  control.Stop();
  EXPECT_TRUE(seen.statuses.empty()) << "Stop of nothing";
  EXPECT_EQ(control.Run(), -1);
  EXPECT_EQ(control.Run(88, 1, 6, 0, 0), -1);
  control.SetScriptName(nullptr);
  EXPECT_STREQ(control.GetScriptName(), "");
  EXPECT_EQ(control.VerifyScript(), -1);

  script.Write("BEGIN:\nADD\nMOVE\nEND:\n");
  control.SetScriptName(script.Path().c_str());
  EXPECT_EQ(control.VerifyScript(), -1);
  ASSERT_NE(control.GetSyntax(), nullptr);
  const size_t faults = control.GetSyntax()->GetErrorCount();
  EXPECT_GT(faults, 0U);
  EXPECT_EQ(control.VerifyScript(), -1);
  EXPECT_EQ(control.GetSyntax()->GetErrorCount(), faults) << "of the last verification alone";
  EXPECT_EQ(control.Run(), -1);
  EXPECT_EQ(control.GetEngine(), nullptr);
  control.Stop();
  EXPECT_EQ(control.GetSyntax(), nullptr);
}

TEST_F(CDecodeCtrlTest, ScriptWithoutAnOpenableLineStartsNothing) {
  Verify("OPEN MEDIA UDP\nOPEN IP 127.0.0.1\nOPEN PORT 9\n" + std::string(kPrintBatches));
  EXPECT_EQ(control.Run(), 0);
  EXPECT_EQ(control.GetInterface(), 3U);
  control.Stop();
  EXPECT_EQ(seen.statuses, std::vector{ESessionStatus::Stopped});
}

TEST_F(CDecodeCtrlTest, FailedVerificationLeavesARunningSessionAlone) {
  StartSerial(kPrintBatches);
  LineSends("here");
  ASSERT_TRUE(ReachesPrints(1));
  script.Write("OPEN MEDIA TCP\nBEGIN:\nADD\nEND:\n");
  EXPECT_EQ(control.VerifyScript(), -1);
  EXPECT_EQ(control.Run(), -1);
  LineSends("still here");
  EXPECT_TRUE(ReachesPrints(2));
}

TEST_F(CDecodeCtrlTest, SecondRunStopsTheFirstAndStartsAfresh) {
  StartSerial(
      "VAR N% 0\nDIM RX$ 8192\nVAR LEN% 0\nBEGIN:\nIN RX, LEN\nCMP LEN, 0\nJPE END\n"
      "INC N\nPRINT N\nEND:\n");
  LineSends("a");
  ASSERT_TRUE(ReachesPrints(1));
  LineSends("b");
  ASSERT_TRUE(ReachesPrints(2));
  ASSERT_EQ(control.Run(), 0);
  LineSends("c");
  ASSERT_TRUE(ReachesPrints(3));
  EXPECT_EQ(seen.Prints(), (std::vector<std::string>{"1", "2", "1"}));
  EXPECT_EQ(seen.statuses,
            (std::vector{ESessionStatus::Opened, ESessionStatus::Stopped, ESessionStatus::Opened}));
}

TEST_F(CDecodeCtrlTest, RunFromTheNewsOfAStopDoesNotMeetItself) {
  StartSerial(kPrintBatches);
  int32_t inner = 1;
  seen.onStatus = [&](ESessionStatus status) {
    if (status == ESessionStatus::Stopped && inner == 1) inner = control.Run();
  };
  EXPECT_EQ(control.Run(), -1) << "another session runs by now";
  EXPECT_EQ(inner, 0);
  LineSends("alive");
  EXPECT_TRUE(ReachesPrints(1));
}

TEST_F(CDecodeCtrlTest, FiveNumbersOpenAPortInTheScriptsPlace) {
  StartTcp(kPrintBatches);
  EXPECT_EQ(control.GetInterface(), 2U);
  EXPECT_EQ(control.Run(0, 1, 6, 0, 0), -1);
  EXPECT_EQ(control.Run(100, 1, 6, 0, 0), -1);
  EXPECT_TRUE(control.IsConnected()) << "a refused call leaves the session alone";
  ASSERT_EQ(control.Run(88, 1, 6, 0, 0), 0);
  EXPECT_FALSE(control.IsConnected());
  EXPECT_EQ(control.GetInterface(), 1U);
  EXPECT_STREQ(control.GetCom().szPort, kPort);
  EXPECT_EQ(control.GetCom().nDataBit, 1);
  EXPECT_EQ(control.GetCom().nBaudRate, 6);
  LineSends("serial now");
  ASSERT_TRUE(ReachesPrints(1));
  EXPECT_EQ(seen.Prints()[0], "serial now");
}

TEST_F(CDecodeCtrlTest, PortThatCannotBeOpenedFailsUntilItCan) {
  Verify(SerialScript(kPrintBatches));
  MapSerialPort(kPort, "/nowhere");
  EXPECT_EQ(control.Run(), -1);
  EXPECT_NE(control.GetEngine(), nullptr) << "stays until Stop";
  EXPECT_EQ(control.OnReopenPort(), -1);
  MapSerialPort(kPort, line.GetDeviceName());
  EXPECT_EQ(control.OnReopenPort(), 0);
  EXPECT_EQ(control.OnReopenPort(), 0) << "open already";
  LineSends("x");
  EXPECT_TRUE(ReachesPrints(1));
  control.Stop();
  EXPECT_EQ(control.OnReopenPort(), -1);
  EXPECT_EQ(control.GetEngine(), nullptr);
}

// Variables and settings live on, the pass in hand ends in peace, and bytes come again.
TEST_F(CDecodeCtrlTest, LostPortIsToldOnceAndCanBeReopened) {
  for (const char* main : {"IN RX, LEN\nCMP LEN, 0\nJPE END\nINC N\nPRINT N\nEND:\n",
                           "IN RX, LEN\nINC BUSY\nCMP LEN, 0\nJPE END\nINC N\nPRINT N\nEND:\n",
                           "IN RX, LEN\nSLEEP 5\nCMP LEN, 0\nJPE END\nINC N\nPRINT N\nEND:\n"}) {
    SCOPED_TRACE(main);
    const size_t before = seen.printed;
    const int lost = seen.Count(ESessionStatus::Lost);
    StartSerial(std::string("VAR N% 0\nVAR BUSY% 0\nDIM RX$ 8192\nVAR LEN% 0\nBEGIN:\n") + main);
    LineSends("a");
    ASSERT_TRUE(ReachesPrints(before + 1));
    line.HangUp();
    ASSERT_TRUE(RunLoopUntil([&] { return seen.Count(ESessionStatus::Lost) > lost; }));
    ASSERT_TRUE(line.Open());
    MapSerialPort(kPort, line.GetDeviceName());
    ASSERT_EQ(control.OnReopenPort(), 0);
    LineSends("b");
    ASSERT_TRUE(ReachesPrints(before + 2));
    EXPECT_EQ(seen.Prints().back(), "2");
    EXPECT_EQ(seen.Count(ESessionStatus::Lost), lost + 1);
    EXPECT_EQ(seen.texts[seen.texts.size() - 2], kPort);
    control.Stop();
  }
}

TEST_F(CDecodeCtrlTest, LossInAnEarlierSessionIsNoNews) {
  StartSerial(kPrintBatches);
  line.HangUp();
  ASSERT_TRUE(WaitFor([this] { return control.OnReopenPort() == -1; })) << "lost, and not told yet";
  EXPECT_EQ(control.Run(), -1);
  CMessageLoop::Current().RunUntilIdle();
  EXPECT_EQ(seen.Count(ESessionStatus::Lost), 0);
}

TEST_F(CDecodeCtrlTest, RefusedConnectStartsTheWorkerAndSaysWhy) {
  listener.CAsyncSocket::Close();
  Verify(
      TcpScript("VAR ONCE% 0\nBEGIN:\nCMP ONCE, 1\nJPE END\nMOVE ONCE, 1\nPRINT \"runs\"\nEND:\n"));
  ASSERT_EQ(control.Run(), 0);
  ASSERT_TRUE(ReachesPrints(1));
  EXPECT_FALSE(control.IsConnected());
  EXPECT_EQ(control.GetStatusText(), "The attempt to connect was forcefully rejected.");
  EXPECT_EQ(seen.statuses,
            (std::vector{ESessionStatus::Connecting, ESessionStatus::ConnectFailed}));
}

TEST_F(CDecodeCtrlTest, ClosedByPeerGoesOnAndCanBeRecreated) {
  StartTcp(
      "VAR N% 0\nDIM RX$ 8192\nVAR LEN% 0\nBEGIN:\nIN RX, LEN\nCMP LEN, 0\nJPE END\nINC N\n"
      "PRINT RX\nPRINT N\nOUT \"answer\"\nEND:\n");
  const std::string address = "127.0.0.1";
  EXPECT_EQ(control.GetStatusText(),
            "\r\nConnected to " + address + ":" + std::to_string(tcpPort) + " ...\r\n");
  seen.SetGate(false);
  PeerSends("a");
  ASSERT_TRUE(ReachesPrints(1));
  PeerSends("last words");  // while the worker is held, so that they are in the queue at the end
  ASSERT_TRUE(RunLoopUntil([this] { return seen.received == 11; }));
  peer.Close();
  ASSERT_TRUE(RunLoopUntil([this] { return seen.Count(ESessionStatus::Closed) == 1; }));
  EXPECT_FALSE(control.IsConnected());
  EXPECT_EQ(control.GetStatusText(), "\r\nDisconnect from " + address + " ...\n\r\n");
  seen.SetGate(true);
  ASSERT_TRUE(ReachesPrints(4));
  ASSERT_TRUE(RunLoopUntil([this] { return seen.sent == 2; })) << "into no socket at all";

  peer.received.clear();
  control.OnRecreateSocket();
  ASSERT_TRUE(
      RunLoopUntil([this] { return control.IsConnected() && peer.GetHandle() != kInvalidSocket; }));
  PeerSends("b");
  ASSERT_TRUE(RunLoopUntil([this] { return peer.received == "answer"; })) << peer.received;
  EXPECT_EQ(seen.Prints(), (std::vector<std::string>{"a", "1", "last words", "2", "b", "3"}));
}

// The events as a socket layer could bring them.
TEST_F(CDecodeCtrlTest, SocketEventsByHand) {
  constexpr WPARAM kNobody = 999999;
  EXPECT_EQ(control.OnConnect(kNobody, 0), 0);
  EXPECT_EQ(control.OnReceiveSocket(kNobody, 0), 0);
  EXPECT_EQ(control.OnCloseSocket(kNobody, 0), 0);
  EXPECT_TRUE(seen.statuses.empty());
  EXPECT_EQ(control.OnConnect(listener.GetHandle(), 0), 0) << "without a session";
  EXPECT_EQ(seen.Count(ESessionStatus::Connected), 0);

  StartTcp("VAR ONCE% 0\nBEGIN:\nCMP ONCE, 1\nJPE END\nMOVE ONCE, 1\nPRINT \"runs\"\nEND:\n");
  const SOCKET live = listener.GetHandle();
  struct {
    int32_t code;
    const char* status;
    const char* told;
  } const kConnects[] = {
      {10061, "The attempt to connect was forcefully rejected.",
       "The attempt to connect was forcefully rejected."},
      {10050, "", "Socket error 10050."},
      {65535, "", "Socket error 65535."},
  };
  for (const auto& row : kConnects) {
    EXPECT_EQ(control.OnConnect(live, ErrorParam(row.code)), 0);
    EXPECT_FALSE(control.IsConnected());
    EXPECT_EQ(control.GetStatusText(), row.status);
    EXPECT_EQ(seen.texts.back(), row.told);
  }
  EXPECT_EQ(control.OnConnect(live, 0x1234), 0) << "the low half is a number";
  EXPECT_TRUE(control.IsConnected());
  ASSERT_TRUE(ReachesPrints(1));
  control.Stop();
  EXPECT_EQ(seen.printed, 1U) << "one worker for all these events";
}

TEST_F(CDecodeCtrlTest, CloseTellsItsReason) {
  struct {
    int32_t code;
    const char* text;
  } const kCloses[] = {
      {0, ""},
      {10050, "The Windows Sockets implementation detected that the network subsystem failed."},
      {10053, "The connection was aborted due to timeout or other failure. "},
      {10054, "The connection was reset by the remote side."},
      {10060, ""},
  };
  for (const auto& row : kCloses) {
    CTestSock other;
    ASSERT_NE(other.Create(), 0);
    EXPECT_EQ(control.OnCloseSocket(other.GetHandle(), ErrorParam(row.code)), 1);
    EXPECT_EQ(other.GetHandle(), kInvalidSocket);
    EXPECT_EQ(seen.texts.back(), row.text);
  }
}

TEST_F(CDecodeCtrlTest, ThrowingObserverAndForgottenStopDoNoHarm) {
  seen.onStatus = [](ESessionStatus) { throw std::runtime_error("host"); };
  seen.throwAt = 1;  // as memory that runs out in the middle of a pass
  StartSerial(kPrintBatches);
  LineSends("a");
  ASSERT_TRUE(ReachesPrints(1));
  LineSends("b");
  EXPECT_TRUE(ReachesPrints(2));
  auto second = std::make_unique<CTestCtrl>();  // no window, never stopped
  second->SetScriptName(script.Path().c_str());
  EXPECT_EQ(second->VerifyScript(), 0);
  EXPECT_EQ(second->Run(), -1) << "the port is taken";
  control.Stop();
  EXPECT_EQ(second->Run(), 0);
  second.reset();
  EXPECT_EQ(control.Run(), 0) << "the port is free again";
}

TEST_F(CDecodeCtrlTest, StopFromTheNewsOfAConnect) {
  seen.onStatus = [this](ESessionStatus status) {
    if (status != ESessionStatus::Stopped) control.Stop();
  };
  Verify(TcpScript(kEcho));
  EXPECT_EQ(control.Run(), 0);
  EXPECT_EQ(control.GetEngine(), nullptr);
  seen.onStatus = [this](ESessionStatus status) {
    if (status == ESessionStatus::Connected) control.Stop();
  };
  EXPECT_EQ(control.Run(), 0);
  ASSERT_TRUE(RunLoopUntil([this] { return seen.Count(ESessionStatus::Stopped) == 2; }));
}

TEST_F(CDecodeCtrlTest, SyncMeetsTheOwnerOrElseTheParent) {
  CTestWnd owner;
  std::vector<std::pair<CWnd*, int32_t>> answered;
  const auto answer = [&](CWnd* window) {
    return [&, window](const SeenMessage& message) -> LRESULT {
      if (message.nMessage != kWmNotify) return 0;
      auto* record = reinterpret_cast<CSyncNotify*>(message.lParam);
      EXPECT_EQ(message.wParam, 7U);
      EXPECT_EQ(record->m_header.hwndFrom, control.GetSafeHwnd());
      EXPECT_EQ(record->m_header.idFrom, 7U);
      EXPECT_EQ(record->m_header.code, 10001U);
      answered.emplace_back(window, record->m_nValue);
      record->m_bPending = 0;
      return 0;
    };
  };
  owner.handler = answer(&owner);
  host.handler = answer(&host);
  const std::string body = "VAR N% 0\nBEGIN:\nCMP N, 2\nJPE END\nINC N\nSYNC 12\nPRINT N\nEND:\n";
  StartSerial(body);
  ASSERT_TRUE(ReachesPrints(2));
  control.Stop();
  control.SetOwner(owner.GetSafeHwnd());
  ASSERT_EQ(control.Run(), 0);
  ASSERT_TRUE(ReachesPrints(4));
  EXPECT_EQ(answered, (std::vector<std::pair<CWnd*, int32_t>>{
                          {&host, 12}, {&host, 12}, {&owner, 12}, {&owner, 12}}));
}

TEST_F(CDecodeCtrlTest, UnansweredSyncTakesItsSecond) {
  CTestCtrl windowless;
  windowless.SetObserver(&seen);
  Verify(SerialScript("VAR N% 0\nBEGIN:\nCMP N, 1\nJPE END\nINC N\nSYNC 5\nPRINT N\nEND:\n"));
  for (CTestCtrl* each : {&control, &windowless}) {
    each->SetScriptName(script.Path().c_str());
    ASSERT_EQ(each->VerifyScript(), 0);
    const size_t before = seen.printed;
    const int64_t start = GetTickCount();
    ASSERT_EQ(each->Run(), 0);
    ASSERT_TRUE(WaitFor([&] { return seen.printed > before; }));  // serves no loop: no answer
    EXPECT_GE(GetTickCount() - start, 1000);
    each->Stop();
  }
  // The answer to the first comes now, long after its session.
  host.handler = [](const SeenMessage& message) -> LRESULT {
    if (message.nMessage == kWmNotify) {
      auto* record = reinterpret_cast<CSyncNotify*>(message.lParam);
      EXPECT_EQ(record->m_nValue, 5);
      record->m_bPending = 0;
    }
    return 0;
  };
  EXPECT_TRUE(RunLoopUntil([this] { return host.Count(kWmNotify) == 1; }));
}

// A worker that has nothing to do takes no time; one that counts its empty passes keeps counting.
TEST_F(CDecodeCtrlTest, IdleWorkerSleepsAndCountingOneDoesNot) {
  const auto cpuMs = [] { return std::clock() * 1000 / CLOCKS_PER_SEC; };
  const auto wakeUps = [] {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_nvcsw;
  };
  for (const bool serial : {true, false}) {
    serial ? StartSerial(kPrintBatches) : StartTcp(kPrintBatches);
    const size_t printed = seen.printed;
    serial ? LineSends("a") : PeerSends("a");
    ASSERT_TRUE(ReachesPrints(printed + 1));
    Sleep(20);
    const auto before = cpuMs();
    const auto wakeUpsBefore = wakeUps();
    Sleep(400);
    EXPECT_LT(cpuMs() - before, 20) << serial;
    if (!kSanitized) {  // a sanitizer has a thread of its own
      EXPECT_LE(wakeUps() - wakeUpsBefore, 3) << "this thread's sleep, and no polling";
    }
    serial ? LineSends("b") : PeerSends("b");
    ASSERT_TRUE(ReachesPrints(printed + 2)) << "bytes wake it";
    control.Stop();
  }
  StartSerial(
      "VAR N% 0\nVAR LEN% 0\nDIM RX$ 8192\nBEGIN:\nIN RX, LEN\nCMP LEN, 0\nJPE EMPTY\n"
      "MOVE N, 0\nJP END\nEMPTY:\nCMP N, 5000\nJPGE END\nINC N\nCMP N, 5000\nJPNE END\n"
      "PRINT N\nEND:\n");
  const size_t before = seen.printed;
  ASSERT_TRUE(ReachesPrints(before + 1));
  LineSends("again");
  ASSERT_TRUE(ReachesPrints(before + 2)) << "from idle to counting and back";
}

}  // namespace
}  // namespace kvl
