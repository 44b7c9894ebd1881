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

const char* ErrorText(uint32_t dwCode) {
  switch (dwCode) {
    case 0:
      return "no error";
#define KVL_ERROR(name, code, text) \
  case name:                        \
    return text;
      KVL_ERRORS(KVL_ERROR)
#undef KVL_ERROR
    default:
      return "unknown error";
  }
}

}  // namespace kvl
