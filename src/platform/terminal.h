// The terminal that the process prints to, if it does.
#pragma once

#include <cstddef>

#include "platform/api.h"
#include "platform/output_file.h"

namespace kvl {

KVL_API bool IsTerminal(EPrintStream stream);

// The size of the terminal behind standard output; 80 x 24 if it can't be told.
struct CTerminalSize {
  size_t m_nColumns = 80;
  size_t m_nLines = 24;
};
KVL_API CTerminalSize OutputTerminalSize();

}  // namespace kvl
