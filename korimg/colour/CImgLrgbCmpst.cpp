#include "korimg/colour/CImgLrgbCmpst.h"

#include <algorithm>

#include "korimg/colour/internal/Channels.h"
#include "korimg/colour/internal/LabRows.h"

using namespace korimg;

namespace {

/// Colours or Lab of a part of a line, which lie in the first-level cache together.
struct Colours {
  int count;
  double planes[3][kColourChunk];

  explicit Colours(int count) : count(count) {}  // NOLINT: all of it is written

  template <class F>
  void Convert(const F& convert) {
    convert(planes[0], planes[1], planes[2], count);
  }
  /// Replaces each value by map(value).
  template <class F>
  void Map(const F& map) {
    for (auto& plane : planes) {
      std::transform(plane, plane + count, plane, map);
    }
  }
};

/// A value from 0 to 255 as a share of white, limited to what Lab is made of; NaN stays.
double ShareOfWhite(double v) {
  const double high = v > 5000 ? 5000 : v;
  return (high < 0 ? 0 : high) * (1 / 255.0);
}

/// Fills a part of a line with an image's colours from 0 to 255, 0 where it has none.
void ReadColours(const Channel& from, int useImageCentre, double scale, int left, int y, Colours& line) {
  CVelImage& image = *from.image;
  const int width = line.count;
  if (CInterp::FormOf(from.dx, from.dy, from.degrees) != CInterp::WholeShift || scale != 1) {
    const double sine = from.Sine(), cosine = from.Cosine();
    for (int x = 0; x < width; ++x) {
      image.GetPixelRgb256f(left + x, y, from.dx, from.dy, sine, cosine, useImageCentre, scale,
                            &line.planes[0][x], &line.planes[1][x], &line.planes[2][x], 0.0, nullptr, nullptr,
                            nullptr);
    }
    return;
  }
  const double first = left - from.dx, row = y - from.dy;  // whole numbers
  const int begin = static_cast<int>(std::clamp<double>(-first, 0, width)),
            end = static_cast<int>(std::clamp<double>(image.GetWidth() - first, begin, width));
  for (int p = 0; p < 3; ++p) {
    double* const out = line.planes[p];
    std::fill_n(out, width, 0.0);
    if (!(row >= 0 && row < image.GetHeight()) || begin == end) continue;
    const int plane = from.Plane(p);
    const float* in = image.GetLine(static_cast<int>(first + begin), static_cast<int>(row), plane);
    const double min = image.GetLevelMin(plane), range = image.GetLevelRange(plane);
    for (int x = begin; x < end; ++x) {
      out[x] = static_cast<float>((in[x - begin] - min) / range * 255.0);
    }
  }
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
  if (window.IsEmpty()) return;
  ForLines(Team::All, window.top, window.bottom, [&](int y) {
    for (int left = window.left; left < window.right; left += kColourChunk) {
      Colours line(std::min(kColourChunk, window.right - left));
      colours(left, y, line);
      for (int p = 0; p < 3; ++p) {
        std::transform(line.planes[p], line.planes[p] + line.count, GetWritableLine(left, y, p),
                       [levelMin = GetLevelMin(p), range = GetLevelRange(p)](double v) {
                         return static_cast<float>(static_cast<float>(v) / 255.0 * range + levelMin);
                       });
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
  WriteColours(*luminance, rect, show && !mix, [&](int left, int y, Colours& line) {
    Colours first(line.count);
    ReadColours(sources[0], useImageCentre, 1.0, left, y, first);
    ReadColours(sources[1], useImageCentre, scale, left, y, line);
    if (mix) {
      for (int p = 0; p < 3; ++p) {
        std::transform(
            first.planes[p], first.planes[p] + line.count, line.planes[p], line.planes[p],
            [=](double a, double b) {
              const double difference = std::abs(a - b);
              return operation == 1 ? difference : operation == 2 ? 255.0 - difference : (a + b) * 0.5;
            });
      }
      return;
    }
    first.Map(ShareOfWhite);
    line.Map(ShareOfWhite);
    first.Convert(RgbToL);
    line.Convert(RgbToLab);
    std::copy_n(first.planes[0], line.count, line.planes[0]);
    line.Convert(LabToRgb);
    line.Map([](double v) { return v * 255; });
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
    for (int x = 0; x < line.count; ++x) {
      line.planes[0][x] = readers[0].GetPixelL(left + x, y);
      readers[1].GetPixelAb(left + x, y, &line.planes[1][x], &line.planes[2][x]);
    }
    line.Convert(LabToRgb);
    line.Map([](double v) { return v * 255; });
  });
}
