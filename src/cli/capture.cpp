#include "cli/capture.h"

#include <fmt/format.h>

#include <charconv>

#include "cli/commands.h"
#include "cli/output.h"

namespace kvl::cli {

CCaptureFile::CCaptureFile(const std::string& path) : m_pFile(std::fopen(path.c_str(), "wb")) {
  if (m_pFile == nullptr) {
    throw CCommandError(kUsage, fmt::format("'{}' can't be written", path));
  }
  if (std::fprintf(m_pFile, "%s\n", kCaptureHead) < 0 || std::fflush(m_pFile) != 0) {
    std::fclose(m_pFile);
    throw CCommandError(kUsage, fmt::format("'{}' can't be written", path));
  }
}

CCaptureFile::~CCaptureFile() {
  std::fclose(m_pFile);
}

bool CCaptureFile::Write(int64_t microseconds, std::span<const uint8_t> bytes) {
  const std::string line = fmt::format("{} {}\n", microseconds, ToHex(bytes));
  const std::lock_guard lock(m_cs);
  if (!m_bWhole) return true;
  // At once, so that a capture is of use when the power fails.
  m_bWhole =
      std::fwrite(line.data(), 1, line.size(), m_pFile) == line.size() && std::fflush(m_pFile) == 0;
  return m_bWhole;
}

bool SkipCaptureHead(std::istream& stream, std::string& taken) {
  const std::string head = std::string(kCaptureHead) + "\n";
  while (taken.size() < head.size() && stream.peek() == head[taken.size()]) {
    taken += static_cast<char>(stream.get());
  }
  stream.clear();
  return taken == head;
}

bool ReadCaptureRecord(std::istream& stream, CCaptureRecord& record) {
  std::string line;
  if (!std::getline(stream, line)) return false;
  if (stream.eof()) {
    fmt::print(stderr, "kvl: the last line of the capture was cut short and is left out\n");
    return false;
  }
  const char* const end = line.data() + line.size();
  const auto [behind, error] = std::from_chars(line.data(), end, record.m_nMicroseconds);
  record.m_bytes.clear();
  const bool sound = error == std::errc() && behind != end && *behind == ' ' &&
                     FromHex({behind + 1, static_cast<size_t>(end - behind - 1)}, record.m_bytes);
  if (sound) return true;
  throw CCommandError(kFailed, fmt::format("the capture holds a line that is no record: '{}'",
                                           Printable(line.substr(0, 60))));
}

}  // namespace kvl::cli
