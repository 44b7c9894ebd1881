// Stop comes at once, whatever the script and the line are doing.
#include "control/sync_notify.h"
#include "session_fixtures.h"
#include "store/TableOwner.h"
#include "support/name_server.h"
#include "support/test_table.h"

namespace kvl {
namespace {

constexpr int64_t kStopLimitMs = kSanitized ? 250 : 50;
constexpr int kAttempts = 5;
constexpr int kFastAttempts = 3;  // a busy machine may spoil some

class StopTest : public SessionTest {
 protected:
  // Of sessions that `start` brings into the state in question.
  template <typename Start>
  void ExpectFastStop(const char* state, Start start) {
    SCOPED_TRACE(state);
    int fast = 0;
    for (int i = 0; i < kAttempts && fast < kFastAttempts; ++i) {
      start();
      if (HasFatalFailure()) return;
      const int64_t before = GetTickCount();
      control.Stop();
      if (GetTickCount() - before <= kStopLimitMs) ++fast;
    }
    EXPECT_EQ(fast, kFastAttempts);
  }

  // Until the script has done something, and then nothing for a while.
  template <typename Count>
  static void WaitUntilHeldUp(const std::atomic<Count>& done) {
    Count before = 0;
    const int64_t deadline = GetTickCount() + kTestPatienceMs;
    while (GetTickCount() < deadline && (before == 0 || done != before)) {
      before = done;
      Sleep(100);
    }
  }
};

constexpr const char* kFlood =
    "BEGIN:\nOUT \"a line that takes nothing more holds up whoever writes to it, but not Stop\"\n"
    "END:\n";

struct CScriptState {
  const char* name;
  const char* body;
};
constexpr CScriptState kScripts[] = {
    {"idle", "VAR ONCE% 0\nBEGIN:\nCMP ONCE, 1\nJPE END\nMOVE ONCE, 1\nPRINT \"x\"\nEND:\n"},
    {"endless loop", "BEGIN:\nPRINT \"x\"\nTURN:\nJP TURN\nEND:\n"},
    {"long SLEEP", "BEGIN:\nPRINT \"x\"\nSLEEP 60000\nEND:\n"},
    {"paced OUT", "BEGIN:\nPRINT \"x\"\nDELAY 5000\nOUT \"slowly\"\nEND:\n"},
    {"SYNC without an answer", "BEGIN:\nPRINT \"x\"\nSYNC 1\nEND:\n"},
};

TEST_F(StopTest, OnASerialLine) {
  for (const CScriptState& state : kScripts) {
    ExpectFastStop(state.name, [&] {
      const size_t before = seen.printed;
      StartSerial(state.body);
      ASSERT_TRUE(WaitFor([&] { return seen.printed > before; }));
    });
  }
  ExpectFastStop("full line", [&] {
    seen.sent = 0;
    StartSerial(kFlood);
    WaitUntilHeldUp(seen.sent);
  });
  ExpectFastStop("lost", [&] {
    ASSERT_TRUE(line.Open());
    MapSerialPort(kPort, line.GetDeviceName());
    const int before = seen.Count(ESessionStatus::Lost);
    StartSerial(kPrintBatches);
    line.HangUp();
    ASSERT_TRUE(RunLoopUntil([&] { return seen.Count(ESessionStatus::Lost) > before; }));
  });
}

TEST_F(StopTest, OnASocket) {
  for (const CScriptState& state : kScripts) {
    ExpectFastStop(state.name, [&] {
      const size_t before = seen.printed;
      StartTcp(state.body);
      ASSERT_TRUE(WaitFor([&] { return seen.printed > before; }));
    });
  }
  peer.onReceive = [] {};  // takes nothing from now on
  ExpectFastStop("full line", [&] {
    seen.sent = 0;
    StartTcp(kFlood);
    WaitUntilHeldUp(seen.sent);
  });
  CSilentPeer silent;
  ASSERT_TRUE(silent.Open(tcpPort));
  ExpectFastStop("connecting", [&] {
    Verify(std::string("OPEN MEDIA TCP\nOPEN IP ") + CSilentPeer::kAddress + "\nOPEN PORT " +
           std::to_string(tcpPort) + "\n" + kEcho);
    ASSERT_EQ(control.Run(), 0);
    CMessageLoop::Current().RunUntil([] { return false; }, 10);
    ASSERT_EQ(seen.statuses.back(), ESessionStatus::Connecting);
  });
  ExpectFastStop("looking up a name", [&] {
    CNameServer::Hush();
    Verify("OPEN MEDIA TCP\nOPEN IP gauge.silent\nOPEN PORT 9\n" + std::string(kEcho));
    ASSERT_EQ(control.Run(), 0);
    ASSERT_TRUE(WaitFor([] { return CNameServer::Begun() > 0; }));
  });
  ExpectFastStop("closed by the peer", [&] {
    const int before = seen.Count(ESessionStatus::Closed);
    StartTcp(kEcho);
    peer.Close();
    ASSERT_TRUE(RunLoopUntil([&] { return seen.Count(ESessionStatus::Closed) > before; }));
  });
}

TEST_F(StopTest, AFullLineCostsTheScriptOneTimeoutAndNoMore) {
  peer.onReceive = [] {};
  StartTcp(kFlood);
  WaitUntilHeldUp(seen.sent);
  const int before = seen.sent;
  EXPECT_TRUE(WaitFor([&] { return seen.sent > before; })) << "goes on with its next OUT";
}

// Whoever holds a table's locks may be stopped, in a debugger for one, for as long as it likes.
TEST_F(StopTest, WhileAStoppedNeighbourHoldsTheTable) {
  const CTestTable table("stop");
  CTagSet tags;
  ASSERT_EQ(tags.Add("LEVEL", kTagInteger, 4), nullptr);
  CTableOwner owner(table.Name());
  ASSERT_TRUE(owner.Create(tags, false));
  const std::string head =
      "TABLE_NAME \"" + table.Name() + "\"\nEQU TAG \"LEVEL\"\nVAR N% 7\nBEGIN:\nTURN:\nPRINT N\n";
  for (const char* access : {"PUT TAG, N", "GET N, TAG"}) {
    for (const std::string suffix : {kLockSuffix, kTableLockSuffix}) {
      CNamedSemaphore neighbour(table.Name() + suffix, EOpenMode::kOpenExisting, EAudience::kOwner);
      ExpectFastStop((access + suffix).c_str(), [&] {
        neighbour.Release();
        seen.printed = 0;
        StartSerial(head + access + "\nJP TURN\nEND:\n");
        ASSERT_TRUE(WaitFor([&] { return seen.printed > 0; }));
        ASSERT_TRUE(control.GetEngine()->HasTable());
        ASSERT_EQ(neighbour.Take(), ETaken::kYes);
        WaitUntilHeldUp(seen.printed);
      });
    }
  }
}

TEST_F(StopTest, WhileTheScriptIsLoaded) {
  std::string body = "BEGIN:\nPRINT \"x\"\n";
  for (int i = 0; i < 50000; ++i) body += "SLEEP 1\n";
  Verify(SerialScript(body + "END:\n"));
  uint32_t delay = 0;
  ExpectFastStop("loading", [&] {
    ASSERT_EQ(control.Run(), 0);
    Sleep(delay);
    delay += 10;  // reading, compiling, binding: wherever that finds it
  });
}

// What a third thread sends is handled within a Stop as well.
TEST_F(StopTest, StopWithinStop) {
  for (const bool runs : {false, true}) {
    seen.Forget();
    seen.SetGate(false);
    StartSerial("BEGIN:\nPRINT \"x\"\nEND:\n");
    ASSERT_TRUE(WaitFor([&] { return seen.printed > 0; }));
    host.handler = [&](const SeenMessage&) {
      seen.SetGate(true);  // until now the outer Stop has to wait
      control.Stop();
      return runs ? control.Run() : 0;
    };
    std::thread sender([&] { SendMessageA(host.GetSafeHwnd(), kWmUser, 0, 0); });
    control.Stop();
    sender.join();
    EXPECT_EQ(seen.Count(ESessionStatus::Stopped), 1);
    EXPECT_EQ(control.GetEngine() != nullptr, runs) << "the inner session lives";
    host.handler = nullptr;
    control.Stop();
  }
}

// The control's thread waits for the worker, and that one for an answer of the control's thread.
TEST_F(StopTest, WhileTheObserverSendsAMessage) {
  std::atomic<int> begun{0};
  seen.onPrint = [&] {
    ++begun;
    EXPECT_EQ(SendMessageA(host.GetSafeHwnd(), kWmUser, 0, 0), 5);
  };
  host.handler = [](const SeenMessage&) { return LRESULT{5}; };
  ExpectFastStop("sending", [&] {
    const int before = begun;
    StartSerial("BEGIN:\nPRINT \"x\"\nEND:\n");
    ASSERT_TRUE(WaitFor([&] { return begun > before; }));
  });
}

}  // namespace
}  // namespace kvl
