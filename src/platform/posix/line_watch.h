// Watches a connection for a loop, where any thread may change what is watched for: a loop that
// waits for nothing on a connection is not woken by it.
#pragma once

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <cstdint>
#include <system_error>

namespace kvl {

// Threads: the loop's, but for Want.
class CLineWatch {
 public:
  // Wants nothing at first. Throws std::system_error if the system has no means left. The
  // descriptor must not be closed before the watch has ended.
  CLineWatch(asio::io_context& io, int fd);

  // What to watch for from now on: EPOLLIN and EPOLLOUT, or 0 for nothing. Whatever comes is told
  // once; then nothing is wanted any more.
  void Want(uint32_t events);

  // What has come, 0 if nothing has.
  uint32_t Take();

  // Calls `handler` with an error code once there may be something to take.
  template <typename Handler>
  void Wait(Handler&& handler) {
    m_events.async_wait(asio::posix::stream_descriptor::wait_read, std::forward<Handler>(handler));
  }

 private:
  asio::posix::stream_descriptor m_events;  // an epoll set that holds the connection alone
  const int m_fd;
};

}  // namespace kvl
