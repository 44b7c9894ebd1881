// The error numbers that serial operations report: those of Windows, whatever the system beneath,
// so that a host reads one set of numbers everywhere.
#pragma once

#include <cstdint>

namespace kvl {

inline constexpr uint32_t kErrNone = 0;
inline constexpr uint32_t kErrInvalidFunction = 1;  // the device is no serial port
inline constexpr uint32_t kErrFileNotFound = 2;
inline constexpr uint32_t kErrTooManyOpenFiles = 4;
inline constexpr uint32_t kErrAccessDenied = 5;  // no right to it, or somebody else has it open
inline constexpr uint32_t kErrInvalidHandle = 6;
inline constexpr uint32_t kErrNotEnoughMemory = 8;
inline constexpr uint32_t kErrGenFailure = 31;
inline constexpr uint32_t kErrInvalidParameter = 87;
inline constexpr uint32_t kErrIoIncomplete = 996;
inline constexpr uint32_t kErrIoPending = 997;
inline constexpr uint32_t kErrDeviceNotConnected = 1167;  // unplugged, or hung up

}  // namespace kvl
