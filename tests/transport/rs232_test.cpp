#include "transport/RS232Ctrl.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <random>
#include <thread>

#include "platform/virtual_serial.h"
#include "support/loop_fixtures.h"

namespace kvl {
namespace {

constexpr const char* kPort = "COM77";

// A COMM record for the virtual line, which is mapped to kPort.
COMM Settings() {
  COMM comm;
  std::strcpy(comm.szPort, kPort);
  comm.nBaudRate = 6;
  comm.nDataBit = 1;
  comm.nParityBit = 0;
  comm.nStopBit = 0;
  return comm;
}

class CRS232CtrlTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!line.Open()) GTEST_SKIP() << "no virtual serial lines here";
    MapSerialPort(kPort, line.GetDeviceName());
  }
  void TearDown() override { MapSerialPort(kPort, ""); }

  void Open(const COMM& comm) { ASSERT_EQ(port.Open(&comm), 1) << port.GetLastError(); }

  std::string Read(int32_t most) {
    std::string bytes(4096, '\0');
    const int32_t n = port.Read(reinterpret_cast<uint8_t*>(bytes.data()), most);
    bytes.resize(static_cast<size_t>(n));
    return bytes;
  }

  void Send(const std::string& bytes) {
    ASSERT_EQ(line.Write(bytes.data(), static_cast<int32_t>(bytes.size()), kTestPatienceMs),
              static_cast<int32_t>(bytes.size()));
  }

  CVirtualSerial line;
  CTestWnd window;
  CRS232Ctrl port{&window};
  CWakeup wakeup;
};

TEST_F(CRS232CtrlTest, ClosedObjectDoesNothing) {
  EXPECT_EQ(port.IsValid(), 0);
  EXPECT_EQ(port.GetCommHandle(), kInvalidHandle);
  EXPECT_EQ(port.Close(), 1);
  uint8_t byte = 0;
  EXPECT_EQ(port.Read(&byte, 1), 0);
  EXPECT_EQ(port.Write(&byte, 1), 0);
  EXPECT_EQ(port.GetLastError(), kErrorNone) << "nothing recorded";
  EXPECT_EQ(port.bsSetBaudRate(9600), 0);
  EXPECT_EQ(port.GetLastError(), kErrorInvalidHandle);
  EXPECT_EQ(port.bsWaitCommEvent(), 0);
  EXPECT_EQ(port.bsCheckForCommEvent(1), 0U);
  COMM comm = Settings();
  std::strcpy(comm.szPort, "COM78");
  EXPECT_EQ(port.Open(&comm), 0);
  EXPECT_EQ(port.GetLastError(), kErrorNotFound);
  EXPECT_EQ(port.GetCommHandle(), kInvalidHandle);
}

TEST_F(CRS232CtrlTest, ReadTakesWhatIsThereAndNeverWaits) {
  Open(Settings());
  EXPECT_EQ(port.IsValid(), 1);
  EXPECT_EQ(port.bsGetConnectFlag(), 1);
  EXPECT_EQ(Read(2048), "");
  Send("0123456789");
  ASSERT_EQ(port.WaitForBytes(wakeup, kTestPatienceMs), SerialWait::kBytes);
  EXPECT_EQ(Read(0), "");
  EXPECT_EQ(Read(-1), "");
  EXPECT_EQ(Read(4), "0123");
  EXPECT_EQ(Read(2048), "456789");
  EXPECT_EQ(port.Write(reinterpret_cast<const uint8_t*>("ok"), 2), 2);
  char buffer[8];
  EXPECT_EQ(line.Read(buffer, sizeof buffer, kTestPatienceMs), 2);
  EXPECT_EQ(port.Close(), 1);
  EXPECT_EQ(port.Close(), 1);
  EXPECT_EQ(port.IsValid(), 0);
  EXPECT_EQ(port.bsGetConnectFlag(), 0);
}

TEST_F(CRS232CtrlTest, RefusedOrMissingSettingsDoNotFailOpen) {
  COMM comm;  // nothing set but the port
  std::strcpy(comm.szPort, kPort);
  Open(comm);
  EXPECT_EQ(port.IsValid(), 1);
  comm = Settings();
  comm.nDataBit = 0;  // 7 bits, which a virtual line refuses
  Open(comm);         // open already: closed first
  EXPECT_EQ(port.IsValid(), 1) << "a later setter has cleared the error";
  EXPECT_EQ(port.bsSetParityDataStop(0, 7, 0), 0);
  EXPECT_EQ(port.GetLastError(), kErrorBadParameter);
  EXPECT_EQ(port.IsValid(), 0);
  for (const int32_t index : {15, 1000, -2}) {
    comm.nBaudRate = comm.nDataBit = comm.nParityBit = comm.nStopBit = index;
    Open(comm);
  }
}

