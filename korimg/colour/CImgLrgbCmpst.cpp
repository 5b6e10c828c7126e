#include "korimg/colour/CImgLrgbCmpst.h"

#include <algorithm>
#include <vector>

#include "korimg/colour/internal/Channels.h"
#include "korimg/colour/internal/LabRows.h"

using namespace korimg;

namespace {

/// A line of colours or of Lab.
struct ColourLine {
  std::vector<float> planes[3];

  explicit ColourLine(size_t width)
      : planes{std::vector<float>(width), std::vector<float>(width), std::vector<float>(width)} {}
  int Width() const { return static_cast<int>(planes[0].size()); }
};

/// A value from 0 to 255 as a share of white, limited to what Lab is made of; NaN stays.
KORIMG_IN_LOOP inline double ShareOfWhite(float v) {
  const float high = v > 5000 ? 5000 : v;
  return (high < 0 ? 0 : high) * (1 / 255.0);
}

/// Replaces lab(x) of each pixel of a line by its colour from 0 to 255.
template <class F>
void WriteRgb(ColourLine& line, const F& lab) {
  float *const r = line.planes[0].data(), *const g = line.planes[1].data(), *const b = line.planes[2].data();
  const int width = line.Width();
  RunInLongVectors([=]() KORIMG_IN_LOOP {
#pragma omp simd
    for (int x = 0; x < width; ++x) {
      const RgbColour colour = LabToRgb(lab(x));
      r[x] = static_cast<float>(colour.r * 255);
      g[x] = static_cast<float>(colour.g * 255);
      b[x] = static_cast<float>(colour.b * 255);
    }
  });
}

}  // namespace

template <class F>
void CImgLrgbCmpst::WriteColours(CVelImage& luminance, CRect* rect, int show, F&& colours) {
  constexpr int kComposing = 6103;
  const Window window(*this, rect);
  const double min = luminance.GetLevelMin(0), max = luminance.GetLevelMax(0);
  for (int p = 0; p < 3; ++p) {
    SetLevel(p, min, max);
  }
  const ProgressScope progress(*this, show, kComposing, window.Height());
  ForLines(Team::All, window.top, window.bottom, [&](int y) {
    ColourLine line(window.Width());
    colours(window.left, y, line);
    for (int p = 0; p < 3; ++p) {
      const double levelMin = GetLevelMin(p), range = GetLevelRange(p);
      float* out = GetWritableLine(window.left, y, p);
      for (int x = 0; x < line.Width(); ++x) {
        out[x] = static_cast<float>(line.planes[p][x] / 255.0 * range + levelMin);
      }
    }
    ShowProgress(1);
  });
}

void CImgLrgbCmpst::DoLrgb(CVelImage* luminance, double luminanceX, double luminanceY,
                           double luminanceDegrees, CVelImage* rgb, double rgbX, double rgbY,
                           double rgbDegrees, int useImageCentre, double scale, CRect* rect, int mix,
                           unsigned int operation, int show) {
  const Channel sources[] = {{luminance, luminanceX, luminanceY, luminanceDegrees},
                             {rgb, rgbX, rgbY, rgbDegrees}};
  const double sines[] = {sources[0].Sine(), sources[1].Sine()};
  const double cosines[] = {sources[0].Cosine(), sources[1].Cosine()};
  const auto read = [&](int i, int left, int y, ColourLine& line) {
    for (int x = 0; x < line.Width(); ++x) {
      double r, g, b;
      sources[i].image->GetPixelRgb256f(left + x, y, sources[i].dx, sources[i].dy, sines[i], cosines[i],
                                        useImageCentre, i == 0 ? 1.0 : scale, &r, &g, &b, 0.0, nullptr,
                                        nullptr, nullptr);
      line.planes[0][x] = static_cast<float>(r);
      line.planes[1][x] = static_cast<float>(g);
      line.planes[2][x] = static_cast<float>(b);
    }
  };
  WriteColours(*luminance, rect, show && !mix, [&](int left, int y, ColourLine& line) {
    ColourLine other(line.Width());
    read(0, left, y, line);
    read(1, left, y, other);
    if (mix) {
      for (int p = 0; p < 3; ++p) {
        std::ranges::transform(line.planes[p], other.planes[p], line.planes[p].begin(),
                               [=](double a, double b) {
                                 const double difference = std::abs(a - b);
                                 return static_cast<float>(operation == 1   ? difference
                                                           : operation == 2 ? 255.0 - difference
                                                                            : (a + b) * 0.5);
                               });
      }
      return;
    }
    const float *const r1 = line.planes[0].data(), *const g1 = line.planes[1].data(),
                       *const b1 = line.planes[2].data(), *const r2 = other.planes[0].data(),
                       *const g2 = other.planes[1].data(), *const b2 = other.planes[2].data();
    WriteRgb(line, [=](int x) KORIMG_IN_LOOP {
      const LabColour first = RgbToLab({ShareOfWhite(r1[x]), ShareOfWhite(g1[x]), ShareOfWhite(b1[x])}),
                      second = RgbToLab({ShareOfWhite(r2[x]), ShareOfWhite(g2[x]), ShareOfWhite(b2[x])});
      return LabColour{first.l, second.a, second.b};
    });
  });
}

void CImgLrgbCmpst::DoLab(CVelImage* luminance, double luminanceX, double luminanceY, double luminanceDegrees,
                          CVelImage* ab, double abX, double abY, double abDegrees, int method, double scale,
                          int useImageCentre, CRect* rect, int show) {
  const Channel sources[] = {{luminance, luminanceX, luminanceY, luminanceDegrees},
                             {ab, abX, abY, abDegrees}};
  CInterp readers[] = {CInterp(method), CInterp(method)};
  for (int i = 0; i < 2; ++i) {
    const Channel& from = sources[i];
    readers[i].SetBParam(from.image, from.dx, from.dy, from.Sine(), from.Cosine(), i == 0 ? 1.0 : scale,
                         useImageCentre, 0, 0.0f);
  }
  WriteColours(*luminance, rect, show, [&](int left, int y, ColourLine& line) {
    for (int x = 0; x < line.Width(); ++x) {
      double a, b;
      line.planes[0][x] = readers[0].GetPixelL(left + x, y);
      readers[1].GetPixelAb(left + x, y, &a, &b);
      line.planes[1][x] = static_cast<float>(a);
      line.planes[2][x] = static_cast<float>(b);
    }
    const float *const l = line.planes[0].data(), *const a = line.planes[1].data(),
                       *const b = line.planes[2].data();
    WriteRgb(line, [=](int x) KORIMG_IN_LOOP { return LabColour{l[x], a[x], b[x]}; });
  });
}
