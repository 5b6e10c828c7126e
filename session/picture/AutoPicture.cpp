#include "session/picture/AutoPicture.h"

#include <algorithm>

#include "korimg/levels/CImgAutoLevel.h"

#include "session/picture/Images.h"

namespace korimg::session {

void LevelForPicture(CVelImage& image, LevelMethod method) {
  if (method == LevelMethod::None) return;
  CImgAutoLevel levels;
  levels.Swap(&image);
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
  levels.Swap(&image);
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
