// What a host may want to know of a running session.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "platform/api.h"

namespace kvl {

enum class ESessionStatus {
  Opened,         // the serial port is open
  Connecting,     // a connect has been started
  Connected,      // the peer has accepted
  ConnectFailed,  // it has not; the script runs over empty batches
  Closed,         // the peer has closed the connection, or it broke
  Lost,           // the serial device has gone
  Stopped,        // Stop has ended the session
};

// Threads: OnStatus on the control's thread. OnReceived on the thread that takes the bytes from
//          the line, never on two at once: the worker's, or the control's on a socket while the
//          worker is busy. The others on the worker. OnStatus may call every operation of the
//          control, but may not destroy it; the others may call none, nor wait for another thread
//          that does: who sends a message to a window must not have it stop the session.
// Owner:   the host's; it outlives the session.
// Errors:  an observer does not throw. If one does, OnStatus counts as returned; the others end
//          the pass that is under way.
class KVL_API CSessionObserver {
 public:
  virtual ~CSessionObserver() = default;

  // `text` says more for a person, without line ends; it may be empty.
  virtual void OnStatus(ESessionStatus /*status*/, std::string_view /*text*/) {}

  // Bytes as they came from the line, zero bytes included.
  virtual void OnReceived(std::span<const uint8_t> /*bytes*/) {}

  // What an OUT is about to send.
  virtual void OnSent(std::span<const uint8_t> /*bytes*/, int32_t /*interval*/) {}

  // Bytes of that OUT that the line did not take, since it is gone, full, or Stop came between.
  virtual void OnUnsent(std::span<const uint8_t> /*bytes*/) {}

  virtual void OnPrint(std::string_view /*message*/) {}
  virtual void OnPut(std::string_view /*tag*/, std::span<const uint8_t> /*payload*/) {}
};

}  // namespace kvl
