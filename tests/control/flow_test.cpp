// Bytes through the whole road, and many sessions one behind the other.
#include "session_fixtures.h"

namespace kvl {
namespace {

using FlowTest = SessionTest;

// Frames end in LF. Splits them from the batches as a device script does, and prints each.
constexpr const char* kFrames =
    "DIM RX$ 8192\nVAR RXLEN% 0\nDIM ACC$ 8448\nVAR LEN% 0\nVAR EOL% 0\nDIM LINE$ 256\n"
    "BEGIN:\nIN RX, RXLEN\nCMP RXLEN, 0\nJPE END\nCAT ACC, RX, LEN\nNEXT:\nFIND ACC, \"<0A>\", "
    "EOL\n"
    "CMP EOL, 0\nJPL END\nCOPY LINE, ACC, EOL\nPRINT LINE\nINC EOL\nSUB LEN, EOL\n"
    "COPY ACC, ACC[EOL], LEN\nJP NEXT\nEND:\n";

class CFrames {
 public:
  explicit CFrames(size_t count) {
    for (size_t i = 0; i < count; ++i) {
      m_texts.push_back(std::to_string(i) + ":" +
                        std::string(m_random() % 40, static_cast<char>('a' + i % 26)));
      m_bytes += m_texts.back() + "\n";
    }
  }
  // The next piece to send, cut anywhere.
  std::string Next() {
    const size_t size = std::min<size_t>(1 + m_random() % 97, m_bytes.size() - m_nAt);
    m_nAt += size;
    return m_bytes.substr(m_nAt - size, size);
  }
  bool AllSent() const { return m_nAt == m_bytes.size(); }
  size_t Sent() const { return m_nAt; }
  const std::vector<std::string>& Texts() const { return m_texts; }

