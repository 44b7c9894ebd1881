// The bytes of a table's section and of the tags in it. docs/table.md tells the same in prose.
//
// A section is shared with other programs, whose records can't be trusted: what is read here is
// read once, and tested against the section before it is used.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "platform/last_error.h"

namespace kvl {

constexpr uint32_t kTableSize = 0xA00000;  // of every table that a session or an owner makes

// The section: count of records, size of the section, then the records without gaps.
constexpr uint32_t kCountOffset = 0;
constexpr uint32_t kSizeOffset = 4;
constexpr uint32_t kFirstRecord = 8;

// A record: name in UTF-16 with its terminator, length of the value area, value area.
constexpr uint32_t kMaxNameUnits = 39;
constexpr uint32_t kNameBytes = 80;
constexpr uint32_t kRecordHead = 84;

// A value area that holds a tag: owner's field, type, payload size, owner's byte, payload.
constexpr uint32_t kOwnerField = 32;
constexpr uint32_t kTagHead = 36;

enum ETagType : uint8_t { kTagByte = 1, kTagInteger = 2, kTagFloat = 3, kTagText = 4 };

constexpr const char* kLockSuffix = "_Sync";         // of the semaphore around one store call
constexpr const char* kTableLockSuffix = "_Sync_2";  // of the semaphore around one PUT or GET
constexpr const char* kEventSuffix = "_Event";       // of a value's event

template <class T>
T LoadAt(const uint8_t* p) {
  T value;
  memcpy(&value, p, sizeof value);
  return value;
}

template <class T>
void StoreAt(uint8_t* p, T value) {
  memcpy(p, &value, sizeof value);
}

// One record that lies wholly in its section.
struct CRecord {
  uint32_t m_dwOffset = 0;  // of its first byte in the section
  uint32_t m_dwLength = 0;  // of its value area
};

// Takes the record at `nOffset`. False if it does not lie wholly in the section.
inline bool RecordAt(std::span<const uint8_t> section, size_t nOffset, CRecord& record) {
  if (nOffset > section.size() || section.size() - nOffset < kRecordHead) return false;
  const auto dwLength = LoadAt<uint32_t>(section.data() + nOffset + kNameBytes);
  if (section.size() - nOffset - kRecordHead < dwLength) return false;
  record = {static_cast<uint32_t>(nOffset), dwLength};
  return true;
}

// Shows the records to `visit` in their order until it returns true. 0 if it did,
// kErrorNotFound behind the last record, kErrorDamaged at the first that does not lie wholly in
// the section. Takes no more steps than the section has room for records.
template <class Visit>
uint32_t WalkRecords(std::span<const uint8_t> section, Visit visit) {
  if (section.size() < kFirstRecord) return kErrorDamaged;
  const auto dwCount = LoadAt<uint32_t>(section.data() + kCountOffset);
  size_t nOffset = kFirstRecord;
  for (uint32_t i = 0; i < dwCount; ++i) {
    CRecord record;
    if (!RecordAt(section, nOffset, record)) return kErrorDamaged;
    if (visit(record)) return 0;
    nOffset += size_t{kRecordHead} + record.m_dwLength;
  }
  return kErrorNotFound;
}

}  // namespace kvl
