// One target: KVL_FUZZ_ENTRY is the function that it runs.
#include "fuzz/entries.h"
#include "fuzz/verified_scripts.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  kvl::KVL_FUZZ_ENTRY({bytes, size});
  return 0;
}
