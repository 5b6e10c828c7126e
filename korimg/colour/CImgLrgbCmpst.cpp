#include "korimg/colour/CImgLrgbCmpst.h"

#include "korimg/colour/CColor.h"
#include "korimg/colour/internal/Channels.h"

using namespace korimg;

namespace {

/// Limits a colour to what Lab is made of; NaN stays.
double Limited(double v) {
  return v < 0 ? 0 : v > 5000 ? 5000 : v;
}

/// A colour from 0 to 1 on the scale of 255, as it is kept.
float Of255(double colour) {
  return static_cast<float>(colour * 255);
}

}  // namespace

/// One line of colours.
using Colours = std::array<std::vector<float>, 3>;

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
    const size_t width = window.Width();
    Colours line = {std::vector<float>(width), std::vector<float>(width), std::vector<float>(width)};
    colours(window.left, y, line);
    for (int p = 0; p < 3; ++p) {
      const double levelMin = GetLevelMin(p), range = GetLevelRange(p);
      float* out = GetWritableLine(window.left, y, p);
      for (size_t i = 0; i < width; ++i) {
        out[i] = static_cast<float>(line[p][i] / 255.0 * range + levelMin);
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
  const auto read = [&](int i, int x, int y) {
    std::array<double, 3> c;
    sources[i].image->GetPixelRgb256f(x, y, sources[i].dx, sources[i].dy, sines[i], cosines[i],
                                      useImageCentre, i == 0 ? 1.0 : scale, &c[0], &c[1], &c[2], 0.0, nullptr,
                                      nullptr, nullptr);
    return c;
  };
  WriteColours(*luminance, rect, show && !mix, [&](int left, int y, Colours& line) {
    for (size_t i = 0; i < line[0].size(); ++i) {
      const int x = left + static_cast<int>(i);
      const auto a = read(0, x, y), b = read(1, x, y);
      if (mix) {
        for (int p = 0; p < 3; ++p) {
          const double difference = std::abs(a[p] - b[p]);
          line[p][i] = static_cast<float>(operation == 1   ? difference
                                          : operation == 2 ? 255.0 - difference
                                                           : (a[p] + b[p]) * 0.5);
        }
        continue;
      }
      CColor first, second;
      first.RgbToLab(Limited(a[0]) / 255, Limited(a[1]) / 255, Limited(a[2]) / 255);
      second.RgbToLab(Limited(b[0]) / 255, Limited(b[1]) / 255, Limited(b[2]) / 255);
      first.LabToRgb(first.GetL(), second.Geta(), second.Getb());
      line[0][i] = Of255(first.GetR());
      line[1][i] = Of255(first.GetG());
      line[2][i] = Of255(first.GetB());
    }
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
  WriteColours(*luminance, rect, show, [&](int left, int y, Colours& line) {
    for (size_t i = 0; i < line[0].size(); ++i) {
      const int x = left + static_cast<int>(i);
      double a, b;
      const double l = readers[0].GetPixelL(x, y);
      readers[1].GetPixelAb(x, y, &a, &b);
      CColor colour;
      colour.LabToRgb(l, a, b);
      line[0][i] = Of255(colour.GetR());
      line[1][i] = Of255(colour.GetG());
      line[2][i] = Of255(colour.GetB());
    }
  });
}
