// How long a reader in another process takes to wake up.
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <string>

#include "measure.h"
#include "platform/named_event.h"
#include "script/tag_exchange.h"
#include "store/TableOwner.h"

using namespace kvl;

namespace {

constexpr int kRounds = 4000;

// What the two processes share of the measuring itself.
struct Stage {
  std::atomic<int64_t> m_nStart;
  std::atomic<uint32_t> m_nWord;
  std::atomic<int> m_nDone;
  Nanoseconds m_times[kRounds];
};

void Futex(std::atomic<uint32_t>& word, int nOperation, uint32_t nValue) {
  syscall(SYS_futex, &word, nOperation, nValue, nullptr, nullptr, 0);
}

// Runs `sleep` in another process and `wake` here, which notes m_nStart first.
CWakeUp Measure(const std::function<void(Stage&)>& sleep, const std::function<void(Stage&)>& wake) {
  void* pMapped =
      mmap(nullptr, sizeof(Stage), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  Require(pMapped != MAP_FAILED, "no memory");
  auto* pStage = static_cast<Stage*>(pMapped);
  const pid_t nReader = fork();
  if (nReader == 0) {
    for (int i = 0; i < kRounds; ++i) {
      sleep(*pStage);
      pStage->m_times[i] = static_cast<Nanoseconds>(NowNanoseconds() - pStage->m_nStart);
      pStage->m_nDone = i + 1;
    }
    _exit(0);
  }
  for (int i = 0; i < kRounds; ++i) {
    usleep(100);  // the reader falls asleep
    wake(*pStage);
    while (pStage->m_nDone <= i) usleep(20);
  }
  waitpid(nReader, nullptr, 0);
  const std::vector<Nanoseconds> times(pStage->m_times, pStage->m_times + kRounds);
  munmap(pMapped, sizeof(Stage));
  return {Percentile(times, 0.5), Percentile(times, 0.99)};
}

}  // namespace

CWakeUp MeasureEventWakeUp() {
  const std::string strTable = "bench-wake-" + std::to_string(getpid());
  const std::string strTag = strTable + "-LEVEL";
  CTagSet tags;
  tags.Add(strTag, kTagFloat, 4);
  CTableOwner owner(strTable);
  Require(owner.Create(tags, false), "no table");
  const CNamedEvent event(strTag + kEventSuffix, EAudience::kOwner);
  Require(event.IsOpen(), "no event");
  CTagExchange exchange(strTable, EAudience::kOwner);
  const int32_t nSlot = exchange.NewSlot();
  CNobody nobody;
  uint32_t nSeen = 0;
  const CWakeUp result = Measure([&](Stage&) { event.WaitForNext(nSeen, kForever); },
                                 [&](Stage& stage) {
                                   stage.m_nStart = NowNanoseconds();
                                   exchange.Put(nSlot, strTag, {true, 1.5, {}}, nobody);
                                 });
  CTableOwner::Remove(strTable);
  return result;
}

CWakeUp MeasureFutexWakeUp() {
  uint32_t nSeen = 0;
  return Measure(
      [&](Stage& stage) {
        while (stage.m_nWord == nSeen) Futex(stage.m_nWord, FUTEX_WAIT, nSeen);
        ++nSeen;
      },
      [](Stage& stage) {
        stage.m_nStart = NowNanoseconds();
        ++stage.m_nWord;
        Futex(stage.m_nWord, FUTEX_WAKE, INT_MAX);
      });
}
