#include "korimg/composite/stacking/CImgStack.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <mutex>
#include <numeric>

#include "korimg/calibration/MedianOfFrames.h"
#include "korimg/composite/stacking/internal/StackColumns.h"
#include "korimg/geometry/CInterp.h"
#include "korimg/geometry/internal/WarpRows.h"
#include "korimg/image/internal/Numbers.h"

using namespace korimg;

namespace {

/// What is known of the frames that a part of a plane is made of.
struct Known {
  std::vector<float> perNoise;  ///< by frames: one over its noise, or over 1
  std::vector<float> sky;       ///< under each column; none where nothing was measured
  std::vector<double> weights;  ///< by frames, in this plane
  bool fades = false;           ///< and by the shares of the columns
};

/// Sums and limits of the columns of a part.
struct Work {
  std::vector<float> values;            ///< by frames, as the columns had them before they were sorted
  std::vector<double> linear, squares;  ///< sums of the distances from the median, in units of noise
  std::vector<float> medians;
  std::vector<float> least, most;          ///< of these distances the lowest and highest
  std::vector<float> low, high;            ///< and those that are left
  std::vector<float> lowCount, highCount;  ///< values that are rejected
  std::vector<int> open;                   ///< columns that may lose values
  std::vector<float> distances, column;    ///< of these, and of one of them
  std::vector<float> about;                ///< medians beside one
  std::vector<unsigned char> few;  ///< bits of the values that are rejected one by one, in their order
  std::vector<std::pair<int, int>> rejected;  ///< all of them: frame and column

