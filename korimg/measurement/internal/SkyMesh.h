// The sky of an image: its level and noise by cells, smooth between them. Internal.
#pragma once

#include <vector>

#include "korimg/image/CVelImage.h"

namespace korimg {

/// Reads `count` pixels of a line from column x on, in raw values: of the only plane, the luminance of three,
/// or of a mosaic a mean over its colours.
void ReadLight(CVelImage& image, int x, int y, int count, float* out);
/// Answers the variance in pixels by which that mean makes stars wider.
double LightSpread(const CVelImage& image);

/// Holds the background in cells of about 64 x 64 pixels: the middle of what kappa-sigma clipping
/// leaves, and the deviation of its darker half, which stars and nebulae do not widen. Cells without enough
/// numbers, or without noise, take their neighbours' values; a median of 3 x 3 cells passes over those that a
/// bright object fills. Between the middles of cells values are bilinear.
class SkyMesh {
 public:
  explicit SkyMesh(CVelImage& image);

  void Levels(int x, int y, int count, float* out) const { Interpolate(levels_, x, y, count, out); }
  /// Writes one over the deviation.
  void Weights(int x, int y, int count, float* out) const { Interpolate(weights_, x, y, count, out); }
  double Level(int x, int y) const;
  double Sigma(int x, int y) const;
  /// Answer the medians of all cells.
  double MedianLevel() const;
  double MedianSigma() const;

 private:
  void Interpolate(const std::vector<float>& cells, int x, int y, int count, float* out) const;

  int columns_, rows_;
  double stepX_, stepY_;  ///< pixels
  std::vector<float> levels_, weights_;
};

}  // namespace korimg
