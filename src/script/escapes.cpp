#include "script/escapes.h"

namespace kvl {
namespace {

bool IsHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
}

unsigned CodeOf(char c) {
  if (c >= '0' && c <= '9') return static_cast<unsigned>(c - '0');
  if (c >= 'a' && c <= 'z') return static_cast<unsigned>(c - 'a') + 10;
  if (c >= 'A' && c <= 'Z') return static_cast<unsigned>(c - 'A') + 10;
  return 0;
}

template <class FDigit>
int32_t SumOfDigits(std::string_view text, uint32_t base, FDigit valueOf) {
  uint32_t result = 0;
  uint32_t weight = 1;
  for (size_t i = text.size(); i-- > 0;) {
    if (i + 1 == text.size()) continue;  // the suffix
    result += static_cast<uint32_t>(valueOf(text[i])) * weight;
    weight *= base;
  }
  return static_cast<int32_t>(result);
}

}  // namespace

uint8_t GetCode16(char high, char low) {
  return static_cast<uint8_t>((CodeOf(high) << 4) | CodeOf(low));
}

int32_t TranslateString(std::string_view raw, uint8_t* output, int32_t* written) {
  int32_t count = 0;
  bool open = false;
  int collected = 0;
  char digits[2] = {};
  const auto next = [&raw](size_t i) { return i + 1 < raw.size() ? raw[i + 1] : '\0'; };
  const auto fault = [&] {
    if (written != nullptr) *written = count;
    return -1;
  };
  for (size_t i = 0; i < raw.size(); ++i) {
    const char c = raw[i];
    if (c == '<') {
      open = next(i) != '<';
      if (open) continue;
      output[count++] = '<';
      ++i;
    } else if (c == '>' && open) {
      if (collected != 2) return fault();
      output[count++] = GetCode16(digits[0], digits[1]);
      open = false;
      collected = 0;  // only here: digits of an escape that never closed spoil the next one
    } else if (c == '>') {
      if (next(i) != '>') return fault();
      output[count++] = '>';
      ++i;
    } else if (open) {
      if (!IsHexDigit(c) || collected == 2) return fault();
      digits[collected++] = c;
    } else {
      output[count++] = static_cast<uint8_t>(c);
    }
  }
  if (written != nullptr) *written = count;
  return open ? -1 : count;
}

int32_t Hex2Dec(std::string_view text) {
  return SumOfDigits(text, 16,
                     [](char c) { return c >= 'A' && c <= 'F' ? c - 'A' + 10 : c - '0'; });
}

int32_t Bin2Dec(std::string_view text) {
  return SumOfDigits(text, 2, [](char c) { return c - '0'; });
}

}  // namespace kvl
