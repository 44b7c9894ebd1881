// The system's socket failures in the numbers that the rest of kvl knows.
#pragma once

#include <cstdint>
#include <system_error>

namespace kvl {

// 0 for no failure; a number that fits in 16 bits for every other.
int32_t SocketErrorCode(const std::error_code& error);

}  // namespace kvl
