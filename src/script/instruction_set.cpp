#include "script/instruction_set.h"

namespace kvl {

int32_t KeywordNumber(std::string_view word) {
  for (const CInstruction& instruction : kInstructions) {
    if (instruction.m_keyword == word) return instruction.m_nNumber;
  }
  return kNoCommand;
}

}  // namespace kvl
