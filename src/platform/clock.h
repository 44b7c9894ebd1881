// The passing of time.
// Threads: every function may be called from any thread.
#pragma once

#include <cstdint>

#include "platform/api.h"

namespace kvl {

// Milliseconds since some fixed moment. Never goes back and never wraps.
KVL_API int64_t GetTickCount();

// Microseconds since 1970-01-01 00:00 UTC. Follows the user's corrections of the clock.
KVL_API int64_t GetWallClock();

// Suspends the calling thread; 0 gives up the rest of its time slice.
KVL_API void Sleep(uint32_t milliseconds);

}  // namespace kvl
