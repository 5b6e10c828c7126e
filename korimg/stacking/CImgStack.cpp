#include "korimg/stacking/CImgStack.h"

#include <mutex>

#include "korimg/geometry/CInterp.h"
#include "korimg/stacking/StackColumns.h"

using namespace korimg;

namespace {

using Clip = CImgStack::Clip;

/// Sums and limits of the columns of a part.
struct Work {
  std::vector<float> values;          ///< by frames, as the columns had them before they were sorted
  std::vector<double> first, second;  ///< two sums
  std::vector<double> medians;
  std::vector<int> from, to;     ///< ranks that clipping leaves
  std::vector<int> open;         ///< columns that may lose more
  std::vector<float> low, high;  ///< the least and largest value that it leaves
  std::vector<float> lowCount, highCount;

  void Resize(int columns) {
    for (auto* doubles : {&first, &second, &medians}) {
      doubles->resize(columns);
    }
    for (auto* ranks : {&from, &to}) {
      ranks->resize(columns);
    }
    for (auto* floats : {&low, &high, &lowCount, &highCount}) {
      floats->resize(columns);
    }
  }
};

/// The median of the values of each column, and the sums of their distances from it and of the squares of
/// these.
void SumUp(Columns& sorted, Work& work) {
  double *linear = work.first.data(), *squares = work.second.data(), *medians = work.medians.data();
  int const* counts = sorted.Counts();
  const int columns = sorted.Size();
  for (int x = 0; x < columns; ++x) {
    medians[x] = sorted.Median(x);
    linear[x] = squares[x] = 0;
  }
  for (int i = 0; i < sorted.Frames(); ++i) {
    float const* row = sorted.Row(i);
    RunInLongVectors([=]() KORIMG_IN_LOOP {
      for (int x = 0; x < columns; ++x) {
        const double d = i < counts[x] ? row[x] - medians[x] : 0.0;
        linear[x] += d;
        squares[x] += d * d;
      }
    });
  }
}

/// The same of the values that are left in one column.
void SumUp(Columns& sorted, Work& work, int x) {
  const double median = sorted.Median(x, work.from[x], work.to[x]);
  double linear = 0, squares = 0;
  for (int i = work.from[x]; i < work.to[x]; ++i) {
    const double d = sorted.Row(i)[x] - median;
    linear += d;
    squares += d * d;
  }
  work.medians[x] = median;
  work.first[x] = linear;
  work.second[x] = squares;
}

/// Takes what lies too far from a column's median off the ranks that are left. False when that is nothing, or
/// would be all.
bool Reject(Columns& sorted, Clip const& clip, Work& work, int x) {
  int from = work.from[x], to = work.to[x];
  const int n = to - from;
  if (n < 3) return false;
  const double mean = work.first[x] / n;
  const double deviation = std::sqrt(std::max(work.second[x] / n - mean * mean, 0.0));
  const double low = work.medians[x] - clip.low * deviation, high = work.medians[x] + clip.high * deviation;
  while (from < to && sorted.Row(from)[x] < low) {
    ++from;
  }
  while (from < to && sorted.Row(to - 1)[x] > high) {
    --to;
  }
  if (from == to || to - from == n) return false;
  work.from[x] = from;
  work.to[x] = to;
  return true;
}

/// Sorts the columns, and finds the least and largest value of each that clipping leaves.
void FindLimits(Columns& columns, Clip const& clip, Work& work) {
  columns.Sort();
  const int size = columns.Size();
  std::fill_n(work.from.begin(), size, 0);
  std::copy_n(columns.Counts(), size, work.to.begin());
  // The first round is for all columns side by side; most of them are done then.
  work.open.clear();
  if (clip.iterations > 0) SumUp(columns, work);
  for (int x = 0; clip.iterations > 0 && x < size; ++x) {
    if (Reject(columns, clip, work, x)) work.open.push_back(x);
  }
  for (int round = 1; round < clip.iterations && !work.open.empty(); ++round) {
    std::erase_if(work.open, [&](int x) {
      SumUp(columns, work, x);
      return !Reject(columns, clip, work, x);
    });
  }
  for (int x = 0; x < size; ++x) {
    const bool any = columns.Counts()[x] > 0;
    work.low[x] = any ? columns.Row(work.from[x])[x] : 0;
    work.high[x] = any ? columns.Row(work.to[x] - 1)[x] : 0;
  }
}

/// Weighted means of the values within the limits, and what lies beyond.
void Means(Work& work, int frames, int stride, double const* weights, int columns, CImgStack::Counts* counts,
           float* out) {
  double *sum = work.first.data(), *weight = work.second.data();
  float const *low = work.low.data(), *high = work.high.data();
  float *lowCount = work.lowCount.data(), *highCount = work.highCount.data();
  std::fill_n(sum, columns, 0.0);
  std::fill_n(weight, columns, 0.0);
  std::fill_n(lowCount, columns, 0.0f);
  std::fill_n(highCount, columns, 0.0f);
  for (int i = 0; i < frames; ++i) {
    float const* row = work.values.data() + static_cast<size_t>(i) * stride;
    CImgStack::Counts& count = counts[i];
    RunInLongVectors([=, w = weights[i], &count]() KORIMG_IN_LOOP {
      int all = 0, below = 0, above = 0;
      for (int x = 0; x < columns; ++x) {
        const bool there = row[x] < Columns::kMissing, isLow = row[x] < low[x],
                   isHigh = there & (row[x] > high[x]), keeps = there & !isLow & !isHigh;
        sum[x] += keeps ? w * row[x] : 0.0;
        weight[x] += keeps ? w : 0.0;
        lowCount[x] += isLow ? 1.0f : 0.0f;
        highCount[x] += isHigh ? 1.0f : 0.0f;
        all += there;
        below += isLow;
        above += isHigh;
      }
      count.values += all;
      count.low += below;
      count.high += above;
    });
  }
  for (int x = 0; x < columns; ++x) {
    out[x] = static_cast<float>(sum[x] / weight[x]);
  }
}

/// How many values each frame has in the columns.
void CountValues(Columns& columns, CImgStack::Counts* counts) {
  for (int i = 0; i < columns.Frames(); ++i) {
    float const* row = columns.Row(i);
    RunInLongVectors([=, size = columns.Size(), &values = counts[i].values]() KORIMG_IN_LOOP {
      int all = 0;
      for (int x = 0; x < size; ++x) {
        all += row[x] < Columns::kMissing;
      }
      values += all;
    });
  }
}

void Extremes(Columns& columns, bool largest, float* out) {
  constexpr float kMissing = Columns::kMissing;
  std::fill_n(out, columns.Size(), largest ? -kMissing : kMissing);
  for (int i = 0; i < columns.Frames(); ++i) {
    float const* row = columns.Row(i);
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
  Clip clip;
  std::vector<double> const& weights;
  Work work = {};
  std::vector<CImgStack::Counts> counts = {};

  void operator()(Columns& columns, float* out) {
    const int size = columns.Size(), frames = columns.Frames();
    work.Resize(columns.Most());
    counts.assign(frames, {});
    if (method == CImgStack::Mean || method == CImgStack::ClippedMean) {
      work.values.assign(columns.Row(0), columns.Row(0) + static_cast<size_t>(frames) * columns.Most());
      if (method == CImgStack::ClippedMean) {
        FindLimits(columns, clip, work);
      } else {
        std::fill_n(work.low.begin(), size, std::numeric_limits<float>::lowest());
        std::fill_n(work.high.begin(), size, std::numeric_limits<float>::max());
      }
      Means(work, frames, columns.Most(), weights.data(), size, counts.data(), out);
      return;
    }
    CountValues(columns, counts.data());
    if (method == CImgStack::Median) {
      columns.Sort();
      columns.Medians(out);
    } else {
      Extremes(columns, method == CImgStack::Maximum, out);
    }
  }
};

}  // namespace

CImgStack::CImgStack(CVelImage* target) : CImgMedianComposit(target, 0) {}

void CImgStack::SetWeights(std::span<double const> weights) {
  for (const double weight : weights) {
    if (!(weight > 0) || !std::isfinite(weight)) throw new CInvalidArgException;
  }
  weights_.assign(weights.begin(), weights.end());
}

void CImgStack::SetRejectionMaps(CVelImage* low, CVelImage* high) {
  lowMap_ = low;
  highMap_ = high;
}

int CImgStack::Store(int slot, CVelImage* frame, int yStart, int yEnd, double dx, double dy, double radians,
                     int method) {
  // Shifts of contiguous frames are bicubic always; an angle that moves no pixel takes the road of turns.
  constexpr double kNone = 1e-12;
  const bool whole = dx == std::floor(dx) && dy == std::floor(dy);
  if (radians == 0 && !whole && method != CInterp::MethodBicubic) radians = kNone;
  return CImgMedianComposit::Store(slot, frame, yStart, yEnd, dx, dy, radians, 0, 0, nullptr, method);
}

void CImgStack::Stack(Method method, Clip const& clip, int y0, int y1) {
  weights_.resize(Slots(), 1.0);
  counts_.resize(Slots());
  std::mutex mutex;
  ForColumns(y0, y1, true, NormalizeItems() > 0, true,
             [&, statistic = Statistic{method, clip, weights_}](Columns& columns, Part const& part) mutable {
               float* out = Target().GetWritableLine(part.x, part.y, part.plane);
               statistic(columns, out);
               for (int x = 0; x < columns.Size(); ++x) {
                 if (columns.Counts()[x] == 0) out[x] = outside_;
               }
               const bool clips = method == ClippedMean;
               for (const auto& [map, found] :
                    {std::pair(lowMap_, &statistic.work.lowCount), {highMap_, &statistic.work.highCount}}) {
                 if (!map) continue;
                 float* line = map->GetWritableLine(part.x, part.y, part.plane);
                 std::fill_n(line, columns.Size(), 0.0f);
                 if (clips) std::copy_n(found->data(), columns.Size(), line);
               }
               const std::lock_guard lock(mutex);
               for (int i = 0; i < Slots(); ++i) {
                 counts_[i] += statistic.counts[i];
               }
             });
  ShowBand(y1);
}
