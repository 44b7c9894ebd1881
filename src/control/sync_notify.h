// The record by which SYNC and the host window meet.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/api.h"
#include "platform/window.h"

namespace kvl {

inline constexpr uint32_t kSyncCode = 10001;

// Posted with kWmNotify: first parameter the control's child identifier, second the address of
// this record. The host deals with m_nValue and then sets m_bPending to 0, within 1000 ms.
struct CSyncNotify {
  NMHDR m_header;  // the control's window and child identifier, and kSyncCode
  int32_t m_nValue = 0;
  std::atomic<uint32_t> m_bPending{0};
};

// A record for one SYNC, with m_bPending 1. Records live as long as the process, and one is used
// again only after kSyncRecords further ones, so that an answer that comes too late, even after
// the session, touches nothing that anybody waits for.
inline constexpr uint32_t kSyncRecords = 4096;
CSyncNotify& NextSyncRecord();

}  // namespace kvl
