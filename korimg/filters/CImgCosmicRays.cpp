#include "korimg/filters/CImgCosmicRays.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <utility>
#include <vector>

#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/Numbers.h"
#include "korimg/image/internal/Vectors.h"

using namespace korimg;

namespace {

using Options = CImgCosmicRays::Options;

constexpr int kHotPixels = 6164;  // a message

bool IsInRange(const Options& o) {
  return o.sigClip > 0 && o.sigFrac >= 0 && o.sigFrac <= 1 && o.objLim >= 0 && o.gain > 0 &&
         o.readNoise >= 0 && o.iterations >= 1 && o.result >= CImgCosmicRays::Cleaned &&
         o.result <= CImgCosmicRays::Mask;
}

template <std::size_t N>
float MedianOf(std::array<float, N>& values) {
  std::nth_element(values.begin(), values.begin() + N / 2, values.end());
  return values[N / 2];
}

/// A plane's pixels with a margin of repeated ones, and what is known of each.
class HitPlane {
 public:
  HitPlane(CVelImage& image, int plane, const Options& options)
      : options_(options),
        width_(image.GetWidth()),
        height_(image.GetHeight()),
        pitch_(width_ + 2 * kMargin),
        pixels_(static_cast<std::size_t>(pitch_) * (height_ + 2 * kMargin)),
        states_(static_cast<std::size_t>(width_) * height_),
        light_(static_cast<float>(1 / options.gain)),
        readout_(static_cast<float>(std::max(std::pow(options.readNoise / options.gain, 2), kLeastVariance))),
        sigClip_(static_cast<float>(options.sigClip)) {
    Load(image, plane);
  }

  /// Marks and mends all hits; `step` is called for each line that was looked at.
  template <class Step>
  void Find(Step&& step) {
    Columns candidates = MapLines(0, height_, [&](int y) {
      auto columns = Sharp(y);
      step();
      return columns;
    });
    for (int i = 0; i < options_.iterations; ++i) {
      Columns hits = MapLines(0, height_, [&](int y) {
        std::vector<int> columns = std::move(candidates[y]);
        std::erase_if(columns, [&](int x) { return !IsHit(x, y); });
        return columns;
      });
      hits = Grown(hits, sigClip_);
      hits = Grown(hits, sigClip_ * static_cast<float>(options_.sigFrac));
      bool isMore = false;
      ForHits(hits, [&](int x, int y) {
        isMore |= !IsMarked(x, y);
        StateAt(x, y) |= kHit;
      });
      // Those of before too, which may have become what is known as a hit now.
      ForHits(hits, [&](int x, int y) { At(x, y) = Mended(x, y); });
      if (!isMore) return;
      FillMargin();
      candidates = Around(hits);
    }
  }

  bool IsMarked(int x, int y) const { return states_[Index(x, y)] & kHit; }
  const float* Line(int y) const { return &At(0, y); }

 private:
  using Columns = std::vector<std::vector<int>>;  ///< by rows
  enum State : std::uint8_t { kHit = 1, kBlank = 2 };

  /// What decides on a pixel reaches so far: the median of 5 x 5 of edges by medians of 5 x 5, and that of
  /// 7 x 7 of medians of 3 x 3.
  static constexpr int kMargin = 4;
  static constexpr double kLeastVariance = 1e-12;  ///< against division by 0
  static constexpr float kLeastStructure = 0.01f;  ///< so too, as in van Dokkum's program (2001)

  std::size_t Index(int x, int y) const { return static_cast<std::size_t>(y) * width_ + x; }
  std::uint8_t& StateAt(int x, int y) { return states_[Index(x, y)]; }
  const float& At(int x, int y) const {
    return pixels_[static_cast<std::size_t>(y + kMargin) * pitch_ + x + kMargin];
  }
  float& At(int x, int y) { return const_cast<float&>(std::as_const(*this).At(x, y)); }

  template <class F>
  static void ForHits(const Columns& hits, F&& visit) {
    for (int y = 0; y < static_cast<int>(hits.size()); ++y) {
      for (const int x : hits[y]) {
        visit(x, y);
      }
    }
  }