  void Resize(int columns) {
    linear.resize(columns);
    squares.resize(columns);
    few.assign(columns, 0);
    rejected.clear();
    for (auto* floats : {&medians, &least, &most, &low, &high, &lowCount, &highCount}) {
      floats->resize(columns);
    }
  }
};

/// The distance of a value from its median in units of its frame's noise. It is the same wherever it is asked
/// for.
KORIMG_IN_LOOP inline float Distance(float value, float median, float perNoise) {
  return (value - median) * perNoise;
}

/// The medians of sorted columns, and the ends of the distances from it; their sums where a test needs them.
template <bool kSums>
void SumUp(Columns& sorted, const Known& known, Work& work) {
  const int columns = sorted.Size();
  double *linear = work.linear.data(), *squares = work.squares.data();
  float *medians = work.medians.data(), *least = work.least.data(), *most = work.most.data();
  sorted.Medians(medians);
  std::fill_n(linear, columns, 0.0);
  std::fill_n(squares, columns, 0.0);
  std::fill_n(least, columns, 0.0f);
  std::fill_n(most, columns, 0.0f);
  for (int i = 0; i < sorted.Frames(); ++i) {
    const float* row = work.values.data() + static_cast<size_t>(i) * sorted.Most();
    const float perNoise = known.perNoise[i];
    RunInLongVectors([=]() KORIMG_IN_LOOP {
      for (int x = 0; x < columns; ++x) {
        const float d = row[x] < Columns::kMissing ? Distance(row[x], medians[x], perNoise) : 0.0f;
        if constexpr (kSums) {
          linear[x] += d;
          squares[x] += static_cast<double>(d) * d;
        }
        least[x] = d < least[x] ? d : least[x];
        most[x] = d > most[x] ? d : most[x];
      }
    });
  }
}

/// Whether a test may reject anything of a column: most columns need no closer look.
bool MayReject(const Rejection& rejection, bool isNoiseKnown, int n, const Work& work, int x) {
  const float least = -work.least[x], most = work.most[x];
  // From the lower of the middle two a value is at most twice as far as from the median, and the limit of a
  // noisy frame may be by 1.4 lower in its own noise.
  const auto mayBeBeyond = [&](double limit) { return isNoiseKnown && 3 * std::max(least, most) > limit; };
  switch (rejection.test) {
    case Rejection::None:
      return false;
    case Rejection::Sigma: {
      const double mean = work.linear[x] / n, s = std::sqrt(std::max(work.squares[x] / n - mean * mean, 0.0));
      return n > 2 && (least > rejection.low * s || most > rejection.high * s);
    }
    case Rejection::Noise:
      return mayBeBeyond(std::min(rejection.low, rejection.high));
    case Rejection::Auto:
      if (n <= Rejection::kFew) return mayBeBeyond(Rejection::kGoes);
      return !isNoiseKnown || std::max(least, most) > Rejection::kStays;
    default:
      return n > 2;
  }
}

/// How far the brightest of the medians beside column x lie above those some way off: a star's light, and not
/// that of a nebula.
double StarLight(const Columns& columns, Work& work, int x) {
  constexpr int kStar = 2, kAbout = 16;  // pixels, chosen: within a star's core, and beyond its wings
  float brightest = work.medians[x];
  work.about.clear();
  for (int k = std::max(x - kAbout, 0); k < std::min(x + kAbout + 1, columns.Size()); ++k) {
    if (columns.Counts()[k] == 0) continue;
    work.about.push_back(work.medians[k]);
    if (std::abs(k - x) <= kStar) brightest = std::max(brightest, work.medians[k]);
  }
  return brightest - UpperMedian(work.about);
}

/// Whether so few values are told by their noise alone.
bool IsByNoise(const Rejection& rejection, int n) {
  return n > 1 && n <= Rejection::kFew &&
         (rejection.test == Rejection::Noise || rejection.test == Rejection::Auto);
}

/// Whether what a test leaves of values in order depends on how much more than the sky a pixel scatters.
bool AsksForNoise(const Rejection& rejection, const std::vector<float>& distances) {
  if (rejection.test == Rejection::Noise) return true;
  if (rejection.test != Rejection::Auto) return false;
  const size_t n = distances.size();
  const float median = n % 2 ? distances[n / 2] : (distances[n / 2 - 1] + distances[n / 2]) * 0.5f;
  return n <= Rejection::kFew || distances.front() < median - Rejection::kGoes ||
         distances.back() > median + Rejection::kGoes;
}

/// Rejects by the noise of frames, when there are so few that the noise of the one that the others are
/// compared with counts: limits are those of frames of one noise.
void RejectFew(const Columns& columns, const Rejection& rejection, const Known& known, double factor,
               Work& work, int x) {
  struct Value {
    float value;
    double variance;
    int number;
  };
  std::array<Value, Rejection::kFew> values;
  int n = 0;
  for (int i = 0; i < columns.Frames(); ++i) {
    const float v = work.values[static_cast<size_t>(i) * columns.Most() + x];
    if (!(v < Columns::kMissing)) continue;
    const double noise = 1.0 / known.perNoise[i];
    int at = n;
    for (; at > 0 && values[at - 1].value > v; --at) {
      values[at] = values[at - 1];
    }
    values[at] = {v, noise * noise, n++};
  }
  const Value& middle = values[(n - 1) / 2];
  const bool isAuto = rejection.test == Rejection::Auto;
  for (int k = 0; k < n; ++k) {
    const Value& value = values[k];
    const double kappa = isAuto                       ? Rejection::kGoes
                         : value.value < middle.value ? rejection.low
                                                      : rejection.high;
    const double limit = kappa * factor * std::sqrt((value.variance + middle.variance) / 2);
    if (!(std::abs(value.value - middle.value) > limit)) continue;
    work.few[x] |= 1 << value.number;
    (value.value < middle.value ? work.lowCount : work.highCount)[x] += 1;
  }
}

/// Sorts the columns, and rejects outliers.
void RejectOutliers(Columns& columns, const Rejection& rejection, const Known& known,
                    const FrameScatter* scatter, int plane, Work& work) {
  columns.Sort();
  rejection.test == Rejection::Sigma ? SumUp<true>(columns, known, work) : SumUp<false>(columns, known, work);
  work.open.clear();
  for (int x = 0; x < columns.Size(); ++x) {
    if (MayReject(rejection, scatter, columns.Counts()[x], work, x)) work.open.push_back(x);
  }
  // The distances of the few columns that are left, side by side.
  const auto open = static_cast<int>(work.open.size()), stride = columns.Most();
  work.distances.resize(work.values.size());
  for (int i = 0; i < columns.Frames(); ++i) {
    const float* row = work.values.data() + static_cast<size_t>(i) * stride;
    float* distances = work.distances.data() + static_cast<size_t>(i) * stride;
    for (int k = 0; k < open; ++k) {
      const int x = work.open[k];
      distances[k] = row[x] < Columns::kMissing ? Distance(row[x], work.medians[x], known.perNoise[i])
                                                : Columns::kMissing;
    }
  }
  columns.SortRows(work.distances.data(), open);
  for (int k = 0; k < open; ++k) {
    const int x = work.open[k], n = columns.Counts()[x];
    work.column.resize(n);
    for (int i = 0; i < n; ++i) {
      work.column[i] = work.distances[static_cast<size_t>(i) * stride + k];
    }
    double noise = scatter ? 1 : 0;
    if (scatter && AsksForNoise(rejection, work.column)) {
      // Of an even number the lower middle one is what the pixel shows: an outlier of two is half of the
      // median.
      const double mean = scatter->MeanNoise(plane), lower = work.column[(n - 1) / 2];
      noise = scatter->Of((work.medians[x] - known.sky[x]) / mean + lower,
                          StarLight(columns, work, x) / mean + lower, plane);
      if (IsByNoise(rejection, n)) {
        RejectFew(columns, rejection, known, noise, work, x);
        continue;
      }
    }
    const Ranks left = WhatStays(rejection, work.column, noise);
    work.lowCount[x] = static_cast<float>(left.from);
    work.highCount[x] = static_cast<float>(n - left.to);
    work.low[x] = work.column[left.from];
    work.high[x] = work.column[left.to - 1];
  }
}

/// Whether a value was rejected.
struct Verdict {
  bool isLow = false, isHigh = false;
};

/// On frame i's value in column x, where it is the number-th that is there.
inline Verdict VerdictOn(const Work& work, const Known& known, int x, int i, float v, int number) {
  if (work.lowCount[x] + work.highCount[x] == 0) return {};
  const float d = Distance(v, work.medians[x], known.perNoise[i]);
  if (work.few[x] == 0) return {d<work.low[x], d> work.high[x]};
  const bool isRejected = work.few[x] >> number & 1;
  return {isRejected && d < 0, isRejected && !(d < 0)};
}

/// The weighted means of what is left, and what lies beyond. Only the few columns that lost a value are gone
/// through; the others have their sums.
void Means(const Columns& columns, Work& work, const Known& known, CImgStack::Counts* counts, float* out) {
  const int frames = columns.Frames(), stride = columns.Most();
  const double *weights = known.weights.data(), all = std::accumulate(weights, weights + frames, 0.0);
  RunInLongVectors([out, all, sums = columns.Sums(), size = columns.Size()]() KORIMG_IN_LOOP {
    for (int x = 0; x < size; ++x) {
      out[x] = static_cast<float>(sums[x] / all);
    }
  });
  for (int x = 0; x < columns.Size(); ++x) {
    const bool isWhole = work.lowCount[x] + work.highCount[x] == 0;
    if (isWhole && columns.Counts()[x] == frames && !known.fades) continue;
    double sum = 0, weight = 0, allSum = 0, allWeight = 0;
    for (int i = 0, number = 0; i < frames; ++i) {
      const float v = work.values[static_cast<size_t>(i) * stride + x];
      if (!(v < Columns::kMissing)) continue;
      const double own = known.fades ? weights[i] * columns.Shares(i)[x] : weights[i];
      allSum += own * v;
      allWeight += own;
      const auto [isLow, isHigh] = VerdictOn(work, known, x, i, v, number++);
      counts[i].low += isLow;
      counts[i].high += isHigh;
      if (isLow || isHigh) {
        work.rejected.emplace_back(i, x);
        continue;
      }
      sum += own * v;
      weight += own;
    }
    // The values lie on one sky here; what they lost by that comes back, as much as all of them had.
    const double sky = known.sky.empty() ? 0 : (columns.Sums()[x] - allSum) / allWeight;
    out[x] = static_cast<float>(sum / weight + sky);
  }
}

void Extremes(Columns& columns, bool largest, float* out) {
  constexpr float kMissing = Columns::kMissing;
  std::fill_n(out, columns.Size(), largest ? -kMissing : kMissing);
  for (int i = 0; i < columns.Frames(); ++i) {
    const float* row = columns.Row(i);
    RunInLongVectors([=, size = columns.Size()]() KORIMG_IN_LOOP {
      for (int x = 0; x < size; ++x) {
        const float v = largest && !(row[x] < kMissing) ? -kMissing : row[x];
        out[x] = (v > out[x]) == largest ? v : out[x];
      }
    });
  }
}

/// Writes what a line's parts become. Each line has its own.
struct Statistic {
  CImgStack::Method method;
  const Rejection& rejection;
  const std::vector<CImgStack::PlaneWeights>& weights;
  const FrameScatter* scatter;
  bool fades = false;
  bool judges = false;  ///< the quality of what a part becomes is wanted too
  Work work = {};
  Known known = {};
  std::vector<CImgStack::Counts> counts = {};

