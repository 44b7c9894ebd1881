#include "cli/output.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "cli/commands.h"
#include "platform/text_encoding.h"

namespace kvl::cli {
namespace {

int DigitOf(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

const char* CodeOf(EColor color) {
  switch (color) {
    case EColor::Bold:
      return "1";
    case EColor::Dim:
      return "2";
    case EColor::Red:
      return "1;31";
    case EColor::Green:
      return "32";
    case EColor::Cyan:
      return "36";
    case EColor::Plain:
      break;
  }
  return "0";
}

}  // namespace

std::string JsonLine(const CJson& object) {
  return object.dump(-1, ' ', false, CJson::error_handler_t::replace);
}

void PrintJson(const CJson& object) {
  fmt::print("{}\n", JsonLine(object));
}

std::string ToHex(std::span<const uint8_t> bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const uint8_t byte : bytes) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

std::string ToHex(std::string_view bytes) {
  return ToHex({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()});
}

bool FromHex(std::string_view text, std::vector<uint8_t>& bytes) {
  int high = -1;
  for (const char c : text) {
    if (c == ' ' && high < 0) continue;
    const int digit = DigitOf(c);
    if (digit < 0) return false;
    if (high < 0) {
      high = digit;
    } else {
      bytes.push_back(static_cast<uint8_t>(high << 4 | digit));
      high = -1;
    }
  }
  return high < 0;
}

std::string ShellWord(std::string_view text) {
  const auto plain = [](char c) {
    return static_cast<unsigned char>(c) >= 0x80 || std::isalnum(static_cast<unsigned char>(c)) ||
           std::string_view("_-./:,+@%").find(c) != std::string_view::npos;
  };
  if (!text.empty() && std::ranges::all_of(text, plain)) return std::string(text);
  std::string word = "'";
  for (const char c : text) word += c == '\'' ? "'\\''" : std::string(1, c);
  return word + '\'';
}

std::string Printable(std::string_view bytes) {
  return PrintableUtf8(Utf8FromCp949(bytes));
}

std::string PrintableUtf8(std::string_view text) {
  std::string shown;
  for (const char c : text) {
    switch (c) {
      case '\r':
        shown += "\\r";
        break;
      case '\n':
        shown += "\\n";
        break;
      case '\t':
        shown += "\\t";
        break;
      case '\\':
        shown += "\\\\";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
          shown += fmt::format("\\x{:02x}", static_cast<unsigned>(c));
        } else {
          shown += c;
        }
    }
  }
  return shown;
}

size_t WidthOf(std::string_view utf8) {
  size_t width = 0;
  for (const char c : utf8) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x80 && byte < 0xC0) continue;
    width += byte >= 0xE3 && byte <= 0xED ? 2 : 1;
  }
  return width;
}

std::string Fit(std::string_view utf8, size_t width) {
  std::string text(utf8);
  if (width > 0 && WidthOf(text) > width) {
    while (WidthOf(text) > width - 1) {
      while ((text.back() & 0xC0) == 0x80) text.pop_back();
      text.pop_back();
    }
    text += "\u2026";
  }
  text.append(width - std::min(width, WidthOf(text)), ' ');
  return text;
}

std::string TimeText(int64_t microseconds) {
  const auto seconds = static_cast<std::time_t>(microseconds / 1000000);
  return fmt::format("{:%Y-%m-%d %H:%M:%S}.{:03}", fmt::localtime(seconds),
                     microseconds / 1000 % 1000);
}

CPainter::CPainter(const std::string& color, EPrintStream stream) {
  const char* noColor = std::getenv("NO_COLOR");
  const bool unwanted = noColor != nullptr && *noColor != '\0';
  m_bOn = color == "always" || (color == "auto" && !unwanted && IsTerminal(stream));
}

std::string CPainter::Paint(EColor color, std::string_view text) const {
  if (!m_bOn || color == EColor::Plain) return std::string(text);
  return fmt::format("\x1b[{}m{}\x1b[0m", CodeOf(color), text);
}

void FlushOutput() {
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    throw CCommandError(kFailed, kOutputFails);
  }
}

}  // namespace kvl::cli
