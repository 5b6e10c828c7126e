// Sub-bands by wavelets.
#include <algorithm>
#include <cmath>

#include <fmt/format.h>

#include "korimg/image/internal/Lines.h"
#include "korimg/restoration/CImgWavelet.h"

#include "session/operations/Describe.h"

namespace korimg::session {
namespace {

struct WaveletOptions {
  int order = 4, levels = 4;
  Matrix gains;
  double low = 1;
};

/// A gain for each level of a direction, from the finest on: 1 where none is given.
CArray<float, float> GainsOf(const WaveletOptions& o, int direction) {
  CArray<float, float> gains;
  const int row = o.gains.rows == 1 ? 0 : direction;
  for (int level = 0; level < o.levels; ++level) {
    const bool given = level < o.gains.columns;
    gains.Add(given ? static_cast<float>(o.gains.values[row * o.gains.columns + level]) : 1.0f);
  }
  return gains;
}

void CheckGains(const Call& call, const WaveletOptions& o) {
  const int side = std::max(call.image->GetWidth(), call.image->GetHeight());
  if (side >> o.levels == 0) {
    throw UsageError(
        fmt::format("wavelet: {} levels are too many for {} x {}: 2^levels may be as much as the larger side",
                    o.levels, call.image->GetWidth(), call.image->GetHeight()));
  }
  if (o.gains.rows != 1 && o.gains.rows != 3) {
    throw UsageError(
        fmt::format("wavelet: gains has one row, or three for the directions, not {}", o.gains.rows));
  }
  if (o.gains.columns > o.levels) {
    throw UsageError(fmt::format("wavelet: gains has {} levels of {}; give more levels=, or fewer gains",
                                 o.gains.columns, o.levels));
  }
}

/// Blank pixels would blank all that the filters reach. In the buffer each is as the one before it, or as
/// black at the beginning of a line.
void FillBlanks(CVelImage& buffer) {
  for (int p = 0; p < buffer.GetPlanes(); ++p) {
    ForLines(Team::All, 0, buffer.GetHeight(), [&](int y) {
      float* const line = buffer.GetWritableLine(0, y, p);
      auto last = static_cast<float>(buffer.GetLevelMin(p));
      for (int x = 0; x < buffer.GetWidth(); ++x) {
        last = line[x] = std::isfinite(line[x]) ? line[x] : last;
      }
    });
  }
}

/// What is blank in the image becomes so in the buffer.
void KeepBlanks(CVelImage& image, const CRect& rect, CVelImage& buffer) {
  for (int p = 0; p < buffer.GetPlanes(); ++p) {
    ForLines(Team::All, 0, rect.Height(), [&](int y) {
      const float* from = image.GetLine(rect.left, rect.top + y, p);
      float* const line = buffer.GetWritableLine(0, y, p);
      for (int x = 0; x < rect.Width(); ++x) {
        if (!std::isfinite(from[x])) line[x] = from[x];
      }
    });
  }
}

void Wavelet(Call& call, const WaveletOptions& o) {
  CheckGains(call, o);
  CVelImage& image = *call.image;
  CImgWavelet wavelet;
  wavelet.SetProgressHandle(call.Window());
  wavelet.SetDaubechyParams(o.order);
  int left, top, right, bottom;
  image.NormalizeRect(call.rect, left, top, right, bottom);
  CRect rect(left, top, right, bottom), size;
  wavelet.CalcBufferSize(&rect, o.levels, &size);
  CVelImage buffer(image.VmManager(), CImage::Float, size.Width(), size.Height(), image.GetPlanes(), 1.0, 0.0,
                   1, nullptr);
  for (int p = 0; p < image.GetPlanes(); ++p) {
    buffer.SetLevel(p, image.GetLevelMin(p), image.GetLevelMax(p));
  }
  wavelet.CopyToBuffer(&image, &buffer, &rect);
  FillBlanks(buffer);
  auto horizontal = GainsOf(o, 0), vertical = GainsOf(o, 1), diagonal = GainsOf(o, 2);
  if (!wavelet.DoMultiResSubbandDecomposition(&buffer, o.levels, kShow) ||
      !wavelet.DoMultiResSubbandComposition(&buffer, o.levels, static_cast<float>(o.low), &horizontal,
                                            &vertical, &diagonal, kShow)) {
    throw Cancelled();
  }
  KeepBlanks(image, rect, buffer);
  wavelet.CopyFromBuffer(&buffer, &rect, &image);
}

}  // namespace

std::vector<Operation> WaveletsOperations() {
  return {
      Describe<WaveletOptions>("wavelet",
                               "weighs detail by its scale and direction: sub-bands of Daubechies' wavelets",
                               "Splits the image into bands of detail of 1, 2, 4, 8 ... pixels and what is "
                               "coarser than all of them, "
                               "and puts them together again by their gains. Above 1 a band is sharpened, "
                               "below 1 smoothed, 0 removes "
                               "it: lift 2 to 8 pixels for the bands of planets and filaments, and lower the "
                               "finest, which is mostly "
                               "noise. Banding of a sensor is in one direction alone. Sharp stars get "
                               "ripples when gains of neighbouring "
                               "levels differ much; blend them back by a mask. Blank pixels stay blank.")
          .Takes("gains", &WaveletOptions::gains,
                 {"of each level's detail, the finest first, 1 for those left out; in one row for all "
                  "directions, or in three for steps along rows, along columns, and along both",
                  "", -1000, 1000})
          .Required()
          .Takes("levels", &WaveletOptions::levels,
                 {"scales to split into, of 1, 2, 4 ... pixels", "", 1, 16})
          .Takes("low", &WaveletOptions::low,
                 {"gain of what is coarser than all levels, about the middle of black and white", "", -1000,
                  1000})
          .Takes("order", &WaveletOptions::order,
                 {"of the wavelets: 1 has sharp edges and makes blocks, 10 is smooth and wide", "", 1, 10})
          .OnRect()
          .Example("gains=0.6,1.4,1.2 levels=4")
          .Runs(Wavelet),
  };
}

}  // namespace korimg::session
