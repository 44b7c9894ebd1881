#include "platform/serial.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "platform/clock.h"
#include "platform/posix/serial_ports.h"
#include "platform/virtual_serial.h"
#include "support/loop_fixtures.h"

namespace kvl {
namespace {

TEST(CWakeupTest, EachSetLetsOneWaitThrough) {
  CWakeup wakeup;
  EXPECT_FALSE(wakeup.Wait(1));
  wakeup.Set();
  wakeup.Set();
  EXPECT_TRUE(wakeup.Wait(0));
  EXPECT_FALSE(wakeup.Wait(1));
  std::thread waiter([&] { EXPECT_TRUE(wakeup.Wait(-1)); });
  Sleep(20);  // so that it waits, as a rule
  wakeup.Set();
  waiter.join();
}

class CSerialDeviceTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!line.Open()) GTEST_SKIP() << "no virtual serial lines here";
    ASSERT_EQ(device.Open(line.GetDeviceName()), kErrorNone);
  }

  std::string Read(int32_t most) {
    std::string bytes(static_cast<size_t>(most), '\0');
    int32_t count = 0;
    EXPECT_EQ(device.Read(bytes.data(), most, &count), kErrorNone);
    bytes.resize(static_cast<size_t>(count));
    return bytes;
  }

  CVirtualSerial line;
  CSerialDevice device;
  CWakeup wakeup;
};

TEST_F(CSerialDeviceTest, BytesGoBothWaysUnchanged) {
  std::string all;
  for (int i = 0; i < 256; ++i) all += static_cast<char>(i);  // flow control and line ends included
  int32_t written = 0;
  EXPECT_EQ(device.Write(all.data(), 256, 1000, &written), kErrorNone);
  EXPECT_EQ(written, 256);
  std::string got;
  char buffer[512];
  while (got.size() < all.size()) {
    const int32_t n = line.Read(buffer, sizeof buffer, kTestPatienceMs);
    ASSERT_GT(n, 0);
    got.append(buffer, static_cast<size_t>(n));
  }
  EXPECT_EQ(got, all);
  EXPECT_EQ(line.Write(all.data(), 256, 1000), 256);
  got.clear();
  while (got.size() < all.size()) {
    ASSERT_EQ(device.WaitReadable(wakeup, kTestPatienceMs), SerialWait::kBytes);
    got += Read(512);
  }
  EXPECT_EQ(got, all);
}

TEST_F(CSerialDeviceTest, NothingToReadIsNoFailureAndNoWait) {
  EXPECT_EQ(Read(10), "");
  int32_t waiting = -1;
  uint32_t errors = 1;
  EXPECT_EQ(device.GetStatus(&waiting, &errors), kErrorNone);
  EXPECT_EQ(waiting, 0);
  EXPECT_EQ(errors, 0U);
  EXPECT_EQ(device.WaitReadable(wakeup, 1), SerialWait::kTimeout);
}

TEST_F(CSerialDeviceTest, WaitEndsByBytesOrByTheWakeup) {
  wakeup.Set();
  EXPECT_EQ(device.WaitReadable(wakeup, -1), SerialWait::kWoken);
  const auto later = [](auto work) {
    return std::thread([work] {
      Sleep(20);
      work();
    });
  };
  std::thread waker = later([&] { wakeup.Set(); });
  EXPECT_EQ(device.WaitReadable(wakeup, -1), SerialWait::kWoken);
  waker.join();
  std::thread sender = later([&] { line.Write("x", 1, 1000); });
  EXPECT_EQ(device.WaitReadable(wakeup, -1), SerialWait::kBytes);
  sender.join();
}

TEST_F(CSerialDeviceTest, EveryRateOfTheTableCanBeSet) {
  for (const int32_t rate : {110, 9600, 14400, 56000, 115200, 128000, 256000}) {
    EXPECT_EQ(device.SetBaudRate(rate), kErrorNone) << rate;
  }
  EXPECT_EQ(device.SetBaudRate(0), kErrorBadParameter);
  EXPECT_EQ(device.SetBaudRate(-1), kErrorBadParameter);
}

TEST_F(CSerialDeviceTest, RefusedFormatIsAFailure) {
  static constexpr struct {
    int32_t parity, dataBits, stopBits;
    uint32_t error;
  } kCases[] = {{0, 8, 0, kErrorNone},         {0, 8, 1, kErrorNone},
                {0, 8, 2, kErrorNone},         {-1, -1, -1, kErrorNone},
                {0, 7, 0, kErrorBadParameter},  // a virtual line knows 8 bits without parity
                {1, 8, 0, kErrorBadParameter},  // alone
                {2, 8, 0, kErrorBadParameter}, {0, 4, 0, kErrorBadParameter},
                {0, 9, 0, kErrorBadParameter}, {5, 8, 0, kErrorBadParameter},
                {0, 8, 3, kErrorBadParameter}, {0, -1, 0, kErrorNone}};
  for (const auto& row : kCases) {
    EXPECT_EQ(device.SetFormat(row.parity, row.dataBits, row.stopBits), row.error)
        << row.parity << " " << row.dataBits << " " << row.stopBits;
  }
}

