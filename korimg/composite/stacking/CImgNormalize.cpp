#include "korimg/composite/stacking/CImgNormalize.h"

#include <algorithm>
#include <cmath>

#include "korimg/image/internal/Frame.h"

using namespace korimg;

namespace {

struct Moments {
  double mean = 0, sigma = 0;
};

Moments MomentsOf(CVelImage& image, int plane) {
  struct Sums {
    double values = 0, squares = 0;
  };
  const auto lines = MapLines(0, image.GetHeight(), [&](int y) {
    Sums sums;
    const float* line = image.GetLine(0, y, plane);
    for (int x = 0; x < image.GetWidth(); ++x) {
      const double v = line[x];
      sums.values += v;
      sums.squares += v * v;
    }
    return sums;
  });
  Sums all;
  for (const Sums& line : lines) {
    all.values += line.values;
    all.squares += line.squares;
  }
  const double n = 1.0 * image.GetWidth() * image.GetHeight(), mean = all.values / n;
  return {mean, std::sqrt(std::max(all.squares / n - mean * mean, 0.0))};
}

}  // namespace

void CImgNormalize::Do(CVelImage* src, float* average, float* sigma, int progress) {
  if ((!average && !sigma) || !Fits(*src, *this)) return;
  const int passes = 1 + (average ? 1 : 0) + (sigma ? 1 : 0);
  const ProgressScope scope(*this, progress, 6197, passes * GetHeight() * GetPlanes());
  for (int p = 0; p < GetPlanes(); ++p) {
    const Moments is = MomentsOf(*src, p);
    ShowProgress(GetHeight());
    const double delta = average ? average[p] - is.mean : 0;
    const double factor = sigma && is.sigma != 0 ? sigma[p] / is.sigma : 1;
    const double centre = is.mean + delta;
    ForLines(Team::All, 0, GetHeight(), [&](int y) {
      const float* in = src->GetLine(0, y, p);
      float* out = GetWritableLine(0, y, p);
      for (int x = 0; x < GetWidth(); ++x) {
        // Shifted pixels are floats before they are stretched.
        const auto shifted = static_cast<float>(in[x] + delta);
        out[x] = factor == 1 ? shifted : static_cast<float>((shifted - centre) * factor + centre);
      }
      ShowProgress(passes - 1);
    });
  }
}