  void operator()(Columns& columns, int x, int y, int plane, float* out) {
    const int frames = columns.Frames();
    work.Resize(columns.Most());
    std::fill(work.lowCount.begin(), work.lowCount.end(), 0.0f);
    std::fill(work.highCount.begin(), work.highCount.end(), 0.0f);
    counts.assign(frames, {});
    for (int i = 0; i < frames; ++i) {
      counts[i].values = columns.Present(i);
    }
    if (method == CImgStack::Mean || judges) {
      work.values.assign(columns.Row(0), columns.Row(0) + static_cast<size_t>(frames) * columns.Most());
    }
    if (method == CImgStack::Median) {
      columns.Sort();
      columns.Medians(out);
      return;
    }
    if (method != CImgStack::Mean) return Extremes(columns, method == CImgStack::Maximum, out);
    known.fades = fades;
    known.perNoise.assign(frames, 1.0f);
    if (scatter) {
      for (int i = 0; i < frames; ++i) {
        known.perNoise[i] = 1 / scatter->Noise(i, plane);
      }
      known.sky.resize(columns.Size());
      scatter->SkyOf(plane, y, x, known.sky);
    }
    if (rejection.test != Rejection::None) {
      RejectOutliers(columns, rejection, known, scatter, plane, work);
    }
    known.weights.resize(frames);
    for (int i = 0; i < frames; ++i) {
      known.weights[i] = weights[i][std::min(plane, 2)];
    }
    Means(columns, work, known, counts.data(), out);
  }
};

/// What the store holds beside the values of a part, by frames.
struct StoredQuality {
  std::vector<const float*> variances;  ///< none where they are not wanted
  std::vector<const int*> flags;
  std::vector<double> factors;  ///< of normalising
};

/// Variances and flags of what a part has become; either may be null.
void Judge(const Columns& columns, const Statistic& statistic, const StoredQuality& stored, float* variances,
           float* flags) {
  const Work& work = statistic.work;
  const int size = columns.Size(), frames = columns.Frames();
  const bool isMean = statistic.method == CImgStack::Mean;
  const auto weightOf = [&](int i) { return isMean ? statistic.known.weights[i] : 1.0; };
  std::vector<double> sums(size), weights(size);
  std::vector<int> found(size);
  for (int i = 0; i < frames; ++i) {
    const float* values = work.values.data() + static_cast<size_t>(i) * columns.Most();
    const float* own = variances ? stored.variances[i] : nullptr;
    const int* marks = stored.flags[i];
    const double weight = weightOf(i), squared = weight * weight * stored.factors[i] * stored.factors[i];
    const float* shares = isMean ? columns.Shares(i) : nullptr;
    RunInLongVectors([=, sum = sums.data(), all = weights.data(), any = found.data()]() KORIMG_IN_LOOP {
      for (int x = 0; x < size; ++x) {
        any[x] |= values[x] < Columns::kMissing ? marks[x] : 0;
      }
      for (int x = 0; own && !shares && x < size; ++x) {
        const bool there = values[x] < Columns::kMissing;
        sum[x] += there ? squared * own[x] : 0.0;
        all[x] += there ? weight : 0.0;
      }
      for (int x = 0; own && shares && x < size; ++x) {
        const bool there = values[x] < Columns::kMissing;
        sum[x] += there ? squared * shares[x] * shares[x] * own[x] : 0.0;
        all[x] += there ? weight * shares[x] : 0.0;
      }
    });
  }
  const float *low = work.lowCount.data(), *high = work.highCount.data();
  for (int x = 0; x < size; ++x) {
    if (low[x] + high[x] == 0) continue;
    sums[x] = weights[x] = found[x] = 0;
    for (int i = 0, number = 0; i < frames; ++i) {
      const float v = work.values[static_cast<size_t>(i) * columns.Most() + x];
      if (!(v < Columns::kMissing)) continue;
      const Verdict verdict = VerdictOn(work, statistic.known, x, i, v, number++);
      if (verdict.isLow || verdict.isHigh) continue;
      const double share = statistic.fades ? weightOf(i) * columns.Shares(i)[x] : weightOf(i);
      const double weight = share * stored.factors[i];
      if (variances) sums[x] += weight * weight * stored.variances[i][x];
      weights[x] += share;
      found[x] |= stored.flags[i][x];
    }
  }
  if (variances && !isMean) {
    // The mean variance of n values, and what a median of them has of it.
    for (int x = 0; x < size; ++x) {
      const int n = columns.Counts()[x];
      sums[x] *= n * MedianVariance(n);
    }
  }
  RunInLongVectors([=, counts = columns.Counts(), sum = sums.data(), all = weights.data(),
                    any = found.data()]() KORIMG_IN_LOOP {
    for (int x = 0; variances && x < size; ++x) {
      variances[x] = static_cast<float>(sum[x] / (all[x] * all[x]));
    }
    for (int x = 0; flags && x < size; ++x) {
      const auto n = static_cast<float>(counts[x]);
      const int none = n == 0 ? CImgStack::NoValue : 0, marked = any[x] & CImgStack::Marked,
                manyLow = ((low[x] > 0) & (3 * low[x] >= n)) ? CImgStack::ManyLow : 0,
                manyHigh = ((high[x] > 0) & (3 * high[x] >= n)) ? CImgStack::ManyHigh : 0;
      flags[x] = static_cast<float>(none | marked | manyLow | manyHigh);
    }
  });
}

bool HasNegativeLobes(int method) {
  return method == CInterp::MethodBicubic || method == CInterp::MethodLanczos2 ||
         method == CInterp::MethodLanczos3;
}

}  // namespace

