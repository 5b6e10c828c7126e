// Measures of small wild frames: stars and their lists, phase, figures of pixels, widths, centroids.
#include <cmath>
#include <cstring>

#include "korimg/measurement/CImgPixelInfo.h"
#include "korimg/measurement/CStarFinder.h"
#include "korimg/measurement/CStarMatcher.h"
#include "korimg/measurement/PSF.h"

#include "fuzz/Support.h"

using namespace korimg;

// Four bytes say width, height, planes and kind; the others are pixels as floats, which repeat as often as it
// takes.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kHead = 4;
  if (size < kHead + sizeof(float)) return 0;
  const int most = data[3] & 16 ? 90 : 24;  // of several cells of sky, or quick
  const int width = 1 + data[0] % most, height = 1 + data[1] % most, planes = data[2] % 2 ? 3 : 1;
  static const auto contiguous = fuzz::QuietJob().MakeStore();
  static const auto paged = CreatePagedManager({.budget = 1 << 16, .blockSize = 4096});
  CImgPixelInfo image;
  image.Create(
      CVelImage(data[3] & 1 ? paged : contiguous, CImage::Float, width, height, planes, 1.0, 0.0, 1, nullptr),
      nullptr);
  const std::size_t values = (size - kHead) / sizeof(float);
  std::size_t next = 0;
  for (int p = 0; p < planes; ++p) {
    for (int y = 0; y < height; ++y) {
      float* line = image.GetWritableLine(0, y, p);
      for (int x = 0; x < width; ++x, ++next) {
        // What does not repeat is flat.
        if (next >= values && data[3] & 2) {
          line[x] = 0;
        } else {
          std::memcpy(line + x, data + kHead + next % values * sizeof(float), sizeof(float));
        }
      }
    }
  }
  image.SetBayerImage(planes == 1 && data[3] & 4);
  CStarFinder finder(&image);
  finder.SetThreshold(data[3] & 8 ? 0 : 5);
  finder.Find();
  for (const CStar& s : finder.GetStars()) {
    fuzz::Expect(s.x > -2 && s.y > -2 && s.x < width + 1 && s.y < height + 1, "stars are on the image");
    for (const double v : {s.flux, s.sky, s.noise, s.snr, s.fwhm, s.elongation}) {
      fuzz::Expect(std::isfinite(v), "figures of stars are numbers");
    }
  }
  const CStarMatch match = CStarMatcher(finder.GetStars()).Match(finder.GetStars(), width, height);
  fuzz::Expect(std::isfinite(match.dx) && std::isfinite(match.dy) && std::isfinite(match.degrees),
               "a pose of numbers");
  double min[3], max[3], mean[3], sd[3], median[3], x, y, fwhm;
  const CRect half(width / 4, height / 4, width / 4 + (width + 1) / 2, height / 4 + (height + 1) / 2);
  image.Calc(half, min, max, mean, sd, median);
  image.CalcSky(half, min, max, mean, sd, median);
  image.CalcFWHM(width / 2, height / 2, &fwhm);
  image.GetCentroid(x, y, nullptr);
  fuzz::Expect(x >= -0.5 && y >= -0.5 && x <= width && y <= height, "a centroid on the image");
  PSF psf(&image);
  psf.Add({width / 3, height / 3});
  return 0;
}
