#pragma once

#include "korimg/image/CVelImage.h"
#include "korimg/platform/CPoint.h"

/// Draws lines into an image's pixels.
class KORIMG_API CImgDrawLine : public CVelImage {
 public:
  /// Draws from a to b, both included, by Bresenham's method (1965); halves take the diagonal step. What lies
  /// outside is left out. The colour, 0x00BBGGRR, is brought to raw by each plane's levels, in a mono image
  /// by its lightness, the mean of the smallest and the largest channel. Levels stay.
  void Do(CPoint a, CPoint b, unsigned long colour);

 private:
  void DoMono(CPoint a, CPoint b, unsigned long colour);
  void DoColor(CPoint a, CPoint b, unsigned long colour);
  void DrawLine(CPoint a, CPoint b, const float* values);
  void DrawPixel(long long x, long long y, const float* values);
};
