#include "control/sync_notify.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <vector>

namespace kvl {
namespace {

TEST(CSyncRecordTest, NoTwoInUseAreOneAndLateAnswersMeetNobody) {
  constexpr uint32_t kMany = 3 * kSyncResting;
  std::vector<std::unique_ptr<CSyncRecord>> inUse;
  std::set<CSyncNotify*> different;
  for (uint32_t i = 0; i < kMany; ++i) {
    different.insert(inUse.emplace_back(std::make_unique<CSyncRecord>())->Get());
    EXPECT_EQ(inUse.back()->Get()->m_bPending, 1U);
  }
  EXPECT_EQ(different.size(), inUse.size());
  inUse.clear();

  CSyncNotify* late = nullptr;
  {
    const CSyncRecord record;
    late = record.Get();
  }
  for (uint32_t i = 0; i < kMany; ++i) {  // of other sessions, answered in time
    const CSyncRecord record;
    ASSERT_NE(record.Get(), late) << i;
    record->m_bPending = 0;
  }
  late->m_bPending = 0;
  for (uint32_t i = 0; i < 2 * kMany; ++i) {  // in vain
    const CSyncRecord record;
    different.insert(record.Get());
  }
  EXPECT_LE(different.size(), kMany + kSyncResting) << "what rests is lent again in the end";
}

}  // namespace
}  // namespace kvl
