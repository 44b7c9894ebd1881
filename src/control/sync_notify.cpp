#include "control/sync_notify.h"

#include <mutex>

#include "platform/never_destroyed.h"

namespace kvl {
namespace {

struct CPooledRecord : CSyncNotify {
  CPooledRecord* m_pNext = nullptr;
};

// Records in the order in which they came.
class CRecordList {
 public:
  bool IsEmpty() const { return m_pFirst == nullptr; }
  uint32_t Count() const { return m_nCount; }
  const CPooledRecord& First() const { return *m_pFirst; }

  void Append(CPooledRecord* record) {
    record->m_pNext = nullptr;
    (IsEmpty() ? m_pFirst : m_pLast->m_pNext) = record;
    m_pLast = record;
    ++m_nCount;
  }

  CPooledRecord* TakeFirst() {
    CPooledRecord* const record = m_pFirst;
    m_pFirst = record->m_pNext;
    --m_nCount;
    return record;
  }

 private:
  CPooledRecord* m_pFirst = nullptr;
  CPooledRecord* m_pLast = nullptr;
  uint32_t m_nCount = 0;
};

// The records that no SYNC has. A host is done with one that it has answered; with any other it may
// still meet.
class CPool {
 public:
  CSyncNotify* Take() {
    const std::lock_guard lock(m_cs);
    if (!m_answered.IsEmpty()) return m_answered.TakeFirst();
    if (m_unanswered.IsEmpty()) return new CPooledRecord;
    const bool bAnswered = m_unanswered.First().m_bPending == 0;
    if (bAnswered || m_unanswered.Count() > kSyncResting) return m_unanswered.TakeFirst();
    return new CPooledRecord;
  }

  void GiveBack(CPooledRecord* record) {
    const std::lock_guard lock(m_cs);
    (record->m_bPending == 0 ? m_answered : m_unanswered).Append(record);
  }

 private:
  std::mutex m_cs;
  CRecordList m_answered;
  CRecordList m_unanswered;
};

// Never destroyed: a host may answer to the very end of the process.
CPool& Pool() {
  static CNeverDestroyed<CPool> s_pool;
  return s_pool.Get();
}

}  // namespace

CSyncRecord::CSyncRecord() : m_pRecord(Pool().Take()) {
  m_pRecord->m_bPending = 1;
}

CSyncRecord::~CSyncRecord() {
  Pool().GiveBack(static_cast<CPooledRecord*>(m_pRecord));
}

}  // namespace kvl
