// Balance, the matrix, false colour and separation.
#include <cfloat>

#include <gtest/gtest.h>

#include "korimg/colour/CImgColorBalance.h"
#include "korimg/colour/CImgColorCorrect.h"
#include "korimg/colour/CImgFalseColor.h"
#include "korimg/colour/CImgSeparation.h"

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

const PixelRule kGarbage = Random(0, 1, 7);

double Garbage(int p, int x, int y) {
  return static_cast<float>(kGarbage(p, x, y));
}

TEST(CImgColorBalance, MovesPlanesByPercentsOfTheFirst) {
  OnEveryPath([](const StoreCase& store) {
    int next = 0;
    for (const auto& [width, height] : Sizes()) {
      for (OptionalRect rect : Windows(width, height)) {
        const int planes = 1 + (next++ + width) % 3;
        const auto src = Make(store.make(), width, height, planes, Wild(100, 900));
        const auto target = Make<CImgColorBalance>(src->VmManager(), width, height, planes, kGarbage);
        target->SetLevel(0, 100, 900);
        target->Do(100, -2.5, 30, src.get(), Address(rect), 0);
        const double offset[] = {800, -20, 240};
        const auto want = [&](int p, int x, int y) {
          return IsInside(rect, x, y) ? src->GetPixelGrayRaw(x, y, p) + offset[p] : Garbage(p, x, y);
        };
        ASSERT_EQ(Difference(*target, want, 1e-6), "") << store.name << " " << width << "x" << height;
      }
    }
  });
}

const tagMATRIX kMatrix = {1.4, -0.3, -0.15, -0.2, 1.6, -0.4, 0.05, -0.55, 1.7};
const tagMATRIX kIdentity = {1, 0, 0, 0, 1, 0, 0, 0, 1};

/// Red, green or blue by a row of the matrix, whose zeros leave planes out.
double Row(const tagMATRIX& m, int row, const double* t) {
  const double a[3][3] = {{m.a11, m.a12, m.a13}, {m.a21, m.a22, m.a23}, {m.a31, m.a32, m.a33}};
  double sum = 0;
  for (int j = 0; j < 3; ++j) {
    if (a[row][j] != 0) sum += a[row][j] * t[j];
  }
  return sum;
}

TEST(CImgColorCorrect, FromOneImagesLevelsToAnothers) {
  const std::vector<std::pair<tagMATRIX, double>> cases = {{kMatrix, 1},   {kMatrix, 0.3}, {kMatrix, 7},
                                                           {kIdentity, 1}, {kMatrix, 0},   {kMatrix, -1},
                                                           {kMatrix, NAN}};
  OnEveryPath([&](const StoreCase& store) {
    size_t next = 0;
    for (const auto& [width, height] : Sizes()) {
      for (OptionalRect rect : Windows(width, height)) {
        auto [m, strength] = cases[next++ % cases.size()];
        const auto src = Make(store.make(), width, height, 3, Wild(-50, 900));
        const auto target = Make<CImgColorCorrect>(src->VmManager(), width, height, 3, kGarbage);
        ASSERT_EQ(target->Do(&m, strength, 2, 500, 1, src.get(), Address(rect), 0), 1);
        const auto want = [&, m = m, strength = strength](int p, int x, int y) -> double {
          if (!IsInside(rect, x, y)) return Garbage(p, x, y);
          const double own = src->GetPixelGrayRaw(x, y, p);
          if (!(strength > 0)) return own;
          double t[3];
          for (int j = 0; j < 3; ++j) {
            t[j] = (src->GetPixelGrayRaw(x, y, j) - src->GetLevelMin(j)) / src->GetLevelRange(j);
          }
          const double v = Row(m, p, t) * target->GetLevelRange(p) + target->GetLevelMin(p);
          return strength < 1 ? strength * v + (1 - strength) * own : v;
        };
        ASSERT_EQ(Difference(*target, want, 1e-6), "")
            << store.name << " " << width << "x" << height << " strength " << strength;
      }
    }
  });
}

TEST(CImgColorCorrect, OntoItself) {
  OnEveryPath([](const StoreCase& store) {
    for (const double strength : {1.0, 0.4}) {
      const auto image = Make<CImgColorCorrect>(store.make(), 71, 133, 3, Wild(0, 900));
      const auto src = Make(store.make(), 71, 133, 3, Wild(0, 900));
      const auto other = Make<CImgColorCorrect>(src->VmManager(), 71, 133, 3, kGarbage);
      for (int p = 0; p < 3; ++p) {
        src->SetLevel(p, image->GetLevelMin(p), image->GetLevelMax(p));
      }
      tagMATRIX m = kMatrix;
      ASSERT_EQ(image->Do(&m, strength, 0, 0, 0, image.get(), nullptr, 0), 1);
      ASSERT_EQ(other->Do(&m, strength, 0, 0, 0, src.get(), nullptr, 0), 1);
      ASSERT_EQ(Difference(*image, *other), "") << store.name;
    }
  });
}

