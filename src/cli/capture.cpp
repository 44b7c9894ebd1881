#include "cli/capture.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <string_view>
#include <utility>

#include "cli/commands.h"
#include "cli/output.h"

namespace kvl::cli {

namespace {

COutputFile MakeCapture(const std::string& path) {
  COutputFile file(path);
  if (file.IsOpen() && file.Write(std::string(kCaptureHead) + '\n')) return file;
  throw CCommandError(kUsage, fmt::format("'{}' can't be written", path));
}

}  // namespace

CCaptureFile::CCaptureFile(const std::string& path, std::function<void()> onEnd)
    : m_writer(MakeCapture(path), CBackgroundWriter::EGaps::kForbidden, std::move(onEnd)) {}

void CCaptureFile::Write(int64_t microseconds, std::span<const uint8_t> bytes) {
  m_writer.Write(fmt::format("{} {}\n", microseconds, ToHex(bytes)));
}

bool CCaptureFile::End(int64_t nStart) {
  return m_writer.End(nStart) && m_writer.LeftOut() == 0 && m_writer.Failed() == 0;
}

bool SkipCaptureHead(std::istream& stream, std::string& taken) {
  const auto take = [&](char wanted) {
    if (stream.peek() != wanted) return false;
    taken += static_cast<char>(stream.get());
    return true;
  };
  const bool isHead = std::ranges::all_of(std::string_view(kCaptureHead), take);
  if (isHead) take('\r');  // an editor or a mail may have changed the line ends
  const bool isCapture = isHead && take('\n');
  stream.clear();
  return isCapture;
}

bool ReadCaptureRecord(std::istream& stream, CCaptureRecord& record) {
  std::string line;
  if (!std::getline(stream, line)) return false;
  if (stream.eof()) {
    fmt::print(stderr, "kvl: the last line of the capture was cut short and is left out\n");
    return false;
  }
  if (line.ends_with('\r')) line.pop_back();
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
