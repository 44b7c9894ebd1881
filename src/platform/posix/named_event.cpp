#include "platform/named_event.h"

#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <ctime>
#include <map>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/last_error.h"
#include "platform/posix/named_place.h"

namespace kvl {
namespace {

// The word of an event or a bell: bit 0 set, bit 1 somebody may be asleep on it, the rest counts
// how often it was set.
constexpr uint32_t kSetBit = 1;
constexpr uint32_t kSleeperBit = 2;
constexpr uint32_t kCountStep = 4;

uint32_t CountOf(uint32_t nWord) {
  return nWord / kCountStep;
}

// Sets the word and counts; true if sleepers are to be woken. Their bit stays until they are, so
// that the next setter wakes them if this one dies in between.
bool SetWord(uint32_t& word) {
  std::atomic_ref shared(word);
  uint32_t nOld = shared.load();
  while (!shared.compare_exchange_weak(nOld, (nOld + kCountStep) | kSetBit)) {
  }
  return (nOld & kSleeperBit) != 0;
}

// Announces a sleeper on the word, provided that it is still `nSeen`.
bool AnnounceSleeper(uint32_t& word, uint32_t& nSeen) {
  if ((nSeen & kSleeperBit) != 0) return true;
  if (!std::atomic_ref(word).compare_exchange_strong(nSeen, nSeen | kSleeperBit)) return false;
  nSeen |= kSleeperBit;
  return true;
}

// Clears the sleepers' bit and wakes them, in one step of the system's.
void WakeSleepers(uint32_t& word) {
  constexpr long kOnNobodyElse = 0;
  syscall(SYS_futex, &word, FUTEX_WAKE_OP, INT_MAX, kOnNobodyElse, &word,
          FUTEX_OP(FUTEX_OP_ANDN, kSleeperBit, FUTEX_OP_CMP_EQ, 0));
}

// A point in time at which a wait ends; null for a wait without limit.
class CDeadline {
 public:
  explicit CDeadline(std::chrono::milliseconds timeout) {
    using std::chrono::steady_clock;
    constexpr std::chrono::hours kBeyondAnyWait(24 * 365 * 100);
    if (timeout > kBeyondAnyWait) return;
    const auto end = steady_clock::now() + std::max(timeout, std::chrono::milliseconds(0));
    const auto nanoseconds =
        std::chrono::duration_cast<std::chrono::nanoseconds>(end.time_since_epoch()).count();
    m_end = timespec{static_cast<time_t>(nanoseconds / 1000000000),
                     static_cast<long>(nanoseconds % 1000000000)};
  }
  const timespec* Get() const { return m_end ? &*m_end : nullptr; }

 private:
  std::optional<timespec> m_end;
};

// Sleeps while the word is `nSeen`; false once the deadline has passed.
bool Sleep(uint32_t& word, uint32_t nSeen, const CDeadline& deadline) {
  return syscall(SYS_futex, &word, FUTEX_WAIT_BITSET, nSeen, deadline.Get(), nullptr,
                 FUTEX_BITSET_MATCH_ANY) == 0 ||
         errno != ETIMEDOUT;
}

struct EventShared {
  uint32_t m_nWord;
  uint32_t m_nRemoved;    // 1 once the event has lost its name
  uint32_t m_nAnnounced;  // 1 once the bell has counted its birth
};

struct BellShared {
  uint32_t m_nWord;    // as an event's; rung at each set while somebody sleeps on it
  uint32_t m_nBirths;  // events made so far, so that setters look for them again
};

template <class TShared>
TShared* MapPage(const CObjectFile& file, uint32_t& dwError) {
  return file ? static_cast<TShared*>(MapObject(file, kObjectPage, dwError)) : nullptr;
}

}  // namespace

class CEventBell {
 public:
  // The bell of an audience; there is one mapping of it in a process. Null on failure.
  static std::shared_ptr<CEventBell> Of(EAudience audience, uint32_t& dwError) {
    static std::mutex s_mutex;
    static auto* pBells = new std::map<EAudience, std::weak_ptr<CEventBell>>;
    const std::lock_guard lock(s_mutex);
    std::shared_ptr<CEventBell> pBell = (*pBells)[audience].lock();
    if (pBell) return pBell;
    const CObjectFile file =
        OpenObject({}, EObjectKind::kBell, EOpenMode::kOpenOrCreate, audience, dwError);
    auto* pShared = MapPage<BellShared>(file, dwError);
    if (pShared == nullptr) return nullptr;
    pBell = std::make_shared<CEventBell>(pShared);
    (*pBells)[audience] = pBell;
    return pBell;
  }

