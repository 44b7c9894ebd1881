// Times of small operations, and what the parts of the store's benchmark share.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "script/engine_owner.h"

using Nanoseconds = double;

// An owner of an engine that nobody listens to.
class CNobody : public kvl::CEngineOwner {
 public:
  void Pause(int32_t /*milliseconds*/, kvl::EPause /*reason*/) override {}
  void Sync(int32_t /*value*/) override {}
};

inline int64_t NowNanoseconds() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// A benchmark whose subject gives wrong results says nothing.
inline void Require(bool bHolds, const char* szWhat) {
  if (bHolds) return;
  fprintf(stderr, "kvl_store_bench: %s\n", szWhat);
  exit(1);
}

template <class T>
T Percentile(std::vector<T> values, double share) {
  const auto nth = static_cast<size_t>(share * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(nth), values.end());
  return values[nth];
}

// One thing whose cost is measured: `m_work` runs `m_nTurns` times in a round.
struct CSubject {
  std::string m_strName;
  int m_nTurns;
  std::function<void(int)> m_work;
  Nanoseconds m_cost = 0;  // of one turn
};

// The median cost of each subject over many rounds. The rounds are short, and the subjects take
// turns, so that what else the machine does meets them all alike.
inline void MeasureTogether(std::vector<CSubject>& subjects) {
  std::vector<std::vector<Nanoseconds>> costs(subjects.size());
  for (int nRound = 0; nRound < 301; ++nRound) {
    for (size_t i = 0; i < subjects.size(); ++i) {
      const int64_t nStart = NowNanoseconds();
      for (int nTurn = 0; nTurn < subjects[i].m_nTurns; ++nTurn) subjects[i].m_work(nTurn);
      costs[i].push_back(static_cast<Nanoseconds>(NowNanoseconds() - nStart) /
                         subjects[i].m_nTurns);
    }
  }
  for (size_t i = 0; i < subjects.size(); ++i) subjects[i].m_cost = Percentile(costs[i], 0.5);
}

// A store of values other than ours, tested to give back what it takes.
class CPeer {
 public:
  virtual ~CPeer() = default;
  virtual void Put(float value) = 0;
  virtual float Get() = 0;
};

// Null, after saying why, if the peer is not there. With a write map LMDB writes to its file in
// place, which is quicker and leaves the file open to stray writes of the program.
std::unique_ptr<CPeer> OpenLmdb(bool bWriteMap);
std::unique_ptr<CPeer> OpenRedis();

struct CWakeUp {
  Nanoseconds m_median;
  Nanoseconds m_p99;
};

struct CWakeUps {
  CWakeUp m_event;  // from just before a PUT to the return of another process's wait for the event
  CWakeUp m_futex;  // the same with a bare futex between the two
  double m_medianRatio;
  double m_p99Ratio;
};
CWakeUps MeasureWakeUps();
