// Handlers of the instructions that work on numbers, one for each shape of their operands, and of
// the jumps. They live in a header so that fuse.cpp can build handlers for rows of steps of them.
#pragma once

#include <type_traits>

#include "script/step.h"

namespace kvl {

// Where the second operand comes from. The shapes with a name of their own are the common ones.
enum class ESource { Literal, Byte, Integer, Double, ByteElement, Any };

inline ESource SourceOf(const CBoundOperand& operand) {
  if (operand.m_kind == EOperand::Literal) return ESource::Literal;
  if (operand.m_kind == EOperand::Scalar) {
    if (operand.m_type == kByte) return ESource::Byte;
    return operand.m_type == kInteger ? ESource::Integer : ESource::Double;
  }
  const bool isByte = operand.m_type == kByte && operand.m_index == EIndex::Scalar;
  return isByte ? ESource::ByteElement : ESource::Any;
}

// As unsigned a negative index is beyond any size.
inline int8_t ReadByteElement(const CBoundOperand& operand) {
  const auto index = static_cast<uint32_t>(IndexOf<EIndex::Scalar>(operand));
  if (index >= static_cast<uint32_t>(operand.m_nSize)) return 0;
  return Load<int8_t>(operand.m_pData + index);
}

// The operand as `TNumber`: double, or int32_t by narrowing.
template <class TNumber, ESource TSource>
TNumber ReadAs(const CBoundOperand& operand) {
  constexpr bool kIsDouble = std::is_same_v<TNumber, double>;
  if constexpr (TSource == ESource::Literal) {
    if constexpr (kIsDouble) {
      return operand.m_number;
    } else {
      return operand.m_nNumber;
    }
  } else if constexpr (TSource == ESource::Byte) {
    return Load<int8_t>(operand.m_pData);
  } else if constexpr (TSource == ESource::Integer) {
    return Load<int32_t>(operand.m_pData);
  } else if constexpr (TSource == ESource::ByteElement) {
    return ReadByteElement(operand);
  } else {
    double value;
    if constexpr (TSource == ESource::Double) {
      value = Load<double>(operand.m_pData);
    } else {
      value = ReadNumber(operand);
    }
    if constexpr (kIsDouble) {
      return value;
    } else {
      return NarrowToInt32(value);
    }
  }
}

struct CMoveOp {
  template <class T>
  static T Apply(T, T right) {
    return right;
  }
};
struct CAddOp {
  template <class T>
  static T Apply(T left, T right) {
    return left + right;
  }
};
struct CSubOp {
  template <class T>
  static T Apply(T left, T right) {
    return left - right;
  }
};
struct CAndOp {
  static uint32_t Apply(uint32_t left, uint32_t right) { return left & right; }
};
struct COrOp {
  static uint32_t Apply(uint32_t left, uint32_t right) { return left | right; }
};
struct CXorOp {
  static uint32_t Apply(uint32_t left, uint32_t right) { return left ^ right; }
};

// scalar = scalar op operand. Integers are narrowed first and wrap.
template <class TOp, EElementType TDestination, ESource TSource>
const CStep* Arithmetic(const CStep& step, CRunState&) {
  uint8_t* const to = step.m_operand[0].m_pData;
  if constexpr (TDestination == kDouble) {
    Store(to, TOp::Apply(Load<double>(to), ReadAs<double, TSource>(step.m_operand[1])));
  } else {
    using TStored = std::conditional_t<TDestination == kInteger, uint32_t, uint8_t>;
    const auto right = static_cast<uint32_t>(ReadAs<int32_t, TSource>(step.m_operand[1]));
    Store(to, static_cast<TStored>(TOp::Apply(uint32_t{Load<TStored>(to)}, right)));
  }
  return &step + 1;
}

constexpr uint16_t kFlagsLess = 0x02 | 0x04 | 0x08;
constexpr uint16_t kFlagsEqual = 0x01 | 0x08 | 0x20;
constexpr uint16_t kFlagsGreater = 0x02 | 0x10 | 0x20;
constexpr uint16_t kFlagsUnordered = 0x01 | 0x04 | 0x08;

constexpr bool IsWhole(ESource source) {
  return source == ESource::Byte || source == ESource::Integer;
}

// `TRight` Literal stands for one that an int32_t holds exactly; any other one comes as Any.
template <ESource TLeft, ESource TRight>
uint16_t CompareOperands(const CStep& step) {
  if constexpr (IsWhole(TLeft) && (IsWhole(TRight) || TRight == ESource::Literal)) {
    const int32_t left = ReadAs<int32_t, TLeft>(step.m_operand[0]);
    const int32_t right = ReadAs<int32_t, TRight>(step.m_operand[1]);
    if (left == right) return kFlagsEqual;
    return left < right ? kFlagsLess : kFlagsGreater;
  } else {
    return CompareFlags(ReadNumber(step.m_operand[0]), ReadNumber(step.m_operand[1]));
  }
}

template <ESource TLeft, ESource TRight>
const CStep* Compare(const CStep& step, CRunState& state) {
  state.m_wCompare = CompareOperands<TLeft, TRight>(step);
  return &step + 1;
}

// Read as volatile, so that the compiler branches here instead of selecting one of two addresses:
// a processor predicts a branch, but would wait for the comparison before it could go on with a
// selected step.
inline const CStep* JumpIf(const CStep& step, CRunState& state) {
  if ((state.m_wCompare & step.m_nNumber) == 0) return &step + 1;
  return const_cast<const CStep* const volatile&>(step.m_pJump);
}

}  // namespace kvl
