// Painting on a surface of pixels that a host or a test can read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/api.h"

namespace kvl {

class CWnd;

// A rectangle of pixels; right and bottom lie just outside.
struct RECT {
  int32_t left = 0;
  int32_t top = 0;
  int32_t right = 0;
  int32_t bottom = 0;
};

// A colour, 0x00BBGGRR.
using COLORREF = uint32_t;

// A picture of width times height pixels; black when made.
class KVL_API CSurface {
 public:
  // Sides that a surface may have, in pixels.
  static constexpr int32_t kMaxSide = 16384;

  // Negative sides count as 0. False, with the surface unchanged, if a side is above kMaxSide or
  // there is no memory.
  bool Resize(int32_t width, int32_t height);

  int32_t Width() const { return m_nWidth; }
  int32_t Height() const { return m_nHeight; }

  // The colour at a place; 0 outside the surface.
  COLORREF GetPixel(int32_t x, int32_t y) const;

  // Fills what of `rect` lies on the surface.
  void Fill(const RECT& rect, COLORREF color);

 private:
  size_t Index(int32_t x, int32_t y) const;

  int32_t m_nWidth = 0;
  int32_t m_nHeight = 0;
  std::vector<COLORREF> m_pixels;
};

// Draws on a surface, which it does not own.
class KVL_API CDC {
 public:
  explicit CDC(CSurface& surface) : m_surface(surface) {}

  void FillSolidRect(const RECT& rect, COLORREF color) { m_surface.Fill(rect, color); }

  // Sets the colour of texts drawn later, black at first; gives the colour before.
  COLORREF SetTextColor(COLORREF color);
  COLORREF GetTextColor() const { return m_textColor; }

 private:
  CSurface& m_surface;
  COLORREF m_textColor = 0;
};

// Draws a window in answer to WM_PAINT; from then on the window counts as painted.
// Needs: a window, on its thread.
class KVL_API CPaintDC : public CDC {
 public:
  explicit CPaintDC(CWnd* pWnd);
};

}  // namespace kvl
