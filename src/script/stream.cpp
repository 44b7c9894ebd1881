// IN and FIND, with which a script takes the received bytes apart.
#include "script/byte_string.h"
#include "script/escapes.h"
#include "script/step.h"

namespace kvl {
namespace {

constexpr int32_t kNotFound = -1;  // what no position is; a $ scalar can't show it

// Nothing of the old string stays in front of its old end. One that ended at `length` or before
// shows a zero byte there, or is looked at byte by byte.
void ClearBehind(uint8_t* bytes, int32_t length, int32_t size) {
  if (bytes[length] == 0) return;
  const int32_t oldLength = StringLength(bytes, size);
  if (oldLength <= length) return;
  std::memset(bytes + length, 0, static_cast<size_t>(oldLength - length));
}

void CopyBatch(const CBoundOperand& buffer, const CRunState& state) {
  const int32_t length = std::min(state.m_nInputSize, buffer.m_nSize - 1);
  if (length < 0) return;
  ClearBehind(buffer.m_pData, length, buffer.m_nSize);
  if (length > 0) std::memcpy(buffer.m_pData, state.m_pInput, static_cast<size_t>(length));
  buffer.m_pData[length] = 0;
}

const CStep* In(const CStep& step, CRunState& state) {
  if (step.m_operand[0].m_kind == EOperand::Element) CopyBatch(step.m_operand[0], state);
  StoreInteger(step.m_operand[1], state.m_nInputSize);
  return &step + 1;
}

void StorePosition(const CBoundOperand& scalar, const char* text, const char* found) {
  StoreInteger(scalar, found == nullptr ? kNotFound : static_cast<int32_t>(found - text));
}

// The empty pattern stands at the start of every text.
const CStep* FindNothing(const CStep& step, CRunState&) {
  StoreInteger(step.m_operand[2], 0);
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

// Operand 0 is the text, 1 the pattern, 2 the scalar. The text is a string: a zero byte behind the
// block ends a buffer that is full. The byte 0 is found at the string's end.
const CStep* FindByte(const CStep& step, CRunState&) {
  const auto* const text = reinterpret_cast<const char*>(step.m_operand[0].m_pData);
  StorePosition(step.m_operand[2], text, std::strchr(text, *step.m_operand[1].m_pData));
  return &step + 1;
}

// A pattern of more than one byte.
const CStep* FindText(const CStep& step, CRunState&) {
  const auto* const text = reinterpret_cast<const char*>(step.m_operand[0].m_pData);
  const auto* const pattern = reinterpret_cast<const char*>(step.m_operand[1].m_pData);
  const auto rest = static_cast<size_t>(step.m_operand[1].m_nSize) - 1;
  const char* found = std::strchr(text, pattern[0]);
  while (found != nullptr && std::strncmp(found + 1, pattern + 1, rest) != 0) {
    found = std::strchr(found + 1, pattern[0]);
  }
  StorePosition(step.m_operand[2], text, found);
  return &step + 1;
}

void BindIn(CBinder& binder, const CCommandTable& command, CStep& step) {
  step.m_operand[0] = binder.BindBuffer(command.m_szOperand[0]);
  step.m_operand[1] = binder.BindScalar(command.m_szOperand[1]);
  step.m_plain = In;
}

void BindFind(CBinder& binder, const CCommandTable& command, CStep& step) {
  const char* const text = command.m_szOperand[1];
  std::string pattern;
  if (text[0] == '<') {  // one byte, told by the two characters behind
    const char low = text[1] == '\0' ? '\0' : text[2];
    pattern = static_cast<char>(GetCode16(text[1], low));
  } else {
    pattern = PatternOf(QuotedText(text));
  }
  step.m_plain = pattern.empty() ? FindNothing : pattern.size() == 1 ? FindByte : FindText;
  step.m_operand[0] = binder.BindBuffer(command.m_szOperand[0]);
  if (step.m_operand[0].m_kind == EOperand::Nothing) step.m_operand[0] = binder.BindText("");
  step.m_operand[1] = binder.BindText(std::move(pattern));
  step.m_operand[2] = binder.BindScalar(command.m_szOperand[2]);
}

}  // namespace kvl
