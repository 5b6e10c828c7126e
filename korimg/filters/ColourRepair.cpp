// Colours that are noise or a fringe.
#include <algorithm>
#include <cmath>

#include "korimg/filters/CImgFilterMisc.h"
#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/Vectors.h"

using namespace korimg;

namespace {

constexpr int kColours = 3;

enum Message : int { ColourNoise = 6192, Fringe = 6193 };

/// Calls line(columns, sources, targets) for the lines of the window, with addresses for each colour.
template <class F>
void ForColourLines(CVelImage& target, CVelImage& src, const Window& window, F&& line) {
  ForLines(Team::All, window.top, window.bottom, [&](int y) {
    const float* in[kColours];
    float* out[kColours];
    for (int p = 0; p < kColours; ++p) {
      in[p] = src.GetLine(window.left, y, p);
      out[p] = target.GetWritableLine(window.left, y, p);
    }
    line(window.Width(), in, out);
    target.ShowProgress(kColours);
  });
}

bool HaveColours(const CVelImage& target, const CVelImage& src) {
  return target.GetPlanes() >= kColours && Fits(src, target);
}

}  // namespace

void CImgFilterMisc::ColorNoiseCut(double level, double margin, double strength, CVelImage* src, CRect* rect,
                                   int show) {
  if (!HaveColours(*this, *src)) return;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, ColourNoise, kColours * std::max(window.Height(), 0));
  if (window.IsEmpty()) return;
  const auto limit = static_cast<float>((level + margin) / 255.0);
  const auto towards = static_cast<float>(strength);
  float min[kColours], range[kColours];
  for (int p = 0; p < kColours; ++p) {
    min[p] = static_cast<float>(GetLevelMin(p));
    range[p] = static_cast<float>(GetLevelRange(p));
  }
  ForColourLines(*this, *src, window, [&](int columns, const float* const* in, float* const* out) {
    const float *red = in[0], *green = in[1], *blue = in[2];
    float *toRed = out[0], *toGreen = out[1], *toBlue = out[2];
    RunInLongVectors([=]() KORIMG_IN_LOOP {
      for (int x = 0; x < columns; ++x) {
        const float r = (red[x] - min[0]) / range[0], g = (green[x] - min[1]) / range[1],
                    b = (blue[x] - min[2]) / range[2];
        const float grey = 0.2989f * r + 0.5866f * g + 0.1145f * b;
        const bool dark = r < limit || g < limit || b < limit, coloured = r != g || g != b;
        const bool cut = dark && coloured && grey - grey == 0;
        toRed[x] = cut ? ((grey - r) * towards + r) * range[0] + min[0] : red[x];
        toGreen[x] = cut ? ((grey - g) * towards + g) * range[1] + min[1] : green[x];
        toBlue[x] = cut ? ((grey - b) * towards + b) * range[2] + min[2] : blue[x];
      }
    });
  });
}

void CImgFilterMisc::FalseColorCut(int red, int green, int blue, double tolerance, double strength,
                                   CVelImage* src, CRect* rect, int show) {
  if (!HaveColours(*this, *src)) return;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, Fringe, kColours * std::max(window.Height(), 0));
  if (window.IsEmpty()) return;
  const double greenShare = red > 0 ? static_cast<double>(green) / red : NAN;
  const double blueShare = red > 0 ? static_cast<double>(blue) / red : NAN;
  const int wrong = red > green && red > blue ? 0 : blue > green ? 2 : 1;
  ForColourLines(*this, *src, window, [&](int columns, const float* const* in, float* const* out) {
    for (int p = 0; p < kColours; ++p) {
      if (p != wrong) std::copy_n(in[p], columns, out[p]);
    }
    const float *r = in[0], *g = in[1], *b = in[2];
    const float *made = in[wrong], *one = in[(wrong + 1) % kColours], *other = in[(wrong + 2) % kColours];
    float* to = out[wrong];
    RunInLongVectors([=]() KORIMG_IN_LOOP {
      for (int x = 0; x < columns; ++x) {
        const double g1 = static_cast<double>(g[x]) / r[x], b1 = static_cast<double>(b[x]) / r[x];
        // A pixel without red has no finite share, and 0 / 0 is within no band.
        const bool matches = std::abs(g1 - greenShare) <= tolerance * greenShare &&
                             std::abs(b1 - blueShare) <= tolerance * blueShare;
        const double mean = (static_cast<double>(one[x]) + other[x]) * 0.5;
        to[x] = matches ? static_cast<float>((1.0 - strength) * made[x] + strength * mean) : made[x];
      }
    });
  });
}