 private:
  std::minstd_rand m_random{20240229};
  std::vector<std::string> m_texts;
  std::string m_bytes;
  size_t m_nAt = 0;
};

TEST_F(FlowTest, TenThousandFramesArriveInOrderAndWhole) {
  constexpr size_t kWindow = 4000;  // sent and not yet received; the queue has room for that
  for (const bool serial : {true, false}) {
    SCOPED_TRACE(serial ? "serial" : "socket");
    CFrames frames(10000);
    seen.Forget();
    serial ? StartSerial(kFrames) : StartTcp(kFrames);
    size_t printedBytes = 0;
    size_t printed = 0;
    const auto room = [&] {
      for (; printed < seen.printed; ++printed) printedBytes += frames.Texts()[printed].size() + 1;
      return frames.Sent() - printedBytes < kWindow;
    };
    while (!frames.AllSent()) {
      ASSERT_TRUE(RunLoopUntil(room));
      serial ? LineSends(frames.Next()) : PeerSends(frames.Next());
    }
    ASSERT_TRUE(ReachesPrints(frames.Texts().size()));
    EXPECT_EQ(seen.Prints(), frames.Texts());
    EXPECT_EQ(control.GetDroppedBytes(), 0U);
    control.Stop();
  }
}

// A host may ask for what has arrived whenever it likes, and the worker take bytes itself
// meanwhile.
TEST_F(FlowTest, ReceiveOutOfTurnKeepsTheOrder) {
  CFrames frames(50000);
  StartTcp(kFrames);
  std::atomic<bool> run{true};
  std::atomic<size_t> printedBytes{0};
  std::thread sender([&] {
    while (run && !frames.AllSent()) {
      const std::string piece = frames.Next();
      for (size_t at = 0; run && at < piece.size();) {
        at += static_cast<size_t>(
            std::max(peer.Send(piece.data() + at, static_cast<int32_t>(piece.size() - at)), 0));
      }
      while (run && frames.Sent() - printedBytes > 4000) std::this_thread::yield();
    }
  });
  size_t printed = 0;
  const bool done = RunLoopUntil([&] {
    for (; printed < seen.printed; ++printed) printedBytes += frames.Texts()[printed].size() + 1;
    control.OnReceiveSocket(control.hConnected, 0);
    return printed == frames.Texts().size();
  });
  run = false;
  sender.join();
  EXPECT_TRUE(done);
  EXPECT_EQ(seen.Prints(), frames.Texts());
}

TEST_F(FlowTest, BytesOfValueZeroAreLeftOut) {
  for (const bool serial : {true, false}) {
    seen.Forget();
    serial ? StartSerial(kFrames) : StartTcp(kFrames);
    const std::string bytes("\0A\0\0B\0\n\0", 8);
    serial ? LineSends(bytes) : PeerSends(bytes);
    ASSERT_TRUE(ReachesPrints(1));
    EXPECT_EQ(seen.Prints()[0], "AB");
    control.Stop();
  }
}

// While the worker is held, reads come into the queue whole or not at all.
TEST_F(FlowTest, ReadThatDoesNotFitIsLostWhole) {
  StartTcp("DIM RX$ 8192\nVAR LEN% 0\nBEGIN:\nIN RX, LEN\nCMP LEN, 0\nJPE END\nPRINT LEN\nEND:\n");
  seen.SetGate(false);
  PeerSends("x");
  ASSERT_TRUE(ReachesPrints(1));
  const auto send = [this](size_t count) {
    const size_t before = seen.received;
    PeerSends(std::string(count, 'y'));
    ASSERT_TRUE(RunLoopUntil([&] { return seen.received == before + count; }));
  };
  for (int i = 0; i < 3; ++i) send(2048);
  send(2048);  // 8192 - 6144 is not above 2048
  EXPECT_EQ(control.GetDroppedBytes(), 2048U);
  send(2047);
  send(1);
  EXPECT_EQ(control.GetDroppedBytes(), 2049U);
  seen.SetGate(true);
  ASSERT_TRUE(ReachesPrints(2));
  EXPECT_EQ(seen.Prints(), (std::vector<std::string>{"1", "8191"}));
}

TEST_F(FlowTest, BytesThatNoPassHasSeenBeginTheNextSession) {
  StartTcp(kPrintBatches);
  seen.SetGate(false);
  PeerSends("first");
  ASSERT_TRUE(ReachesPrints(1));
  PeerSends("kept ");
  ASSERT_TRUE(RunLoopUntil([this] { return seen.received == 10; }));
  std::thread opener([this] {
    Sleep(20);
    seen.SetGate(true);
  });
  control.Stop();
  opener.join();
  ASSERT_EQ(seen.printed, 1U);
  StartSerial(kPrintBatches);
  ASSERT_TRUE(ReachesPrints(2));
  EXPECT_EQ(seen.Prints()[1], "kept ");
}

TEST_F(FlowTest, ReadsAreOf2048BytesAtMost) {
  StartTcp("BEGIN:\nSLEEP 1\nEND:\n");  // never idle, so that this thread reads
  PeerSends(std::string(5000, 'y'));
  ASSERT_TRUE(RunLoopUntil([this] { return seen.received == 5000; }));
  EXPECT_EQ(seen.pieces, (std::vector<size_t>{2048, 2048, 904}));
}

// The script never stops sending while its socket is closed and made anew under it.
TEST_F(FlowTest, OutFindsEachNewSocket) {
  StartTcp("BEGIN:\nOUT \"x\"\nEND:\n");
  for (int i = 0; i < 100; ++i) {
    if (i % 2 == 0) peer.Close();
    control.OnRecreateSocket();
    if (i % 2 == 1) peer.Close();
    peer.received.clear();
    ASSERT_TRUE(RunLoopUntil([this] { return control.IsConnected() && !peer.received.empty(); }));
  }
}

// What a flood costs is told, and it takes neither the script's passes nor Stop away.
TEST_F(FlowTest, FloodIsCountedAndKeepsNobodyFromWorking) {
  constexpr const char* kCount =
      "DIM RX$ 8192\nVAR LEN% 0\nVAR I% 0\nBEGIN:\nIN RX, LEN\nCMP LEN, 0\nJPE END\nMOVE I, 0\n"
      "WORK:\nINC I\nCMP I, 2000\nJPL WORK\nPRINT LEN\nEND:\n";
  for (const bool serial : {true, false}) {
    SCOPED_TRACE(serial);
    seen.Forget();
    const uint64_t droppedBefore = control.GetDroppedBytes();
    serial ? StartSerial(kCount) : StartTcp(kCount);
    const std::string block(32768, 'f');
    std::atomic<bool> run{true};
    std::thread flood;
    if (serial) {
      flood = std::thread([&] {
        while (run) line.Write(block.data(), static_cast<int32_t>(block.size()), 5);
      });
    }
    const auto pour = [&] {
      if (!serial) peer.Send(block.data(), static_cast<int32_t>(block.size()));
      return seen.printed >= 50 && control.GetDroppedBytes() > droppedBefore;
    };
    EXPECT_TRUE(RunLoopUntil(pour));
    control.Stop();
    run = false;
    if (flood.joinable()) flood.join();
    uint64_t batches = 0;
    for (const std::string& size : seen.Prints()) batches += std::stoull(size);
    const uint64_t lost = control.GetDroppedBytes() - droppedBefore;
    EXPECT_LE(batches + lost, seen.received);
    EXPECT_LE(seen.received, batches + lost + 2 * 8191) << "all but what the end has left";
  }
}

struct CUsage {
  size_t files = 0, threads = 0, pages = 0;
};

CUsage Usage() {
  const auto count = [](const char* folder) {
    const std::filesystem::directory_iterator all(folder);
    return static_cast<size_t>(std::distance(begin(all), end(all)));
  };
  CUsage usage{count("/proc/self/fd"), count("/proc/self/task"), 0};
  std::ifstream("/proc/self/statm") >> usage.pages >>
      usage.pages;  // the second is the resident set
  return usage;
}

TEST_F(FlowTest, ThousandSessionsLeaveNothingBehind) {
  constexpr int kCycles = kSanitized ? 100 : 1000;
  const auto cycle = [this](int i) {
    seen.Forget();
    i % 2 == 0 ? StartSerial(kPrintBatches) : StartTcp(kPrintBatches);
    if (i % 4 < 2) {
      i % 2 == 0 ? LineSends("x") : PeerSends("x");
      ASSERT_TRUE(ReachesPrints(1));
    }
    control.Stop();
  };
  const auto usageAtRest = [this] {
    peer.Close();
    CMessageLoop::Current().RunUntilIdle();
    return Usage();
  };
  for (int i = 0; i < 50; ++i) ASSERT_NO_FATAL_FAILURE(cycle(i));
  const CUsage before = usageAtRest();
  for (int i = 0; i < kCycles; ++i) ASSERT_NO_FATAL_FAILURE(cycle(i));
  const CUsage after = usageAtRest();
  EXPECT_EQ(after.files, before.files);
  EXPECT_EQ(after.threads, before.threads);
  // A kilobyte a session; the sanitizers keep freed memory for themselves.
  if (!kSanitized) {
    EXPECT_LE(after.pages, before.pages + kCycles / 4);
  }
}

}  // namespace
}  // namespace kvl
