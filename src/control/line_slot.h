// The place of a session's line, which may come and go while the session runs.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>

#include "transport/line.h"

namespace kvl {

// Threads: any. Who uses a line keeps it alive; one that is taken out is destroyed by whoever lets
//          go of it last.
template <typename Line>
class CLineSlot : public CLine {
 public:
  // The line that is there, or null.
  std::shared_ptr<Line> Get() const {
    const std::lock_guard lock(m_cs);
    return m_pLine;
  }

  // Puts a line, or none, into the place; gives the one before.
  std::shared_ptr<Line> Replace(std::shared_ptr<Line> line) {
    const std::lock_guard lock(m_cs);
    m_pLine.swap(line);
    return line;
  }

  // Takes the line out if it is still there. False if another one, or none, has taken its place.
  bool Remove(const std::shared_ptr<Line>& line) {
    const std::lock_guard lock(m_cs);
    if (m_pLine != line) return false;
    m_pLine.reset();
    return true;
  }

  bool IsOpen() const override {
    const std::shared_ptr<Line> line = Get();
    return line != nullptr && line->IsOpen();
  }
  int32_t Write(const uint8_t* pBytes, int32_t nCount) override {
    const std::shared_ptr<Line> line = Get();
    return line == nullptr ? 0 : line->Write(pBytes, nCount);
  }
  void Interrupt() override {
    if (const std::shared_ptr<Line> line = Get()) line->Interrupt();
  }

 private:
  mutable std::mutex m_cs;
  std::shared_ptr<Line> m_pLine;
};

}  // namespace kvl
