// Inverts an image by the library alone: a store, an image in it, an operation.
#include <cstdio>

#include "korimg/korimg.h"

int main() {
  // Where pixels live: planes in one piece here; CreatePagedManager() keeps lines in blocks, some of them in
  // temporary files. A store must live as long as its images.
  const auto store = korimg::CreateContiguousManager();
  // 100 x 50 floats in one plane, shown from black at 0 to white at 1.
  CVelImage source(store, CImage::Float, 100, 50, 1, 1.0, 0.0, 1, nullptr);
  source.SetLevel(0, 0, 1);
  for (int y = 0; y < source.GetHeight(); ++y) {
    float* line = source.GetWritableLine(0, y, 0);
    for (int x = 0; x < source.GetWidth(); ++x) {
      line[x] = 0.01F * static_cast<float>(x);
    }
  }

  // An operation is the image that it makes. Its levels and size are those of the source.
  CImgInvert inverted;
  inverted.Create(source, nullptr);
  inverted.Do(&source, nullptr, 0);

  const float got = inverted.GetPixelGrayRaw(25, 49, 0);
  std::printf("%s: 0.25 inverted is %g\n", korimg::Version(), got);
  return got > 0.7499F && got < 0.7501F ? 0 : 1;
}
