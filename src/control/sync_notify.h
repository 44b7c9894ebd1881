// The record by which SYNC and the host window meet.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/api.h"
#include "platform/window.h"

namespace kvl {

inline constexpr uint32_t kSyncCode = 10001;

// Posted with kWmNotify: first parameter the control's child identifier, second the address of
// this record. The host deals with m_nValue and then sets m_bPending to 0, within 1000 ms. An
// answer that comes later does no harm, also after the session: no SYNC gets the record before it
// was answered, unless kSyncResting later ones, which take a second each, got no answer in time.
struct CSyncNotify {
  NMHDR m_header;  // the control's window and child identifier, and kSyncCode
  int32_t m_nValue = 0;
  std::atomic<uint32_t> m_bPending{0};
};

inline constexpr uint32_t kSyncResting = 1024;

// Lends a record, with m_bPending 1, for one SYNC; no other SYNC of the process has it meanwhile.
class KVL_API CSyncRecord {
 public:
  CSyncRecord();
  ~CSyncRecord();
  CSyncRecord(const CSyncRecord&) = delete;
  CSyncRecord& operator=(const CSyncRecord&) = delete;

  CSyncNotify* Get() const { return m_pRecord; }
  CSyncNotify* operator->() const { return m_pRecord; }

 private:
  CSyncNotify* const m_pRecord;
};

}  // namespace kvl
