// What a script's answers need of the line they go out on.
#pragma once

#include <cstdint>

#include "platform/api.h"

namespace kvl {

// How long a Write may take as a whole, in milliseconds, on a line that takes the bytes slowly or
// not at all.
inline constexpr int32_t kWriteTimeoutMs = 1000;

// Threads: Write from one thread; Interrupt from any, to end a Write that the line holds up; the
//          line may also be closed by its owner meanwhile. The object outlives the calls.
class KVL_API CLine {
 public:
  virtual ~CLine() = default;

  virtual bool IsOpen() const = 0;

  // Sends the bytes; gives how many the line has taken, less than `nCount` if it is closed, fails,
  // has not taken them all within kWriteTimeoutMs (or what the line's own settings say), or is
  // interrupted.
  virtual int32_t Write(const uint8_t* pBytes, int32_t nCount) = 0;

  // From now on, until the line is opened anew, no Write waits.
  virtual void Interrupt() = 0;
};

}  // namespace kvl
