#pragma once

#include <cstdint>
#include <span>

namespace kvl {

// Aborts on a finding.
void FuzzLayout(std::span<const uint8_t> input);

}  // namespace kvl
