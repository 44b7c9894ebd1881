// Scripts that are nearly right, made from the input by the language's grammar, less the lines that
// are not right. What the verifier
// passes must be known to the engine under the same names and numbers, and must run for some
// passes without leaving its variables.
#include "verified_scripts.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "script/KVL.h"
#include "store/TableOwner.h"
#include "verifier/KVLSyntax.h"

namespace kvl {
namespace {

constexpr EAudience kAudience = EAudience::kThisProcess;
constexpr int64_t kMaxSteps = 2000;
constexpr int kPasses = 3;

// Decisions, one input byte each; when the input is used up all are 0.
class CChoices {
 public:
  explicit CChoices(std::span<const uint8_t> input) : m_input(input) {}

  // 0 to `count` less 1.
  size_t Below(size_t count) { return Byte() % count; }
  bool OneIn(size_t count) { return Below(count) == count - 1; }
  std::string Of(std::span<const std::string_view> texts) {
    return std::string(texts[Below(texts.size())]);
  }
  std::string_view Bytes(size_t count) {
    const std::span<const uint8_t> bytes = m_input.subspan(0, std::min(count, m_input.size()));
    m_input = m_input.subspan(bytes.size());
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
  }
  bool Done() const { return m_input.empty(); }

 private:
  uint8_t Byte() {
    if (m_input.empty()) return 0;
    const uint8_t byte = m_input.front();
    m_input = m_input.subspan(1);
    return byte;
  }

  std::span<const uint8_t> m_input;
};

constexpr std::string_view kLongest = "A123456789012345678901234567890";  // 31 bytes

constexpr std::string_view kBuffers[] = {"BUF", "WIDE", "REAL", "ONE"};
constexpr std::string_view kScalars[] = {"N", "B", "D", kLongest};
constexpr std::string_view kTexts[] = {"E", "NONE", "LEVEL", "STATUS", "MARK%"};
constexpr std::string_view kLabels[] = {"BEGIN", "END", "L1", "L2", kLongest};
constexpr std::string_view kOdd[] = {"n",  "Q",     "",  "[",    "BUF[",  "N]",  "\"",  "%",
                                     "L9", "A\xB0", "-", "0x10", "1.5.2", "-1x", "12B", "FFH"};
constexpr std::string_view kNumbers[] = {
    "0",          "1",    "2",          "3",  "7",    "10",         "255",
    "256",        "8191", "2147483647", "-1", "-2.5", "1E9",        "0FFH",
    "0FFFFFFFFH", "101B", "1.9",        "+4", "300",  "4294967296", "99999999999999999999"};
constexpr std::string_view kQuoted[] = {
    "\"\"",     "\"x\"",     "\"a, b;//\"", "\"<02>ok<0D><0A>\"", "\"<<\"",   "\"<4\"",
    "\"<ZZ>\"", "\"LEVEL\"", "\"COUNT\"",   "\"STATUS\"",         "\"12ab\"", "\"\xB0\xA1\""};
// Ahead of BEGIN:, and mostly right.
constexpr std::string_view kDeclarations[] = {"VAR N% 3",
                                              "VAR B$ 200",
                                              "VAR D# 2.5",
                                              "DIM BUF$ 10",
                                              "DIM WIDE% 3",
                                              "DIM REAL# 2",
                                              "DIM ONE$ 1",
                                              "EQU E \"a<42>c\"",
                                              "EQU NONE \"\"",
                                              "ASSIGN LEVEL \"LEVEL\"",
                                              "EQU STATUS \"STATUS\"",
                                              "EQU MARK% \"\xB0\xA1\"",
                                              "VAR A123456789012345678901234567890% 1",
                                              "EXPORT N",
                                              "OPEN MEDIA TCP",
                                              "TABLE_NAME \"T\""};
constexpr std::string_view kOddDeclarations[] = {
    "VAR N# 1",       "DIM BUF[2]$ 9000",
    "VAR N[0]# 7",    "EQU ONE[0] \"x\"",
    "DIM BUF$ 0",     "DIM HUGE$ 16777217",
    "DIM M$ 1048576", "EQU X 5",
    "EQU Y \"",       "VAR A1234567890123456789012345678901% 1",
    "EXPORT Q",       "OPEN IP 12345678901234567890",
    "; BEGIN:",       "VAR N",
    "MYVAR X% 1",     "VAR % 0",
    "\tDIM\tT%\t300", "ASSIGN Z \"\"\"\""};

// Makes the text of a script.
class CGrammar {
 public:
  explicit CGrammar(CChoices& choices) : m_choices(choices) {}

