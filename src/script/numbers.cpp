// MOVE, the arithmetic and logic instructions, CMP and the jumps.
#include <cmath>

#include "script/number_handlers.h"

namespace kvl {
namespace {

template <class TOp, EElementType TDestination>
FHandler ChooseSource(ESource source) {
  static constexpr FHandler kHandlers[] = {
      Arithmetic<TOp, TDestination, ESource::Literal>,
      Arithmetic<TOp, TDestination, ESource::Byte>,
      Arithmetic<TOp, TDestination, ESource::Integer>,
      Arithmetic<TOp, TDestination, ESource::Double>,
      Arithmetic<TOp, TDestination, ESource::ByteElement>,
      Arithmetic<TOp, TDestination, ESource::Any>,
  };
  return kHandlers[static_cast<int>(source)];
}

constexpr bool kBitwise = false;
constexpr bool kForDoublesToo = true;

// A destination that is no scalar leaves the instruction without effect, as does a double for
// one that works on bits.
template <class TOp, bool TForDoubles>
void BindArithmetic(CStep& step) {
  const CBoundOperand& destination = step.m_operand[0];
  step.m_plain = SkipStep;
  if (destination.m_kind != EOperand::Scalar) return;
  const ESource source = SourceOf(step.m_operand[1]);
  if (destination.m_type == kByte) {
    step.m_plain = ChooseSource<TOp, kByte>(source);
  } else if (destination.m_type == kInteger) {
    step.m_plain = ChooseSource<TOp, kInteger>(source);
  } else if constexpr (TForDoubles) {
    step.m_plain = ChooseSource<TOp, kDouble>(source);
  }
}

void BindScalarAndNumber(CBinder& binder, const CCommandTable& command, CStep& step) {
  step.m_operand[0] = binder.BindScalar(command.m_szOperand[0]);
  step.m_operand[1] = binder.BindNumber(command.m_szOperand[1]);
}

template <class TStored>
const CStep* LogicalNot(const CStep& step, CRunState&) {
  uint8_t* const to = step.m_operand[0].m_pData;
  Store(to, static_cast<TStored>(Load<TStored>(to) == 0 ? 1 : 0));
  return &step + 1;
}

// Nothing to compare: no flag is set, so that no conditional jump is taken.
const CStep* CompareNothing(const CStep& step, CRunState& state) {
  state.m_wCompare = 0;
  return &step + 1;
}

template <ESource TLeft>
FHandler ChooseCompare(ESource right) {
  switch (right) {
    case ESource::Literal:
      return Compare<TLeft, ESource::Literal>;
    case ESource::Byte:
      return Compare<TLeft, ESource::Byte>;
    case ESource::Integer:
      return Compare<TLeft, ESource::Integer>;
    default:
      return Compare<ESource::Any, ESource::Any>;
  }
}

FHandler ChooseCompare(const CBoundOperand& left, const CBoundOperand& right) {
  ESource rightSource = SourceOf(right);
  if (rightSource == ESource::Literal && right.m_number != right.m_nNumber) {
    rightSource = ESource::Any;
  }
  switch (SourceOf(left)) {
    case ESource::Byte:
      return ChooseCompare<ESource::Byte>(rightSource);
    case ESource::Integer:
      return ChooseCompare<ESource::Integer>(rightSource);
    default:
      return Compare<ESource::Any, ESource::Any>;
  }
}

const CStep* Jump(const CStep& step, CRunState&) {
  return step.m_pJump;
}

}  // namespace

uint16_t CompareFlags(double left, double right) {
  if (std::isunordered(left, right)) return kFlagsUnordered;
  if (left == right) return kFlagsEqual;
  return left < right ? kFlagsLess : kFlagsGreater;
}

uint16_t JumpMask(int32_t number) {
  return number < kJPE || number > kJPGE ? uint16_t{0}
                                         : static_cast<uint16_t>(1 << (number - kJPE));
}

void BindMove(CBinder& binder, const CCommandTable& command, CStep& step) {
  BindScalarAndNumber(binder, command, step);
  BindArithmetic<CMoveOp, kForDoublesToo>(step);
}

void BindAdd(CBinder& binder, const CCommandTable& command, CStep& step) {
  BindScalarAndNumber(binder, command, step);
  BindArithmetic<CAddOp, kForDoublesToo>(step);
}

void BindSub(CBinder& binder, const CCommandTable& command, CStep& step) {
  BindScalarAndNumber(binder, command, step);
  BindArithmetic<CSubOp, kForDoublesToo>(step);
}

void BindAnd(CBinder& binder, const CCommandTable& command, CStep& step) {
  BindScalarAndNumber(binder, command, step);
  BindArithmetic<CAndOp, kBitwise>(step);
}

void BindOr(CBinder& binder, const CCommandTable& command, CStep& step) {
  BindScalarAndNumber(binder, command, step);
  BindArithmetic<COrOp, kBitwise>(step);
}

void BindXor(CBinder& binder, const CCommandTable& command, CStep& step) {
  BindScalarAndNumber(binder, command, step);
  BindArithmetic<CXorOp, kBitwise>(step);
}

void BindInc(CBinder& binder, const CCommandTable& command, CStep& step) {
  step.m_operand[0] = binder.BindScalar(command.m_szOperand[0]);
  step.m_operand[1] = LiteralOperand(1);
  BindArithmetic<CAddOp, kForDoublesToo>(step);
}

void BindDec(CBinder& binder, const CCommandTable& command, CStep& step) {
  step.m_operand[0] = binder.BindScalar(command.m_szOperand[0]);
  step.m_operand[1] = LiteralOperand(1);
  BindArithmetic<CSubOp, kForDoublesToo>(step);
}

void BindNot(CBinder& binder, const CCommandTable& command, CStep& step) {
  step.m_operand[0] = binder.BindScalar(command.m_szOperand[0]);
  step.m_plain = SkipStep;
  if (step.m_operand[0].m_kind != EOperand::Scalar) return;
  if (step.m_operand[0].m_type == kByte) step.m_plain = LogicalNot<uint8_t>;
  if (step.m_operand[0].m_type == kInteger) step.m_plain = LogicalNot<uint32_t>;
}

void BindCmp(CBinder& binder, const CCommandTable& command, CStep& step) {
  const CVariableTable* left = binder.FindVariable(command.m_szOperand[0]);
  step.m_plain = CompareNothing;
  if (left == nullptr) return;
  step.m_operand[0] = binder.BindValue(command.m_szOperand[0]);
  step.m_operand[1] = binder.BindComparand(command.m_szOperand[1]);
  step.m_plain = ChooseCompare(step.m_operand[0], step.m_operand[1]);
}

void BindJp(CBinder&, const CCommandTable&, CStep& step) {
  step.m_plain = Jump;
}

void BindJpIf(CBinder&, const CCommandTable&, CStep& step) {
  step.m_nNumber = JumpMask(step.m_nCommand);
  step.m_plain = JumpIf;
}

}  // namespace kvl
