// Where the process prints to.
#pragma once

#include <cstddef>
#include <string_view>

#include "platform/api.h"

namespace kvl {

enum class EPrintStream { kOutput, kError };

KVL_API bool IsTerminal(EPrintStream stream);

// Takes the places of standard streams that the program was started without, so that no file or
// line which it opens later takes what is printed. To be called first. Writing to such a stream
// fails.
KVL_API void HoldMissingStreams();

// Writes to the stream itself, past the C library's buffer, for as long as it takes nothing. False
// if it can't be written. Any thread.
KVL_API bool WriteStream(EPrintStream stream, std::string_view text);

// Whether the stream takes something now.
KVL_API bool IsStreamReady(EPrintStream stream);

// The size of the terminal behind standard output; 80 x 24 if it can't be told.
struct CTerminalSize {
  size_t m_nColumns = 80;
  size_t m_nLines = 24;
};
KVL_API CTerminalSize OutputTerminalSize();

}  // namespace kvl
