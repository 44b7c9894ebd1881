// The terminal that the process prints to, if it does.
#pragma once

#include <cstddef>

#include "platform/api.h"

namespace kvl {

KVL_API bool IsOutputTerminal();
KVL_API bool IsErrorTerminal();

// The size of the terminal behind standard output; 80 x 24 if it can't be told.
struct CTerminalSize {
  size_t m_nColumns = 80;
  size_t m_nLines = 24;
};
KVL_API CTerminalSize OutputTerminalSize();

}  // namespace kvl
