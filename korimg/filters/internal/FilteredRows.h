// Separable filters over rows that come one after the other. Internal.
#pragma once

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

#include "korimg/filters/internal/WeightedSum.h"

namespace korimg {

/// A filter by the same weights, an odd number of them, along x and y. It takes row after row, filters each
/// along x with its ends repeated, and keeps as many as there are weights, the last ones; their weighted sum
/// is a row of the result, that of the row in the middle.
template <class T>
class FilteredRows {
 public:
  FilteredRows(std::vector<T> weights, int width)
      : weights_(std::move(weights)),
        width_(width),
        cells_(Place(0, width + kBlock - 1)),
        padded_(static_cast<size_t>(width) + weights_.size() - 1),
        taps_(weights_.size()) {}

  /// Takes the next row; true once there are as many as a sum needs.
  bool Push(const T* row) {
    const int r = Count() / 2;
    std::fill_n(padded_.begin(), r, row[0]);
    std::copy_n(row, width_, padded_.begin() + r);
    std::fill_n(padded_.begin() + r + width_, r, row[width_ - 1]);
    for (int x = 0; x < width_; x += kBlock) {
      for (int k = 0; k < Count(); ++k) {
        taps_[k] = padded_.data() + x + k;
      }
      WeightedSum(taps_.data(), weights_.data(), Count(), std::min(kBlock, width_ - x),
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
      for (int k = 0; k < Count(); ++k) {
        taps_[k] = &cells_[Place(Slot(k), x)];
      }
      WeightedSum(taps_.data(), weights_.data(), Count(), next - x, line + x - left);
    }
  }
  T Sum(int x) const {
    T sum = 0;
    for (int k = 0; k < Count(); ++k) {
      sum += weights_[k] * cells_[Place(Slot(k), x)];
    }
    return sum;
  }

 private:
  static constexpr int kBlock = kSumBlock<T>;

  int Count() const { return static_cast<int>(weights_.size()); }
  /// Where row k lies, counted from the oldest.
  int Slot(int k) const { return oldest_ + k < Count() ? oldest_ + k : oldest_ + k - Count(); }
  /// Rows lie in blocks of columns: a walk down a block is a walk along memory.
  size_t Place(int slot, int x) const {
    return (static_cast<size_t>(x / kBlock) * weights_.size() + slot) * kBlock + x % kBlock;
  }

  std::vector<T> weights_;
  int width_;
  std::vector<T> cells_;
  std::vector<T> padded_;  ///< a row with its ends repeated
  std::vector<const T*> taps_;
  int oldest_ = 0;
  int pushed_ = 0;  ///< Count() at most
};

}  // namespace korimg
