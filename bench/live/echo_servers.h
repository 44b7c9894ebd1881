// The peers: what the least code does that answers a line with its own bytes.
#pragma once

#include <atomic>
#include <memory>
#include <thread>

#include "lines.h"

namespace kvl::bench {

class CEchoServer {
 public:
  virtual ~CEchoServer() = default;
};

// One thread that sleeps in epoll_wait.
std::unique_ptr<CEchoServer> RawEcho(CDescriptor line);
// One thread that runs an io_context.
std::unique_ptr<CEchoServer> AsioEcho(CDescriptor line);

}  // namespace kvl::bench
