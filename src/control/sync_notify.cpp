#include "control/sync_notify.h"

#include <array>

namespace kvl {

CSyncNotify& NextSyncRecord() {
  static auto& records = *new std::array<CSyncNotify, kSyncRecords>;
  static std::atomic<uint32_t> next{0};
  CSyncNotify& record = records[next.fetch_add(1) % kSyncRecords];
  record.m_bPending = 1;
  return record;
}

}  // namespace kvl
