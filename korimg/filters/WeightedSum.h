// The inner loop of all convolutions by lines. Internal.
#pragma once

namespace korimg {

/// Writes the sums of weights[k] * taps[k][x] over k for x from 0 to columns - 1: in float and in the order
/// of k, many columns side by side.
inline void WeightedSum(float const* const* taps, float const* weights, int count, int columns,
                        float* result) {
  constexpr int kBlock = 32;  // what the registers of any processor hold
  int x = 0;
  for (; x + kBlock <= columns; x += kBlock) {
    float sum[kBlock] = {};
    for (int k = 0; k < count; ++k) {
      float const* tap = taps[k] + x;
      const float weight = weights[k];
#pragma GCC unroll 32
      for (int i = 0; i < kBlock; ++i) {
        sum[i] += weight * tap[i];
      }
    }
    for (int i = 0; i < kBlock; ++i) {
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
}

}  // namespace korimg
