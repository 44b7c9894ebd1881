// The message loop of a thread, timers on it, and the user's wish to end the program.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "platform/api.h"

namespace kvl {

class CLoopCore;

// A handle to one thread's loop; copies share it. Windows, sockets, timers and tasks of a thread
// are served only while one of the Run operations is under way on it, in the order in which they
// came. Run operations may nest.
// Threads: the Run operations work on the loop's own thread and do nothing on another; Post, Quit
//          and Wake may be called from any thread, also after the loop's thread has ended.
// Errors:  a task that throws counts as one that returned.
class KVL_API CMessageLoop {
 public:
  using Task = std::function<void()>;

  // How many posted tasks and messages may wait in one loop.
  static constexpr int32_t kMaxPosted = 10000;

  // The calling thread's loop, made at the first use. It ends with the thread, which destroys the
  // thread's windows and closes its sockets first. On a thread that is ending, or when the system
  // has nothing left to make a loop of, the handle stands for no loop, and every operation fails.
  static CMessageLoop Current();

  // Serves until a Quit has its turn, behind what came before it. Each Quit ends one Run.
  void Run();

  // Serves until `done` holds or `timeoutMs` milliseconds have gone by (-1: no limit); gives
  // whether it holds. `done` is asked before and after each step.
  bool RunUntil(const std::function<bool()>& done, int32_t timeoutMs);

  // Serves what is ready, at most kMaxPosted steps, without waiting.
  void RunUntilIdle();

  void Quit();

  // Has the loop's thread run `task`. False if it has ended or kMaxPosted tasks wait already.
  bool Post(Task task);

  // Waits until `done` holds, on the loop's own thread, and serves meanwhile what other threads
  // send to its windows (SendMessageA), and nothing else: so one may wait for a thread that may be
  // in such a call. `done` must not wait itself; it is asked anew at each Wake, which any thread
  // may call.
  void WaitServingCalls(const std::function<bool()>& done);
  void Wake();

 private:
  bool IsOwn() const;

  std::shared_ptr<CLoopCore> m_pCore;
};

// Runs a task once, some time from now, on the thread that made the timer.
// Threads: all operations on the thread that made it; the task may stop, restart or destroy it.
class KVL_API CTimer {
 public:
  CTimer();
  ~CTimer();
  CTimer(const CTimer&) = delete;
  CTimer& operator=(const CTimer&) = delete;

  // Replaces a task that still waits. False if the thread has no loop, or the timer no memory.
  bool Start(int32_t delayMs, CMessageLoop::Task task);

  // The waiting task, if any, will not run.
  void Stop();

 private:
  struct Impl;
  std::shared_ptr<Impl> m_pImpl;
};

// Calls a task on the thread that made the object, each time the user presses Ctrl-C, the system
// asks the program to end, or the program's terminal goes away (unless it was started with nohup).
// The program then goes on as long as one such object lives. What the system has no means left to
// watch keeps its ordinary effect.
class KVL_API CInterruptWatch {
 public:
  explicit CInterruptWatch(CMessageLoop::Task task);
  ~CInterruptWatch();
  CInterruptWatch(const CInterruptWatch&) = delete;
  CInterruptWatch& operator=(const CInterruptWatch&) = delete;

 private:
  struct Impl;
  std::shared_ptr<Impl> m_pImpl;
};

}  // namespace kvl
