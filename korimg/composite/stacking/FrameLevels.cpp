#include "korimg/composite/stacking/FrameLevels.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "korimg/image/internal/Numbers.h"

namespace korimg {
FrameLevels MeasureLevels(CVelImage& image) {
  constexpr int kSample = 60000;
  FrameLevels result;
  if (image.IsEmpty()) return result;
  const int width = image.GetWidth(), height = image.GetHeight();
  const int lines = std::clamp((kSample + width - 1) / width, 1, height);
  // Very wide lines are taken in part.
  const int step = std::max(width / kSample, 1);
  for (int p = 0; p < std::min(image.GetPlanes(), 3); ++p) {
    std::vector<float> values, distances;
    for (int i = 0; i < lines; ++i) {
      const float* line = image.GetLine(0, static_cast<int>((2LL * i + 1) * height / (2LL * lines)), p);
      for (int x = 0; x < width; x += step) {
        if (std::isfinite(line[x])) values.push_back(line[x]);
        if (x < 1 || x > width - 2) continue;
        const float distance = line[x] - 0.5f * (line[x - 1] + line[x + 1]);
        if (std::isfinite(distance)) distances.push_back(std::abs(distance));
      }
    }
    const double level = UpperMedian(values);
    for (float& v : values) {
      v = static_cast<float>(std::abs(v - level));
    }
    result.level[p] = level;
    result.spread[p] = kSigmasOfMedianDistance * UpperMedian(values);
    // Of a difference to a mean of two: 1 + 1/2 times the variance of a pixel.
    result.noise[p] = kSigmasOfMedianDistance * UpperMedian(distances) / std::sqrt(1.5);
  }
  return result;
}

}  // namespace korimg
