// A serial line without hardware, for simulated devices and tests: the device's end of it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/api.h"

namespace kvl {

// Threads: one at a time.
class KVL_API CVirtualSerial {
 public:
  CVirtualSerial();
  ~CVirtualSerial();
  CVirtualSerial(const CVirtualSerial&) = delete;
  CVirtualSerial& operator=(const CVirtualSerial&) = delete;

  // Makes the line. False if the system has none to give.
  bool Open();

  // The name under which the other end can be opened as a serial port.
  const std::string& GetDeviceName() const;

  // Waits at most `timeoutMs` milliseconds for bytes; gives how many it has read, 0 if none came.
  int32_t Read(void* pBuffer, int32_t nSize, int32_t timeoutMs);

  // Sends all bytes, or what goes out within `timeoutMs` milliseconds; gives how many.
  int32_t Write(const void* pBuffer, int32_t nSize, int32_t timeoutMs);

  // Unplugs the line: to the other end it is lost for good.
  void HangUp();

 private:
  struct Impl;
  std::unique_ptr<Impl> m_pImpl;
};

}  // namespace kvl
