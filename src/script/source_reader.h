// The text of a script: reading it in chunks, telling its two sections apart, normalising and
// splitting a line. The engine and the verifier both stand on these functions, so that they see
// the same script.
//
// Bytes count as signed: everything from 0x80 up is "below" a space. Outside quotes such a byte
// is a blank; a text beyond ASCII belongs in an EQU or ASSIGN.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

#include "platform/api.h"

namespace kvl {

constexpr size_t kMaxChunk = 255;  // bytes of a chunk, newline included

// The file's bytes. False if it can't be read: it does not exist, is a directory, or exceeds 64
// MiB.
KVL_API bool ReadScript(const char* path, std::string& text);
KVL_API bool ReadScript(std::istream& stream, std::string& text);

// Cuts the first chunk off a text that is not empty: a line with its newline, or 255 bytes of a
// longer one.
std::string_view TakeChunk(std::string_view& text);

// Tells which section each chunk belongs to. Feed it a script's chunks in order.
class CSectionReader {
 public:
  // The chunk without the spaces around it.
  static std::string_view Trim(std::string_view chunk);
  // Whether this trimmed chunk stands in the main section, which begins with the first chunk that
  // holds BEGIN: or END: anywhere in it, and never ends.
  bool IsMain(std::string_view trimmed);

 private:
  bool m_bMain = false;
};

// Whether a comment starts at byte `i`, if that byte stands outside quotes.
bool StartsComment(std::string_view text, size_t i);

// The tokens of a declaration line. What no blank ends (the last word of a file without a final
// newline, an open quote) is no token.
void SplitDeclaration(std::string_view trimmed, std::vector<std::string>& tokens);

// The normalised main line into `line`. False if it yields nothing: blank, comment only, or cut
// off without a line end.
bool NormaliseMain(std::string_view trimmed, std::string& line);

// The first word of a normalised main line and its operands; at least one token.
void SplitMain(std::string_view line, std::vector<std::string>& tokens);

}  // namespace kvl
