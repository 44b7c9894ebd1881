// Several processes on one table: no torn value, no lost lock, whatever dies.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <random>

#include "platform/named_event.h"
#include "platform/named_section.h"
#include "platform/named_semaphore.h"
#include "store/SharedMemory.h"
#include "store/child.h"

using namespace kvl;

namespace {

constexpr size_t kTags = 3;
constexpr size_t kTextSize = 200;

std::string TagName(size_t nTag) {
  return UniqueName("T" + std::to_string(nTag));
}

// A text whose bytes all follow from the first, so that two halves of two of them show.
std::string SelfChecking(uint32_t nSeed) {
  std::string text;
  for (uint32_t i = 0; i < kTextSize; ++i) text += static_cast<char>('!' + (nSeed + i * 7) % 90);
  return text;
}

bool IsWhole(std::span<const uint8_t> payload) {
  const std::string text(payload.begin(), payload.end());
  return text == SelfChecking(static_cast<uint8_t>(text[0]) - '!') ||
         text == std::string(kTextSize, '\0');
}

// A table of texts, and what a session has of it. Names are taken before any fork.
class CSession {
 public:
  explicit CSession(const std::string& strTable, const std::vector<std::string>& names)
      : m_store(strTable, kTableSize),
        m_lock(strTable + kTableLockSuffix, EOpenMode::kOpenOrCreate, EAudience::kOwner) {
    for (const std::string& strName : names) m_tags.push_back(m_store.BindTag(strName));
  }
  bool Put(size_t nTag, const std::string& text) {
    const CSemaphoreHold session(m_lock);
    CValueAccess value(m_store, *m_tags[nTag]);
    return session && value.Type() == kTagText &&
           value.WritePayload(text.data(), static_cast<uint32_t>(text.size()));
  }
  bool GetIsWhole(size_t nTag) {
    const CValueAccess value(m_store, *m_tags[nTag]);
    return value.Payload().size() == kTextSize && IsWhole(value.Payload());
  }
  CSharedMemory m_store;
  CNamedSemaphore m_lock;
  std::vector<std::shared_ptr<CTag>> m_tags;
};

class CTableProcesses : public testing::Test {
 protected:
  CTableProcesses() : m_table("processes") {
    CTagSet tags;
    for (size_t i = 0; i < kTags; ++i) {
      m_names.push_back(TagName(i));
      tags.Add(m_names.back(), kTagText, kTextSize);
    }
    EXPECT_TRUE(CTableOwner(m_table.Name()).Create(tags, false));
  }
  CTestTable m_table;
  std::vector<std::string> m_names;
};

// `make stress` runs it for longer, by KVL_TORN_SECONDS.
TEST_F(CTableProcesses, NoValueIsTorn) {
  const char* szSeconds = getenv("KVL_TORN_SECONDS");
  const int64_t nEnd = NowMicroseconds() + (szSeconds ? atoi(szSeconds) : 1) * 1000000;
  std::vector<CChild> children;
  for (uint32_t nChild = 0; nChild < 8; ++nChild) {
    children.emplace_back([&, nChild] {
      CSession session(m_table.Name(), m_names);
      uint32_t nTurn = nChild;
      for (; NowMicroseconds() < nEnd || nTurn < nChild + 100; ++nTurn) {
        const size_t nTag = nTurn % kTags;
        const bool bDone = nChild % 2 == 0 ? session.Put(nTag, SelfChecking(nTurn * 13 % 90))
                                           : session.GetIsWhole(nTag);
        if (!bDone) return 1;
      }
      return 0;
    });
  }
  for (CChild& child : children) EXPECT_EQ(0, child.Join());
  CSession after(m_table.Name(), m_names);
  EXPECT_TRUE(after.Put(0, SelfChecking(5)));
}

// How often a reader that sleeps between the writes has been told.
class CSleepingReader {
 public:
  explicit CSleepingReader(const std::string& strEvent)
      : m_event(strEvent, EAudience::kOwner),
        m_pTold(static_cast<std::atomic<uint32_t>*>(
            mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))),
        m_reader([this] {
          for (uint32_t nSeen = 0; m_event.WaitForNext(nSeen, kForever) == EWaited::kSet;) {
            *m_pTold = nSeen;
          }
          return 0;
        }) {}
  ~CSleepingReader() {
    m_reader.Kill();
    munmap(m_pTold, 4096);
  }
  CSleepingReader(const CSleepingReader&) = delete;
  CSleepingReader& operator=(const CSleepingReader&) = delete;
  bool IsToldOfAll() const {
    const int64_t nEnd = NowMicroseconds() + 5000000;
    while (*m_pTold != m_event.SetCount() && NowMicroseconds() < nEnd) usleep(50);
    return *m_pTold == m_event.SetCount();
  }

