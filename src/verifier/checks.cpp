// What the verifier asks of each instruction's operands, as data: a rule for each instruction, a
// rule being a row of checks in the order in which they are made. The first that fails draws its
// message and ends the rule.
#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>
#include <span>

#include "script/decimal.h"
#include "verifier/KVLSyntax.h"

namespace kvl {
namespace {

using enum EMessage;

// Which operand texts a check is for, by their first byte. Otherwise is for those that no check
// ahead of it on the same operand was for, Always ones not counted.
enum class EWhen : uint8_t { Always, Capital, Quote, Digit, SignOrDigit, AllDigits, Otherwise };

enum class EVerdict : uint8_t { Right, Wrong, Missing };

struct CCheck;

// `text` is the operand; what stands there afterwards is what a message shows.
using FCheck = EVerdict (*)(const CKVLSyntax& syntax, const CCheck& check, std::string& text);

struct CCheck {
  uint8_t m_nOperand;  // 0-based; one that is not on the line is not checked
  EWhen m_when;
  FCheck m_check;
  EMessage m_wrong;
  EMessage m_missing;   // for a name that is not declared
  uint8_t m_nArgument;  // by check: allowed kinds of variable, least size of a text, ...
};

struct CRule {
  int32_t m_nNumber;
  EMessage m_usage;  // for a number of operands that the instruction does not take
  std::span<const CCheck> m_checks;
};

constexpr char kQuote = '"';

// Sets of variable kinds.
constexpr uint8_t KindBit(int32_t kind) {
  return static_cast<uint8_t>(1 << kind);
}
constexpr uint8_t kBuffers = KindBit(kDim);
constexpr uint8_t kScalars = KindBit(kVar);
constexpr uint8_t kBuffersAndTexts = KindBit(kDim) | KindBit(kEqu);
constexpr uint8_t kAnyKind = 0xFF;

EVerdict Require(bool right) {
  return right ? EVerdict::Right : EVerdict::Wrong;
}

EVerdict RequireKind(int32_t kind, uint8_t allowed) {
  if (kind < 0) return EVerdict::Missing;
  return Require((KindBit(kind) & allowed) != 0);
}

template <class TTest>
bool All(std::string_view text, TTest test) {
  return std::all_of(text.begin(), text.end(), test);
}

// A variable of the allowed kinds, by its name alone.
EVerdict CheckName(const CKVLSyntax& syntax, const CCheck& check, std::string& text) {
  const CVariableTable* variable = syntax.FindVariableTable(text.c_str());
  return RequireKind(variable == nullptr ? -1 : variable->m_nKind, check.m_nArgument);
}

// A variable of the allowed kinds, with or without an index.
EVerdict CheckPlace(const CKVLSyntax& syntax, const CCheck& check, std::string& text) {
  return RequireKind(syntax.GetVariableType(text.c_str()), check.m_nArgument);
}

// Any variable, but with an index only a buffer.
EVerdict CheckElement(const CKVLSyntax& syntax, const CCheck&, std::string& text) {
  const bool indexed = text.find('[') != text.npos;
  return RequireKind(syntax.GetVariableType(text.c_str()), indexed ? kBuffers : kAnyKind);
}

EVerdict CheckValue(const CKVLSyntax& syntax, const CCheck&, std::string& text) {
  int32_t fault;
  syntax.GetBufferValue(text.c_str(), fault);
  return Require(fault == 0);
}

EVerdict CheckLabel(const CKVLSyntax& syntax, const CCheck&, std::string& text) {
  return Require(syntax.FindLabelTable(text.c_str()) != nullptr);
}

EVerdict CheckCapital(const CKVLSyntax&, const CCheck&, std::string& text) {
  return Require(IsCapital(text[0]));
}

EVerdict CheckNothing(const CKVLSyntax&, const CCheck&, std::string&) {
  return EVerdict::Right;
}

EVerdict RefuseAny(const CKVLSyntax&, const CCheck&, std::string&) {
  return EVerdict::Wrong;
}

// A number of base 16, 2 or 10; a decimal one with points if the argument is not 0. The suffix is
// looked at before anything else, and behind a sign anything passes.
EVerdict CheckLiteral(const CKVLSyntax&, const CCheck& check, std::string& text) {
  if (text.empty()) return EVerdict::Wrong;
  const std::string_view body(text.data(), text.size() - 1);
  if (text.back() == 'H') {
    const auto isHex = [](char c) { return IsDigit(c) || (c >= 'A' && c <= 'F'); };
    return Require(!body.empty() && All(body, isHex));
  }
  if (text.back() == 'B') {
    return Require(!body.empty() && All(body, [](char c) { return c == '0' || c == '1'; }));
  }
  if (text[0] == '-' || text[0] == '+') return EVerdict::Right;
  const bool point = check.m_nArgument != 0;
  return Require(All(text, [&](char c) { return IsDigit(c) || (point && c == '.'); }));
}

// Digits alone, and not more than 32 bits hold: the engine would take another number.
EVerdict CheckDigits(const CKVLSyntax&, const CCheck&, std::string& text) {
  bool overflow;
  ParseInteger(text, &overflow);
  return Require(All(text, IsDigit) && !overflow);
}

// A number up to the first byte that is no digit, of not more than 32 bits.
EVerdict CheckCount(const CKVLSyntax&, const CCheck&, std::string& text) {
  bool overflow;
  ParseInteger(text, &overflow);
  return Require(!overflow);
}

EVerdict CheckNotZero(const CKVLSyntax&, const CCheck&, std::string& text) {
  bool overflow;
  return Require(ParseInteger(text, &overflow) != 0 && !overflow);
}

// A quoted text of at least as many bytes as the argument says, quote marks included.
EVerdict CheckQuoted(const CKVLSyntax&, const CCheck& check, std::string& text) {
  return Require(text.starts_with(kQuote) && text.ends_with(kQuote) &&
                 text.size() >= check.m_nArgument);
}

// A text with a second quote mark anywhere. Looking for it takes the first one away, which shows.
EVerdict CheckSecondQuote(const CKVLSyntax&, const CCheck&, std::string& text) {
  text[0] = ' ';
  return Require(text.find(kQuote) != text.npos);
}

EVerdict CheckMode(const CKVLSyntax&, const CCheck&, std::string& text) {
  return Require(text == "T" || text == "H");
}

// The words of the rules below.
constexpr CCheck Check(uint8_t operand, FCheck check, EMessage wrong, uint8_t argument = 0) {
  return {operand, EWhen::Always, check, wrong, NotFound, argument};
}
constexpr CCheck Name(uint8_t operand, uint8_t kinds, EMessage wrong = NotFound) {
  return Check(operand, CheckName, wrong, kinds);
}
constexpr CCheck Place(uint8_t operand, uint8_t kinds, EMessage wrong) {
  return Check(operand, CheckPlace, wrong, kinds);
}
constexpr CCheck Value(uint8_t operand) {
  return Check(operand, CheckValue, NotFound);
}
constexpr CCheck Literal(uint8_t operand, bool point, EMessage wrong) {
  return Check(operand, CheckLiteral, wrong, point ? 1 : 0);
}
constexpr CCheck Tag(uint8_t operand) {
  return {operand, EWhen::Always, CheckName, NoTag, NoTag, kAnyKind};
}
constexpr CCheck If(EWhen when, CCheck check) {
  check.m_when = when;
  return check;
}
constexpr CCheck Else(CCheck check) {
  return If(EWhen::Otherwise, check);
}
constexpr CCheck Missing(EMessage missing, CCheck check) {
  check.m_missing = missing;
  return check;
}

// Families that differ in a message.
struct CSum {
  CCheck m_checks[4];
  constexpr explicit CSum(EMessage first)
      : m_checks{Check(0, CheckCapital, first), Name(0, kAnyKind), If(EWhen::Capital, Value(1)),
                 Else(Literal(1, true, BadConstant))} {}
};
struct CBits {
  CCheck m_checks[4];
  constexpr explicit CBits(EMessage first)
      : m_checks{Check(0, CheckCapital, first), Place(0, kScalars, BadKind),
                 If(EWhen::Capital, Place(1, kScalars, BadKind)),
                 Else(Literal(1, false, BadConstant))} {}
};
struct CPrintChecks {
  CCheck m_checks[3];
  constexpr explicit CPrintChecks(EMessage operand)
      : m_checks{If(EWhen::Quote, Check(0, CheckQuoted, operand, 2)), Else(Name(0, kAnyKind)),
                 Check(1, CheckMode, BadArgument)} {}
};

constexpr CSum kAddChecks(ADDFirst);
constexpr CSum kSubChecks(SUBFirst);
constexpr CBits kAndChecks(ANDFirst);
constexpr CBits kOrChecks(ORFirst);
constexpr CBits kXorChecks(XORFirst);
constexpr CPrintChecks kPrintChecks(PrintOperand);
constexpr CPrintChecks kPrintExChecks(PrintExOperand);

constexpr CCheck kInChecks[] = {Name(0, kBuffers, NotArray), Name(1, kScalars, WrongVariable)};
constexpr CCheck kOutChecks[] = {
    If(EWhen::Quote, Check(0, CheckQuoted, OutOperand, 1)),
    Else(Name(0, kBuffersAndTexts, OutOperand)),
};
constexpr CCheck kFindChecks[] = {
    Name(0, kBuffers, NotArray),
    Check(1, CheckQuoted, FindPattern, 2),
    Name(2, kScalars, WrongVariable),
};
constexpr CCheck kCmpChecks[] = {Name(0, kAnyKind), If(EWhen::Capital, Value(1))};
constexpr CCheck kMoveChecks[] = {
    Name(0, kScalars, BadOperand),
    If(EWhen::Capital, Value(1)),
    Else(Literal(1, true, WrongArgument)),
};
constexpr CCheck kDelayChecks[] = {Check(0, CheckDigits, DelayArgument)};
constexpr CCheck kSleepChecks[] = {Check(0, CheckDigits, SleepArgument)};
constexpr CCheck kSyncChecks[] = {Check(0, CheckDigits, WrongArgument)};
constexpr CCheck kJumpChecks[] = {Check(0, CheckLabel, NoLabel)};
constexpr CCheck kCatChecks[] = {
    Name(0, kBuffers, NotArray),        If(EWhen::Quote, Check(1, CheckSecondQuote, BadString)),
    Else(Name(1, kBuffers, NotArray)),  If(EWhen::Digit, Check(2, CheckDigits, BadDesignation)),
    Else(Name(2, kScalars, NotScalar)),
};
constexpr CCheck kClearChecks[] = {Name(0, kAnyKind)};
constexpr CCheck kCopyChecks[] = {
    If(EWhen::Digit, Check(2, CheckCount, BadCount)),
    Else(Value(2)),
    Place(0, kBuffers, NoArray),
    If(EWhen::Quote, Check(1, CheckQuoted, BadStringUse, 3)),
    Else(Place(1, kBuffersAndTexts, NoArray)),
};
constexpr CCheck kStepChecks[] = {If(EWhen::Capital, Value(0))};
constexpr CCheck kPutChecks[] = {
    Tag(0),
    If(EWhen::Quote, Check(1, CheckQuoted, BadArgument, 1)),
    If(EWhen::SignOrDigit, Check(1, CheckNothing, BadArgument)),
    Else(Check(1, CheckElement, BadArgument)),
    If(EWhen::AllDigits, Check(2, CheckNotZero, BadArgument)),
    Else(Name(2, kAnyKind)),
};
constexpr CCheck kGetChecks[] = {
    If(EWhen::SignOrDigit, Check(0, RefuseAny, BadArgument)),
    Check(0, CheckElement, BadArgument),
    Check(1, CheckCapital, BadTag),
    Tag(1),
    Check(2, CheckNotZero, BadArgument),
};
constexpr CCheck kNotChecks[] = {Check(0, CheckCapital, NOTFirst), Place(0, kScalars, BadKind)};
constexpr CCheck kConvChecks[] = {
    Check(2, CheckNotZero, BadOperandConv),
    Name(0, kScalars, BadKindConv),
    Missing(MustBeArray, Place(1, kBuffersAndTexts, MustBeArray)),
};

constexpr CRule kRules[] = {
    {kIN, INUsage, kInChecks},
    {kOUT, OUTUsage, kOutChecks},
    {kFIND, FINDUsage, kFindChecks},
    {kCMP, CMPUsage, kCmpChecks},
    {kMOVE, MOVEUsage, kMoveChecks},
    {kDELAY, DELAYUsage, kDelayChecks},
    {kSLEEP, SLEEPUsage, kSleepChecks},
    {kJP, JPUsage, kJumpChecks},
    {kJPE, JPXXUsage, kJumpChecks},
    {kJPNE, JPXXUsage, kJumpChecks},
    {kJPL, JPXXUsage, kJumpChecks},
    {kJPLE, JPXXUsage, kJumpChecks},
    {kJPG, JPXXUsage, kJumpChecks},
    {kJPGE, JPXXUsage, kJumpChecks},
    {kPRINT, PRINTUsage, kPrintChecks.m_checks},
    {kPRINTEX, PRINTEXUsage, kPrintExChecks.m_checks},
    {kCAT, CATUsage, kCatChecks},
    {kCLEAR, CLEARUsage, kClearChecks},
    {kCOPY, COPYUsage, kCopyChecks},
    {kINC, INCUsage, kStepChecks},
    {kDEC, DECUsage, kStepChecks},
    {kADD, ADDUsage, kAddChecks.m_checks},
    {kSUB, SUBUsage, kSubChecks.m_checks},
    {kSYNC, SYNCUsage, kSyncChecks},
    {kPUT, PUTUsage, kPutChecks},
    {kGET, GETUsage, kGetChecks},
    {kAND, ANDUsage, kAndChecks.m_checks},
    {kOR, ORUsage, kOrChecks.m_checks},
    {kXOR, XORUsage, kXorChecks.m_checks},
    {kNOT, NOTUsage, kNotChecks},
    {kCONV, CONVUsage, kConvChecks},
};

// One rule for each instruction, in the order of their numbers.
constexpr bool RulesMatchInstructions() {
  if (std::size(kRules) != std::size(kInstructions)) return false;
  for (size_t i = 0; i < std::size(kRules); ++i) {
    if (kRules[i].m_nNumber != kInstructions[i].m_nNumber) return false;
    if (kRules[i].m_nNumber != static_cast<int32_t>(i) + 1) return false;
  }
  return true;
}
static_assert(RulesMatchInstructions());

bool StartsAs(EWhen when, std::string_view text) {
  const char first = text.empty() ? '\0' : text.front();
  switch (when) {
    case EWhen::Capital:
      return IsCapital(first);
    case EWhen::Quote:
      return first == kQuote;
    case EWhen::Digit:
      return IsDigit(first);
    case EWhen::SignOrDigit:
      return IsDigit(first) || first == '-' || first == '+';
    case EWhen::AllDigits:
      return All(text, IsDigit);
    case EWhen::Always:
    case EWhen::Otherwise:
      break;
  }
  return true;
}

// Tells which of a rule's checks are for the operands as they are. Feed it the checks in order.
class CChooser {
 public:
  bool IsFor(const CCheck& check, std::string_view text) {
    if (check.m_nOperand != m_nOperand) m_bChosen = false;
    m_nOperand = check.m_nOperand;
    if (check.m_when == EWhen::Always) return true;
    if (check.m_when == EWhen::Otherwise) return !m_bChosen;
    const bool chosen = StartsAs(check.m_when, text);
    m_bChosen = m_bChosen || chosen;
    return chosen;
  }

 private:
  int m_nOperand = -1;
  bool m_bChosen = false;
};

}  // namespace

void CKVLSyntax::CheckCommand(const CCommandTable& command, int32_t nNumber) try {
  const auto at = static_cast<size_t>(nNumber - 1);
  const CRule& rule = kRules[at];
  if (command.m_nOperand < kInstructions[at].m_nLeast ||
      command.m_nOperand > kInstructions[at].m_nMost) {
    return RefuseLine(rule.m_usage, command.m_nLine, -1, {}, nNumber);
  }
  CChooser chooser;
  for (const CCheck& check : rule.m_checks) {
    if (check.m_nOperand >= command.m_nOperand) continue;
    const char* const operand = command.m_szOperand[check.m_nOperand];
    std::string text(operand, strnlen(operand, kMaxOperand));
    if (!chooser.IsFor(check, text)) continue;
    const EVerdict verdict = check.m_check(*this, check, text);
    if (verdict == EVerdict::Right) continue;
    const EMessage message = verdict == EVerdict::Missing ? check.m_missing : check.m_wrong;
    return RefuseLine(message, command.m_nLine, check.m_nOperand, text);
  }
} catch (const std::bad_alloc&) {
  RunOutOfMemory();
}

}  // namespace kvl
