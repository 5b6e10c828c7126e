#pragma once

#include <span>

#include "korimg/platform/Export.h"

namespace korimg {

/// Writes the median of the frames, pixel by pixel; each frame, and the result, is `rows` lines of `width`
/// pixels. NaN is passed over; a pixel that is NaN in all frames is NaN. An even count takes the mean of the
/// two middle values. The result does not depend on the number of threads.
KORIMG_API void MedianOfFrames(std::span<const float* const> frames, int width, int rows, float* result);

}  // namespace korimg
