// A step: one instruction with its operands bound, and the handler that runs it.
//
// A handler does its work and returns the step to go on with. It is chosen when the step is bound,
// by instruction and by the shape of the operands, so that running it decides nothing that was
// known by then. Steps are plain data in one array, in the order of the instructions, closed by a
// step that ends the pass.
#pragma once

#include <cstdint>

#include "script/engine_owner.h"
#include "script/instruction_set.h"
#include "script/operand.h"
#include "script/print_list.h"

namespace kvl {

class CLineOutput;
class CTagExchange;
struct CStep;

// What the handlers share during a pass.
struct CRunState {
  CEngineOwner* m_pOwner = nullptr;
  CLineOutput* m_pOutput = nullptr;
  CPrintList* m_pPrints = nullptr;
  CTagExchange* m_pTags = nullptr;    // null without a table
  const uint8_t* m_pInput = nullptr;  // the batch
  int32_t m_nInputSize = 0;
  int32_t m_nOutInterval = 0;  // milliseconds behind each byte of OUT
  uint16_t m_wCompare = 0;
  bool m_bTouched = false;  // the pass touched something outside the engine
};

// Where OUT leaves the engine.
class CLineOutput {
 public:
  virtual void SendString(const uint8_t* bytes, int32_t count, int32_t interval) = 0;

 protected:
  ~CLineOutput() = default;
};

using FHandler = const CStep* (*)(const CStep& step, CRunState& state);

struct CStep {
  FHandler m_run = nullptr;    // may do the work of the steps behind it as well
  FHandler m_plain = nullptr;  // does the work of this instruction alone
  const CStep* m_pJump = nullptr;
  int32_t m_nCommand = kNoCommand;
  int32_t m_nNumber = 0;  // by instruction: a mask, a count, milliseconds, a mode
  CBoundOperand m_operand[3];
};

// Binds an instruction's operands into `step` and chooses its plain handler.
using FBinder = void (*)(CBinder& binder, const CCommandTable& command, CStep& step);

#define KVL_BINDER(number, keyword, family, least, most, forms) \
  void Bind##family(CBinder& binder, const CCommandTable& command, CStep& step);
KVL_INSTRUCTIONS(KVL_BINDER)
#undef KVL_BINDER

// The step of a record that is passed over, and the step behind the last instruction.
const CStep* SkipStep(const CStep& step, CRunState& state);
const CStep* EndStep(const CStep& step, CRunState& state);

// FIND with a pattern of one byte, and of more.
const CStep* FindByte(const CStep& step, CRunState& state);
const CStep* FindText(const CStep& step, CRunState& state);

// Binds one record. The target of a jump is set by whoever knows the labels.
void BindStep(CBinder& binder, const CCommandTable& command, int32_t number, CStep& step);

// Where steps stand in a row that one handler can run at once, lets the first of them do so.
void FuseSteps(CStep* steps, size_t count);

// The comparison flags of two numbers.
uint16_t CompareFlags(double left, double right);

// The flag that a conditional jump tests, 0 for any other number.
uint16_t JumpMask(int32_t number);

}  // namespace kvl
