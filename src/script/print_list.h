// The messages of PRINT and PRINTEX, for a host to read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/api.h"

namespace kvl {

struct CPrintMessage {
  std::string m_strText;  // without zero bytes
};

// An ordered list with a bound: when it is full the oldest message makes room for the newest.
// Threads: any operation from any thread.
class KVL_API CPrintList {
 public:
  static constexpr size_t kMaxMessages = 1000;

  // Adds a message at the tail. Without memory for it there is no message.
  void Append(std::string_view text);

  // Copies of the messages, oldest first.
  std::vector<CPrintMessage> Messages() const;

  // Takes all messages out of the list.
  std::vector<CPrintMessage> Take();

  // How many messages made room for newer ones so far.
  uint64_t Dropped() const;

  void Clear();

 private:
  mutable std::mutex m_csPrint;
  std::deque<CPrintMessage> m_listMessage;
  uint64_t m_nDropped = 0;
};

}  // namespace kvl
