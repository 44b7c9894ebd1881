// PUT, GET and SYNC.
#include <algorithm>

#include "script/byte_string.h"
#include "script/step.h"
#include "script/tag_exchange.h"

namespace kvl {
namespace {

constexpr int32_t kMaxText = 255;  // bytes that PUT takes of a text

// The zero-terminated name at a bound place.
std::string_view TagName(const CBoundOperand& place) {
  const std::span<uint8_t> bytes = ResolvePlace(place);
  const auto size = static_cast<int32_t>(bytes.size());
  return AsText(bytes.data(), StringLength(bytes.data(), size));
}

int32_t CountOf(const CBoundOperand& count) {
  return NarrowToInt32(ReadNumber(count));
}

// A text ends at its first zero byte.
std::span<const uint8_t> TextAt(const CBoundOperand& place, int32_t count) {
  const std::span<uint8_t> bytes = ResolvePlace(place);
  const auto size = static_cast<int32_t>(bytes.size());
  const int32_t taken = std::clamp(count, 0, std::min(size, kMaxText));
  return bytes.first(static_cast<size_t>(StringLength(bytes.data(), taken)));
}

// Operand 0 is the name's place, 2 the count; m_nNumber the slot.
const CStep* PutNumber(const CStep& step, CRunState& state) {
  state.m_bTouched = true;
  CPutValue value;
  value.m_bNumber = true;
  value.m_number = ReadNumber(step.m_operand[1]);
  state.m_pTags->Put(step.m_nNumber, TagName(step.m_operand[0]), value);
  return &step + 1;
}

// A literal is a number for a numeric tag, and its characters for a text.
const CStep* PutLiteral(const CStep& step, CRunState& state) {
  state.m_bTouched = true;
  const CBoundOperand& literal = step.m_operand[1];
  CPutValue value;
  value.m_bNumber = true;
  value.m_number = literal.m_number;
  value.m_text = {literal.m_pData, static_cast<size_t>(literal.m_nSize)};
  state.m_pTags->Put(step.m_nNumber, TagName(step.m_operand[0]), value);
  return &step + 1;
}

const CStep* PutText(const CStep& step, CRunState& state) {
  state.m_bTouched = true;
  CPutValue value;
  value.m_text = TextAt(step.m_operand[1], CountOf(step.m_operand[2]));
  state.m_pTags->Put(step.m_nNumber, TagName(step.m_operand[0]), value);
  return &step + 1;
}

// Operand 0 is the destination, 1 the name's place, 2 the count; m_nNumber the slot.
const CStep* Get(const CStep& step, CRunState& state) {
  state.m_bTouched = true;
  const std::span<uint8_t> to = ResolvePlace(step.m_operand[0]);
  if (!to.empty()) {
    state.m_pTags->Get(step.m_nNumber, TagName(step.m_operand[1]), to, CountOf(step.m_operand[2]));
  }
  return &step + 1;
}

const CStep* Sync(const CStep& step, CRunState& state) {
  state.m_bTouched = true;
  state.m_pOwner->Sync(step.m_nNumber);
  return &step + 1;
}

void BindTagCount(CBinder& binder, const CCommandTable& command, CStep& step) {
  step.m_operand[2] =
      command.m_nOperand == 3 ? binder.BindCount(command.m_szOperand[2]) : LiteralOperand(0);
}

// The closing quote mark is a byte like any other, and zero bytes follow it.
CBoundOperand BindQuoted(CBinder& binder, std::string_view text) {
  std::string area(text.substr(1));
  area.resize(kMaxText, '\0');
  return binder.BindText(std::move(area));
}

}  // namespace

void BindPut(CBinder& binder, const CCommandTable& command, CStep& step) {
  const std::string_view value = command.m_szOperand[1];
  const char first = value.empty() ? '\0' : value.front();
  step.m_operand[0] = binder.BindPlace(command.m_szOperand[0]);
  BindTagCount(binder, command, step);
  if (first == '-' || first == '+' || IsDigit(first)) {
    step.m_operand[1] = binder.BindText(std::string(value));
    step.m_operand[1].m_number = ParseDouble(value);
    step.m_plain = PutLiteral;
  } else if (IsQuoted(value)) {
    step.m_operand[1] = BindQuoted(binder, value);
    step.m_plain = PutText;
  } else {
    step.m_operand[1] = binder.BindPlace(value);
    step.m_plain = step.m_operand[1].m_kind == EOperand::Scalar ? PutNumber : PutText;
  }
}

void BindGet(CBinder& binder, const CCommandTable& command, CStep& step) {
  step.m_operand[0] = binder.BindPlace(command.m_szOperand[0]);
  step.m_operand[1] = binder.BindPlace(command.m_szOperand[1]);
  BindTagCount(binder, command, step);
  step.m_plain = Get;
}

void BindSync(CBinder&, const CCommandTable& command, CStep& step) {
  step.m_nNumber = ParseInteger(command.m_szOperand[0]);
  step.m_plain = Sync;
}

}  // namespace kvl
