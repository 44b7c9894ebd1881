// Threads and processes on cores of the bench's choice.
#pragma once

#include <sched.h>

namespace kvl::bench {

// Where threads run decides more than what they do: a core that sleeps takes tens of microseconds
// to wake. So the system is not left to choose. Threads begin where their maker is.
class CPinned {
 public:
  CPinned() { sched_getaffinity(0, sizeof m_allowed, &m_allowed); }
  ~CPinned() { sched_setaffinity(0, sizeof m_allowed, &m_allowed); }
  CPinned(const CPinned&) = delete;
  CPinned& operator=(const CPinned&) = delete;

  // The calling thread runs on the first or the last core that it may use.
  void ToFirst() const { To(0, 1); }
  void ToLast() const { To(CPU_SETSIZE - 1, -1); }

 private:
  void To(int core, int step) const {
    while (!CPU_ISSET(core, &m_allowed)) core += step;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(core, &one);
    sched_setaffinity(0, sizeof one, &one);
  }

  cpu_set_t m_allowed{};
};

}  // namespace kvl::bench
