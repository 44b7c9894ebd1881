// What PUT and GET of a tag cost, and how soon a reader learns of it, as ratios to its peers.
#include <unistd.h>

#include <atomic>
#include <set>
#include <string>

#include "measure.h"
#include "script/tag_exchange.h"
#include "store/TableOwner.h"

using namespace kvl;

namespace {

// A script's PUT and GET on a table of `nTags` floats.
class CSession {
 public:
  explicit CSession(int nTags)
      : m_strTable("bench-" + std::to_string(getpid()) + "-" + std::to_string(nTags)) {
    CTagSet tags;
    for (int i = 0; i < nTags; ++i) {
      m_names.push_back("BENCH_COMMON_PREFIX_" + std::to_string(i));
      tags.Add(m_names.back(), kTagFloat, 4);
    }
    CTableOwner owner(m_strTable);
    Require(owner.Create(tags, true), "no table");
    m_pExchange = std::make_unique<CTagExchange>(m_strTable, EAudience::kOwner, m_nobody);
  }
  ~CSession() { CTableOwner::Remove(m_strTable); }
  CSession(const CSession&) = delete;
  CSession& operator=(const CSession&) = delete;

  int32_t NewSlot() { return m_pExchange->NewSlot(); }
  void Put(int32_t nSlot, int nTag, float value) {
    m_pExchange->Put(nSlot, m_names[static_cast<size_t>(nTag)], {true, double{value}, {}});
  }
  float Get(int32_t nSlot, int nTag) {
    uint8_t bytes[4] = {};
    m_pExchange->Get(nSlot, m_names[static_cast<size_t>(nTag)], bytes, 0);
    return LoadAt<float>(bytes);
  }

 private:
  const std::string m_strTable;
  std::vector<std::string> m_names;
  CNobody m_nobody;
  std::unique_ptr<CTagExchange> m_pExchange;
};

// Two subjects that stand side by side in the report.
class CReport {
 public:
  template <class Put, class Get>
  void Add(const std::string& strName, int nTurns, Put put, Get get) {
    put(7.0F);
    Require(get() == 7.0F, "a GET does not give what was PUT");
    m_subjects.push_back({strName, nTurns, [=](int i) { put(static_cast<float>(i)); }});
    m_subjects.push_back({strName, nTurns, [=](int) { get(); }});
  }
  void Measure() { MeasureTogether(m_subjects); }
  void Print() const {
    printf("%-28s %11s %11s\n", "", "PUT", "GET");
    for (size_t i = 0; i < m_subjects.size(); i += 2) {
      printf("%-28s %8.0f ns %8.0f ns\n", m_subjects[i].m_strName.c_str(), m_subjects[i].m_cost,
             m_subjects[i + 1].m_cost);
    }
  }
  // The cost of PUT (0) or GET (1) of the subjects of that name; the slowest of several whose
  // names begin so; 0 if there is none.
  Nanoseconds Slowest(const std::string& strName, size_t nOperation) const {
    Nanoseconds slowest = 0;
    for (size_t i = nOperation; i < m_subjects.size(); i += 2) {
      if (m_subjects[i].m_strName.starts_with(strName)) {
        slowest = std::max(slowest, m_subjects[i].m_cost);
      }
    }
    return slowest;
  }

