#include "korimg/geometry/fourier/CImgFourier.h"

#include <complex>
#include <numbers>

#include <gtest/gtest.h>

#include "korimg/composite/CImgComposit.h"

#include "tests/support/Images.h"

using namespace korimg;
using namespace korimg::test;

namespace {

/// A field of stars around the middle of a frame of `size`, turned clockwise on the screen and then shifted.
PixelRule Stars(int size, double dx = 0, double dy = 0, double degrees = 0) {
  struct Star {
    double x, y, flux;
  };
  std::vector<Star> stars;
  const double angle = degrees * std::numbers::pi / 180, c = std::cos(angle), s = std::sin(angle);
  for (int i = 0; i < 60; ++i) {
    const double x = (Noise(3 * i) - 0.5) * 1.4 * size, y = (Noise(3 * i + 1) - 0.5) * 1.4 * size;
    stars.push_back({c * x - s * y + size / 2 + dx, s * x + c * y + size / 2 + dy, 2000 * Noise(3 * i + 2)});
  }
  return [=](int, int x, int y) {
    double value = 100 + 2 * Noise(x * 7919 + y + 1000 * std::llround(dx * 100 + degrees));
    for (const Star& star : stars) {
      const double r2 = (x - star.x) * (x - star.x) + (y - star.y) * (y - star.y);
      if (r2 < 100) value += star.flux * std::exp(-r2 / 2 / 1.7 / 1.7);
    }
    return value;
  };
}

struct Shift {
  int answer = 0;
  double dx = 9, dy = 9, peak = 9;
  int width = 0, height = 0;
};

Shift Measure(CImgFourier& image, CVelImage& other, double blur = 0, OptionalRect rect = {},
              CVelImage* surface = nullptr) {
  Shift s;
  s.answer =
      image.CalcShiftByPOC(&other, surface, blur, Address(rect), s.dx, s.dy, s.peak, s.width, s.height, 0);
  return s;
}

TEST(CImgFourier, FindsShifts) {
  constexpr int kSize = 200;
  for (const StoreCase& store : Stores()) {
    const auto first = Make<CImgFourier>(store.make(), kSize, kSize, 1, Stars(kSize));
    const Shift same = Measure(*first, *first);
    EXPECT_NEAR(same.dx, 0, 1e-3);
    EXPECT_NEAR(same.dy, 0, 1e-3);
    EXPECT_NEAR(same.peak, 0.25, 1e-3);
    EXPECT_EQ(same.width, 256);
    for (const auto& [dx, dy] : {std::pair(10.0, 3.0), {-4.3, 6.7}, {0.5, -0.25}}) {
      const auto other = Make(store.make(), kSize, kSize, 1, Stars(kSize, dx, dy));
      for (const double blur : {0.0, 1.5}) {
        const Shift s = Measure(*first, *other, blur);
        EXPECT_EQ(s.answer, 1);
        EXPECT_NEAR(s.dx, dx, blur > 0 ? 0.6 : 0.1) << store.name;
        EXPECT_NEAR(s.dy, dy, blur > 0 ? 0.6 : 0.1) << store.name;
        EXPECT_GT(s.peak, 0.002);
      }
      CImgComposit aligned;
      aligned.CopyImage(*first, nullptr, nullptr);
      aligned.Do(first.get(), other.get(), -dx, -dy, 0, 0, 6, 1, 0.5, 0, 0, 0, 0, nullptr, 0, -1);
      EXPECT_LT(aligned.GetPixelGrayRaw(100, 100, 0), 60) << "the composite undoes it";
    }
  }
}

TEST(CImgFourier, ScalesDoNotMatter) {
  constexpr int kSize = 128;
  const auto first = Make<CImgFourier>(MemoryStore(), kSize, kSize, 1, Stars(kSize));
  const auto moved = Stars(kSize, 5.3, -2.6);
  for (const auto& [scale, pedestal] : {std::pair(1.0, 0.0), {1e-7, 0.0}, {3e6, 0.0}, {1e-4, 1.0}}) {
    const auto other =
        Make(MemoryStore(), kSize, kSize, 1, [&, scale = scale, pedestal = pedestal](int p, int x, int y) {
          return scale * moved(p, x, y) + pedestal;
        });
    const Shift s = Measure(*first, *other);
    EXPECT_NEAR(s.dx, 5.3, 0.1) << scale;
    EXPECT_NEAR(s.dy, -2.6, 0.1) << scale;
  }
}

TEST(CImgFourier, StoresAndThreadsAgree) {
  constexpr int kSize = 90;
  const auto rule = Stars(kSize), moved = Stars(kSize, 2.4, -1.6);
  std::vector<float> surface;
  for (const int threads : {1, 8}) {
    const WithThreads team(threads);
    for (const StoreCase& store : Stores()) {
      const auto first = Make<CImgFourier>(store.make(), kSize, kSize, 1, rule);
      const auto other = Make(store.make(), kSize, kSize, 1, moved);
      const auto map = Make(store.make(), kSize + 80, kSize, 1, Random(0, 1));
      Measure(*first, *other, 0, {}, map.get());
      if (surface.empty()) surface = Pixels(*map);
      EXPECT_EQ(Pixels(*map), surface) << store.name << ", " << threads << " threads";
      EXPECT_EQ(map->GetPixelGrayRaw(150, 7, 0), static_cast<float>(Random(0, 1)(0, 150, 7)))
          << "beyond the transform";
    }
  }
}

TEST(CImgFourier, RectanglesAndOddSizes) {
  const auto first = Make<CImgFourier>(MemoryStore(), 150, 100, 3, Stars(150));
  const auto other = Make(TinyPool(), 150, 100, 3, Stars(150, 5, -2));
  struct Case {
    OptionalRect rect;
    int answer, width, height;
  };
  for (const Case& c : {Case{std::nullopt, 1, 256, 128},
                        {CRect(10, 10, 138, 74), 1, 128, 64},
                        {CRect(20, 3, 149, 99), 1, 128, 64},
                        {CRect(-30, -30, 128, 64), 1, 128, 64}}) {
    const Shift s = Measure(*first, *other, 0, c.rect);
    EXPECT_EQ(s.answer, c.answer);
    EXPECT_EQ(s.width, c.width);
    EXPECT_EQ(s.height, c.height);
    EXPECT_NEAR(s.dx, 5, 0.15);
    EXPECT_NEAR(s.dy, -2, 0.15);
  }
  EXPECT_EQ(Measure(*first, *other, 0, CRect(5, 5, 5, 9)).answer, 0);
  CImgFourier empty;
  EXPECT_EQ(Measure(empty, *other).answer, 0);
  for (const auto& [width, height] : {std::pair(1, 1), {1, 71}, {65, 1}}) {
    const auto narrow = Make<CImgFourier>(MemoryStore(), width, height, 1, Random(0, 1000));
    EXPECT_EQ(Measure(*narrow, *narrow).answer, 1);
    double degrees = 9;
    int w = 0, h = 0;
    EXPECT_EQ(narrow->CalcRotByRIPOC(narrow.get(), nullptr, nullptr, nullptr, degrees, w, h, 0), 1);
    EXPECT_TRUE(std::isfinite(degrees));
  }
}

TEST(CImgFourier, NothingInCommon) {
  const auto stars = Make<CImgFourier>(MemoryStore(), 64, 64, 1, Stars(64));
  for (const double value : {0.0, std::nan(""), static_cast<double>(INFINITY)}) {
    const auto other = Make(MemoryStore(), 64, 64, 1, [=](int, int, int) { return value; });
    for (const double blur : {0.0, 1.0}) {
      const Shift s = Measure(*stars, *other, blur);
      EXPECT_EQ(s.answer, 1);
      EXPECT_EQ(s.dx, 0);
      EXPECT_EQ(s.dy, 0);
      EXPECT_EQ(s.peak, 0);
    }
    double degrees = 9;
    int w = 0, h = 0;
    EXPECT_EQ(stars->CalcRotByRIPOC(other.get(), nullptr, nullptr, nullptr, degrees, w, h, 0), 1);
    EXPECT_EQ(degrees, 0);
  }
}

TEST(CImgFourier, FindsRotations) {
  constexpr int kSize = 256;
  const auto first = Make<CImgFourier>(MemoryStore(), kSize, kSize, 1, Stars(kSize));
  struct Case {
    double turn, seen;
  };
  for (const Case& c : {Case{0, 0}, {10, 10}, {-25, -25}, {190, 10}}) {
    for (const bool paged : {false, true}) {
      const auto other =
          Make(paged ? TinyPool() : MemoryStore(), kSize, kSize, 1, Stars(kSize, 0, 0, c.turn));
      const auto polarA = Make(MemoryStore(), kSize, kSize, 1, Random(0, 1)),
                 polarB = Make(TinyPool(), kSize, kSize, 1, Random(0, 1));
      double degrees = 0;
      int width = 0, height = 0;
      EXPECT_EQ(
          first->CalcRotByRIPOC(other.get(), polarA.get(), polarB.get(), nullptr, degrees, width, height, 0),
          1);
      EXPECT_NEAR(degrees, c.seen, 180.0 / kSize) << "within a column";
      EXPECT_GT(polarB->GetPixelGrayRaw(100, 100, 0), 1) << "a logarithm of the spectrum";
      EXPECT_EQ(Pixels(*polarA) == Pixels(*polarB), c.turn == 0);
      double none = 9;
      EXPECT_EQ(first->CalcRotByRIPOC_1D(other.get(), polarA.get(), nullptr, nullptr, none, width, height, 0),
                1);
      EXPECT_EQ(none, 0);

      if (paged || c.turn == 190) continue;
      CImgComposit aligned;
      const auto difference = [&](double angle) {
        aligned.CopyImage(*first, nullptr, nullptr);
        aligned.Do(first.get(), other.get(), 0, 0, angle, 0, 6, 1, 0);
        double sum = 0;
        for (int y = 64; y < 192; ++y) {
          for (int x = 64; x < 192; ++x) {
            sum += aligned.GetPixelGrayRaw(x, y, 0);
          }
        }
        return sum;
      };
      EXPECT_LE(difference(-degrees), (c.turn == 0 ? 1 : 0.6) * difference(degrees))
          << "the composite undoes it";
    }
  }
}

TEST(CImgFourier, AnglesAreTrueOfSquareTransforms) {
  constexpr double kTurn = 30;
  const auto seen = [](int height) {
    // The middle 200 rows of a field of 300, turned about its middle; above and below there is nothing.
    const int top = (300 - height) / 2;
    const auto frame = [&](double degrees) {
      return Make<CImgFourier>(MemoryStore(), 300, height, 1,
                               [top, stars = Stars(300, 0, 0, degrees)](int p, int x, int y) {
                                 const int row = y + top;
                                 return row >= 50 && row < 250 ? stars(p, x, row) : 0.0;
                               });
    };
    double degrees = 0;
    int w = 0, h = 0;
    EXPECT_EQ(frame(0)->CalcRotByRIPOC(frame(kTurn).get(), nullptr, nullptr, nullptr, degrees, w, h, 0), 1);
    return degrees;
  };
  EXPECT_NEAR(seen(300), kTurn, 180.0 / 512);
  EXPECT_GT(std::abs(seen(200) - kTurn), 10);
}

TEST(CImgFourier, NoRoomForAWorkImageIsAnError) {
  // Two frames fit, and the blurred correlation does not: there are no files in that directory.
  for (const bool contiguous : {true, false}) {
    const StoreOptions options{.budget = contiguous ? 6 << 20 : 130 << 10, .swapDirectory = "/proc"};
    const auto store = contiguous ? CreateContiguousManager(options) : CreatePagedManager(options);
    const auto first = Make<CImgFourier>(store, 100, 100, 1, Stars(100)),
               other = Make<CImgFourier>(store, 100, 100, 1, Stars(100, 3, 2));
    double degrees = 0;
    int w = 0, h = 0;
    EXPECT_THROW(Measure(*first, *other), velora::CVmMemoryAllocationError);
    EXPECT_THROW(first->CalcRotByRIPOC(other.get(), nullptr, nullptr, nullptr, degrees, w, h, 0),
                 velora::CVmMemoryAllocationError);
  }
}

TEST(CImgFourier, ShowsTransforms) {
  constexpr int kWidth = 37, kHeight = 21, kW = 16, kH = 8, kLeft = 3, kTop = 5;
  OptionalRect rect = CRect(kLeft, kTop, kLeft + 30, kTop + 9);
  for (const StoreCase& store : Stores()) {
    const auto image = Make<CImgFourier>(store.make(), kWidth, kHeight, 3, Random(0, 100));
    const auto second = Make(store.make(), kWidth, kHeight, 3, Random(0, 100, 2));
    const auto re = Make(store.make(), kWidth, kHeight, 3, Random(0, 1)),
               im = Make(store.make(), kWidth, kHeight, 3, Random(0, 1));
    for (const bool both : {false, true}) {
      EXPECT_EQ(image->Do(0, 1, 0, both ? second.get() : nullptr, re.get(), im.get(), Address(rect), 0), 1);
      for (const auto& [kx, ky] : {std::pair(0, 0), {3, 1}, {15, 7}, {8, 4}}) {
        std::complex<double> sum = 0;
        for (int i = 0; i < kW * kH; ++i) {
          const int x = i % kW, y = i / kW;
          const std::complex<double> v(image->GetPixelGrayRaw(kLeft + x, kTop + y, 2),
                                       both ? second->GetPixelGrayRaw(kLeft + x, kTop + y, 2) : 0);
          sum += v * std::polar(1.0, 2 * std::numbers::pi * (1.0 * kx * x / kW + 1.0 * ky * y / kH));
        }
        EXPECT_NEAR(re->GetPixelGrayRaw(kx, ky, 2), sum.real(), 0.01) << store.name;
        EXPECT_NEAR(im->GetPixelGrayRaw(kx, ky, 2), sum.imag(), 0.01) << store.name;
      }
      EXPECT_EQ(re->GetPixelGrayRaw(kW, 0, 1), static_cast<float>(Random(0, 1)(1, kW, 0)))
          << "beyond the transform";
    }
    // Amplitude and phase, and back.
    const auto amplitude = Make<CImgFourier>(store.make(), kW, kH, 3, Random(0, 1));
    const auto phase = Make(store.make(), kW, kH, 3, Random(0, 1)),
               back = Make(store.make(), kW, kH, 3, Random(0, 1));
    EXPECT_EQ(image->Do(0, 0, 0, nullptr, amplitude.get(), phase.get(), Address(rect), 0), 1);
    EXPECT_EQ(amplitude->Do(1, 0, 0, phase.get(), back.get(), nullptr, nullptr, 0), 1);
    EXPECT_EQ(
        Difference(
            *back, [&](int p, int x, int y) { return image->GetPixelGrayRaw(kLeft + x, kTop + y, p); }, 1e-4),
        "");
    EXPECT_EQ(image->Do(0, 1, 1, nullptr, back.get(), nullptr, Address(rect), 0), 1);
    EXPECT_LT(back->GetPixelGrayRaw(0, 0, 0), re->GetPixelGrayRaw(0, 0, 0)) << "windowed";
    EXPECT_EQ(image->DoLogPolar(back.get(), Address(rect), 0, 0), 1);
    EXPECT_NEAR(
        back->GetPixelGrayRaw(0, 0, 1),
        (image->GetPixelGrayRaw(kLeft + 8, kTop + 3, 1) + image->GetPixelGrayRaw(kLeft + 8, kTop + 4, 1)) /
                2 * 0.5 +
            (image->GetPixelGrayRaw(kLeft + 9, kTop + 3, 1) +
             image->GetPixelGrayRaw(kLeft + 9, kTop + 4, 1)) /
                2 * 0.5,
        1e-3)
        << "radius 1 to the right of the middle";
  }
}

}  // namespace
