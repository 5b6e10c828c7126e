#include "korimg/geometry/CImgResize.h"

#include <algorithm>
#include <cstring>

#include "korimg/geometry/internal/Resized.h"

using namespace korimg;

namespace {

/// Where an axis of the source meets that of the target.
struct Overlap {
  int source, begin, end;  ///< first pixel in the source, and the range in the target

  /// place: 0 at the start, 1 in the middle, 2 at the end.
  Overlap(int size, int newSize, int place) {
    const int shift = place == 0 ? 0 : place == 1 ? (newSize - size) / 2 : newSize - size;
    source = std::max(-shift, 0);
    begin = std::max(shift, 0);
    end = std::min(size - source + begin, newSize);
  }
};

}  // namespace

int CImgResize::Do(int width, int height, int anchor, float* const fill, CVelImage* src, int progress) {
  InitStdPtCtr();
  if (!Resized(*this, *src, width, height, progress)) return 0;
  if (anchor < 0 || anchor > 8) anchor = 0;
  const Overlap x(src->GetWidth(), width, anchor % 3), y(src->GetHeight(), height, anchor / 3);
  velora::ScopedProgress steps(ResizeProgress(*this, progress), GetPlanes());
  for (int p = 0; p < GetPlanes(); ++p) {
    const float value = ToRaw(fill[p], p);
    if (MayRunPipelines(*this, *src)) {
      paste_with_fill_float(PlaneBuffer(*src, p), value, x.begin, x.end, y.begin, y.end, x.source, y.source,
                            PlaneBuffer(*this, p, false));
    } else {
      ForLines(Team::All, 0, height, [&](int row) {
        float* out = GetWritableLine(0, row, p);
        if (row < y.begin || row >= y.end) {
          std::fill_n(out, width, value);
          return;
        }
        std::fill_n(out, x.begin, value);
        std::memcpy(out + x.begin, src->GetLine(x.source, row - y.begin + y.source, p),
                    sizeof(float) * (x.end - x.begin));
        std::fill(out + x.end, out + width, value);
      });
    }
    steps.Step(p);
  }
  return 1;
}
