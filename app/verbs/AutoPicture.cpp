#include "app/verbs/AutoPicture.h"

#include "korimg/levels/CImgAutoLevel.h"

namespace korimg::tool {

void LevelForPicture(CVelImage& image, const std::string& method) {
  if (method == "none") return;
  CImgAutoLevel levels;
  levels.Swap(&image);
  if (method == "normal") levels.DoByNormal(0.01, 0.997, 0, nullptr);
  if (method == "mean") levels.DoByMean(1, 4, 0, nullptr);
  if (method == "median") levels.DoByMedian(1, 4, 0, nullptr);
  if (method == "histogram") levels.DoByHistogram(0.4, 2.0, 0, 0, nullptr);
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

}  // namespace korimg::tool
