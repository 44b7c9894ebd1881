// Writes for threads that must not wait for a terminal, a pipe or a disk that takes nothing.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "platform/output_file.h"

namespace kvl::cli {

// A list of texts, and a thread of its own that writes them. While nothing is taken the list grows
// to kMaxWaiting bytes; what comes then is left out.
// Threads: any, but End from one.
class CBackgroundWriter {
 public:
  static constexpr size_t kMaxWaiting = size_t{16} << 20;

  enum class EGaps {
    kAllowed,    // what is left out or can't be written is counted, and later texts are written
    kForbidden,  // it is the end: nothing that comes later is written
  };
  enum class EText { kOrdinary, kLast };  // one of the last few is taken even if the list is full

  // Calls `onFailure` once: when something can't be written, or makes a gap that is forbidden. It
  // may use no operation of this object.
  CBackgroundWriter(COutputFile file, EGaps gaps, std::function<void()> onFailure);
  ~CBackgroundWriter();
  CBackgroundWriter(const CBackgroundWriter&) = delete;
  CBackgroundWriter& operator=(const CBackgroundWriter&) = delete;

  void Write(const std::string& text, EText importance = EText::kOrdinary);

  // Takes nothing any more, and waits until everything is written: for kPatienceMs from `nStart`
  // (GetTickCount), and longer while something is taken, up to kLongestEndMs. False if texts are
  // left that nobody will see.
  static constexpr int32_t kPatienceMs = 1000;
  static constexpr int32_t kLongestEndMs = 10000;
  bool End(int64_t nStart);

  uint64_t LeftOut() const;
  uint64_t Failed() const;

 private:
  struct CList;

  const std::shared_ptr<CList> m_pList;
  bool m_bEnded = false;
};

}  // namespace kvl::cli
