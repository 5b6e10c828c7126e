#include "korimg/geometry/CImgExpansion.h"

#include <cmath>
#include <numbers>

#include <gtest/gtest.h>

#include "korimg/platform/Rotation.h"

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

constexpr double kRadian = std::numbers::pi / 180;
constexpr double kCentreX = 100.5, kCentreY = 95, kRadius = 80;

/// A planet that shows its longitude and latitude: seen with the pole tipped to the viewer, then turned left.
PixelRule Planet(double tiltY, double tiltX, double oblateness) {
  return [=](int, int x, int y) -> double {
    // Back from the screen to the globe: unturn, then solve the tipped spheroid along the line of sight.
    const double right = (x - kCentreX) / kRadius, up = (kCentreY - y) / kRadius;
    const double ct = std::cos(tiltX * kRadian), st = std::sin(tiltX * kRadian);
    const double r = ct * right + st * up, u = -st * right + ct * up;
    const double c = std::cos(tiltY * kRadian), s = std::sin(tiltY * kRadian), o = oblateness * oblateness;
    // Globe coordinates of depth d: x = c d - s u, z = s d + c u, with x^2 + r^2 + z^2 / o = 1.
    const double a = c * c + s * s / o, b = 2 * (-c * s * u + s * c * u / o);
    const double k = s * s * u * u + c * c * u * u / o + r * r - 1, root = b * b - 4 * a * k;
    if (root < 0) return 0;
    const double d = (-b + std::sqrt(root)) / (2 * a), gx = c * d - s * u, gz = s * d + c * u;
    const double longitude = std::atan2(r, gx) / kRadian,
                 latitude = std::asin(std::clamp(gz / oblateness, -1.0, 1.0)) / kRadian;
    return 1000 + longitude + 10 * latitude;
  };
}

TEST(CImgExpansion, UnfoldsLongitudeAndLatitude) {
  struct Case {
    double tiltY, tiltX, oblateness;
    int width, height;
  };
  for (const auto& store : {MemoryStore(), TinyPool()}) {
    for (const Case& c : {Case{0, 0, 1, 180, 180}, Case{20, 0, 1, 180, 90}, Case{0, 30, 1, 200, 70},
                          Case{15, -25, 0.93, 181, 97}}) {
      const auto src = Make(store, 200, 191, 1, Planet(c.tiltY, c.tiltX, c.oblateness));
      const auto image = Make<CImgExpansion>(store, c.width, c.height, 1, Random(0, 1, 7));
      src->SetLevel(0, 5, 2000);
      image->Do(src.get(), kCentreX, kCentreY, kRadius, c.tiltY, c.tiltX, c.oblateness, 0, nullptr, 0);
      EXPECT_EQ(image->GetLevelMin(0), 5);
      const int boxW = c.height < c.width / 2 ? 2 * c.height : c.width, boxH = boxW / 2;
      const int left = (c.width - boxW) / 2, top = (c.height - boxH) / 2;
      int seen = 0, hidden = 0;
      for (int y = 0; y < c.height; ++y) {
        for (int x = 0; x < c.width; ++x) {
          const float got = image->GetPixelGrayRaw(x, y, 0);
          if (x < left || x >= left + boxW || y < top || y >= top + boxH) {
            ASSERT_EQ(got, 5) << x << " " << y;
            continue;
          }
          const double longitude = (x - c.width / 2) * 360.0 / boxW,
                       latitude = (y - c.height / 2) * -180.0 / boxH;
          // How much of the place faces the viewer; the rim is too steep to compare.
          const double facing =
              std::cos(c.tiltY * kRadian) * std::cos(latitude * kRadian) * std::cos(longitude * kRadian) +
              std::sin(c.tiltY * kRadian) * std::sin(latitude * kRadian);
          if (facing > 0.3 && std::abs(latitude) < 75) {
            ASSERT_NEAR(got, 1000 + longitude + 10 * latitude, 5) << longitude << " " << latitude;
            ++seen;
          } else if (facing < -0.1) {
            ASSERT_EQ(got, 0) << longitude << " " << latitude;
            ++hidden;
          }
        }
      }
      EXPECT_GT(seen, boxW * boxH / 5);
      EXPECT_GT(hidden, boxW * boxH / 4);
    }
  }
}

TEST(CImgExpansion, WindowsGridsAndPlanes) {
  const auto src = Make(TinyPool(), 200, 191, 3, Planet(10, 5, 1));
  const auto whole = Make<CImgExpansion>(MemoryStore(), 109, 80, 3, Random(0, 1, 7));
  whole->Do(src.get(), kCentreX, kCentreY, kRadius, 10, 5, 1, 0, nullptr, 0);
  CRect rect(10, 20, 90, 60);
  for (const int threads : {1, 8}) {
    const WithThreads team(threads);
    const auto part = Make<CImgExpansion>(TinyPool(), 109, 80, 3, Random(0, 1, 7));
    part->Do(src.get(), kCentreX, kCentreY, kRadius, 10, 5, 1, 1, &rect, 0);
    const auto expected = [&](int p, int x, int y) -> double {
      if (x < 10 || x >= 90 || y < 20 || y >= 60) return static_cast<float>(Random(0, 1, 7)(p, x, y));
      // The box is 109 x 54 from (0, 13) on; lines stand at every twelfth of its width and sixth of its
      // height.
      for (int i = 0; i <= 12; ++i) {
        if (x == i * 108 * 3 / 36 || (i <= 6 && y == i * 53 * 3 / 18 + 13)) return src->GetLevelMax(p);
      }
      return whole->GetPixelGrayRaw(x, y, p);
    };
    EXPECT_EQ(Difference(*part, expected, 1e-6), "");
  }
}

TEST(Rotation, AxesAndOrder) {
  const auto expect = [](const Direction& got, const Direction& want) {
    for (int i = 0; i < 3; ++i) {
      EXPECT_NEAR(got[i], want[i], 1e-15);
    }
  };
  expect(AdToDc(0, 0), {1, 0, 0});
  expect(AdToDc(90, 0), {0, 1, 0});
  expect(AdToDc(37, 90), {0, 0, 1});
  expect(RotateDc(RotateX(90), {0, 0, 1}), {0, -1, 0});
  expect(RotateDc(RotateY(90), {0, 0, 1}), {1, 0, 0});
  expect(RotateDc(MulMatrix(RotateX(90), RotateY(90)), {1, 0, 0}), {0, 1, 0});
}

}  // namespace
