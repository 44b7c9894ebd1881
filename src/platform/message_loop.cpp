#include "platform/message_loop.h"

#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>
#include <condition_variable>
#include <deque>
#include <new>
#include <utility>

#include "platform/loop_core.h"

namespace kvl {

// Where the calls to one thread arrive, and where it waits for the end of its own calls.
struct CLoopCore::CMailbox {
  std::mutex lock;
  std::condition_variable changed;
  std::deque<std::shared_ptr<CCall>> calls;
  bool bClosed = false;
};

struct CLoopCore::CCall {
  enum class State { kWaiting, kTaken, kRun, kRefused };

  const std::function<void()>* pTask;
  std::shared_ptr<CMailbox> pCaller;  // its lock guards the state
  State state = State::kWaiting;

  // True if the state was `from`.
  bool Move(State from, State to) {
    const std::lock_guard guard(pCaller->lock);
    if (state != from) return false;
    state = to;
    pCaller->changed.notify_all();
    return true;
  }
};

namespace {

struct CThreadLoop {
  std::shared_ptr<CLoopCore> pCore;
  ~CThreadLoop();
};

// Trivially destructible, so that it can be asked to the very end of the thread.
thread_local bool t_bThreadEnding = false;
thread_local CThreadLoop t_loop;

CThreadLoop::~CThreadLoop() {
  t_bThreadEnding = true;
  if (pCore) pCore->End();
}

// False if nothing was there to be served.
template <typename Serve>
bool ServesOne(Serve serve) {
  try {
    return serve() != 0;
  } catch (const std::bad_alloc&) {
    return true;  // what could not be served is given up; the loop goes on
  }
}

}  // namespace

std::shared_ptr<CLoopCore> CLoopCore::Existing() {
  return t_bThreadEnding ? nullptr : t_loop.pCore;
}

std::shared_ptr<CLoopCore> CLoopCore::Current() {
  if (t_bThreadEnding) return nullptr;
  if (!t_loop.pCore) {
    try {
      t_loop.pCore = std::make_shared<CLoopCore>();
    } catch (const std::exception&) {
      return nullptr;
    }
  }
  return t_loop.pCore;
}

CLoopCore::CLoopCore()
    : m_thread(std::this_thread::get_id()), m_pMailbox(std::make_shared<CMailbox>()) {
  m_io.emplace();
  m_work.emplace(m_io->get_executor());
  // The io_context takes what it needs of the system with its first timer or socket. A loop that
  // is there has it all: a shortage then shows where the loop is made, and nowhere else.
  const asio::steady_timer first(*m_io);
}

void CLoopCore::End() {
  DestroyWindowsOf(*this);
  while (!m_resources.empty()) {
    CLoopResource* pResource = *m_resources.begin();
    m_resources.erase(m_resources.begin());
    pResource->OnLoopEnd();
  }
  {
    const std::lock_guard guard(m_ioLock);
    m_bEnded = true;
  }
  std::deque<std::shared_ptr<CCall>> refused;
  {
    const std::lock_guard guard(m_pMailbox->lock);
    m_pMailbox->bClosed = true;
    refused.swap(m_pMailbox->calls);
  }
  for (const auto& pCall : refused) pCall->Move(CCall::State::kWaiting, CCall::State::kRefused);
  m_work.reset();
  m_io.reset();
}

bool CLoopCore::RunUntil(const std::function<bool()>& done, std::optional<TimePoint> deadline) {
  while (!done()) {
    const bool bServed =
        ServesOne([&] { return deadline ? m_io->run_one_until(*deadline) : m_io->run_one(); });
    if (!bServed) return done();
  }
  return true;
}

bool CLoopCore::PollOne() {
  return ServesOne([this] { return m_io->poll_one(); });
}

bool CLoopCore::TakeQuit() {
  if (m_nQuits == 0) return false;
  --m_nQuits;
  return true;
}

void CLoopCore::Quit() {
  // In its turn, so that what came before it is served before the loop ends.
  PostUncounted([this] { ++m_nQuits; });
}

void CLoopCore::Serve(CCall& call) {
  if (!call.Move(CCall::State::kWaiting, CCall::State::kTaken)) return;
  RunGuarded(*call.pTask);
  call.Move(CCall::State::kTaken, CCall::State::kRun);
}

void CLoopCore::ServeCalls(CMailbox& mailbox) {
  for (;;) {
    std::shared_ptr<CCall> pCall;
    {
      const std::lock_guard guard(mailbox.lock);
      if (mailbox.calls.empty()) return;
      pCall = std::move(mailbox.calls.front());
      mailbox.calls.pop_front();
    }
    Serve(*pCall);
  }
}

// Waits for `done`, which is asked at each change of the mailbox, and serves the calls that arrive
// there meanwhile. False if the deadline came first. `guard` holds the mailbox's lock.
bool CLoopCore::Await(CMailbox& mailbox, const std::function<bool()>& done,
                      std::optional<TimePoint> deadline, std::unique_lock<std::mutex>& guard) {
  while (!done()) {
    if (!mailbox.calls.empty()) {
      guard.unlock();
      ServeCalls(mailbox);
      guard.lock();
    } else if (!deadline) {
      mailbox.changed.wait(guard);
    } else if (mailbox.changed.wait_until(guard, *deadline) == std::cv_status::timeout) {
      return done();
    }
  }
  return true;
}

void CLoopCore::WaitServingCalls(const std::function<bool()>& done) {
  std::unique_lock guard(m_pMailbox->lock);
  Await(*m_pMailbox, done, std::nullopt, guard);
}

void CLoopCore::Wake() {
  const std::lock_guard guard(m_pMailbox->lock);
  m_pMailbox->changed.notify_all();
}

bool CLoopCore::Call(const std::function<void()>& task) noexcept {
  if (IsOwnThread()) {
    RunGuarded(task);
    return true;
  }
  try {
    return CallOther(task);
  } catch (const std::exception&) {
    return false;
  }
}

bool CLoopCore::CallOther(const std::function<void()>& task) {
  const std::shared_ptr<CLoopCore> pOwn = Existing();
  const auto pCall = std::make_shared<CCall>();
  pCall->pTask = &task;
  pCall->pCaller = pOwn ? pOwn->m_pMailbox : std::make_shared<CMailbox>();
  {
    const std::lock_guard guard(m_pMailbox->lock);
    if (m_pMailbox->bClosed) return false;
    m_pMailbox->calls.push_back(pCall);
    m_pMailbox->changed.notify_all();  // it may be waiting in a call of its own
  }
  // The owner of this reference keeps the loop alive until the task has run or been dropped.
  using State = CCall::State;
  if (!PostUncounted([pMailbox = m_pMailbox] { ServeCalls(*pMailbox); })) {
    pCall->Move(State::kWaiting, State::kRefused);
  }
  const auto isTakenUp = [&call = *pCall] { return call.state != State::kWaiting; };
  const auto isOver = [&call = *pCall] { return call.state != State::kTaken; };
  CMailbox& own = *pCall->pCaller;
  const TimePoint patience = std::chrono::steady_clock::now() + kCallPatience;
  std::unique_lock guard(own.lock);
  // Who takes it up later finds it withdrawn.
  if (!Await(own, isTakenUp, patience, guard)) pCall->state = State::kRefused;
  Await(own, isOver, std::nullopt, guard);
  return pCall->state == State::kRun;
}

CMessageLoop CMessageLoop::Current() {
  CMessageLoop loop;
  loop.m_pCore = CLoopCore::Current();
  return loop;
}

bool CMessageLoop::IsOwn() const {
  return m_pCore && m_pCore->IsOwnThread();
}

void CMessageLoop::Run() {
  if (!IsOwn()) return;
  m_pCore->RunUntil([this] { return m_pCore->TakeQuit(); }, std::nullopt);
}

bool CMessageLoop::RunUntil(const std::function<bool()>& done, int32_t timeoutMs) {
  if (!IsOwn()) return done();
  if (timeoutMs < 0) return m_pCore->RunUntil(done, std::nullopt);
  return m_pCore->RunUntil(done,
                           std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs));
}

