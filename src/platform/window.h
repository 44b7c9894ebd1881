// Windows: named ends of messages, with parents, owners and a picture.
#pragma once

#include <cstdint>

#include "platform/api.h"
#include "platform/paint.h"

namespace kvl {

// Names a window. A handle is never given to a second window.
struct WindowTag;
using HWND = WindowTag*;

using WPARAM = uintptr_t;
using LPARAM = intptr_t;
using LRESULT = intptr_t;

// Messages of the platform; a program's own begin at kWmUser.
inline constexpr uint32_t kWmDestroy = 0x0002;
inline constexpr uint32_t kWmPaint = 0x000F;
inline constexpr uint32_t kWmNotify = 0x004E;
inline constexpr uint32_t kWmUser = 0x0400;

// Styles of a window.
inline constexpr uint32_t kWsChild = 0x40000000;
inline constexpr uint32_t kWsVisible = 0x10000000;

// The beginning of every record that a kWmNotify message points to.
struct NMHDR {
  HWND hwndFrom = nullptr;
  uintptr_t idFrom = 0;
  uint32_t code = 0;
};

// A window and its message handlers. The window belongs to the thread that creates it.
// Threads: every operation on that thread, but for DestroyWindow; other threads send and post
//          messages to the handle.
// Owner:   the object is its creator's and destroys its window in its destructor; a handler other
//          than that of kWmDestroy may destroy the object that it runs on, if it touches nothing
//          of it afterwards.
class KVL_API CWnd {
 public:
  CWnd() = default;
  virtual ~CWnd();
  CWnd(const CWnd&) = delete;
  CWnd& operator=(const CWnd&) = delete;

  // Makes the window. A child (kWsChild) needs a parent, any other window has none. `rect` is its
  // place in its parent. Non-zero on success; 0 if the object has a window already, the parent is
  // missing, a side exceeds CSurface::kMaxSide, the thread has no loop, or there is no memory.
  int32_t Create(uint32_t nStyle, const RECT& rect, CWnd* pParent, uint32_t nID);

  // Ends the window's children of this thread, sends it kWmDestroy, and ends it; from another
  // thread by the window's own. Non-zero if there was one.
  int32_t DestroyWindow();

  // The handle; null while there is no window.
  HWND GetSafeHwnd() const { return m_hWnd; }

  // The object of a window of the calling thread; null for any other handle.
  static CWnd* FromHandle(HWND hWnd);

  int32_t GetDlgCtrlID() const { return static_cast<int32_t>(m_nID); }

  // The area inside the window: its left and top are 0.
  void GetClientRect(RECT* pRect) const;

  // The window that is told of this one's events in its parent's place; null for none.
  void SetOwner(HWND hOwner);

  // Has the window painted by its loop soon, at once.
  void Invalidate();
  void UpdateWindow();

  // What has been painted so far; of size 0 before the first painting.
  const CSurface& GetSurface() const { return m_surface; }

  // Handles one message. The default does nothing and gives 0.
  virtual LRESULT WindowProc(uint32_t nMessage, WPARAM wParam, LPARAM lParam);

 private:
  friend class CPaintDC;
  CSurface& BeginPaint();
  HWND m_hWnd = nullptr;
  uint32_t m_nID = 0;
  RECT m_rcClient;          // left and top 0
  bool m_bInvalid = false;  // a WM_PAINT is due
  bool m_bDestroying = false;
  CSurface m_surface;
};

// A plain child window for controls to build on.
class KVL_API CStatic : public CWnd {};

// The following may be called from any thread and with any handle.

KVL_API bool IsWindow(HWND hWnd);

// The window's parent, its owner, its child identifier; null or 0 if it has none or is no window.
KVL_API HWND GetParent(HWND hWnd);
KVL_API HWND GetOwner(HWND hWnd);
KVL_API int32_t GetDlgCtrlID(HWND hWnd);

// Has the window's thread handle the message and gives the result. On that thread it is a direct
// call. On another the caller waits, and its own loop serves sent messages meanwhile; the result
// is 0 and the message not handled if there is no such window, if its thread ends, or if that
// thread serves nothing for 5 seconds. A handler that throws gives 0.
KVL_API LRESULT SendMessageA(HWND hWnd, uint32_t nMessage, WPARAM wParam, LPARAM lParam);

// Queues the message for the window's loop. Non-zero if it was queued; 0 if there is no such
// window, CMessageLoop::kMaxPosted messages wait there, or there is no memory for it. A message
// whose window is gone when its turn comes is dropped.
KVL_API int32_t PostMessageA(HWND hWnd, uint32_t nMessage, WPARAM wParam, LPARAM lParam);

}  // namespace kvl
