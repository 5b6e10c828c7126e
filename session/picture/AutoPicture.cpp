#include "session/picture/AutoPicture.h"

#include <algorithm>
#include <limits>

#include "korimg/image/Loan.h"
#include "korimg/levels/CImgAutoLevel.h"
#include "korimg/levels/CImgMidtones.h"

namespace korimg::session {

Levels StretchForPicture(CVelImage& image, bool linked) {
  std::vector<std::pair<double, double>> extremes;
  for (int p = 0; p < std::min(image.GetPlanes(), 3); ++p) {
    extremes.push_back(FiniteExtremes(image, p));
  }
  return StretchForPicture(MeasureLevels(image), extremes, linked);
}

Levels StretchForPicture(const FrameLevels& sky, const std::vector<std::pair<double, double>>& extremes,
                         bool linked) {
  const int planes = static_cast<int>(extremes.size());
  double lowest = std::numeric_limits<double>::infinity(), highest = -lowest, level = 0, spread = 0;
  for (int p = 0; p < planes; ++p) {
    const auto [min, max] = extremes[p];
    lowest = std::min(lowest, min);
    highest = std::max(highest, max);
    level += sky.level[p] / planes;
    spread += sky.spread[p] / planes;
  }
  Levels levels;
  if (!(highest > lowest)) lowest = level - 1, highest = level + 1;
  std::fill(levels.min, levels.min + 3, lowest);
  std::fill(levels.max, levels.max + 3, highest);
  // A sky is narrow in its range; where there are no stars its noise is all there is, and is to stay dark.
  // Chosen, in spreads and in depths below the sky.
  constexpr double kNarrow = 6, kLeastRange = 8;
  const double depth = CImgMidtones::kShadowSpreads * spread;
  if (!(depth > 0) || highest - lowest < kNarrow * spread) return levels;
  const double range = std::max(highest - (level - depth), kLeastRange * depth);
  for (int p = 0; p < planes; ++p) {
    levels.min[p] = (linked ? level : sky.level[p]) - depth;
    levels.max[p] = levels.min[p] + range;
    levels.midtone[p] = CImgMidtones::Transfer(depth / range, CImgMidtones::kSky);
  }
  return levels;
}

Levels LevelForPicture(CVelImage& image, LevelMethod method) {
  if (method == LevelMethod::None) return Levels(image);
  if (method == LevelMethod::Auto || method == LevelMethod::Linked) {
    const Levels levels = StretchForPicture(image, method == LevelMethod::Linked);
    for (int p = 0; p < image.GetPlanes(); ++p) {
      image.SetLevel(p, levels.min[std::min(p, 2)], levels.max[std::min(p, 2)]);
    }
    return levels;
  }
  Loan<CImgAutoLevel> loan(image);
  CImgAutoLevel& levels = loan.borrower;
  if (method == LevelMethod::Normal) levels.DoByNormal(0.01, 0.997, 0, nullptr);
  if (method == LevelMethod::Mean) levels.DoByMean(1, 4, 0, nullptr);
  if (method == LevelMethod::Median) levels.DoByMedian(1, 4, 0, nullptr);
  if (method == LevelMethod::Histogram) levels.DoByHistogram(0.4, 2.0, 0, 0, nullptr);
  const auto isFlat = [&levels] {
    for (int p = 0; p < levels.GetPlanes(); ++p) {
      if (!(levels.GetLevelRange(p) > 0)) return true;
    }
    return false;
  };
  // The histogram's feet are sought above 0: a sky at or below it goes by shares of its pixels.
  if (isFlat()) levels.DoByNormal(0.01, 0.997, 1, nullptr);
  // A constant image has no range to show; any will do.
  for (int p = 0; p < levels.GetPlanes(); ++p) {
    if (!(levels.GetLevelRange(p) > 0))
      levels.SetLevel(p, levels.GetLevelMin(p) - 1, levels.GetLevelMin(p) + 1);
  }
  return Levels(levels);
}

void LevelForPreview(CVelImage& image, int side) {
  const int step = ShrinkTo({image.GetWidth(), image.GetHeight()}, side);
  const int width = std::max(image.GetWidth() / step, 1), height = std::max(image.GetHeight() / step, 1);
  const auto store = CreateContiguousManager({});
  CVelImage sample(store, CImage::Float, width, height, image.GetPlanes(), 1.0, 0.0, 1, nullptr);
  sample.SetOrgBitsPixel(image.GetOrgBitsPixel());
  for (int p = 0; p < image.GetPlanes(); ++p) {
    sample.SetLevel(p, image.GetLevelMin(p), image.GetLevelMax(p));
    for (int y = 0; y < height; ++y) {
      const float* from = image.GetLine(0, y * step, p);
      float* to = sample.GetWritableLine(0, y, p);
      for (int x = 0; x < width; ++x) {
        to[x] = from[x * step];
      }
    }
  }
  LevelForPicture(sample, LevelMethod::Histogram);
  for (int p = 0; p < image.GetPlanes(); ++p) {
    image.SetLevel(p, sample.GetLevelMin(p), sample.GetLevelMax(p));
  }
}

}  // namespace korimg::session
