// PRINT and PRINTEX.
#include <array>
#include <charconv>

#include "script/byte_string.h"
#include "script/escapes.h"
#include "script/step.h"

namespace kvl {
namespace {

constexpr int32_t kMaxRaw = 256;  // bytes of an operand that PRINTEX takes

enum EPrintMode { kText, kHex };

// The text under construction, cut at its area's end.
class CMessage {
 public:
  void Append(std::string_view text) {
    const size_t count = std::min(text.size(), m_area.size() - m_nSize);
    std::copy_n(text.data(), count, m_area.data() + m_nSize);
    m_nSize += count;
  }
  // Two digits and a blank for each byte; an item that doesn't fit whole is left out.
  void AppendDump(const uint8_t* bytes, int32_t count) {
    constexpr char kDigits[] = "0123456789abcdef";
    for (int32_t i = 0; i < count && m_nSize + 3 <= m_area.size(); ++i) {
      Append(std::array{kDigits[bytes[i] >> 4], kDigits[bytes[i] & 15], ' '});
    }
  }
  void AppendNumber(int32_t value, EPrintMode mode) {
    char digits[16];
    const auto end = mode == kText ? std::to_chars(digits, digits + sizeof digits, value)
                                   : std::to_chars(digits, digits + sizeof digits,
                                                   static_cast<uint32_t>(value), 16);
    Append({digits, static_cast<size_t>(end.ptr - digits)});
  }
  // A message is read as a string.
  std::string_view Text() const {
    const std::string_view all(m_area.data(), m_nSize);
    return all.substr(0, all.find('\0'));
  }

 private:
  template <size_t N>
  void Append(const std::array<char, N>& item) {
    Append(std::string_view(item.data(), N));
  }

  std::array<char, 4095> m_area;
  size_t m_nSize = 0;
};

const CStep* Finish(const CStep& step, CRunState& state, const CMessage& message) {
  state.m_bTouched = true;
  state.m_pPrints->Append(message.Text());
  state.m_pOwner->OnPrint(message.Text());
  return &step + 1;
}

const CStep* PrintScalar(const CStep& step, CRunState& state) {
  CMessage message;
  message.AppendNumber(NarrowToInt32(ReadNumber(step.m_operand[0])),
                       static_cast<EPrintMode>(step.m_nNumber));
  return Finish(step, state, message);
}

void AppendBytes(CMessage& message, const uint8_t* bytes, int32_t count, int32_t mode) {
  if (mode == kText) {
    message.Append(AsText(bytes, count));
  } else {
    message.AppendDump(bytes, count);
  }
}

const CStep* PrintBytes(const CStep& step, CRunState& state) {
  const CBoundOperand& source = step.m_operand[0];
  CMessage message;
  AppendBytes(message, source.m_pData, StringLength(source.m_pData, source.m_nSize),
              step.m_nNumber);
  return Finish(step, state, message);
}

// A fault in the notation leaves an empty message, but for a quoted text as text, which shows
// what came ahead of the fault.
template <bool TQuoted>
const CStep* PrintTranslated(const CStep& step, CRunState& state) {
  const CBoundOperand& source = step.m_operand[0];
  uint8_t bytes[kMaxRaw];
  int32_t written = 0;
  const bool faulty = TranslateString(AsText(source.m_pData, std::min(source.m_nSize, kMaxRaw)),
                                      bytes, &written) < 0;
  CMessage message;
  if (!faulty || (TQuoted && step.m_nNumber == kText)) {
    AppendBytes(message, bytes, written, step.m_nNumber);
  }
  return Finish(step, state, message);
}

void BindPrinting(CBinder& binder, const CCommandTable& command, CStep& step, FHandler printQuoted,
                  FHandler printBytes) {
  const std::string_view text = command.m_szOperand[0];
  const bool asText = command.m_nOperand == 1 || command.m_szOperand[1][0] == 'T';
  step.m_nNumber = asText ? kText : kHex;
  step.m_plain = SkipStep;
  CBoundOperand& source = step.m_operand[0];
  if (IsQuoted(text)) {
    source = binder.BindText(std::string(QuotedText(text)));
    step.m_plain = printQuoted;
    return;
  }
  const CVariableTable* variable = binder.FindVariable(text);
  if (variable == nullptr) return;
  source = CBinder::BindWhole(*variable);
  step.m_plain = variable->m_nKind == kVar ? PrintScalar : printBytes;
}

}  // namespace

void BindPrint(CBinder& binder, const CCommandTable& command, CStep& step) {
  BindPrinting(binder, command, step, PrintBytes, PrintBytes);
}

void BindPrintEx(CBinder& binder, const CCommandTable& command, CStep& step) {
  BindPrinting(binder, command, step, PrintTranslated<true>, PrintTranslated<false>);
}

}  // namespace kvl
