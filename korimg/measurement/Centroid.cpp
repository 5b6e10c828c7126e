// Centroids of images, and the shifts that they and reference points give.
#include <cmath>
#include <numbers>

#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/Numbers.h"

using namespace korimg;

namespace {

/// Weights and places added up.
struct Moments {
  double weight = 0, x = 0, y = 0;

  void Add(double w, int atX, int atY) {
    weight += w;
    x += w * atX;
    y += w * atY;
  }
};

/// The sums of add(sums, line y) over the window's lines, in their order.
template <class F>
Moments SumLines(const Window& window, F&& add) {
  Moments all;
  for (const Moments& line : MapLines(window.top, window.bottom, [&](int y) {
         Moments sums;
         add(sums, y);
         return sums;
       })) {
    all.weight += line.weight;
    all.x += line.x;
    all.y += line.y;
  }
  return all;
}

/// The middle of the window in place of a position that does not lie in it.
void KeepInside(const Window& window, double& x, double& y) {
  const int nearX = TruncateToInt(x + 0.5), nearY = TruncateToInt(y + 0.5);
  const bool inside = x == x && y == y && nearX >= window.left && nearX < window.right &&
                      nearY >= window.top && nearY < window.bottom;
  if (inside) return;
  x = (window.left + window.right) / 2;
  y = (window.top + window.bottom) / 2;
}

/// What an image shows: its plane, or the luminance of three, by value(plane, raw).
template <class F>
double Light(const CVelImage& image, const float* const* lines, int x, F&& value) {
  if (!image.IsColor()) return value(0, lines[0][x]);
  return CVelImage::CalcBright(value(0, lines[0][x]), value(1, lines[1][x]), value(2, lines[2][x]));
}

/// Calls pixel(sums, x, light) for a line.
template <class Value, class F>
void ForLight(CVelImage& image, const Window& window, int y, Value&& value, F&& pixel) {
  const float* lines[3] = {};
  for (int p = 0; p < (image.IsColor() ? 3 : 1); ++p) {
    lines[p] = image.GetLine(0, y, std::min(p, image.GetPlanes() - 1));
  }
  for (int x = window.left; x < window.right; ++x) {
    pixel(x, Light(image, lines, x, value));
  }
}

void CentroidByLines(CVelImage& image, const Window& window, double& x, double& y) {
  const auto shown = [&](int p, float raw) {
    return image.To256(static_cast<double>(raw), std::min(p, image.GetPlanes() - 1));
  };
  const Moments all = SumLines(window, [&](Moments& sums, int line) {
    ForLight(image, window, line, shown, [&](int column, double v) { sums.Add(v, column, line); });
  });
  const double average = all.weight / static_cast<double>(window.Pixels());
  const Moments squares = SumLines(window, [&](Moments& sums, int line) {
    ForLight(image, window, line, shown, [&](int column, double v) {
      const double above = v - average;
      sums.Add(above > 0 ? above * above : 0, column, line);
    });
  });
  x = squares.x / squares.weight;
  y = squares.y / squares.weight;
}

void CentroidByPipelines(CVelImage& image, const Window& w, double& x, double& y) {
  ScalarResult<double> average, centroidX, centroidY;
  PlaneBuffer first(image, 0);
  const auto min = [&](int p) { return image.GetLevelMin(p); };
  const auto range = [&](int p) { return image.GetLevelRange(p); };
  if (image.IsColor()) {
    PlaneBuffer second(image, 1), third(image, 2);
    average_gray256_floor_zero_float(first, second, third, min(0), range(0), min(1), range(1), min(2),
                                     range(2), w.left, w.right, w.top, w.bottom, average);
    centroid_gray256_float(first, second, third, min(0), range(0), min(1), range(1), min(2), range(2),
                           average.Value(), w.left, w.right, w.top, w.bottom, centroidX, centroidY);
  } else {
    const auto low = static_cast<float>(min(0)), span = static_cast<float>(range(0));
    average256_floor_zero_float(first, low, span, w.left, w.right, w.top, w.bottom, average);
    centroid256_float(first, low, span, average.Value(), w.left, w.right, w.top, w.bottom, centroidX,
                      centroidY);
  }
  x = centroidX.Value();
  y = centroidY.Value();
}

void Rounded(double x, double y, int& roundedX, int& roundedY) {
  roundedX = TruncateToInt(x + 0.5);
  roundedY = TruncateToInt(y + 0.5);
}

}  // namespace

void CVelImage::GetCentroid(double& x, double& y, CRect* rect) {
  x = y = 0;
  const Window window(*this, rect);
  if (window.IsEmpty()) return;
  const bool threePlanes = !IsColor() || GetPlanes() >= 3;
  (IsContiguous(*this) && threePlanes ? CentroidByPipelines : CentroidByLines)(*this, window, x, y);
  KeepInside(window, x, y);
}

void CVelImage::GetCentroid(int& x, int& y, CRect* rect) {
  double exactX, exactY;
  GetCentroid(exactX, exactY, rect);
  Rounded(exactX, exactY, x, y);
}

void CVelImage::GetCentroidRaw(double& x, double& y, CRect* rect) {
  x = y = 0;
  const Window window(*this, rect);
  if (window.IsEmpty()) return;
  const Moments all = SumLines(window, [&](Moments& sums, int line) {
    ForLight(
        *this, window, line, [](int, float raw) { return static_cast<double>(raw); },
        [&](int column, double v) { sums.Add(v, column, line); });
  });
  x = all.x / all.weight;
  y = all.y / all.weight;
  KeepInside(window, x, y);
}

void CVelImage::GetCentroidRaw(int& x, int& y, CRect* rect) {
  double exactX, exactY;
  GetCentroidRaw(exactX, exactY, rect);
  Rounded(exactX, exactY, x, y);
}

int CVelImage::GetFitPrm(CVelImage* other, double& dx, double& dy, double& degrees) {
  dx = dy = degrees = 0;
  if (!other->IsValidStdCtr()) other->SetDefaultCenter();
  if (!IsValidStdPt(0) || !other->IsValidStdPt(0)) return 0;
  dx = GetStdPt(0).fx - other->GetStdPt(0).fx;
  dy = GetStdPt(0).fy - other->GetStdPt(0).fy;
  if (!IsValidStdPt(1) || !other->IsValidStdPt(1)) return 1;
  const auto difference = [](const CVelImage& image) {
    return CPoint(image.GetStdPt(1).x - image.GetStdPt(0).x, image.GetStdPt(1).y - image.GetStdPt(0).y);
  };
  const CPoint here = difference(*this), there = difference(*other), none(0, 0);
  if (here == none || there == none) return 1;
  const auto angle = [](CPoint e) { return std::atan2(-e.y, e.x); };
  degrees = (angle(there) - angle(here)) / std::numbers::pi * 180.0;
  return 2;
}

int CVelImage::GetFitPrm(CVelImage* other, double& dx, double& dy, double& degrees, double addX, double addY,
                         double addDegrees) {
  const int found = GetFitPrm(other, dx, dy, degrees);
  if (found >= 1) {
    dx += addX;
    dy += addY;
  }
  if (found == 2) degrees += addDegrees;
  return found;
}

int CVelImage::GetFitPrmFromCentroid(CVelImage* other, double& dx, double& dy) {
  double x, y, otherX, otherY;
  GetCentroid(x, y, nullptr);
  other->GetCentroid(otherX, otherY, nullptr);
  dx = x - otherX;
  dy = y - otherY;
  return 1;
}
