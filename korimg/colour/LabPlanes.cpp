// The planes L, a and b of an image.
#include <array>
#include <memory>

#include "korimg/colour/internal/LabRows.h"
#include "korimg/image/internal/Frame.h"

using namespace korimg;

namespace {

/// On the 256 scale: far above white, and white.
constexpr float kBrightest = 5000, kWhite = 255;

/// A value of the 256 scale as a share of white; NaN stays.
KORIMG_IN_LOOP inline double ShareOfWhite(float v, float limit) {
  const float high = v > limit ? limit : v;
  return (high < 0 ? 0 : high) * (1 / 255.0);
}

/// Writes the planes that parts(Lab) gives of each pixel into a new image.
template <size_t kPlanes, class F>
CVelImage* MakePlanes(CVelImage& image, int message, float limit, const F& parts) {
  if (!image.VmManager()) return nullptr;
  std::unique_ptr<CVelImage> planes;
  try {
    planes = std::make_unique<CVelImage>(image.VmManager(), CImage::Float, image.GetWidth(),
                                         image.GetHeight(), kPlanes, 1.0, 0.0, 1, nullptr);
  } catch (const velora::CVmMemoryAllocationError&) {
    return nullptr;
  }
  planes->CopyStdPtCtr(&image);
  const ProgressScope progress(image, 1, message, image.GetHeight());
  const bool colour = image.GetPlanes() >= 3;
  const int columns = image.GetWidth();
  ForLines(Team::All, 0, image.GetHeight(), [&](int y) {
    std::array<float*, kPlanes> out;
    for (size_t p = 0; p < kPlanes; ++p) {
      out[p] = planes->GetWritableLine(0, y, static_cast<int>(p));
    }
    const auto write = [=](int x, const RgbColour& rgb) KORIMG_IN_LOOP {
      const std::array<double, kPlanes> values = parts(RgbToLab(rgb));
      for (size_t p = 0; p < kPlanes; ++p) {
        out[p][x] = static_cast<float>(values[p]);
      }
    };
    if (colour) {
      float const *r = image.GetLine(0, y, 0), *g = image.GetLine(0, y, 1), *b = image.GetLine(0, y, 2);
      float min[3], scale[3];
      for (int p = 0; p < 3; ++p) {
        min[p] = static_cast<float>(image.GetLevelMin(p));
        scale[p] = static_cast<float>(255.0 / image.GetLevelRange(p));
      }
      RunInLongVectors([=]() KORIMG_IN_LOOP {
#pragma omp simd
        for (int x = 0; x < columns; ++x) {
          write(x, {ShareOfWhite((r[x] - min[0]) * scale[0], limit),
                    ShareOfWhite((g[x] - min[1]) * scale[1], limit),
                    ShareOfWhite((b[x] - min[2]) * scale[2], limit)});
        }
      });
    } else {
      const float* in = image.GetLine(0, y, 0);
      const double min = image.GetLevelMin(0), range = image.GetLevelRange(0);
      RunInLongVectors([=]() KORIMG_IN_LOOP {
#pragma omp simd
        for (int x = 0; x < columns; ++x) {
          const double v = ShareOfWhite(static_cast<float>((in[x] - min) / range * 255.0), kBrightest);
          write(x, {v, v, v});
        }
      });
    }
    image.ShowProgress(1);
  });
  return planes.release();
}

}  // namespace

CVelImage* CVelImage::MakeLabPlane() {
  return MakePlanes<3>(*this, 6133, kBrightest, [](const LabColour& lab) KORIMG_IN_LOOP {
    return std::array{lab.l, lab.a, lab.b};
  });
}

CVelImage* CVelImage::MakeLPlane() {
  return MakePlanes<1>(*this, 6101, kBrightest,
                       [](const LabColour& lab) KORIMG_IN_LOOP { return std::array{lab.l}; });
}

CVelImage* CVelImage::MakeAbPlane(int clipLevel) {
  return MakePlanes<2>(*this, 6102, clipLevel ? kWhite : kBrightest, [](const LabColour& lab) KORIMG_IN_LOOP {
    return std::array{lab.a, lab.b};
  });
}