CImgStack::CImgStack(CVelImage* target) : CImgMedianComposit(target, 0) {}
CImgStack::~CImgStack() = default;

void CImgStack::SetWeights(std::span<const PlaneWeights> weights) {
  for (const PlaneWeights& planes : weights) {
    for (const double weight : planes) {
      if (!(weight > 0) || !std::isfinite(weight)) throw new CInvalidArgException;
    }
  }
  weights_.assign(weights.begin(), weights.end());
}

void CImgStack::SetRejectionMaps(CVelImage* low, CVelImage* high) {
  lowMap_ = low;
  highMap_ = high;
}

int CImgStack::Store(int slot, CVelImage* frame, int yStart, int yEnd, double dx, double dy, double radians,
                     int method, const FrameLevels* levels) {
  // Shifts of contiguous frames are bicubic always; an angle that moves no pixel takes the road of turns. The
  // lines of paged frames honour the method.
  constexpr double kNone = 1e-12;  // radians
  const CInterp::Form form = CInterp::FormOf(dx, dy, radians);
  if (form == CInterp::FloatShift && IsContiguous(*frame) && method != CInterp::MethodBicubic)
    radians = kNone;
  const int stored =
      CImgMedianComposit::Store(slot, frame, yStart, yEnd, dx, dy, radians, 0, 0, nullptr, method);
  const bool raises = HasNegativeLobes(method) && form != CInterp::WholeShift && levels;
  if (!stored || !(raises || feather_ > 0)) return stored;
  const double c = std::cos(radians), s = std::sin(radians), cx = frame->GetWidth() * 0.5,
               cy = frame->GetHeight() * 0.5;
  const auto placeOf = [=](int x, int y) {
    const double u = x - cx - dx, v = cy - y + dy;
    return Point{c * u - s * v + cx, cy - (s * u + c * v)};
  };
  if (raises) RaiseUndershoot(slot, *frame, yStart, yEnd, placeOf, *levels);
  if (feather_ > 0) Fade(slot, *frame, yStart, yEnd, placeOf);
  return stored;
}

