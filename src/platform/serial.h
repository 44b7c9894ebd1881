// A serial port, and the serial ports of this machine.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/api.h"
#include "platform/last_error.h"
#include "platform/wakeup.h"

namespace kvl {

// Line error bits.
inline constexpr uint32_t kLineOverrun = 0x02;
inline constexpr uint32_t kLineParity = 0x04;
inline constexpr uint32_t kLineFrame = 0x08;
inline constexpr uint32_t kLineBreak = 0x10;

// Why a wait for bytes has ended.
enum class SerialWait {
  kBytes,    // bytes can be read
  kWoken,    // the wakeup was set
  kTimeout,  // neither; may come a little early
  kLost,     // the port is unplugged, hung up or closed: it will not recover, and every further
             // wait ends at once
};

// One serial port, in raw mode.
// Threads: one thread may read and wait while another writes; Close and Interrupt may come from a
//          third. Who is inside an operation then ends it as on a closed port.
// Errors:  an error number, kErrorNone for success; on a closed port kErrorInvalidHandle.
class KVL_API CSerialDevice {
 public:
  CSerialDevice();
  ~CSerialDevice();
  CSerialDevice(const CSerialDevice&) = delete;
  CSerialDevice& operator=(const CSerialDevice&) = delete;

  // Opens the port of that name (FindSerialPort) for this object alone. The line settings stay as
  // the device has them. Needs: closed.
  uint32_t Open(std::string_view name);

  // Drops what is still to be sent or read, and closes. Ends a Write under way, but not a
  // WaitReadable, which ends by its wakeup.
  void Close();

  bool IsOpen() const;

  // Bits per second. Fails, without an effect, if the device can't come within 3 % of it.
  uint32_t SetBaudRate(int32_t nRate);

  // Parity 0 none, 1 odd, 2 even, 3 mark, 4 space; 5 to 8 data bits; stop bits 0 one, 1 one and a
  // half, 2 two. A negative number leaves that setting as it is. One and a half are sent as two
  // (with 5 data bits the hardware makes them one and a half), which a receiver takes as well.
  // Also has parity checked where there is parity, and the flow control characters set to 0.
  // Fails, without an effect, if the device refuses any of it.
  uint32_t SetFormat(int32_t nParity, int32_t nDataBits, int32_t nStopBits);

  // Drops what waits in both directions.
  uint32_t Purge();

  // The bytes that can be read at once, and the line error bits since the call before; a failure
  // gives 0 and 0.
  uint32_t GetStatus(int32_t* pWaiting, uint32_t* pLineErrors);

  // Reads what has arrived, at most `nSize` bytes, without waiting; `*pRead` is 0 if nothing has.
  uint32_t Read(void* pBuffer, int32_t nSize, int32_t* pRead);

  // Sends all bytes; `*pWritten` gets how many the device has taken. Ends, as a success, when
  // `timeoutMs` milliseconds have gone by (-1: no limit), after Interrupt, and after a Close
  // meanwhile.
  uint32_t Write(const void* pBuffer, int32_t nSize, int32_t timeoutMs, int32_t* pWritten);

  // Until the next Open no Write waits any more, the one under way included.
  void Interrupt();

  // Waits for bytes, for the wakeup, or at most `timeoutMs` milliseconds (-1: no limit). A set
  // wakeup is used up only by kWoken.
  SerialWait WaitReadable(CWakeup& wakeup, int32_t timeoutMs);

 private:
  struct Impl;
  const std::unique_ptr<Impl> m_pImpl;
};

struct SerialPortInfo {
  std::string strName;         // "COM1" for the first port, and so on
  std::string strDevice;       // the system's name
  std::string strAlias;        // a name that stays with the device across reboots; may be empty
  std::string strDescription;  // what the system knows of it
};

// The serial ports of this machine: the built-in ones first, each kind in the order of its
// numbers. A name may move to another port when one is added or taken away; an alias does not.
KVL_API std::vector<SerialPortInfo> ListSerialPorts();

// From now on the port `name` is the device `device`, for the whole process; an empty `device`
// takes the mapping back. Any thread.
KVL_API void MapSerialPort(std::string_view name, std::string_view device);

// The device that a port name stands for: the one it is mapped to; else, for "COM3", the third
// port of this machine; else the system's device of that name. Empty if there is no such port.
KVL_API std::string FindSerialPort(std::string_view name);

}  // namespace kvl
