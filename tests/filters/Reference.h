// Slow filters in double, by their definition.
#pragma once

#include <algorithm>
#include <cmath>
#include <functional>
#include <vector>

#include <gtest/gtest.h>

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

/// The weights of a Gaussian along an axis.
inline std::vector<double> GaussianRow(double sigma) {
  const int r = std::max(static_cast<int>(sigma * 2.8 + 1), 1);
  std::vector<double> row;
  double sum = 0;
  for (int d = -r; d <= r; ++d) {
    row.push_back(sigma == 0 ? d == 0 : std::exp(-d * d / (2 * sigma * sigma)));
    sum += row.back();
  }
  for (double& w : row) {
    w /= sum;
  }
  return row;
}

/// The filter of those weights along both axes.
inline double Separable(CVelImage& src, const std::vector<double>& weights, int p, int x, int y,
                        const EdgeRule& row, const EdgeRule& column) {
  const int r = static_cast<int>(weights.size()) / 2;
  double sum = 0;
  Around(src, p, x, y, r, row, column,
         [&](int dx, int dy, double pixel) { sum += weights[r + dx] * weights[r + dy] * pixel; });
  return sum;
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

/// The band 60 to 140 with shoulders of 20 and 40, on levels of the source.
struct TestBand {
  int useDark[3] = {1, 1, 0}, useHighlight[3] = {1, 0, 1};
  double dark[3] = {60, 60, 60}, darkRange[3] = {20, 20, 20};
  double highlight[3] = {140, 140, 140}, highlightRange[3] = {40, 40, 0};

  double operator()(CVelImage& src, int p, double s, double f) const {
    const double level = (s - src.GetLevelMin(p)) / src.GetLevelRange(p) * 255;
    if (useDark[p] && level < dark[p] - darkRange[p]) return s;
    if (useHighlight[p] && level > highlight[p] + highlightRange[p]) return s;
    double t = 1;
    if (useDark[p] && level < dark[p]) t = (level - dark[p] + darkRange[p]) / darkRange[p];
    if (useHighlight[p] && level > highlight[p])
      t = (highlight[p] + highlightRange[p] - level) / highlightRange[p];
    return (1 - t) * s + t * f;
  }
};

using Expected = std::function<double(CVelImage& src, bool paged, int p, int x, int y)>;

/// Runs a filter over stores, threads, sizes and windows, and compares with expected(source, store is paged,
/// plane, x, y). Pixels that are not written keep what the target held.
template <class Filter>
void CheckFilter(const std::function<void(Filter& target, CVelImage& src, CRect* rect)>& run,
                 const Expected& expected, double tolerance, const PixelRule& pixels = Random(-100, 1200)) {
  OnEveryStore([&](const StoreCase& store) {
    for (const auto& [width, height] : {std::pair(1, 1), {3, 2}, {65, 1}, {1, 71}, {71, 133}}) {
      const auto src = Make(store.make(), width, height, 3, pixels);
      for (OptionalRect rect : {OptionalRect(), OptionalRect(CRect(1, 2, width - 3, height - 1))}) {
        if (rect && width < 71) continue;
        const auto target = Make<Filter>(src->VmManager(), width, height, 3, Random(0, 1, 7));
        run(*target, *src, Address(rect));
        const auto want = [&, outside = Random(0, 1, 7)](int p, int x, int y) -> double {
          return IsInside(rect, x, y) ? expected(*src, store.name == "paged", p, x, y)
                                      : static_cast<float>(outside(p, x, y));
        };
        ASSERT_EQ(Difference(*target, want, tolerance), "") << store.name << " " << width << "x" << height;
      }
    }
  });
}

/// The levels of such a target.
inline double TargetMin(int p) {
  return 130 + 7 * p;
}
inline double TargetRange(int p) {
  return 940 + 33 * p;
}

}  // namespace korimg::test
