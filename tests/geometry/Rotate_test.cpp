#include <cstring>

#include <gtest/gtest.h>

#include "korimg/geometry/CImgRotate.h"

#include "tests/geometry/Reference.h"

using namespace korimg::test;

namespace {

const PixelRule kNoise = Random(0, 1000);

std::shared_ptr<CImgRotate> Target(CVelImage& source) {
  return Make<CImgRotate>(source.VmManager(), source.GetWidth(), source.GetHeight(), source.GetPlanes(),
                          Random(-5, 5));
}

/// Compares a turn with its formula, but for positions that rounding may take over a border.
void ExpectTurned(CImgRotate& target, CVelImage& source, double degrees, int method, double outside) {
  const int width = source.GetWidth(), height = source.GetHeight();
  const bool lines = target.GetAllocationPolicy() == CVmManager::Paged;
  const double cx = lines ? width / 2 : width * 0.5, cy = lines ? height / 2 : height * 0.5;
  const double farX = lines ? width - 1 : width, farY = lines ? height - 1 : height;
  const double dx = (target.GetWidth() - width) * 0.5, dy = (target.GetHeight() - height) * 0.5;
  const double s = std::sin(degrees * M_PI / 180), c = std::cos(degrees * M_PI / 180);
  const auto near = [](double v, double border) { return std::abs(v - border) < 1e-4; };
  const auto near_half = [&](double v) { return near(v - std::floor(v), 0.5); };
  for (int p = 0; p < target.GetPlanes(); ++p) {
    for (int y = 0; y < target.GetHeight(); ++y) {
      for (int x = 0; x < target.GetWidth(); ++x) {
        const double X = x - dx - cx, Y = cy - (y - dy);
        const double u = c * X - s * Y + cx, v = cy - (s * X + c * Y);
        if (near(u, 0) || near(v, 0) || near(u, farX) || near(v, farY)) continue;
        if (method == 4 && (near_half(u) || near_half(v))) continue;
        const bool on = u >= 0 && v >= 0 && u <= farX && v <= farY;
        const double expected = on ? SampleBySum(source, p, method, u, v) : outside;
        ASSERT_NEAR(target.GetPixelGrayRaw(x, y, p), expected, 0.05)
            << width << "x" << height << " by " << degrees << " method " << method << " plane " << p << " at "
            << x << ", " << y;
      }
    }
  }
}

TEST(CImgRotate, TurnsByEveryKernel) {
  for (const StoreCase& store : Stores()) {
    for (const auto& [width, height] : Sizes()) {
      const auto source = Make(store.make(), width, height, 2, kNoise);
      source->SetStdCtr(3.0, 4.0);
      for (int method = 0; method < kMethodCount; ++method) {
        for (const double degrees : {10.0, -77.0, 200.0}) {
          for (const int expand : {0, 1}) {
            const auto target = Target(*source);
            if (target->Do(degrees, 0x0000FFu, source.get(), expand, method, 0) == 0) {
              EXPECT_TRUE(width == 1 && height == 1 && expand) << "only a pixel has an empty canvas";
              continue;
            }
            // Red is 255 of plane 0's levels, for all planes.
            ExpectTurned(*target, *source, degrees, method, target->ToRaw(255.0, 0));
            EXPECT_EQ(target->GetStdCtr().x, width / 2);
            EXPECT_EQ(source->GetStdCtr().fx, 3.0) << "the source's centre is given back";
          }
        }
      }
    }
  }
}

TEST(CImgRotate, APositiveAngleIsClockwiseAndAQuarterTurnIsDo90) {
  for (const StoreCase& store : Stores()) {
    const auto source = Make(store.make(), 64, 64, 1, kNoise);
    const auto turned = Target(*source), exact = Target(*source);
    turned->Do(90.0, 0, source.get(), 0, 4, 0);
    exact->Do90(1, source.get(), 0);
    // Turned about the corner of four pixels, not its middle: one column further.
    for (int y = 1; y < 63; ++y) {
      for (int x = 2; x < 63; ++x) {
        ASSERT_EQ(turned->GetPixelGrayRaw(x, y, 0), exact->GetPixelGrayRaw(x - 1, y, 0)) << store.name;
      }
    }
  }
}

TEST(CImgRotate, ThereAndBackAgainKeepsASmoothPicture) {
  const PixelRule smooth = [](int, int x, int y) {
    return 500 + 200 * std::sin(x * 0.2) * std::cos(y * 0.15);
  };
  for (const StoreCase& store : Stores()) {
    const auto source = Make(store.make(), 100, 100, 1, smooth);
    for (const auto& [method, tolerance] : {std::pair(0, 5.0), {1, 0.5}, {3, 20.0}}) {
      const auto there = Target(*source), back = Target(*source);
      there->Do(17.0, 0, source.get(), 0, method, 0);
      back->Do(-17.0, 0, there.get(), 0, method, 0);
      for (int y = 30; y < 70; ++y) {
        for (int x = 30; x < 70; ++x) {
          ASSERT_NEAR(back->GetPixelGrayRaw(x, y, 0), smooth(0, x, y), tolerance) << store.name << method;
        }
      }
    }
  }
}

TEST(CImgRotate, NoAngleCopiesAndQuarterTurnsAreExact) {
  OnEveryPath([](const StoreCase& store) {
    for (const auto& [width, height] : Sizes()) {
      const auto source = Make(store.make(), width, height, 3, Wild(0, 1000));
      source->SetLevel(1, -3, 77);
      const auto target = Target(*source);
      const auto kept = Make(MemoryStore(), width, height, 3, Wild(0, 1000));
      const auto pixel = [&](int p, int x, int y) { return kept->GetPixelGrayRaw(x, y, p); };
      const int right = width - 1, bottom = height - 1;
      ASSERT_EQ(target->Do(0.0, 0, source.get(), 1, 9, 0), 1);
      const auto larger = Make<CImgRotate>(store.make(), source->GetWidth() + 1, source->GetHeight(),
                                           source->GetPlanes(), Random(5, 6));
      ASSERT_EQ(larger->Do(0.0, 0, source.get(), 1, 1, 0), 0) << "another size";
      ASSERT_EQ(Difference(*larger, Random(5, 6), 1e-6), "");
      ASSERT_EQ(Difference(*target, *source), "") << store.name;
      target->Do180(source.get(), 0);
      ASSERT_EQ(Difference(
                    *target, [&](int p, int x, int y) { return pixel(p, right - x, bottom - y); }, 0),
                "");
      for (const int direction : {0, 1}) {
        const auto quarter = Target(*source);
        ASSERT_EQ(quarter->Do90(direction, source.get(), 0), 1);
        ASSERT_EQ(quarter->GetWidth(), height);
        EXPECT_EQ(quarter->GetLevelMin(1), -3);
        ASSERT_EQ(Difference(
                      *quarter,
                      [&](int p, int x, int y) {
                        return direction == 0 ? pixel(p, right - y, x) : pixel(p, y, bottom - x);
                      },
                      0),
                  "")
            << store.name << " direction " << direction;
      }
    }
  });
}

TEST(CImgRotate, ExpandsToTheTurnedCorners) {
  const auto source = Make(MemoryStore(), 60, 40, 1, kNoise);
  const auto quarter = Target(*source);
  quarter->Do(90.0, 0, source.get(), 1, 0, 0);
  EXPECT_EQ(quarter->GetWidth(), 39) << "one pixel less than exchanging the sides";
  EXPECT_EQ(quarter->GetHeight(), 59);
  const auto eighth = Target(*source);
  eighth->Do(45.0, 0x204060u, source.get(), 1, 3, 0);
  EXPECT_EQ(eighth->GetWidth(), 34 + 35);
  EXPECT_EQ(eighth->GetHeight(), 35 + 34);
  // 0.299 * 96 + 0.587 * 64 + 0.114 * 32, of plane 0's levels.
  EXPECT_NEAR(eighth->GetPixelGrayRaw(0, 0, 0), eighth->ToRaw(69.0, 0), 1e-3);
}

TEST(CImgRotate, StrangeAnglesPixelsAndMethods) {
  for (const StoreCase& store : Stores()) {
    const auto source = Make(store.make(), 33, 21, 1, Wild(0, 1000));
    for (const double degrees : {static_cast<double>(NAN), static_cast<double>(INFINITY)}) {
      const auto target = Target(*source);
      EXPECT_EQ(target->Do(degrees, 0, source.get(), 0, 1, 0), 1);
      EXPECT_EQ(Difference(
                    *target, [&](int, int, int) { return target->GetLevelMin(0); }, 0),
                "")
          << "all outside";
      EXPECT_EQ(target->Do(degrees, 0, source.get(), 1, 1, 0), 0) << "an empty canvas";
    }
    const auto target = Target(*source);
    EXPECT_EQ(target->Do(1e300, 0, source.get(), 0, 3, 0), 1);
    const auto before = Pixels(*target);
    EXPECT_EQ(target->Do(10.0, 0, source.get(), 0, 5, 0), 1);
    EXPECT_EQ(std::memcmp(before.data(), Pixels(*target).data(), before.size() * sizeof(float)), 0);
  }
}

TEST(CImgRotate, AnyNumberOfThreadsGivesTheSame) {
  for (const StoreCase& store : Stores()) {
    const auto source = Make(store.make(), 171, 133, 2, Wild(0, 1000));
    for (int method = 0; method < kMethodCount; ++method) {
      std::vector<std::vector<float>> results;
      for (const int threads : {1, 8}) {
        const WithThreads team(threads);
        const auto target = Target(*source);
        target->Do(33.0, 0, source.get(), 1, method, 0);
        results.push_back(Pixels(*target));
      }
      EXPECT_EQ(std::memcmp(results[0].data(), results[1].data(), results[0].size() * sizeof(float)), 0);
    }
  }
}

}  // namespace