 private:
  const CNamedEvent m_event;
  std::atomic<uint32_t>* const m_pTold;
  CChild m_reader;
};

TEST_F(CTableProcesses, AKilledWriterStopsNobody) {
  std::mt19937 random(7);
  CSession survivor(m_table.Name(), m_names);
  const CSleepingReader reader(m_names[0] + kEventSuffix);
  int nLate = 0;
  for (uint32_t nRound = 0; nRound < 200; ++nRound) {
    const CSignalPipe started;
    CChild writer([&] {
      CSession session(m_table.Name(), m_names);
      started.Send();
      for (uint32_t i = 0;; ++i) session.Put(i % kTags, SelfChecking(i % 90));
      return 0;
    });
    started.Await();
    usleep(static_cast<useconds_t>(random() % 1000));
    writer.Kill();
    const int64_t nStart = NowMicroseconds();
    for (size_t nTag = 0; nTag < kTags; ++nTag) {
      ASSERT_TRUE(survivor.Put(nTag, SelfChecking(nRound % 90)));
      ASSERT_TRUE(survivor.GetIsWhole(nTag));
    }
    nLate += NowMicroseconds() - nStart > 100000;
    ASSERT_TRUE(reader.IsToldOfAll()) << nRound;
  }
  const CSemaphoreHold hold(survivor.m_lock);
  EXPECT_GT(survivor.m_lock.ChangeCount(), 10U) << "deaths while holding the lock";
  EXPECT_LE(nLate, 2) << "of 200 deaths; a busy machine may hold the survivor up, a lock may not";
  std::vector<CTagImage> tags;
  EXPECT_TRUE(CTableOwner(m_table.Name()).List(tags));
  EXPECT_EQ(kTags, tags.size());
}

// Wherever the remover dies, those who had the table open and those who open it then meet again.
TEST_F(CTableProcesses, AKilledRemoverLeavesOneTable) {
  std::mt19937 random(11);
  CTagSet tags;
  ASSERT_EQ(nullptr, tags.Add(m_names[0], kTagText, kTextSize));
  CSession session(m_table.Name(), m_names);
  uint32_t nLeft = 0;
  constexpr int64_t kMaxDelay = 100000;  // microseconds, as all these
  int64_t nDelay = 100;
  int64_t nStep = 100;
  bool bThereBefore = true;
  for (uint32_t nRound = 0; nRound < 200; ++nRound) {
    const CSignalPipe started;
    CChild remover([&] {
      started.Send();
      CTableOwner::Remove(m_table.Name());
      return 0;
    });
    started.Await();
    const int64_t nEnd = NowMicroseconds() + nDelay + static_cast<int64_t>(random() % 16);
    while (NowMicroseconds() < nEnd) {
    }
    remover.Kill();
    CTableOwner owner(m_table.Name());
    const bool bThere = owner.IsOpen();
    const bool bPut = session.Put(0, SelfChecking(1));
    EXPECT_EQ(bThere, bPut) << nRound;
    ASSERT_TRUE(owner.Create(tags, true)) << owner.LastError();
    const std::string text = SelfChecking(nRound % 90);
    ASSERT_TRUE(session.Put(0, text)) << nRound;
    CTagImage tag;
    ASSERT_TRUE(owner.Get(m_names[0], tag));
    ASSERT_EQ(text, std::string(tag.m_payload.begin(), tag.m_payload.end())) << nRound;
    nLeft += bThere;
    // So most deaths fall where the removal ends, however long it takes on this machine; on a busy
    // one a remover may not even have begun.
    nStep = std::clamp<int64_t>(bThere == bThereBefore ? nStep * 2 : nStep / 8, 4, kMaxDelay / 4);
    nDelay = std::clamp<int64_t>(nDelay + (bThere ? nStep : -nStep), 0, kMaxDelay);
    bThereBefore = bThere;
  }
  EXPECT_GT(nLeft, 10U);
  EXPECT_LT(nLeft, 190U);
}

