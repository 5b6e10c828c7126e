// The planes L, a and b of an image.
#include <algorithm>
#include <memory>
#include <vector>

#include "korimg/colour/internal/LabRows.h"
#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/Vectors.h"

using namespace korimg;

namespace {

/// On the 256 scale: far above white, and white.
constexpr float kBrightest = 5000, kWhite = 255;

/// A value of the 256 scale as a share of white; NaN stays.
KORIMG_IN_LOOP inline double ShareOfWhite(float v, float limit) {
  const float notAbove = v > limit ? limit : v;
  return (notAbove < 0 ? 0 : notAbove) * (1 / 255.0);
}

/// A plane of a colour image as shares of white: in single precision up to the scale of 256.
void ReadChannel(const CVelImage& image, int plane, const float* in, float limit, int count, double* out) {
  const auto min = static_cast<float>(image.GetLevelMin(plane)),
             scale = static_cast<float>(255.0 / image.GetLevelRange(plane));
  RunInLongVectors([=]() KORIMG_IN_LOOP {
    for (int x = 0; x < count; ++x) {
      out[x] = ShareOfWhite((in[x] - min) * scale, limit);
    }
  });
}

void ReadGrey(const CVelImage& image, const float* in, int count, double* out) {
  const double min = image.GetLevelMin(0), range = image.GetLevelRange(0);
  RunInLongVectors([=]() KORIMG_IN_LOOP {
    for (int x = 0; x < count; ++x) {
      out[x] = ShareOfWhite(static_cast<float>((in[x] - min) / range * 255.0), kBrightest);
    }
  });
}

/// Writes the parts, by number, of what convert makes of red, green and blue into a new image.
CVelImage* MakePlanes(CVelImage& image, int message, float limit,
                      void (*convert)(double*, double*, double*, int), const std::vector<int>& parts) {
  if (!image.VmManager()) return nullptr;
  const int planes = static_cast<int>(parts.size());
  std::unique_ptr<CVelImage> made;
  try {
    made = std::make_unique<CVelImage>(image.VmManager(), CImage::Float, 1, 1, planes, 1.0, 0.0, 1, nullptr);
  } catch (const velora::CVmMemoryAllocationError&) {
    return nullptr;
  }
  // In two steps: the first kind of room is filled with zeros.
  if (!made->ChangeSize(image.GetWidth(), image.GetHeight(), nullptr, CImage::Contents::Undefined))
    return nullptr;
  made->CopyStdPtCtr(&image);
  const ProgressScope progress(image, 1, message, image.GetHeight());
  ForLines(Team::All, 0, image.GetHeight(), [&](int y) {
    double colours[3][kColourChunk];
    for (int x = 0; x < image.GetWidth(); x += kColourChunk) {
      const int count = std::min(kColourChunk, image.GetWidth() - x);
      for (int p = 0; p < 3; ++p) {
        if (image.GetPlanes() >= 3) {
          ReadChannel(image, p, image.GetLine(x, y, p), limit, count, colours[p]);
        } else if (p == 0) {
          ReadGrey(image, image.GetLine(x, y, 0), count, colours[0]);
        } else {
          std::copy_n(colours[0], count, colours[p]);
        }
      }
      convert(colours[0], colours[1], colours[2], count);
      for (int p = 0; p < planes; ++p) {
        std::copy_n(colours[parts[p]], count, made->GetWritableLine(x, y, p));
      }
    }
    image.ShowProgress(1);
  });
  return made.release();
}

}  // namespace

CVelImage* CVelImage::MakeLabPlane() {
  return MakePlanes(*this, 6133, kBrightest, RgbToLab, {0, 1, 2});
}

CVelImage* CVelImage::MakeLPlane() {
  return MakePlanes(*this, 6101, kBrightest, RgbToL, {0});
}

CVelImage* CVelImage::MakeAbPlane(int clipLevel) {
  return MakePlanes(*this, 6102, clipLevel ? kWhite : kBrightest, RgbToLab, {1, 2});
}
