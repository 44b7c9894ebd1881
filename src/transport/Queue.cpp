#include "transport/Queue.h"

#include <algorithm>
#include <cstring>

namespace kvl {

CQueue::CQueue() {
  Clear();
}

CQueue::CQueue(const CQueue& other) {
  *this = other;
}

CQueue& CQueue::operator=(const CQueue& other) {
  if (this == &other) return *this;
  std::memcpy(m_byBuffer, other.m_byBuffer, sizeof m_byBuffer);
  m_nHead = other.m_nHead.load();
  m_nTail = other.m_nTail.load();
  m_nDroppedReads = other.m_nDroppedReads.load();
  m_nDroppedBytes = other.m_nDroppedBytes.load();
  return *this;
}

void CQueue::Clear() {
  std::memset(m_byBuffer, 0, sizeof m_byBuffer);
  m_nHead = 0;
  m_nTail = 0;
  m_nDroppedReads = 0;
  m_nDroppedBytes = 0;
}

int32_t CQueue::GetSize() const {
  // Tail first: an index that moves in between then makes the size older, not impossible.
  const int32_t tail = m_nTail.load(std::memory_order_acquire);
  const int32_t head = m_nHead.load(std::memory_order_acquire);
  return (head - tail) & kMask;
}

int32_t CQueue::PutByte(uint8_t byte) {
  if (GetSize() == kSlots - 1) return 0;
  const int32_t head = m_nHead.load(std::memory_order_relaxed);
  m_byBuffer[head] = byte;
  m_nHead.store((head + 1) & kMask, std::memory_order_release);
  return 1;
}

int32_t CQueue::GetByte(uint8_t* pByte) {
  return GetBatch(pByte, 1);
}

bool CQueue::PutBatch(const uint8_t* bytes, int32_t count, Zeros zeros) {
  if (count <= 0) return true;
  if (kSlots - GetSize() <= count) {
    m_nDroppedReads.fetch_add(1, std::memory_order_relaxed);
    m_nDroppedBytes.fetch_add(static_cast<uint64_t>(count), std::memory_order_relaxed);
    return false;
  }
  int32_t head = m_nHead.load(std::memory_order_relaxed);
  for (int32_t i = 0; i < count; ++i) {
    if (bytes[i] == 0 && zeros == Zeros::kDrop) continue;
    m_byBuffer[head] = bytes[i];
    head = (head + 1) & kMask;
  }
  m_nHead.store(head, std::memory_order_release);
  return true;
}

int32_t CQueue::GetBatch(uint8_t* bytes, int32_t count) {
  const int32_t n = std::min(count, GetSize());
  if (n <= 0) return 0;
  const int32_t tail = m_nTail.load(std::memory_order_relaxed);
  const int32_t first = std::min(n, kSlots - tail);
  std::memcpy(bytes, m_byBuffer + tail, static_cast<size_t>(first));
  std::memcpy(bytes + first, m_byBuffer, static_cast<size_t>(n - first));
  m_nTail.store((tail + n) & kMask, std::memory_order_release);
  return n;
}

}  // namespace kvl