TEST_F(CTableProcesses, ASectionCutShortIsRefusedWhereItIsSearched) {
  CSession session(m_table.Name(), {});
  const auto pTag = session.m_store.BindTag(m_names[0]);
  const std::string strFile =
      "/dev/shm/kvl-" + std::to_string(geteuid()) + "/" + m_table.Name() + ".section";
  ASSERT_EQ(0, truncate(strFile.c_str(), kTableSize - 1));
  EXPECT_FALSE(CValueAccess(session.m_store, *pTag));
  EXPECT_EQ(kErrorDamaged, session.m_store.LastError());
  std::vector<CTagImage> tags;
  CTableOwner owner(m_table.Name());
  ASSERT_EQ(0, truncate(strFile.c_str(), 300));
  EXPECT_FALSE(owner.List(tags));
  EXPECT_EQ(kErrorDamaged, owner.LastError());
}

// The same for a remover of another make, which takes the section's name first.
TEST_F(CTableProcesses, ARemoverThatDiesHalfWaySplitsNoTable) {
  CSession session(m_table.Name(), m_names);
  ASSERT_TRUE(session.Put(0, SelfChecking(1)));
  CChild remover([&] {
    CSession dying(m_table.Name(), m_names);
    const CSemaphoreHold outer(dying.m_lock);
    const CValueAccess inner(dying.m_store, *dying.m_tags[0]);
    CNamedSection::Remove(m_table.Name(), EAudience::kOwner);
    raise(SIGKILL);
    return 0;
  });
  EXPECT_EQ(-1, remover.Join());
  EXPECT_FALSE(session.Put(0, SelfChecking(2))) << "there is no table";
  CTagSet tags;
  ASSERT_EQ(nullptr, tags.Add(m_names[0], kTagText, kTextSize));
  CTableOwner owner(m_table.Name());
  ASSERT_TRUE(owner.Create(tags, false));
  EXPECT_TRUE(session.Put(0, SelfChecking(3)));
  CTagImage tag;
  ASSERT_TRUE(owner.Get(m_names[0], tag));
  EXPECT_EQ(SelfChecking(3), std::string(tag.m_payload.begin(), tag.m_payload.end()));
}

// Sessions run on while the table is removed and laid anew: they lose the tags, find them again,
// and never crash.
TEST_F(CTableProcesses, SessionsSurviveRemovalAndReplacement) {
  CChild writer([&] {
    CSession session(m_table.Name(), m_names);
    bool bLost = false;
    for (int nFoundAgain = 0; nFoundAgain < 200;) {
      const bool bDone = session.Put(0, SelfChecking(1));
      bLost |= !bDone;
      nFoundAgain += bLost && bDone;
      if (!bDone) usleep(100);
    }
    return 0;
  });
  CTagSet tags;
  ASSERT_EQ(nullptr, tags.Add(m_names[0], kTagText, kTextSize));
  for (int i = 0; i < 20; ++i) {
    usleep(1000);
    ASSERT_EQ(0u, CTableOwner::Remove(m_table.Name()));
    usleep(1000);
    CTableOwner owner(m_table.Name());
    ASSERT_TRUE(owner.Create(tags, false)) << owner.LastError();
    ASSERT_TRUE(owner.Create(tags, true)) << owner.LastError();
  }
  EXPECT_EQ(0, writer.Join());
}

}  // namespace
