// Sessions on real lines: a control that tells what it hears, scripts in files, and both kinds of
// line with their far ends.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "control/DecodeCtrl.h"
#include "platform/serial.h"
#include "platform/virtual_serial.h"
#include "support/loop_fixtures.h"

namespace kvl {

// Writes down what a session tells. While the gate is closed a PRINT holds the worker.
class CSeenSession : public CSessionObserver {
 public:
  void OnStatus(ESessionStatus status, std::string_view text) override {
    statuses.push_back(status);
    texts.emplace_back(text);
    if (onStatus) onStatus(status);
  }
  void OnReceived(std::span<const uint8_t> bytes) override {
    pieces.push_back(bytes.size());
    received += bytes.size();
  }
  void OnSent(std::span<const uint8_t>, int32_t) override { ++sent; }
  void OnPrint(std::string_view message) override {
    if (onPrint) onPrint();
    std::unique_lock guard(m_lock);
    m_prints.emplace_back(message);
    if (++printed == throwAt) throw std::runtime_error("host");
    m_changed.wait(guard, [this] { return m_bOpen; });
  }

  std::vector<std::string> Prints() {
    const std::lock_guard guard(m_lock);
    return m_prints;
  }
  void SetGate(bool bOpen) {
    const std::lock_guard guard(m_lock);
    m_bOpen = bOpen;
    m_changed.notify_all();
  }
  // While no session runs.
  void Forget() {
    statuses.clear();
    texts.clear();
    m_prints.clear();
    received = 0;
    sent = 0;
    printed = 0;
  }
  int Count(ESessionStatus status) const {
    return static_cast<int>(std::count(statuses.begin(), statuses.end(), status));
  }

  std::vector<ESessionStatus> statuses;
  std::vector<std::string> texts;
  std::function<void(ESessionStatus)> onStatus;
  std::function<void()> onPrint;  // on the worker
  std::vector<size_t> pieces;     // for the thread that receives
  std::atomic<size_t> received{0};
  std::atomic<int> sent{0};
  std::atomic<size_t> printed{0};
  size_t throwAt = 0;  // the PRINT, counted from 1, whose observer fails

 private:
  std::mutex m_lock;
  std::condition_variable m_changed;
  std::vector<std::string> m_prints;
  bool m_bOpen = true;
};

class CTestCtrl : public CDecodeCtrl {
 public:
  using CDecodeCtrl::OnCloseSocket;
  using CDecodeCtrl::OnConnect;
  using CDecodeCtrl::OnReceiveSocket;
  using CDecodeCtrl::OnRecreateSocket;
  using CDecodeCtrl::OnReopenPort;

  LRESULT WindowProc(uint32_t nMessage, WPARAM wParam, LPARAM lParam) override {
    if (nMessage == kMsgSocketConnect) hConnected = wParam;
    return CDecodeCtrl::WindowProc(nMessage, wParam, lParam);
  }

  SOCKET hConnected = kInvalidSocket;  // the socket whose connect was told last
};

// A script in a file of its own.
class CScriptFile {
 public:
  CScriptFile() {
    static std::atomic<int> s_nLast{0};
    std::random_device random;
    m_path = std::filesystem::temp_directory_path() /
             ("kvl_test_" + std::to_string(random()) + "_" + std::to_string(++s_nLast) + ".kvl");
  }
  ~CScriptFile() {
    std::error_code ignored;
    std::filesystem::remove(m_path, ignored);
  }
  void Write(const std::string& text) const { std::ofstream(m_path, std::ios::binary) << text; }
  std::string Path() const { return m_path.string(); }

 private:
  std::filesystem::path m_path;
};

// One batch a PRINT, empty ones passed over.
inline constexpr const char* kPrintBatches =
    "DIM RX$ 8192\nVAR LEN% 0\nBEGIN:\nIN RX, LEN\nCMP LEN, 0\nJPE END\nPRINT RX\nEND:\n";
// Answers each batch with itself.
inline constexpr const char* kEcho =
    "DIM RX$ 8192\nVAR LEN% 0\nBEGIN:\nIN RX, LEN\nCMP LEN, 0\nJPE END\nOUT RX\nEND:\n";

class SessionTest : public testing::Test {
 protected:
  static constexpr const char* kPort = "COM88";

  void SetUp() override {
    ASSERT_NE(control.Create(&host, RECT{0, 0, 20, 10}, 7), 0);
    control.SetObserver(&seen);
    listener.pAccepted = &peer;
    tcpPort = listener.ListenLocal();
    ASSERT_NE(tcpPort, 0U);
    if (!line.Open()) GTEST_SKIP() << "no virtual serial lines here";
    MapSerialPort(kPort, line.GetDeviceName());
  }
  void TearDown() override {
    seen.SetGate(true);
    MapSerialPort(kPort, "");
  }

  // Scripts without their OPEN lines.
  std::string TcpScript(const std::string& body) const {
    return "OPEN MEDIA TCP\nOPEN IP 127.0.0.1\nOPEN PORT " + std::to_string(tcpPort) + "\n" + body;
  }
  static std::string SerialScript(const std::string& body) {
    return std::string("OPEN MEDIA RS232C\nOPEN PORT ") + kPort +
           "\nOPEN BAUD_RATE 9600\nOPEN DATA_BIT 8\nOPEN PARITY_BIT NONE\nOPEN STOP_BIT 1\n" + body;
  }

  void Verify(const std::string& text) {
    script.Write(text);
    control.SetScriptName(script.Path().c_str());
    std::string faults;
    const int32_t result = control.VerifyScript();
    if (result != 0) {
      for (const CFault& fault : control.GetSyntax()->Errors()) faults += fault.m_strText + "\n";
    }
    ASSERT_EQ(result, 0) << faults;
  }

  void StartTcp(const std::string& body) {
    peer.CAsyncSocket::Close();
    Verify(TcpScript(body));
    ASSERT_EQ(control.Run(), 0);
    ASSERT_TRUE(RunLoopUntil(
        [this] { return control.IsConnected() && peer.GetHandle() != kInvalidSocket; }));
  }
  void StartSerial(const std::string& body) {
    Verify(SerialScript(body));
    ASSERT_EQ(control.Run(), 0);
  }

  // The far ends.
  void PeerSends(const std::string& bytes) {
    ASSERT_EQ(peer.Send(bytes.data(), static_cast<int32_t>(bytes.size())),
              static_cast<int32_t>(bytes.size()));
  }
  void LineSends(const std::string& bytes) {
    const auto size = static_cast<int32_t>(bytes.size());
    ASSERT_EQ(line.Write(bytes.data(), size, kTestPatienceMs), size);
  }
  bool ReachesPrints(size_t count) {
    return RunLoopUntil([this, count] { return seen.printed >= count; });
  }

  // Outlive the control, in this order.
  CTestWnd host;
  CScriptFile script;
  CSeenSession seen;
  CTestSock listener, peer;
  uint32_t tcpPort = 0;
  CVirtualSerial line;
  CTestCtrl control;
};

}  // namespace kvl
