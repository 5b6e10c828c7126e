// Hot and cold pixels of an undeveloped mosaic.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <limits>
#include <utility>
#include <vector>

#include "korimg/filters/CImgFilterMisc.h"
#include "korimg/image/internal/Frame.h"

using namespace korimg;

namespace {

constexpr int kReach = 6;  ///< columns and rows that decide about a pixel, to each side

/// Which colour lies where, by the number of a colour filter array.
struct ColourArray {
  int cfa;

  bool IsKnown() const { return (cfa >= 1 && cfa <= 4) || (cfa >= 11 && cfa <= 14); }
  bool IsHoneycomb() const { return cfa >= 11; }
  /// A honeycomb's sites are the squares of one colour of a chessboard.
  bool IsSite(int x, int y) const { return !IsHoneycomb() || (x + y) % 2 == 0; }
  bool IsGreen(int x, int y) const { return IsHoneycomb() ? y % 2 == (cfa < 13) : (x + y) % 2 == cfa % 2; }
  /// The column or row that is read for number i of n, beyond the edges too, and has the same colour: Bayer's
  /// array mirrors about the edge, a honeycomb repeats by its period.
  int Inside(int i, int n) const {
    constexpr int kPeriod = 4;
    if (i >= 0 && i < n) return i;
    const int mirrored = i < 0 ? -i : 2 * n - 2 - i;
    const int repeated = i < 0 ? kPeriod - 1 - (-i - 1) % kPeriod : n - kPeriod + (i - n) % kPeriod;
    return std::clamp(IsHoneycomb() ? repeated : mirrored, 0, n - 1);
  }
};

/// Offsets of four pixels of one colour about another.
using Four = std::array<std::ptrdiff_t, 4>;

/// Their values, ascending.
std::array<float, 4> Ascending(const float* pixel, const Four& four) {
  std::array<float, 4> v;
  std::transform(four.begin(), four.end(), v.begin(), [&](std::ptrdiff_t offset) { return pixel[offset]; });
  for (const auto& [i, j] : {std::pair(0, 1), {2, 3}, {0, 2}, {1, 3}, {1, 2}}) {
    const float low = std::min(v[i], v[j]);
    v[j] = std::max(v[i], v[j]);
    v[i] = low;
  }
  return v;
}

/// A window of a mosaic and the pixels that decide about it. NaN is infinite.
class Surroundings {
 public:
  Surroundings(CVelImage& src, const ColourArray& array, const Window& window)
      : array_(array),
        width_(src.GetWidth()),
        height_(src.GetHeight()),
        pitch_(window.Width() + 2 * kReach),
        pixels_(static_cast<size_t>(window.Height() + 2 * kReach) * pitch_) {
    float* to = pixels_.data();
    for (int y = window.top - kReach; y < window.bottom + kReach; ++y) {
      const float* from = src.GetLine(0, array.Inside(y, src.GetHeight()), 0);
      const int first = window.left - kReach, end = window.right + kReach, width = src.GetWidth();
      const int inner = std::max(first, 0), outer = std::min(end, width);
      for (int x = first; x < inner; ++x) {
        *to++ = Number(from[array.Inside(x, width)]);
      }
      for (int x = inner; x < outer; ++x) {
        *to++ = Number(from[x]);
      }
      for (int x = outer; x < end; ++x) {
        *to++ = Number(from[array.Inside(x, width)]);
      }
    }
    const auto cross = [this](int d) { return Four{-d * pitch_, -d, d, d * pitch_}; };
    const auto corners = [this](int d) {
      return Four{d * (-pitch_ - 1), d * (-pitch_ + 1), d * (pitch_ - 1), d * (pitch_ + 1)};
    };
    if (array.IsHoneycomb()) {
      green_ = cross(2);
      other_ = corners(2);
      any_ = corners(2);
    } else {
      green_ = corners(1);
      other_ = cross(2);
      any_ = cross(2);
    }
  }

  /// The first pixel of a row of the window, counted from its top.
  const float* Row(int row) const { return pixels_.data() + (kReach + row) * pitch_ + kReach; }
  /// The nearest four of the colour of the pixel at (x, y). Those that are the pixel itself, mirrored, give
  /// way to the ones across.
  Four Nearest(int x, int y) const {
    if (array_.IsGreen(x, y)) return green_;
    Four four = other_;
    if (array_.IsHoneycomb()) return four;
    auto& [up, left, right, down] = four;
    if (x == 1) left = 2;
    if (x == width_ - 2) right = -2;
    if (y == 1) up = 2 * pitch_;
    if (y == height_ - 2) down = -2 * pitch_;
    return four;
  }

