// The handlers of COPY, open to whoever makes rows of them.
#pragma once

#include "script/byte_string.h"
#include "script/number_handlers.h"

namespace kvl {

// Byte by byte in ascending order: within reach of the source, upwards, what was just written is
// read again.
inline void CopyAscending(uint8_t* to, const uint8_t* from, size_t count) {
  const bool repeats = to > from && to < from + count;
  if (!repeats) {
    std::memmove(to, from, count);
    return;
  }
  for (size_t i = 0; i < count; ++i) to[i] = from[i];
}

// Takes what the source has and what the destination has room for. The terminator is written if
// there is room for it too, so that a buffer can be filled to its last byte.
template <EIndex TMost, ESource TCount>
const CStep* Copy(const CStep& step, CRunState&) {
  const int32_t count = ReadAs<int32_t, TCount>(step.m_operand[2]);
  const std::span<uint8_t> to = ResolvePlace<TMost>(step.m_operand[0]);
  const std::span<uint8_t> from = ResolvePlace<TMost>(step.m_operand[1]);
  if (to.empty() || from.empty()) return &step + 1;
  const size_t wanted = static_cast<size_t>(std::max(count, 0));
  const size_t copied = std::min({wanted, from.size(), to.size()});
  CopyAscending(to.data(), from.data(), copied);
  if (copied < to.size()) to[copied] = 0;
  return &step + 1;
}

// A count below 1 cuts the string at that place.
template <EIndex TMost>
const CStep* Cut(const CStep& step, CRunState&) {
  const std::span<uint8_t> to = ResolvePlace<TMost>(step.m_operand[0]);
  if (!to.empty() && !ResolvePlace<TMost>(step.m_operand[1]).empty()) to[0] = 0;
  return &step + 1;
}

}  // namespace kvl
