// The wait that an idle thread sleeps in.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/api.h"

namespace kvl {

// A signal for one waiting thread: each Set lets one Wait through, and a Set that nobody waits
// for is kept (once) for the next. A serial device takes the same object, so that a thread can
// wait for a device and for other threads at once (CSerialDevice::WaitReadable).
// Threads: Set from any; the waits from one at a time.
class KVL_API CWakeup {
 public:
  CWakeup();
  ~CWakeup();
  CWakeup(const CWakeup&) = delete;
  CWakeup& operator=(const CWakeup&) = delete;

  // Wakes the waiting thread. Cheap: no system call while nobody waits.
  void Set();

  // Waits at most `timeoutMs` milliseconds (-1: no limit) for a Set and uses it up; false if none
  // came.
  bool Wait(int32_t timeoutMs);

  // What the device waits of this folder work with.
  struct Impl;
  Impl& GetImpl() { return *m_pImpl; }

 private:
  std::unique_ptr<Impl> m_pImpl;
};

}  // namespace kvl
