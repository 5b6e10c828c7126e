#include "korimg/geometry/CImgScroll.h"

#include "korimg/image/internal/Frame.h"

using namespace korimg;

void CImgScroll::Do(int amount, int horizontal, CVelImage* src, int show) {
  InitStdPtCtr();
  if (!Fits(*src, *this)) return;
  const int width = GetWidth(), height = GetHeight();
  const auto firstOf = [amount](int size) { return (size - amount % size) % size; };
  const int left = horizontal ? firstOf(width) : 0, top = horizontal ? 0 : firstOf(height);
  const ProgressScope progress(*this, show, 6146, height * GetPlanes());
  ForPlaneLines(*this, Window(*this, nullptr), Team::All, [&](int p, int y) {
    const float* in = src->GetLine(0, (top + y) % height, p);
    float* out = GetWritableLine(0, y, p);
    std::memcpy(out, in + left, (width - left) * sizeof(float));
    std::memcpy(out + width - left, in, left * sizeof(float));
  });
}
