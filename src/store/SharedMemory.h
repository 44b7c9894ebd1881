// The shared value store: a table of named values in a named section of memory, which decode
// sessions, table owners and readers in several processes share. docs/table.md tells its format
// and what each party must do.
//
// Names are bytes in code page 949, as scripts hold them, up to the first zero byte. The contents
// of the section are not trusted: whatever they are, nothing is read or written outside it.
//
// PUT and GET bind a tag once and then reach it through CValueAccess:
//
//   CSemaphoreHold session(*m_pTableLock);                  // table name + "_Sync_2", outside
//   if (!session) return;
//   CValueAccess value(*m_pSharedMemory, *pTag);            // table name + "_Sync", within
//   if (!value.HasTag()) return;                            // no such record, or no tag in it
//   if (value.Type() == kTagFloat) value.WritePayload(&f, sizeof f);
//
// Threads: one store, with its tags, is used by one thread at a time.
// Errors:  false or a null; the code is in LastError() and is the thread's last error.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/api.h"
#include "platform/named_event.h"
#include "platform/named_object.h"
#include "platform/named_section.h"
#include "platform/named_semaphore.h"
#include "store/table_format.h"

namespace kvl {

class CSharedMemory;

// One value's name, bound to a store. Remembers where the record was found, or that there is none,
// which holds for as long as the table keeps its shape.
class KVL_API CTag {
 public:
  const std::string& Name() const { return m_strName; }

 private:
  friend class CSharedMemory;
  friend class CValueAccess;
  CTag(std::string_view strName, std::u16string strWide, EAudience audience);

  const std::string m_strName;
  const std::u16string m_strWide;
  const size_t m_nHash;
  uint64_t m_nShape = 0;    // the store's m_nShape for which m_dwOffset is right; 0 is none
  uint32_t m_dwOffset = 0;  // of the record; 0 for none
  CEventTrigger m_event;
};

class KVL_API CSharedMemory {
 public:
  using InitCallback = std::function<void(CSharedMemory&)>;

  // Opens the section of that name, or makes one of `dwSize` bytes, all zero but its size word.
  // One that is there keeps its own size. The callback, if any, runs once the store is open, for
  // every opener, with the semaphore released; it may use the store and must not throw.
  // With kOpenExisting no section is made.
  // A failure leaves the store closed, with its code in LastError().
  CSharedMemory(std::string_view strName, uint32_t dwSize, const InitCallback& callback = nullptr,
                EAudience audience = EAudience::kOwner, EOpenMode mode = EOpenMode::kOpenOrCreate);
  virtual ~CSharedMemory();
  CSharedMemory(const CSharedMemory&) = delete;
  CSharedMemory& operator=(const CSharedMemory&) = delete;

  // See CNamedSemaphore: an access whose wait is ended finds nothing, with kErrorTimeout.
  void SetKeepWaiting(std::function<bool()> keepWaiting);

  bool IsOpen() const { return m_bOpen; }
  bool IsFirstOpener() const { return m_bFirstOpener; }
  uint32_t LastError() const { return m_dwLastError; }
  const std::string& Name() const { return m_strName; }  // empty while the store is closed
  uint32_t Size() const { return m_dwSize; }             // what the section says of its size
  EAudience Audience() const { return m_audience; }

  // Copies a value's whole area of L bytes to `pDestination`, which has room for `*pdwLength`
  // bytes, and stores L in `*pdwLength`. Without a destination it only tells L.
  // Errors: kErrorNotOpen, kErrorNotFound, kErrorDamaged, kErrorSmallBuffer (L is told, nothing
  // is copied).
  bool ReadValue(std::string_view strName, void* pDestination, uint32_t* pdwLength);

