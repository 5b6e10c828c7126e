#include <cstdio>

#include "korimg/korimg.h"

/// Inverts a small image through the installed library.
int main() {
  const auto store = korimg::CreateContiguousManager();
  CVelImage source(store, CImage::Float, 100, 50, 1, 1.0, 0.0, 1, nullptr);
  source.Fill(0, 0.25);
  CImgInvert inverted;
  inverted.Create(source, nullptr);
  inverted.Do(&source, nullptr, 0);
  const float got = inverted.GetPixelGrayRaw(99, 49, 0);
  std::printf("%s: 0.25 inverted is %g\n", korimg::Version(), got);
  return got > 0.7499f && got < 0.7501f ? 0 : 1;
}
