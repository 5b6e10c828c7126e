#include "session/live/internal/RunningMean.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <numeric>

#include "korimg/image/internal/Lines.h"
#include "korimg/image/internal/Numbers.h"
#include "korimg/image/internal/Vectors.h"

#include "session/picture/Image.h"

namespace korimg::session {
namespace {

constexpr float kMissing = std::numeric_limits<float>::quiet_NaN();
constexpr float kNormal = 1.4826F;  // a normal distribution's deviation in median distances
constexpr int kFirst = 3;           // frames that are judged by each other: the fewest with a median
// Of two values the higher one may have so many times the light of the lower one above that: what seeing of a
// FWHM from 2.6 to 4.5 pixels does to the peak of a star.
constexpr float kTwice = 2;
constexpr float kAlone = -1;  // the variance where one value counts, which is not known

/// A row of the sums, and what comes to it.
struct Sums {
  float *weights, *means, *variances;
};
struct Values {
  const float* pixels;
  float weight, noise, sky;
};

/// Answers how many values were rejected.
int TakeRow(const Sums& sums, const Values& values, float kappa, int width) {
  int rejected = 0;
  RunInLongVectors([=, &rejected]() KORIMG_IN_LOOP {
    const float floor = values.noise * values.noise, limits = kappa * kappa, w = values.weight,
                sky = values.sky;
    int count = 0;
    for (int x = 0; x < width; ++x) {
      const float v = values.pixels[x], weight = sums.weights[x], mean = sums.means[x];
      const bool isAlone = sums.variances[x] < 0;
      const float variance = isAlone ? 0 : sums.variances[x];
      const float d = v - mean, share = w / (weight + w);
      const float limit = limits * (variance > floor ? variance : floor);
      const float lower = std::max(std::min(v, mean) - sky, 0.0F), slack = isAlone ? kTwice * lower : 0;
      const bool isFinite = v - v == 0, isFar = (weight > 0) & (std::abs(d) > std::sqrt(limit) + slack);
      const float widened = variance + share * (limit - variance),
                  updated = (1 - share) * (variance + share * d * d);
      const bool givesWay = isFinite & isFar & isAlone & (d < 0), counts = isFinite & !isFar;
      const float next = isFar ? widened : updated;
      const float followed = ((weight == 0) | givesWay) ? kAlone : next;
      const float ownMean = counts ? mean + share * d : mean, ownWeight = counts ? weight + w : weight;
      sums.variances[x] = isFinite ? followed : sums.variances[x];
      sums.means[x] = givesWay ? v : ownMean;
      sums.weights[x] = givesWay ? w : ownWeight;
      count += (isFinite & isFar & !givesWay) ? 1 : 0;
    }
    rejected = count;
  });
  return rejected;
}

/// Makes of three frames' values at a place NaN what lies too far from the others; where there are two, the
/// higher one that lies too far from the lower.
void JudgeRow(const std::array<float*, kFirst>& rows, const std::array<float, kFirst>& noise, float sky,
              float kappa, int width, std::array<long long, kFirst>& rejected) {
  for (int x = 0; x < width; ++x) {
    const float a = rows[0][x], b = rows[1][x], c = rows[2][x];
    if (!(std::isfinite(a) && std::isfinite(b) && std::isfinite(c))) {
      const int i = std::isfinite(a) ? 0 : 1, k = std::isfinite(c) ? 2 : 1;
      const float first = rows[i][x], second = rows[k][x];
      const bool areTwo = i != k && std::isfinite(first) && std::isfinite(second);
      const float slack = kTwice * std::max(std::min(first, second) - sky, 0.0F);
      if (!areTwo || !(std::abs(first - second) > kappa * std::hypot(noise[i], noise[k]) + slack)) continue;
      const int higher = first > second ? i : k;
      rows[higher][x] = kMissing;
      ++rejected[higher];
      continue;
    }
    const float median = std::max(std::min(a, b), std::min(std::max(a, b), c));
    // Of the three distances one is 0, so that the smaller of the others is their median.
    const float spread = kNormal * std::min(std::max({a, b, c}) - median, median - std::min({a, b, c}));
    for (int i = 0; i < kFirst; ++i) {
      if (!(std::abs(rows[i][x] - median) > kappa * std::max(noise[i], spread))) continue;
      rows[i][x] = kMissing;
      ++rejected[i];
    }
  }
}

/// The deviation between two frames' values, robustly: by the median of their distances in some 60000 pixels
/// of whole lines, which tell it to half a percent.
double DeviationBetween(CVelImage& a, CVelImage& b, int plane) {
  constexpr int kPixels = 60000;
  const int width = a.GetWidth(), height = a.GetHeight(),
            lines = std::clamp((kPixels + width - 1) / width, 1, height);
  std::vector<float> distances;
  for (int i = 0; i < lines; ++i) {
    const auto y = static_cast<int>((2LL * i + 1) * height / (2LL * lines));
    const float *u = a.GetLine(0, y, plane), *v = b.GetLine(0, y, plane);
    for (int x = 0; x < width; ++x) {
      if (std::isfinite(u[x] - v[x])) distances.push_back(std::abs(u[x] - v[x]));
    }
  }
  return kNormal * UpperMedian(distances);
}

}  // namespace

RunningMean::RunningMean(std::shared_ptr<CVmManager> store, const Shape& shape, double kappa,
                         const PlaneValues& sky)
    : store_(std::move(store)),
      shape_(shape),
      kappa_(kappa),
      sky_(sky),
      weights_(NewImage(store_, shape.width, shape.height, shape.planes)),
      means_(NewImage(store_, shape.width, shape.height, shape.planes)),
      variances_(NewImage(store_, shape.width, shape.height, shape.planes)) {
  Clear();
}

std::vector<double> RunningMean::Add(std::unique_ptr<CVelImage> pixels, const PlaneValues& weights,
                                     const PlaneValues& noise) {
  isEmpty_ = false;
  Frame frame{std::move(pixels), weights, noise};
  std::vector<long long> rejected;
  if (isJudged_) {
    rejected = {Take(frame, kappa_)};
  } else {
    first_.push_back(std::move(frame));
    if (first_.size() == kFirst) {
      rejected = JudgeFirst();
    } else {
      Take(first_.back(), std::numeric_limits<float>::infinity());
    }
  }
  std::vector<double> shares;
  for (const long long count : rejected) {
    shares.push_back(static_cast<double>(count) / (1.0 * shape_.width * shape_.height * shape_.planes));
  }
  return shares;
}

/// Answers how many values were rejected: none when kappa is infinite.
long long RunningMean::Take(const Frame& frame, double kappa) {
  const auto limit =
      static_cast<float>(std::min<double>(kappa, std::sqrt(std::numeric_limits<float>::max())));
  const auto counts = MapLines(0, shape_.planes * shape_.height, [&](int line) {
    const int p = line / shape_.height, y = line % shape_.height;
    const auto rowOf = [&](CVelImage& image) { return image.GetWritableLine(0, y, p); };
    return TakeRow({rowOf(*weights_), rowOf(*means_), rowOf(*variances_)},
                   {frame.pixels->GetLine(0, y, p), static_cast<float>(frame.weights[p]),
                    static_cast<float>(frame.noise[p] * scatter_[p]), static_cast<float>(sky_[p])},
                   limit, shape_.width);
  });
  return std::reduce(counts.begin(), counts.end(), 0LL);
}

/// What noise that is told has to be multiplied by: frames that were made of mosaics scatter more than their
/// pixels do from one to the next, since these share what they were made of.
void RunningMean::MeasureScatter() {
  for (int p = 0; p < shape_.planes; ++p) {
    std::vector<double> ratios;
    for (int i = 0; i < kFirst; ++i) {
      const Frame &a = first_[i], &b = first_[(i + 1) % kFirst];
      const double told = std::hypot(a.noise[p], b.noise[p]);
      if (told > 0) ratios.push_back(DeviationBetween(*a.pixels, *b.pixels, p) / told);
    }
    scatter_[p] = std::max(UpperMedian(ratios), 1.0);
  }
}

/// Begins anew with what is left of the first frames, and lets them go.
std::vector<long long> RunningMean::JudgeFirst() {
  MeasureScatter();
  const auto counts = MapLines(0, shape_.planes * shape_.height, [&](int line) {
    const int p = line / shape_.height, y = line % shape_.height;
    std::array<float*, kFirst> rows;
    std::array<float, kFirst> noise;
    for (int i = 0; i < kFirst; ++i) {
      rows[i] = first_[i].pixels->GetWritableLine(0, y, p);
      noise[i] = static_cast<float>(first_[i].noise[p] * scatter_[p]);
    }
    std::array<long long, kFirst> rejected{};
    JudgeRow(rows, noise, static_cast<float>(sky_[p]), static_cast<float>(kappa_), shape_.width, rejected);
    return rejected;
  });
  std::vector<long long> rejected(kFirst);
  for (const auto& line : counts) {
    std::transform(line.begin(), line.end(), rejected.begin(), rejected.begin(), std::plus<>());
  }
  Clear();
  for (const Frame& frame : first_) {
    Take(frame, std::numeric_limits<float>::infinity());
  }
  first_.clear();
  isJudged_ = true;
  return rejected;
}

void RunningMean::Clear() {
  for (CVelImage* image : {weights_.get(), means_.get(), variances_.get()}) {
    ForLines(Team::All, 0, shape_.planes * shape_.height, [&](int line) {
      std::fill_n(image->GetWritableLine(0, line % shape_.height, line / shape_.height), shape_.width, 0.0F);
    });
  }
}

std::unique_ptr<CVelImage> RunningMean::Mean() const {
  auto image = NewImage(store_, shape_.width, shape_.height, shape_.planes);
  ForLines(Team::All, 0, shape_.planes * shape_.height, [&](int line) {
    const int p = line / shape_.height, y = line % shape_.height;
    const float *weights = weights_->GetLine(0, y, p), *means = means_->GetLine(0, y, p);
    float* out = image->GetWritableLine(0, y, p);
    for (int x = 0; x < shape_.width; ++x) {
      out[x] = weights[x] > 0 ? means[x] : kMissing;
    }
  });
  return image;
}

}  // namespace korimg::session
