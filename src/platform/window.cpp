#include "platform/window.h"

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/loop_core.h"
#include "platform/never_destroyed.h"

namespace kvl {

namespace {

struct CWindowRecord {
  CWnd* pWnd = nullptr;
  std::shared_ptr<CLoopCore> pLoop;
  HWND hParent = nullptr;
  HWND hOwner = nullptr;
  uint32_t nID = 0;
};

struct CWindowTable {
  std::mutex lock;
  uintptr_t nLast = 0;
  std::map<HWND, CWindowRecord> windows;
};

// Never destroyed: windows of static storage may end after everything else.
CWindowTable& Windows() {
  static CNeverDestroyed<CWindowTable> s_table;
  return s_table.Get();
}

template <typename Value>
Value Look(HWND hWnd, Value CWindowRecord::*pField) {
  CWindowTable& table = Windows();
  const std::lock_guard guard(table.lock);
  const auto it = table.windows.find(hWnd);
  return it == table.windows.end() ? Value{} : it->second.*pField;
}

// The windows of which `condition` holds, oldest first.
template <typename Condition>
std::vector<HWND> Select(Condition condition) {
  std::vector<HWND> found;
  CWindowTable& table = Windows();
  const std::lock_guard guard(table.lock);
  for (const auto& [hWnd, record] : table.windows) {
    if (condition(record)) found.push_back(hWnd);
  }
  return found;
}

LRESULT Dispatch(HWND hWnd, uint32_t nMessage, WPARAM wParam, LPARAM lParam) {
  LRESULT result = 0;
  if (CWnd* pWnd = CWnd::FromHandle(hWnd)) {
    RunGuarded([&] { result = pWnd->WindowProc(nMessage, wParam, lParam); });
  }
  return result;
}

}  // namespace

void DestroyWindowsOf(const CLoopCore& loop) {
  for (const HWND hWnd : Select([&](const auto& record) { return record.pLoop.get() == &loop; })) {
    if (CWnd* pWnd = CWnd::FromHandle(hWnd)) pWnd->DestroyWindow();
  }
}

CWnd::~CWnd() {
  DestroyWindow();
}

int32_t CWnd::Create(uint32_t nStyle, const RECT& rect, CWnd* pParent, uint32_t nID) {
  const bool child = (nStyle & kWsChild) != 0;
  const HWND hParent = child && pParent ? pParent->GetSafeHwnd() : nullptr;
  const int64_t width = std::max<int64_t>(int64_t{rect.right} - rect.left, 0);
  const int64_t height = std::max<int64_t>(int64_t{rect.bottom} - rect.top, 0);
  const std::shared_ptr<CLoopCore> pLoop = CLoopCore::Current();
  if (m_hWnd || !pLoop || (child && !IsWindow(hParent)) || width > CSurface::kMaxSide ||
      height > CSurface::kMaxSide) {
    return 0;
  }
  m_nID = nID;
  m_rcClient = {0, 0, static_cast<int32_t>(width), static_cast<int32_t>(height)};
  {
    CWindowTable& table = Windows();
    const std::lock_guard guard(table.lock);
    const auto hWnd = reinterpret_cast<HWND>(++table.nLast);
    try {
      table.windows.emplace(hWnd, CWindowRecord{this, pLoop, hParent, nullptr, nID});
    } catch (const std::bad_alloc&) {
      return 0;
    }
    m_hWnd = hWnd;
  }
  if ((nStyle & kWsVisible) != 0) Invalidate();
  return 1;
}

int32_t CWnd::DestroyWindow() {
  const std::shared_ptr<CLoopCore> pLoop = Look(m_hWnd, &CWindowRecord::pLoop);
  if (!pLoop || m_bDestroying) return 0;
  m_bDestroying = true;
  // A thread that no longer serves anything is not told: the window ends all the same.
  pLoop->Call([this] {
    const auto isChild = [this](const CWindowRecord& record) { return record.hParent == m_hWnd; };
    for (const HWND hChild : Select(isChild)) {
      if (CWnd* pChild = FromHandle(hChild)) pChild->DestroyWindow();
    }
    WindowProc(kWmDestroy, 0, 0);
  });
  CWindowTable& table = Windows();
  const std::lock_guard guard(table.lock);
  table.windows.erase(m_hWnd);
  m_hWnd = nullptr;
  m_bDestroying = false;
  m_bInvalid = false;
  return 1;
}

CWnd* CWnd::FromHandle(HWND hWnd) {
  CWindowTable& table = Windows();
  const std::lock_guard guard(table.lock);
  const auto it = table.windows.find(hWnd);
  if (it == table.windows.end() || !it->second.pLoop->IsOwnThread()) return nullptr;
  return it->second.pWnd;
}

void CWnd::GetClientRect(RECT* pRect) const {
  *pRect = m_rcClient;
}

void CWnd::SetOwner(HWND hOwner) {
  CWindowTable& table = Windows();
  const std::lock_guard guard(table.lock);
  const auto it = table.windows.find(m_hWnd);
  if (it != table.windows.end()) it->second.hOwner = hOwner;
}

void CWnd::Invalidate() {
  if (!m_hWnd || m_bInvalid) return;
  const std::shared_ptr<CLoopCore> pLoop = Look(m_hWnd, &CWindowRecord::pLoop);
  m_bInvalid = pLoop && pLoop->Post([hWnd = m_hWnd] {
    if (CWnd* pWnd = FromHandle(hWnd)) pWnd->UpdateWindow();
  });
}

void CWnd::UpdateWindow() {
  if (!m_bInvalid) return;
  m_bInvalid = false;
  Dispatch(m_hWnd, kWmPaint, 0, 0);
}

CSurface& CWnd::BeginPaint() {
  if (m_surface.Width() != m_rcClient.right || m_surface.Height() != m_rcClient.bottom) {
    // Without memory for a picture nothing is painted.
    m_surface.Resize(m_rcClient.right, m_rcClient.bottom);
  }
  m_bInvalid = false;
  return m_surface;
}

LRESULT CWnd::WindowProc(uint32_t, WPARAM, LPARAM) {
  return 0;
}

bool IsWindow(HWND hWnd) {
  return Look(hWnd, &CWindowRecord::pWnd) != nullptr;
}

HWND GetParent(HWND hWnd) {
  return Look(hWnd, &CWindowRecord::hParent);
}

HWND GetOwner(HWND hWnd) {
  return Look(hWnd, &CWindowRecord::hOwner);
}

int32_t GetDlgCtrlID(HWND hWnd) {
  return static_cast<int32_t>(Look(hWnd, &CWindowRecord::nID));
}

LRESULT SendMessageA(HWND hWnd, uint32_t nMessage, WPARAM wParam, LPARAM lParam) {
  const std::shared_ptr<CLoopCore> pLoop = Look(hWnd, &CWindowRecord::pLoop);
  if (!pLoop) return 0;
  LRESULT result = 0;
  const auto dispatch = [&] { result = Dispatch(hWnd, nMessage, wParam, lParam); };
  return pLoop->Call(std::ref(dispatch)) ? result : 0;
}

int32_t PostMessageA(HWND hWnd, uint32_t nMessage, WPARAM wParam, LPARAM lParam) {
  const std::shared_ptr<CLoopCore> pLoop = Look(hWnd, &CWindowRecord::pLoop);
  return pLoop && pLoop->Post([=] { Dispatch(hWnd, nMessage, wParam, lParam); }) ? 1 : 0;
}

}  // namespace kvl
