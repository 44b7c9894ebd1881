#include "platform/clock.h"

#include <chrono>
#include <thread>

namespace kvl {

int64_t GetTickCount() {
  using std::chrono::milliseconds;
  return std::chrono::duration_cast<milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

int64_t GetWallClock() {
  using std::chrono::microseconds;
  return std::chrono::duration_cast<microseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

void Sleep(uint32_t milliseconds) {
  if (milliseconds == 0) {
    std::this_thread::yield();
  } else {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
  }
}

}  // namespace kvl
