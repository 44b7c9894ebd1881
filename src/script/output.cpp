// OUT, DELAY and SLEEP.
#include "script/byte_string.h"
#include "script/escapes.h"
#include "script/step.h"

namespace kvl {
namespace {

constexpr int32_t kMaxOut = 256;  // bytes that one OUT takes and sends at most

// Operand 0 holds the raw bytes, in a buffer or in the quoted text.
const CStep* Out(const CStep& step, CRunState& state) {
  const CBoundOperand& source = step.m_operand[0];
  const int32_t count = StringLength(source.m_pData, std::min(source.m_nSize, kMaxOut));
  uint8_t bytes[kMaxOut];
  const int32_t translated = TranslateString(AsText(source.m_pData, count), bytes);
  if (translated <= 0) return &step + 1;
  state.m_bTouched = true;
  state.m_pOutput->SendString(bytes, translated, state.m_nOutInterval);
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
  CBoundOperand& source = step.m_operand[0];
  if (IsQuoted(text)) {
    source = binder.BindText(std::string(QuotedText(text)));
  } else {
    const CVariableTable* variable = binder.FindVariable(text);
    if (variable != nullptr && variable->m_nKind != kVar) source = binder.BindPlace(text);
  }
  step.m_plain = source.m_pData != nullptr ? Out : SkipStep;
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