TEST_F(CSerialDeviceTest, OpenIsExclusiveAndToldApart) {
  CSerialDevice other;
  EXPECT_EQ(other.Open(line.GetDeviceName()), kErrorAccessDenied);
  EXPECT_FALSE(other.IsOpen());
  device.Close();
  EXPECT_EQ(other.Open(line.GetDeviceName()), kErrorNone);
  EXPECT_EQ(CSerialDevice().Open("no such port"), kErrorNotFound);
  EXPECT_EQ(CSerialDevice().Open(""), kErrorNotFound);
  EXPECT_EQ(CSerialDevice().Open("null"), kErrorNotSerial);
}

TEST_F(CSerialDeviceTest, UnpluggedLineIsLost) {
  std::thread unplug([&] { line.HangUp(); });
  EXPECT_EQ(device.WaitReadable(wakeup, kTestPatienceMs), SerialWait::kLost);
  unplug.join();
  char byte = 0;
  int32_t count = 0;
  EXPECT_EQ(device.Read(&byte, 1, &count), kErrorDeviceLost);
  EXPECT_EQ(device.Write(&byte, 1, 1000, &count), kErrorDeviceLost);
  EXPECT_EQ(device.GetStatus(&count, std::make_unique<uint32_t>().get()), kErrorDeviceLost);
}

TEST_F(CSerialDeviceTest, WriteOnAFullLineEndsByTimeInterruptAndClose) {
  const std::string block(1 << 17, 'x');
  int32_t written = 0;
  EXPECT_EQ(device.Write(block.data(), 1 << 17, 20, &written), kErrorNone);
  EXPECT_GT(written, 0);
  EXPECT_LT(written, 1 << 17);
  std::thread closed([&] {
    int32_t count = 0;
    device.Write(block.data(), 1 << 17, -1, &count);
    EXPECT_LT(count, 1 << 17);
  });
  Sleep(20);
  device.Close();
  closed.join();

  ASSERT_EQ(device.Open(line.GetDeviceName()), kErrorNone);
  std::thread interrupted([&] {
    int32_t count = 0;
    EXPECT_EQ(device.Write(block.data(), 1 << 17, -1, &count), kErrorNone);
    EXPECT_LT(count, 1 << 17);
  });
  Sleep(20);
  device.Interrupt();
  interrupted.join();
}

TEST(SerialPortsTest, ListIsOrderedNamedAndDescribed) {
  namespace fs = std::filesystem;
  const fs::path root = fs::path(testing::TempDir()) / "kvl_serial_ports";
  fs::remove_all(root);
  const auto lay = [&](const std::string& name, const std::string& hardware, const char* type) {
    fs::create_directories(root / "class" / name);
    fs::create_directories(root / "dev" / "serial" / "by-id");
    std::ofstream(root / "dev" / name) << "";
    if (!hardware.empty()) {
      fs::create_directories(root / hardware);
      fs::create_directory_symlink(root / hardware, root / "class" / name / "device");
    }
    if (type) std::ofstream(root / "class" / name / "type") << type << "\n";
  };
  lay("ttyUSB10", "usb/1-2/1-2:1.0/ttyUSB10", nullptr);
  lay("ttyUSB2", "usb/1-1/1-1:1.0/ttyUSB2", nullptr);
  lay("ttyS0", "platform/s0", "4");
  lay("ttyS1", "platform/s1", "0");  // an unused place
  lay("console", "", nullptr);
  std::ofstream(root / "usb/1-1/product") << "Scale Cable\n";
  std::ofstream(root / "usb/1-1/manufacturer") << "Example\n";
  fs::create_symlink(root / "dev/ttyUSB2", root / "dev/serial/by-id/usb-scale");

  const std::vector<SerialPortInfo> ports = ListSerialPortsIn(root / "class", root / "dev");
  ASSERT_EQ(ports.size(), 3U);
  EXPECT_EQ(ports[0].strDevice, (root / "dev/ttyS0").string());
  EXPECT_EQ(ports[1].strName, "COM2");
  EXPECT_EQ(ports[1].strDevice, (root / "dev/ttyUSB2").string());
  EXPECT_EQ(ports[1].strAlias, (root / "dev/serial/by-id/usb-scale").string());
  EXPECT_EQ(ports[1].strDescription, "Example Scale Cable");
  EXPECT_EQ(ports[2].strDevice, (root / "dev/ttyUSB10").string());
  EXPECT_EQ(ports[2].strAlias, "");
  EXPECT_TRUE(ListSerialPortsIn(root / "none", root / "dev").empty());
  fs::remove_all(root);
}

TEST(SerialPortsTest, NameIsMappedCountedOrTakenAsItIs) {
  MapSerialPort("COM3", "/dev/scale");
  EXPECT_EQ(FindSerialPort("COM3"), "/dev/scale");
  MapSerialPort("COM3", "");
  const std::vector<SerialPortInfo> ports = ListSerialPorts();
  EXPECT_EQ(FindSerialPort("COM3"), ports.size() >= 3 ? ports[2].strDevice : "");
  EXPECT_EQ(FindSerialPort("COM9999"), "");
  EXPECT_EQ(FindSerialPort("ttyS0"), "/dev/ttyS0");
  EXPECT_EQ(FindSerialPort("/dev/x"), "/dev/x");
  EXPECT_EQ(FindSerialPort("COM"), "/dev/COM");
}

}  // namespace
}  // namespace kvl
