// Named manual-reset events: set by whoever has something to tell, waited for without polling.
//
// Beside its state an event counts how often it was set. A consumer that waits for the count to
// move needs no Reset, so that any number of consumers can follow one event and none takes a
// notice away from another.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "platform/api.h"
#include "platform/named_object.h"

namespace kvl {

class CEventBell;  // what the events of one audience have in common
class CEventPage;  // one event's shared state

enum class EWaited {
  kSet,
  kTimeout,
  kRemoved,  // somebody removed the event; open it anew to go on
};

constexpr auto kForever = std::chrono::milliseconds::max();

// The consumer's side. Opening it makes the event if it isn't there.
// Threads: any operation on any thread, apart from construction and destruction.
class KVL_API CNamedEvent {
 public:
  CNamedEvent(std::string_view strName, EAudience audience);
  ~CNamedEvent();
  CNamedEvent(CNamedEvent&&) noexcept;
  CNamedEvent& operator=(CNamedEvent&&) noexcept;

  bool IsOpen() const { return m_pPage != nullptr; }
  uint32_t Error() const { return m_dwError; }  // why it isn't open

  // Needs, for all of these: IsOpen().
  void Set();
  void Reset();
  bool IsSet() const;
  bool IsRemoved() const;
  uint32_t SetCount() const;  // wraps at 2^30

  // Waits until the event is set; returns at once if it is.
  EWaited Wait(std::chrono::milliseconds timeout) const;

  // Waits until the event has been set since `nSeen` was its count, and stores the new count.
  EWaited WaitForNext(uint32_t& nSeen, std::chrono::milliseconds timeout) const;

  // Takes the name away from the event and ends the waits for it. True if it was there.
  static bool Remove(std::string_view strName, EAudience audience);
  // The same for many, most of which may not be there.
  static void Remove(std::span<const std::string> names, EAudience audience);

 private:
  std::shared_ptr<CEventBell> m_pBell;
  std::unique_ptr<CEventPage> m_pPage;
  uint32_t m_dwError = 0;
};

// The setter's side, for those who set often: costs next to nothing while nobody has the event,
// since it never makes one, and finds it as soon as a consumer has opened it.
// Threads: one object belongs to one thread at a time.
class KVL_API CEventTrigger {
 public:
  CEventTrigger(std::string_view strName, EAudience audience);
  ~CEventTrigger();
  CEventTrigger(const CEventTrigger&) = delete;
  CEventTrigger& operator=(const CEventTrigger&) = delete;

  // Sets the event if it is there. A consumer that looks from now on sees it; those who sleep
  // are woken by Wake, which the caller runs once it has released its locks.
  void Set();
  void Wake();

 private:
  bool FindPage();

  std::string m_strName;
  EAudience m_audience;
  std::shared_ptr<CEventBell> m_pBell;
  std::unique_ptr<CEventPage> m_pPage;
  uint32_t m_nBirthsSeen = 0;
  bool m_bKnown = false;  // m_pPage is right for m_nBirthsSeen
  bool m_bWakePage = false;
  bool m_bWakeBell = false;
};

// Waits for any of many events of one audience.
// Threads: WaitForAny on one thread; Interrupt on any, also in a signal handler.
class KVL_API CEventGroup {
 public:
  explicit CEventGroup(EAudience audience);
  ~CEventGroup();
  CEventGroup(const CEventGroup&) = delete;
  CEventGroup& operator=(const CEventGroup&) = delete;

  bool IsOpen() const { return m_pBell != nullptr; }

  // Waits until one of `events` was removed, or was set since its count was the one in `seen` at
  // its index; which of them, the caller sees by looking. kTimeout also after Interrupt.
  // Needs: IsOpen(); all events open and of this audience; as many counts as events.
  EWaited WaitForAny(std::span<const CNamedEvent* const> events, std::span<const uint32_t> seen,
                     std::chrono::milliseconds timeout);

  // Ends the wait that is going on, or else the next one.
  void Interrupt();

 private:
  std::shared_ptr<CEventBell> m_pBell;
  std::atomic<bool> m_bInterrupted = false;
};

}  // namespace kvl
