// Sums of lines whose bits do not depend on how they are computed. Internal.
#pragma once

#include <algorithm>

#include "korimg/image/internal/Frame.h"

namespace korimg {

/// Writes the sum of term(pixel) of each of a window's lines, in the order of its pixels. Several lines go
/// side by side, since each sum waits for itself.
template <class F>
void SumLines(CVelImage& image, const Window& window, int plane, const F& term, double* sums) {
  constexpr int kTogether = 8;
  const int together = IsContiguous(image) ? kTogether : 1;  // paged addresses do not last for more
  for (int first = 0; first < window.Height(); first += together) {
    const int count = std::min(together, window.Height() - first);
    const float* in[kTogether];
    for (int k = 0; k < count; ++k) {
      in[k] = image.GetLine(window.left, window.top + first + k, plane);
    }
    double sum[kTogether] = {};
    for (int x = 0; count == kTogether && x < window.Width(); ++x) {
      for (int k = 0; k < kTogether; ++k) {
        sum[k] += term(in[k][x]);
      }
    }
    for (int k = 0; count < kTogether && k < count; ++k) {
      for (int x = 0; x < window.Width(); ++x) {
        sum[k] += term(in[k][x]);
      }
    }
    std::copy_n(sum, count, sums + first);
  }
}

}  // namespace korimg
