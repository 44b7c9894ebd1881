// The payload of a tag as a value, and as a text for people.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/api.h"

namespace kvl {

// Nothing for a tag whose type or size is unknown; a text is UTF-8, up to its first zero byte.
using CTagValue = std::variant<std::monostate, int32_t, float, std::string>;

KVL_API CTagValue TagValueOf(uint8_t type, std::span<const uint8_t> payload);

// The shortest text that names the value; of an unknown one the bytes in hexadecimal.
KVL_API std::string TagValueText(uint8_t type, std::span<const uint8_t> payload);

// The whole payload of `nSize` bytes that a text of people's, UTF-8, stands for; a text's rest is
// zero. False, with what is wrong in `strFault`, if it stands for none.
KVL_API bool PayloadFromText(uint8_t type, uint16_t nSize, std::string_view strText,
                             std::vector<uint8_t>& payload, std::string& strFault);

}  // namespace kvl
