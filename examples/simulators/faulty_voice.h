// What a simulated device says, and what goes wrong with it on request.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "platform/message_loop.h"

namespace kvl::simulators {

enum class Fault { kSplit, kGarbage, kSilence, kHangUp, kFlood };

struct VoiceOptions {
  std::vector<Fault> faults;  // strike in turn
  int32_t nEvery = 10;        // each so many messages
  int32_t nSplitPauseMs = 20;

  void AddTo(CLI::App& app);
};

// Passes messages on to a line, in order; each so-manieth meets the next of the faults.
// Threads: one, whose loop runs.
class CFaultyVoice {
 public:
  using Send = std::function<void(const std::string& bytes)>;
  using HangUp = std::function<void()>;

  CFaultyVoice(VoiceOptions options, Send send, HangUp hangUp);

  void Say(const std::string& message);

  // Forgets what has not been said: the line is gone.
  void BreakOff();

 private:
  void SayFaulty(Fault fault, const std::string& message);
  void SayInTwo(const std::string& message);
  std::string Garbage();

  const VoiceOptions m_options;
  const Send m_send;
  const HangUp m_hangUp;
  int64_t m_nMessages = 0;
  size_t m_nNextFault = 0;
  bool m_bHeldUp = false;  // the second part of a message is still to come
  std::string m_strLater;
  CTimer m_timer;
  std::minstd_rand m_random;
};

// Runs `step` on the calling thread, which may wait up to some ten milliseconds, and the loop
// between its steps, until the user ends the program or `nSeconds` have gone by (0: no limit).
void RunSimulator(double nSeconds, const std::function<void()>& step);

}  // namespace kvl::simulators
