// Separable filters over rows that come one after the other. Internal.
#pragma once

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

#include "korimg/filters/internal/WeightedSum.h"

namespace korimg {

/// Filters by the same weights, an odd number of them, along x and y. It takes row after row, filters each
/// along x with its ends repeated, and keeps as many as there are weights, the last ones; their weighted sum
/// is a row of the result, that of the row in the middle. Weights of 0 do not count, whatever lies under
/// them.
template <class T>
class FilteredRows {
 public:
  FilteredRows(std::vector<T> weights, int width)
      : count_(static_cast<int>(weights.size())),
        width_(width),
        cells_(Place(0, width + kBlock - 1)),
        padded_(static_cast<size_t>(width) + weights.size() - 1) {
    for (int k = 0; k < count_; ++k) {
      if (weights[k] == 0) continue;
      used_.push_back(k);
      weights_.push_back(weights[k]);
    }
    taps_.resize(used_.size());
  }

  /// Takes the next row; true once there are as many as a sum needs.
  bool Push(const T* row) {
    const int r = Count() / 2;
    std::fill_n(padded_.begin(), r, row[0]);
    std::copy_n(row, width_, padded_.begin() + r);
    std::fill_n(padded_.begin() + r + width_, r, row[width_ - 1]);
    for (int x = 0; x < width_; x += kBlock) {
      for (size_t j = 0; j < used_.size(); ++j) {
        taps_[j] = padded_.data() + x + used_[j];
      }
      WeightedSum(taps_.data(), weights_.data(), Used(), std::min(kBlock, width_ - x),
                  &cells_[Place(oldest_, x)]);
    }
    oldest_ = oldest_ + 1 == Count() ? 0 : oldest_ + 1;
    pushed_ = std::min(pushed_ + 1, Count());
    return pushed_ == Count();
  }

  /// Writes the sums of columns left to right - 1.
  void Sum(int left, int right, T* line) {
    for (int x = left, next = 0; x < right; x = next) {
      next = std::min((x / kBlock + 1) * kBlock, right);
      for (size_t j = 0; j < used_.size(); ++j) {
        taps_[j] = &cells_[Place(Slot(used_[j]), x)];
      }
      WeightedSum(taps_.data(), weights_.data(), Used(), next - x, line + x - left);
    }
  }
  T Sum(int x) const {
    T sum = 0;
    for (size_t j = 0; j < used_.size(); ++j) {
      sum += weights_[j] * cells_[Place(Slot(used_[j]), x)];
    }
    return sum;
  }

 private:
  static constexpr int kBlock = kSumBlock<T>;

  int Count() const { return count_; }
  int Used() const { return static_cast<int>(used_.size()); }
  /// Where row k lies, counted from the oldest.
  int Slot(int k) const { return oldest_ + k < Count() ? oldest_ + k : oldest_ + k - Count(); }
  /// Rows lie in blocks of columns: a walk down a block is a walk along memory.
  size_t Place(int slot, int x) const {
    return (static_cast<size_t>(x / kBlock) * count_ + slot) * kBlock + x % kBlock;
  }

  int count_;
  int width_;
  std::vector<int> used_;   ///< numbers of the weights that are not 0
  std::vector<T> weights_;  ///< these
  std::vector<T> cells_;
  std::vector<T> padded_;  ///< a row with its ends repeated
  std::vector<const T*> taps_;
  int oldest_ = 0;
  int pushed_ = 0;  ///< Count() at most
};

}  // namespace korimg
