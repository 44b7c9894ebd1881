#pragma once

#include <cstdint>
#include <span>

namespace kvl {

// Aborts on a finding. False if the verifier refused the script that the input stands for.
bool FuzzVerifiedScripts(std::span<const uint8_t> input);

}  // namespace kvl