TEST(CImgColorCorrect, InPlaceFromAnOrigin) {
  struct Case {
    int mode;
    double origin;  ///< that the mode means
    double strength;
  };
  constexpr double kLeast = -75.5;
  OnEveryPath([](const StoreCase& store) {
    for (const auto& [width, height] : Sizes()) {
      for (const Case& c :
           {Case{0, 0, 1}, {1, kLeast, 1}, {2, 40, 1}, {2, 40, 0.5}, {1, kLeast, 0.2}, {0, 0, 3}}) {
        const auto rule = [](int p, int x, int y) {
          return p == 1 && x == 0 && y == 0 ? kLeast : Wild(-70, 900)(p, x + 2, y);
        };
        const auto image = Make<CImgColorCorrect>(store.make(), width, height, 3, rule);
        tagMATRIX m = kMatrix;
        ASSERT_EQ(image->Do(&m, c.strength, c.mode, 40, 0, 0), 1);
        const auto want = [&](int p, int x, int y) {
          double t[3];
          for (int j = 0; j < 3; ++j) {
            t[j] = static_cast<float>(rule(j, x, y)) - c.origin;
          }
          double v = Row(m, p, t) + c.origin;
          if (!std::isnan(v)) v = std::min<double>(std::max<double>(v, FLT_MIN), FLT_MAX);
          return c.strength < 1 ? c.strength * v + (1 - c.strength) * static_cast<float>(rule(p, x, y)) : v;
        };
        ASSERT_EQ(Difference(*image, want, 1e-6), "") << store.name << " " << width << " mode " << c.mode;
      }
    }
  });
}

TEST(CImgColorCorrect, SameBitsInVectorsOfAllLengths) {
  for (const double strength : {1.0, 0.3}) {
    const auto run = [&] {
      const auto image = Make<CImgColorCorrect>(MemoryStore(), 71, 9, 3, Random(-50, 900));
      tagMATRIX m = kMatrix;
      image->Do(&m, strength, 1, 0, 0, 0);
      return Pixels(*image);
    };
    const auto longest = run();
    const WithFeatures simd(0);
    EXPECT_EQ(run(), longest);
  }
}

TEST(CImgColorCorrect, IdentityLeavesPositivePixels) {
  const float values[] = {1.5f, 0, -3, FLT_MIN, FLT_MAX, INFINITY, -INFINITY, NAN, 1e-30f};
  const float want[] = {1.5f, FLT_MIN, FLT_MIN, FLT_MIN, FLT_MAX, FLT_MAX, FLT_MIN, NAN, 1e-30f};
  const auto image = Make<CImgColorCorrect>(MemoryStore(), 9, 9, 3, [&](int p, int x, int y) {
    return values[p == 0 ? x : p == 1 ? y : (x + y) % 9];
  });
  tagMATRIX m = kIdentity;
  ASSERT_EQ(image->Do(&m, 1, 0, 0, 0, 0), 1);
  const auto same = [&](int p, int x, int y) -> double {
    return want[p == 0 ? x : p == 1 ? y : (x + y) % 9];
  };
  EXPECT_EQ(Difference(*image, same, 0), "");
  EXPECT_EQ(image->GetPixelGrayRaw(1, 0, 0), FLT_MIN);
}

TEST(CImgColorCorrect, Refuses) {
  tagMATRIX m = kMatrix;
  const auto src = Make(MemoryStore(), 8, 5, 3, Random(0, 1));
  const auto narrow = Make(MemoryStore(), 7, 5, 3, Random(0, 1));
  for (const int planes : {1, 2, 3}) {
    const auto image = Make<CImgColorCorrect>(MemoryStore(), 8, 5, planes, Random(0, 9));
    const auto before = Pixels(*image);
    EXPECT_EQ(image->Do(nullptr, 1, 0, 0, 0, 0), 0);
    EXPECT_EQ(image->Do(nullptr, 1, 0, 0, 0, src.get(), nullptr, 0), 0);
    for (const int mode : {-1, 3}) {
      EXPECT_EQ(image->Do(&m, 1, mode, 0, 0, 0), 0);
      EXPECT_EQ(image->Do(&m, 1, mode, 0, 0, src.get(), nullptr, 0), 0);
    }
    EXPECT_EQ(image->Do(&m, 1, 0, 0, 0, narrow.get(), nullptr, 0), 0);
    for (const double strength : {0.0, -2.0, double(NAN)}) {
      EXPECT_EQ(image->Do(&m, strength, 0, 0, 0, 0), planes == 3);
    }
    if (planes < 3) {
      EXPECT_EQ(image->Do(&m, 1, 0, 0, 0, 0), 0);
      EXPECT_EQ(image->Do(&m, 1, 0, 0, 0, src.get(), nullptr, 0), 0);
    }
    EXPECT_EQ(Pixels(*image), before);
  }
  CImgColorCorrect none;
  EXPECT_EQ(none.Do(&m, 1, 1, 0, 0, 0), 0);
}