int CImgStack::Store(int slot, CVelImage* frame, int yStart, int yEnd, const CFrameMap& map, int method,
                     const FrameLevels* levels) {
  const int width = Target().GetWidth(), planes = Target().GetPlanes(),
            rows = EndOfBand(yStart, yEnd) - yStart;
  if (slot < 0 || slot >= Slots() || frame->IsEmpty() || rows <= 0 || CInterp::GetString(method).IsEmpty())
    return 0;
  const MapRows from(map.Inverse(), width, yStart, rows);
  for (int p = 0; p < planes; ++p) {
    WarpRows(*frame, p < frame->GetPlanes() ? p : 0, from, method, 0.0f,
             {Band(slot).Values() + 1L * p * width, Band(slot).Valid() + 1L * p * width, width, rows,
              1L * planes * width});
  }
  const auto placeOf = [&](int x, int y) { return from.At(x, y - yStart); };
  if (HasNegativeLobes(method) && levels) RaiseUndershoot(slot, *frame, yStart, yEnd, placeOf, *levels);
  if (feather_ > 0) Fade(slot, *frame, yStart, yEnd, placeOf);
  return 1;
}

/// Tells by the flags how much each pixel counts. Pixel (x, y) of the target is read at placeOf(x, y).
template <class F>
void CImgStack::Fade(int slot, const CVelImage& frame, int yStart, int yEnd, F&& placeOf) {
  const int width = Target().GetWidth(), planes = Target().GetPlanes();
  const double right = frame.GetWidth(), bottom = frame.GetHeight();
  ForLines(Team::All, yStart, EndOfBand(yStart, yEnd), [&](int y) {
    int* const valid = Band(slot).Valid() + (y - yStart) * 1LL * planes * width;
    for (int x = 0; x < width; ++x) {
      if (!valid[x]) continue;
      const Point p = placeOf(x, y);
      const double inside = std::min({p.x + 1, p.y + 1, right - p.x, bottom - p.y});
      const int share = static_cast<int>(CLineData::kWhole * std::clamp(inside / feather_, 0.0, 1.0));
      for (int k = 0; k < planes; ++k) {
        valid[k * 1LL * width + x] = 1 | std::max(share, 1) << CLineData::kShareBits;
      }
    }
  });
}

