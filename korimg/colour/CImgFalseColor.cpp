#include "korimg/colour/CImgFalseColor.h"

#include <array>
#include <cmath>
#include <vector>

#include "korimg/image/internal/Frame.h"
#include "korimg/levels/internal/Brightness.h"

using namespace korimg;

namespace {

using Colour = std::array<float, 3>;

/// Colours at equal distances from 0 to 255. Between two stops, the share of the second one is the distance
/// from the first times the slope.
struct Palette {
  double step, slope;
  std::vector<Colour> stops;

  Palette(std::vector<Colour> colours, double slope)
      : step(255.0 / static_cast<double>(colours.size() - 1)), slope(slope), stops(std::move(colours)) {}
  explicit Palette(const std::vector<Colour>& colours)
      : Palette(colours, static_cast<double>(colours.size() - 1) / 255.0) {}

  /// v from 0 to 255.
  Colour At(double v) const {
    const auto n = static_cast<size_t>(v / step);
    if (n + 1 >= stops.size()) return stops.back();
    const auto share = static_cast<float>((v - static_cast<double>(n) * step) * slope);
    Colour colour;
    for (int p = 0; p < 3; ++p) {
      colour[p] = stops[n][p] * (1 - share) + stops[n + 1][p] * share;
    }
    return colour;
  }
};

/// 256 colours of whole numbers: a smooth curve through some of them (monotone where they are: Fritsch and
/// Butland 1984).
Palette Ramp(const std::vector<std::pair<int, Colour>>& through) {
  const int last = static_cast<int>(through.size()) - 1;
  const auto rise = [&](int n, int p) {
    return (through[n + 1].second[p] - through[n].second[p]) /
           static_cast<float>(through[n + 1].first - through[n].first);
  };
  const auto slope = [&](int n, int p) {
    if (n == 0 || n == last) return rise(n == 0 ? 0 : n - 1, p);
    const float before = rise(n - 1, p), after = rise(n, p);
    return before * after > 0 ? 2 * before * after / (before + after) : 0;
  };
  std::vector<Colour> colours(256);
  for (int n = 0; n < last; ++n) {
    const auto& [begin, from] = through[n];
    const auto& [end, to] = through[n + 1];
    for (int i = begin; i <= end; ++i) {
      const auto width = static_cast<float>(end - begin), t = static_cast<float>(i - begin) / width;
      for (int p = 0; p < 3; ++p) {
        colours[i][p] = std::round((1 + 2 * t) * (1 - t) * (1 - t) * from[p] + t * t * (3 - 2 * t) * to[p] +
                                   width * t * (1 - t) * ((1 - t) * slope(n, p) - t * slope(n + 1, p)));
      }
    }
  }
  return Palette(colours);
}

/// Null for a number that is none's.
const Palette* FindPalette(int number) {
  static const std::array<Palette, 6> palettes = {
      Palette({{0, 0, 255}, {0, 255, 255}, {0, 255, 0}, {255, 255, 0}, {255, 0, 0}}),
      Palette(
          {{0, 0, 0}, {0, 0, 255}, {0, 255, 255}, {0, 255, 0}, {255, 255, 0}, {255, 0, 0}, {255, 255, 255}},
          1.0 / 64),  // not 1 / 42.5: people know its jumps
      Palette({{0, 0, 0}, {0, 0, 128}, {0, 0, 255}, {128, 128, 255}, {255, 255, 255}}),
      Ramp({{0, {0, 0, 0}},
            {42, {0, 33, 45}},
            {85, {0, 86, 109}},
            {128, {21, 143, 168}},
            {170, {94, 193, 209}},
            {255, {246, 252, 252}}}),
      Ramp({{0, {0, 0, 0}},
            {42, {63, 0, 0}},
            {85, {143, 7, 0}},
            {128, {202, 46, 23}},
            {170, {230, 123, 98}},
            {255, {253, 249, 248}}}),
      Palette({{0, 0, 0}, {255, 0, 0}, {255, 255, 0}, {255, 255, 255}}),  // a stop each 85
  };
  return number >= 0 && number < static_cast<int>(palettes.size()) ? &palettes[number] : nullptr;
}

/// Limited to 0 and 255; NaN is 0.
double Limited(double v) {
  return v > 255 ? 255 : v > 0 ? v : 0;
}

Colour ColourOf(double value, const Palette* palette, int cycles) {
  double v = Limited(value);
  if (cycles > 0) {
    const double turned = v * cycles;
    v = Limited(turned - 256 * std::floor(turned / 256));
  }
  if (palette) return palette->At(v);
  const auto grey = static_cast<float>(v);
  return {grey, grey, grey};
}

}  // namespace

void CImgFalseColor::Do(double low, double high, int palette, int cycles, CVelImage* src, CRect* rect,
                        int show) {
  if (IsEmpty() || GetPlanes() < 3 || src->IsEmpty() || !SameSize(*src, *this)) return;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, 6117, window.Height());
  const double low256 = src->To256(low, 0), scale256 = 255.0 / (src->To256(high, 0) - low256);
  const double k = std::isfinite(scale256) ? scale256 : 0;
  const Palette* const colours = FindPalette(palette);
  float scale[3], min[3];
  for (int p = 0; p < 3; ++p) {
    scale[p] = static_cast<float>(GetLevelRange(p) / 255.0);
    min[p] = static_cast<float>(GetLevelMin(p));
  }
  const auto paint = [&](int y, const auto& value256) {
    float *r = GetWritableLine(window.left, y, 0), *g = GetWritableLine(window.left, y, 1),
          *b = GetWritableLine(window.left, y, 2);
    for (int x = 0; x < window.Width(); ++x) {
      const Colour colour = ColourOf((value256(x) - low256) * k, colours, cycles);
      r[x] = colour[0] * scale[0] + min[0];
      g[x] = colour[1] * scale[1] + min[1];
      b[x] = colour[2] * scale[2] + min[2];
    }
    ShowProgress(1);
  };
  if (src->GetPlanes() < 3) {
    ForLines(Team::All, window.top, window.bottom, [&](int y) {
      paint(y, [&, in = src->GetLine(window.left, y, 0)](int x) { return src->GetPixelGray256f(in + x, 0); });
    });
    return;
  }
  const Brightness256 brightness(*src);
  ForLines(Team::All, window.top, window.bottom, [&](int y) {
    const ColourLine line(*src, window.left, y);
    paint(y, [&](int x) { return brightness(line, x); });
  });
}

void CImgFalseColor::GetFalseColor(float value, int palette, int cycles, float* r, float* g, float* b) {
  const Colour colour = ColourOf(value, FindPalette(palette), cycles);
  *r = colour[0];
  *g = colour[1];
  *b = colour[2];
}
