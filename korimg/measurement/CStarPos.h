#pragma once

#include "korimg/platform/CArray.h"
#include "korimg/platform/CRect.h"

/// A detected star: its square box, its centroid, and room for six values more.
struct CStarPos {
  CRect rect;
  double x = 0, y = 0;
  double values[6] = {};
};

/// Two lists of stars that travel together.
class CStarPosEx {
 public:
  CArray<CStarPos> first;
  CArray<CStarPos> second;

  void RemoveAll() {
    first.RemoveAll();
    second.RemoveAll();
  }
};
