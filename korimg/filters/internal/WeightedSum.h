// The inner loop of all convolutions by lines. Internal.
#pragma once

#include "korimg/image/internal/Vectors.h"

namespace korimg {

/// Columns that are summed up side by side, in registers.
constexpr int kSumBlock = 64;

/// Writes the sums of weights[k] * taps[k][x] over k for x from 0 to columns - 1, in float and in the order
/// of k.
inline void WeightedSum(const float* const* taps, const float* weights, int count, int columns,
                        float* result) {
  RunInLongVectors([=]() KORIMG_IN_LOOP {
    int x = 0;
    for (; x + kSumBlock <= columns; x += kSumBlock) {
      float sum[kSumBlock] = {};
      for (int k = 0; k < count; ++k) {
        const float* tap = taps[k] + x;
        const float weight = weights[k];
#pragma GCC unroll 64
        for (int i = 0; i < kSumBlock; ++i) {
          sum[i] += weight * tap[i];
        }
      }
      for (int i = 0; i < kSumBlock; ++i) {
        result[x + i] = sum[i];
      }
    }
    for (; x < columns; ++x) {
      float sum = 0;
      for (int k = 0; k < count; ++k) {
        sum += weights[k] * taps[k][x];
      }
      result[x] = sum;
    }
  });
}

}  // namespace korimg
