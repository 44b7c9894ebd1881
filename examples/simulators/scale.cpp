// A weighing scale on a serial line: it speaks when it is asked.
//
//   READ CR LF   is answered by   ST,GS,+  12.345kg CR LF
//
// ST stands for a weight at rest, US for one that still moves. Prints the device to open.
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <string>

#include "faulty_voice.h"
#include "platform/virtual_serial.h"

namespace {

using kvl::simulators::CFaultyVoice;

// A load that is put on, settles, rests, and is taken off.
constexpr struct {
  bool bRests;
  double weight;
} kLoad[] = {{true, 0.0},    {false, 3.2},   {false, 9.875}, {false, 13.02}, {true, 12.345},
             {true, 12.345}, {true, 12.345}, {true, 12.345}, {false, 4.71}};

struct ScaleOptions {
  kvl::simulators::VoiceOptions voice;
  std::string strPoll = "READ";
  std::string strLink;
  double nRate = 0;
  double nSeconds = 0;
};

class CScale {
 public:
  explicit CScale(const ScaleOptions& options)
      : m_options(options),
        m_voice(
            options.voice, [this](const std::string& bytes) { Send(bytes); },
            [this] { HangUp(); }) {}

  // A new line, told by a line on standard output once the link leads to it.
  bool Open() {
    if (!m_line.Open() || !Link()) return false;
    std::printf("%s\n", m_line.GetDeviceName().c_str());
    std::fflush(stdout);
    return true;
  }

  void StartStream() {
    if (m_options.nRate <= 0) return;
    m_timer.Start(static_cast<int32_t>(std::lround(1000 / m_options.nRate)), [this] {
      m_voice.Say(Weigh());
      StartStream();
    });
  }

  // Waits a little for a poll and answers what has come.
  void Serve() {
    constexpr int32_t kWaitMs = 10;
    constexpr size_t kLongestPoll = 256;
    char buffer[256];
    const int32_t count = m_line.Read(buffer, sizeof buffer, kWaitMs);
    for (const char c : std::string(buffer, static_cast<size_t>(count))) {
      if (c == '\n') {
        if (m_strHeard == m_options.strPoll) m_voice.Say(Weigh());
        m_strHeard.clear();
      } else if (c != '\r' && m_strHeard.size() < kLongestPoll) {
        m_strHeard += c;
      }
    }
  }

 private:
  bool Link() {
    if (m_options.strLink.empty()) return true;
    std::error_code ec;
    std::filesystem::remove(m_options.strLink, ec);
    std::filesystem::create_symlink(m_line.GetDeviceName(), m_options.strLink, ec);
    if (ec) std::fprintf(stderr, "%s: %s\n", m_options.strLink.c_str(), ec.message().c_str());
    return !ec;
  }

  std::string Weigh() {
    const auto& load = kLoad[m_nWeighed++ % std::size(kLoad)];
    char line[32];
    std::snprintf(line, sizeof line, "%s,GS,+%8.3fkg\r\n", load.bRests ? "ST" : "US", load.weight);
    return line;
  }

  void Send(const std::string& bytes) {
    constexpr int32_t kTimeoutMs = 100;  // what nobody reads is lost
    m_line.Write(bytes.data(), static_cast<int32_t>(bytes.size()), kTimeoutMs);
  }

  // Unplugged, and plugged in again.
  void HangUp() {
    constexpr int32_t kUnpluggedMs = 200;
    m_line.HangUp();
    m_strHeard.clear();
    m_replug.Start(kUnpluggedMs, [this] { Open(); });
  }

  const ScaleOptions& m_options;
  kvl::CVirtualSerial m_line;
  CFaultyVoice m_voice;
  kvl::CTimer m_timer;
  kvl::CTimer m_replug;
  std::string m_strHeard;
  size_t m_nWeighed = 0;
};

}  // namespace

int main(int argc, char** argv) {
  ScaleOptions options;
  CLI::App app("A simulated weighing scale on a serial line. Prints the device to open.");
  app.add_option("--poll", options.strPoll, "the word that asks for the weight")
      ->capture_default_str();
  app.add_option("--rate", options.nRate, "also speak unasked, so many times a second")
      ->check(CLI::Range(0.0, 1000.0));
  app.add_option("--link", options.strLink, "a name that always leads to the device");
  app.add_option("--duration", options.nSeconds, "end after so many seconds");
  options.voice.AddTo(app);
  CLI11_PARSE(app, argc, argv);

  CScale scale(options);
  if (!scale.Open()) {
    std::fprintf(stderr, "no serial line can be made\n");
    return 1;
  }
  scale.StartStream();
  kvl::simulators::RunSimulator(options.nSeconds, [&scale] { scale.Serve(); });
  return 0;
}
