// Hot and cold pixels of an undeveloped mosaic.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <limits>
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

/// The pixels that decide about columns left to right - 1 of row y. NaN is infinite.
class Surroundings {
 public:
  Surroundings(CVelImage& src, const ColourArray& array, int left, int right, int y)
      : array_(array), pitch_(right - left + 2 * kReach) {
    pixels_.reserve(static_cast<size_t>(2 * kReach + 1) * pitch_);
    for (int row = y - kReach; row <= y + kReach; ++row) {
      const float* from = src.GetLine(0, array.Inside(row, src.GetHeight()), 0);
      for (int x = left - kReach; x < right + kReach; ++x) {
        const float pixel = from[array.Inside(x, src.GetWidth())];
        pixels_.push_back(pixel != pixel ? std::numeric_limits<float>::infinity() : pixel);
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

  /// The pixel `column` columns right of the left one.
  const float* At(int column) const { return pixels_.data() + kReach * (pitch_ + 1) + column; }
  /// The nearest four of its colour.
  const Four& Nearest(bool green) const { return green ? green_ : other_; }

  /// The pixel is no noise by those about it: see CompareArea.
  bool Follow(const float* pixel, int rings, float ratio) const {
    const Standing own = StandingOf(pixel);
    const bool rises = own.rise > own.fall;
    const float least = 0.25f * (rises ? own.rise : own.fall);
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
  /// How far a pixel stands out from those of its colour.
  struct Standing {
    float rise, fall;
  };
  Standing StandingOf(const float* pixel) const {
    const auto v = Ascending(pixel, any_);
    return {*pixel - v[1], v[2] - *pixel};
  }

  ColourArray array_;
  std::ptrdiff_t pitch_;
  std::vector<float> pixels_;
  Four green_, other_;  ///< the nearest of the colour of green pixels and of the others
  Four any_;            ///< four of the colour of any pixel
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
  ForPlaneLines(*this, window, Team::All, [&](int p, int y) {
    const Surroundings around(*src, array, window.left, window.right, y);
    const float* in = src->GetLine(window.left, y, p);
    float* out = GetWritableLine(window.left, y, p);
    const bool pairs = mode > 2, mean = mode % 2 == 0;
    for (int i = 0; i < window.Width(); ++i) {
      const int x = window.left + i;
      const float* pixel = around.At(i);
      out[i] = in[i];
      if (!array.IsSite(x, y) || in[i] != in[i]) continue;
      const Four& nearest = around.Nearest(array.IsGreen(x, y));
      const auto v = Ascending(pixel, nearest);
      const float low = v[pairs] - margin, high = v[3 - pairs] + margin;
      const bool hot = *pixel > high;
      if (!hot && !(*pixel < low)) continue;
      const float cut = mean ? 0.5f * (v[1] + v[2]) : hot ? v[3 - pairs] : v[pairs];
      if (!(cut < std::numeric_limits<float>::infinity())) continue;
      bool noise = !around.Follow(pixel, pattern, most);
      for (const std::ptrdiff_t offset : nearest) {
        const float* other = pixel + offset;
        const bool too = hot ? *other > high : *other < low;
        if (too) noise = noise && !around.Follow(other, pattern, most);
      }
      if (noise) out[i] = cut;
    }
  });
}

int CImgFilterMisc::CompareArea(CVelImage* target, CVelImage* src, int x, int y, int cfa, int rings,
                                double ratio) {
  if (!Fits(*src, *target) || x < 0 || y < 0 || x >= src->GetWidth() || y >= src->GetHeight()) return 0;
  const Surroundings around(*src, {cfa}, x, x + 1, y);
  return around.Follow(around.At(0), rings, static_cast<float>(ratio));
}
