// Brightness of the pixels of a line, of raw values and on the 256 scale. Internal.
#pragma once

#include <array>

#include "korimg/image/CVelImage.h"

namespace korimg {

/// The same place of three planes' lines.
struct ColourLine {
  std::array<const float*, 3> channel;

  ColourLine(CVelImage& image, int x, int y, const std::array<int, 3>& planes = {0, 1, 2})
      : channel{image.GetLine(x, y, planes[0]), image.GetLine(x, y, planes[1]),
                image.GetLine(x, y, planes[2])} {}

  double Raw(int x) const {
    return CVelImage::CalcBright(static_cast<double>(channel[0][x]), static_cast<double>(channel[1][x]),
                                 static_cast<double>(channel[2][x]));
  }
};

/// Brightness on the 256 scale, each channel by its plane's levels: the channels in float, their sum in
/// double.
class Brightness256 {
 public:
  explicit Brightness256(const CVelImage& image, const std::array<int, 3>& planes = {0, 1, 2}) {
    for (int k = 0; k < 3; ++k) {
      min_[k] = static_cast<float>(image.GetLevelMin(planes[k]));
      scale_[k] = static_cast<float>(255.0 / image.GetLevelRange(planes[k]));
    }
  }
  double operator()(const ColourLine& line, int x) const {
    return CVelImage::CalcBright(Channel(line, 0, x), Channel(line, 1, x), Channel(line, 2, x));
  }

 private:
  double Channel(const ColourLine& line, int k, int x) const {
    return (line.channel[k][x] - min_[k]) * scale_[k];
  }

  float min_[3];
  float scale_[3];
};

}  // namespace korimg
