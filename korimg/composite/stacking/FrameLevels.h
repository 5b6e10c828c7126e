#pragma once

#include <vector>

#include "korimg/image/CVelImage.h"

namespace korimg {

/// Holds what normalising and weighting a frame needs to know of its planes; all 0 where there are no finite
/// pixels.
struct FrameLevels {
  double level[3] = {};  ///< the median
  double spread[3] =
      {};  ///< of the pixels about it, as a standard deviation: 1.4826 times the median distance
  double noise[3] = {};  ///< standard deviation from pixel to pixel, free of gradients
};

/// Measures an image by some 60000 pixels of each plane, in whole lines spread evenly over it. Outliers such
/// as stars count little; pixels that are no finite numbers are passed over. Noise comes from the distance of
/// each pixel to the mean of its left and right neighbours. The same for any number of threads.
KORIMG_API FrameLevels MeasureLevels(CVelImage& image);

/// Answers the lines that MeasureLevels looks at, from the upper one down. An image of these alone measures
/// the same.
KORIMG_API std::vector<int> LinesForLevels(int width, int height);

}  // namespace korimg
