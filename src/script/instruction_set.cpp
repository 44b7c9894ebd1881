#include "script/instruction_set.h"

#include <algorithm>

#include "script/records.h"

namespace kvl {

int32_t KeywordNumber(std::string_view word) {
  for (const CInstruction& instruction : kInstructions) {
    if (instruction.m_keyword == word) return instruction.m_nNumber;
  }
  return kNoCommand;
}

int32_t FillCommand(std::span<const std::string> tokens, CCommandTable& command) {
  const std::span<const std::string> operands = tokens.subspan(1);
  command = CCommandTable{};
  command.m_nCommand = KeywordNumber(tokens[0]);
  command.m_nOperand = static_cast<uint8_t>(std::min<size_t>(operands.size(), 255));
  for (size_t i = 0; i < operands.size() && i < static_cast<size_t>(kMaxOperands); ++i) {
    if (operands[i].size() > static_cast<size_t>(kMaxOperand)) {
      command.m_nCommand = kNoCommand;
      return static_cast<int32_t>(i);
    }
    operands[i].copy(command.m_szOperand[i], operands[i].size());
  }
  return -1;
}

}  // namespace kvl
