// PUT, GET and SYNC.
#include <algorithm>

#include "script/step.h"

namespace kvl {
namespace {

const CStep* Sync(const CStep& step, CRunState& state) {
  state.m_bTouched = true;
  state.m_pOwner->Sync(step.m_nNumber);
  return &step + 1;
}

}  // namespace

// Without a store there is no tag to write or to read.
void BindPut(CBinder&, const CCommandTable&, CStep& step) {
  step.m_plain = SkipStep;
}
void BindGet(CBinder&, const CCommandTable&, CStep& step) {
  step.m_plain = SkipStep;
}

void BindSync(CBinder&, const CCommandTable& command, CStep& step) {
  step.m_nNumber = ParseInteger(command.m_szOperand[0]);
  step.m_plain = Sync;
}

}  // namespace kvl
