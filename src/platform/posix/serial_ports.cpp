#include "platform/posix/serial_ports.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <map>
#include <mutex>
#include <tuple>

#include "platform/never_destroyed.h"

namespace kvl {

namespace fs = std::filesystem;

namespace {

struct CPortMap {
  std::mutex lock;
  std::map<std::string, std::string, std::less<>> devices;
};

CPortMap& PortMap() {
  static CNeverDestroyed<CPortMap> s_map;
  return s_map.Get();
}

// The first line of a small file of the system; empty if there is none.
std::string FirstLine(const fs::path& file) {
  std::ifstream stream(file);
  std::string line;
  std::getline(stream, line);
  return line;
}

// The text of the number that ends a name, empty if it has none.
std::string_view NumberOf(std::string_view name) {
  return name.substr(name.find_last_not_of("0123456789") + 1);
}

uint64_t ToNumber(std::string_view digits) {
  uint64_t number = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), number);
  return number;
}

// Built-in ports, then USB adapters, then modems, then the rest by name; each by number.
auto OrderKey(const std::string& name) {
  static constexpr std::string_view kKinds[] = {"ttyS", "ttyUSB", "ttyACM"};
  const std::string_view digits = NumberOf(name);
  const std::string kind = name.substr(0, name.size() - digits.size());
  const auto* const known = std::find(std::begin(kKinds), std::end(kKinds), kind);
  return std::make_tuple(known - std::begin(kKinds), kind, ToNumber(digits));
}

// Entries without hardware are consoles and the like; a built-in port of type 0 is an unused place.
bool IsRealPort(const fs::path& entry, const fs::path& device) {
  std::error_code ignored;
  return fs::exists(entry / "device", ignored) && fs::exists(device, ignored) &&
         FirstLine(entry / "type") != "0";
}

// What stands in a directory; nothing if it can't be read.
std::vector<fs::path> Entries(const fs::path& dir) {
  std::vector<fs::path> entries;
  std::error_code ec;
  for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
    entries.push_back(it->path());
  }
  return entries;
}

std::string FindAlias(const fs::path& aliasDir, const fs::path& device) {
  std::error_code ec;
  const fs::path target = fs::canonical(device, ec);
  if (ec) return {};
  std::vector<fs::path> aliases = Entries(aliasDir);
  std::sort(aliases.begin(), aliases.end());
  for (const fs::path& alias : aliases) {
    if (fs::canonical(alias, ec) == target) return alias.string();
  }
  return {};
}

// A USB adapter's own words stand in a directory some levels above the port.
std::string Describe(const fs::path& entry) {
  constexpr int kLevels = 6;
  std::error_code ec;
  fs::path dir = fs::canonical(entry / "device", ec);
  for (int level = 0; !ec && level < kLevels && dir.has_parent_path(); ++level) {
    const std::string product = FirstLine(dir / "product");
    if (!product.empty()) {
      const std::string maker = FirstLine(dir / "manufacturer");
      return maker.empty() ? product : std::string(maker).append(" ").append(product);
    }
    dir = dir.parent_path();
  }
  const std::string driver = fs::read_symlink(entry / "device" / "driver", ec).filename().string();
  return driver.empty() ? "serial port" : "serial port (" + driver + ")";
}

// The number of "COM3"; 0 for any other name.
uint64_t ComNumber(std::string_view name) {
  constexpr std::string_view kPrefix = "COM";
  const std::string_view digits = NumberOf(name);
  const bool form = name.starts_with(kPrefix) && digits.size() == name.size() - kPrefix.size();
  return form ? ToNumber(digits) : 0;
}

}  // namespace

std::vector<SerialPortInfo> ListSerialPortsIn(const fs::path& classDir, const fs::path& deviceDir) {
  std::vector<std::string> names;
  for (const fs::path& entry : Entries(classDir)) {
    const std::string name = entry.filename().string();
    if (IsRealPort(entry, deviceDir / name)) names.push_back(name);
  }
  std::sort(names.begin(), names.end(), [](const std::string& left, const std::string& right) {
    return OrderKey(left) < OrderKey(right);
  });
  std::vector<SerialPortInfo> ports;
  ports.reserve(names.size());
  for (const std::string& name : names) {
    ports.push_back({"COM" + std::to_string(ports.size() + 1), (deviceDir / name).string(),
                     FindAlias(deviceDir / "serial" / "by-id", deviceDir / name),
                     Describe(classDir / name)});
  }
  return ports;
}

std::vector<SerialPortInfo> ListSerialPorts() {
  return ListSerialPortsIn("/sys/class/tty", "/dev");
}

void MapSerialPort(std::string_view name, std::string_view device) {
  CPortMap& map = PortMap();
  const std::lock_guard guard(map.lock);
  if (device.empty()) {
    map.devices.erase(std::string(name));
  } else {
    map.devices[std::string(name)] = device;
  }
}

std::string FindSerialPort(std::string_view name) {
  {
    CPortMap& map = PortMap();
    const std::lock_guard guard(map.lock);
    const auto it = map.devices.find(name);
    if (it != map.devices.end()) return it->second;
  }
  if (const uint64_t number = ComNumber(name)) {
    const std::vector<SerialPortInfo> ports = ListSerialPorts();
    return number <= ports.size() ? ports[number - 1].strDevice : std::string();
  }
  if (name.empty() || name.starts_with('/')) return std::string(name);
  return "/dev/" + std::string(name);
}

}  // namespace kvl
