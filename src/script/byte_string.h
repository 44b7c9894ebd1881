// A buffer seen as a string: its bytes up to the first zero byte, or all of them if there is none.
#pragma once

#include <algorithm>
#include <cstring>
#include <string_view>

#include "script/operand.h"

namespace kvl {

inline int32_t StringLength(const uint8_t* bytes, int32_t size) {
  if (size <= 0) return 0;
  const void* end = std::memchr(bytes, 0, static_cast<size_t>(size));
  return end == nullptr ? size : static_cast<int32_t>(static_cast<const uint8_t*>(end) - bytes);
}

inline std::string_view AsText(const uint8_t* bytes, int32_t size) {
  return {reinterpret_cast<const char*>(bytes), static_cast<size_t>(std::max(size, 0))};
}

// Stores a length or a position into a bound scalar, if it is one.
inline void StoreInteger(const CBoundOperand& scalar, int32_t value) {
  if (scalar.m_kind != EOperand::Scalar) return;
  if (scalar.m_type == kInteger) return Store(scalar.m_pData, value);
  if (scalar.m_type == kByte) return Store(scalar.m_pData, static_cast<uint8_t>(value));
  if (scalar.m_type == kDouble) return Store(scalar.m_pData, static_cast<double>(value));
}

// Stores a double into a bound scalar, if it is one, by its type.
inline void StoreScalar(const CBoundOperand& scalar, double value) {
  if (scalar.m_kind != EOperand::Scalar) return;
  if (scalar.m_type == kByte) Store(scalar.m_pData, NarrowToInt8(value));
  if (scalar.m_type == kInteger) Store(scalar.m_pData, NarrowToInt32(value));
  if (scalar.m_type == kDouble) Store(scalar.m_pData, value);
}

inline bool IsQuoted(std::string_view operand) {
  return !operand.empty() && operand.front() == '"';
}

}  // namespace kvl
