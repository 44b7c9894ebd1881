#include "cli/printer.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string_view>
#include <thread>
#include <utility>

#include "platform/thread.h"

namespace kvl::cli {
namespace {

constexpr size_t kMaxPiece = 65536;  // that texts are joined to
constexpr int32_t kPatienceMs = 1000;
constexpr std::string_view kNotice =
    "kvl: warning: standard output can't be written; the work goes on without it\n";

}  // namespace

// Shared with the thread, which nobody waits for when it hangs in a write.
struct CPrinter::CList {
  struct CPiece {
    EPrintStream stream;
    std::string text;
    uint64_t nTexts = 0;
  };

  void Add(EPrintStream stream, std::string text);
  void Write();

  std::mutex lock;
  std::condition_variable changed;
  std::deque<CPiece> pieces;
  size_t nBytes = 0;  // not yet written
  uint64_t nLeftOut = 0;
  uint64_t nFailed = 0;
  bool bEnd = false;
};

void CPrinter::CList::Add(EPrintStream stream, std::string text) {
  if (bEnd || nBytes + text.size() > kMaxWaiting) {
    ++nLeftOut;
    return;
  }
  nBytes += text.size();
  if (pieces.empty() || pieces.back().stream != stream ||
      pieces.back().text.size() + text.size() > kMaxPiece) {
    pieces.push_back({stream, std::move(text), 1});
  } else {
    pieces.back().text += text;
    ++pieces.back().nTexts;
  }
  changed.notify_all();
}

void CPrinter::CList::Write() {
  SetThreadName("kvl printer");
  std::unique_lock guard(lock);
  for (;;) {
    changed.wait(guard, [this] { return bEnd || !pieces.empty(); });
    if (pieces.empty()) return;
    const CPiece piece = std::move(pieces.front());
    pieces.pop_front();
    const bool first = nFailed == 0;
    guard.unlock();
    const bool failed =
        !WriteStream(piece.stream, piece.text) && piece.stream == EPrintStream::kOutput;
    if (failed && first) WriteStream(EPrintStream::kError, kNotice);
    guard.lock();
    if (failed) nFailed += piece.nTexts;
    nBytes -= piece.text.size();
    changed.notify_all();
  }
}

CPrinter::CPrinter() : m_pList(std::make_shared<CList>()) {
  std::thread([pList = m_pList] { pList->Write(); }).detach();
}

CPrinter::~CPrinter() {
  if (!m_bEnded) End(kPatienceMs);
}

void CPrinter::Print(EPrintStream stream, std::string text) {
  const std::lock_guard guard(m_pList->lock);
  m_pList->Add(stream, std::move(text));
}

bool CPrinter::End(int32_t timeoutMs) {
  m_bEnded = true;
  std::unique_lock guard(m_pList->lock);
  m_pList->bEnd = true;
  m_pList->changed.notify_all();
  return m_pList->changed.wait_for(guard, std::chrono::milliseconds(timeoutMs),
                                   [this] { return m_pList->nBytes == 0; });
}

uint64_t CPrinter::LeftOut() const {
  const std::lock_guard guard(m_pList->lock);
  return m_pList->nLeftOut;
}

uint64_t CPrinter::Failed() const {
  const std::lock_guard guard(m_pList->lock);
  return m_pList->nFailed;
}

}  // namespace kvl::cli
