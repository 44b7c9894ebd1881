// Failure codes of the library and the last one of each thread. The numbers are those that hosts
// of such libraries know as system error numbers, the same on every platform.
// Threads: each thread has a last error of its own, 0 until something failed on it.
#pragma once

#include <cstdint>

#include "platform/api.h"

namespace kvl {

// clang-format off
//  name                  code  text for people
#define KVL_ERRORS(X)                                                             \
  X(kErrorNotSerial,      1,    "the device is no serial port")                   \
  X(kErrorNotFound,       2,    "there is no such table, tag or port")            \
  X(kErrorTooManyOpen,    4,    "the process has too many objects open")          \
  X(kErrorAccessDenied,   5,    "access denied")                                  \
  X(kErrorInvalidHandle,  6,    "the port is not open")                           \
  X(kErrorNoMemory,       8,    "no memory, or more bytes than the value holds")  \
  X(kErrorInvalidData,    13,   "the record holds no tag")                        \
  X(kErrorBadLength,      24,   "nothing to write")                               \
  X(kErrorGeneral,        31,   "the system failed")                              \
  X(kErrorBadParameter,   87,   "a parameter is wrong")                           \
  X(kErrorDiskFull,       112,  "there is not enough room")                       \
  X(kErrorSmallBuffer,    122,  "the destination is shorter than the value")      \
  X(kErrorInvalidName,    123,  "the name is empty")                              \
  X(kErrorAlreadyExists,  183,  "it exists already")                              \
  X(kErrorNameTooLong,    206,  "the name is too long")                           \
  X(kErrorTimeout,        258,  "the time is over")                               \
  X(kErrorIoPending,      997,  "the operation is under way")                     \
  X(kErrorNoUnicode,      1113, "the name can't be written in code page 949")     \
  X(kErrorDeadlock,       1131, "the thread holds the lock already")              \
  X(kErrorDeviceLost,     1167, "the device is unplugged or has hung up")         \
  X(kErrorDamaged,        1392, "the table is damaged")                           \
  X(kErrorNotOpen,        4312, "the table is not open")
// clang-format on

constexpr uint32_t kErrorNone = 0;
#define KVL_ERROR(name, code, text) constexpr uint32_t name = code;
KVL_ERRORS(KVL_ERROR)
#undef KVL_ERROR

KVL_API void SetThreadError(uint32_t dwCode);
KVL_API uint32_t ThreadError();

// What a code means, in English; never null.
KVL_API const char* ErrorText(uint32_t dwCode);

}  // namespace kvl
