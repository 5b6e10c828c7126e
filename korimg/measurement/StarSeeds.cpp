#include "korimg/measurement/internal/StarSeeds.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>

#include "korimg/image/internal/Lines.h"
#include "korimg/image/internal/Vectors.h"

namespace korimg {
namespace {

/// Half the size of the filter, and the deviation of its sum over noise of deviation 1: 1 4 6 4 1 each way.
constexpr int kReach = 2;
constexpr float kFilterNoise = 70;

/// Pixels around a maximum that are looked at for higher ground. Chosen.
constexpr int kBox = 24;
/// Lines that are smoothed together, chosen: many against the kBox lines beside them, few for caches.
constexpr int kBand = 384;

/// Light and heights beyond these are cut off, so that neither sums of light nor heights stop being numbers.
constexpr float kBrightest = 1e35f, kHighest = 1e38f;

float Limited(float v, float most) {
  return std::min(std::max(v, -most), most);
}

/// A line less its sky, filtered along x. What is not finite is sky.
void FilterLine(CVelImage& image, const SkyMesh& sky, int y, std::vector<float>& padded,
                std::vector<float>& level, float* out) {
  const int width = image.GetWidth();
  float *in = padded.data() + kReach, *under = level.data();
  ReadLight(image, 0, y, width, in);
  sky.Levels(0, y, width, under);
  RunInLongVectors([=]() KORIMG_IN_LOOP {
    for (int x = 0; x < width; ++x) {
      const float v = in[x];
      in[x] = v - v == 0 ? Limited(v - under[x], kBrightest) : 0.0f;
    }
    for (int x = 0; x < width; ++x) {
      out[x] = (in[x - 2] + in[x + 2]) + 4 * (in[x - 1] + in[x + 1]) + 6 * in[x];
    }
  });
}

/// Heights over the sky of lines top to bottom - 1, smoothed, in deviations. Beyond the edges there is sky.
void SmoothedHeights(CVelImage& image, const SkyMesh& sky, int top, int bottom, float* heights) {
  constexpr int kRows = 2 * kReach + 1;
  const int width = image.GetWidth();
  std::vector<float> padded(width + 2 * kReach), level(width), weight(width);
  std::vector<float> ring(static_cast<size_t>(kRows) * width);
  const auto rowOf = [&](int y) {
    return ring.data() + static_cast<size_t>((y - top + kRows) % kRows) * width;
  };
  for (int y = top - kReach; y < bottom + kReach; ++y) {
    if (y >= 0 && y < image.GetHeight()) {
      FilterLine(image, sky, y, padded, level, rowOf(y));
    } else {
      std::fill_n(rowOf(y), width, 0.0f);
    }
    const int middle = y - kReach;
    if (middle < top) continue;
    sky.Weights(0, middle, width, weight.data());
    const float *a = rowOf(middle - 2), *b = rowOf(middle - 1), *c = rowOf(middle), *d = rowOf(middle + 1),
                *e = rowOf(y), *w = weight.data();
    float* out = heights + static_cast<size_t>(middle - top) * width;
    RunInLongVectors([=]() KORIMG_IN_LOOP {
      for (int x = 0; x < width; ++x) {
        out[x] =
            Limited(((a[x] + e[x]) + 4 * (b[x] + d[x]) + 6 * c[x]) * (w[x] * (1 / kFilterNoise)), kHighest);
      }
    });
  }
}

/// The deviation of heights below their median, from lines all over the image: 1 for noise that differs from
/// pixel to pixel, more for one that neighbours share, as after development or resampling.
double MeasureGrain(CVelImage& image, const SkyMesh& sky) {
  constexpr int kLines = 24, kStep = 3;  // chosen: 24000 pixels of a frame 3008 wide
  const int width = image.GetWidth(), height = image.GetHeight(), lines = std::min(kLines, height);
  const auto samples = MapLines(0, lines, [&](int i) {
    std::vector<float> line(width), some;
    const int y = static_cast<int>((i + 0.5) * height / lines);
    SmoothedHeights(image, sky, y, y + 1, line.data());
    for (int x = 0; x < width; x += kStep) {
      some.push_back(line[x]);
    }
    return some;
  });
  std::vector<float> all;
  for (const auto& some : samples) {
    all.insert(all.end(), some.begin(), some.end());
  }
  constexpr double kOneSigmaBelow = 0.158655;  // the share of a normal distribution that lies there
  const auto quantile = [&](double share) {
    const auto at = all.begin() + static_cast<long>(share * static_cast<double>(all.size() - 1));
    std::nth_element(all.begin(), at, all.end());
    return static_cast<double>(*at);
  };
  return std::max(quantile(0.5) - quantile(kOneSigmaBelow), 1.0);
}

/// Smoothed lines and what stands out on them.
class Band {
 public:
  Band(CVelImage& image, const SkyMesh& sky, int top, int bottom)
      : width_(image.GetWidth()),
        top_(std::max(top - kBox, 0)),
        bottom_(std::min(bottom + kBox, image.GetHeight())),
        heights_(static_cast<size_t>(bottom_ - top_) * width_) {
    SmoothedHeights(image, sky, top_, bottom_, heights_.data());
  }

