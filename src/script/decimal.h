// Decimal numbers in script text and received bytes, and the narrowing of doubles.
//
// One grammar serves declarations, literals, indexes and CONV: blanks, an optional sign, digits,
// an optional fraction and exponent. Reading stops at the first byte that doesn't fit; no number
// reads as 0. There are no hexadecimal, infinity or not-a-number words, and the process's locale
// plays no part.
#pragma once

#include <cstdint>
#include <limits>
#include <string_view>

namespace kvl {

// The number at the start of `text`, correctly rounded. Too large gives infinity, too small 0.
double ParseDouble(std::string_view text);

// The whole number at the start of `text`. Beyond 32 bits it saturates and `*overflow`, if asked
// for, becomes true.
int32_t ParseInteger(std::string_view text, bool* overflow = nullptr);

inline bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}
inline bool IsCapital(char c) {
  return c >= 'A' && c <= 'Z';
}

// Truncation toward zero. What 64 bits can't hold, and a NaN, give the top bit alone, so that
// every narrower integer taken from it is 0.
inline int64_t TruncateToInt64(double value) {
  constexpr double kLimit = 9223372036854775808.0;
  if (value >= -kLimit && value < kLimit) return static_cast<int64_t>(value);
  return std::numeric_limits<int64_t>::min();
}

// The low 32 and the low 8 bits of the truncated value; nothing rounds, nothing saturates.
inline int32_t NarrowToInt32(double value) {
  return static_cast<int32_t>(static_cast<uint32_t>(TruncateToInt64(value)));
}
inline int8_t NarrowToInt8(double value) {
  return static_cast<int8_t>(static_cast<uint8_t>(TruncateToInt64(value)));
}

}  // namespace kvl