TEST_F(CRS232CtrlTest, DeviceGetsWhatIsSetAndKeepsTheRest) {
  const int fd = ::open(line.GetDeviceName().c_str(), O_RDWR | O_NOCTTY);
  ASSERT_GE(fd, 0);
  const auto settings = [fd] {
    termios now{};
    EXPECT_EQ(tcgetattr(fd, &now), 0);
    return now;
  };
  COMM comm = Settings();
  comm.nStopBit = 1;
  Open(comm);
  const termios now = settings();
  EXPECT_NE(now.c_cflag & CSTOPB, 0U) << "one and a half are sent as two";
  EXPECT_NE(now.c_iflag & INPCK, 0U) << "without parity too";
  EXPECT_EQ(now.c_lflag & (ICANON | ECHO | ISIG), 0U);
  EXPECT_EQ(now.c_iflag & (IXON | IXOFF | ICRNL), 0U);
  EXPECT_EQ(now.c_cc[VSTART], 0);
  EXPECT_EQ(now.c_cc[VSTOP], 0);
  comm.nStopBit = -1;
  Open(comm);
  EXPECT_NE(settings().c_cflag & CSTOPB, 0U);
  ::close(fd);
}

TEST_F(CRS232CtrlTest, HostWordsKeepWhatTheyAreGiven) {
  EXPECT_EQ(port.bsGetStatusSignal(), 0);
  port.bsSetStatusSignal(0xFFFF);
  EXPECT_EQ(port.bsGetStatusSignal(), 0xFFFF);
  port.bsSetWaitCount(5);
  EXPECT_EQ(port.bsGetWaitCount(), 4);
  EXPECT_EQ(port.bsGetWaitCount(), 3);
  OVERLAPPED overlapped{1, 2, 3, 4, 5};
  EXPECT_EQ(port.GetWaitOverlapped(overlapped), 0);
  EXPECT_EQ(overlapped.hEvent, 0U);
}

TEST_F(CRS232CtrlTest, EventIsWaitedForByHand) {
  Open(Settings());
  EXPECT_EQ(port.bsWaitCommEvent(), 1);
  EXPECT_EQ(port.GetLastError(), kErrorIoPending);
  EXPECT_EQ(port.bsCheckForCommEvent(0), 0U);
  std::thread sender([&] { line.Write("x", 1, 1000); });
  EXPECT_EQ(port.bsCheckForCommEvent(1), kEventReceived);
  sender.join();
  EXPECT_EQ(port.bsWaitCommEvent(), 1);
  EXPECT_EQ(port.GetLastError(), kErrorNone) << "bytes still wait";
  EXPECT_EQ(Read(1), "x");
  EXPECT_EQ(port.bsWaitCommEvent(), 1);
  std::thread waiter([&] { EXPECT_EQ(port.bsCheckForCommEvent(1), kEventCarrier); });
  line.HangUp();
  waiter.join();
}

TEST_F(CRS232CtrlTest, CloseEndsAWaitingCheck) {
  Open(Settings());
  ASSERT_EQ(port.bsWaitCommEvent(), 1);
  std::thread waiter([&] { EXPECT_EQ(port.bsCheckForCommEvent(1), 0U); });
  Sleep(20);  // so that it waits, as a rule
  port.Close();
  waiter.join();
}

TEST_F(CRS232CtrlTest, CloseAndOpenMayMeetAWrite) {
  std::atomic<bool> run{true};
  std::thread writer([&] {
    const uint8_t byte = 'x';
    while (run) port.Write(&byte, 1);
  });
  for (int i = 0; i < 300; ++i) {
    Open(Settings());
    ASSERT_EQ(port.IsValid(), 1) << port.GetLastError();
  }
  run = false;
  port.Close();
  writer.join();

  // What was still to be sent to the old port does not go to the new one. The room differs by what
  // the far end's line discipline has taken by then.
  constexpr int32_t kLineDiscipline = 4096;
  constexpr int32_t kTooMuch = 1 << 17;
  const std::vector<uint8_t> block(kTooMuch, 'x');
  Open(Settings());
  port.bsSetWriteTimeouts(0, 30);
  const int32_t room = port.Write(block.data(), kTooMuch);
  ASSERT_LT(room, kTooMuch);
  Open(Settings());
  std::thread held([&] { EXPECT_LE(port.Write(block.data(), kTooMuch), room + kLineDiscipline); });
  Sleep(20);
  Open(Settings());
  held.join();
}

