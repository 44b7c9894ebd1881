#include "verifier/messages.h"

#include <array>
#include <iterator>

#include "platform/text_encoding.h"

namespace kvl {
namespace {

using CEncodedTexts = std::array<std::string, std::size(kMessageTexts)>;

CEncodedTexts EncodeTexts() {
  CEncodedTexts texts;
  for (size_t i = 0; i < texts.size(); ++i) {
    // Where the system lacks the code page, English says the same in plain ASCII.
    if (!Cp949FromUtf8(kMessageTexts[i].m_korean, texts[i])) texts[i] = kMessageTexts[i].m_english;
  }
  return texts;
}

}  // namespace

std::string FillMessage(std::string_view text, std::string_view operand) {
  const size_t place = text.find("%s");
  std::string filled(text.substr(0, place));
  if (place == text.npos) return filled;
  filled += operand;
  return filled += text.substr(place + 2);
}

std::string FormatMessage(EMessage message, int32_t line, std::string_view operand) {
  static const CEncodedTexts texts = EncodeTexts();
  std::string formatted = "error : ";
  if (line != kNoLine) formatted.append("line ").append(std::to_string(line)).append(", ");
  return formatted += FillMessage(texts[static_cast<size_t>(message)], operand);
}

}  // namespace kvl
