#include "script/layout.h"

#include <algorithm>
#include <utility>

#include "script/source_reader.h"

namespace kvl {
namespace {

constexpr size_t kMaxBody = kMaxChunk - 1;   // what the reader takes as one line, without its end
constexpr size_t kMaxColumn = 40;            // wider code does not push the comments of its block
constexpr size_t kIndent = 4;                // of an instruction
constexpr std::string_view kBlanks = " \t";  // outside quotes; other low bytes are not ours to move
constexpr std::string_view kGap = "  ";      // between code and comment

constexpr char kTooLong[] = "is longer than 254 bytes: the reader cuts it in pieces";
constexpr char kOpenQuote[] = "leaves a quote open";
constexpr char kStrayByte[] = "holds control or non-ASCII bytes outside quotes";
constexpr char kQuotedWord[] = "has a quote in its first word";
constexpr char kNoLineEnd[] = "has no line end, so its last words do not count";
constexpr char kTooWide[] = "would exceed 254 bytes";
constexpr char kWouldChange[] = "would mean something else in another layout";

enum class EForm { Blank, Comment, Declaration, Label, Instruction, Kept };

struct CSourceLine {
  size_t m_nLine = 0;
  std::string_view m_raw;   // with its line end
  std::string_view m_body;  // without it
  CSectionReader m_before;  // the section in front of the line
  EForm m_form = EForm::Blank;
  const char* m_pszReason = nullptr;  // of a kept line
  std::vector<std::string> m_words;   // as the reader splits them, every byte unchanged
  std::string_view m_comment;
  std::string m_code;
  size_t m_nCommentColumn = 0;
};

// What the reader makes of a line: the tokens of its statements, and the section behind it.
using CMeaning = std::vector<std::vector<std::string>>;

CMeaning Read(CSectionReader& section, std::string_view raw) {
  CMeaning meaning;
  std::string main;
  bool isMain = false;
  while (!raw.empty()) {
    const std::string_view line = CSectionReader::Trim(TakeChunk(raw));
    isMain = section.IsMain(line);
    std::vector<std::string> tokens;
    if (!isMain) {
      SplitDeclaration(line, tokens);
    } else if (NormaliseMain(line, main)) {
      SplitMain(main, tokens);
      // The verifier looks for these words in the line as it stands.
      for (const char* word : {"BEGIN:", "END:"}) {
        if (main.find(word) != main.npos) tokens.emplace_back(word);
      }
    }
    if (!tokens.empty()) meaning.push_back(std::move(tokens));
  }
  meaning.push_back({isMain ? "main" : "declarations"});
  return meaning;
}

bool SameMeaning(CSectionReader section, std::string_view raw, std::string_view other) {
  CSectionReader twin = section;
  return Read(section, raw) == Read(twin, other);
}

std::string_view TrimBlanks(std::string_view text) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == text.npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// Cuts a body into code and comment; the code gets spaces for its tabs outside quotes. Returns
// why the body can't be laid out, or null.
const char* CutComment(std::string_view body, std::string& code, std::string_view& comment) {
  bool inQuote = false;
  for (size_t i = 0; i < body.size(); ++i) {
    const char c = body[i];
    if (c == '"') inQuote = !inQuote;
    if (c == '\r') return kStrayByte;  // the reader ends the line here
    if (!inQuote && StartsComment(body, i)) {
      comment = TrimBlanks(body.substr(i));
      return comment.find('\r') == comment.npos ? nullptr : kStrayByte;
    }
    const bool isTab = c == '\t' && !inQuote;
    if (!inQuote && !isTab && static_cast<signed char>(c) < ' ') return kStrayByte;
    code += isTab ? ' ' : c;
  }
  return inQuote ? kOpenQuote : nullptr;
}

// Fills in the form, the words and the comment. Returns why the line must be kept, or null.
const char* Parse(CSourceLine& line, bool isMain) {
  if (line.m_body.size() > kMaxBody) return kTooLong;
  std::string code;
  if (const char* reason = CutComment(line.m_body, code, line.m_comment)) return reason;
  if (TrimBlanks(code).empty()) {
    line.m_form = EForm::Comment;
  } else if (!isMain) {
    SplitDeclaration(code + "\n", line.m_words);
    line.m_form = EForm::Declaration;
  } else {
    SplitMain(TrimBlanks(code), line.m_words);
    const std::string& first = line.m_words[0];
    if (first.find('"') != first.npos) return kQuotedWord;
    const bool isLabel = line.m_words.size() == 1 && first.back() == ':';
    line.m_form = isLabel ? EForm::Label : EForm::Instruction;
  }
  return nullptr;
}

// The lines of a text that the layout keeps: of a run of blank lines one, at the ends none.
std::vector<CSourceLine> ParseLines(std::string_view text) {
  std::vector<CSourceLine> lines;
  CSectionReader section;
  for (size_t number = 1; !text.empty(); ++number) {
    CSourceLine line;
    line.m_nLine = number;
    line.m_raw = text.substr(0, std::min(text.find('\n'), text.size() - 1) + 1);
    line.m_body = line.m_raw.substr(0, line.m_raw.find_last_not_of("\r\n") + 1);
    line.m_before = section;
    text.remove_prefix(line.m_raw.size());
    const bool isMain = Read(section, line.m_raw).back().front() == "main";
    if (line.m_body.find_first_not_of(" \t\r") == line.m_body.npos) {
      if (lines.empty() || lines.back().m_form == EForm::Blank) continue;
    } else {
      line.m_pszReason = Parse(line, isMain);
      if (line.m_pszReason != nullptr) line.m_form = EForm::Kept;
    }
    lines.push_back(std::move(line));
  }
  if (!lines.empty() && lines.back().m_form == EForm::Blank) lines.pop_back();
  return lines;
}

// Neighbouring lines of one group share their columns; 0 stands alone.
int GroupOf(const CSourceLine& line) {
  switch (line.m_form) {
    case EForm::Label:
    case EForm::Instruction:
      return 1;
    case EForm::Declaration:
      if (line.m_words[0] == "TABLE_NAME") return 2;
      return line.m_words[0] == "OPEN" ? 3 : 4;
    default:
      return 0;
  }
}

std::string Padded(std::string text, size_t width) {
  if (text.size() < width) text.append(width - text.size(), ' ');
  return text;
}

using CBlock = std::pair<std::vector<CSourceLine>::iterator, std::vector<CSourceLine>::iterator>;

void WriteDeclarations(CBlock block) {
  size_t widths[2] = {};
  for (auto line = block.first; line != block.second; ++line) {
    for (size_t i = 0; i < 2 && i + 1 < line->m_words.size(); ++i) {
      const size_t size = line->m_words[i].size();
      if (size <= kMaxColumn) widths[i] = std::max(widths[i], size);
    }
  }
  for (auto line = block.first; line != block.second; ++line) {
    for (size_t i = 0; i < line->m_words.size(); ++i) {
      const bool last = i + 1 == line->m_words.size();
      line->m_code +=
          last ? line->m_words[i] : Padded(line->m_words[i], i < 2 ? widths[i] : 0) + ' ';
    }
  }
}

void WriteInstruction(CSourceLine& line) {
  line.m_code = std::string(kIndent, ' ') + line.m_words[0];
  for (size_t i = 1; i < line.m_words.size(); ++i) {
    line.m_code += (i == 1 ? " " : ", ") + line.m_words[i];
  }
}

void WriteBlock(CBlock block) {
  if (block.first->m_form == EForm::Declaration) WriteDeclarations(block);
  size_t column = 0;
  for (auto line = block.first; line != block.second; ++line) {
    if (line->m_form == EForm::Label) line->m_code = line->m_words[0];
    if (line->m_form == EForm::Instruction) WriteInstruction(*line);
    const size_t size = line->m_code.size();
    if (!line->m_comment.empty() && size <= kMaxColumn) column = std::max(column, size);
  }
  for (auto line = block.first; line != block.second; ++line) line->m_nCommentColumn = column;
}

// Comment lines take the place of the code below them.
void IndentComments(std::vector<CSourceLine>& lines) {
  size_t indent = 0;
  for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
    if (line->m_form == EForm::Comment) {
      line->m_code.assign(indent, ' ');
    } else if (line->m_form != EForm::Blank) {
      indent = line->m_form == EForm::Instruction ? kIndent : 0;
    }
  }
}

std::string BodyOf(const CSourceLine& line) {
  std::string body = line.m_code;
  if (line.m_comment.empty()) return body;
  if (line.m_form != EForm::Comment) (body = Padded(body, line.m_nCommentColumn)) += kGap;
  return body += line.m_comment;
}

void Append(CLayout& layout, const CSourceLine& line, std::string_view lineEnd) {
  const char* reason = line.m_pszReason;
  if (reason == nullptr) {
    std::string text = BodyOf(line);
    const bool fits = text.size() <= kMaxBody;
    text += lineEnd;
    if (fits && SameMeaning(line.m_before, line.m_raw, text)) {
      layout.m_text += text;
      return;
    }
    reason = !fits ? kTooWide : line.m_raw.back() == '\n' ? kWouldChange : kNoLineEnd;
  }
  layout.m_kept.push_back({line.m_nLine, reason});
  std::string text(line.m_body);
  text += lineEnd;
  layout.m_text += SameMeaning(line.m_before, line.m_raw, text) ? text : line.m_raw;
}

}  // namespace

CLayout LayOutScript(std::string_view text) {
  std::vector<CSourceLine> lines = ParseLines(text);
  for (auto first = lines.begin(); first != lines.end();) {
    const int group = GroupOf(*first);
    auto last = first + 1;
    while (last != lines.end() && group != 0 && GroupOf(*last) == group) ++last;
    WriteBlock({first, last});
    first = last;
  }
  IndentComments(lines);
  CLayout layout;
  if (lines.empty()) return layout;
  const std::string_view lineEnd = lines.front().m_raw.ends_with("\r\n") ? "\r\n" : "\n";
  for (const CSourceLine& line : lines) Append(layout, line, lineEnd);
  return layout;
}

}  // namespace kvl
