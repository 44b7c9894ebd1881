#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "platform/clock.h"
#include "platform/posix/wakeup_impl.h"

namespace kvl {

namespace {

// poll() that outlives signals. `deadline` is in ticks, -1 for none.
int PollUntil(pollfd* fds, nfds_t count, int64_t deadline) {
  for (;;) {
    int timeout = -1;
    if (deadline >= 0) {
      timeout = static_cast<int>(std::max<int64_t>(deadline - GetTickCount(), 0));
    }
    const int ready = poll(fds, count, timeout);
    if (ready >= 0 || errno != EINTR) return ready;
  }
}

// How long to sleep on the descriptor alone.
constexpr int32_t kBlindMs = 50;

}  // namespace

CWakeup::CWakeup() : m_pImpl(std::make_unique<Impl>()) {}

CWakeup::~CWakeup() = default;

void CWakeup::Set() {
  std::unique_lock guard(m_pImpl->lock);
  if (std::exchange(m_pImpl->bSet, true)) return;
  if (m_pImpl->bPolling) {
    const uint64_t one = 1;
    // An eventfd takes this unless it is signalled already.
    [[maybe_unused]] const ssize_t written = write(m_pImpl->event.Get(), &one, sizeof one);
  } else {
    guard.unlock();  // or who wakes up would have to wait for it
    m_pImpl->changed.notify_one();
  }
}

bool CWakeup::Wait(int32_t timeoutMs) {
  std::unique_lock guard(m_pImpl->lock);
  const auto isSet = [this] { return m_pImpl->bSet; };
  if (timeoutMs < 0) {
    m_pImpl->changed.wait(guard, isSet);
  } else {
    m_pImpl->changed.wait_for(guard, std::chrono::milliseconds(timeoutMs), isSet);
  }
  return std::exchange(m_pImpl->bSet, false);
}

PollResult PollBeside(int fd, short events, CWakeup& wakeup, int32_t timeoutMs, short* pEvents) {
  CWakeup::Impl& impl = wakeup.GetImpl();
  {
    const std::lock_guard guard(impl.lock);
    if (std::exchange(impl.bSet, false)) return PollResult::kWoken;
    if (!impl.event) impl.event = CDescriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    impl.bPolling = static_cast<bool>(impl.event);
    if (!impl.bPolling && (timeoutMs < 0 || timeoutMs > kBlindMs)) timeoutMs = kBlindMs;
  }
  pollfd fds[] = {{fd, events, 0}, {impl.event.Get(), POLLIN, 0}};  // poll passes over a -1
  const int ready = PollUntil(fds, 2, timeoutMs < 0 ? -1 : GetTickCount() + timeoutMs);
  if (ready < 0) Sleep(kBlindMs);

  const std::lock_guard guard(impl.lock);
  impl.bPolling = false;
  if (impl.bSet) {  // since the poll began, so that the descriptor was signalled
    uint64_t signals = 0;
    [[maybe_unused]] const ssize_t taken = read(impl.event.Get(), &signals, sizeof signals);
  }
  *pEvents = ready < 0 ? short{0} : fds[0].revents;
  if (*pEvents != 0) return PollResult::kReady;  // a Set stays for the next wait
  return std::exchange(impl.bSet, false) ? PollResult::kWoken : PollResult::kTimeout;
}

}  // namespace kvl
