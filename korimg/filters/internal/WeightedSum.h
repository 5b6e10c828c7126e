// The inner loop of all convolutions by lines. Internal.
#pragma once

#include "korimg/image/internal/Vectors.h"

namespace korimg {

/// Columns that are summed up side by side, in registers: eight vectors, written as such, since compilers do
/// not see that all their sums may stay there.
template <class T>
constexpr int kSumBlock = 256 / sizeof(T);

/// Writes the sums of weights[k] * taps[k][x] over k for x from 0 to columns - 1, in the type of the values
/// and in the order of k.
template <class T>
void WeightedSum(const T* const* taps, const T* weights, int count, int columns, T* result) {
  RunInLongVectors([=]() KORIMG_IN_LOOP {
    constexpr int kVectors = 8, kLanes = kSumBlock<T> / kVectors;
    using Vector __attribute__((vector_size(kLanes * sizeof(T)), aligned(alignof(T)), may_alias)) = T;
    int x = 0;
    for (; x + kSumBlock<T> <= columns; x += kSumBlock<T>) {
      Vector sums[kVectors] = {};
      for (int k = 0; k < count; ++k) {
        const auto* tap = reinterpret_cast<const Vector*>(taps[k] + x);
        for (int v = 0; v < kVectors; ++v) {
          sums[v] += weights[k] * tap[v];
        }
      }
      for (int v = 0; v < kVectors; ++v) {
        reinterpret_cast<Vector*>(result + x)[v] = sums[v];
      }
    }
    for (; x < columns; ++x) {
      T sum = 0;
      for (int k = 0; k < count; ++k) {
        sum += weights[k] * taps[k][x];
      }
      result[x] = sum;
    }
  });
}

}  // namespace korimg
