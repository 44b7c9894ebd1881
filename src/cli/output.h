// What every command prints in the same way.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/terminal.h"

namespace kvl::cli {

using CJson = nlohmann::ordered_json;

// An object as one line of text, without a line end.
std::string JsonLine(const CJson& object);

// The same as a line on standard output.
void PrintJson(const CJson& object);

// Two lower-case digits a byte.
std::string ToHex(std::span<const uint8_t> bytes);
std::string ToHex(std::string_view bytes);

// The bytes that pairs of hexadecimal digits give; blanks between them are passed over. False,
// with `bytes` undefined, if anything else stands there.
bool FromHex(std::string_view text, std::vector<uint8_t>& bytes);

// Bytes of a line or a script for a person's eyes: text as UTF-8, control characters as \r, \n, \t
// or \xHH.
std::string Printable(std::string_view bytes);
// The same of a text that is UTF-8 already.
std::string PrintableUtf8(std::string_view text);

// A text as one word of a shell's command line, for advice that is pasted there: in quotes if it
// needs them.
std::string ShellWord(std::string_view text);

// Columns that a UTF-8 text takes on the screen: East Asian characters take two.
size_t WidthOf(std::string_view utf8);

// The text in exactly `width` columns: filled with blanks, or cut with an ellipsis at its end.
std::string Fit(std::string_view utf8, size_t width);

// "2026-03-01 12:34:56.789", local time, of microseconds since 1970.
std::string TimeText(int64_t microseconds);

// Colour, if `color` (auto, always, never), the terminal and NO_COLOR want it.
enum class EColor { Plain, Bold, Dim, Red, Green, Cyan };
class CPainter {
 public:
  CPainter(const std::string& color, EPrintStream stream);
  std::string Paint(EColor color, std::string_view text) const;

 private:
  bool m_bOn;
};

inline constexpr char kOutputFails[] = "standard output can't be written";

// Throws CCommandError if standard output took not everything.
void FlushOutput();

}  // namespace kvl::cli
