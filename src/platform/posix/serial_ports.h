// The serial ports as the system's directories tell them, for the sources of this folder and for
// tests that lay such directories.
#pragma once

#include <filesystem>
#include <vector>

#include "platform/serial.h"

namespace kvl {

// `classDir` holds one entry a terminal device, `deviceDir` the devices themselves.
KVL_API std::vector<SerialPortInfo> ListSerialPortsIn(const std::filesystem::path& classDir,
                                                      const std::filesystem::path& deviceDir);

}  // namespace kvl
