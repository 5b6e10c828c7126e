#include "korimg/composite/stacking/CImgStack.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <mutex>
#include <numeric>

#include "korimg/composite/stacking/internal/StackColumns.h"
#include "korimg/geometry/CInterp.h"

using namespace korimg;

namespace {

using Clip = CImgStack::Clip;

/// Sums and limits of the columns of a part.
struct Work {
  std::vector<float> values;          ///< by frames, as the columns had them before they were sorted
  std::vector<double> first, second;  ///< two sums
  std::vector<double> medians;
  std::vector<int> from, to;     ///< ranks that are left
  std::vector<int> open;         ///< columns that may lose more
  std::vector<float> low, high;  ///< the least and largest value that are left
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
  const int* counts = sorted.Counts();
  const int columns = sorted.Size();
  for (int x = 0; x < columns; ++x) {
    medians[x] = sorted.Median(x);
    linear[x] = squares[x] = 0;
  }
  for (int i = 0; i < sorted.Frames(); ++i) {
    const float* row = sorted.Row(i);
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
bool Reject(Columns& sorted, const Clip& clip, Work& work, int x) {
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

/// Nothing is rejected yet.
void KeepAll(const Columns& columns, Work& work) {
  const int size = columns.Size();
  std::fill_n(work.from.begin(), size, 0);
  std::copy_n(columns.Counts(), size, work.to.begin());
  std::fill_n(work.low.begin(), size, -Columns::kMissing);
  std::fill_n(work.high.begin(), size, Columns::kMissing);
}

/// Sorts the columns, and rejects what lies too far from the others.
void ClipColumns(Columns& columns, const Clip& clip, Work& work) {
  if (clip.iterations <= 0) return;
  columns.Sort();
  // The first round is for all columns side by side; most of them are done then.
  work.open.clear();
  SumUp(columns, work);
  for (int x = 0; x < columns.Size(); ++x) {
    if (Reject(columns, clip, work, x)) work.open.push_back(x);
  }
  const std::vector<int> clipped = work.open;
  for (int round = 1; round < clip.iterations && !work.open.empty(); ++round) {
    std::erase_if(work.open, [&](int x) {
      SumUp(columns, work, x);
      return !Reject(columns, clip, work, x);
    });
  }
  for (const int x : clipped) {
    work.low[x] = columns.Row(work.from[x])[x];
    work.high[x] = columns.Row(work.to[x] - 1)[x];
  }
}

/// The weighted means of what is left, and what lies beyond. Only the few columns that lost a value are gone
/// through; the others have their sums.
void Means(const Columns& columns, Work& work, const double* weights, CImgStack::Counts* counts, float* out) {
  const int frames = columns.Frames(), stride = columns.Most();
  const double all = std::accumulate(weights, weights + frames, 0.0);
  for (int x = 0; x < columns.Size(); ++x) {
    const int lowCount = work.from[x], highCount = columns.Counts()[x] - work.to[x];
    work.lowCount[x] = static_cast<float>(lowCount);
    work.highCount[x] = static_cast<float>(highCount);
    if (work.to[x] - lowCount == frames) {
      out[x] = static_cast<float>(columns.Sums()[x] / all);
      continue;
    }
    double sum = 0, weight = 0;
    for (int i = 0; i < frames; ++i) {
      const float v = work.values[static_cast<size_t>(i) * stride + x];
      const bool there = v < Columns::kMissing, isLow = v < work.low[x], isHigh = there && v > work.high[x];
      counts[i].low += isLow;
      counts[i].high += isHigh;
      if (!there || isLow || isHigh) continue;
      sum += weights[i] * v;
      weight += weights[i];
    }
    out[x] = static_cast<float>(sum / weight);
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
  Clip clip;
  const std::vector<double>& weights;
  Work work = {};
  std::vector<CImgStack::Counts> counts = {};

  void operator()(Columns& columns, float* out) {
    const int frames = columns.Frames();
    work.Resize(columns.Most());
    counts.assign(frames, {});
    for (int i = 0; i < frames; ++i) {
      counts[i].values = columns.Present(i);
    }
    if (method == CImgStack::Mean || method == CImgStack::ClippedMean) {
      work.values.assign(columns.Row(0), columns.Row(0) + static_cast<size_t>(frames) * columns.Most());
      KeepAll(columns, work);
      if (method == CImgStack::ClippedMean) ClipColumns(columns, clip, work);
      Means(columns, work, weights.data(), counts.data(), out);
      return;
    }
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

void CImgStack::SetWeights(std::span<const double> weights) {
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
                     int method, const FrameLevels* levels) {
  // Shifts of contiguous frames are bicubic always; an angle that moves no pixel takes the road of turns. The
  // lines of paged frames honour the method.
  constexpr double kNone = 1e-12;
  const CInterp::Form form = CInterp::FormOf(dx, dy, radians);
  if (form == CInterp::FloatShift && IsContiguous(*frame) && method != CInterp::MethodBicubic)
    radians = kNone;
  const int stored =
      CImgMedianComposit::Store(slot, frame, yStart, yEnd, dx, dy, radians, 0, 0, nullptr, method);
  const bool hasNegativeLobes = method == CInterp::MethodBicubic || method == CInterp::MethodLanczos2 ||
                                method == CInterp::MethodLanczos3;
  if (stored && hasNegativeLobes && form != CInterp::WholeShift && levels) {
    RaiseUndershoot(slot, *frame, yStart, yEnd, dx, dy, radians, *levels);
  }
  return stored;
}

void CImgStack::RaiseUndershoot(int slot, CVelImage& frame, int yStart, int yEnd, double dx, double dy,
                                double radians, const FrameLevels& levels) {
  constexpr double kSigmas = 5;
  const int width = Target().GetWidth(), planes = Target().GetPlanes();
  const double c = std::cos(radians), s = std::sin(radians), cx = frame.GetWidth() * 0.5,
               cy = frame.GetHeight() * 0.5;
  // The lowest of the four pixels around where pixel (x, y) of the target is read.
  const auto lowest = [&](int x, int y, int plane) {
    const double u = x - cx - dx, v = cy - y + dy;
    const auto inside = [](double at, int size) { return static_cast<int>(std::clamp(at, 0.0, size - 1.0)); };
    const double left = std::floor(c * u - s * v + cx), top = std::floor(cy - (s * u + c * v));
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

long long CImgStack::BytesOfThread(size_t frames) {
  constexpr long long kBytes = 16;  // of a value: sorted, as it was, and its share of sums and limits
  const int count = static_cast<int>(frames);
  return kBytes * count * ColumnsAtOnce(count);
}

void CImgStack::Stack(Method method, const Clip& clip, int y0, int y1) {
  weights_.resize(Slots(), 1.0);
  counts_.resize(Slots());
  std::mutex mutex;
  ForColumns(y0, y1, true, NormalizeItems() > 0, true, weights_,
             [&, statistic = Statistic{method, clip, weights_}](Columns& columns, const Part& part) mutable {
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
