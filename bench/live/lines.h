// The far ends of the lines, as plain descriptors: the bench's client is the same for everybody.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace kvl::bench {

class CDescriptor {
 public:
  explicit CDescriptor(int fd = -1) : m_fd(fd) {}
  CDescriptor(CDescriptor&& other) noexcept;
  CDescriptor& operator=(CDescriptor&& other) noexcept;
  ~CDescriptor();
  int Get() const { return m_fd; }

 private:
  int m_fd;
};

// A socket that listens on a free port of this machine.
CDescriptor Listen(uint16_t& port);
CDescriptor Accept(const CDescriptor& listener);
CDescriptor Connect(uint16_t port);

// The master of a new pseudo-terminal in raw mode, and the name of its other end.
CDescriptor OpenTerminal(std::string& name);
CDescriptor OpenDevice(const std::string& name);

void SetNonBlocking(int fd);

}  // namespace kvl::bench