  explicit CEventBell(BellShared* pShared) : m_pShared(pShared) {}
  ~CEventBell() { munmap(m_pShared, kObjectPage); }
  CEventBell(const CEventBell&) = delete;
  CEventBell& operator=(const CEventBell&) = delete;

  uint32_t Births() const { return std::atomic_ref(m_pShared->m_nBirths).load(); }
  void CountBirth() { std::atomic_ref(m_pShared->m_nBirths).fetch_add(1); }

  uint32_t& Word() { return m_pShared->m_nWord; }

  // For setters: rings if somebody sleeps on the bell; true if they are to be woken.
  bool Ring() { return (std::atomic_ref(Word()).load() & kSleeperBit) != 0 && SetWord(Word()); }

 private:
  BellShared* m_pShared;
};

class CEventPage {
 public:
  static std::unique_ptr<CEventPage> Map(const CObjectFile& file, uint32_t& dwError) {
    auto* pShared = MapPage<EventShared>(file, dwError);
    return pShared == nullptr ? nullptr : std::make_unique<CEventPage>(pShared);
  }

  explicit CEventPage(EventShared* pShared) : m_pShared(pShared) {}
  ~CEventPage() { munmap(m_pShared, kObjectPage); }
  CEventPage(const CEventPage&) = delete;
  CEventPage& operator=(const CEventPage&) = delete;

  uint32_t& Word() { return m_pShared->m_nWord; }
  uint32_t Load() { return std::atomic_ref(Word()).load(); }
  void Reset() { std::atomic_ref(Word()).fetch_and(~kSetBit); }
  bool IsRemoved() { return std::atomic_ref(m_pShared->m_nRemoved).load() != 0; }

  // Whoever dies between making an event and announcing it leaves that to the next opener.
  void Announce(CEventBell& bell) {
    std::atomic_ref announced(m_pShared->m_nAnnounced);
    if (announced.load() != 0) return;
    bell.CountBirth();
    announced.store(1);
  }

  // Ends the waits for it for good. Whoever dies within leaves the rest to the next caller.
  void Retire(CEventBell& bell) {
    std::atomic_ref(m_pShared->m_nRemoved).store(1);
    SetWord(Word());
    WakeSleepers(Word());
    if (bell.Ring()) WakeSleepers(bell.Word());
  }

  // Waits until `isDue` accepts the word.
  template <class IsDue>
  EWaited WaitUntil(IsDue isDue, std::chrono::milliseconds timeout) {
    const CDeadline deadline(timeout);
    bool bTime = true;
    for (;;) {
      uint32_t nWord = Load();
      if (IsRemoved()) return EWaited::kRemoved;
      if (isDue(nWord)) return EWaited::kSet;
      if (!bTime) return EWaited::kTimeout;
      if (AnnounceSleeper(Word(), nWord)) bTime = Sleep(Word(), nWord, deadline);
    }
  }