/// Pixel (x, y) of the target is read at placeOf(x, y) of the frame.
template <class F>
void CImgStack::RaiseUndershoot(int slot, CVelImage& frame, int yStart, int yEnd, F&& placeOf,
                                const FrameLevels& levels) {
  constexpr double kSigmas = 5;  // chosen: noise alone does not undershoot so far
  const int width = Target().GetWidth(), planes = Target().GetPlanes();
  // The lowest of the four pixels around.
  const auto lowest = [&](int x, int y, int plane) {
    const auto inside = [](double at, int size) { return static_cast<int>(std::clamp(at, 0.0, size - 1.0)); };
    const Point place = placeOf(x, y);
    const double left = std::floor(place.x), top = std::floor(place.y);
    const int x0 = inside(left, frame.GetWidth()), x1 = inside(left + 1, frame.GetWidth());
    float least = std::numeric_limits<float>::infinity();
    for (const double line : {top, top + 1}) {
      const float* row = frame.GetLine(0, inside(line, frame.GetHeight()), plane);
      least = std::min({least, row[x0], row[x1]});
    }
    return least;
  };
  ForLines(Team::All, yStart, EndOfBand(yStart, yEnd), [&](int y) {
    for (int p = 0; p < planes; ++p) {
      const double depth = kSigmas * levels.noise[std::min(p, 2)];
      const auto floor = static_cast<float>(levels.level[std::min(p, 2)] - depth);
      const int plane = std::min(p, frame.GetPlanes() - 1);
      const long long first = ((y - yStart) * 1LL * planes + p) * width;
      float* values = Band(slot).Values() + first;
      const int* valid = Band(slot).Valid() + first;
      int low = 0;
      RunInLongVectors([=, &low]() KORIMG_IN_LOOP {
        int count = 0;
        for (int x = 0; x < width; ++x) {
          count += (values[x] < floor) & (valid[x] != 0);
        }
        low = count;
      });
      for (int x = 0; low > 0 && x < width; ++x) {
        if (!(values[x] < floor) || !valid[x]) continue;
        --low;
        const float least = lowest(x, y, plane);
        if (values[x] < least - depth) values[x] = least;
      }
    }
  });
}

