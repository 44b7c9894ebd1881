// The worker's side of a decode session: the owner that the engine runs under.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "control/session_observer.h"
#include "platform/wakeup.h"
#include "platform/window.h"
#include "script/engine_owner.h"

namespace kvl {

// Threads: Start and Stop on the control's thread, the rest on the worker's.
class CSession : public CEngineOwner {
 public:
  // Raises and lowers the run flag. Stop ends every wait of the worker at once.
  void Start();
  void Stop();

  // Bytes have come, for a worker that waits for them.
  void Wake() { m_wakeup.Set(); }

  void Pause(int32_t milliseconds, EPause reason) override;
  void Sync(int32_t value) override;
  // Bytes have come from the line; on the thread that takes them from it.
  void OnReceived(std::span<const uint8_t> bytes);

  void OnOut(std::span<const uint8_t> bytes, int32_t interval) override;
  void OnUnsent(std::span<const uint8_t> bytes) override;
  void OnPrint(std::string_view message) override;
  void OnPut(std::string_view tag, std::span<const uint8_t> payload) override;
  bool ListensToPuts() const override { return m_pObserver != nullptr; }

  // Set while no worker runs.
  CSessionObserver* m_pObserver = nullptr;
  HWND m_hControl = nullptr;  // whose owner window, or else parent, SYNC notifies
  uintptr_t m_nControlID = 0;

  CWakeup m_wakeup;

 private:
  std::mutex m_csStop;
  std::condition_variable m_stopped;
};

}  // namespace kvl
