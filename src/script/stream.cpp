// IN and FIND, with which a script takes the received bytes apart.
#include "script/byte_string.h"
#include "script/escapes.h"
#include "script/step.h"

namespace kvl {
namespace {

constexpr int32_t kNotFound = -1;  // what no position is; a $ scalar can't show it

void CopyBatch(const CBoundOperand& buffer, const CRunState& state) {
  const int32_t oldLength = StringLength(buffer.m_pData, buffer.m_nSize);
  const int32_t length = std::min(state.m_nInputSize, buffer.m_nSize - 1);
  if (length < 0) return;
  if (length > 0) std::memcpy(buffer.m_pData, state.m_pInput, static_cast<size_t>(length));
  // Nothing of the old string stays in front of its old end.
  const int32_t cleared = std::max(length + 1, oldLength);
  std::memset(buffer.m_pData + length, 0, static_cast<size_t>(cleared - length));
}

const CStep* In(const CStep& step, CRunState& state) {
  if (step.m_operand[0].m_kind == EOperand::Element) CopyBatch(step.m_operand[0], state);
  StoreInteger(step.m_operand[1], state.m_nInputSize);
  return &step + 1;
}

// Position of a byte other than 0. What stands behind the string's end doesn't count, but is
// rarely there: so the byte is looked for first, and a zero byte only in front of it.
int32_t FindByte(const uint8_t* bytes, int32_t size, uint8_t byte) {
  const void* found = std::memchr(bytes, byte, static_cast<size_t>(size));
  if (found == nullptr) return kNotFound;
  const auto position = static_cast<int32_t>(static_cast<const uint8_t*>(found) - bytes);
  return StringLength(bytes, position) == position ? position : kNotFound;
}

int32_t FindPattern(const uint8_t* bytes, int32_t size, const uint8_t* pattern, int32_t count) {
  if (count == 0) return 0;
  if (count == 1) return FindByte(bytes, size, pattern[0]);
  const std::string_view text = AsText(bytes, StringLength(bytes, size));
  const size_t found = text.find(AsText(pattern, count));
  return found == text.npos ? kNotFound : static_cast<int32_t>(found);
}

// Operand 0 is the buffer, 1 the pattern's bytes, 2 the scalar.
const CStep* Find(const CStep& step, CRunState&) {
  const CBoundOperand& buffer = step.m_operand[0];
  const CBoundOperand& pattern = step.m_operand[1];
  const int32_t size = buffer.m_kind == EOperand::Element ? buffer.m_nSize : 0;
  StoreInteger(step.m_operand[2],
               size == 0 && pattern.m_nSize > 0
                   ? kNotFound
                   : FindPattern(buffer.m_pData, size, pattern.m_pData, pattern.m_nSize));
  return &step + 1;
}

// The pattern is the byte that ends a string, so its position is the string's length.
const CStep* FindEnd(const CStep& step, CRunState&) {
  const CBoundOperand& buffer = step.m_operand[0];
  const int32_t size = buffer.m_kind == EOperand::Element ? buffer.m_nSize : 0;
  StoreInteger(step.m_operand[2], StringLength(buffer.m_pData, size));
  return &step + 1;
}

// A quoted pattern: <HH> gives a byte, any other < or > stands for itself, a zero byte ends it.
std::string PatternOf(std::string_view text) {
  std::string pattern;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '<' && i + 3 < text.size() && text[i + 3] == '>') {
      pattern += static_cast<char>(GetCode16(text[i + 1], text[i + 2]));
      i += 3;
    } else {
      pattern += text[i];
    }
  }
  return pattern.substr(0, pattern.find('\0'));
}

}  // namespace

void BindIn(CBinder& binder, const CCommandTable& command, CStep& step) {
  step.m_operand[0] = binder.BindBuffer(command.m_szOperand[0]);
  step.m_operand[1] = binder.BindScalar(command.m_szOperand[1]);
  step.m_plain = In;
}

void BindFind(CBinder& binder, const CCommandTable& command, CStep& step) {
  step.m_operand[0] = binder.BindBuffer(command.m_szOperand[0]);
  step.m_operand[2] = binder.BindScalar(command.m_szOperand[2]);
  step.m_plain = Find;
  const char* const text = command.m_szOperand[1];
  std::string pattern;
  if (text[0] == '<') {  // one byte, told by the two characters behind
    const char low = text[1] == '\0' ? '\0' : text[2];
    pattern += static_cast<char>(GetCode16(text[1], low));
    if (pattern[0] == '\0') step.m_plain = FindEnd;
  } else {
    pattern = PatternOf(QuotedText(text));
  }
  step.m_operand[1] = binder.BindText(std::move(pattern));
}

}  // namespace kvl
