// Handlers for rows of steps that stand in nearly every decoder: the test and the jump behind it,
// the end of a loop, a byte taken and tested, a checksum's inner step. One dispatch then does the
// work of several. The steps inside a row keep their own handlers, so that a jump may enter it.
#include <array>

#include "script/number_handlers.h"

namespace kvl {
namespace {

template <ESource TLeft, ESource TRight>
const CStep* CompareAndJump(const CStep& step, CRunState& state) {
  const CStep& jump = (&step)[1];
  state.m_wCompare = CompareOperands<TLeft, TRight>(step);
  return JumpIf(jump, state);
}

template <FHandler TFirst, FHandler TSecond>
const CStep* Row(const CStep& step, CRunState& state) {
  return TSecond(*TFirst(step, state), state);
}

// What fuses: a step with this plain handler, in front of one that runs as `m_second`.
struct CFusion {
  FHandler m_first;
  FHandler m_second;
  FHandler m_row;
};

template <ESource TLeft, ESource TRight>
constexpr CFusion Test() {
  return {Compare<TLeft, TRight>, JumpIf, CompareAndJump<TLeft, TRight>};
}

template <FHandler TFirst, FHandler TSecond>
constexpr CFusion Pair() {
  return {TFirst, TSecond, Row<TFirst, TSecond>};
}

using enum ESource;
constexpr FHandler kCount = Arithmetic<CAddOp, kInteger, Literal>;
constexpr FHandler kTakeByte = Arithmetic<CMoveOp, kByte, ByteElement>;
constexpr FHandler kTakeInteger = Arithmetic<CMoveOp, kInteger, ByteElement>;

// Arithmetic on a byte just taken into a scalar of type TTaken.
template <FHandler TTake, ESource TTaken, EElementType TSum>
constexpr std::array<CFusion, 5> Checksum() {
  constexpr FHandler kAdd = Arithmetic<CAddOp, TSum, TTaken>;
  constexpr FHandler kXor = Arithmetic<CXorOp, TSum, TTaken>;
  return {Pair<kAdd, kXor>(), Pair<kXor, kAdd>(), Pair<TTake, Row<kAdd, kXor>>(),
          Pair<TTake, Row<kXor, kAdd>>(), Pair<TTake, kXor>()};
}

template <size_t... TSizes>
constexpr auto Join(const std::array<CFusion, TSizes>&... parts) {
  std::array<CFusion, (TSizes + ...)> joined{};
  size_t at = 0;
  const auto append = [&](const auto& part) {
    for (const CFusion& fusion : part) joined[at++] = fusion;
  };
  (append(parts), ...);
  return joined;
}

constexpr std::array<CFusion, 12> kTests = {
    Test<Byte, Literal>(),
    Test<Byte, Byte>(),
    Test<Byte, Integer>(),
    Test<Integer, Literal>(),
    Test<Integer, Byte>(),
    Test<Integer, Integer>(),
    Test<Any, Any>(),
    Pair<kCount, CompareAndJump<Integer, Literal>>(),
    Pair<kCount, CompareAndJump<Integer, Integer>>(),
    Pair<kTakeByte, CompareAndJump<Byte, Literal>>(),
    Pair<kTakeInteger, CompareAndJump<Integer, Literal>>(),
    Pair<kTakeByte, CompareAndJump<Byte, Byte>>(),
};

constexpr auto kFusions =
    Join(kTests, Checksum<kTakeByte, Byte, kByte>(), Checksum<kTakeByte, Byte, kInteger>(),
         Checksum<kTakeInteger, Integer, kByte>(), Checksum<kTakeInteger, Integer, kInteger>());

}  // namespace

void FuseSteps(CStep* steps, size_t count) {
  for (size_t i = count; i-- > 0;) {
    if (i + 1 == count) continue;
    for (const CFusion& fusion : kFusions) {
      if (steps[i].m_plain == fusion.m_first && steps[i + 1].m_run == fusion.m_second) {
        steps[i].m_run = fusion.m_row;
        break;
      }
    }
  }
}

}  // namespace kvl
