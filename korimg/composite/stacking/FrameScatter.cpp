#include "korimg/composite/stacking/internal/FrameScatter.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numeric>
#include <set>

#include "korimg/image/internal/Lines.h"
#include "korimg/image/internal/Numbers.h"

namespace korimg {
namespace {

constexpr float kUnknown = std::numeric_limits<float>::quiet_NaN();

/// The variance of what a pixel differs by from the mean of two others, in that of one.
constexpr float kOfThree = 1.5f;

bool IsThere(float value) {
  return std::isfinite(value);
}

/// The variance of a normal distribution by distances from its middle: by the median one, or where coarse
/// numbers make that nothing, by a larger one.
float VarianceOf(std::vector<float>& distances) {
  // Shares of a normal distribution's distances, and the standard deviations that they lie within.
  constexpr std::pair<double, double> kShares[] = {{0.5, 0.6744898}, {0.75, 1.1503494}, {0.9, 1.6448536}};
  if (distances.empty()) return kUnknown;
  for (const auto& [share, sigmas] : kShares) {
    const auto at =
        distances.begin() + static_cast<std::ptrdiff_t>(share * static_cast<double>(distances.size()));
    std::nth_element(distances.begin(), at, distances.end());
    if (*at > 0) return static_cast<float>(*at / sigmas * (*at / sigmas));
  }
  return 0;
}

float MedianOfKnown(std::vector<float> values) {
  std::erase_if(values, [](float v) { return !IsThere(v); });
  return UpperMedian(values, kUnknown);
}

}  // namespace

FrameScatter::FrameScatter(int frames, int width, int height, int planes)
    : frames_(frames), width_(width), height_(height), planes_(planes) {
  // The medians of 96 pixels of a line lie within an eighth of their noise (1.25 / sqrt n). Chosen.
  constexpr int kMostRows = 16, kMostColumns = 16, kCell = 96;
  rows_ = std::min(height, kMostRows);
  columns_ = std::clamp(width / kCell, 1, kMostColumns);
  for (int row = 0; row < rows_; ++row) {
    for (int column = 0; column < columns_; ++column) {
      cells_.push_back({(FirstOf(column) + FirstOf(column + 1)) / 2.0, RowOf(row) + 0.5});
    }
  }
  above_.assign(cells_.size() * frames * planes, kUnknown);
  levels_.assign(cells_.size() * planes, kUnknown);
  differences_.assign(1UL * planes * frames * Partners() * rows_, kUnknown);
  shares_.assign(2UL * planes * rows_, kUnknown);
  bright_.resize(1UL * planes * rows_);
}

int FrameScatter::Partners() const {
  constexpr int kMost = 3;  // chosen: of each frame, so that each variance is in six pairs
  return frames_ < 3 ? frames_ - 1 : std::min(kMost, (frames_ - 1) / 2 + (frames_ == 4));
}

int FrameScatter::RowOf(int number) const {
  return static_cast<int>((2LL * number + 1) * height_ / (2LL * rows_));
}

void FrameScatter::Add(int number, int plane, std::span<const float> values, std::span<const float> medians) {
  const auto row = [&](int frame) { return values.subspan(1UL * frame * width_, width_); };
  const auto cell = [&](int layer, int column) {
    return layer * cells_.size() + 1UL * number * columns_ + column;
  };
  for (int c = 0; c < columns_; ++c) {
    const std::span part = medians.subspan(FirstOf(c), FirstOf(c + 1) - FirstOf(c));
    levels_[cell(plane, c)] = MedianOfKnown({part.begin(), part.end()});
  }
  ForLines(Team::One, 0, frames_, [&](int i) {
    constexpr size_t kLeast = 48;  // pixels of a cell: fewer would follow the pixels themselves
    std::vector<float> above;
    for (int c = 0; c < columns_; ++c) {
      above.clear();
      for (int x = FirstOf(c); x < FirstOf(c + 1); ++x) {
        if (IsThere(row(i)[x])) above.push_back(row(i)[x] - medians[x]);
      }
      if (above.size() >= kLeast) above_[cell(i * planes_ + plane, c)] = UpperMedian(above);
    }
  });
  // What a pixel differs by from the mean of two a little apart, between two frames, is free of slopes, and
  // of what interpolation lends a pixel of its neighbours. Chosen: farther than kernels reach.
  constexpr int kPixels = 700, kApart = 8;
  const int step = std::max(width_ / kPixels, 1), pairs = frames_ * Partners(),
            apart = std::min(kApart, (width_ - 1) / 2);
  const auto variance = [&](const auto& value) {
    std::vector<float> distances;
    for (int x = apart; x + apart < width_; x += step) {
      const float d = value(x) - (value(x - apart) + value(x + apart)) / 2;
      if (IsThere(d)) distances.push_back(std::abs(d));
    }
    return VarianceOf(distances) / kOfThree;
  };
  ForLines(Team::One, 0, apart > 0 ? pairs : 0, [&](int pair) {
    const int i = pair / Partners(), j = (i + 1 + pair % Partners()) % frames_;
    differences_[(1UL * plane * pairs + pair) * rows_ + number] =
        variance([&](int x) { return row(i)[x] - row(j)[x]; });
  });
  // Of two frames the difference tells nothing of either: each has a share as its own pixels say.
  for (int i = 0; i < frames_ && frames_ == 2 && apart > 0; ++i) {
    shares_[(2UL * plane + i) * rows_ + number] = variance([&](int x) { return row(i)[x]; });
  }
  // The same of the first two frames where both see something above the sky.
  for (int c = 0; c < columns_ && frames_ > 1; ++c) {
    const auto between = [&](int x) { return row(0)[x] - row(1)[x]; };
    const auto signal = [&](int frame, int x) {
      return row(frame)[x] - above_[cell(frame * planes_ + plane, c)] - levels_[cell(plane, c)];
    };
    for (int x = std::max(FirstOf(c), apart); x < std::min(FirstOf(c + 1), width_ - apart); ++x) {
      const float d = between(x) - (between(x - apart) + between(x + apart)) / 2,
                  least = std::min(signal(0, x), signal(1, x));
      if (IsThere(d) && least > 0) bright_[1UL * plane * rows_ + number].emplace_back(least, std::abs(d));
    }
  }
}

void FrameScatter::Settle() {
  noise_.assign(1UL * frames_ * planes_, 0);
  meanNoise_.assign(planes_, 0);
  photons_.assign(planes_, 0);
  offsets_.assign(1UL * frames_ * planes_, SmoothSurface(0, width_, height_));
  isKnown_ = frames_ > 1;
  for (int p = 0; p < planes_ && isKnown_; ++p) {
    MeasureNoise(p);
    if (!isKnown_) return;
    MeasurePhotons(p);
    FitSkies(p);
  }
  above_ = levels_ = differences_ = shares_ = {};
  bright_ = {};
}

/// The variance of a pair is the sum of those of its frames.
void FrameScatter::MeasureNoise(int plane) {
  constexpr float kRounding = 1e-6f;  // of a value's size: what floats themselves scatter by
  constexpr double kLeast = 0.01;     // of the mean variance: no frame is free of noise among others
  constexpr int kRounds = 100;        // chosen
  const int partners = Partners();
  std::vector<double> pairs, known;
  for (int pair = 0; pair < frames_ * partners; ++pair) {
    const auto first = differences_.begin() + (1L * plane * frames_ * partners + pair) * rows_;
    pairs.push_back(MedianOfKnown({first, first + rows_}));
    if (std::isfinite(pairs.back())) known.push_back(pairs.back());
  }
  isKnown_ = !known.empty();
  if (!isKnown_) return;
  const double mean =
      std::accumulate(known.begin(), known.end(), 0.0) / static_cast<double>(known.size()) / 2;
  std::vector<double> own(frames_, mean);
  if (frames_ == 2) {
    const auto share = [&](int frame) {
      const auto first = shares_.begin() + (2L * plane + frame) * rows_;
      return MedianOfKnown({first, first + rows_});
    };
    const double all = share(0) + share(1);
    for (int i = 0; i < 2 && all > 0; ++i) {
      own[i] = std::max(2 * mean * share(i) / all, kLeast * mean);
    }
  }
  for (int round = 0; round < kRounds && frames_ > 2; ++round) {
    for (int i = 0; i < frames_; ++i) {
      double sum = 0;
      int count = 0;
      for (int k = 1; k <= partners; ++k) {
        const int after = (i + k) % frames_, before = (i + frames_ - k) % frames_;
        for (const auto& [variance, other] :
             {std::pair(pairs[i * partners + k - 1], after), {pairs[before * partners + k - 1], before}}) {
          if (!std::isfinite(variance)) continue;
          sum += variance - own[other];
          ++count;
        }
      }
      if (count > 0) own[i] = std::max(sum / count, kLeast * mean);
    }
  }
  const auto levels = levels_.begin() + plane * static_cast<std::ptrdiff_t>(cells_.size());
  const float level = MedianOfKnown({levels, levels + static_cast<std::ptrdiff_t>(cells_.size())});
  const float least =
      std::max(IsThere(level) ? std::abs(level) * kRounding : 0, std::numeric_limits<float>::min());
  for (int i = 0; i < frames_; ++i) {
    noise_[i * planes_ + plane] = std::max(static_cast<float>(std::sqrt(own[i])), least);
    meanNoise_[plane] += noise_[i * planes_ + plane] / static_cast<float>(frames_);
  }
}

/// What the first two frames differ by beside the noise of their sky grows with the light of the pixels. The
/// seeing is in it too, so that the least of what is found counts.
void FrameScatter::MeasurePhotons(int plane) {
  constexpr std::array kSteps = {4.0, 8.0, 16.0, 32.0, 64.0};  // of the noise; chosen
  constexpr size_t kEnough = 200;  // pixels; chosen: they tell a variance to a sixth
  const double mean = meanNoise_[plane], noise = std::hypot(Noise(0, plane), Noise(1, plane));
  double photons = std::numeric_limits<double>::infinity();
  for (size_t s = 0; s + 1 < kSteps.size(); ++s) {
    std::vector<float> signals, distances;
    for (int r = 0; r < rows_; ++r) {
      for (const auto& [signal, distance] : bright_[1UL * plane * rows_ + r]) {
        if (signal < kSteps[s] * mean || signal >= kSteps[s + 1] * mean) continue;
        signals.push_back(static_cast<float>(signal / mean));
        distances.push_back(static_cast<float>(distance / noise));
      }
    }
    if (signals.size() < kEnough) continue;
    photons = std::min(photons, std::max<double>(VarianceOf(distances) - kOfThree, 0) / UpperMedian(signals));
  }
  photons_[plane] = std::isfinite(photons) ? photons : 0;
}

/// Moonlight and the light of cities change from frame to frame as smooth surfaces. The cells tell them about
/// the median of all frames, which bends where it passes from one frame to another. Least squares lend each
/// frame the same share of that, and what is left of it is known then.
void FrameScatter::FitSkies(int plane) {
  constexpr int kRounds = 4;  // chosen
  const size_t count = cells_.size();
  std::vector<double> common(count, 0.0), values(count);
  for (int round = 0; round < kRounds; ++round) {
    std::vector<double> sums(count, 0.0);
    std::vector<int> numbers(count, 0);
    for (int i = 0; i < frames_; ++i) {
      const float* above = &above_[(1UL * i * planes_ + plane) * count];
      for (size_t c = 0; c < count; ++c) {
        values[c] = above[c] - common[c];
      }
      SmoothSurface& offset = offsets_[i * planes_ + plane];
      offset = Fit(values, round > 0);
      for (size_t c = 0; c < count; ++c) {
        if (!IsThere(above[c])) continue;
        sums[c] += above[c] - offset.At(cells_[c].x, cells_[c].y);
        ++numbers[c];
      }
    }
    for (size_t c = 0; c < count; ++c) {
      if (numbers[c] > 0) common[c] = sums[c] / numbers[c];
    }
  }
  for (size_t c = 0; c < count; ++c) {
    values[c] = levels_[plane * count + c] + common[c];
  }
  skies_.push_back(Fit(values, true));
}

/// A polynomial of as high a degree, up to 3, as the cells tell. When it is robust, trails and what else is
/// no sky count little (iteratively reweighted least squares, Holland and Welsch 1977).
SmoothSurface FrameScatter::Fit(const std::vector<double>& values, bool robust) const {
  constexpr int kMostDegree = 3, kRounds = 6;  // chosen
  std::set<int> rows, columns;
  int known = 0;
  for (size_t c = 0; c < values.size(); ++c) {
    if (!std::isfinite(values[c])) continue;
    rows.insert(static_cast<int>(c) / columns_);
    columns.insert(static_cast<int>(c) % columns_);
    ++known;
  }
  // Two more rows and columns of cells than the degree: a curve through all of them would swing between.
  const int narrowest = static_cast<int>(std::min(rows.size(), columns.size()));
  int degree = std::clamp(narrowest - 2, 0, kMostDegree);
  while (degree > 0 && known < 3 * SmoothSurface::NumbersOf(degree)) {
    --degree;
  }
  std::vector<double> there = values, weights(values.size());
  for (size_t c = 0; c < values.size(); ++c) {
    weights[c] = std::isfinite(values[c]) ? 1 : 0;
    if (weights[c] == 0) there[c] = 0;
  }
  SmoothSurface surface(degree, width_, height_);
  for (int round = 0; round < kRounds; ++round) {
    if (!surface.Fit(cells_, there, weights)) return {0, width_, height_};
    if (!robust) break;
    std::vector<double> distances;
    for (size_t c = 0; c < values.size(); ++c) {
      if (std::isfinite(values[c]))
        distances.push_back(std::abs(values[c] - surface.At(cells_[c].x, cells_[c].y)));
    }
    std::vector<double> sorted = distances;
    const double scale = 2 * kSigmasOfMedianDistance * UpperMedian(sorted);
    if (!(scale > 0)) break;
    for (size_t c = 0, k = 0; c < values.size(); ++c) {
      if (!std::isfinite(values[c])) continue;
      const double share = distances[k++] / scale;
      weights[c] = 1 / ((1 + share * share) * (1 + share * share));
    }
  }
  return surface;
}

double FrameScatter::Of(double signal, double star, int plane) const {
  // How much of a star's light comes and goes with the seeing, in a pixel. Chosen.
  constexpr double kSeeing = 0.25;
  const double light = std::max(signal, 0.0), seeing = kSeeing * std::max(star, 0.0);
  return std::sqrt(1 + photons_[plane] * light + seeing * seeing);
}

}  // namespace korimg
