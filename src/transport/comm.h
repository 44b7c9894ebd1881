// The settings of one communication line, as a script's header states them.
#pragma once

#include <cstdint>
#include <iterator>
#include <string_view>

namespace kvl {

// Values of COMM::nMedia.
inline constexpr int32_t kMediaUnset = 0;
inline constexpr int32_t kMediaSerial = 1;
inline constexpr int32_t kMediaTcp = 2;
inline constexpr int32_t kMediaUdp = 3;

// A COMM index that no header line has set.
inline constexpr int32_t kCommUnset = -1;

// A plain record, copied as a whole. The index fields point into the tables below.
struct COMM {
  int32_t nMedia = kMediaUnset;
  char szIP[20] = {};   // peer address of a socket line, NUL-terminated
  char szPort[6] = {};  // serial device name or decimal socket port, NUL-terminated
  int32_t nBaudRate = kCommUnset;
  int32_t nDataBit = kCommUnset;
  int32_t nParityBit = kCommUnset;
  int32_t nStopBit = kCommUnset;
};

struct BaudRate {
  std::string_view word;  // as a script writes it
  int32_t rate;           // bits per second
};

inline constexpr BaudRate kBaudRates[] = {
    {"110", 110},     {"300", 300},     {"600", 600},       {"1200", 1200},     {"2400", 2400},
    {"4800", 4800},   {"9600", 9600},   {"14400", 14400},   {"19200", 19200},   {"38400", 38400},
    {"56000", 56000}, {"57600", 57600}, {"115200", 115200}, {"128000", 128000}, {"256000", 256000},
};

inline constexpr int32_t kDataBits[] = {7, 8};
inline constexpr int32_t kParities[] = {0, 1, 2};  // none, odd, even
inline constexpr int32_t kStopBits[] = {0, 1, 2};  // 1, 1.5, 2

static_assert(std::size(kBaudRates) == 15);

}  // namespace kvl
