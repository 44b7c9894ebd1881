#include "platform/paint.h"

#include <algorithm>
#include <new>
#include <utility>

#include "platform/window.h"

namespace kvl {

bool CSurface::Resize(int32_t width, int32_t height) {
  if (width > kMaxSide || height > kMaxSide) return false;
  width = std::max(width, 0);
  height = std::max(height, 0);
  try {
    m_pixels.assign(static_cast<size_t>(width) * static_cast<size_t>(height), 0);
  } catch (const std::bad_alloc&) {
    return false;
  }
  m_nWidth = width;
  m_nHeight = height;
  return true;
}

size_t CSurface::Index(int32_t x, int32_t y) const {
  return static_cast<size_t>(y) * static_cast<size_t>(m_nWidth) + static_cast<size_t>(x);
}

COLORREF CSurface::GetPixel(int32_t x, int32_t y) const {
  const bool inside = x >= 0 && y >= 0 && x < m_nWidth && y < m_nHeight;
  return inside ? m_pixels[Index(x, y)] : 0;
}

void CSurface::Fill(const RECT& rect, COLORREF color) {
  const int32_t left = std::max(rect.left, 0);
  const int32_t right = std::min(rect.right, m_nWidth);
  if (left >= right) return;
  const int32_t bottom = std::min(rect.bottom, m_nHeight);
  for (int32_t y = std::max(rect.top, 0); y < bottom; ++y) {
    std::fill_n(m_pixels.begin() + static_cast<std::ptrdiff_t>(Index(left, y)), right - left,
                color);
  }
}

COLORREF CDC::SetTextColor(COLORREF color) {
  return std::exchange(m_textColor, color);
}

CPaintDC::CPaintDC(CWnd* pWnd) : CDC(pWnd->BeginPaint()) {}

}  // namespace kvl
