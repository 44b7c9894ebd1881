// The escape notation of quoted texts and the digits of hexadecimal and binary literals.
#pragma once

#include <cstdint>
#include <string_view>

namespace kvl {

// Two characters to one byte. Letters count on beyond F; what is no letter and no digit counts 0.
uint8_t GetCode16(char high, char low);

// Turns <HH> into the byte HH, << into <, >> into >. `output` needs room for raw.size() bytes and
// gets no terminator. Returns the number of bytes written, or -1 on a fault in the notation; then
// `*written`, if asked for, is what was written ahead of the fault.
int32_t TranslateString(std::string_view raw, uint8_t* output, int32_t* written = nullptr);

// Value of a literal whose last character, the suffix, doesn't count. 32-bit arithmetic that
// wraps; in a verified script every other character is a digit of the base.
int32_t Hex2Dec(std::string_view text);
int32_t Bin2Dec(std::string_view text);

}  // namespace kvl
