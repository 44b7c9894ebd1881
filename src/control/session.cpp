#include "control/session.h"

#include <chrono>

#include "control/sync_notify.h"
#include "platform/clock.h"

namespace kvl {
namespace {

constexpr int64_t kSyncLimitMs = 1000;

}  // namespace

void CSession::Start() {
  m_bRun = 1;
}

void CSession::Stop() {
  {
    const std::lock_guard lock(m_csStop);
    m_bRun = 0;
  }
  m_stopped.notify_all();
  m_wakeup.Set();
}

void CSession::Pause(int32_t milliseconds, EPause /*reason*/) {
  if (milliseconds == 0) {
    Sleep(0);
    return;
  }
  std::unique_lock lock(m_csStop);
  m_stopped.wait_for(lock, std::chrono::milliseconds(milliseconds), [this] { return m_bRun == 0; });
}

void CSession::Sync(int32_t value) {
  const CSyncRecord record;
  record->m_header = {m_hControl, m_nControlID, kSyncCode};
  record->m_nValue = value;
  const HWND owner = GetOwner(m_hControl);
  const HWND target = owner != nullptr ? owner : GetParent(m_hControl);
  if (IsWindow(target)) {
    PostMessageA(target, kWmNotify, m_nControlID, reinterpret_cast<LPARAM>(record.Get()));
  }
  // The host only clears a word, so it has to be looked at; a host that answers at once meets the
  // first looks, and later ones cost nearly nothing.
  const int64_t start = GetTickCount();
  for (int looks = 0; record->m_bPending != 0 && m_bRun != 0; ++looks) {
    if (GetTickCount() - start > kSyncLimitMs) return;
    Pause(looks < 50 ? 0 : 1, EPause::Pacing);
  }
}

void CSession::OnReceived(std::span<const uint8_t> bytes) {
  if (m_pObserver != nullptr) m_pObserver->OnReceived(bytes);
}

void CSession::OnOut(std::span<const uint8_t> bytes, int32_t interval) {
  if (m_pObserver != nullptr) m_pObserver->OnSent(bytes, interval);
}

void CSession::OnUnsent(std::span<const uint8_t> bytes) {
  if (m_pObserver != nullptr) m_pObserver->OnUnsent(bytes);
}

void CSession::OnPrint(std::string_view message) {
  if (m_pObserver != nullptr) m_pObserver->OnPrint(message);
}

void CSession::OnPut(std::string_view tag, std::span<const uint8_t> payload) {
  if (m_pObserver != nullptr) m_pObserver->OnPut(tag, payload);
}

}  // namespace kvl
