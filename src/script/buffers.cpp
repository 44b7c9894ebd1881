// CAT, CLEAR, COPY and CONV, which work on the contents of buffers.
#include "script/copy_handlers.h"

namespace kvl {
namespace {

constexpr int32_t kWorkArea = 255;  // bytes that COPY takes of a quoted text, and CONV reads

// Cut at the buffer's end like IN: the result stays a string.
const CStep* Cat(const CStep& step, CRunState&) {
  const CBoundOperand& to = step.m_operand[0];
  const CBoundOperand& from = step.m_operand[1];
  const int32_t length = StringLength(to.m_pData, to.m_nSize);
  const int32_t room = std::max(0, to.m_nSize - 1 - length);
  const int32_t count = std::min(room, StringLength(from.m_pData, from.m_nSize));
  if (count > 0) {
    std::memmove(to.m_pData + length, from.m_pData, static_cast<size_t>(count));
    to.m_pData[length + count] = 0;
  }
  StoreInteger(step.m_operand[2], length + count);
  return &step + 1;
}

const CStep* Clear(const CStep& step, CRunState&) {
  const CBoundOperand& variable = step.m_operand[0];
  std::memset(variable.m_pData, 0, static_cast<size_t>(variable.m_nSize));
  return &step + 1;
}

template <EIndex TMost>
FHandler ChooseCopy(const CBoundOperand& count) {
  switch (SourceOf(count)) {
    case ESource::Literal:
      return count.m_nNumber < 1 ? Cut<TMost> : Copy<TMost, ESource::Literal>;
    case ESource::Integer:
      return Copy<TMost, ESource::Integer>;
    default:
      return Copy<TMost, ESource::Any>;
  }
}

// m_nNumber is the count.
const CStep* Conv(const CStep& step, CRunState&) {
  const std::span<uint8_t> from = ResolvePlace(step.m_operand[1]);
  if (from.empty()) return &step + 1;
  const size_t count = std::min(static_cast<size_t>(step.m_nNumber), from.size());
  StoreScalar(step.m_operand[0], ParseDouble(AsText(from.data(), static_cast<int32_t>(count))));
  return &step + 1;
}

}  // namespace

void BindCat(CBinder& binder, const CCommandTable& command, CStep& step) {
  const std::string_view source = command.m_szOperand[1];
  step.m_operand[0] = binder.BindBuffer(command.m_szOperand[0]);
  step.m_operand[1] = IsQuoted(source) ? binder.BindText(std::string(QuotedText(source)))
                                       : binder.BindBuffer(source);
  step.m_operand[2] = binder.BindScalar(command.m_szOperand[2]);
  step.m_plain = step.m_operand[0].m_kind == EOperand::Element ? Cat : SkipStep;
}

void BindClear(CBinder& binder, const CCommandTable& command, CStep& step) {
  step.m_plain = SkipStep;
  const CVariableTable* variable = binder.FindVariable(command.m_szOperand[0]);
  if (variable == nullptr || variable->m_nKind == kEqu || variable->m_nKind == kAssign) return;
  step.m_operand[0] = CBinder::BindWhole(*variable);
  if (step.m_operand[0].m_nSize > 0) step.m_plain = Clear;
}

void BindCopy(CBinder& binder, const CCommandTable& command, CStep& step) {
  const std::string_view source = command.m_szOperand[1];
  step.m_operand[0] = binder.BindPlace(command.m_szOperand[0]);
  if (IsQuoted(source)) {
    // The closing quote mark is a byte like any other, and zero bytes follow it.
    std::string area(source.substr(1));
    area.resize(kWorkArea, '\0');
    step.m_operand[1] = binder.BindText(std::move(area));
  } else {
    step.m_operand[1] = binder.BindPlace(source);
  }
  step.m_operand[2] = binder.BindCount(command.m_szOperand[2]);
  const bool computed = step.m_operand[0].m_index == EIndex::Expression ||
                        step.m_operand[1].m_index == EIndex::Expression;
  step.m_plain = computed ? ChooseCopy<EIndex::Expression>(step.m_operand[2])
                          : ChooseCopy<EIndex::Scalar>(step.m_operand[2]);
}

void BindConv(CBinder& binder, const CCommandTable& command, CStep& step) {
  step.m_operand[0] = binder.BindScalar(command.m_szOperand[0]);
  step.m_operand[1] = binder.BindPlace(command.m_szOperand[1]);
  step.m_nNumber = std::clamp(ParseInteger(command.m_szOperand[2]), 0, kWorkArea);
  step.m_plain = step.m_operand[0].m_kind == EOperand::Scalar ? Conv : SkipStep;
}

}  // namespace kvl