 private:
  EventShared* m_pShared;
};

CNamedEvent::CNamedEvent(std::string_view strName, EAudience audience)
    : m_pBell(CEventBell::Of(audience, m_dwError)) {
  if (!m_pBell) return;
  for (int nTry = 0; nTry < 16; ++nTry) {
    const CObjectFile file =
        OpenObject(strName, EObjectKind::kEvent, EOpenMode::kOpenOrCreate, audience, m_dwError);
    m_pPage = CEventPage::Map(file, m_dwError);
    if (!m_pPage) return;
    if (!m_pPage->IsRemoved()) {
      m_pPage->Announce(*m_pBell);
      return;
    }
    // Its remover has marked it and is about to take the name away, or has died before that.
    const CObjectLock lock(file);
    m_pPage->Retire(*m_pBell);
    m_pPage.reset();
    RemoveObject(strName, EObjectKind::kEvent, audience, IdOf(file));
  }
  m_dwError = kErrorGeneral;
}

CNamedEvent::~CNamedEvent() = default;
CNamedEvent::CNamedEvent(CNamedEvent&&) noexcept = default;
CNamedEvent& CNamedEvent::operator=(CNamedEvent&&) noexcept = default;

void CNamedEvent::Set() {
  if (SetWord(m_pPage->Word())) WakeSleepers(m_pPage->Word());
  if (m_pBell->Ring()) WakeSleepers(m_pBell->Word());
}

void CNamedEvent::Reset() {
  m_pPage->Reset();
}

bool CNamedEvent::IsSet() const {
  return (m_pPage->Load() & kSetBit) != 0;
}

bool CNamedEvent::IsRemoved() const {
  return m_pPage->IsRemoved();
}

uint32_t CNamedEvent::SetCount() const {
  return CountOf(m_pPage->Load());
}

EWaited CNamedEvent::Wait(std::chrono::milliseconds timeout) const {
  return m_pPage->WaitUntil([](uint32_t nWord) { return (nWord & kSetBit) != 0; }, timeout);
}

EWaited CNamedEvent::WaitForNext(uint32_t& nSeen, std::chrono::milliseconds timeout) const {
  const EWaited result =
      m_pPage->WaitUntil([nSeen](uint32_t nWord) { return CountOf(nWord) != nSeen; }, timeout);
  if (result == EWaited::kSet) nSeen = SetCount();
  return result;
}

bool CNamedEvent::Remove(std::string_view strName, EAudience audience) {
  uint32_t dwError = 0;
  const CObjectFile file =
      OpenObject(strName, EObjectKind::kEvent, EOpenMode::kOpenExisting, audience, dwError);
  const auto pPage = CEventPage::Map(file, dwError);
  if (!pPage) return false;
  const auto pBell = CEventBell::Of(audience, dwError);
  if (!pBell) return false;
  const CObjectLock lock(file);
  pPage->Retire(*pBell);
  return RemoveObject(strName, EObjectKind::kEvent, audience, IdOf(file));
}

void CNamedEvent::Remove(std::span<const std::string> names, EAudience audience) {
  const std::vector<std::string> there = ObjectNames(EObjectKind::kEvent, audience);
  for (const std::string& strName : names) {
    if (std::ranges::binary_search(there, strName)) Remove(strName, audience);
  }
}

CEventTrigger::CEventTrigger(std::string_view strName, EAudience audience)
    : m_strName(strName), m_audience(audience) {}

CEventTrigger::~CEventTrigger() = default;

// Looks for the event again once events were made since the last look.
bool CEventTrigger::FindPage() {
  uint32_t dwError = 0;
  if (!m_pBell) m_pBell = CEventBell::Of(m_audience, dwError);
  if (!m_pBell) return false;
  const uint32_t nBirths = m_pBell->Births();
  const bool bLive = m_pPage && !m_pPage->IsRemoved();
  if (bLive || (m_bKnown && nBirths == m_nBirthsSeen)) return bLive;
  const CObjectFile file =
      OpenObject(m_strName, EObjectKind::kEvent, EOpenMode::kOpenExisting, m_audience, dwError);
  m_pPage = CEventPage::Map(file, dwError);
  // After a failure other than absence the next set tries again.
  m_bKnown = m_pPage != nullptr || dwError == kErrorNotFound;
  m_nBirthsSeen = nBirths;
  return m_pPage && !m_pPage->IsRemoved();
}

void CEventTrigger::Set() {
  if (!FindPage()) return;
  m_bWakePage |= SetWord(m_pPage->Word());
  m_bWakeBell |= m_pBell->Ring();
}

void CEventTrigger::Wake() {
  if (m_bWakePage && m_pPage) WakeSleepers(m_pPage->Word());
  if (m_bWakeBell) WakeSleepers(m_pBell->Word());
  m_bWakePage = m_bWakeBell = false;
}

CEventGroup::CEventGroup(EAudience audience) {
  uint32_t dwError = 0;
  m_pBell = CEventBell::Of(audience, dwError);
}

CEventGroup::~CEventGroup() = default;

EWaited CEventGroup::WaitForAny(std::span<const CNamedEvent* const> events,
                                std::span<const uint32_t> seen, std::chrono::milliseconds timeout) {
  const CDeadline deadline(timeout);
  bool bTime = true;
  for (;;) {
    uint32_t nBell = std::atomic_ref(m_pBell->Word()).load();
    if (!AnnounceSleeper(m_pBell->Word(), nBell)) continue;
    if (m_bInterrupted.exchange(false)) return EWaited::kTimeout;
    EWaited result = EWaited::kTimeout;
    for (size_t i = 0; i < events.size(); ++i) {
      if (events[i]->IsRemoved()) return EWaited::kRemoved;
      if (events[i]->SetCount() != seen[i]) result = EWaited::kSet;
    }
    if (result == EWaited::kSet || !bTime) return result;
    bTime = Sleep(m_pBell->Word(), nBell, deadline);
  }
}

void CEventGroup::Interrupt() {
  m_bInterrupted.store(true);
  SetWord(m_pBell->Word());
  WakeSleepers(m_pBell->Word());
}

}  // namespace kvl