struct Palettes : CImgFalseColor {
  std::array<float, 3> At(double value, int palette, int cycles = 0) {
    std::array<float, 3> c;
    GetFalseColor(static_cast<float>(value), palette, cycles, &c[0], &c[1], &c[2]);
    return c;
  }
};

TEST(CImgFalseColor, PalettesAtTheirStopsAndBetween) {
  struct Case {
    int palette;
    double value;
    std::array<float, 3> want;
    int cycles = 0;
  };
  // In palette 1 the share of the next colour is the distance / 64.
  const float near_end = static_cast<float>(42.25 / 64);
  const std::vector<Case> cases = {
      {0, 0, {0, 0, 255}},
      {0, 63.75, {0, 255, 255}},
      {0, 127.5, {0, 255, 0}},
      {0, 191.25, {255, 255, 0}},
      {0, 255, {255, 0, 0}},
      {0, 31.875, {0, 127.5, 255}},
      {0, 223.125, {255, 127.5, 0}},
      {0, 300, {255, 0, 0}},
      {0, -4, {0, 0, 255}},
      {0, NAN, {0, 0, 255}},
      {1, 0, {0, 0, 0}},
      {1, 42.5, {0, 0, 255}},
      {1, 85, {0, 255, 255}},
      {1, 212.5, {255, 0, 0}},
      {1, 255, {255, 255, 255}},
      {1, 42.25, {0, 0, 255 * near_end}},
      {1, 84.75, {0, 255 * near_end, 255}},
      {1, 254.75, {255, 255 * near_end, 255 * near_end}},
      {2, 63.75, {0, 0, 128}},
      {2, 95.625, {0, 0, 191.5}},
      {2, 127.5, {0, 0, 255}},
      {2, 191.25, {128, 128, 255}},
      {2, 255, {255, 255, 255}},
      {3, 0, {0, 0, 0}},
      {3, 42, {0, 33, 45}},
      {3, 85, {0, 86, 109}},
      {3, 128, {21, 143, 168}},
      {3, 170, {94, 193, 209}},
      {3, 255, {246, 252, 252}},
      {4, 42, {63, 0, 0}},
      {4, 85, {143, 7, 0}},
      {4, 128, {202, 46, 23}},
      {4, 170, {230, 123, 98}},
      {4, 255, {253, 249, 248}},
      {5, 1, {3, 0, 0}},
      {5, 10.5, {31.5, 0, 0}},
      {5, 85, {255, 0, 0}},
      {5, 100, {255, 45, 0}},
      {5, 170, {255, 255, 0}},
      {5, 200, {255, 255, 90}},
      {5, 255, {255, 255, 255}},
      {6, 77.25, {77.25, 77.25, 77.25}},
      {-1, 256, {255, 255, 255}},
      {0, 31.875, {0, 255, 255}, 2},
      {0, 128, {0, 0, 255}, 2},
      {0, 127.75, {255, 0, 0}, 2},  // 255.5, limited again
      {0, 159.875, {0, 255, 255}, 2},
      {6, 255, {253, 253, 253}, 3},  // 765 - 512
      {6, 127.75, {255, 255, 255}, 2},
      {6, 100, {100, 100, 100}, -3},
  };
  Palettes palettes;
  for (const Case& c : cases) {
    const auto got = palettes.At(c.value, c.palette, c.cycles);
    for (int p = 0; p < 3; ++p) {
      EXPECT_NEAR(got[p], c.want[p], 1e-4) << "palette " << c.palette << " at " << c.value << " plane " << p;
    }
  }
  for (const int palette : {3, 4}) {
    for (int i = 0; i < 255; ++i) {
      const auto here = palettes.At(i, palette), half = palettes.At(i + 0.5, palette),
                 next = palettes.At(i + 1, palette);
      for (int p = 0; p < 3; ++p) {
        EXPECT_EQ(here[p], std::round(here[p]));
        EXPECT_GE(next[p], here[p]) << palette << " at " << i;
        EXPECT_LE(next[p], here[p] + 4) << palette << " at " << i;
        EXPECT_EQ(half[p], (here[p] + next[p]) / 2);
      }
    }
  }
}