std::vector<int> CImgStack::RowsToSample() {
  const CVelImage& target = Target();
  scatter_ =
      std::make_unique<FrameScatter>(Slots(), target.GetWidth(), target.GetHeight(), target.GetPlanes());
  std::vector<int> rows;
  for (int i = 0; i < scatter_->Samples(); ++i) {
    rows.push_back(scatter_->RowOf(i));
  }
  return rows;
}

void CImgStack::Sample(int number) {
  const int width = Target().GetWidth(), y = scatter_->RowOf(number);
  std::vector<float> values(1UL * Slots() * width), medians(width);
  ForColumns(y, y, false, NormalizeItems() > 0, true, {}, [&](Columns& columns, const Part& part) {
    for (int i = 0; i < columns.Frames(); ++i) {
      std::copy_n(columns.Row(i), columns.Size(), values.begin() + 1L * i * width + part.x);
    }
    columns.Sort();
    columns.Medians(medians.data() + part.x);
    for (int x = 0; x < columns.Size(); ++x) {
      if (columns.Counts()[x] == 0) medians[part.x + x] = Columns::kMissing;
    }
    if (part.x + columns.Size() == width) scatter_->Add(number, part.plane, values, medians);
  });
}

void CImgStack::SettleSamples() {
  scatter_->Settle();
  if (!scatter_->IsKnown()) scatter_.reset();
}

double CImgStack::NoiseOf(int slot, int plane) const {
  return scatter_ ? scatter_->Noise(slot, plane) : 0;
}

long long CImgStack::BytesOfThread(size_t frames, bool fades) {
  // Of a value: sorted, as it was, its distance, and its part of sums and limits; and its share.
  const long long bytes = fades ? 24 : 20;
  const int count = static_cast<int>(frames);
  return bytes * count * ColumnsAtOnce(count);
}

void CImgStack::Stack(Method method, const Rejection& rejection, int y0, int y1) {
  const auto storedAt = [&](const Part& part) {
    const long long at =
        ((part.y - y0) * 1LL * Target().GetPlanes() + part.plane) * Target().GetWidth() + part.x;
    StoredQuality stored;
    for (int i = 0; i < Slots(); ++i) {
      if (varianceMap_) stored.variances.push_back(variances_[i]->Values() + at);
      stored.flags.push_back(Band(i).Valid() + at);
      stored.factors.push_back(NormalizeFactor(i, part.plane));
    }
    return stored;
  };
  weights_.resize(Slots(), {1, 1, 1});
  counts_.resize(Slots());
  std::mutex mutex;
  const FrameScatter* scatter =
      method == Mean && rejection.test != Rejection::None ? scatter_.get() : nullptr;
  ForColumns(
      y0, y1, true, NormalizeItems() > 0, true, weights_,
      [&, statistic = Statistic{method, rejection, weights_, scatter, feather_ > 0,
                                varianceMap_ || flagMap_}](Columns& columns, const Part& part) mutable {
        float* out = Target().GetWritableLine(part.x, part.y, part.plane);
        statistic(columns, part.x, part.y, part.plane, out);
        for (int x = 0; x < columns.Size(); ++x) {
          if (columns.Counts()[x] == 0) out[x] = outside_;
        }
        if (statistic.judges) {
          const auto lineOf = [&](CVelImage* map) {
            return map ? map->GetWritableLine(part.x, part.y, part.plane) : nullptr;
          };
          Judge(columns, statistic, storedAt(part), lineOf(varianceMap_), lineOf(flagMap_));
        }
        for (const auto& [map, found] :
             {std::pair(lowMap_, &statistic.work.lowCount), {highMap_, &statistic.work.highCount}}) {
          if (map)
            std::copy_n(found->data(), columns.Size(), map->GetWritableLine(part.x, part.y, part.plane));
        }
        for (const auto& [slot, x] : statistic.work.rejected) {
          if (rejected_) rejected_(slot, part.x + x, part.y, part.plane);
        }
        const std::lock_guard lock(mutex);
        for (int i = 0; i < Slots(); ++i) {
          counts_[i] += statistic.counts[i];
        }
      },
      scatter, feather_ > 0);
  ShowBand(y1);
}
