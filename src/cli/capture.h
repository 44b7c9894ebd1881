// Capture files: what a line brought, and when. Text: a first line that tells the format, then a
// line for each read with the microseconds since the capture began and the bytes as hexadecimal.
#pragma once

#include <cstdint>
#include <functional>
#include <istream>
#include <span>
#include <string>
#include <vector>

#include "cli/background_writer.h"

namespace kvl::cli {

inline constexpr char kCaptureHead[] = "kvl capture 1";

// Threads: Write from one at a time, which never waits for the file.
class CCaptureFile {
 public:
  // `onEnd` is called once if a record can't be written: the capture ends there, since what comes
  // behind a gap would be taken for what came next. Throws CCommandError if the file can't be made.
  CCaptureFile(const std::string& path, std::function<void()> onEnd);

  void Write(int64_t microseconds, std::span<const uint8_t> bytes);

  // Waits for what is not yet written, as CBackgroundWriter::End does. False if records are
  // missing.
  bool End(int64_t nStart);

 private:
  CBackgroundWriter m_writer;
};

struct CCaptureRecord {
  int64_t m_nMicroseconds = 0;
  std::vector<uint8_t> m_bytes;
};

// Whether the stream stands at the beginning of a capture; if so, moves behind its first line. If
// not, `taken` gets the bytes that had to be taken from the stream to tell: a pipe takes none back.
bool SkipCaptureHead(std::istream& stream, std::string& taken);

// The next record, or false at the end. A last line without its line end, as a power failure leaves
// it, is left out with a word on standard error. Throws CCommandError for a line that is no record.
bool ReadCaptureRecord(std::istream& stream, CCaptureRecord& record);

}  // namespace kvl::cli
