// A CWakeup beside a file descriptor, for the sources of this folder only.
#pragma once

#include <unistd.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <utility>

#include "platform/wakeup.h"

namespace kvl {

// Owns a file descriptor.
class CDescriptor {
 public:
  explicit CDescriptor(int fd = -1) : m_fd(fd) {}
  CDescriptor(CDescriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
  CDescriptor& operator=(CDescriptor&& other) noexcept {
    std::swap(m_fd, other.m_fd);
    return *this;
  }
  ~CDescriptor() {
    if (m_fd >= 0) ::close(m_fd);
  }

  int Get() const { return m_fd; }
  int Release() { return std::exchange(m_fd, -1); }
  explicit operator bool() const { return m_fd >= 0; }

 private:
  int m_fd;
};

struct CWakeup::Impl {
  std::mutex lock;
  std::condition_variable changed;
  bool bSet = false;
  bool bPolling = false;  // the waiting thread sleeps on `event`, not on `changed`
  CDescriptor event;      // made at the first poll
};

enum class PollResult { kReady, kWoken, kTimeout };

// Waits until `fd` has one of `events` or an error to tell, or for a Set of `wakeup`, which is
// used up only if it ends the wait; at most `timeoutMs` milliseconds (-1: no limit). `*pEvents`
// gets what the descriptor has. When the system has no means left to wait for both, a time-out
// comes early: callers look at their own deadline.
PollResult PollBeside(int fd, short events, CWakeup& wakeup, int32_t timeoutMs, short* pEvents);

}  // namespace kvl
