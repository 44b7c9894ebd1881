#include "store/tag_value.h"

#include <charconv>
#include <cmath>
#include <limits>

#include "platform/text_encoding.h"
#include "store/table_format.h"

namespace kvl {
namespace {

// A number that fills the whole text, with or without a plus sign before it.
template <class T>
bool ParseNumber(std::string_view strText, T& value) {
  if (strText.starts_with('+') && !strText.starts_with("+-")) strText.remove_prefix(1);
  const char* pEnd = strText.data() + strText.size();
  const auto parsed = std::from_chars(strText.data(), pEnd, value);
  return parsed.ec == std::errc() && parsed.ptr == pEnd;
}

template <class TStored, class TParsed>
bool StoreNumber(std::string_view strText, std::vector<uint8_t>& payload, std::string& strFault) {
  TParsed value{};
  if (!ParseNumber(strText, value) || value < std::numeric_limits<TStored>::lowest() ||
      value > std::numeric_limits<TStored>::max() || value != value) {
    strFault = std::string(1, '\'').append(strText) + "' is no number that the tag can hold";
    return false;
  }
  StoreAt(payload.data(), static_cast<TStored>(value));
  return true;
}

bool StoreText(std::string_view strText, std::vector<uint8_t>& payload, std::string& strFault) {
  std::string strBytes;
  if (!Cp949FromUtf8(strText, strBytes)) {
    strFault = "the text can't be written in code page 949";
    return false;
  }
  if (strBytes.size() > payload.size()) {
    strFault = "the text needs " + std::to_string(strBytes.size()) + " bytes and the tag has " +
               std::to_string(payload.size());
    return false;
  }
  std::copy(strBytes.begin(), strBytes.end(), payload.begin());
  return true;
}

template <class T>
std::string NumberText(T value) {
  char szText[64];
  const auto written = std::to_chars(std::begin(szText), std::end(szText), value);
  return {szText, written.ptr};
}

std::string HexText(std::span<const uint8_t> bytes) {
  constexpr char kHex[] = "0123456789abcdef";
  std::string strText;
  for (const uint8_t byte : bytes) strText += {kHex[byte >> 4], kHex[byte & 15]};
  return strText;
}

}  // namespace

CTagValue TagValueOf(uint8_t type, std::span<const uint8_t> payload) {
  const uint8_t* p = payload.data();
  if (type == kTagByte && payload.size() == 1) return int32_t{*p};
  if (type == kTagInteger && payload.size() == 2) return int32_t{LoadAt<int16_t>(p)};
  if (type == kTagInteger && payload.size() == 4) return LoadAt<int32_t>(p);
  if (type == kTagFloat && payload.size() == 4) return LoadAt<float>(p);
  if (type != kTagText) return {};
  const std::string_view strBytes(reinterpret_cast<const char*>(p), payload.size());
  return Utf8FromCp949(strBytes.substr(0, strBytes.find('\0')));
}

std::string TagValueText(uint8_t type, std::span<const uint8_t> payload) {
  const CTagValue value = TagValueOf(type, payload);
  if (const auto* pNumber = std::get_if<int32_t>(&value)) return NumberText(*pNumber);
  if (const auto* pFloat = std::get_if<float>(&value)) return NumberText(*pFloat);
  if (const auto* pText = std::get_if<std::string>(&value)) return *pText;
  return HexText(payload);
}

bool PayloadFromText(uint8_t type, uint16_t nSize, std::string_view strText,
                     std::vector<uint8_t>& payload, std::string& strFault) {
  payload.assign(nSize, 0);
  if (type == kTagByte && nSize == 1)
    return StoreNumber<uint8_t, int32_t>(strText, payload, strFault);
  if (type == kTagInteger && nSize == 2) {
    return StoreNumber<int16_t, int32_t>(strText, payload, strFault);
  }
  if (type == kTagInteger && nSize == 4) {
    return StoreNumber<int32_t, int32_t>(strText, payload, strFault);
  }
  if (type == kTagFloat && nSize == 4) return StoreNumber<float, float>(strText, payload, strFault);
  if (type == kTagText) return StoreText(strText, payload, strFault);
  strFault = "the tag's type is unknown";
  return false;
}

}  // namespace kvl
