#include "session/develop/DevelopedNoise.h"

#include <cmath>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "session/picture/Image.h"
#include "session/simulate/internal/Random.h"

namespace korimg::session {
namespace {

/// A mosaic whose colours have a noise of their own, which grows to the right.
class DevelopedNoiseOf : public ::testing::TestWithParam<const char*> {
 protected:
  static constexpr int kSide = 200, kEdge = 8;

  static double Deviation(int cfa, int x, int y) {
    constexpr double kOf[] = {5, 12, 8};
    const int colour = files::ColourOfSite(cfa, x, y);
    return colour < 0 ? 0 : kOf[colour] * (1 + 0.004 * x);
  }
};

TEST_P(DevelopedNoiseOf, IsTheScatterOfDevelopedPixels) {
  Job job;
  const auto store = job.MakeStore();
  files::Mosaic mosaic;
  mosaic.cfa = files::CfaNumber(GetParam());
  mosaic.name = GetParam();
  const bool isHoneycomb = files::IsHoneycomb(mosaic.cfa);
  // By cells, row by row; of a honeycomb red, green, green and blue.
  const bool isTurned = mosaic.name == "GBRG";
  const WhiteBalance balance{{isTurned ? 1 : 1.8, isTurned ? 1.4 : 1, isTurned ? 1.8 : 1, isTurned ? 1 : 1.4},
                             "as told"};
  for (const bool half : {false, true}) {
    if (half && isHoneycomb) continue;
    for (const bool mono : {false, true}) {
      if (half && mono) continue;
      DevelopOptions options;
      options.half = half;
      options.mono = mono;
      const DevelopedNoise noise(job, mosaic, balance, options);
      constexpr int kTimes = 12;
      double sums[3] = {}, squares[3] = {}, predicted[3] = {};
      long long count = 0;
      std::unique_ptr<CVelImage> first;
      for (int i = 0; i < kTimes; ++i) {
        const auto field = NewImage(store, kSide, kSide, 1);
        field->SetLevel(0, 0, 65535);
        BandBuffer variances, masks, made, madeMasks;
        const QualityRows quality{variances.Get(1, kSide, 0, kSide), masks.Get(1, kSide, 0, kSide)};
        for (int y = 0; y < kSide; ++y) {
          Random random({77, static_cast<std::uint64_t>(i), static_cast<std::uint64_t>(y)});
          for (int x = 0; x < kSide; ++x) {
            const double deviation = Deviation(mosaic.cfa, x, y);
            *field->GetWritableLine(x, y, 0) =
                deviation > 0 ? static_cast<float>(2000 + deviation * random.Normal()) : 0;
            quality.variance.Row(0, y)[x] = static_cast<float>(deviation * deviation);
            quality.mask.Row(0, y)[x] = x == 100 && y == 100 ? MaskBit::Saturated : 0;
          }
        }
        files::ImageInfo info;
        Development development(MosaicSource(*field), info, mosaic, balance, options);
        const Shape size = development.Size();
        const auto image = development.Rows(0, size.height);
        const QualityRows developed{made.Get(size.planes, size.width, 0, size.height),
                                    madeMasks.Get(size.planes, size.width, 0, size.height)};
        noise.Fill(quality, developed);
        for (int y = kEdge; y < size.height - kEdge; ++y) {
          for (int x = kEdge; x < size.width - kEdge; ++x) {
            const bool isNear =
                std::abs(x - 100 / (half ? 2 : 1)) <= 1 && std::abs(y - 100 / (half ? 2 : 1)) <= 1;
            const float bits = developed.mask.Row(0, y)[x];
            if (x == 100 / (half ? 2 : 1) && y == x) {
              ASSERT_EQ(bits, MaskBit::Saturated);
            }
            if (!isNear && !isHoneycomb) {
              ASSERT_EQ(bits, 0);
            }
            count += 1;
            for (int p = 0; p < size.planes; ++p) {
              const double level = 2000 * (mono ? 0 : p == 0 ? 1.8 : p == 2 ? 1.4 : 1);
              const double v = image->GetLine(x, y, p)[0] - level;
              sums[p] += v;
              squares[p] += v * v;
              predicted[p] += developed.variance.Row(p, y)[x];
            }
          }
        }
      }
      for (int p = 0; p < (mono ? 1 : 3); ++p) {
        const double n = static_cast<double>(count), mean = sums[p] / n,
                     scatter = squares[p] / n - mean * mean;
        EXPECT_NEAR(predicted[p] / n / scatter, 1, 0.02) << GetParam() << half << mono << p;
        if (half) {
          EXPECT_NEAR(noise.CorrelationOfNoise()[p], 1, 0.05);
        } else {
          // Neighbours are made of the same photosites.
          EXPECT_GT(noise.CorrelationOfNoise()[p], 1.1);
          EXPECT_LT(noise.CorrelationOfNoise()[p], 3);
        }
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Mosaics, DevelopedNoiseOf, ::testing::Values("RGGB", "GBRG", "HONEYCOMB2"),
                         [](const auto& info) { return std::string(info.param); });

}  // namespace
}  // namespace korimg::session