TEST_F(CRS232CtrlTest, EventThreadFillsTheQueueAndPosts) {
  ASSERT_EQ(port.Open(kPort, 9600, 8, 0, 0), 1);
  Send(std::string("a\0b", 3));
  ASSERT_TRUE(RunLoopUntil([&] { return port.GetQueue().GetSize() == 3; }));
  EXPECT_TRUE(RunLoopUntil([&] { return window.Count(kMsgSerialReceived) > 0; }));
  EXPECT_EQ(window.seen.back(), (SeenMessage{kMsgSerialReceived, 0, 0}));
  uint8_t bytes[3];
  EXPECT_EQ(port.GetQueue().GetBatch(bytes, 3), 3);
  EXPECT_EQ(std::memcmp(bytes, "a\0b", 3), 0) << "zeros are kept";

  // What no longer fits is dropped, and posted all the same.
  window.seen.clear();
  uint64_t sent = 0;
  const std::string block(4000, 'x');
  while (port.GetQueue().GetDroppedReads() == 0) {
    Send(block);
    sent += block.size();
    ASSERT_LT(sent, 1000000U);
  }
  ASSERT_TRUE(RunLoopUntil([&] {
    return static_cast<uint64_t>(port.GetQueue().GetSize()) + port.GetQueue().GetDroppedBytes() ==
           sent;
  }));
  EXPECT_TRUE(RunLoopUntil([&] { return window.Count(kMsgSerialReceived) > 0; }));

  line.HangUp();
  ASSERT_TRUE(WaitFor([&] { return port.GetLastError() == kErrorDeviceLost; }));
  EXPECT_EQ(port.IsValid(), 0);
  EXPECT_EQ(port.Close(), 1);
}

TEST_F(CRS232CtrlTest, CopiesShareThePort) {
  ASSERT_EQ(port.Open(kPort, 9600, 8, 0, 0), 1);
  CRS232Ctrl copy(port);
  EXPECT_EQ(copy.GetCommHandle(), port.GetCommHandle());
  EXPECT_EQ(copy.IsValid(), 1);
  copy.Close();  // ends the thread that the original has started
  EXPECT_EQ(port.IsValid(), 0);
  EXPECT_EQ(port.GetCommHandle(), kInvalidHandle);
  Open(Settings());
  copy = CRS232Ctrl();
  EXPECT_EQ(port.IsValid(), 1);
}

TEST_F(CRS232CtrlTest, FullLineHoldsUpAWriteForTheTimeOutAtMost) {
  Open(Settings());
  const std::vector<uint8_t> block(1 << 17, 'x');
  port.bsSetWriteTimeouts(0, 30);
  EXPECT_LT(port.Write(block.data(), 1 << 17), 1 << 17);
  EXPECT_EQ(port.Write(block.data(), 1), 0);
  EXPECT_EQ(port.IsValid(), 1) << "a time-out is no failure";
  port.bsSetWriteTimeouts(0, 0);
  std::thread writer([&] { EXPECT_EQ(port.Write(block.data(), 1), 0); });
  Sleep(20);
  port.Interrupt();
  writer.join();
}

TEST_F(CRS232CtrlTest, FramesOfRandomSplitsArriveWholeAndInOrder) {
  Open(Settings());
  constexpr int kFrames = 10000;
  std::string sent;
  for (int i = 0; i < kFrames; ++i) sent += "#" + std::to_string(i * 7919) + "\r\n";
  std::thread device([&] {
    std::mt19937 random(1);
    for (size_t at = 0; at < sent.size();) {
      const size_t size = std::min<size_t>(1 + random() % 300, sent.size() - at);
      ASSERT_EQ(line.Write(sent.data() + at, static_cast<int32_t>(size), kTestPatienceMs),
                static_cast<int32_t>(size));
      at += size;
    }
  });
  std::string got;
  while (got.size() < sent.size()) {
    ASSERT_EQ(port.WaitForBytes(wakeup, kTestPatienceMs), SerialWait::kBytes);
    for (std::string read = Read(2048); !read.empty(); read = Read(2048)) got += read;
  }
  device.join();
  EXPECT_TRUE(got == sent);
}

}  // namespace
}  // namespace kvl
