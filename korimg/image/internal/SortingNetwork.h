// Sorting by the same exchanges for every column, so that they run on whole vectors of columns. Internal.
#pragma once

#include <utility>
#include <vector>

#include "korimg/image/internal/Vectors.h"

namespace korimg {

using Network = std::vector<std::pair<int, int>>;

/// Makes Batcher's merge exchange (1968): pairs to bring into order in turn, which sort any number of values.
inline Network MakeNetwork(int count) {
  Network network;
  int top = 1;
  while (top * 2 < count) {
    top *= 2;
  }
  for (int p = top; p > 0; p /= 2) {
    for (int q = top, r = 0, d = p;; d = q - p, q /= 2, r = p) {
      for (int i = 0; i + d < count; ++i) {
        if ((i & p) == r) network.emplace_back(i, i + d);
      }
      if (q == p) break;
    }
  }
  return network;
}

/// Brings each column's pair into order.
KORIMG_IN_LOOP inline void Exchange(float* __restrict a, float* __restrict b, int columns) {
  for (int x = 0; x < columns; ++x) {
    const float low = a[x] < b[x] ? a[x] : b[x], high = a[x] < b[x] ? b[x] : a[x];
    a[x] = low;
    b[x] = high;
  }
}

}  // namespace korimg
