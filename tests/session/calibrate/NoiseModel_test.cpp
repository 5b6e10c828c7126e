#include "session/calibrate/internal/NoiseModel.h"

#include <cmath>
#include <vector>

#include <gtest/gtest.h>

namespace korimg::session {
namespace {

/// A raw value, what comes off it, its flat, and what is known of the result by hand: of a gain of 2, a
/// variance of 9 without light at 100, a master of a quarter of that, a flat of mean 1000 of ten frames.
TEST(NoiseModel, RawValuesAreCalibratedWithTheirVariancesAndFlags) {
  const NoiseModel noise{.gain = 2,
                         .floor = 9,
                         .zero = 100,
                         .saturation = 5000,
                         .offsetFloor = 2.25,
                         .offsetSlope = 0.125,
                         .flatShare = 0.1,
                         .flatFloor = 16};
  constexpr float kNan = NAN, kInfinity = INFINITY;
  const struct {
    float raw, offset, flat;
    double variance;
    int bits;
  } kCases[] = {
      {300, 100, 1000, 9 + 100 + 2.25 + 200 * 200 * 0.1 * (16 + 500) / 1e6, 0},
      {300, 100, 500, 4 * (9 + 100 + 2.25 + 200 * 200 * 0.1 * (16 + 250) / 25e4), 0},
      {80, 100, 1000, 9 + 2.25 + 20 * 20 * 0.1 * (16 + 500) / 1e6, 0},  // noise below 0 has no photons
      {700, 500, 1000, 9 + 300 + 2.25 + 50 + 200 * 200 * 0.1 * (16 + 500) / 1e6, 0},  // a hot pixel
      {5000, 100, 1000, 9 + 2450 + 2.25 + 4900. * 4900 * 0.1 * (16 + 500) / 1e6, MaskBit::Saturated},
      {300, 100, 0, 9 + 100 + 2.25, 0},  // divides nothing
      {300, 100, kNan, NAN, MaskBit::NoData},
      {kNan, 100, 1000, NAN, MaskBit::NoData},
      {kInfinity, 100, 1000, NAN, MaskBit::NoData},
  };
  const int count = static_cast<int>(std::size(kCases));
  std::vector<float> raw, offset, flat, variance(count, -1), bits(count, -1);
  for (const auto& row : kCases) {
    raw.push_back(row.raw), offset.push_back(row.offset), flat.push_back(row.flat);
  }
  const auto band = [](std::vector<float>& v) { return Band<float>(v.data(), 1, count, 7, 1); };
  const float average = 1000;
  noise.Fill(band(raw), band(offset), band(flat), &average, {band(variance), band(bits)});
  for (int i = 0; i < count; ++i) {
    EXPECT_EQ(bits[i], kCases[i].bits) << i;
    if (std::isnan(kCases[i].variance)) {
      EXPECT_TRUE(std::isnan(variance[i])) << i;
    } else {
      EXPECT_NEAR(variance[i], kCases[i].variance, 1e-5 * kCases[i].variance) << i;
    }
  }
  // Nothing but the readout and photons without masters, and one quality without the other.
  noise.Fill(band(raw), {}, {}, nullptr, {band(variance), {}});
  EXPECT_FLOAT_EQ(variance[1], 109);
  EXPECT_EQ(bits[4], MaskBit::Saturated);
}

}  // namespace
}  // namespace korimg::session