  /// Appends the maxima of a line above `threshold` that stand out by `rise`.
  void FindSeeds(int y, float threshold, float rise, std::vector<StarSeed>& seeds) {
    if (y <= top_ || y >= bottom_ - 1 || width_ < 3) return;
    marks_.resize(width_);
    const float *row = Row(y), *up = Row(y - 1), *down = Row(y + 1);
    std::uint8_t* marks = marks_.data();
    // Most of the sky lies below the threshold: parts of eight vectors or so are passed over at once.
    constexpr int kPart = 64;
    for (int left = 1; left < width_ - 1; left += kPart) {
      const int right = std::min(left + kPart, width_ - 1);
      int above = 0;
      RunInLongVectors([=, &above]() KORIMG_IN_LOOP {
        int any = 0;
        for (int x = left; x < right; ++x) {
          any |= row[x] > threshold;
        }
        above = any;
      });
      if (!above) continue;
      RunInLongVectors([=]() KORIMG_IN_LOOP {
        for (int x = left; x < right; ++x) {
          const float v = row[x];
          marks[x] = (v > threshold) & (v > up[x - 1]) & (v > up[x]) & (v > up[x + 1]) & (v > row[x - 1]) &
                     (v >= row[x + 1]) & (v >= down[x - 1]) & (v >= down[x]) & (v >= down[x + 1]);
        }
      });
      for (int x = left; x < right; ++x) {
        StarSeed seed;
        if (marks[x] && StandsOut(x, y, rise, seed)) seeds.push_back(seed);
      }
    }
  }

 private:
  const float* Row(int y) const { return heights_.data() + static_cast<size_t>(y - top_) * width_; }

  /// Whether a maximum is the highest of the ground that joins it and is not much lower; the seed is that
  /// ground's middle. What spreads beyond the box is no star.
  bool StandsOut(int x0, int y0, float rise, StarSeed& seed) {
    constexpr int kSide = 2 * kBox + 1;
    const float height = Row(y0)[x0];
    const float floor = height - std::max(std::min(rise, 0.5f * height), 0.1f * height);
    seen_.fill(0);
    open_.clear();
    const auto visit = [&](int x, int y) {
      if (x < 0 || x >= width_ || y < top_ || y >= bottom_) return true;
      const int i = x - x0 + kBox, j = y - y0 + kBox;
      const float v = Row(y)[x];
      if (v <= floor) return true;
      if (i < 0 || j < 0 || i >= kSide || j >= kSide) return false;
      if (seen_[j * kSide + i]) return true;
      seen_[j * kSide + i] = 1;
      open_.push_back({x, y});
      return v < height || (v == height && (y > y0 || (y == y0 && x >= x0)));
    };
    visit(x0, y0);
    double sum = 0, sumX = 0, sumY = 0;
    for (size_t next = 0; next < open_.size(); ++next) {
      const auto [x, y] = open_[next];
      const double w = Row(y)[x] - floor;
      sum += w;
      sumX += w * (x - x0);
      sumY += w * (y - y0);
      for (int dy = -1; dy <= 1; ++dy) {
        for (int dx = -1; dx <= 1; ++dx) {
          if (!visit(x + dx, y + dy)) return false;
        }
      }
    }
    seed = {x0 + sumX / sum, y0 + sumY / sum};
    return true;
  }

  int width_, top_, bottom_;
  std::vector<float> heights_;
  std::vector<std::uint8_t> marks_;
  std::array<std::uint8_t, (2 * kBox + 1) * (2 * kBox + 1)> seen_;
  struct Pixel {
    int x, y;
  };
  std::vector<Pixel> open_;
};

}  // namespace

StarSeeds FindStarSeeds(CVelImage& image, const SkyMesh& sky, double threshold) {
  StarSeeds found;
  found.grain = MeasureGrain(image, sky);
  const auto least = static_cast<float>(std::max(threshold, 0.0) * found.grain);
  const int height = image.GetHeight(), bands = (height + kBand - 1) / kBand;
  for (const auto& seeds : MapLines(0, bands, [&](int i) {
         const int top = i * kBand, bottom = std::min(top + kBand, height);
         Band band(image, sky, top, bottom);
         std::vector<StarSeed> some;
         for (int y = top; y < bottom; ++y) {
           band.FindSeeds(y, least, least, some);
         }
         return some;
       })) {
    found.seeds.insert(found.seeds.end(), seeds.begin(), seeds.end());
  }
  return found;
}

}  // namespace korimg
