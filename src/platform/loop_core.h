// What stands behind CMessageLoop, for the sources of this folder only: one io_context a thread.
#pragma once

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <utility>
#include <vector>

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
  using Task = std::function<void()>;
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
  bool TakeQuit() { return std::exchange(m_bQuit, false); }
  void End();

  // Any thread.
  bool Post(Task task);
  // The same without a limit, for what this folder owes the loop.
  bool PostUncounted(Task task);
  void Quit();

  // Runs `task` on the loop's thread and returns when it has run; from that thread itself at
  // once. While it waits, the caller's own loop serves calls, and nothing else, so that two
  // threads may call each other. False, and `task` will not run, if the loop has ended, ends
  // first, or does not take the call up within kCallPatience.
  bool Call(const Task& task);

 private:
  struct CMailbox;
  struct CCall;

  static void Serve(CCall& call);
  void ServeCalls();

  const std::thread::id m_thread;
  const std::shared_ptr<CMailbox> m_pMailbox;
  std::mutex m_ioLock;  // guards m_bEnded, and so the use of m_io by other threads
  bool m_bEnded = false;
  std::optional<asio::io_context> m_io;
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> m_work;
  std::set<CLoopResource*> m_resources;
  bool m_bQuit = false;  // own thread only
  std::atomic<int32_t> m_nPosted{0};
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

}  // namespace kvl
