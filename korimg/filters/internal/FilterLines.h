// What filters with values for each plane share: radii, bands of levels, and the loop over lines. Internal.
#pragma once

#include <algorithm>
#include <cmath>
#include <optional>
#include <utility>
#include <vector>

#include "korimg/filters/CFilterMatrix.h"
#include "korimg/filters/CFilterProc.h"
#include "korimg/filters/internal/LevelBand.h"
#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/Numbers.h"

namespace korimg {

/// One value for all planes of an image.
template <class T>
class Same {
 public:
  Same(const CVelImage& image, T value) : values_(std::max(image.GetPlanes(), 1), value) {}
  operator T*() { return values_.data(); }  // NOLINT: an argument per plane

 private:
  std::vector<T> values_;
};

/// Answers the radius of a kernel, whole pixels and at least 1: the fraction is dropped, or counts as a
/// pixel.
inline int TruncatedRadius(double r) {
  return std::max(TruncateToInt(r), 1);
}
inline int WholeRadius(double r) {
  return std::max(TruncateToInt(std::ceil(r)), 1);
}

/// A pipeline's view of the weights of a separable filter, an odd number. Weights of 0 at both ends are left
/// out: NaN under them is no part of the result.
class WeightBuffer {
 public:
  /// Takes the middle row of a kernel, divided by its sum.
  explicit WeightBuffer(const CFilterMatrix& matrix) : WeightBuffer(matrix.GetMiddleRow(1)) {}
  /// Takes the weights of a plane's prepared filter.
  WeightBuffer(const CFilterProcEx& filters, int plane)
      : WeightBuffer(
            std::vector<float>(filters.GetFilter(plane), filters.GetFilter(plane) + filters.GetD(plane))) {}
  explicit WeightBuffer(const std::vector<float>& weights)
      : weights_(WithoutZeroEnds(weights)), buffer_(weights_.data(), static_cast<int>(weights_.size())) {}
  WeightBuffer(const WeightBuffer&) = delete;
  WeightBuffer& operator=(const WeightBuffer&) = delete;

  operator halide_buffer_t*() { return buffer_.raw_buffer(); }  // NOLINT: an argument of a pipeline
  int R() const { return static_cast<int>(weights_.size()) / 2; }

 private:
  static std::vector<float> WithoutZeroEnds(const std::vector<float>& weights) {
    auto first = weights.begin(), end = weights.end();
    while (end - first > 1 && *first == 0 && *(end - 1) == 0) {
      ++first;
      --end;
    }
    return {first, end};
  }

  std::vector<float> weights_;
  Halide::Runtime::Buffer<float, 1> buffer_;
};

/// Answers how far a Laplacian's response speaks for an edge: its share of the level range, limited to 0 to
/// 1, squared.
inline float EdgeShare(float response, double range) {
  const double q = response / range, limited = q < 0.0 ? 0.0 : q > 1.0 ? 1.0 : q;
  return static_cast<float>(limited * limited);
}

/// The band of a plane, if there is one.
inline std::optional<LevelBand> BandOf(const CVelImage& src, int p, const BandLimits* limits) {
  return limits ? std::optional<LevelBand>(LevelBand(src, p, *limits)) : std::nullopt;
}

/// Writes filtered pixels, or what the band makes of them, to row y from column x on.
inline void WriteFiltered(CVelImage& target, CVelImage& src, int p, int x, int y,
                          const std::optional<LevelBand>& band, const float* filtered, int columns) {
  const float* s = src.GetLine(x, y, p);
  float* out = target.GetWritableLine(x, y, p);
  if (!band) {
    std::copy_n(filtered, columns, out);
    return;
  }
  for (int i = 0; i < columns; ++i) {
    out[i] = band->Blend(s[i], filtered[i]);
  }
}

/// Writes filter(plane, y, line), which fills the window's columns of a line.
template <class F>
void FilterLines(CVelImage& target, CVelImage& src, const Window& window, const BandLimits* limits,
                 F&& filter) {
  std::vector<std::optional<LevelBand>> bands;
  for (int p = 0; p < target.GetPlanes(); ++p) {
    bands.push_back(BandOf(src, p, limits));
  }
  ForPlaneLines(target, window, Team::All, [&](int p, int y) {
    std::vector<float> line(window.Width());
    filter(p, y, line.data());
    WriteFiltered(target, src, p, window.left, y, bands[p], line.data(), window.Width());
  });
}

}  // namespace korimg
