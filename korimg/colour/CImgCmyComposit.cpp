#include "korimg/colour/CImgCmyComposit.h"

#include "korimg/colour/internal/Channels.h"

using namespace korimg;

void CImgCmyComposit::Do(CVelImage* cyan, double cyanX, double cyanY, double cyanDegrees, CVelImage* magenta,
                         double magentaX, double magentaY, double magentaDegrees, CVelImage* yellow,
                         double yellowX, double yellowY, double yellowDegrees, int useImageCentre, int method,
                         CRect* rect, int, int show) {
  const std::array channels = {Channel{cyan, cyanX, cyanY, cyanDegrees},
                               Channel{magenta, magentaX, magentaY, magentaDegrees},
                               Channel{yellow, yellowX, yellowY, yellowDegrees}};
  const std::array planes = {channels[0].Plane(2), channels[1].Plane(0), channels[2].Plane(1)};
  for (int p = 0; p < 3; ++p) {
    const int a = (p + 1) % 3, b = (p + 2) % 3;
    const auto mean = [&](double (CVelImage::*level)(int) const) {
      return ((channels[a].image->*level)(planes[a]) + (channels[b].image->*level)(planes[b])) * 0.5;
    };
    SetLevel(p, mean(&CVelImage::GetLevelMin), mean(&CVelImage::GetLevelMax));
  }
  constexpr int kComposing = 6136;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, kComposing, window.Height());
  WriteChannels(*this, window, channels, planes, {true, true, true}, useImageCentre, method,
                [&](const std::array<float*, 3>& rows) {
                  float *const first = rows[0], *const second = rows[1], *const third = rows[2];
                  for (int x = 0; x < window.Width(); ++x) {
                    const float c = first[x], m = second[x], y = third[x], t = y + m - c;
                    first[x] = t;
                    second[x] = 2 * (y - t / 2);
                    third[x] = 2 * (m - t / 2);
                  }
                });
}
