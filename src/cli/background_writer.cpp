#include "cli/background_writer.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

#include "platform/clock.h"
#include "platform/thread.h"

namespace kvl::cli {
namespace {

constexpr size_t kMaxPiece = 4096;  // that texts are joined to

}  // namespace

// Shared with the thread, which nobody waits for when it hangs in a write.
struct CBackgroundWriter::CList {
  struct CPiece {
    std::string text;
    uint64_t nTexts = 0;
  };

  CList(COutputFile&& output, EGaps gapsAllowed, std::function<void()> whenFailing)
      : file(std::move(output)), gaps(gapsAllowed), onFailure(std::move(whenFailing)) {}

  void Work();
  // Need the lock.
  void Append(const std::string& text);
  void Written(const CPiece& piece, bool done);
  void Fail();

  const COutputFile file;
  const EGaps gaps;
  std::function<void()> onFailure;  // empty once it was called, or may not be any more
  std::mutex lock;
  std::condition_variable changed;
  std::deque<CPiece> pieces;
  size_t nBytes = 0;       // not yet written
  int64_t nLastTaken = 0;  // or when there was something to take at last
  uint64_t nLeftOut = 0;
  uint64_t nFailed = 0;
  bool bEnd = false;
};

void CBackgroundWriter::CList::Append(const std::string& text) {
  if (nBytes == 0) nLastTaken = GetTickCount();
  nBytes += text.size();
  if (pieces.empty() || pieces.back().text.size() + text.size() > kMaxPiece) pieces.emplace_back();
  pieces.back().text += text;
  ++pieces.back().nTexts;
  changed.notify_all();
}

void CBackgroundWriter::CList::Fail() {
  if (gaps == EGaps::kForbidden) bEnd = true;
  if (const auto tell = std::exchange(onFailure, nullptr)) tell();
}

void CBackgroundWriter::CList::Written(const CPiece& piece, bool done) {
  nBytes -= piece.text.size();
  nLastTaken = GetTickCount();
  changed.notify_all();
  if (done) return;
  nFailed += piece.nTexts;
  if (gaps == EGaps::kForbidden) {
    pieces.clear();
    nBytes = 0;
  }
  Fail();
}

void CBackgroundWriter::CList::Work() {
  SetThreadName("kvl writer");
  std::unique_lock guard(lock);
  for (;;) {
    changed.wait(guard, [this] { return bEnd || !pieces.empty(); });
    if (pieces.empty()) return;
    const CPiece piece = std::move(pieces.front());
    pieces.pop_front();
    guard.unlock();
    const bool done = file.Write(piece.text);
    guard.lock();
    Written(piece, done);
  }
}

CBackgroundWriter::CBackgroundWriter(COutputFile file, EGaps gaps, std::function<void()> onFailure)
    : m_pList(std::make_shared<CList>(std::move(file), gaps, std::move(onFailure))) {
  std::thread([pList = m_pList] { pList->Work(); }).detach();
}

CBackgroundWriter::~CBackgroundWriter() {
  if (!m_bEnded) End(GetTickCount());
  const std::lock_guard guard(m_pList->lock);
  m_pList->onFailure = nullptr;
}

void CBackgroundWriter::Write(const std::string& text, EText importance) {
  CList& list = *m_pList;
  const std::lock_guard guard(list.lock);
  if (list.bEnd) return;
  if (importance == EText::kLast || list.nBytes + text.size() <= kMaxWaiting) {
    list.Append(text);
    return;
  }
  ++list.nLeftOut;
  if (list.gaps == EGaps::kForbidden) list.Fail();
}

bool CBackgroundWriter::End(int64_t nStart) {
  m_bEnded = true;
  CList& list = *m_pList;
  std::unique_lock guard(list.lock);
  list.bEnd = true;
  list.changed.notify_all();
  while (list.nBytes > 0) {
    const int64_t until =
        std::min(std::max(nStart, list.nLastTaken) + kPatienceMs, nStart + int64_t{kLongestEndMs});
    const int64_t rest = until - GetTickCount();
    if (rest <= 0) return false;
    list.changed.wait_for(guard, std::chrono::milliseconds(rest));
  }
  return true;
}

uint64_t CBackgroundWriter::LeftOut() const {
  const std::lock_guard guard(m_pList->lock);
  return m_pList->nLeftOut;
}

uint64_t CBackgroundWriter::Failed() const {
  const std::lock_guard guard(m_pList->lock);
  return m_pList->nFailed;
}

}  // namespace kvl::cli
