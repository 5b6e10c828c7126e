#include "korimg/geometry/CImgMosaic.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "korimg/geometry/internal/LockedLine.h"
#include "korimg/image/internal/Frame.h"

using namespace korimg;

namespace {

/// A pixel of one of the images, and whether it lies outside.
struct Reading {
  float value = 0;
  int outside = 0;
};

/// An image placed on the canvas.
struct Placed {
  CVelImage& image;
  double x, y, sin, cos;
  bool on256;

  Reading Read(int px, int py, int plane, double fill) const {
    Reading r;
    r.value =
        on256
            ? image.GetPixelGray256f(px, py, x, y, sin, cos, 1, plane, fill, 0, &r.outside, nullptr, nullptr)
            : image.GetPixelGrayRaw(px, py, x, y, sin, cos, 1, plane, fill, 0, &r.outside, nullptr, nullptr);
    return r;
  }
};

/// What is shown where the two images lie.
struct Rule {
  int mode;
  bool average;
  float transparent, tolerance;

  float operator()(const Reading& first, const Reading& second) const {
    const float s = first.value, t = second.value;
    if (average) return (s + t) * 0.5f;
    if (second.outside) return s;
    if (first.outside) return t;
    switch (mode) {
      case 1:
        return std::abs(transparent - t) < tolerance ? s : t;
      case 2:
        return std::max(s, t);
      case 3:
        return std::min(s, t);
      default:
        return t;
    }
  }
};

}  // namespace

void CImgMosaic::Do(CVelImage* first, int firstX, int firstY, CVelImage* second, double secondX,
                    double secondY, double angle, int mode, float* const transparent, float* const fill,
                    int use256, int average, CRect* rect, int show) {
  if (IsEmpty() || first->IsEmpty() || second->IsEmpty()) return;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, 6135, window.IsEmpty() ? 0 : window.Height());
  if (window.IsEmpty()) return;
  const double radians = angle * std::numbers::pi / 180;
  const Placed a{*first, 1.0 * firstX, 1.0 * firstY, 0, 1, use256 != 0};
  const Placed b{*second, secondX, secondY, std::sin(radians), std::cos(radians), use256 != 0};
  ForLines(Team::All, window.top, window.bottom, [&](int y) {
    for (int p = 0; p < GetPlanes(); ++p) {
      const Rule rule{mode, average != 0, use256 ? To256(transparent[p], p) : transparent[p],
                      use256 ? 1.0f : static_cast<float>(GetLevelRange(0) * 0.00390625)};
      const LockedLine out(*this, y, p);
      for (int x = window.left; x < window.right; ++x) {
        const float joined = rule(a.Read(x, y, p, fill[p]), b.Read(x, y, p, fill[p]));
        out[x] = use256 ? ToRaw(joined, p) : joined;
      }
    }
    ShowProgress(1);
  });
}
