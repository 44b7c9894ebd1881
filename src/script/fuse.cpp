// Handlers for rows of steps that stand in nearly every decoder, so that one dispatch does the
// work of several: the test with the jump behind it, the end of a loop, a byte taken and tested,
// a pattern found or not, and whole loops that look at one byte after the other. The steps inside a
// row keep their own handlers, so that a jump may enter it.
#include <initializer_list>

#include "script/copy_handlers.h"

namespace kvl {
namespace {

using enum ESource;

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

// On past what was found, as one sum: each store that another load waits for costs more than the
// work.
//
//         ADD AT, POS
//         INC AT
//         CMP AT, LEN
//         JPL NEXT
const CStep* Skip(const CStep& step, CRunState& state) {
  const CStep* const steps = &step;
  uint8_t* const to = step.m_operand[0].m_pData;
  const auto more = static_cast<uint32_t>(steps[1].m_operand[1].m_nNumber);
  Store(to, Load<uint32_t>(to) + Load<uint32_t>(step.m_operand[1].m_pData) + more);
  return CompareAndJump<Integer, Integer>(steps[2], state);
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

constexpr FHandler kCount = Arithmetic<CAddOp, kInteger, Literal>;
constexpr FHandler kTakeByte = Arithmetic<CMoveOp, kByte, ByteElement>;
constexpr FHandler kTakeInteger = Arithmetic<CMoveOp, kInteger, ByteElement>;

constexpr CFusion kFusions[] = {
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
    Pair<FindByte, CompareAndJump<Integer, Literal>>(),
    Pair<FindText, CompareAndJump<Integer, Literal>>(),
    Pair<Cut<EIndex::Scalar>, Skip>(),
};

// A loop over the bytes of a buffer:
//
//   NEXT: MOVE C, BUF[I]
//         XOR SUM, C        one or two sums, or none
//         CMP C, 44         the byte that leaves the loop, or none
//         JPE FOUND
//         INC I
//         CMP I, LEN
//         JPL NEXT
//
// While it turns, its variables live in registers; no two of them are the same.
template <bool TTested, class... TSums>
struct CScan {
  static constexpr int kSums = sizeof...(TSums);
  static constexpr int kTest = 1 + kSums;
  static constexpr int kAdvance = kTest + (TTested ? 2 : 0);
  static constexpr int kEnd = kAdvance + 1;
  static constexpr int kSteps = kEnd + 2;

  static const CStep* Run(const CStep& take, CRunState& state) {
    const CStep* const steps = &take;
    const CBoundOperand& element = take.m_operand[1];
    const auto size = static_cast<uint32_t>(element.m_nSize);
    const auto offset = static_cast<uint32_t>(element.m_nOffset);
    const int32_t wanted = steps[kTest].m_operand[1].m_nNumber;
    const auto advance = static_cast<uint32_t>(steps[kAdvance].m_operand[1].m_nNumber);
    const CBoundOperand& bound = steps[kEnd].m_operand[1];
    const int32_t limit =
        bound.m_kind == EOperand::Literal ? bound.m_nNumber : Load<int32_t>(bound.m_pData);
    auto index = Load<int32_t>(element.m_pIndex);
    uint32_t sums[kSums + 1] = {};
    for (int i = 0; i < kSums; ++i) sums[i] = LoadSum(steps[1 + i].m_operand[0]);
    int32_t taken = 0;
    const CStep* next = &take;
    do {
      const uint32_t at = static_cast<uint32_t>(index) + offset;
      taken = at < size ? Load<int8_t>(element.m_pData + at) : 0;
      uint32_t* sum = sums;
      ((*sum = TSums::Apply(*sum, static_cast<uint32_t>(taken)), ++sum), ...);
      if constexpr (TTested) {
        if (taken == wanted) {
          state.m_wCompare = kFlagsEqual;
          next = steps[kTest + 1].m_pJump;
          break;
        }
      }
      index = static_cast<int32_t>(static_cast<uint32_t>(index) + advance);
      if (index >= limit) {
        state.m_wCompare = index == limit ? kFlagsEqual : kFlagsGreater;
        next = steps + kSteps;
        break;
      }
      state.m_wCompare = kFlagsLess;
    } while (state.m_pOwner->m_bRun.load(std::memory_order_relaxed) != 0);
    StoreInteger(take.m_operand[0], taken);
    StoreInteger(steps[kAdvance].m_operand[0], index);
    for (int i = 0; i < kSums; ++i) {
      StoreInteger(steps[1 + i].m_operand[0], static_cast<int32_t>(sums[i]));
    }
    return next;
  }

  static uint32_t LoadSum(const CBoundOperand& sum) {
    return sum.m_type == kByte ? Load<uint8_t>(sum.m_pData) : Load<uint32_t>(sum.m_pData);
  }

  // Whether this loop begins with the first of these `count` steps.
  static bool Matches(const CStep* steps, size_t count) {
    if (count < static_cast<size_t>(kSteps)) return false;
    if (steps[0].m_plain != kTakeByte && steps[0].m_plain != kTakeInteger) return false;
    const uint8_t* const taken = steps[0].m_operand[0].m_pData;
    const uint8_t* const index = steps[0].m_operand[1].m_pIndex;
    const CStep* sum = steps + 1;
    if (taken == index || !(IsSum<TSums>(*sum++, taken, index) && ...)) return false;
    if (kSums == 2 && steps[1].m_operand[0].m_pData == steps[2].m_operand[0].m_pData) return false;
    return (!TTested || IsTest(steps + kTest, taken)) && Advances(steps[kAdvance], index) &&
           Ends(steps, index);
  }

 private:
  // C is of either integer type; so is a sum.
  template <class TOp>
  static bool IsSum(const CStep& step, const uint8_t* taken, const uint8_t* index) {
    const uint8_t* const to = step.m_operand[0].m_pData;
    if (step.m_operand[1].m_pData != taken || to == taken || to == index) return false;
    for (const FHandler handler :
         {Arithmetic<TOp, kByte, Byte>, Arithmetic<TOp, kByte, Integer>,
          Arithmetic<TOp, kInteger, Byte>, Arithmetic<TOp, kInteger, Integer>}) {
      if (step.m_plain == handler) return true;
    }
    return false;
  }
  static bool IsTest(const CStep* test, const uint8_t* taken) {
    return (test->m_plain == Compare<Byte, Literal> ||
            test->m_plain == Compare<Integer, Literal>)&&test->m_operand[0]
                   .m_pData == taken &&
           test[1].m_nCommand == kJPE;
  }
  static bool Advances(const CStep& step, const uint8_t* index) {
    return step.m_plain == kCount && step.m_operand[0].m_pData == index;
  }
  static bool Ends(const CStep* steps, const uint8_t* index) {
    const CStep& end = steps[kEnd];
    if (end.m_operand[0].m_pData != index || (&end)[1].m_nCommand != kJPL ||
        (&end)[1].m_pJump != steps) {
      return false;
    }
    if (end.m_plain == Compare<Integer, Literal>) return true;
    if (end.m_plain != Compare<Integer, Integer>) return false;
    const uint8_t* const limit = end.m_operand[1].m_pData;
    for (int i = 0; i <= kSums; ++i) {
      if (steps[i].m_operand[0].m_pData == limit) return false;
    }
    return limit != index;
  }
};

template <class TScan>
bool FuseScan(CStep* steps, size_t count) {
  if (!TScan::Matches(steps, count)) return false;
  steps->m_run = TScan::Run;
  return true;
}

bool FuseLoop(CStep* steps, size_t count) {
  return FuseScan<CScan<true>>(steps, count) || FuseScan<CScan<false, CAddOp>>(steps, count) ||
         FuseScan<CScan<false, CXorOp>>(steps, count) ||
         FuseScan<CScan<false, CAddOp, CXorOp>>(steps, count) ||
         FuseScan<CScan<false, CXorOp, CAddOp>>(steps, count) ||
         FuseScan<CScan<true, CAddOp>>(steps, count) || FuseScan<CScan<true, CXorOp>>(steps, count);
}

bool FuseSkip(CStep* steps, size_t count) {
  if (count < 4 || steps[0].m_plain != Arithmetic<CAddOp, kInteger, Integer> ||
      steps[1].m_run != Row<kCount, CompareAndJump<Integer, Integer>> ||
      steps[0].m_operand[0].m_pData != steps[1].m_operand[0].m_pData) {
    return false;
  }
  steps[0].m_run = Skip;
  return true;
}

// -1 if none of the first `count` bytes is `byte`.
int32_t FirstPosition(const uint8_t* bytes, uint8_t byte, size_t count) {
  if (count == 0) return -1;
  const void* const found = std::memchr(bytes, byte, count);
  if (found == nullptr) return -1;
  return static_cast<int32_t>(static_cast<const uint8_t*>(found) - bytes);
}

// A piece copied out, and a byte looked for in it. FIND searches whole buffers, so this is how a
// script searches from some place on.
//
//         COPY LINE, BUF[AT], 128
//         FIND LINE, "<0A>", POS
//
// The search runs over the source: bytes that were only just stored would have to be waited for.
template <ESource TCount>
const CStep* CopyAndFind(const CStep& copy, CRunState& state) {
  const CStep& find = (&copy)[1];
  const std::span<uint8_t> to = ResolvePlace<EIndex::None>(copy.m_operand[0]);
  const std::span<uint8_t> from = ResolvePlace<EIndex::Scalar>(copy.m_operand[1]);
  const auto count = static_cast<size_t>(std::max(ReadAs<int32_t, TCount>(copy.m_operand[2]), 0));
  const size_t copied = std::min({count, from.size(), to.size()});
  const int32_t position = FirstPosition(from.data(), *find.m_operand[1].m_pData, copied);
  if (position < 0 || FirstPosition(from.data(), 0, static_cast<size_t>(position)) >= 0) {
    return FindByte(*Copy<EIndex::Scalar, TCount>(copy, state), state);
  }
  std::memcpy(to.data(), from.data(), copied);
  if (copied < to.size()) to[copied] = 0;
  Store(find.m_operand[2].m_pData, position);
  return &find + 1;
}

// From one variable into the whole of another, the position into a % variable.
template <ESource TCount>
bool FuseCopyAndFind(CStep* steps, size_t count) {
  if (count < 2 || steps[0].m_plain != Copy<EIndex::Scalar, TCount> ||
      steps[1].m_plain != FindByte) {
    return false;
  }
  const CBoundOperand& to = steps[0].m_operand[0];
  const CBoundOperand& from = steps[0].m_operand[1];
  const bool overlaps = from.m_pData >= to.m_pData && from.m_pData < to.m_pData + to.m_nSize;
  const CBoundOperand& position = steps[1].m_operand[2];
  if (to.m_index != EIndex::None || to.m_pData != steps[1].m_operand[0].m_pData || overlaps ||
      position.m_kind != EOperand::Scalar || position.m_type != kInteger) {
    return false;
  }
  const bool tested = steps[1].m_run == Row<FindByte, CompareAndJump<Integer, Literal>>;
  steps[0].m_run =
      tested ? Row<CopyAndFind<TCount>, CompareAndJump<Integer, Literal>> : CopyAndFind<TCount>;
  return true;
}

void FusePair(CStep* steps, size_t count) {
  if (count < 2) return;
  for (const CFusion& fusion : kFusions) {
    if (steps[0].m_plain == fusion.m_first && steps[1].m_run == fusion.m_second) {
      steps[0].m_run = fusion.m_row;
      return;
    }
  }
}

}  // namespace

void FuseSteps(CStep* steps, size_t count) {
  for (size_t i = count; i-- > 0;) {
    CStep* const from = steps + i;
    if (!FuseLoop(from, count - i) && !FuseSkip(from, count - i) &&
        !FuseCopyAndFind<Literal>(from, count - i) && !FuseCopyAndFind<Integer>(from, count - i)) {
      FusePair(from, count - i);
    }
  }
}

}  // namespace kvl