  // Overwrites `dwBytes` bytes of a value's area from `dwFromEnd` bytes before its end on, and
  // sets the event value name + "_Event".
  // Errors, with nothing changed: kErrorNotOpen, kErrorBadLength (no bytes), kErrorNotFound,
  // kErrorDamaged, kErrorNoMemory (more bytes than the area has), kErrorBadParameter (they would
  // begin before the area or reach behind it).
  bool WriteValue(std::string_view strName, const void* pSource, uint32_t dwFromEnd,
                  uint32_t dwBytes);

  // The binding of a name, whether there is such a record or not. Null if the name is no text in
  // code page 949 (kErrorNoUnicode) or the store is closed. A tag is of use with this store only
  // and may outlive it unused.
  std::shared_ptr<CTag> BindTag(std::string_view strName);

 private:
  friend class CValueAccess;
  friend class CTableOwner;

  void Open(std::string_view strName, uint32_t dwSize, const InitCallback& callback,
            EOpenMode mode);
  bool OpenSection(uint32_t dwSize, EOpenMode mode);
  bool HasSection() const;
  bool Lock();
  void Unlock();
  bool FindRecord(CTag& tag, CRecord& record);
  uint32_t SearchRecord(const CTag& tag, CRecord& record);
  void FollowShape();
  void BuildIndex();
  bool IsNamed(const CRecord& record, std::u16string_view strWide) const;
  std::span<uint8_t> Section() const;
  void SetError(uint32_t dwCode);

  std::string m_strName;
  EAudience m_audience;
  uint32_t m_dwLastError = 0;
  bool m_bFirstOpener = true;
  bool m_bOpen = false;
  uint32_t m_dwSize = 0;
  std::unique_ptr<CNamedSemaphore> m_pSemaphore;
  std::unique_ptr<CNamedSection> m_pSection;

  // The table has kept its shape, the place of its records, since m_nShape was given if the
  // semaphore's change count and the record count are still these.
  uint64_t m_nShape = 0;
  uint64_t m_nShapeChanges = 0;
  uint32_t m_dwShapeCount = 0;
  bool m_bIndexed = false;
  std::unordered_map<size_t, uint32_t> m_index;  // hash of a name to its first record
  std::unordered_map<std::string, std::shared_ptr<CTag>> m_tags;
};

// One critical section on one value: holds the semaphore table name + "_Sync" for as long as it
// lives. Keep it short, wait for nothing meanwhile, and open no second one on the same table.
class KVL_API CValueAccess {
 public:
  CValueAccess(CSharedMemory& store, CTag& tag);
  ~CValueAccess();  // releases, then wakes who waits for the value
  CValueAccess(const CValueAccess&) = delete;
  CValueAccess& operator=(const CValueAccess&) = delete;

  // Whether the record was found; if not, every operation below fails or is empty.
  explicit operator bool() const { return m_bFound; }

  // Whether the value area has the head of a tag and the payload that the head tells.
  bool HasTag() const { return m_bTag; }
  uint8_t Type() const { return m_type; }
  uint16_t PayloadSize() const { return m_nPayload; }
  // The payload as GET sees it: behind the head. Valid as long as this object. Empty without a tag.
  std::span<const uint8_t> Payload() const;
  // Overwrites the first `dwBytes` bytes of the payload as PUT does, counted from the end of the
  // area, and sets the value's event. False, with nothing changed, without a tag
  // (kErrorInvalidData), for no bytes or for more than the payload has.
  bool WritePayload(const void* pSource, uint32_t dwBytes);

  // The whole value area; see WriteValue for Write.
  std::span<const uint8_t> Area() const { return m_area; }
  bool Write(const void* pSource, uint32_t dwFromEnd, uint32_t dwBytes);

 private:
  bool Refuse(uint32_t dwCode);

  CSharedMemory& m_store;
  CTag& m_tag;
  std::span<uint8_t> m_area;
  bool m_bLocked = false;
  bool m_bFound = false;
  bool m_bTag = false;
  bool m_bWritten = false;
  uint8_t m_type = 0;
  uint16_t m_nPayload = 0;
};

}  // namespace kvl
