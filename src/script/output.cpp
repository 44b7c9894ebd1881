// OUT, DELAY and SLEEP.
#include "script/byte_string.h"
#include "script/escapes.h"
#include "script/step.h"

namespace kvl {
namespace {

constexpr int32_t kMaxOut = 256;  // bytes that one OUT takes and sends at most

void Send(const uint8_t* bytes, int32_t count, CRunState& state) {
  state.m_bTouched = true;
  state.m_pOutput->SendString(bytes, count, state.m_nOutInterval);
}

// Operand 0 holds the bytes to send.
const CStep* OutText(const CStep& step, CRunState& state) {
  Send(step.m_operand[0].m_pData, step.m_operand[0].m_nSize, state);
  return &step + 1;
}

// Operand 0 holds the raw bytes, in a buffer.
const CStep* OutBuffer(const CStep& step, CRunState& state) {
  const CBoundOperand& source = step.m_operand[0];
  const int32_t count = StringLength(source.m_pData, std::min(source.m_nSize, kMaxOut));
  uint8_t bytes[kMaxOut];
  const int32_t translated = TranslateString(AsText(source.m_pData, count), bytes);
  if (translated > 0) Send(bytes, translated, state);
  return &step + 1;
}

const CStep* Delay(const CStep& step, CRunState& state) {
  state.m_nOutInterval = step.m_nNumber;
  return &step + 1;
}

const CStep* Sleep(const CStep& step, CRunState& state) {
  state.m_bTouched = true;
  state.m_pOwner->Pause(step.m_nNumber, EPause::Sleep);
  return &step + 1;
}

}  // namespace

void BindOut(CBinder& binder, const CCommandTable& command, CStep& step) {
  const std::string_view text = command.m_szOperand[0];
  step.m_plain = SkipStep;
  if (IsQuoted(text)) {
    const std::string_view raw = QuotedText(text);
    std::string bytes(raw.size(), '\0');
    const int32_t count = TranslateString(raw, reinterpret_cast<uint8_t*>(bytes.data()));
    if (count <= 0) return;
    bytes.resize(static_cast<size_t>(count));
    step.m_operand[0] = binder.BindText(std::move(bytes));
    step.m_plain = OutText;
    return;
  }
  const CVariableTable* variable = binder.FindVariable(text);
  if (variable == nullptr || variable->m_nKind == kVar) return;
  step.m_operand[0] = CBinder::BindWhole(*variable);
  step.m_plain = OutBuffer;
}

void BindDelay(CBinder&, const CCommandTable& command, CStep& step) {
  step.m_nNumber = std::max(ParseInteger(command.m_szOperand[0]), 0);
  step.m_plain = Delay;
}

void BindSleep(CBinder&, const CCommandTable& command, CStep& step) {
  step.m_nNumber = std::max(ParseInteger(command.m_szOperand[0]), 0);
  step.m_plain = Sleep;
}

}  // namespace kvl
