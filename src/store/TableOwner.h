// The party that lays a table: makes its records, looks at them all, and drops it.
// Threads: one object is used by one thread at a time.
// Errors:  false or a code of platform/last_error.h; a failed operation changes nothing.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/api.h"
#include "platform/named_object.h"
#include "store/SharedMemory.h"
#include "store/tag_set.h"

namespace kvl {

// A copy of one tag.
struct CTagImage {
  std::string m_strName;  // in code page 949
  uint8_t m_type = 0;
  std::vector<uint8_t> m_payload;
};

class KVL_API CTableOwner {
 public:
  // Opens a table that is there. Names are in code page 949.
  explicit CTableOwner(std::string_view strTable, EAudience audience = EAudience::kOwner);

  // Lays a table of these tags, all their payloads zero, making it if it isn't there. One that
  // holds records already is refused with kErrorAlreadyExists unless they are to be replaced;
  // sessions then find the new tags at their next access.
  bool Create(const CTagSet& tags, bool bReplace);

  bool IsOpen() const { return m_pStore->IsOpen(); }
  uint32_t LastError() const { return m_dwLastError; }
  CSharedMemory& Store() { return *m_pStore; }

  // Every tag in the table's order, copied in one critical section. Records that hold no tag or
  // have no proper name are passed over, as are all but the first of one name. False with
  // kErrorDamaged if the table ends in records that run past its section; `tags` then holds those
  // before.
  bool List(std::vector<CTagImage>& tags);

  bool Get(std::string_view strTag, CTagImage& tag);

  // Sets a tag from a text of people's (UTF-8), as PayloadFromText reads it. False with the
  // reason in `strFault`.
  bool Set(std::string_view strTag, std::string_view strText, std::string& strFault);

  // Drops a table: its section, both semaphores and the events of its tags. Whoever still has it
  // open is told at his next access. 0, or kErrorNotFound, or why it can't be dropped.
  static uint32_t Remove(std::string_view strTable, EAudience audience = EAudience::kOwner);

  // The names of the tables that are there, in the order of their bytes.
  static std::vector<std::string> Tables(EAudience audience = EAudience::kOwner) {
    return CNamedSection::Names(audience);
  }

 private:
  bool LockOrMake();
  bool Lay(const CTagSet& tags, bool bReplace);
  bool Check(bool bDone, uint32_t dwCode);

  const std::string m_strTable;
  const EAudience m_audience;
  std::unique_ptr<CSharedMemory> m_pStore;
  uint32_t m_dwLastError = 0;
};

}  // namespace kvl