void CMessageLoop::RunUntilIdle() {
  for (int32_t i = 0; IsOwn() && i < kMaxPosted && m_pCore->PollOne(); ++i) {
  }
}

void CMessageLoop::Quit() {
  if (m_pCore) m_pCore->Quit();
}

bool CMessageLoop::Post(Task task) {
  return m_pCore && m_pCore->Post(std::move(task));
}

void CMessageLoop::WaitServingCalls(const std::function<bool()>& done) {
  if (IsOwn()) m_pCore->WaitServingCalls(done);
}

void CMessageLoop::Wake() {
  if (m_pCore) m_pCore->Wake();
}

struct CTimer::Impl final : CLoopResource, std::enable_shared_from_this<CTimer::Impl> {
  std::shared_ptr<CLoopCore> pLoop = CLoopCore::Current();
  std::optional<asio::steady_timer> timer;  // until the loop ends
  uint64_t nRound = 0;                      // tells a task that was stopped when it was due already

  void OnLoopEnd() override { timer.reset(); }

  void Start(int32_t delayMs, CMessageLoop::Task task) {
    const uint64_t round = ++nRound;
    timer->expires_after(std::chrono::milliseconds(delayMs));
    timer->async_wait(
        [pSelf = shared_from_this(), round, task = std::move(task)](const asio::error_code& ec) {
          if (!ec && round == pSelf->nRound) RunGuarded(task);
        });
  }
};

