// What the engine needs of its owner: the control of a live session, or whoever drives the engine
// by itself (replay, a test, a bench). The engine calls on the thread that runs Begin.
#pragma once

#include <atomic>
#include <cstdint>
#include <span>
#include <string_view>

#include "platform/api.h"

namespace kvl {

enum class EPause {
  Sleep,   // the instruction SLEEP
  Pacing,  // behind each byte of a paced OUT
};

class KVL_API CEngineOwner {
 public:
  virtual ~CEngineOwner() = default;

  // The run flag. While it is 0 no instruction starts. Any thread may write it.
  std::atomic<uint32_t> m_bRun{1};

  // Lets `milliseconds` pass, 0 included, and returns early when the run flag falls.
  virtual void Pause(int32_t milliseconds, EPause reason) = 0;

  // Tells the host `value` and waits for its answer, for at most 1000 ms.
  virtual void Sync(int32_t value) = 0;

  // Told of what a script does to the outside, before an OUT with at least one byte goes to the
  // line, and after a message was added and a tag written. The bytes are valid during the call.
  virtual void OnOut(std::span<const uint8_t> /*bytes*/, int32_t /*interval*/) {}
  // Behind that: bytes of the same OUT that the line did not take, in their order.
  virtual void OnUnsent(std::span<const uint8_t> /*bytes*/) {}
  virtual void OnPrint(std::string_view /*message*/) {}
  virtual void OnPut(std::string_view /*tag*/, std::span<const uint8_t> /*payload*/) {}

  // Whether OnPut is to be called; it takes a copy of the payload.
  virtual bool ListensToPuts() const { return false; }
};

}  // namespace kvl