  void Load(CVelImage& image, int plane) {
    std::vector<char> isEmpty(height_);
    ForLines(Team::All, 0, height_, [&](int y) {
      const float* line = image.GetLine(0, y, plane);
      std::copy_n(line, width_, &At(0, y));
      isEmpty[y] = !FillBlanks(y);
    });
    // Lines without numbers are as the nearest one above that has some, or below where there is none.
    const auto full = std::find(isEmpty.begin(), isEmpty.end(), 0);
    if (full == isEmpty.end()) {
      std::fill(pixels_.begin(), pixels_.end(), 0.0f);
      return;
    }
    int like = static_cast<int>(full - isEmpty.begin());
    for (int y = 0; y < height_; ++y) {
      if (!isEmpty[y]) like = y;
      if (isEmpty[y]) std::copy_n(&At(0, like), width_, &At(0, y));
    }
    FillMargin();
  }

  /// Gives blank pixels the number of their nearest neighbour in the row, the left one of two. False where
  /// there are no numbers.
  bool FillBlanks(int y) {
    float* line = &At(0, y);
    int last = -1;
    for (int x = 0; x <= width_; ++x) {
      if (x < width_ && !std::isfinite(line[x])) {
        StateAt(x, y) = kBlank;
        continue;
      }
      if (x == width_ && last < 0) return false;
      for (int blank = last + 1; blank < x; ++blank) {
        const bool isLeft = x == width_ || (last >= 0 && blank - last <= x - blank);
        line[blank] = line[isLeft ? last : x];
      }
      last = x;
    }
    return true;
  }

  void FillMargin() {
    for (int y = 0; y < height_; ++y) {
      std::fill_n(&At(-kMargin, y), kMargin, At(0, y));
      std::fill_n(&At(width_, y), kMargin, At(width_ - 1, y));
    }
    for (int i = 1; i <= kMargin; ++i) {
      std::copy_n(&At(-kMargin, 0), pitch_, &At(-kMargin, -i));
      std::copy_n(&At(-kMargin, height_ - 1), pitch_, &At(-kMargin, height_ - 1 + i));
    }
  }

  /// The Laplacian of a pixel's quarters, limited and averaged.
  KORIMG_IN_LOOP static float Edge(float v, float left, float right, float up, float down) {
    const auto part = [v](float a, float b) KORIMG_IN_LOOP {
      const float curve = v + v - a - b;
      return curve > 0.0f ? curve : 0.0f;
    };
    return 0.25f * ((part(left, up) + part(left, down)) + (part(right, up) + part(right, down)));
  }
  float EdgeAt(int x, int y) const {
    return Edge(At(x, y), At(x - 1, y), At(x + 1, y), At(x, y - 1), At(x, y + 1));
  }

  /// Pixels of a line whose edge may be significant: it is so by the noise of the darkest of 5 x 5 pixels,
  /// which is no more than that of the median.
  std::vector<int> Sharp(int y) const {
    thread_local std::vector<float> lowest, excess;
    lowest.resize(pitch_);
    excess.resize(width_);
    const float *middle = &At(0, y), *above = &At(0, y - 1), *below = &At(0, y + 1),
                *top = &At(-kMargin, y - 2);
    float *low = lowest.data(), *over = excess.data();
    const float limit = 4 * sigClip_ * sigClip_;
    RunInLongVectors([=, this, width = width_, pitch = pitch_]() KORIMG_IN_LOOP {
      const auto lower = [](float a, float b) KORIMG_IN_LOOP { return a < b ? a : b; };
      for (int x = 0; x < pitch; ++x) {
        const float* v = top + x;
        low[x] = lower(lower(lower(v[0], v[pitch]), lower(v[2 * pitch], v[3 * pitch])), v[4 * pitch]);
      }
      for (int x = 0; x < width; ++x) {
        const float* v = low + x + kMargin;
        const float least = lower(lower(lower(v[-2], v[-1]), lower(v[0], v[1])), v[2]);
        const float edge = Edge(middle[x], middle[x - 1], middle[x + 1], above[x], below[x]);
        over[x] = edge * edge - limit * VarianceOf(least);
      }
    });
    std::vector<int> columns;
    for (int x = 0; x < width_; ++x) {
      if (excess[x] > 0) columns.push_back(x);
    }
    return columns;
  }

  KORIMG_IN_LOOP float VarianceOf(float level) const {
    return (level > 0.0f ? level : 0.0f) * light_ + readout_;
  }

  template <int R, class F>
  static float MedianAbout(int x, int y, F&& value) {
    std::array<float, (2 * R + 1) * (2 * R + 1)> values;
    auto* next = values.data();
    for (int j = y - R; j <= y + R; ++j) {
      for (int i = x - R; i <= x + R; ++i) {
        *next++ = value(i, j);
      }
    }
    return MedianOf(values);
  }
  template <int R>
  float MedianAbout(int x, int y) const {
    return MedianAbout<R>(x, y, [this](int i, int j) { return At(i, j); });
  }

