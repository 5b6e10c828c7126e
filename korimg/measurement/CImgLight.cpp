#include "korimg/measurement/CImgLight.h"

#include "korimg/image/internal/Frame.h"
#include "korimg/measurement/internal/SkyMesh.h"

using namespace korimg;

namespace {

/// Reads the light, and lets change(y, line) have its lines.
template <class F>
void ReadLines(CVelImage& light, CVelImage& image, F&& change) {
  if (image.IsEmpty()) return;
  const int width = image.GetWidth(), height = image.GetHeight();
  MakeWorkImage(light, CVelImage(image.VmManager(), CImage::Float, width, height, 1, 1.0, 0.0, 1, nullptr));
  ForLines(Team::All, 0, height, [&](int y) {
    float* line = light.GetWritableLine(0, y, 0);
    ReadLight(image, 0, y, width, line);
    change(y, line);
  });
}

}  // namespace

void CImgLight::Do(CVelImage* image) {
  ReadLines(*this, *image, [](int, float*) {});
}

void CImgLight::DoWithoutSky(CVelImage* image) {
  if (image->IsEmpty()) return;
  const SkyMesh sky(*image);
  const int width = image->GetWidth();
  ReadLines(*this, *image, [&](int y, float* line) {
    std::vector<float> level(width);
    sky.Levels(0, y, width, level.data());
    for (int x = 0; x < width; ++x) {
      line[x] = line[x] - line[x] == 0 ? line[x] - level[x] : 0;
    }
  });
}

void CImgLight::DoAboveSky(CVelImage* image, double sigmas) {
  if (image->IsEmpty()) return;
  const SkyMesh sky(*image);
  const int width = image->GetWidth();
  const auto noise = static_cast<float>(sigmas);
  ReadLines(*this, *image, [&](int y, float* line) {
    std::vector<float> level(width), weight(width);
    sky.Levels(0, y, width, level.data());
    sky.Weights(0, y, width, weight.data());
    for (int x = 0; x < width; ++x) {
      const float above = line[x] - level[x] - noise / weight[x];
      line[x] = above > 0 && above - above == 0 ? above : 0;
    }
  });
}
