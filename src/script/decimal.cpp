#include "script/decimal.h"

#include <algorithm>
#include <charconv>

namespace kvl {
namespace {

// Powers of ten that a double holds exactly: with a mantissa below 2^53, one multiplication or
// division by one of them is correctly rounded.
constexpr double kExactPowers[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                   1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                   1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
constexpr int kMaxExactPower = 22;
constexpr uint64_t kMaxExactMantissa = uint64_t{1} << 53;
constexpr int kMantissaDigits = 19;  // what a 64-bit mantissa takes without overflow
constexpr int kExponentLimit = 100000;

bool IsBlank(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

const char* SkipBlanksAndSign(const char* p, const char* end, bool& negative) {
  while (p != end && IsBlank(*p)) ++p;
  negative = false;
  if (p != end && (*p == '-' || *p == '+')) negative = *p++ == '-';
  return p;
}

// The exponent behind the digits, if one stands there; moves `p` behind it.
int ReadExponent(const char*& p, const char* end) {
  if (p == end || (*p != 'e' && *p != 'E')) return 0;
  const char* q = p + 1;
  bool negative = false;
  if (q != end && (*q == '-' || *q == '+')) negative = *q++ == '-';
  if (q == end || !IsDigit(*q)) return 0;
  int exponent = 0;
  for (; q != end && IsDigit(*q); ++q)
    exponent = std::min(kExponentLimit, exponent * 10 + *q - '0');
  p = q;
  return negative ? -exponent : exponent;
}

// The value of a number that is too long or too large for the exact way. [p, end) is a number by
// the grammar, without sign.
double ParseSlowly(const char* p, const char* end, int exponent) {
  double value = 0;
  if (std::from_chars(p, end, value).ec == std::errc()) return value;
  // Out of range. The place of the first significant digit tells on which side.
  int64_t place = 0;
  bool inFraction = false;
  bool significant = false;
  for (; p != end && (IsDigit(*p) || *p == '.'); ++p) {
    if (*p == '.') {
      inFraction = true;
      continue;
    }
    significant = significant || *p != '0';
    if (significant && !inFraction) ++place;
    if (!significant && inFraction) --place;
  }
  if (significant && place + exponent > 0) return std::numeric_limits<double>::infinity();
  return 0;
}

}  // namespace

double ParseDouble(std::string_view text) {
  const char* const end = text.data() + text.size();
  bool negative;
  const char* const start = SkipBlanksAndSign(text.data(), end, negative);
  const char* p = start;
  uint64_t mantissa = 0;
  for (; p != end && IsDigit(*p); ++p) mantissa = mantissa * 10 + static_cast<unsigned>(*p - '0');
  auto digits = p - start;
  int exponent = 0;
  if (p != end && *p == '.') {
    const char* const fraction = ++p;
    for (; p != end && IsDigit(*p); ++p) mantissa = mantissa * 10 + static_cast<unsigned>(*p - '0');
    exponent = static_cast<int>(fraction - p);
    digits += p - fraction;
  }
  if (digits == 0) return 0;
  const int written = ReadExponent(p, end);
  exponent += written;
  double value;
  if (digits <= kMantissaDigits && mantissa <= kMaxExactMantissa && exponent >= -kMaxExactPower &&
      exponent <= kMaxExactPower) {
    value = static_cast<double>(mantissa);
    value = exponent < 0 ? value / kExactPowers[-exponent] : value * kExactPowers[exponent];
  } else {
    value = ParseSlowly(start, p, written);
  }
  return negative ? -value : value;
}

int32_t ParseInteger(std::string_view text, bool* overflow) {
  const char* const end = text.data() + text.size();
  bool negative;
  const char* p = SkipBlanksAndSign(text.data(), end, negative);
  constexpr int64_t kBeyond = int64_t{1} << 40;
  int64_t value = 0;
  for (; p != end && IsDigit(*p); ++p) value = std::min(kBeyond, value * 10 + *p - '0');
  if (negative) value = -value;
  constexpr int64_t kMin = std::numeric_limits<int32_t>::min();
  constexpr int64_t kMax = std::numeric_limits<int32_t>::max();
  if (overflow != nullptr) *overflow = value < kMin || value > kMax;
  return static_cast<int32_t>(std::clamp(value, kMin, kMax));
}

}  // namespace kvl
