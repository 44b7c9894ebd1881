// The live line, measured on real lines of this machine. Each figure stands beside a peer's.
//   kvl_live_bench [idle] [latency] [flood]
#include <fmt/format.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <span>
#include <string>
#include <vector>

#include "control/DecodeCtrl.h"
#include "echo_servers.h"
#include "lines.h"
#include "pinned.h"
#include "platform/clock.h"
#include "platform/message_loop.h"
#include "platform/serial.h"
#include "platform/thread.h"

namespace kvl::bench {
namespace {

constexpr const char* kEchoScript =
    "DIM RX$ 8192\nVAR LEN% 0\nBEGIN:\nIN RX, LEN\nCMP LEN, 0\nJPE END\nOUT RX\nEND:\n";
constexpr const char* kListenScript =
    "DIM RX$ 8192\nVAR LEN% 0\nBEGIN:\nIN RX, LEN\nCMP LEN, 0\nJPE END\nEND:\n";
constexpr const char* kPort = "COM99";

double Now() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration<double>(now).count();
}

double CpuSeconds() {
  timespec time{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// A script in a file for as long as the object lives.
class CScript {
 public:
  CScript(const std::string& open, const std::string& body)
      : m_path(std::filesystem::temp_directory_path() /
               fmt::format("kvl_live_bench_{}.kvl", getpid())) {
    std::ofstream(m_path) << open << body;
  }
  ~CScript() { std::filesystem::remove(m_path); }
  std::string Path() const { return m_path.string(); }

 private:
  std::filesystem::path m_path;
};

std::string TcpLine(uint16_t port) {
  return fmt::format("OPEN MEDIA TCP\nOPEN IP 127.0.0.1\nOPEN PORT {}\n", port);
}

std::string SerialLine() {
  return fmt::format(
      "OPEN MEDIA RS232C\nOPEN PORT {}\nOPEN BAUD_RATE 115200\nOPEN DATA_BIT 8\n"
      "OPEN PARITY_BIT NONE\nOPEN STOP_BIT 1\n",
      kPort);
}

// `count` sessions with one script, on a thread of their own that runs their loop.
class CSessions {
 public:
  CSessions(const std::string& script, size_t count, CSessionObserver* pObserver = nullptr) {
    std::promise<CMessageLoop> started;
    std::future<CMessageLoop> loop = started.get_future();
    m_thread = std::thread([this, script, count, pObserver, &started] {
      CWnd frame;
      frame.Create(0, RECT{0, 0, 1, 1}, nullptr, 0);
      for (size_t i = 0; i < count; ++i) {
        CDecodeCtrl& control = *m_controls.emplace_back(std::make_unique<CDecodeCtrl>());
        control.Create(&frame, RECT{0, 0, 1, 1}, 1);
        control.SetScriptName(script.c_str());
        control.SetObserver(pObserver);
        m_bFailed = m_bFailed || control.VerifyScript() != 0 || control.Run() != 0;
      }
      started.set_value(CMessageLoop::Current());
      CMessageLoop::Current().Run();
      m_controls.clear();
    });
    m_loop = loop.get();
    if (m_bFailed) throw std::runtime_error("the session does not start");
  }
  ~CSessions() {
    m_loop.Quit();
    m_thread.join();
  }
  CDecodeCtrl& First() { return *m_controls[0]; }

 private:
  std::vector<std::unique_ptr<CDecodeCtrl>> m_controls;
  bool m_bFailed = false;
  CMessageLoop m_loop;
  std::thread m_thread;
};

std::vector<CDescriptor> AcceptAll(const CDescriptor& listener, size_t count) {
  std::vector<CDescriptor> peers;
  while (peers.size() < count) peers.push_back(Accept(listener));
  return peers;
}

// ---- idle ----

double CpuShareOf(double seconds) {
  const double cpu = CpuSeconds();
  const double start = Now();
  Sleep(static_cast<uint32_t>(seconds * 1000));
  return (CpuSeconds() - cpu) / (Now() - start);
}

double IdleShare(size_t sessions) {
  uint16_t port = 0;
  const CDescriptor listener = Listen(port);
  const CScript script(TcpLine(port), kListenScript);
  CSessions running(script.Path(), sessions);
  const std::vector<CDescriptor> peers = AcceptAll(listener, sessions);
  Sleep(500);
  return CpuShareOf(5);
}

double IdleSerialShare() {
  std::string name;
  const CDescriptor master = OpenTerminal(name);
  MapSerialPort(kPort, name);
  const CScript script(SerialLine(), kListenScript);
  CSessions running(script.Path(), 1);
  Sleep(500);
  return CpuShareOf(5);
}

class CSpinningOwner : public CEngineOwner {
 public:
  void Pause(int32_t, EPause) override {}
  void Sync(int32_t) override {}
};

// What the worker would take if it ran the same script over and over, giving up its time slice.
double SpinningShare() {
  CSpinningOwner owner;
  std::thread spinner([&owner] {
    SetThreadPriority(kPriorityBelowNormal);
    CKVL engine(&owner, "");
    engine._CompileMainScript1(engine.LoadText(kListenScript));
    while (owner.m_bRun != 0) {
      engine.Begin(nullptr, 0);
      Sleep(0);
    }
  });
  const double share = CpuShareOf(2);
  owner.m_bRun = 0;
  spinner.join();
  return share;
}

void PrintShare(const char* what, double share, double bar) {
  fmt::print("  {:32}{:>9.3f} % of a core", what, share * 100);
  if (bar > 0) fmt::print("   bar {} %: {}", bar * 100, share < bar ? "held" : "MISSED");
  fmt::print("\n");
}

void Idle() {
  fmt::print("Sessions with nothing to do, over 5 s\n");
  PrintShare("1 session on TCP", IdleShare(1), 0.001);
  PrintShare("1 session on a pseudo-terminal", IdleSerialShare(), 0.001);
  PrintShare("500 sessions on TCP", IdleShare(500), 0.05);
  PrintShare("a spinning worker", SpinningShare(), 0);
}

// ---- latency ----

double QuantileOf(std::span<double> values, double share) {
  const auto place = static_cast<size_t>(share * static_cast<double>(values.size() - 1));
  const auto at = values.begin() + static_cast<std::ptrdiff_t>(place);
  std::nth_element(values.begin(), at, values.end());
  return *at;
}

// One question after the other, each as soon as the answer to the one before is whole or, with a
// pause, some time later.
std::vector<double> Ask(int fd, int questions, uint32_t pauseMs) {
  std::vector<double> times;
  const std::string question = "ST,GS,+  12.345kg";
  char answer[64];
  for (int i = 0; i < questions; ++i) {
    if (pauseMs > 0) Sleep(pauseMs);
    const double start = Now();
    if (write(fd, question.data(), question.size()) < 0) throw std::runtime_error("write failed");
    for (size_t size = 0; size < question.size();) {
      const ssize_t count = read(fd, answer + size, sizeof answer - size);
      if (count <= 0) throw std::runtime_error("no answer");
      size += static_cast<size_t>(count);
    }
    times.push_back(Now() - start);
    if (std::memcmp(answer, question.data(), question.size()) != 0) {
      throw std::runtime_error("wrong answer");
    }
  }
  return times;
}

struct CContestant {
  const char* m_pszName;
  CDescriptor m_client;
  std::vector<double> m_times = {};    // of all questions
  std::vector<double> m_medians = {};  // of each round
};

// Ratios are taken within a round, where the machine is in the same mood for all.
double RatioOf(const CContestant& contestant, const CContestant& reference) {
  std::vector<double> ratios;
  for (size_t i = 0; i < contestant.m_medians.size(); ++i) {
    ratios.push_back(contestant.m_medians[i] / reference.m_medians[i]);
  }
  return QuantileOf(ratios, 0.5);
}

void Race(const std::string& title, std::vector<CContestant>& contestants, int questions,
          uint32_t pauseMs) {
  constexpr size_t kRounds = 90;
  for (CContestant& contestant : contestants) {
    contestant.m_times.clear();
    contestant.m_medians.clear();
  }
  for (size_t round = 0; round < kRounds; ++round) {
    for (size_t i = 0; i < contestants.size(); ++i) {
      CContestant& contestant = contestants[(round + i) % contestants.size()];
      std::vector<double> times = Ask(contestant.m_client.Get(), questions, pauseMs);
      contestant.m_medians.push_back(QuantileOf(times, 0.5));
      contestant.m_times.insert(contestant.m_times.end(), times.begin(), times.end());
    }
  }
  fmt::print("{}\n  {:8}{:>12}{:>12}{:>10}\n", title, "", "median us", "p99 us", "to epoll");
  for (CContestant& contestant : contestants) {
    const double ratio = RatioOf(contestant, contestants[0]);
    fmt::print("  {:8}{:>12.1f}{:>12.1f}{:>10.2f}", contestant.m_pszName,
               QuantileOf(contestant.m_times, 0.5) * 1e6,
               QuantileOf(contestant.m_times, 0.99) * 1e6, ratio);
    if (&contestant == &contestants.back()) {
      fmt::print("   bar 1.5: {}", ratio <= 1.5 ? "held" : "MISSED");
    }
    fmt::print("\n");
  }
}

// The servers are on the last core.
void RaceAll(const std::string& line, const CPinned& pinned,
             std::vector<CContestant>& contestants) {
  const std::string title = "Byte in to OUT byte back, " + line;
  Race(title + ", question upon answer, on one core", contestants, 125, 0);
  pinned.ToFirst();
  Race(title + ", question upon answer, the client on a core of its own", contestants, 125, 0);
  Race(title + ", a question every 5 ms, the client on a core of its own", contestants, 9, 5);
}

void TcpLatency() {
  const CPinned pinned;
  pinned.ToLast();
  uint16_t port = 0;
  const CDescriptor listener = Listen(port);
  std::vector<CContestant> contestants;
  contestants.push_back({"epoll", Connect(port)});
  const auto raw = RawEcho(Accept(listener));
  contestants.push_back({"asio", Connect(port)});
  const auto asio = AsioEcho(Accept(listener));
  const CScript script(TcpLine(port), kEchoScript);
  CSessions session(script.Path(), 1);
  contestants.push_back({"kvl", Accept(listener)});
  RaceAll("TCP loopback", pinned, contestants);
}

void SerialLatency() {
  const CPinned pinned;
  pinned.ToLast();
  std::string names[3];
  std::vector<CContestant> contestants;
  contestants.push_back({"epoll", OpenTerminal(names[0])});
  const auto raw = RawEcho(OpenDevice(names[0]));
  contestants.push_back({"asio", OpenTerminal(names[1])});
  const auto asio = AsioEcho(OpenDevice(names[1]));
  contestants.push_back({"kvl", OpenTerminal(names[2])});
  MapSerialPort(kPort, names[2]);
  const CScript script(SerialLine(), kEchoScript);
  CSessions session(script.Path(), 1);
  RaceAll("pseudo-terminal", pinned, contestants);
}

// ---- flood ----

class CReceivedBytes : public CSessionObserver {
 public:
  void OnReceived(std::span<const uint8_t> bytes) override { m_nBytes += bytes.size(); }
  std::atomic<uint64_t> m_nBytes{0};
};

void Flood() {
  constexpr double kSeconds = 3;
  uint16_t port = 0;
  const CDescriptor listener = Listen(port);
  const CScript script(TcpLine(port), kListenScript);
  CReceivedBytes received;
  CSessions session(script.Path(), 1, &received);
  const CDescriptor peer = Accept(listener);
  const std::string block(65536, 'f');
  uint64_t sent = 0;
  const double start = Now();
  while (Now() - start < kSeconds) {
    const ssize_t count = send(peer.Get(), block.data(), block.size(), MSG_NOSIGNAL);
    if (count < 0) throw std::runtime_error("the session has hung up");
    sent += static_cast<uint64_t>(count);
  }
  while (received.m_nBytes < sent) Sleep(1);  // what the system still holds
  const double seconds = Now() - start;
  const auto taken = static_cast<double>(sent);
  const auto dropped = static_cast<double>(session.First().GetDroppedBytes());
  fmt::print("A peer that floods a session, TCP loopback, {} s\n", kSeconds);
  fmt::print("  taken from the line {:8.1f} MB/s\n", taken / seconds / 1e6);
  fmt::print("  given to the script {:8.1f} MB/s\n", (taken - dropped) / seconds / 1e6);
  fmt::print("  dropped and counted {:8.1f} %\n", dropped / taken * 100);
}

struct CSection {
  const char* m_pszName;
  std::function<void()> m_run;
};

int Main(std::span<char*> wanted) {
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);  // 500 sessions and their peers live in this one process
  files.rlim_cur = files.rlim_max;
  setrlimit(RLIMIT_NOFILE, &files);
  const CSection sections[] = {
      {"idle", Idle}, {"latency", [] { TcpLatency(), SerialLatency(); }}, {"flood", Flood}};
  for (const CSection& section : sections) {
    const auto isThis = [&](const char* name) { return std::strcmp(name, section.m_pszName) == 0; };
    if (wanted.empty() || std::any_of(wanted.begin(), wanted.end(), isThis)) section.m_run();
  }
  return 0;
}

}  // namespace
}  // namespace kvl::bench

int main(int argc, char** argv) try {
  return kvl::bench::Main(std::span<char*>(argv, static_cast<size_t>(argc)).subspan(1));
} catch (const std::exception& fault) {
  fmt::print(stderr, "kvl_live_bench: {}\n", fault.what());
  return 1;
}
