// The step that all composite pipelines share: which blocks they get, and the window that they fill.
// Internal.
#pragma once

#include <algorithm>

#include "korimg/image/internal/Frame.h"

namespace korimg {

/// The smallest window that composite pipelines are given, where the image has room for it.
constexpr int kCompositeWidth = 64, kCompositeHeight = 32;

/// Planes beyond these are left alone: sampled lines come by three.
constexpr int kMostCompositePlanes = 3;

/// Answers a rectangle clipped to the image and then widened to the smallest window, to the right and
/// downward first, and at the far edges to the left and upward: pixels next to a small rectangle are
/// composited too.
inline Window WidenedWindow(const CVelImage& image, CRect* rect) {
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

/// Composites two contiguous images into a contiguous target of a's shape: run(plane of a, plane of b, a, b,
/// output) for each plane, over the widened window, which answers the pipeline's status. A second image with
/// fewer planes serves the rest by its last one. Pixels outside the window and the target's record stay; so
/// does all of it when a block has no address. The target may be one of the images.
template <class F>
void CompositeBlocks(CVelImage& target, CVelImage& a, CVelImage& b, CRect* rect, F&& run) {
  const Window window = WidenedWindow(target, rect);
  const int planes = std::min(target.GetPlanes(), kMostCompositePlanes);
  for (int p = 0; p < planes; ++p) {
    const int q = std::min(p, b.GetPlanes() - 1);
    if (!target.GetBlockOnMemory(p, false) || !a.GetBlockOnMemory(p, true) || !b.GetBlockOnMemory(q, true))
      return;
  }
  const bool direct = &target != &b;  // pixels of b are read beside the one that is written
  for (int p = 0; p < planes; ++p) {
    const int q = std::min(p, b.GetPlanes() - 1);
    RunIntoWindow(
        target, p, window,
        [&](halide_buffer_t* out) {
          PlaneBuffer first(a, p), second(b, q);
          return run(p, q, static_cast<halide_buffer_t*>(first), static_cast<halide_buffer_t*>(second), out);
        },
        direct);
  }
}

}  // namespace korimg
