// What the fuzz targets run on one input. Each aborts on a finding. The tests replay the corpus
// through the same functions.
#pragma once

#include <cstdint>
#include <span>

namespace kvl {

// The input is a script: reader, declarations, compiler, binding and one pass without a batch.
void FuzzScript(std::span<const uint8_t> input);

// The input is a script: laid out it compiles to the same tables, and laying it out once more
// changes nothing.
void FuzzLayout(std::span<const uint8_t> input);

// The input is a script and batches, with a zero byte in front of each batch. Whole passes and
// passes of single instructions must come to the same.
void FuzzBatches(std::span<const uint8_t> input);

}  // namespace kvl
