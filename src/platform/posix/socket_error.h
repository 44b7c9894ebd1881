// The system's socket failures in the numbers that the rest of kvl knows.
#pragma once

#include <cstdint>
#include <system_error>

namespace kvl {

// 0 for no failure; a number that fits in 16 bits for every other.
int32_t SocketErrorCode(const std::error_code& error);

// What the thread's last failed operation on a socket left. FailSocket gives `nResult`.
int32_t FailSocket(int32_t nCode, int32_t nResult = 0);
int32_t LastSocketError();

}  // namespace kvl
