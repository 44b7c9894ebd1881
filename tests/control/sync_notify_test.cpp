#include "control/sync_notify.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <vector>

namespace kvl {
namespace {

TEST(CSyncRecordTest, NoTwoInUseAreOneAndLateAnswersMeetNobody) {
  std::vector<std::unique_ptr<CSyncRecord>> inUse;
  std::set<CSyncNotify*> different;
  for (uint32_t i = 0; i < 3 * kSyncResting; ++i) {
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
  for (uint32_t i = 0; i < 3 * kSyncResting; ++i) {
    const CSyncRecord answered;  // however many were answered since
    answered->m_bPending = 0;
  }
  for (uint32_t i = 0; i < kSyncResting; ++i) {
    const CSyncRecord record;
    late->m_bPending = 0;
    ASSERT_EQ(record->m_bPending, 1U) << i;
  }
}

}  // namespace
}  // namespace kvl
