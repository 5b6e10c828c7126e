// The step that all composite pipelines share: which blocks they get, and the window that they fill.
// Internal.
#pragma once

#include <algorithm>
#include <memory>

#include "korimg/image/Frame.h"

namespace korimg {

/// The smallest window that composite pipelines are given, where the image has room for it.
constexpr int kCompositeWidth = 64, kCompositeHeight = 32;

/// A rectangle clipped to the image and then widened to the smallest window, to the right and downward first,
/// and at the far edges to the left and upward: pixels next to a small rectangle are composited too.
inline Window WidenedWindow(CVelImage const& image, CRect* rect) {
  Window w(image, rect);
  if (w.IsEmpty()) return w;
  const auto widen = [](int& low, int& high, int least, int size) {
    if (high - low < least) high = std::min(low + least, size);
    if (high - low < least) low = std::max(high - least, 0);
  };
  widen(w.left, w.right, kCompositeWidth, image.GetWidth());
  widen(w.top, w.bottom, kCompositeHeight, image.GetHeight());
  return w;
}

/// Composites two contiguous images of one size: run(plane, a, b, output) for each plane of a, over the
/// widened window. A second image with fewer planes serves the rest by its last one. The result has a's
/// record and is 0 outside the window; it is empty when there is no room for it or when a block has no
/// address.
template <class F>
std::unique_ptr<CVelImage> CompositeBlocks(CVelImage& a, CVelImage& b, CRect* rect, F&& run) {
  std::unique_ptr<CVelImage> result = a.CloneWithoutImage(nullptr);
  if (!result) return nullptr;
  const Window window = WidenedWindow(a, rect);
  for (int p = 0; p < a.GetPlanes(); ++p) {
    const int q = std::min(p, b.GetPlanes() - 1);
    if (!result->GetBlockOnMemory(p, false) || !a.GetBlockOnMemory(p, true) || !b.GetBlockOnMemory(q, true)) {
      return nullptr;
    }
    RunIntoWindow(*result, p, window, [&](halide_buffer_t* out) {
      PlaneBuffer first(a, p), second(b, q);
      run(p, static_cast<halide_buffer_t*>(first), static_cast<halide_buffer_t*>(second), out);
    });
  }
  return result;
}

}  // namespace korimg
