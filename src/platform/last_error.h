// Failure codes of the library and the last one of each thread. The numbers are those that hosts
// of such libraries know as system error numbers, the same on every platform.
// Threads: each thread has a last error of its own, 0 until something failed on it.
#pragma once

#include <cstdint>

#include "platform/api.h"

namespace kvl {

constexpr uint32_t kErrorNone = 0;
constexpr uint32_t kErrorInvalidFunction = 1;  // the device is no serial port
constexpr uint32_t kErrorNotFound = 2;         // no such object, no record of that name
constexpr uint32_t kErrorTooManyOpen = 4;      // the process has too many objects open
constexpr uint32_t kErrorAccessDenied = 5;     // the object is somebody else's
constexpr uint32_t kErrorInvalidHandle = 6;    // the port is not open
constexpr uint32_t kErrorNoMemory = 8;         // no memory; also: more bytes than a value holds
constexpr uint32_t kErrorInvalidData = 13;     // a value area that can't hold a tag
constexpr uint32_t kErrorBadLength = 24;       // nothing to write
constexpr uint32_t kErrorGeneral = 31;         // the system failed in a way that has no other code
constexpr uint32_t kErrorBadParameter = 87;    // an argument beyond its limits
constexpr uint32_t kErrorDiskFull = 112;       // no room for a new object
constexpr uint32_t kErrorSmallBuffer = 122;    // the destination is shorter than the value
constexpr uint32_t kErrorInvalidName = 123;    // an empty name
constexpr uint32_t kErrorAlreadyExists = 183;  // no failure: the object was there already
constexpr uint32_t kErrorNameTooLong = 206;    // a name that the platform can't hold
constexpr uint32_t kErrorIoPending = 997;      // no failure: the wait runs
constexpr uint32_t kErrorNoUnicode = 1113;     // a name that is no text in code page 949
constexpr uint32_t kErrorDeadlock = 1131;      // the thread holds the semaphore already
constexpr uint32_t kErrorDeviceLost = 1167;    // unplugged, or hung up
constexpr uint32_t kErrorDamaged = 1392;       // a table whose records run past its section
constexpr uint32_t kErrorNotOpen = 4312;       // the store is not open

KVL_API void SetThreadError(uint32_t dwCode);
KVL_API uint32_t ThreadError();

}  // namespace kvl
