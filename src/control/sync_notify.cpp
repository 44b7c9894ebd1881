#include "control/sync_notify.h"

#include <mutex>

namespace kvl {
namespace {

struct CPooledRecord : CSyncNotify {
  CPooledRecord* m_pNext = nullptr;
};

// The records that nobody uses.
class CPool {
 public:
  CSyncNotify* Take() {
    const std::lock_guard lock(m_cs);
    if (m_pAnswered != nullptr) {
      CPooledRecord* const record = m_pAnswered;
      m_pAnswered = record->m_pNext;
      return record;
    }
    if (m_nResting <= kSyncResting) return new CPooledRecord;
    --m_nResting;
    CPooledRecord* const record = m_pFirst;
    m_pFirst = record->m_pNext;
    return record;
  }

  void GiveBack(CPooledRecord* record) {
    const std::lock_guard lock(m_cs);
    if (record->m_bPending == 0) {
      record->m_pNext = m_pAnswered;
      m_pAnswered = record;
      return;
    }
    record->m_pNext = nullptr;
    (m_nResting++ == 0 ? m_pFirst : m_pLast->m_pNext) = record;
    m_pLast = record;
  }

 private:
  std::mutex m_cs;
  CPooledRecord* m_pAnswered = nullptr;
  CPooledRecord* m_pFirst = nullptr;  // whose host may answer yet, the one of the oldest SYNC first
  CPooledRecord* m_pLast = nullptr;
  uint32_t m_nResting = 0;
};

// Never destroyed: a host may answer to the very end of the process.
CPool& Pool() {
  static auto* pPool = new CPool;
  return *pPool;
}

}  // namespace

CSyncRecord::CSyncRecord() : m_pRecord(Pool().Take()) {
  m_pRecord->m_bPending = 1;
}

CSyncRecord::~CSyncRecord() {
  Pool().GiveBack(static_cast<CPooledRecord*>(m_pRecord));
}

}  // namespace kvl
