#pragma once

#include <vector>

#include "korimg/platform/Export.h"

/// Sorts a list of pixels by value. Equal values come in an order that looks random, and is the same each
/// time: it depends on the pixels' places alone.
class KORIMG_API CPixelSort {
 public:
  CPixelSort() = default;
  virtual ~CPixelSort() = default;

  /// Empties the list and makes room for n pixels.
  void SetSize(int n);
  /// Takes one more pixel while there is room.
  void Add(int x, int y, float value);
  /// Answers 1 and pixel i, or 0 when i is outside the room.
  int Get(int i, int* x, int* y, float* value) const;
  /// Sorts in ascending order, NaN last.
  void Sort();

 private:
  struct Pixel {
    int x = 0, y = 0;
    float value = 0, random = 0;
  };
  int count_ = 0;
  std::vector<Pixel> pixels_;
};
