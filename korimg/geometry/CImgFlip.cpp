#include "korimg/geometry/CImgFlip.h"

#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/Vectors.h"

using namespace korimg;

namespace {

void CopyReversed(const float* in, float* out, int width) {
  RunInLongVectors([=]() KORIMG_IN_LOOP {
    for (int x = 0; x < width; ++x) {
      out[x] = in[width - 1 - x];
    }
  });
}

}  // namespace

void CImgFlip::Do(int axis, CVelImage* src, int show) {
  if (!Fits(*src, *this)) return;
  const ProgressScope progress(*this, show, axis == 0 ? 6127 : 6128, GetHeight() * GetPlanes());
  if (axis != 0 && axis != 1) return;
  const size_t width = GetWidth();
  ForPlaneLines(*this, Window(*this, nullptr), Team::All, [&](int p, int y) {
    const float* in = src->GetLine(0, axis == 0 ? GetHeight() - 1 - y : y, p);
    float* out = GetWritableLine(0, y, p);
    if (axis == 0) {
      std::memcpy(out, in, width * sizeof(float));
    } else {
      CopyReversed(in, out, static_cast<int>(width));
    }
  });
}
