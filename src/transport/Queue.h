// The byte ring between a communication line and the code that consumes its bytes.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/api.h"

namespace kvl {

// 8192 slots inside the object, capacity 8191: one slot stays empty, so that equal indexes always
// mean empty.
// Threads: one producer (PutByte, PutBatch) beside one consumer (GetByte, GetBatch), without a
//          lock. The producer alone moves the head, with a release store behind the bytes it has
//          written; the consumer alone moves the tail, with a release store behind the bytes it
//          has taken; each loads the other's index with acquire. Clear and assignment need both
//          sides at rest.
// Errors:  none beyond full and empty.
class KVL_API CQueue {
 public:
  static constexpr int32_t kSlots = 8192;

  enum class Zeros { kKeep, kDrop };

  CQueue();
  CQueue(const CQueue& other);
  CQueue& operator=(const CQueue& other);

  // Empties the queue, fills its slots with 0 and forgets the losses.
  void Clear();

  // Bytes held, 0 to 8191. On the producer's side it may be too high, on the consumer's too low,
  // never the other way round.
  int32_t GetSize() const;

  // 1 stored, 0 full.
  int32_t PutByte(uint8_t byte);

  // 1 taken, 0 empty; `*pByte` is then as it was.
  int32_t GetByte(uint8_t* pByte);

  // One read of a line, stored whole or dropped whole: it fits if `count`, the bytes of value 0
  // included, is at most 8191 less the size. The consumer sees all of it or nothing. True when
  // stored; a count of 0 or less stores nothing and is true. A dropped read is counted.
  bool PutBatch(const uint8_t* bytes, int32_t count, Zeros zeros);

  // Takes the oldest bytes, at most `count`, into `bytes`; gives how many.
  int32_t GetBatch(uint8_t* bytes, int32_t count);

  // What the batch rule has dropped since the last Clear. Any thread may ask.
  uint64_t GetDroppedReads() const { return m_nDroppedReads.load(std::memory_order_relaxed); }
  uint64_t GetDroppedBytes() const { return m_nDroppedBytes.load(std::memory_order_relaxed); }

 private:
  static constexpr int32_t kMask = kSlots - 1;

  uint8_t m_byBuffer[kSlots];
  std::atomic<int32_t> m_nHead;  // slot of the next put
  std::atomic<int32_t> m_nTail;  // slot of the next get
  std::atomic<uint64_t> m_nDroppedReads;
  std::atomic<uint64_t> m_nDroppedBytes;
};

}  // namespace kvl
