#include "echo_servers.h"

#define ASIO_STANDALONE
#define ASIO_NO_DEPRECATED
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/write.hpp>

namespace kvl::bench {
namespace {

class CRawEcho : public CEchoServer {
 public:
  explicit CRawEcho(CDescriptor line)
      : m_line(std::move(line)),
        m_stop(eventfd(0, EFD_CLOEXEC)),
        m_epoll(epoll_create1(EPOLL_CLOEXEC)) {
    SetNonBlocking(m_line.Get());
    for (const int fd : {m_line.Get(), m_stop.Get()}) {
      epoll_event event{};
      event.events = EPOLLIN;
      event.data.fd = fd;
      epoll_ctl(m_epoll.Get(), EPOLL_CTL_ADD, fd, &event);
    }
    m_thread = std::thread([this] { Serve(); });
  }
  ~CRawEcho() override {
    const uint64_t one = 1;
    if (write(m_stop.Get(), &one, sizeof one) == sizeof one) m_thread.join();
  }

 private:
  void Serve() const {
    char bytes[2048];
    epoll_event event{};
    while (epoll_wait(m_epoll.Get(), &event, 1, -1) >= 0 && event.data.fd == m_line.Get()) {
      const ssize_t count = read(m_line.Get(), bytes, sizeof bytes);
      if (count > 0 && write(m_line.Get(), bytes, static_cast<size_t>(count)) != count) return;
    }
  }

  CDescriptor m_line, m_stop, m_epoll;
  std::thread m_thread;
};

class CAsioEcho : public CEchoServer {
 public:
  explicit CAsioEcho(CDescriptor line) : m_owned(std::move(line)), m_line(m_io, m_owned.Get()) {
    Read();
    m_thread = std::thread([this] { m_io.run(); });
  }
  ~CAsioEcho() override {
    m_io.stop();
    m_thread.join();
    m_line.release();
  }

 private:
  void Read() {
    m_line.async_read_some(asio::buffer(m_bytes), [this](std::error_code failure, size_t count) {
      if (failure) return;
      asio::async_write(m_line, asio::buffer(m_bytes, count), [this](std::error_code ec, size_t) {
        if (!ec) Read();
      });
    });
  }

  CDescriptor m_owned;
  asio::io_context m_io{1};
  asio::posix::stream_descriptor m_line;
  std::array<char, 2048> m_bytes{};
  std::thread m_thread;
};

}  // namespace

std::unique_ptr<CEchoServer> RawEcho(CDescriptor line) {
  return std::make_unique<CRawEcho>(std::move(line));
}

std::unique_ptr<CEchoServer> AsioEcho(CDescriptor line) {
  return std::make_unique<CAsioEcho>(std::move(line));
}

}  // namespace kvl::bench
