// The blur of a Gaussian point-spread function, by transforms of short stretches of lines. Internal.
#pragma once

#include <array>

#include "korimg/geometry/fourier/internal/LineTransform.h"

namespace korimg {

/// Blurs planes whose sides are multiples of kSides by a Gaussian of a whole of 1, cut off 31 cells to either
/// side, or where floats see no more of it. Beyond the plane there is nothing. The blur is its own transpose.
///
/// Rows and then columns go through the transform in stretches that overlap by what the Gaussian reaches
/// (overlap-save; Helms 1967), two real lines in each complex one. So the cost depends neither on the size of
/// the plane nor on sigma, and no thread holds more than a few kilobytes. Results are the same for any number
/// of threads.
class GaussianBlur {
 public:
  static constexpr int kSides = 2 * LineTransform::kLanes;

  /// Prepares the blur; sigma is above 0.
  explicit GaussianBlur(double sigma);

  /// Answers the cells to either side.
  int Reach() const { return reach_; }
  /// Blurs a plane; `between` is room for one; `to` may be `from`.
  void Run(const float* from, float* between, float* to, int width, int height) const;

 private:
  static constexpr int kLength = 256;  ///< of a stretch; its lines stay in the nearest cache

  /// Calls stretch(first line, first cell, cells, room, filter) for all stretches, on the team: filter(step,
  /// pitch) blurs eight complex lines that were put into the room.
  template <class F>
  void ForStretches(int lines, int cells, F&& stretch) const;

  int reach_;
  LineTransform transform_;
  std::array<float, kLength> response_;  ///< of a frequency, over the length
};

}  // namespace korimg
