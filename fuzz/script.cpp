#include "fuzz/entries.h"
#include "fuzz/quiet_owner.h"
#include "script/KVL.h"

namespace kvl {

void FuzzScript(std::span<const uint8_t> input) {
  constexpr int64_t kMaxSteps = 1000;
  CQuietOwner owner;
  CKVL engine(&owner, "");
  engine._CompileMainScript1(
      engine.LoadText({reinterpret_cast<const char*>(input.data()), input.size()}));
  engine.SetMaxSteps(kMaxSteps);
  engine.Begin(nullptr, 0);
}

}  // namespace kvl
