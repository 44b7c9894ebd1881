// A gauge on TCP: it sends a line to everyone connected, at a steady rate, without being asked.
//
//   LEVEL 12.50 TEMP 21.3 SEQ 17 CR LF
//
// Prints the port to connect to.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "faulty_voice.h"
#include "platform/clock.h"
#include "platform/socket.h"

namespace {

using kvl::simulators::CFaultyVoice;

// One listener; what it says is for the simulator to hear and nobody else.
class CClient : public kvl::CAsyncSocket {
 public:
  bool bGone = false;

 protected:
  void OnReceive(int32_t) override {
    char ignored[256];
    while (Receive(ignored, sizeof ignored) > 0) {
    }
  }
  void OnClose(int32_t) override { bGone = true; }
};

struct GaugeOptions {
  kvl::simulators::VoiceOptions voice;
  std::string strAddress = "127.0.0.1";
  uint32_t nPort = 0;
  double nRate = 10;
  double nSeconds = 0;
};

class CGauge : public kvl::CAsyncSocket {
 public:
  explicit CGauge(const GaugeOptions& options)
      : m_options(options),
        m_voice(
            options.voice, [this](const std::string& bytes) { Broadcast(bytes); },
            [this] { m_clients.clear(); }) {}

  // Listens, and prints the port.
  bool Open() {
    uint32_t port = 0;
    std::string address;
    if (!Create(m_options.nPort, kvl::kSockStream, kvl::kFdAll, m_options.strAddress.c_str()) ||
        !Listen() || !GetSockName(address, port)) {
      return false;
    }
    std::printf("%u\n", port);
    std::fflush(stdout);
    return true;
  }

  // Says what is due by now; a step of some milliseconds stands for a rate above it too.
  void Speak() {
    const double elapsed = static_cast<double>(kvl::GetTickCount() - m_nStart) / 1000;
    while (static_cast<double>(m_nSequence) < elapsed * m_options.nRate) {
      m_voice.Say(Measure());
    }
  }

 protected:
  void OnAccept(int32_t) override {
    auto pClient = std::make_unique<CClient>();
    if (Accept(*pClient)) m_clients.push_back(std::move(pClient));
  }

 private:
  std::string Measure() {
    const auto angle = static_cast<double>(m_nSequence) / 20;
    char line[64];
    std::snprintf(line, sizeof line, "LEVEL %.2f TEMP %.1f SEQ %lld\r\n",
                  12.5 + 2.5 * std::sin(angle), 21.3 + std::cos(angle),
                  static_cast<long long>(m_nSequence++));
    return line;
  }

  // A listener that does not keep up misses what its line can't take.
  void Broadcast(const std::string& bytes) {
    std::erase_if(m_clients, [](const auto& pClient) { return pClient->bGone; });
    for (const auto& pClient : m_clients) {
      pClient->Send(bytes.data(), static_cast<int32_t>(bytes.size()));
    }
  }

  const GaugeOptions& m_options;
  CFaultyVoice m_voice;
  std::vector<std::unique_ptr<CClient>> m_clients;
  const int64_t m_nStart = kvl::GetTickCount();
  int64_t m_nSequence = 0;
};

}  // namespace

int main(int argc, char** argv) {
  GaugeOptions options;
  CLI::App app("A simulated gauge that streams lines over TCP. Prints its port.");
  app.add_option("--address", options.strAddress, "numeric address to listen on")
      ->capture_default_str();
  app.add_option("--port", options.nPort, "port to listen on; 0 for any free one")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  app.add_option("--rate", options.nRate, "lines a second")
      ->check(CLI::Range(0.001, 1e6))
      ->capture_default_str();
  app.add_option("--duration", options.nSeconds, "end after so many seconds");
  options.voice.AddTo(app);
  CLI11_PARSE(app, argc, argv);

  CGauge gauge(options);
  if (!gauge.Open()) {
    std::fprintf(stderr, "port %u can't be listened on (%d)\n", options.nPort,
                 kvl::CAsyncSocket::GetLastError());
    return 1;
  }
  constexpr int32_t kStepMs = 5;
  kvl::simulators::RunSimulator(options.nSeconds, [&gauge] {
    kvl::CMessageLoop::Current().RunUntil([] { return false; }, kStepMs);
    gauge.Speak();
  });
  return 0;
}
