#include "korimg/calibration/CImgDark.h"

#include <cmath>

#include "korimg/image/internal/Frame.h"

using namespace korimg;

namespace {

/// Each pixel d of the image becomes formula(d, s) with the second frame's pixel s.
template <class F>
void Interpolate(CImgDark& image, CVelImage& second, int show, F&& formula) {
  if (!Fits(second, image)) return;
  const ProgressScope progress(image, show, 6183, image.GetHeight() * image.GetPlanes());
  ForPlaneLines(image, Window(image, nullptr), Team::One, [&](int p, int y) {
    const float* s = second.GetLine(0, y, p);
    float* d = image.GetWritableLine(0, y, p);
    for (int x = 0; x < image.GetWidth(); ++x) {
      d[x] = static_cast<float>(formula(static_cast<double>(d[x]), static_cast<double>(s[x])));
    }
  });
}

}  // namespace

void CImgDark::DoInterpolateByProportion(CVelImage* second, double a1, double a2, double a, double b1,
                                         double b2, double b, int show) {
  const double k = (a - a1) / (a2 - a1), j = (b - b1) / (b2 - b1);
  Interpolate(*this, *second, show, [=](double d, double s) { return (s - d) * k + d + (s - d) * j; });
}

void CImgDark::DoInterpolateByPower(CVelImage* second, double a1, double a2, double a, double b1, double b2,
                                    double b, double step, int show) {
  const double k = (a - a1) / (a2 - a1);
  const double n = std::abs(b2 - b) > std::abs(b - b1) ? b1 : b2;
  const double m = std::pow(2.0, n - b / step);
  Interpolate(*this, *second, show, [=](double d, double s) { return (s - d) * k + d + d * m; });
}

void CImgDark::DoInterpolateByScore(CVelImage* second, double s, double s1, double s2, int show) {
  const double k = (s - s1) / (s2 - s1);
  Interpolate(*this, *second, show, [=](double d, double second) {
    const double r = (second - d) * k + d;
    return r > second ? second : d > r ? d : r;
  });
}
