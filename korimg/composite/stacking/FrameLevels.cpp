#include "korimg/composite/stacking/FrameLevels.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "korimg/image/internal/Numbers.h"

namespace korimg {
namespace {

/// Pixels that stand for a frame: their median is known to 0.5 % of their deviation (1.25 / sqrt n).
constexpr int kSample = 60000;

}  // namespace

std::vector<int> LinesForLevels(int width, int height) {
  std::vector<int> lines(std::clamp((kSample + width - 1) / width, 1, height));
  const auto count = static_cast<long long>(lines.size());
  for (long long i = 0; i < count; ++i) {
    lines[i] = static_cast<int>((2 * i + 1) * height / (2 * count));
  }
  return lines;
}

FrameLevels MeasureLevels(CVelImage& image) {
  FrameLevels result;
  if (image.IsEmpty()) return result;
  const int width = image.GetWidth();
  const std::vector<int> lines = LinesForLevels(width, image.GetHeight());
  // Very wide lines are taken in part.
  const int step = std::max(width / kSample, 1);
  for (int p = 0; p < std::min(image.GetPlanes(), 3); ++p) {
    std::vector<float> values, distances;
    for (const int y : lines) {
      const float* line = image.GetLine(0, y, p);
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
