// Whether a person looks at what the process prints.
#pragma once

#include "platform/api.h"

namespace kvl {

KVL_API bool IsOutputTerminal();
KVL_API bool IsErrorTerminal();

}  // namespace kvl
