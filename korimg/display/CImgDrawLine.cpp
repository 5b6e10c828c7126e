#include "korimg/display/CImgDrawLine.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

void CImgDrawLine::Do(CPoint a, CPoint b, unsigned long colour) {
  if (IsEmpty()) return;
  IsColor() ? DoColor(a, b, colour) : DoMono(a, b, colour);
}

void CImgDrawLine::DoMono(CPoint a, CPoint b, unsigned long colour) {
  const auto [low, high] = std::minmax({colour & 255, colour >> 8 & 255, colour >> 16 & 255});
  const auto value = static_cast<float>(ToRaw(static_cast<double>(low + high) * 0.5, 0));
  DrawLine(a, b, &value);
}

void CImgDrawLine::DoColor(CPoint a, CPoint b, unsigned long colour) {
  float values[3];
  for (int p = 0; p < 3; ++p) {
    values[p] =
        static_cast<float>(ToRaw(static_cast<double>(colour >> 8 * p & 255), std::min(p, GetPlanes() - 1)));
  }
  DrawLine(a, b, values);
}

void CImgDrawLine::DrawLine(CPoint a, CPoint b, const float* values) {
  const long long dx = std::llabs(1LL * b.x - a.x), dy = std::llabs(1LL * b.y - a.y);
  const bool steep = dx < dy;
  const long long major = steep ? dy : dx, minor = steep ? dx : dy;
  const int stepX = a.x < b.x ? 1 : -1, stepY = a.y < b.y ? 1 : -1;
  long long x = a.x, y = a.y, error = 2 * minor - major;
  for (long long i = 0; i <= major; ++i) {
    DrawPixel(x, y, values);
    const bool diagonal = error >= 0;
    if (!steep || diagonal) x += stepX;
    if (steep || diagonal) y += stepY;
    error += 2 * (diagonal ? minor - major : minor);
  }
}

void CImgDrawLine::DrawPixel(long long x, long long y, const float* values) {
  if (x < 0 || y < 0 || x >= GetWidth() || y >= GetHeight()) return;
  for (int p = 0; p < std::min(GetPlanes(), 3); ++p) {  // further planes have no colour
    SetPixelGrayRaw(static_cast<int>(x), static_cast<int>(y), values[p], p);
  }
}
