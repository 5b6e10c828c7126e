// How the values that frames have for one pixel differ though nothing is wrong with them. Internal.
#pragma once

#include <span>
#include <utility>
#include <vector>

#include "korimg/image/internal/SmoothSurface.h"

namespace korimg {

/// By how much the pixels of each frame scatter, and how its sky lies above or below that of the others
/// across the image, measured on some rows of registered frames.
class FrameScatter {
 public:
  FrameScatter(int frames, int width, int height, int planes);

  /// Answers the row of the image that sample `number` of Samples() is.
  int RowOf(int number) const;
  int Samples() const { return rows_; }
  /// Takes a row of one plane: `values` by frames, infinite where a frame has none, and the medians of
  /// columns.
  void Add(int number, int plane, std::span<const float> values, std::span<const float> medians);
  /// Makes noise and skies of the rows, once all were taken.
  void Settle();

  bool IsKnown() const { return isKnown_; }
  /// Answers the standard deviation of a frame's pixels at the level of the sky.
  float Noise(int frame, int plane) const { return noise_[frame * planes_ + plane]; }
  /// Answers what a pixel scatters by that lies so far above the sky, by photons, and beside a star's light
  /// of so much, which the seeing spreads one way and another; all in units of the mean noise of frames.
  double Of(double signal, double star, int plane) const;
  /// Answers the mean noise of all frames.
  float MeanNoise(int plane) const { return meanNoise_[plane]; }

  /// Tells how much a frame's sky lies above one that is common to all, for some pixels of a row.
  void OffsetsOf(int frame, int plane, int y, int x, std::span<float> offsets) const {
    offsets_[frame * planes_ + plane].Row(y, x, offsets);
  }
  /// Tells the common sky.
  void SkyOf(int plane, int y, int x, std::span<float> sky) const { skies_[plane].Row(y, x, sky); }

 private:
  struct Cell {
    double x, y;  ///< its middle
  };

  void MeasureNoise(int plane);
  void MeasurePhotons(int plane);
  void FitSkies(int plane);
  SmoothSurface Fit(const std::vector<double>& values, bool robust) const;
  int FirstOf(int column) const { return static_cast<int>(1LL * column * width_ / columns_); }
  /// Answers how many frames each is compared with beside those that are compared with it.
  int Partners() const;

  int frames_, width_, height_, planes_;
  int rows_, columns_;  ///< of cells
  bool isKnown_ = false;
  std::vector<Cell> cells_;
  std::vector<float> above_, levels_;  ///< of cells, by frames and planes, by planes; NaN where not known
  std::vector<float> differences_;     ///< variance of frame and partner, by plane, pair and row
  std::vector<float> shares_;          ///< of each of two frames, by plane, frame and row
  std::vector<SmoothSurface> offsets_, skies_;
  std::vector<float> noise_, meanNoise_;
  std::vector<std::vector<std::pair<float, float>>> bright_;  ///< signals and distances, by planes
  std::vector<double> photons_;                               ///< variance per signal
};

}  // namespace korimg
