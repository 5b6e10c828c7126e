#include "korimg/composite/stacking/Rejection.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <mutex>
#include <numbers>
#include <vector>

#include "korimg/image/internal/Numbers.h"

namespace korimg {
namespace {

using Values = std::span<const float>;

double Median(Values values, Ranks ranks) {
  const int middle = ranks.from + ranks.Count() / 2;
  return ranks.Count() % 2 ? values[middle] : (values[middle - 1] + values[middle]) * 0.5f;
}

/// Takes what lies below and above two limits off the ranks. False when that is nothing, or would be all.
bool Take(Values values, double low, double high, Ranks& ranks) {
  Ranks left = ranks;
  while (left.from < left.to && values[left.from] < low) {
    ++left.from;
  }
  while (left.from < left.to && values[left.to - 1] > high) {
    --left.to;
  }
  if (left.Count() == 0 || left.Count() == ranks.Count()) return false;
  ranks = left;
  return true;
}

double Deviation(Values values, Ranks ranks) {
  const double median = Median(values, ranks), n = ranks.Count();
  double linear = 0, squares = 0;
  for (int i = ranks.from; i < ranks.to; ++i) {
    const double d = values[i] - median;
    linear += d;
    squares += d * d;
  }
  const double mean = linear / n;
  return std::sqrt(std::max(squares / n - mean * mean, 0.0));
}

/// The median distance from the median: ranks are taken from the middle outward.
double MedianDistance(Values values, Ranks ranks, double median) {
  const int n = ranks.Count();
  int below =
      static_cast<int>(std::upper_bound(values.begin() + ranks.from, values.begin() + ranks.to, median) -
                       values.begin()) -
      1;
  int above = below + 1;
  double last = 0, before = 0;
  for (int i = 0; i <= n / 2; ++i) {
    before = last;
    const double down = below >= ranks.from ? median - values[below] : INFINITY,
                 up = above < ranks.to ? values[above] - median : INFINITY;
    last = std::min(down, up);
    down <= up ? --below : ++above;
  }
  return n % 2 ? last : (before + last) / 2;
}

double WinsorizedDeviation(Values values, Ranks ranks) {
  // The second is a normal distribution's deviation in that of its values clamped at 1.5 deviations.
  constexpr double kNear = 1.5, kOfClamped = 1.134, kSame = 0.0005;
  constexpr int kMost = 50;  // chosen
  const double median = Median(values, ranks);
  const double n = ranks.Count();
  double deviation = kSigmasOfMedianDistance * MedianDistance(values, ranks, median);
  for (int i = 0; i < kMost; ++i) {
    const double low = median - kNear * deviation, high = median + kNear * deviation;
    double sum = 0, squares = 0;
    for (int k = ranks.from; k < ranks.to; ++k) {
      const double d = std::clamp<double>(values[k], low, high) - median;
      sum += d;
      squares += d * d;
    }
    const double next = kOfClamped * std::sqrt(std::max(squares - sum * sum / n, 0.0) / (n - 1));
    const bool same = std::abs(next - deviation) <= kSame * deviation;
    deviation = next;
    if (same) break;
  }
  return deviation;
}

/// Rejects by the distance from a median in deviations, again by what is left.
template <class F>
Ranks Clip(const Rejection& rejection, Values values, F&& deviation) {
  Ranks ranks{0, static_cast<int>(values.size())};
  for (int round = 0; round < rejection.iterations && ranks.Count() > 2; ++round) {
    const double median = Median(values, ranks), s = deviation(values, ranks);
    if (!Take(values, median - rejection.low * s, median + rejection.high * s, ranks)) break;
  }
  return ranks;
}

/// The line runs through the values by least squares; distances are weighed alike.
Ranks FitLine(const Rejection& rejection, Values values) {
  constexpr int kLeast = 4;  // a line through three leaves no distance to speak of
  Ranks ranks{0, static_cast<int>(values.size())};
  for (int round = 0; round < rejection.iterations && ranks.Count() >= kLeast; ++round) {
    const double n = ranks.Count(), middle = (ranks.from + ranks.to - 1) / 2.0;
    double sum = 0, slope = 0;
    for (int i = ranks.from; i < ranks.to; ++i) {
      sum += values[i];
      slope += (i - middle) * values[i];
    }
    slope /= n * (n * n - 1) / 12;
    const auto distance = [&](int i) { return values[i] - (sum / n + slope * (i - middle)); };
    double scatter = 0;
    for (int i = ranks.from; i < ranks.to; ++i) {
      scatter += std::abs(distance(i)) / n;
    }
    Ranks left = ranks;
    while (left.Count() > 0 && distance(left.from) < -rejection.low * scatter) {
      ++left.from;
    }
    while (left.Count() > 0 && distance(left.to - 1) > rejection.high * scatter) {
      --left.to;
    }
    if (left.Count() == 0 || left.Count() == ranks.Count()) break;
    ranks = left;
  }
  return ranks;
}

/// The probability that Student's t of whole degrees of freedom lies within -t and t (Abramowitz and Stegun
/// 26.7.3 and 26.7.4), and the density of t at it.
struct StudentsT {
  double within, density;