 private:
  std::vector<CSubject> m_subjects;
};

void PrintRatio(const char* szWhat, double ratio) {
  printf("%-52s %8.2f", szWhat, ratio);
}

void Inform(const char* szWhat, double ratio) {
  PrintRatio(szWhat, ratio);
  puts("");
}

void AtLeast(double bar, const char* szWhat, double ratio) {
  PrintRatio(szWhat, ratio);
  printf("  (at least %g) %s\n", bar, ratio >= bar ? "reached" : "MISSED");
}

void AtMost(double bar, const char* szWhat, double ratio) {
  PrintRatio(szWhat, ratio);
  printf("  (at most %g) %s\n", bar, ratio <= bar ? "reached" : "MISSED");
}

constexpr const char* kOurs = "tag ";
constexpr const char* kOne = "tag 1 of 1";
constexpr const char* kCopy = "copy under a free lock";
constexpr const char* kLmdb = "LMDB, no sync";
constexpr const char* kLmdbMap = "LMDB, write map, no sync";
constexpr const char* kRedis = "Redis, unix socket";

void AddTags(CReport& report, CSession& session, int nTags) {
  for (const int nTag : std::set<int>{0, nTags / 2, nTags - 1}) {
    const int32_t nSlot = session.NewSlot();
    const std::string strName = "tag " + std::to_string(nTag + 1) + " of " + std::to_string(nTags);
    report.Add(
        strName, 1000, [=, &session](float value) { session.Put(nSlot, nTag, value); },
        [=, &session] { return session.Get(nSlot, nTag); });
  }
}

// One instruction whose operand gives another name each time.
void AddNames(CReport& report, CSession& session, int nTags) {
  const auto pPut = std::make_shared<int>(0);
  const auto pGet = std::make_shared<int>(0);
  const int32_t nSlot = session.NewSlot();
  const auto Next = [nTags](int& nTag) { return nTag = (nTag + 7919) % nTags; };
  report.Add(
      "any of " + std::to_string(nTags) + ", by name", 1000,
      [=, &session](float value) { session.Put(nSlot, Next(*pPut), value); },
      [=, &session] { return session.Get(nSlot, Next(*pGet)); });
}

void AddLockedCopy(CReport& report) {
  static std::atomic<uint32_t> s_lock = 0;
  static volatile float s_value = 0;
  const auto Locked = [](auto work) {
    uint32_t nFree = 0;
    Require(s_lock.compare_exchange_strong(nFree, 1), "a lock that nobody else has was taken");
    work();
    s_lock.exchange(0);
  };
  report.Add(
      kCopy, 5000, [=](float value) { Locked([=] { s_value = value; }); },
      [=] {
        float value = 0;
        Locked([&] { value = s_value; });
        return value;
      });
}

void AddPeer(CReport& report, const char* szName, int nTurns, CPeer* pPeer) {
  if (pPeer == nullptr) return;
  report.Add(
      szName, nTurns, [=](float value) { pPeer->Put(value); }, [=] { return pPeer->Get(); });
}

void PrintRatios(const CReport& report) {
  const Nanoseconds put = report.Slowest(kOurs, 0);
  const Nanoseconds get = report.Slowest(kOurs, 1);
  AtMost(3, "slowest PUT / PUT in a table of 1", put / report.Slowest(kOne, 0));
  if (report.Slowest(kLmdb, 0) > 0) {
    AtLeast(8, "LMDB put / slowest PUT", report.Slowest(kLmdb, 0) / put);
    AtLeast(2, "LMDB get / slowest GET", report.Slowest(kLmdb, 1) / get);
    Inform("LMDB put with a write map / slowest PUT", report.Slowest(kLmdbMap, 0) / put);
  }
  if (report.Slowest(kRedis, 0) > 0) {
    Inform("Redis SET / slowest PUT", report.Slowest(kRedis, 0) / put);
    Inform("Redis GET / slowest GET", report.Slowest(kRedis, 1) / get);
  }
  Inform("slowest PUT / copy under a free lock", put / report.Slowest(kCopy, 0));
}

}  // namespace

int main() {
  setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);  // a child must not inherit unwritten lines
  const auto pLmdb = OpenLmdb(false);
  const auto pLmdbMap = OpenLmdb(true);
  const auto pRedis = OpenRedis();
  CSession one(1);
  CSession hundred(100);
  CSession tenThousand(10000);
  CReport report;
  AddTags(report, one, 1);
  AddTags(report, hundred, 100);
  AddTags(report, tenThousand, 10000);
  AddNames(report, hundred, 100);
  AddNames(report, tenThousand, 10000);
  AddLockedCopy(report);
  AddPeer(report, kLmdb, 100, pLmdb.get());
  AddPeer(report, kLmdbMap, 100, pLmdbMap.get());
  AddPeer(report, kRedis, 5, pRedis.get());
  report.Measure();
  report.Print();
  const CWakeUps wakeUps = MeasureWakeUps();
  constexpr const char* kTimes = "%-28s %8.0f ns median, %8.0f ns p99\n";
  printf(kTimes, "PUT to awake", wakeUps.m_event.m_median, wakeUps.m_event.m_p99);
  printf(kTimes, "futex to awake", wakeUps.m_futex.m_median, wakeUps.m_futex.m_p99);
  puts("");
  PrintRatios(report);
  AtMost(1.5, "PUT to awake / futex to awake, median", wakeUps.m_medianRatio);
  AtMost(1.5, "PUT to awake / futex to awake, p99", wakeUps.m_p99Ratio);
  return 0;
}
