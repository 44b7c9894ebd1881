// Capture files: what a line brought, and when. Text: a first line that tells the format, then a
// line for each read with the microseconds since the capture began and the bytes as hexadecimal.
#pragma once

#include <cstdint>
#include <cstdio>
#include <istream>
#include <mutex>
#include <span>
#include <string>
#include <vector>

namespace kvl::cli {

inline constexpr char kCaptureHead[] = "kvl capture 1";

// Threads: Write from any.
class CCaptureFile {
 public:
  // Throws CCommandError if the file can't be made.
  explicit CCaptureFile(const std::string& path);
  ~CCaptureFile();
  CCaptureFile(const CCaptureFile&) = delete;
  CCaptureFile& operator=(const CCaptureFile&) = delete;

  // False when the record can't be written in full. The capture ends there: what follows a gap
  // would be taken for what came behind it.
  bool Write(int64_t microseconds, std::span<const uint8_t> bytes);

  // False if something could not be written.
  bool IsWhole() const { return m_bWhole; }

 private:
  std::mutex m_cs;
  std::FILE* m_pFile;
  bool m_bWhole = true;
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