CTimer::CTimer() {
  RunGuarded([this] {
    auto pImpl = std::make_shared<Impl>();
    if (!pImpl->pLoop) return;
    pImpl->timer.emplace(pImpl->pLoop->Io());
    pImpl->pLoop->Attach(pImpl.get());
    m_pImpl = std::move(pImpl);
  });
}

CTimer::~CTimer() {
  if (!m_pImpl) return;
  Stop();
  if (m_pImpl->timer) m_pImpl->pLoop->Detach(m_pImpl.get());
  m_pImpl->timer.reset();
}

bool CTimer::Start(int32_t delayMs, CMessageLoop::Task task) {
  if (!m_pImpl || !m_pImpl->timer) return false;
  try {
    m_pImpl->Start(delayMs, std::move(task));
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

void CTimer::Stop() {
  if (!m_pImpl) return;
  ++m_pImpl->nRound;
  if (m_pImpl->timer) m_pImpl->timer->cancel();
}

struct CInterruptWatch::Impl final : CLoopResource,
                                     std::enable_shared_from_this<CInterruptWatch::Impl> {
  std::shared_ptr<CLoopCore> pLoop = CLoopCore::Current();
  std::optional<asio::signal_set> signals;
  CMessageLoop::Task task;

  void OnLoopEnd() override { signals.reset(); }

  // Without memory the signals have their ordinary effect again.
  void Wait() noexcept try {
    signals->async_wait([pSelf = shared_from_this()](const asio::error_code& ec, int) {
      if (ec || !pSelf->signals) return;
      RunGuarded(pSelf->task);
      if (pSelf->signals) pSelf->Wait();
    });
  } catch (const std::bad_alloc&) {
    signals.reset();
  }
};

CInterruptWatch::CInterruptWatch(CMessageLoop::Task task) {
  RunGuarded([&] {
    auto pImpl = std::make_shared<Impl>();
    if (!pImpl->pLoop) return;
    pImpl->task = std::move(task);
    pImpl->signals.emplace(pImpl->pLoop->Io());
    asio::error_code ignored;
    for (const int number : EndingSignals()) pImpl->signals->add(number, ignored);
    pImpl->pLoop->Attach(pImpl.get());
    m_pImpl = std::move(pImpl);
    m_pImpl->Wait();
  });
}

CInterruptWatch::~CInterruptWatch() {
  if (!m_pImpl) return;
  m_pImpl->pLoop->Detach(m_pImpl.get());
  m_pImpl->signals.reset();
}

}  // namespace kvl
