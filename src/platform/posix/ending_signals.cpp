#include <csignal>

#include "platform/loop_core.h"

namespace kvl {

std::vector<int> EndingSignals() {
  std::vector<int> signals = {SIGINT, SIGTERM};
  struct sigaction hangUp {};
  // Who started the program to outlive its terminal has it ignore the hang-up.
  const bool ignored = sigaction(SIGHUP, nullptr, &hangUp) == 0 && hangUp.sa_handler == SIG_IGN;
  if (!ignored) signals.push_back(SIGHUP);
  return signals;
}

}  // namespace kvl