  StudentsT(double t, int freedom) {
    const double angle = std::atan(t / std::sqrt(freedom)), c = std::cos(angle), s = std::sin(angle);
    const bool odd = freedom % 2;
    double term = odd ? c : 1, sum = 0;
    // The density's factor: gamma((n + 1) / 2) / gamma(n / 2), over its root of n pi.
    for (int k = odd ? 3 : 2; k <= freedom; k += 2) {
      sum += term;
      term *= c * c * (k - 1) / k;
    }
    within = odd ? 2 / std::numbers::pi * (angle + s * sum) : s * sum;
    density = std::exp(std::lgamma((freedom + 1) / 2.0) - std::lgamma(freedom / 2.0) -
                       (freedom + 1) / 2.0 * std::log1p(t * t / freedom)) /
              std::sqrt(freedom * std::numbers::pi);
  }
};

/// Above which Student's t lies with a probability.
double StudentsQuantile(double above, int freedom, double start) {
  double t = start;
  for (int i = 0; i < 100; ++i) {
    const StudentsT at(t, freedom);
    // Newton's steps converge from below: there the density falls toward the quantile.
    const double step = ((1 - at.within) / 2 - above) / at.density;
    t += step;
    if (std::abs(step) < 1e-12 * t) break;
  }
  return t;
}

/// Rosner's critical values for the first, second ... outlier of n values, at the usual level of 5 %. The
/// share of outliers at most is chosen.
const std::vector<double>& CriticalValues(int n) {
  constexpr double kLevel = 0.05, kMostOutliers = 0.3;
  static std::mutex mutex;
  static std::map<int, std::vector<double>> tables;
  const std::lock_guard lock(mutex);
  std::vector<double>& table = tables[n];
  const int most = static_cast<int>(kMostOutliers * n);
  for (int i = static_cast<int>(table.size()); i < most; ++i) {
    const int left = n - i, freedom = left - 2;
    const double t = StudentsQuantile(kLevel / (2 * left), freedom, 1);
    table.push_back((left - 1) * t / std::sqrt((freedom + t * t) * left));
  }
  return table;
}

Ranks StudentisedDeviates(Values values) {
  Ranks ranks{0, static_cast<int>(values.size())}, kept = ranks;
  // Tables are looked up once for all columns of a thread that are as long as the last one.
  thread_local int length = -1;
  thread_local const std::vector<double>* critical = nullptr;
  if (length != ranks.to) {
    critical = &CriticalValues(ranks.to);
    length = ranks.to;
  }
  double sum = 0, squares = 0;
  for (const float v : values) {
    sum += v;
    squares += static_cast<double>(v) * v;
  }
  for (const double limit : *critical) {
    const double n = ranks.Count(), mean = sum / n;
    const double deviation = std::sqrt(std::max(squares - sum * mean, 0.0) / (n - 1));
    const double low = values[ranks.from], high = values[ranks.to - 1];
    const bool isLow = mean - low > high - mean;
    const double farthest = isLow ? low : high;
    isLow ? ++ranks.from : --ranks.to;
    if (std::abs(farthest - mean) > limit * deviation) kept = ranks;
    sum -= farthest;
    squares -= farthest * farthest;
  }
  return kept;
}

/// By a noise that is known. Of an even number the lower middle one is taken for true: what does not belong
/// is light, nearly always.
Ranks BeyondNoise(Values values, double low, double high) {
  Ranks ranks{0, static_cast<int>(values.size())};
  const double middle = values[(values.size() - 1) / 2];
  Take(values, middle - low, middle + high, ranks);
  return ranks;
}

/// Brings what a test of some values leaves within the limits of noise.
Ranks Limit(Values values, double noise, Ranks ranks) {
  const Ranks all{0, static_cast<int>(values.size())};
  const double median = Median(values, all);
  while (ranks.from > 0 && values[ranks.from - 1] >= median - Rejection::kStays) {
    --ranks.from;
  }
  while (ranks.to < all.to && values[ranks.to] <= median + Rejection::kStays) {
    ++ranks.to;
  }
  Take(values, median - Rejection::kGoes * noise, median + Rejection::kGoes * noise, ranks);
  return ranks;
}

Ranks ByNumber(Values values, double noise) {
  constexpr int kSome = 14;          // from 15 values on Rosner's critical values hold (Rosner 1983)
  constexpr double kWinsorized = 3;  // chosen: a thousand normal values lose three
  const int n = static_cast<int>(values.size());
  if (n <= Rejection::kFew) {
    return WhatStays({Rejection::Noise, Rejection::kGoes, Rejection::kGoes}, values, noise);
  }
  const Ranks ranks =
      WhatStays({n <= kSome ? Rejection::Winsorized : Rejection::Esd, kWinsorized, kWinsorized}, values);
  return noise > 0 ? Limit(values, noise, ranks) : ranks;
}

}  // namespace

Ranks WhatStays(const Rejection& rejection, std::span<const float> values, double noise) {
  const Ranks all{0, static_cast<int>(values.size())};
  if (all.to < 2) return all;
  switch (rejection.test) {
    case Rejection::None:
      break;
    case Rejection::Sigma:
      return Clip(rejection, values, Deviation);
    case Rejection::Winsorized:
      return Clip(rejection, values, WinsorizedDeviation);
    case Rejection::Esd:
      return StudentisedDeviates(values);
    case Rejection::LinearFit:
      return FitLine(rejection, values);
    case Rejection::Noise:
      return noise > 0 ? BeyondNoise(values, rejection.low * noise, rejection.high * noise) : all;
    case Rejection::Auto:
      return ByNumber(values, noise);
  }
  return all;
}

}  // namespace korimg
