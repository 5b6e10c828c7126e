// Bands of a stack by columns: the values of some pixels of all frames side by side, in order. Internal.
#pragma once

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>
#include <vector>

#include "korimg/composite/stacking/CImgMedianComposit.h"
#include "korimg/composite/stacking/internal/FrameScatter.h"
#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/Numbers.h"
#include "korimg/image/internal/SortingNetwork.h"

namespace korimg {

/// Tells how a frame's plane is brought to the reference.
struct Normaliser {
  double centre = 0, factor = 1, add = 0;
  bool constant = false;

  Normaliser() = default;
  Normaliser(double a, double b, double referenceA, double referenceB) {
    if (referenceB < 0 || b < 0) return;
    constant = referenceB == 0;
    add = referenceA;
    if (constant) return;
    if (b == 0) {
      add = 0;
      return;
    }
    centre = a;
    factor = referenceB / b;
  }
  KORIMG_IN_LOOP double operator()(float v) const { return constant ? add : (v - centre) * factor + add; }
};

/// Columns that are sorted together: as many as stay in the first-level cache of 32 KiB; the least is chosen.
inline int ColumnsAtOnce(int frames) {
  constexpr int kCached = 8192, kLeast = 384;
  return std::max(kCached / std::max(frames, 1) / 16 * 16, kLeast);
}

/// Holds the values of some columns of all frames, as rows: once sorted, of column x the first Counts()[x]
/// are real.
class Columns {
 public:
  static constexpr float kMissing = std::numeric_limits<float>::infinity();

  /// Makes room for rows of this width. `finiteOnly`: NaN and infinities are missing too.
  Columns(int frames, int width, const Network& network, bool finiteOnly)
      : frames_(frames),
        finiteOnly_(finiteOnly),
        most_(std::min(ColumnsAtOnce(frames), (width + 15) / 16 * 16)),
        network_(network),
        values_(1LL * frames * most_),
        counts_(most_),
        sums_(most_),
        present_(frames) {}

  int Frames() const { return frames_; }
  int Most() const { return most_; }
  int Size() const { return columns_; }
  const int* Counts() const { return counts_.data(); }
  /// Answers the weighted sums of the columns' values.
  const double* Sums() const { return sums_.data(); }
  /// Answers the share of its weight that frame i has in each column; null unless frames fade.
  const float* Shares(int i) const {
    return shares_.empty() ? nullptr : shares_.data() + static_cast<size_t>(i) * most_;
  }
  /// Answers the number of columns in which frame i has a real value.
  int Present(int i) const { return present_[i]; }
  /// Answers frame i's values, or when sorted the values of rank i.
  float* Row(int i) { return values_.data() + static_cast<size_t>(i) * most_; }
  /// Answers the median of column x, sorted, or of those of its values with ranks from `first` to `end` - 1.
  float Median(int x) { return Median(x, 0, counts_[x]); }
  float Median(int x, int first, int end) {
    if (end <= first) return 0;
    const int n = end - first;
    const float* upper = Row(first + n / 2) + x;
    return n % 2 ? *upper : (*(upper - most_) + *upper) * 0.5f;
  }
  void Medians(float* out) {
    const bool isWhole = std::all_of(present_.begin(), present_.end(), [&](int n) { return n == columns_; });
    if (isWhole && frames_ > 0) {
      // The common case, by vectors: the middle has the same ranks in all columns.
      const float *lower = Row((frames_ - 1) / 2), *upper = Row(frames_ / 2);
      RunInLongVectors([=, columns = columns_]() KORIMG_IN_LOOP {
        for (int x = 0; x < columns; ++x) {
          out[x] = lower == upper ? upper[x] : (lower[x] + upper[x]) * 0.5f;
        }
      });
      return;
    }
    for (int x = 0; x < columns_; ++x) {
      out[x] = Median(x);
    }
  }

  void Start(int columns) {
    columns_ = columns;
    std::fill_n(counts_.begin(), columns, 0);
    std::fill_n(sums_.begin(), columns, 0.0);
    hasNan_ = false;
  }

  /// Adds frame i's values, less its `offsets`, if any; sums are of the values as they are. What is missing
  /// sorts to the end.
  void Add(int i, const float* values, const int* valid, const Normaliser& normalise, double weight = 1,
           const float* offsets = nullptr) {
    float* row = Row(i);
    int* counts = counts_.data();
    double* sums = sums_.data();
    int present = 0, nans = 0;
    RunInLongVectors([=, &present, &nans, columns = columns_, any = !finiteOnly_]() KORIMG_IN_LOOP {
      int all = 0, notNumbers = 0;
      for (int x = 0; x < columns; ++x) {
        const double v = normalise(values[x]);
        const auto number = static_cast<float>(v);
        const bool there = (valid[x] != 0) & (any | (number - number == 0));
        row[x] = there ? number : kMissing;
        counts[x] += there;
        sums[x] += there ? weight * v : 0.0;
        all += there;
        notNumbers += there & (number != number);
      }
      present = all;
      nans = notNumbers;
    });
    present_[i] = present;
    hasNan_ |= nans > 0;
    if (!offsets) return;
    RunInLongVectors([=, columns = columns_]() KORIMG_IN_LOOP {
      for (int x = 0; x < columns; ++x) {
        row[x] -= offsets[x];
      }
    });
  }

