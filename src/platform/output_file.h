// What a program writes to: its standard streams, and files.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "platform/api.h"

namespace kvl {

enum class EPrintStream { kOutput, kError };

// Takes the places of standard streams that the program was started without, so that no file or
// line which it opens later takes what is printed. To be called first. Writing to such a stream
// fails.
KVL_API void HoldMissingStreams();

// From now on a write that can't succeed, for want of a reader or beyond a limit on the size of
// files, fails instead of ending the program.
KVL_API void SurviveFailingWrites();

// Writes past the C library's buffers.
// Threads: one at a time.
class KVL_API COutputFile {
 public:
  // A stream of the program's own.
  explicit COutputFile(EPrintStream stream);
  // Makes the file, or empties the one that is there. A pipe needs its reader already.
  explicit COutputFile(const std::string& path);
  ~COutputFile();
  COutputFile(COutputFile&& other) noexcept;
  COutputFile& operator=(COutputFile&&) = delete;

  bool IsOpen() const { return m_pFile != nullptr; }

  // Writes all of it, and waits while nothing is taken. False if it can't be written in full.
  bool Write(std::string_view text) const;

 private:
  struct CFile;
  std::unique_ptr<CFile> m_pFile;
};

}  // namespace kvl
