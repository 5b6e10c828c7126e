#pragma once

#include "korimg/platform/CArray.h"
#include "korimg/platform/CRect.h"

/// A detected star: its square box, its centre (the middle of pixel 0 is 0.5), and values: its half widths to
/// the left, to the right, upward and downward, in pixels, and two that are not used.
struct CStarPos {
  CRect rect;
  double x = 0, y = 0;
  double values[6] = {};
};

/// Stars, and the regions of the image that they were looked for in, of which only the rectangle counts.
class CStarPosEx {
 public:
  CArray<CStarPos, CStarPos&> first;
  CArray<CStarPos, CStarPos&> second;

  void RemoveAll() {
    first.RemoveAll();
    second.RemoveAll();
  }
};