  std::string Script() {
    std::string text;
    for (const std::string_view declaration : kDeclarations) {
      if (m_choices.OneIn(16)) text += m_choices.Of(kOddDeclarations) + "\n";
      if (!m_choices.OneIn(24)) text += std::string(declaration) + "\n";
    }
    text += "BEGIN:\n";
    bool labels[2] = {};
    for (size_t lines = m_choices.Below(64); lines > 0 && !m_choices.Done(); --lines) {
      const size_t label = m_choices.Below(12);
      if (label < 2 && !labels[label]) {
        labels[label] = true;
        text += std::string(kLabels[2 + label]) + ":\n";
      }
      text += Line() + (m_choices.OneIn(8) ? " ; note\n" : "\n");
    }
    for (size_t label = 0; label < 2; ++label) {
      if (!labels[label]) text += std::string(kLabels[2 + label]) + ":\n";
    }
    return text + std::string(kLongest) + ":\nEND:\n";
  }

 private:
  std::string Line() {
    const CInstruction& instruction = kInstructions[m_choices.Below(std::size(kInstructions))];
    std::string line(instruction.m_keyword);
    std::string_view forms = instruction.m_forms;
    for (bool first = true; !forms.empty(); first = false) {
      std::string_view form = forms.substr(0, forms.find(' '));
      forms.remove_prefix(std::min(forms.size(), form.size() + 1));
      if (form.ends_with('?')) {
        if (m_choices.Below(2) == 0) break;
        form.remove_suffix(1);
      }
      line += (first ? " " : ", ") + Operand(form);
    }
    if (m_choices.OneIn(64)) line += ", 1";
    return line;
  }

  // One of the forms that `|` parts, or in some cases anything.
  std::string Operand(std::string_view form) {
    if (m_choices.OneIn(32)) return m_choices.Of(kOdd);
    if (m_choices.OneIn(32)) return Element();
    for (size_t bar; (bar = form.find('|')) != form.npos;) {
      if (m_choices.Below(2) == 0) {
        form = form.substr(0, bar);
      } else {
        form.remove_prefix(bar + 1);
      }
    }
    if (form == "buffer") return m_choices.Of(kBuffers);
    if (form == "scalar") return m_choices.Of(kScalars);
    if (form == "text") return m_choices.Of(kQuoted);
    if (form == "label") return m_choices.Of(kLabels);
    if (form == "digits") return m_choices.Of(std::span(kNumbers).first(10));
    if (form == "mode") return m_choices.Below(2) == 0 ? "T" : "H";
    if (form == "tag") return m_choices.Of(kTexts);
    if (form == "place") return m_choices.Below(3) == 0 ? m_choices.Of(kTexts) : Element();
    if (form == "value" && m_choices.Below(2) == 0) return m_choices.Of(kNumbers);
    if (form == "value" && m_choices.Below(2) == 0) return Element();
    return Name();
  }

  std::string Name() {
    const size_t kind = m_choices.Below(4);
    if (kind == 0) return m_choices.Of(kBuffers);
    return kind == 1 ? m_choices.Of(kTexts) : m_choices.Of(kScalars);
  }

  std::string Element(int depth = 0) {
    std::string index = Term(depth);
    while (m_choices.OneIn(3)) index += (m_choices.Below(3) == 0 ? "-" : "+") + Term(depth);
    return Name() + "[" + index + "]";
  }

  std::string Term(int depth) {
    const size_t kind = m_choices.Below(6);
    if (kind == 5 && depth < 2) return Element(depth + 1);
    return kind < 3 ? m_choices.Of(kScalars) : m_choices.Of(kNumbers);
  }

