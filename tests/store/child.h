// Other processes for tests: each runs a function and ends.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <ctime>
#include <functional>
#include <string>

#include "support/test_table.h"

// A forked process that ends with what `work` returns. Killed if it still runs in the end.
class CChild {
 public:
  explicit CChild(const std::function<int()>& work) : m_nProcess(fork()) {
    if (m_nProcess == 0) _exit(work());
  }
  ~CChild() { Kill(); }
  CChild(CChild&& other) noexcept : m_nProcess(other.m_nProcess) { other.m_nProcess = -1; }
  CChild& operator=(CChild&&) = delete;

  void Kill() {
    if (m_nProcess > 0) kill(m_nProcess, SIGKILL);
    Join();
  }
  // What the process returned; -1 if it did not end by itself.
  int Join() {
    int nStatus = -1;
    if (m_nProcess <= 0 || waitpid(m_nProcess, &nStatus, 0) != m_nProcess) return -1;
    m_nProcess = -1;
    return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
  }

 private:
  pid_t m_nProcess;
};

// One byte from a child to its parent and back: who waits for it sleeps.
class CSignalPipe {
 public:
  CSignalPipe() {
    if (pipe(m_ends) != 0) m_ends[0] = m_ends[1] = -1;
  }
  ~CSignalPipe() {
    close(m_ends[0]);
    close(m_ends[1]);
  }
  CSignalPipe(const CSignalPipe&) = delete;
  CSignalPipe& operator=(const CSignalPipe&) = delete;
  void Send() const {
    if (write(m_ends[1], "x", 1) != 1) abort();
  }
  void Await() const {
    char c;
    if (read(m_ends[0], &c, 1) != 1) abort();
  }

 private:
  int m_ends[2];
};

inline int64_t NowMicroseconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}
