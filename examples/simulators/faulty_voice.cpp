#include "faulty_voice.h"

#include <map>
#include <utility>

#include "platform/clock.h"

namespace kvl::simulators {

namespace {

constexpr int kFloodCopies = 1000;
constexpr size_t kGarbageBytes = 24;

const std::map<std::string, Fault> kFaultNames = {{"split", Fault::kSplit},
                                                  {"garbage", Fault::kGarbage},
                                                  {"silence", Fault::kSilence},
                                                  {"hangup", Fault::kHangUp},
                                                  {"flood", Fault::kFlood}};

std::string Repeat(const std::string& message, int times) {
  std::string all;
  while (times-- > 0) all += message;
  return all;
}

}  // namespace

void VoiceOptions::AddTo(CLI::App& app) {
  app.add_option("--fault", faults,
                 "what goes wrong; several take turns: split (a pause within a message), garbage "
                 "(bytes ahead of it), silence (it is not said), hangup (the line is dropped "
                 "instead), flood (it is said a thousand times at once)")
      ->transform(CLI::CheckedTransformer(kFaultNames));
  app.add_option("--every", nEvery, "each so many messages one fault")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  app.add_option("--split-pause", nSplitPauseMs, "milliseconds within a split message")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
}

CFaultyVoice::CFaultyVoice(VoiceOptions options, Send send, HangUp hangUp)
    : m_options(std::move(options)), m_send(std::move(send)), m_hangUp(std::move(hangUp)) {}

void CFaultyVoice::Say(const std::string& message) {
  ++m_nMessages;
  if (m_bHeldUp) {
    m_strLater += message;
  } else if (m_options.faults.empty() || m_nMessages % m_options.nEvery != 0) {
    m_send(message);
  } else {
    SayFaulty(m_options.faults[m_nNextFault++ % m_options.faults.size()], message);
  }
}

void CFaultyVoice::SayFaulty(Fault fault, const std::string& message) {
  switch (fault) {
    case Fault::kSplit:
      return SayInTwo(message);
    case Fault::kGarbage:
      return m_send(Garbage() + message);
    case Fault::kSilence:
      return;
    case Fault::kHangUp:
      BreakOff();
      return m_hangUp();
    case Fault::kFlood:
      return m_send(Repeat(message, kFloodCopies));
  }
}

void CFaultyVoice::SayInTwo(const std::string& message) {
  const size_t half = message.size() / 2;
  m_send(message.substr(0, half));
  m_strLater = message.substr(half);
  m_bHeldUp = true;
  m_timer.Start(m_options.nSplitPauseMs, [this] {
    m_bHeldUp = false;
    m_send(std::exchange(m_strLater, {}));
  });
}

void CFaultyVoice::BreakOff() {
  m_timer.Stop();
  m_bHeldUp = false;
  m_strLater.clear();
}

std::string CFaultyVoice::Garbage() {
  std::string bytes;
  while (bytes.size() < kGarbageBytes) bytes += static_cast<char>(m_random() % 256);
  return bytes;
}

void RunSimulator(double nSeconds, const std::function<void()>& step) {
  bool bEnd = false;
  const CInterruptWatch watch([&bEnd] { bEnd = true; });
  const int64_t end = GetTickCount() + static_cast<int64_t>(nSeconds * 1000);
  while (!bEnd && (nSeconds <= 0 || GetTickCount() < end)) {
    step();
    CMessageLoop::Current().RunUntilIdle();
  }
}

}  // namespace kvl::simulators
