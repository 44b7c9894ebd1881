// Prints for threads that must not wait for a terminal or a pipe that takes nothing.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/terminal.h"

namespace kvl::cli {

// A list of texts, and a thread of its own that writes them. While a stream takes nothing the list
// grows to kMaxWaiting bytes; what comes then is left out and counted.
// Threads: Print and the counts from any; End from one.
class CPrinter {
 public:
  static constexpr size_t kMaxWaiting = size_t{16} << 20;

  CPrinter();
  ~CPrinter();
  CPrinter(const CPrinter&) = delete;
  CPrinter& operator=(const CPrinter&) = delete;

  void Print(EPrintStream stream, std::string text);

  // Waits until everything is written, for at most `timeoutMs` milliseconds. Nothing is taken any
  // more. False if texts are left that nobody will see.
  bool End(int32_t timeoutMs);

  // Texts that found the list full, and those of standard output that could not be written.
  uint64_t LeftOut() const;
  uint64_t Failed() const;

 private:
  struct CList;

  const std::shared_ptr<CList> m_pList;
  bool m_bEnded = false;
};

}  // namespace kvl::cli
