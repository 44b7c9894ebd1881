// What the system offers to the calling thread beyond std::thread.
#pragma once

#include <cstdint>
#include <string_view>

#include "platform/api.h"

namespace kvl {

inline constexpr int32_t kPriorityNormal = 0;
inline constexpr int32_t kPriorityBelowNormal = -1;

// False if the system does not allow it; the thread then goes on as it was. A thread that has
// lowered its priority may not be able to raise it again.
KVL_API bool SetThreadPriority(int32_t nPriority);

// The name under which debuggers and system tools show the thread; cut to what the system keeps.
KVL_API void SetThreadName(std::string_view name);

}  // namespace kvl
