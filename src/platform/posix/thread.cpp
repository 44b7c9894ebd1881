#include "platform/thread.h"

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>

namespace kvl {

bool SetThreadPriority(int32_t nPriority) {
  // Niceness counts the other way round and belongs to the single thread.
  return setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), -nPriority) == 0;
}

void SetThreadName(std::string_view name) {
  constexpr size_t kKept = 15;
  pthread_setname_np(pthread_self(), std::string(name.substr(0, kKept)).c_str());
}

}  // namespace kvl
