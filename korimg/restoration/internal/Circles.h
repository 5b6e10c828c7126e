// What the filters along circles about a centre share. Internal.
#pragma once

#include <algorithm>
#include <cmath>
#include <memory>
#include <numbers>

#include "korimg/filters/internal/FilterLines.h"
#include "korimg/image/internal/Vectors.h"

namespace korimg {

inline double Radians(double degrees) {
  return degrees * (std::numbers::pi / 180);
}

/// The pixels of a plane, which stay where they are, and the steps from one to the next.
struct PlanePixels {
  const float* pixels;
  int width, height;
  int lastX = std::max(width - 2, 0), lastY = std::max(height - 2, 0);  ///< that have a next one, if any has
  std::ptrdiff_t right = width > 1, below = height > 1 ? width : 0;

  bool Contains(double x, double y) const { return x >= 0 && x < width && y >= 0 && y < height; }
  const float* Row(int y) const { return pixels + static_cast<std::ptrdiff_t>(y) * width; }
  /// Answers the value, bilinear, of a place within. Up to a pixel beyond the last column and row, the last
  /// two of them are drawn on as they lie.
  float At(double x, double y) const {
    const int ix = std::min(static_cast<int>(x), lastX), iy = std::min(static_cast<int>(y), lastY);
    const float* const p = Row(iy) + ix;
    return Blend(x - ix, y - iy, p[0], p[right], p[below], p[below + right]);
  }
  /// Answers the same without drawing on: the last column and row go on.
  float Clamped(double x, double y) const { return At(std::min(x, width - 1.0), std::min(y, height - 1.0)); }

  /// Blends a pixel, those to its right and below, and the one across.
  KORIMG_IN_LOOP static float Blend(double a, double b, double p, double right, double below, double across) {
    const double ab = a * b;
    const double blend = (1 - b) * (1 - a) * p + (b - ab) * below + (a - ab) * right + ab * across;
    return static_cast<float>(a + b > 0 ? blend : p);
  }
};

/// Keeps a plane of an image, copied when its store is paged, for as long as `whole` lives.
struct SteadyPlane {
  std::shared_ptr<CVmManager> store;
  StagedPlane whole;
  PlanePixels view;

  SteadyPlane(CVelImage& image, int plane)
      : store(ContiguousStore(image)),
        whole(image, plane, *store),
        view{reinterpret_cast<const float*>(static_cast<halide_buffer_t*>(whole)->host), image.GetWidth(),
             image.GetHeight()} {}
};

/// Holds the limits that a filter is confined to, the same for all planes: a radius that it leaves alone, a
/// band of levels, and how much of what it darkened comes back.
class CircleLimits {
 public:
  CircleLimits(const CVelImage& src, double radius, int useDark, double dark, double darkRange,
               int useHighlight, double highlight, double highlightRange, int brighter, double percent)
      : radius_(radius),
        useDark_(src, useDark),
        useHighlight_(src, useHighlight),
        dark_(src, dark),
        darkRange_(src, darkRange),
        highlight_(src, highlight),
        highlightRange_(src, highlightRange),
        limit_(brighter, percent) {}

  LevelBand Band(const CVelImage& src, int p) {
    return {src, p, {useDark_, dark_, darkRange_, useHighlight_, highlight_, highlightRange_}};
  }
  /// True when the filter leaves this pixel.
  bool Keeps(const LevelBand& band, float s, double r) const { return r <= radius_ || band.Excludes(s); }
  /// Answers what becomes of pixel s that a filter makes into f.
  float Limit(const LevelBand& band, float s, float f) const { return band.Blend(s, limit_(s, f)); }

 private:
  double radius_;
  Same<int> useDark_, useHighlight_;
  Same<double> dark_, darkRange_, highlight_, highlightRange_;
  DarkeningLimit limit_;
};

/// Draws a dashed cross through a centre in the window, on plane 0: white and black in turns.
inline void MarkCentre(CVelImage& image, const Window& window, double centreX, double centreY) {
  if (!(centreX >= window.left && centreX < window.right && centreY >= window.top &&
        centreY < window.bottom)) {
    return;
  }
  const auto dash = [&](int i) {
    return static_cast<float>(image.GetLevelMin(0) + (i % 2 == 0 ? image.GetLevelRange(0) : 0));
  };
  const int column = static_cast<int>(centreX), row = static_cast<int>(centreY);
  for (int y = window.top; y < window.bottom; ++y) {
    image.SetPixelGrayRaw(column, y, dash(y), 0);
  }
  for (int x = window.left; x < window.right; ++x) {
    image.SetPixelGrayRaw(x, row, dash(x), 0);
  }
}

}  // namespace korimg
