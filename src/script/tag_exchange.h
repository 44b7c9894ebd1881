// PUT and GET against the shared store: one table, its outer lock, and the tags bound so far.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "script/engine_owner.h"
#include "script/step.h"
#include "store/SharedMemory.h"

namespace kvl {

// The value that PUT has in hand. A form that gives no number, or no text, has none: a tag that
// wants it then stays as it is.
struct CPutValue {
  bool m_bNumber = false;
  double m_number = 0;
  std::span<const uint8_t> m_text;
};

// Threads: one, the worker's.
class CTagExchange {
 public:
  // `owner` outlives the object: no PUT or GET waits once its run flag is down.
  CTagExchange(std::string_view tableName, EAudience audience, CEngineOwner& owner);

  // Whether the store and its lock could be opened.
  bool IsOpen() const { return m_store.IsOpen() && m_tableLock.IsOpen(); }

  // Places in which instructions remember their tags.
  int32_t NewSlot();
  size_t SlotCount() const { return m_slots.size(); }
  void DropSlotsFrom(size_t count) { m_slots.resize(count); }

  // Writes the value by the tag's type and tells the owner of it. Nothing happens if there is no
  // such tag or the value has no form for it.
  void Put(int32_t slot, std::string_view tag, const CPutValue& value);

  // Copies the payload by the tag's type, of a text at most `textBytes` bytes and what fits, of a
  // number all or nothing.
  void Get(int32_t slot, std::string_view tag, std::span<uint8_t> to, int32_t textBytes);

 private:
  CTag* Bind(int32_t slot, std::string_view tag);

  CEngineOwner& m_owner;
  CSharedMemory m_store;
  CNamedSemaphore m_tableLock;
  std::vector<std::shared_ptr<CTag>> m_slots;
  std::vector<uint8_t> m_payload;  // what was just written, for the owner to see
};

}  // namespace kvl
