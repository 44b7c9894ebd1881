// What stands behind CMessageLoop, for the sources of this folder only: one io_context a thread.
#pragma once

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include "platform/message_loop.h"

namespace kvl {

// Something that must let go of its loop's io_context before the io_context is destroyed.
class CLoopResource {
 public:
  // On the loop's thread, as it ends. The object has been detached already.
  virtual void OnLoopEnd() = 0;

 protected:
  virtual ~CLoopResource() = default;
};

class CLoopCore {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  // How long a call waits for a thread that serves nothing.
  static constexpr std::chrono::milliseconds kCallPatience{5000};

  // The calling thread's loop; null if it can't be made, or the thread is ending.
  static std::shared_ptr<CLoopCore> Current();
  // The same, but makes none.
  static std::shared_ptr<CLoopCore> Existing();

  CLoopCore();

  bool IsOwnThread() const { return std::this_thread::get_id() == m_thread; }

  // Own thread only.
  asio::io_context& Io() { return *m_io; }
  void Attach(CLoopResource* pResource) { m_resources.insert(pResource); }
  void Detach(CLoopResource* pResource) { m_resources.erase(pResource); }
  bool RunUntil(const std::function<bool()>& done, std::optional<TimePoint> deadline);
  bool PollOne();
  bool TakeQuit();
  void End();

  // Own thread; see CMessageLoop.
  void WaitServingCalls(const std::function<bool()>& done);

  // Any thread. False if the loop has ended, is full or has no memory for the task.
  template <typename Task>
  bool Post(Task task);
  // The same without a limit, for what this folder owes the loop.
  template <typename Task>
  bool PostUncounted(Task task) noexcept;
  void Quit();
  void Wake();

  // Runs `task` on the loop's thread and returns when it has run; from that thread itself at
  // once. While it waits, the caller's own loop serves calls, and nothing else, so that two
  // threads may call each other. False, and `task` will not run, if the loop has ended, ends
  // first, or does not take the call up within kCallPatience, and without memory for the call.
  bool Call(const std::function<void()>& task) noexcept;

 private:
  struct CMailbox;
  struct CCall;

  static void Serve(CCall& call);
  static void ServeCalls(CMailbox& mailbox);
  static bool Await(CMailbox& mailbox, const std::function<bool()>& done,
                    std::optional<TimePoint> deadline, std::unique_lock<std::mutex>& guard);
  bool CallOther(const std::function<void()>& task);

  const std::thread::id m_thread;
  const std::shared_ptr<CMailbox> m_pMailbox;
  // Guards m_bEnded, and so the use of m_io by other threads. Recursive: a task that there is no
  // memory to post ends under it, and what it holds may post as it ends.
  std::recursive_mutex m_ioLock;
  bool m_bEnded = false;
  std::optional<asio::io_context> m_io;
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> m_work;
  std::set<CLoopResource*> m_resources;
  uint32_t m_nQuits = 0;  // that have had their turn and ended no Run yet; own thread only
  std::atomic<int32_t> m_nPosted{0};  // tasks of Post that wait
};

// Ends the windows of a loop, on its thread (window.cpp).
void DestroyWindowsOf(const CLoopCore& loop);

// The signals by which this system asks a program to end.
std::vector<int> EndingSignals();

// Runs a handler of the host or of the layers above; what it throws ends here.
template <typename Handler>
void RunGuarded(Handler&& handler) noexcept {
  try {
    handler();
  } catch (...) {
    // A handler has nobody to report to: the next event is served as if it had returned.
  }
}

template <typename Task>
bool CLoopCore::PostUncounted(Task task) noexcept {
  const std::lock_guard guard(m_ioLock);
  if (m_bEnded) return false;
  try {
    asio::post(*m_io, [task = std::move(task)] { RunGuarded(task); });
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

template <typename Task>
bool CLoopCore::Post(Task task) {
  if (m_nPosted.fetch_add(1) < CMessageLoop::kMaxPosted &&
      PostUncounted([this, task = std::move(task)] {
        --m_nPosted;
        task();
      })) {
    return true;
  }
  --m_nPosted;
  return false;
}

}  // namespace kvl