  /// The pixel is no noise by those about it: see CompareArea.
  bool Follow(const float* pixel, int rings, float ratio) const {
    const Standing own = StandingOf(pixel);
    const bool rises = own.rise > own.fall;
    // In a single frame of undersampled stars, with a threshold of 12 times the noise, a quarter cut 714
    // pixels, an eighth 102, and this 4, two of which are hot in the next frame too.
    constexpr float kFollowing = 1.0f / 16;
    const float least = kFollowing * (rises ? own.rise : own.fall);
    for (int ring = 1; ring <= std::clamp(rings, 1, 2); ++ring) {
      int asked = 0, strays = 0;
      for (int dy = -ring; dy <= ring; ++dy) {
        for (int dx = -ring; dx <= ring; ++dx) {
          if (std::max(std::abs(dx), std::abs(dy)) != ring || !array_.IsSite(dx, dy)) continue;
          const Standing standing = StandingOf(pixel + dy * pitch_ + dx);
          ++asked;
          strays += (rises ? standing.rise : standing.fall) < least;
        }
      }
      if (static_cast<float>(strays) > ratio * static_cast<float>(asked)) return false;
    }
    return true;
  }

 private:
  static float Number(float v) { return v == v ? v : std::numeric_limits<float>::infinity(); }

  /// How far a pixel stands out from those of its colour.
  struct Standing {
    float rise, fall;
  };
  Standing StandingOf(const float* pixel) const {
    const auto v = Ascending(pixel, any_);
    return {*pixel - v[1], v[2] - *pixel};
  }

  ColourArray array_;
  int width_, height_;
  std::ptrdiff_t pitch_;
  std::vector<float> pixels_;
  Four green_, other_;  ///< the nearest of the colour of green pixels and of the others
  Four any_;            ///< four of the colour of any pixel
};

/// Cuts the hot and cold pixels of a mosaic.
struct MosaicCut {
  bool pairs, mean;
  float margin;
  int rings;
  float ratio;

  /// What becomes of a pixel by those about it.
  float operator()(const float* pixel, const Four& nearest, const Surroundings& around) const {
    // Whatever stands out from three of the four does so from one of the first two.
    const float one = pixel[nearest[0]], two = pixel[nearest[1]];
    if (!(*pixel > std::min(one, two) + margin || *pixel < std::max(one, two) - margin)) return *pixel;
    const auto v = Ascending(pixel, nearest);
    const float low = v[pairs] - margin, high = v[3 - pairs] + margin;
    const bool hot = *pixel > high, cold = *pixel < low;
    const float cut = mean ? 0.5f * (v[1] + v[2]) : hot ? v[3 - pairs] : v[pairs];
    if (!(hot || cold) || !(cut < std::numeric_limits<float>::infinity()) ||
        around.Follow(pixel, rings, ratio)) {
      return *pixel;
    }
    const bool followed = std::any_of(nearest.begin(), nearest.end(), [&](std::ptrdiff_t offset) {
      const float* other = pixel + offset;
      return (hot ? *other > high : *other < low) && around.Follow(other, rings, ratio);
    });
    return followed ? *pixel : cut;
  }
};

}  // namespace

void CImgFilterMisc::CFANoiseCut(int mode, int cfa, double threshold, int pattern, double ratio,
                                 CVelImage* src, CRect* rect, int) {
  const ColourArray array{cfa};
  if (!Fits(*src, *this) || src->GetPlanes() != 1 || !array.IsKnown() || mode < 1 || mode > 4) return;
  const Window window(*this, rect);
  const auto margin = static_cast<float>(threshold / 255.0 * GetLevelRange(0));
  const auto most = static_cast<float>(ratio);
  if (MayRunPipelines(*this, *src)) {
    const auto run = array.IsHoneycomb() ? cfa_noisecut_honeycomb_float : cfa_noisecut_bayer_float;
    RunIntoWindow(*this, 0, window, [&](halide_buffer_t* out) {
      return run(PlaneBuffer(*src, 0), mode, cfa, margin, pattern, most, out);
    });
    return;
  }
  if (window.IsEmpty()) return;
  constexpr int kRows = 16;  // of a band, which share the rows that decide about them
  const MosaicCut cut{mode > 2, mode % 2 == 0, margin, pattern, most};
  ForLines(Team::All, 0, (window.Height() + kRows - 1) / kRows, [&](int number) {
    const int top = window.top + number * kRows;
    const Window band(window.left, top, window.right, std::min(top + kRows, window.bottom));
    const Surroundings around(*src, array, band);
    for (int y = band.top; y < band.bottom; ++y) {
      const float *in = src->GetLine(band.left, y, 0), *pixels = around.Row(y - band.top);
      float* out = GetWritableLine(band.left, y, 0);
      for (int i = 0; i < band.Width(); ++i) {
        const int x = band.left + i;
        const bool decided = array.IsSite(x, y) && in[i] == in[i];
        out[i] = decided ? cut(pixels + i, around.Nearest(x, y), around) : in[i];
      }
    }
  });
}

int CImgFilterMisc::CompareArea(CVelImage* target, CVelImage* src, int x, int y, int cfa, int rings,
                                double ratio) {
  if (!Fits(*src, *target) || x < 0 || y < 0 || x >= src->GetWidth() || y >= src->GetHeight()) return 0;
  const Surroundings around(*src, {cfa}, Window(x, y, x + 1, y + 1));
  return around.Follow(around.Row(0), rings, static_cast<float>(ratio));
}
