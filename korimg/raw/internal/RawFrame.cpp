#include "korimg/raw/internal/RawFrame.h"

#include <algorithm>
#include <limits>

#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/Vectors.h"
#include "korimg/platform/CException.h"

namespace korimg {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

}  // namespace

void SubtractFromRaw(CVelImage& image, float subtrahend) {
  if (IsContiguous(image)) {
    sub_scalar_inplace_float(subtrahend, PlaneBuffer(image, 0, false));
    return;
  }
  ForLines(Team::All, 0, image.GetHeight(), [&](int y) {
    float* line = image.GetWritableLine(0, y, 0);
    for (int x = 0; x < image.GetWidth(); ++x) {
      line[x] -= subtrahend;
    }
  });
}

std::unique_ptr<CImage> MakeRawFrame(CVelImage& image, int planes) {
  try {
    return std::make_unique<CImage>(image.VmManager(), CImage::Float, image.GetWidth(), image.GetHeight(),
                                    planes, 1.0, 0.0, true, nullptr);
  } catch (const velora::CVmMemoryAllocationError&) {
    throw new CMemoryException();
  }
}

void CopyRaw(CVelImage& image, CImage& frame) {
  for (int p = 0; p < frame.GetPlanes(); ++p) {
    frame.SetLevel(p, image.GetLevelMin(0), image.GetLevelMax(0));
  }
  if (MayRunPipelines(image, frame)) {
    paste_float(PlaneBuffer(image, 0), 0, image.GetWidth(), 0, image.GetHeight(), 0, 0,
                PlaneBuffer(frame, 0, false));
    return;
  }
  ForLines(Team::All, 0, image.GetHeight(),
           [&](int y) { std::copy_n(image.GetLine(0, y, 0), image.GetWidth(), FrameLine(frame, y, 0)); });
}

void WidenBits(CImage& frame, const RawRange& from, int dstBits) {
  const double min = from.min, white = WhiteOf(dstBits), range = from.max - from.min;
  ForLines(Team::All, 0, frame.GetHeight(), [&](int y) {
    float* line = FrameLine(frame, y, 0);
    for (int x = 0; x < frame.GetWidth(); ++x) {
      line[x] = range > 0 ? static_cast<float>(Limited((line[x] - min) * white / range, 0.0, white)) : 0.0f;
    }
  });
}

bool MakeColour(CVelImage& image) {
  if (!image.ChangePlanes(3, nullptr)) return false;
  for (int p = 1; p < 3; ++p) {
    image.SetLevel(p, image.GetLevelMin(0), image.GetLevelMax(0));
  }
  image.SetOrgPlanes(3);
  return true;
}

void CorrectGamma(CVelImage& image, int dstBits, double gamma) {
  const double exponent = 1 / gamma;
  for (int p = 0; p < image.GetPlanes(); ++p) {
    const bool byLevels = dstBits == CImage::Float;
    const double min = byLevels ? image.GetLevelMin(p) : 0;
    const double range = (byLevels ? image.GetLevelMax(p) : WhiteOf(dstBits)) - min;
    if (!(range > 0)) continue;
    if (IsContiguous(image)) {
      gamma_correct_float(static_cast<float>(min), static_cast<float>(range), static_cast<float>(exponent),
                          PlaneBuffer(image, p, false));
      continue;
    }
    ForLines(Team::All, 0, image.GetHeight(), [&](int y) {
      float* line = image.GetWritableLine(0, y, p);
      const int width = image.GetWidth();
      RunInLongVectors([&]() KORIMG_IN_LOOP {
#pragma omp simd
        for (int x = 0; x < width; ++x) {
          const double share = (line[x] - min) / range;
          const auto corrected = static_cast<float>(PositivePower(share, exponent) * range + min);
          line[x] = share > 0 && share < kInfinity ? corrected : line[x];
        }
      });
      image.ShowProgress(1);
    });
  }
}

void ToneCorrection::Line(const float* in, float* out, int width, const std::array<int, 4>& positions) const {
  std::array<Knee, 4> own;
  std::transform(positions.begin(), positions.end(), own.begin(), [this](int i) { return knees[i]; });
  const auto [black, white] = range;
  const auto correct = [&](auto&& formula) {
    for (int x = 0; x < width; ++x) {
      out[x] = static_cast<float>(formula(static_cast<double>(in[x]), own[x & 3]));
    }
  };
  if (bends && cuts) {
    correct([black = black, white = white](double v, const Knee& knee) {
      return v < black ? black : v > white ? white : knee(v, black);
    });
  } else if (bends) {
    correct([black = black, white = white](double v, const Knee& knee) {
      return v > black && v < white ? knee(v, black) : v;
    });
  } else if (cuts) {
    correct([black = black, white = white](double v, const Knee& knee) {
      return Limited(v * knee.gain, black, white);
    });
  } else {
    correct([](double v, const Knee& knee) { return v * knee.gain; });
  }
  if (!power) return;
  const double p = *power;
  for (int x = 0; x < width; ++x) {
    const double v = out[x];
    if (!(v > black && v < white && v >= 0)) continue;  // below 0 there is no such power
    out[x] = static_cast<float>(white * std::pow(1 - std::pow((white - v) / white, p), 1 / p));
  }
}

}  // namespace korimg
