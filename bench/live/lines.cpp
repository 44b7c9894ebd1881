#include "lines.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace kvl::bench {
namespace {

int Checked(int result, const char* what) {
  if (result < 0) throw std::runtime_error(std::string(what) + " failed");
  return result;
}

sockaddr_in Local(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

void SetNoDelay(int fd) {
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void MakeRaw(int fd) {
  termios settings{};
  Checked(tcgetattr(fd, &settings), "tcgetattr");
  cfmakeraw(&settings);
  Checked(tcsetattr(fd, TCSANOW, &settings), "tcsetattr");
}

}  // namespace

CDescriptor::CDescriptor(CDescriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}

CDescriptor& CDescriptor::operator=(CDescriptor&& other) noexcept {
  std::swap(m_fd, other.m_fd);
  return *this;
}

CDescriptor::~CDescriptor() {
  if (m_fd >= 0) close(m_fd);
}

CDescriptor Listen(uint16_t& port) {
  CDescriptor listener(Checked(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"));
  sockaddr_in address = Local(0);
  socklen_t size = sizeof address;
  Checked(bind(listener.Get(), reinterpret_cast<sockaddr*>(&address), size), "bind");
  Checked(listen(listener.Get(), 1024), "listen");
  Checked(getsockname(listener.Get(), reinterpret_cast<sockaddr*>(&address), &size), "getsockname");
  port = ntohs(address.sin_port);
  return listener;
}

CDescriptor Accept(const CDescriptor& listener) {
  CDescriptor fd(Checked(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC), "accept"));
  SetNoDelay(fd.Get());
  return fd;
}

CDescriptor Connect(uint16_t port) {
  CDescriptor fd(Checked(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"));
  const sockaddr_in address = Local(port);
  Checked(connect(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
          "connect");
  SetNoDelay(fd.Get());
  return fd;
}

CDescriptor OpenTerminal(std::string& name) {
  CDescriptor master(Checked(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC), "posix_openpt"));
  Checked(grantpt(master.Get()), "grantpt");
  Checked(unlockpt(master.Get()), "unlockpt");
  char text[64];
  Checked(-ptsname_r(master.Get(), text, sizeof text), "ptsname");
  name = text;
  MakeRaw(OpenDevice(name).Get());
  return master;
}

CDescriptor OpenDevice(const std::string& name) {
  CDescriptor fd(Checked(open(name.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC), "open"));
  MakeRaw(fd.Get());
  return fd;
}

void SetNonBlocking(int fd) {
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
}

}  // namespace kvl::bench
