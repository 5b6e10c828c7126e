// Describes an operation of one's own, and runs it on pixels of one's own.
#include <cmath>
#include <cstdio>
#include <vector>

#include "session/operations/Describe.h"

using namespace korimg;
using namespace korimg::session;

namespace {

/// The members hold the defaults.
struct AsinhOptions {
  double strength = 100;
  PerPlane black = 0;
};

/// Stretches what is faint: asinh(strength v) / asinh(strength), v from 0 at black to 1 at white.
void Asinh(Call& call, const AsinhOptions& options) {
  CVelImage& image = *call.image;
  for (int p = 0; p < image.GetPlanes(); ++p) {
    const double black = image.GetLevelMin(p) + options.black[p], range = image.GetLevelMax(p) - black;
    for (int y = 0; y < image.GetHeight(); ++y) {
      float* line = image.GetWritableLine(0, y, p);
      for (int x = 0; x < image.GetWidth(); ++x) {
        const double v = (line[x] - black) / range;
        line[x] = static_cast<float>(black +
                                     range * std::asinh(options.strength * v) / std::asinh(options.strength));
      }
    }
  }
}

Operation DescribeAsinh() {
  return Describe<AsinhOptions>(
             "asinh", "a stretch by the area hyperbolic sine",
             "Shows faint nebulae beside bright stars without changing their colours much.")
      .Takes("strength", &AsinhOptions::strength, {"how much what is faint is lifted", "", 0.01, 1e6})
      .Takes("black", &AsinhOptions::black, {"above the level of black", "raw"})
      .Header(HeaderEffect::DropsCounts)
      .Example("strength=300")
      .Runs(Asinh);
}

}  // namespace

int main() {
  const Operation asinh = DescribeAsinh();
  // Pixels of the host's own, used where they lie: 64 x 48 in one plane.
  constexpr int kWidth = 64, kHeight = 48;
  std::vector<float> pixels(kWidth * kHeight);
  for (size_t i = 0; i < pixels.size(); ++i) {
    pixels[i] = static_cast<float>(i) / static_cast<float>(pixels.size() - 1);
  }
  float* const planes[] = {pixels.data()};
  try {
    Job job;
    Image image = Image::Over(job, Band<float>(planes, 1, kWidth, 0, kHeight));
    Step(asinh).Set("strength", "300").Run(job, image);
    std::printf("the darkest hundredth is %.3f now\n", pixels[pixels.size() / 100]);
  } catch (const Error& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
  // Values are checked against the description.
  try {
    Step(asinh).Set("strength", "much");
  } catch (const Error& error) {
    std::printf("%s\n", error.what());
    return pixels.back() == 1 && pixels[pixels.size() / 100] > 0.2 ? 0 : 1;
  }
  return 1;
}
