#include "platform/posix/line_watch.h"

#include <sys/epoll.h>

#include <cerrno>

#include "platform/posix/wakeup_impl.h"

namespace kvl {

namespace {

int MakeSet(int fd) {
  CDescriptor set(epoll_create1(EPOLL_CLOEXEC));
  epoll_event event{};
  event.events = EPOLLONESHOT;
  if (!set || epoll_ctl(set.Get(), EPOLL_CTL_ADD, fd, &event) != 0) {
    throw std::system_error(errno, std::system_category());
  }
  return set.Release();
}

}  // namespace

CLineWatch::CLineWatch(asio::io_context& io, int fd) : m_events(io, MakeSet(fd)), m_fd(fd) {}

void CLineWatch::Want(uint32_t events) {
  epoll_event event{};
  event.events = events | EPOLLONESHOT;
  epoll_ctl(m_events.native_handle(), EPOLL_CTL_MOD, m_fd, &event);  // can't fail: it is in the set
}

uint32_t CLineWatch::Take() {
  epoll_event event{};
  return epoll_wait(m_events.native_handle(), &event, 1, 0) == 1 ? event.events : 0;
}

}  // namespace kvl