  CChoices& m_choices;
};

class CSilentOwner : public CEngineOwner {
 public:
  void Pause(int32_t /*milliseconds*/, EPause /*reason*/) override {}
  void Sync(int32_t /*value*/) override {}
};

void Require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "verified, but %s\n", what);
  std::abort();
}

// What the verifier knows, the engine knows too.
void Compare(const CKVLSyntax& syntax, const CKVL& engine) {
  for (const CVariableTable& variable : syntax.Variables()) {
    const CVariableTable* found = engine.FindVariableTable(variable.m_szName);
    Require(found != nullptr, "a variable is not declared");
    Require(found->m_nKind == variable.m_nKind, "a variable is of another kind");
  }
  Require(syntax.Variables().size() == engine.Variables().size(), "there are other variables");
  for (const CLabelTable& label : syntax.Labels()) {
    const CLabelTable* found = engine.FindLabelTable(label.m_szLabel);
    Require(found != nullptr && found->m_nIndex == label.m_nIndex, "a label is elsewhere");
  }
  Require(syntax.Commands().size() == engine.Commands().size(), "there are other instructions");
  for (size_t i = 0; i < syntax.Commands().size(); ++i) {
    const CCommandTable& left = syntax.Commands()[i];
    const CCommandTable& right = engine.Commands()[i];
    Require(
        left.m_nCommand == right.m_nCommand && left.m_nOperand == right.m_nOperand &&
            std::equal(&left.m_szOperand[0][0], &left.m_szOperand[0][0] + sizeof left.m_szOperand,
                       &right.m_szOperand[0][0]),
        "an instruction is another one");
    if (left.m_nCommand < kJP || left.m_nCommand > kJPGE) continue;
    Require(engine.FindLabelTable(left.m_szOperand[0]) != nullptr, "a jump leads nowhere");
  }
}

// A table with tags of each kind, laid once.
const char* TableName() {
  static CTableOwner owner("verified_scripts", kAudience);
  static const bool laid = [] {
    CTagSet tags;
    ParseTagFile("LEVEL float\nCOUNT int32\nSTATUS text 8\n", tags);
    return owner.Create(tags, false);
  }();
  Require(laid, "no table could be laid");
  return "verified_scripts";
}

std::unique_ptr<CKVLSyntax> Verify(std::string_view script) {
  auto syntax = std::make_unique<CKVLSyntax>();
  syntax->_CompileMainScript1(syntax->LoadText(script));
  syntax->_VerifyMainScript();
  return syntax;
}

// The script without the lines that the verifier refuses.
std::string DropFaults(std::string_view script) {
  const auto syntax = Verify(script);
  std::vector<bool> faulty(syntax->Lines().size());
  for (const CFault& fault : syntax->Errors()) {
    if (fault.m_nLine > 0) faulty[static_cast<size_t>(fault.m_nLine) - 1] = true;
  }
  std::string rest;
  for (size_t i = 0; i < faulty.size(); ++i) {
    if (!faulty[i]) rest += syntax->Lines()[i];
  }
  return rest;
}

}  // namespace

bool FuzzVerifiedScripts(std::span<const uint8_t> input) {
  CChoices choices(input);
  const std::string script = DropFaults(CGrammar(choices).Script());
  const auto syntax = Verify(script);
  if (syntax->GetErrorCount() > 0) return false;
  CSilentOwner owner;
  CKVL engine(&owner, TableName(), kAudience);
  engine._CompileMainScript1(engine.LoadText(script));
  Compare(*syntax, engine);
  engine.SetMaxSteps(kMaxSteps);
  for (int pass = 0; pass < kPasses; ++pass) {
    // A block of its own, so that reading past the batch is found.
    const std::string_view bytes = choices.Bytes(choices.Below(64));
    const std::vector<uint8_t> batch(bytes.begin(), bytes.end());
    engine.Begin(batch.data(), static_cast<int32_t>(batch.size()));
  }
  return true;
}

}  // namespace kvl
