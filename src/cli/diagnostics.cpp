#include "cli/diagnostics.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "platform/text_encoding.h"

namespace kvl::cli {
namespace {

struct CSpan {
  size_t m_nBegin = 0;
  size_t m_nEnd = 0;
};

bool IsBlank(char c) {
  return static_cast<signed char>(c) <= ' ';
}

// The words of a declaration, or the first word and the operands of a main line, as they stand in
// the source.
std::vector<CSpan> FindWords(std::string_view line, bool isMain) {
  std::vector<CSpan> words;
  CSpan word;
  bool inQuote = false;
  const auto end = [&] {
    if (word.m_nEnd > word.m_nBegin) words.push_back(word);
  };
  for (size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    const bool comment = c == ';' || line.substr(i, 2) == "//";
    if ((comment && !inQuote) || c == '\n' || c == '\r') break;
    if (c == '"') inQuote = !inQuote;
    const bool blank = IsBlank(c) && !inQuote;
    // Commas part operands, blanks the first word of a main line and every word of a declaration.
    const bool parts = isMain && !words.empty() ? c == ',' && !inQuote : blank;
    if (parts) {
      end();
      word = {};
    } else if (!blank) {
      if (word.m_nEnd == 0) word.m_nBegin = i;
      word.m_nEnd = i + 1;
    }
  }
  end();
  return words;
}

// Source text for the screen. Scripts are in code page 949 or, where somebody's editor knows no
// better, in UTF-8.
std::string Shown(std::string_view bytes) {
  std::string text(bytes);
  std::replace(text.begin(), text.end(), '\t', ' ');
  std::string ignored;
  return Cp949FromUtf8(text, ignored) ? text : Printable(text);
}

// How an instruction is written, "PRINT text|any[, mode]".
std::string UsageOf(int32_t command) {
  const CInstruction& instruction = kInstructions[command - 1];
  std::string usage = fmt::format("{} ", instruction.m_keyword);
  std::string_view forms = instruction.m_forms;
  for (bool first = true; !forms.empty(); first = false) {
    std::string_view form = forms.substr(0, forms.find(' '));
    forms.remove_prefix(std::min(forms.size(), form.size() + 1));
    const bool optional = form.ends_with('?');
    if (optional) form.remove_suffix(1);
    usage +=
        fmt::format("{}{}{}{}", optional ? "[" : "", first ? "" : ", ", form, optional ? "]" : "");
  }
  return usage;
}

void PrintSource(const CFault& fault, std::string_view chunk, int32_t line,
                 const CPainter& painter) {
  chunk = chunk.substr(0, chunk.find_first_of("\r\n"));
  const std::vector<CSpan> words = FindWords(chunk, fault.m_place == EFaultPlace::MainLine);
  const auto at = static_cast<size_t>(fault.m_nOperand) + 1;
  const CSpan word = at < words.size() ? words[at] : CSpan{};
  const size_t before = WidthOf(Shown(chunk.substr(0, word.m_nBegin)));
  const size_t width = WidthOf(Shown(chunk.substr(word.m_nBegin, word.m_nEnd - word.m_nBegin)));
  const std::string marker = fmt::format("^{:~<{}}", "", std::max<size_t>(width, 1) - 1);
  fmt::print(stderr, "{:>6} | {}\n", line, Shown(chunk));
  fmt::print(stderr, "{:>6} | {:{}}{}\n", "", "", before, painter.Paint(EColor::Green, marker));
  if (fault.m_nCommand == kNoCommand) return;
  fmt::print(stderr, "{:>6} = {}\n", "", UsageOf(fault.m_nCommand));
}

// For each chunk the number of its line in an editor.
std::vector<int32_t> CountLines(const std::vector<std::string>& chunks) {
  std::vector<int32_t> numbers;
  numbers.reserve(chunks.size());
  int32_t line = 1;
  for (const std::string& chunk : chunks) {
    numbers.push_back(line);
    if (chunk.ends_with('\n')) ++line;
  }
  return numbers;
}

// By line, as a compiler tells them; those without a line behind all others.
std::vector<const CFault*> SortFaults(const std::vector<CFault>& faults) {
  std::vector<const CFault*> sorted;
  sorted.reserve(faults.size());
  for (const CFault& fault : faults) sorted.push_back(&fault);
  const auto key = [](const CFault* fault) {
    return fault->m_nLine == -1 ? std::numeric_limits<int32_t>::max() : fault->m_nLine;
  };
  std::stable_sort(sorted.begin(), sorted.end(),
                   [&](const CFault* left, const CFault* right) { return key(left) < key(right); });
  return sorted;
}

}  // namespace

ELanguage LanguageOf(const std::string& name) {
  if (name == "ko") return ELanguage::Korean;
  if (name == "en") return ELanguage::English;
  for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* locale = std::getenv(variable);
    if (locale == nullptr || *locale == '\0') continue;
    return std::string_view(locale).starts_with("ko") ? ELanguage::Korean : ELanguage::English;
  }
  return ELanguage::English;
}

void PrintFaults(const std::string& script, const CKVLSyntax& syntax, ELanguage language,
                 const CPainter& painter) {
  const std::vector<int32_t> lines = CountLines(syntax.Lines());
  const std::string error = painter.Paint(EColor::Red, "error:");
  for (const CFault* sorted : SortFaults(syntax.Errors())) {
    const CFault& fault = *sorted;
    const CMessageText& text = TextOf(fault.m_message);
    const std::string message =
        FillMessage(language == ELanguage::Korean ? text.m_korean : text.m_english,
                    Printable(fault.m_strShown));
    const auto chunk = static_cast<size_t>(fault.m_nLine - 1);
    const bool hasLine = fault.m_nLine > 0 && chunk < lines.size();
    const std::string place =
        hasLine ? fmt::format("{}:{}:", script, lines[chunk]) : fmt::format("{}:", script);
    fmt::print(stderr, "{} {} {}\n", painter.Paint(EColor::Bold, place), error, message);
    if (hasLine) PrintSource(fault, syntax.Lines()[chunk], lines[chunk], painter);
    // Of a file that can't be read there is nothing else to say.
    if (fault.m_message == EMessage::FileUnreadable) break;
  }
}

bool PassesVerification(const std::string& script, std::string_view text, const CContext& context) {
  CKVLSyntax syntax;
  syntax._CompileMainScript1(syntax.LoadText(text));
  syntax._VerifyMainScript();
  PrintFaults(script, syntax, LanguageOf(""), CPainter(context.m_color, EPrintStream::kError));
  return syntax.GetErrorCount() == 0;
}

}  // namespace kvl::cli
