#include "platform/text_encoding.h"

#include <iconv.h>

#include <cerrno>
#include <cstdint>

namespace kvl {
namespace {

// One converter of the C library, open for as long as this object lives.
class CConverter {
 public:
  CConverter(const char* to, const char* from) : m_converter(iconv_open(to, from)) {}
  ~CConverter() {
    if (IsOpen()) iconv_close(m_converter);
  }
  CConverter(const CConverter&) = delete;
  CConverter& operator=(const CConverter&) = delete;

  // Appends what `input` converts to. Where a byte can't be converted, appends `replacement` and
  // goes on behind the byte, or gives up with false if there is no replacement.
  bool Append(std::string_view input, std::string& output, const char* replacement) {
    if (!IsOpen()) return false;
    iconv(m_converter, nullptr, nullptr, nullptr, nullptr);
    char* in = const_cast<char*>(input.data());  // iconv's signature; it writes nothing there
    size_t inLeft = input.size();
    while (inLeft > 0) {
      char chunk[512];
      char* out = chunk;
      size_t outLeft = sizeof chunk;
      const size_t result = iconv(m_converter, &in, &inLeft, &out, &outLeft);
      const int error = result == static_cast<size_t>(-1) ? errno : 0;
      output.append(chunk, static_cast<size_t>(out - chunk));
      if (error == 0 || error == E2BIG) continue;
      if (replacement == nullptr) return false;
      output += replacement;
      ++in;
      --inLeft;
    }
    return true;
  }

 private:
  bool IsOpen() const { return m_converter != reinterpret_cast<iconv_t>(-1); }
  iconv_t m_converter;
};

constexpr const char* kReplacement = "\xEF\xBF\xBD";  // U+FFFD in UTF-8

}  // namespace

std::string Utf8FromCp949(std::string_view bytes) {
  thread_local CConverter converter("UTF-8", "CP949");
  std::string text;
  if (converter.Append(bytes, text, kReplacement)) return text;
  // Without the code page only its ASCII half can be told.
  for (const char c : bytes) {
    if (static_cast<unsigned char>(c) < 0x80) {
      text += c;
    } else {
      text += kReplacement;
    }
  }
  return text;
}

bool Cp949FromUtf8(std::string_view text, std::string& bytes) {
  thread_local CConverter converter("CP949", "UTF-8");
  std::string converted;
  if (!converter.Append(text, converted, nullptr)) return false;
  bytes = std::move(converted);
  return true;
}

bool Utf16FromCp949(std::string_view bytes, std::u16string& wide) {
  thread_local CConverter converter("UTF-16LE", "CP949");
  std::string converted;
  if (!converter.Append(bytes, converted, nullptr)) return false;
  std::u16string result;
  for (size_t i = 0; i + 1 < converted.size(); i += 2) {
    result += static_cast<char16_t>(static_cast<uint8_t>(converted[i]) |
                                    static_cast<uint8_t>(converted[i + 1]) << 8);
  }
  wide = std::move(result);
  return true;
}

std::string Utf8FromUtf16(std::u16string_view wide) {
  std::string text;
  for (size_t i = 0; i < wide.size(); ++i) {
    uint32_t code = wide[i];
    const bool high = code >= 0xD800 && code < 0xDC00;
    if (high && i + 1 < wide.size() && wide[i + 1] >= 0xDC00 && wide[i + 1] < 0xE000) {
      code = 0x10000 + ((code - 0xD800) << 10) + (wide[++i] - 0xDC00u);
    } else if (code >= 0xD800 && code < 0xE000) {
      code = 0xFFFD;
    }
    if (code < 0x80) {
      text += static_cast<char>(code);
    } else if (code < 0x800) {
      text += static_cast<char>(0xC0 | code >> 6);
      text += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
      text += static_cast<char>(0xE0 | code >> 12);
      text += static_cast<char>(0x80 | (code >> 6 & 0x3F));
      text += static_cast<char>(0x80 | (code & 0x3F));
    } else {
      text += static_cast<char>(0xF0 | code >> 18);
      text += static_cast<char>(0x80 | (code >> 12 & 0x3F));
      text += static_cast<char>(0x80 | (code >> 6 & 0x3F));
      text += static_cast<char>(0x80 | (code & 0x3F));
    }
  }
  return text;
}

}  // namespace kvl
