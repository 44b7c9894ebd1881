#include "script/step.h"

namespace kvl {
namespace {

constexpr FBinder kBinders[] = {
#define KVL_BINDER_OF(number, keyword, family, least, most, forms) Bind##family,
    KVL_INSTRUCTIONS(KVL_BINDER_OF)
#undef KVL_BINDER_OF
};

}  // namespace

const CStep* SkipStep(const CStep& step, CRunState&) {
  return &step + 1;
}

const CStep* EndStep(const CStep&, CRunState&) {
  return nullptr;
}

void BindStep(CBinder& binder, const CCommandTable& command, int32_t number, CStep& step) {
  step.m_nCommand = number;
  step.m_plain = SkipStep;
  if (number >= 1 && number <= static_cast<int32_t>(std::size(kBinders))) {
    kBinders[number - 1](binder, command, step);
  }
  step.m_run = step.m_plain;
}

}  // namespace kvl
