// How long a reader in another process takes to wake up.
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <csignal>
#include <string>

#include "measure.h"
#include "pinned.h"
#include "platform/named_event.h"
#include "script/tag_exchange.h"
#include "store/TableOwner.h"

using namespace kvl;

namespace {

// What the two processes share of the measuring itself.
struct CStage {
  std::atomic<int64_t> m_nStart;
  std::atomic<uint32_t> m_nWord;
  std::atomic<int> m_nWoken;
  Nanoseconds m_time;  // of the wake-up before
};

void Futex(std::atomic<uint32_t>& word, int nOperation, uint32_t nValue) {
  syscall(SYS_futex, &word, nOperation, nValue, nullptr, nullptr, 0);
}

CStage* SharedStage() {
  void* pMapped =
      mmap(nullptr, sizeof(CStage), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  Require(pMapped != MAP_FAILED, "no memory");
  return static_cast<CStage*>(pMapped);
}

// A process, on the last core, that sleeps in `sleep` over and over, and how soon `wake`, which
// notes m_nStart first, has it awake.
class CSleeper {
 public:
  CSleeper(const std::function<void(CStage&)>& sleep, std::function<void(CStage&)> wake)
      : m_wake(std::move(wake)), m_nProcess(fork()) {
    Require(m_nProcess >= 0, "no process");
    if (m_nProcess > 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    bench::CPinned().ToLast();
    for (;;) {
      sleep(*m_pStage);
      m_pStage->m_time = static_cast<Nanoseconds>(NowNanoseconds() - m_pStage->m_nStart);
      ++m_pStage->m_nWoken;
    }
  }
  ~CSleeper() {
    kill(m_nProcess, SIGKILL);
    waitpid(m_nProcess, nullptr, 0);
    munmap(m_pStage, sizeof(CStage));
  }
  CSleeper(const CSleeper&) = delete;
  CSleeper& operator=(const CSleeper&) = delete;

  // The times of one round.
  std::vector<Nanoseconds> Wake(int nTimes) {
    std::vector<Nanoseconds> times;
    for (int i = 0; i < nTimes; ++i) {
      const int nWoken = m_pStage->m_nWoken;
      usleep(100);  // it falls asleep
      m_wake(*m_pStage);
      while (m_pStage->m_nWoken == nWoken) usleep(20);
      times.push_back(m_pStage->m_time);
    }
    return times;
  }

 private:
  CStage* const m_pStage = SharedStage();
  const std::function<void(CStage&)> m_wake;
  const pid_t m_nProcess;
};

CWakeUp Summary(const std::vector<Nanoseconds>& times) {
  return {Percentile(times, 0.5), Percentile(times, 0.99)};
}

// Both take turns, and the ratios are taken within a round, where the machine is in the same mood
// for both.
CWakeUps Compare(CSleeper& event, CSleeper& futex) {
  constexpr int kRounds = 40;
  constexpr int kTimes = 200;
  std::vector<Nanoseconds> eventTimes, futexTimes;
  std::vector<double> medians, p99s;
  for (int nRound = 0; nRound < kRounds; ++nRound) {
    const std::vector<Nanoseconds> ofEvent = event.Wake(kTimes);
    const std::vector<Nanoseconds> ofFutex = futex.Wake(kTimes);
    eventTimes.insert(eventTimes.end(), ofEvent.begin(), ofEvent.end());
    futexTimes.insert(futexTimes.end(), ofFutex.begin(), ofFutex.end());
    medians.push_back(Summary(ofEvent).m_median / Summary(ofFutex).m_median);
    p99s.push_back(Summary(ofEvent).m_p99 / Summary(ofFutex).m_p99);
  }
  return {Summary(eventTimes), Summary(futexTimes), Percentile(medians, 0.5),
          Percentile(p99s, 0.5)};
}

}  // namespace

CWakeUps MeasureWakeUps() {
  const std::string strTable = "bench-wake-" + std::to_string(getpid());
  const std::string strTag = strTable + "-LEVEL";
  CTagSet tags;
  tags.Add(strTag, kTagFloat, 4);
  CTableOwner owner(strTable);
  Require(owner.Create(tags, false), "no table");
  const CNamedEvent event(strTag + kEventSuffix, EAudience::kOwner);
  Require(event.IsOpen(), "no event");
  CNobody nobody;
  CTagExchange exchange(strTable, EAudience::kOwner, nobody);
  const int32_t nSlot = exchange.NewSlot();
  uint32_t nSeen = 0;
  uint32_t nWord = 0;
  const bench::CPinned pinned;
  pinned.ToFirst();
  CSleeper eventSleeper([&](CStage&) { event.WaitForNext(nSeen, kForever); },
                        [&](CStage& stage) {
                          stage.m_nStart = NowNanoseconds();
                          exchange.Put(nSlot, strTag, {true, 1.5, {}});
                        });
  CSleeper futexSleeper(
      [&](CStage& stage) {
        while (stage.m_nWord == nWord) Futex(stage.m_nWord, FUTEX_WAIT, nWord);
        ++nWord;
      },
      [](CStage& stage) {
        stage.m_nStart = NowNanoseconds();
        ++stage.m_nWord;
        Futex(stage.m_nWord, FUTEX_WAKE, INT_MAX);
      });
  const CWakeUps result = Compare(eventSleeper, futexSleeper);
  CTableOwner::Remove(strTable);
  return result;
}