  /// Lets the values that frame i has count by what it is there of a whole one: the share in `valid`.
  void Fade(int i, const float* values, const int* valid, const Normaliser& normalise, double weight) {
    shares_.resize(values_.size());
    const float* row = Row(i);
    float* shares = shares_.data() + static_cast<size_t>(i) * most_;
    double* sums = sums_.data();
    RunInLongVectors([=, columns = columns_]() KORIMG_IN_LOOP {
      for (int x = 0; x < columns; ++x) {
        shares[x] = static_cast<float>(valid[x] >> CLineData::kShareBits) * (1.0f / CLineData::kWhole);
        const double less = weight * (1.0 - shares[x]) * normalise(values[x]);
        sums[x] -= row[x] < kMissing ? less : 0.0;
      }
    });
  }

  /// Sorts other columns as these, rows by Most() too. They have no NaN.
  void SortRows(float* first, int columns) const {
    const auto most = static_cast<size_t>(most_);
    RunInLongVectors([&]() KORIMG_IN_LOOP {
      for (const auto& [i, j] : network_) {
        Exchange(first + i * most, first + j * most, columns);
      }
    });
  }

  void Sort() {
    // The network knows nothing of NaN.
    std::vector<std::pair<int, std::vector<float>>> aside;
    for (int x = 0; hasNan_ && x < columns_; ++x) {
      if (HasNan(x)) aside.emplace_back(x, TakeSorted(x));
    }
    SortRows(values_.data(), columns_);
    for (const auto& [x, column] : aside) {
      for (int i = 0; i < frames_; ++i) {
        Row(i)[x] = column[i];
      }
    }
  }

 private:
  bool HasNan(int x) {
    for (int i = 0; i < frames_; ++i) {
      if (std::isnan(Row(i)[x])) return true;
    }
    return false;
  }

  /// Answers a column with NaN in order: numbers, NaN, what is missing. It is left without NaN.
  std::vector<float> TakeSorted(int x) {
    std::vector<float> column;
    for (int i = 0; i < frames_; ++i) {
      column.push_back(std::exchange(Row(i)[x], 0.0f));
    }
    std::sort(column.begin(), column.end(), NanLast);
    // What is missing stands among the infinities at the end of the numbers.
    const auto firstNan = std::find_if(column.begin(), column.end(), [](float v) { return v != v; });
    std::rotate(firstNan - (frames_ - counts_[x]), firstNan, column.end());
    return column;
  }

  int frames_;
  bool finiteOnly_;
  int most_;
  int columns_ = 0;
  const Network& network_;
  std::vector<float> values_;
  std::vector<int> counts_;  ///< real values of each column
  std::vector<double> sums_;
  std::vector<float> shares_;
  std::vector<int> present_;
  bool hasNan_ = false;
};

}  // namespace korimg

/// Calls reduce(columns, part of the target) for the columns of each row and plane, values by frames. Each
/// row has its own copy of `reduce`. Without weights all are 1. With a scatter, frames lie on one sky; where
/// they fade, flags tell how much of a whole pixel counts.
template <class F>
void CImgMedianComposit::ForColumns(int y0, int y1, bool threaded, bool normalised, bool finiteOnly,
                                    std::span<const std::array<double, 3>> weights, F&& reduce,
                                    const korimg::FrameScatter* scatter, bool fades) {
  using namespace korimg;
  const int frames = static_cast<int>(store_.size()), width = target_->GetWidth(),
            planes = target_->GetPlanes();
  std::vector<Normaliser> normalisers(3LL * frames);
  for (int i = 0; normalised && i < frames; ++i) {
    for (int p = 0; p < 3; ++p) {
      normalisers[3 * i + p] = {items_[i].a[p], items_[i].b[p], referenceA_[p], referenceB_[p]};
    }
  }
  const Network network = MakeNetwork(frames);
  ForLines(threaded ? Team::All : Team::One, y0, EndOfBand(y0, y1), [&](int y) {
    Columns columns(frames, width, network, finiteOnly);
    auto part = reduce;
    std::vector<float> offsets(scatter ? columns.Most() : 0);
    for (int p = 0; p < planes; ++p) {
      const long long first = ((y - y0) * 1LL * planes + p) * width;
      for (int left = 0; left < width; left += columns.Most()) {
        columns.Start(std::min(columns.Most(), width - left));
        for (int i = 0; i < frames; ++i) {
          if (scatter) scatter->OffsetsOf(i, p, y, left, std::span(offsets).first(columns.Size()));
          const float* values = store_[i]->Values() + first + left;
          const int* valid = store_[i]->Valid() + first + left;
          const Normaliser& normalise = normalisers[3 * i + std::min(p, 2)];
          const double weight = weights.empty() ? 1 : weights[i][std::min(p, 2)];
          columns.Add(i, values, valid, normalise, weight, scatter ? offsets.data() : nullptr);
          if (fades) columns.Fade(i, values, valid, normalise, weight);
        }
        part(columns, Part{left, y, p});
      }
    }
  });
}