  float NoiseAt(int x, int y) const { return std::sqrt(VarianceOf(MedianAbout<2>(x, y))); }
  /// S.
  float SignificanceAt(int x, int y) const {
    const float edge = EdgeAt(x, y);
    return edge > 0 ? edge / (2 * NoiseAt(x, y)) : 0;
  }
  /// S'.
  float ContrastAt(int x, int y, float significance) const {
    return significance - MedianAbout<2>(x, y, [this](int i, int j) { return SignificanceAt(i, j); });
  }

  bool IsHit(int x, int y) const {
    const float noise = NoiseAt(x, y), significance = EdgeAt(x, y) / (2 * noise);
    if (!(significance > sigClip_)) return false;
    const auto middle = [this](int i, int j) { return MedianAbout<1>(i, j); };
    const float structure = (middle(x, y) - MedianAbout<3>(x, y, middle)) / noise,
                least = std::max(sigClip_,
                                 static_cast<float>(options_.objLim) * std::max(structure, kLeastStructure));
    return significance > least && ContrastAt(x, y, significance) > least;
  }

  /// The columns of row y that lie up to `reach` pixels from a hit.
  std::vector<int> About(const Columns& hits, int y, int reach) const {
    std::vector<int> columns;
    for (int j = std::max(y - reach, 0); j <= std::min(y + reach, height_ - 1); ++j) {
      for (const int hit : hits[j]) {
        for (int x = std::max(hit - reach, 0); x <= std::min(hit + reach, width_ - 1); ++x) {
          columns.push_back(x);
        }
      }
    }
    std::sort(columns.begin(), columns.end());
    columns.erase(std::unique(columns.begin(), columns.end()), columns.end());
    return columns;
  }

  /// The hits and those of their neighbours with S' above a limit.
  Columns Grown(const Columns& hits, float limit) const {
    return MapLines(0, height_, [&](int y) {
      std::vector<int> columns = About(hits, y, 1);
      std::erase_if(columns, [&](int x) {
        if (std::binary_search(hits[y].begin(), hits[y].end(), x)) return false;
        const float significance = SignificanceAt(x, y);
        return !(significance > limit && ContrastAt(x, y, significance) > limit);
      });
      return columns;
    });
  }

  /// The pixels that hits have a part in the test of.
  Columns Around(const Columns& hits) const {
    return MapLines(0, height_, [&](int y) { return About(hits, y, kMargin); });
  }

  float Mended(int x, int y) const {
    std::vector<float> good;
    for (int r = 2; good.empty() && r <= std::max(width_, height_); ++r) {
      for (int j = std::max(y - r, 0); j <= std::min(y + r, height_ - 1); ++j) {
        for (int i = std::max(x - r, 0); i <= std::min(x + r, width_ - 1); ++i) {
          if (states_[Index(i, j)] == 0) good.push_back(At(i, j));
        }
      }
    }
    return UpperMedian(good, At(x, y));
  }

  const Options& options_;
  int width_, height_, pitch_;
  std::vector<float> pixels_;
  std::vector<std::uint8_t> states_;
  float light_, readout_, sigClip_;  ///< variance of a raw value of light, and that of the readout
};

}  // namespace

long long CImgCosmicRays::Do(const Options& options, CVelImage* src, CRect* rect, int show) {
  if (!IsInRange(options) || !Fits(*src, *this)) return -1;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, kHotPixels, GetPlanes() * GetHeight());
  long long count = 0;
  for (int p = 0; p < GetPlanes(); ++p) {
    HitPlane plane(*src, p, options);
    plane.Find([this] { ShowProgress(1); });
    if (options.result == Mask) SetLevel(p, 0, 1);
    for (const long long hits : MapLines(0, GetHeight(), [&](int y) {
           float* out = GetWritableLine(0, y, p);
           if (options.result == Mask) std::fill_n(out, GetWidth(), 0.0f);
           if (y < window.top || y >= window.bottom) return 0LL;
           if (options.result == Cleaned) {
             std::copy_n(src->GetLine(window.left, y, p), window.Width(), out + window.left);
           }
           long long line = 0;
           for (int x = window.left; x < window.right; ++x) {
             if (!plane.IsMarked(x, y)) continue;
             out[x] = options.result == Mask ? 1.0f : plane.Line(y)[x];
             ++line;
           }
           return line;
         })) {
      count += hits;
    }
  }
  return count;
}