TEST(CImgFalseColor, ColoursBrightnessByLevels) {
  const std::pair<double, double> limits[] = {{200, 700}, {700, 200}, {300, 300}, {200, NAN}};
  OnEveryPath([&](const StoreCase& store) {
    int next = 0;
    for (const auto& [width, height] : Sizes()) {
      for (OptionalRect rect : Windows(width, height)) {
        const int planes = 1 + next / 4 % 3;
        const auto [low, high] = limits[next++ % 4];
        const auto src = Make(store.make(), width, height, planes, Wild(50, 1000));
        const auto target = Make<CImgFalseColor>(src->VmManager(), width, height, 3, kGarbage);
        target->Do(low, high, 0, 2, src.get(), Address(rect), 0);
        const double from = src->To256(low, 0), range = src->To256(high, 0) - from;
        Palettes palettes;
        const auto want = [&](int p, int x, int y) -> double {
          if (!IsInside(rect, x, y)) return Garbage(p, x, y);
          double light = 0;
          for (int j = 0; j < planes; ++j) {
            const double weights[] = {0.299, 0.587, 0.114}, weight = planes == 3 ? weights[j] : j == 0;
            if (weight > 0) light += weight * src->To256(double(src->GetPixelGrayRaw(x, y, j)), j);
          }
          const double v = range == 0 || std::isnan(range) ? 0 : (light - from) / range * 255;
          return palettes.At(v, 0, 2)[p] / 255 * target->GetLevelRange(p) + target->GetLevelMin(p);
        };
        ASSERT_EQ(Difference(*target, want, 1e-4), "") << store.name << " " << width << " planes " << planes;
      }
    }
  });
}

TEST(CImgFalseColor, IntoColourOnly) {
  const auto src = Make(MemoryStore(), 8, 5, 1, Random(100, 900));
  for (const auto& [width, planes] : {std::pair(8, 1), {8, 2}, {9, 3}}) {
    const auto target = Make<CImgFalseColor>(MemoryStore(), width, 5, planes, kGarbage);
    target->Do(100, 900, 0, 0, src.get(), nullptr, 0);
    EXPECT_EQ(Difference(*target, Garbage, 0), "");
  }
}

TEST(CImgSeparation, ChannelsWithTheirLevels) {
  struct Case {
    int first, second, lower, upper;
  };
  constexpr Case kCases[] = {{0, 0, 0, 0}, {1, 1, 1, 1}, {2, 2, 2, 2},
                             {1, 2, 1, 2}, {0, 2, 0, 2}, {0, 1, 0, 2}};
  OnEveryPath([&](const StoreCase& store) {
    for (const auto& [width, height] : Sizes()) {
      for (int channel = 0; channel < 6; ++channel) {
        const auto src = Make(store.make(), width, height, 3, Wild(-100, 900));
        src->SetLevel(1, -7, 400);
        const auto target = Make<CImgSeparation>(src->VmManager(), width, height, 1, kGarbage);
        target->Do(src.get(), channel, 0);
        const Case& c = kCases[channel];
        const auto want = [&](int, int x, int y) {
          const double a = src->GetPixelGrayRaw(x, y, c.first), b = src->GetPixelGrayRaw(x, y, c.second);
          return c.first == c.second ? a : (a + b) / 2;
        };
        ASSERT_EQ(Difference(*target, want, channel < 3 ? 0 : 1e-7), "") << store.name << " " << channel;
        EXPECT_EQ(target->GetLevelMin(0), (src->GetLevelMin(c.lower) + src->GetLevelMin(c.upper)) / 2);
        EXPECT_EQ(target->GetLevelMax(0), (src->GetLevelMax(c.lower) + src->GetLevelMax(c.upper)) / 2);
      }
    }
  });
}

TEST(CImgSeparation, LeavesAloneWhatDoesNotFit) {
  struct Case {
    int width, own, planes, channel;
  };
  for (const Case& c :
       {Case{8, 1, 3, 6}, {8, 1, 3, -1}, {7, 1, 3, 0}, {8, 1, 1, 0}, {8, 1, 2, 5}, {8, 3, 3, 0}}) {
    const auto src = Make(MemoryStore(), c.width, 5, c.planes, Random(0, 900));
    const auto target = Make<CImgSeparation>(MemoryStore(), 8, 5, c.own, kGarbage);
    target->Do(src.get(), c.channel, 0);
    EXPECT_EQ(Difference(*target, Garbage, 0), "");
    EXPECT_EQ(target->GetLevelMin(0), 130);
  }
}

}  // namespace
