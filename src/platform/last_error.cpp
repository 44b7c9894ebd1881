#include "platform/last_error.h"

namespace kvl {
namespace {
thread_local uint32_t t_dwLastError = 0;
}

void SetThreadError(uint32_t dwCode) {
  t_dwLastError = dwCode;
}

uint32_t ThreadError() {
  return t_dwLastError;
}

}  // namespace kvl
