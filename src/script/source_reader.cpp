#include "script/source_reader.h"

#include <algorithm>
#include <fstream>

namespace kvl {
namespace {

constexpr size_t kMaxScript = size_t{64} << 20;
constexpr char kQuote = '"';

bool IsLow(char c) {
  return static_cast<signed char>(c) < ' ';
}
bool IsBlank(char c) {
  return static_cast<signed char>(c) <= ' ';
}
bool IsLineEnd(char c) {
  return c == '\r' || c == '\n';
}

// A declaration line with its blanks collapsed. The appended space is what ends its last token.
std::string NormaliseDeclaration(std::string_view line) {
  std::string output;
  bool inQuote = false;
  bool started = false;
  bool afterSpace = false;
  for (size_t i = 0; i < line.size(); ++i) {
    char c = line[i];
    if (!inQuote && (StartsComment(line, i) || IsLineEnd(c))) return output += ' ';
    if (!IsBlank(c)) started = true;
    if (c == kQuote) inQuote = !inQuote;
    if (!started) continue;
    if (IsLow(c) && !inQuote) c = ' ';
    if (!afterSpace || c != ' ') {
      output += c;
      afterSpace = false;
    }
    if (!inQuote && c == ' ') afterSpace = true;
  }
  return output;
}

// The operands behind the first word: spaces outside quotes dropped, commas outside quotes cut.
void SplitOperands(std::string_view text, std::vector<std::string>& tokens) {
  std::string token;
  bool inQuote = false;
  const auto end = [&] {
    if (!token.empty()) tokens.push_back(std::move(token));
    token.clear();
  };
  for (const char c : text) {
    if (c == kQuote) inQuote = !inQuote;
    if (c == ' ' && !inQuote) continue;
    if ((c == ',' && !inQuote) || IsLineEnd(c)) {
      end();
    } else {
      token += c;
    }
  }
  end();
}

}  // namespace

bool StartsComment(std::string_view text, size_t i) {
  return text[i] == ';' || (text[i] == '/' && i + 1 < text.size() && text[i + 1] == '/');
}

bool ReadScript(std::istream& stream, std::string& text) {
  text.clear();
  char part[16384];
  while (stream.read(part, sizeof part) || stream.gcount() > 0) {
    text.append(part, static_cast<size_t>(stream.gcount()));
    if (text.size() > kMaxScript) return false;
  }
  return !stream.bad();
}

bool ReadScript(const char* path, std::string& text) {
  std::ifstream file(path, std::ios::binary);
  return file && ReadScript(file, text);
}

std::string_view TakeChunk(std::string_view& text) {
  const size_t newline = text.substr(0, kMaxChunk).find('\n');
  const std::string_view chunk = text.substr(0, newline == text.npos ? kMaxChunk : newline + 1);
  text.remove_prefix(chunk.size());
  return chunk;
}

std::string_view CSectionReader::Trim(std::string_view chunk) {
  const size_t first = chunk.find_first_not_of(' ');
  if (first == chunk.npos) return {};
  return chunk.substr(first, chunk.find_last_not_of(' ') - first + 1);
}

bool CSectionReader::IsMain(std::string_view trimmed) {
  m_bMain =
      m_bMain || trimmed.find("BEGIN:") != trimmed.npos || trimmed.find("END:") != trimmed.npos;
  return m_bMain;
}

void SplitDeclaration(std::string_view trimmed, std::vector<std::string>& tokens) {
  std::string token;
  bool inQuote = false;
  for (const char c : NormaliseDeclaration(trimmed)) {
    if (c == kQuote) inQuote = !inQuote;
    if (c != ' ' || inQuote) {
      token += c;
    } else if (!token.empty()) {
      tokens.push_back(std::move(token));
      token.clear();
    }
  }
}

bool NormaliseMain(std::string_view trimmed, std::string& line) {
  std::string output;
  bool inQuote = false;
  for (size_t i = 0; i < trimmed.size(); ++i) {
    const char c = trimmed[i];
    const bool ends = IsLineEnd(c) || (StartsComment(trimmed, i) && !inQuote);
    if (ends && output.empty()) return false;
    if (ends) {
      line = std::move(output);
      return true;
    }
    if (c == kQuote) inQuote = !inQuote;
    if (!output.empty() || !IsBlank(c)) output += IsLow(c) ? ' ' : c;
  }
  return false;
}

void SplitMain(std::string_view line, std::vector<std::string>& tokens) {
  const size_t space = line.find(' ');
  tokens.emplace_back(line.substr(0, space));
  if (space != line.npos) SplitOperands(line.substr(space + 1), tokens);
}

}  // namespace kvl
