// Slow filters in double, by their definition.
#pragma once

#include <algorithm>
#include <cmath>
#include <functional>
#include <vector>

#include "korimg/image/CVelImage.h"

#include "tests/support/Images.h"

namespace korimg::test {

/// Where a filter reads for number i of n, beyond the ends too.
using EdgeRule = std::function<int(int i, int n)>;

/// ... 2 1 [0 1 2 ... n-1] n-2 ...
inline int Interior(int i, int n) {
  while (n > 1 && (i < 0 || i >= n)) {
    i = i < 0 ? -i : 2 * (n - 1) - i;
  }
  return n > 1 ? i : 0;
}
/// ... 2 1 [0 1 2 ... n-1] n-1 n-2 ..., and from the far end of that on as the modulus of 2 n has it.
inline int BottomRepeated(int i, int n) {
  i = std::abs(i % (2 * n));
  return i >= n ? 2 * n - i - 1 : i;
}
/// The same with the last row not repeated.
inline int Folded(int i, int n) {
  i = std::abs(i % (2 * n));
  if (i >= n) i = std::abs(2 * n - i - 2);
  return std::min(i, n - 1);
}
inline int Nearest(int i, int n) {
  return std::clamp(i, 0, n - 1);
}

/// Calls cell(dx, dy, pixel) for the square of radius r about a pixel.
inline void Around(CVelImage& image, int p, int x, int y, int r, const EdgeRule& row, const EdgeRule& column,
                   const std::function<void(int, int, double)>& cell) {
  for (int dy = -r; dy <= r; ++dy) {
    const float* line = image.GetLine(0, row(y + dy, image.GetHeight()), p);
    for (int dx = -r; dx <= r; ++dx) {
      cell(dx, dy, line[column(x + dx, image.GetWidth())]);
    }
  }
}

inline bool Before(float a, float b) {
  return std::isnan(b) ? !std::isnan(a) : a < b;
}

/// The values about a pixel for which in(dx, dy) holds, ascending, NaN last.
inline std::vector<float> Sorted(CVelImage& image, int p, int x, int y, int r, const EdgeRule& row,
                                 const EdgeRule& column, const std::function<bool(int, int)>& in) {
  std::vector<float> values;
  Around(image, p, x, y, r, row, column, [&](int dx, int dy, double pixel) {
    if (in(dx, dy)) values.push_back(static_cast<float>(pixel));
  });
  std::sort(values.begin(), values.end(), Before);
  return values;
}

inline std::function<bool(int, int)> Disc(double radius) {
  return [=](int dx, int dy) { return dx * dx + dy * dy <= radius * radius; };
}

/// Runs a case on every store, on one thread and on eight.
inline void OnEveryStore(const std::function<void(const StoreCase&)>& run) {
  for (const StoreCase& store : Stores()) {
    for (const int threads : {1, 8}) {
      const WithThreads team(threads);
      run(store);
    }
  }
}

inline bool IsInside(const OptionalRect& rect, int x, int y) {
  return !rect || (x >= rect->left && x < rect->right && y >= rect->top && y < rect->bottom);
}

}  // namespace korimg::test
