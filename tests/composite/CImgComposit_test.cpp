#include "korimg/composite/CImgComposit.h"

#include <cmath>
#include <numbers>

#include <gtest/gtest.h>

#include "korimg/composite/CAlignment.h"

#include "tests/support/Images.h"

using namespace korimg;
using namespace korimg::test;

namespace {

constexpr int kWidth = 61, kHeight = 45, kWidthB = 53, kHeightB = 58;

/// Smooth: what a pipeline's single-precision positions lose stays small.
double Waves(int p, double x, double y) {
  return 500 + 200 * std::sin(x / 7 + p) + 150 * std::cos(y / 5 - p) + 20 * p;
}

struct Placing {
  const char* form;
  double dx, dy, degrees;
  int useImageCentre;
};

const Placing kPlacings[] = {
    {"whole shift", 3, -5, 0, 0},          {"whole shift out of sight", 300, 0, 0, 0},
    {"part of a pixel", 3.25, -5.6, 0, 0}, {"part of a pixel, off both edges", -20.7, 30.35, 0, 1},
    {"turned", 4.2, -3.1, 17.3, 0},        {"turned about a centre", 4, 3, -148.6, 1}};

double Bicubic(double t) {
  t = std::abs(t);
  if (t <= 1) return 1 - 2.5 * t * t + 1.5 * t * t * t;
  return t <= 2 ? -0.5 * (t * t * t - 5 * t * t + 8 * t - 4) : 0;
}

double Lanczos(double t, double n) {
  const double p = std::numbers::pi * t;
  return t == 0 ? 1 : std::abs(t) > n ? 0 : n * std::sin(p) * std::sin(p / n) / (p * p);
}

/// b between its pixels.
double Between(CVelImage& b, int plane, int method, double u, double v) {
  const auto pixel = [&](int x, int y) {
    return static_cast<double>(
        b.GetPixelGrayRaw(std::clamp(x, 0, b.GetWidth() - 1), std::clamp(y, 0, b.GetHeight() - 1), plane));
  };
  const auto weight = [&](double t) {
    switch (method) {
      case 0:
        return std::max(0.0, 1 - std::abs(t));
      case 1:
        return Bicubic(t);
      default:
        return Lanczos(t, method);
    }
  };
  if (method == 4) return pixel(static_cast<int>(std::floor(u + 0.5)), static_cast<int>(std::floor(v + 0.5)));
  const int iu = static_cast<int>(std::floor(u)), iv = static_cast<int>(std::floor(v));
  double sum = 0;
  for (int j = -2; j <= 3; ++j) {
    for (int i = -2; i <= 3; ++i) {
      const double w = weight(u - iu - i) * weight(v - iv - j);
      if (w != 0) sum += w * pixel(iu + i, iv + j);
    }
  }
  return sum;
}

double Combine(int mode, bool level, bool cut, double weight, double a, double b) {
  const double white = std::clamp(b, mode == 5 ? 0.001 : 0.0, 255.0) / 255;
  switch (mode) {
    case 0:
      return (a + b) / 2;
    case 1:
      return a + b;
    case 2:
      return a * (1 - weight) + b * weight;
    case 3:
      return cut ? std::max(a - b, 0.0) : a - b;
    case 4:
      return level ? a * white : a * b;
    case 5:
      return level ? a / white : b == 0 ? a : a / b;
    case 6:
      return std::abs(a - b);
    case 7:
      return std::max(a, b);
    case 8:
      return std::min(a, b);
    default:
      return a;
  }
}

struct Sampled {
  double u, v;
  bool inside, doubtful;  ///< so near to a limit that rounding decides
  double value[3];
};

/// Where b is read for each pixel of a, and what stands there: of each of a's planes.
std::vector<Sampled> SampleAll(CVelImage& a, CVelImage& b, const Placing& place, int method, bool lines) {
  const double angle = place.degrees * std::numbers::pi / 180, c = std::cos(angle), s = std::sin(angle);
  const double cx = place.useImageCentre ? b.GetStdCtr().fx : b.GetWidth() * 0.5;
  const double cy = place.useImageCentre ? b.GetStdCtr().fy : b.GetHeight() * 0.5;
  const bool turned = place.degrees != 0;
  // Lines end at the last pixel's middle: turned ones on both axes, shifted ones below.
  const double endX = b.GetWidth() - (lines && turned ? 1 : 0), endY = b.GetHeight() - (lines ? 1 : 0);
  std::vector<Sampled> all;
  for (int y = 0; y < a.GetHeight(); ++y) {
    for (int x = 0; x < a.GetWidth(); ++x) {
      const double X = x - cx - place.dx, Y = cy - y + place.dy;
      Sampled at{};
      at.u = turned ? c * X - s * Y + cx : x - place.dx;
      at.v = turned ? cy - (s * X + c * Y) : y - place.dy;
      at.inside = at.u >= 0 && at.v >= 0 && at.u < endX && (lines ? at.v <= endY : at.v < endY);
      const auto near = [](double t, double limit) { return std::abs(t - limit) < 1e-3; };
      if (place.dx != 3 && place.dx != 300) {
        at.doubtful = near(at.u, 0) || near(at.v, 0) || near(at.u, endX) || near(at.v, endY);
        if (method == 4) {
          at.doubtful |= near(std::abs(at.u - std::floor(at.u)), 0.5) || near(at.v - std::floor(at.v), 0.5);
        }
      }
      if (at.inside) {
        for (int p = 0; p < b.GetPlanes(); ++p) {
          at.value[p] = Between(b, p, method, at.u, at.v);
        }
      }
      all.push_back(at);
    }
  }
  return all;
}

struct Pair {
  int planesA, planesB;
};

class Composites : public ::testing::TestWithParam<Pair> {
 protected:
  std::shared_ptr<CVelImage> First(const std::shared_ptr<CVmManager>& store) {
    auto a = Make(store, kWidth, kHeight, GetParam().planesA, Random(50, 950));
    for (int p = 0; p < a->GetPlanes(); ++p) {
      a->SetLevel(p, 10 * p + 20, 900 + p);
    }
    return a;
  }
  std::shared_ptr<CVelImage> Second(const std::shared_ptr<CVmManager>& store) {
    auto b = Make(store, kWidthB, kHeightB, GetParam().planesB, Waves);
    for (int p = 0; p < b->GetPlanes(); ++p) {
      b->SetLevel(p, 100 + 5 * p, 800 - 30 * p);
    }
    b->SetStdCtr(30.0, 41.5);
    return b;
  }
};

TEST_P(Composites, EveryModeFormKernelAndScaleIsTheFormula) {
  for (const bool lines : {false, true}) {
    const auto store = lines ? TinyPool() : MemoryStore();
    const auto a = First(store), b = Second(store);
    CImgComposit target;
    target.Create(*a, nullptr);
    for (const Placing& place : kPlacings) {
      for (int method = 0; method < 5; ++method) {
        const std::vector<Sampled> all = SampleAll(*a, *b, place, method, lines);
        for (int mode = 0; mode <= 11; ++mode) {
          if (mode == 9) continue;
          for (const bool level : {false, true}) {
            const bool cut = mode == 3 && method % 2, scaled = level || mode > 9;
            target.Do(a.get(), b.get(), place.dx, place.dy, place.degrees, place.useImageCentre, mode, method,
                      0.3, level, cut, 0.95, 0, nullptr, 0, -1);
            const double outside = mode == 4 || mode == 5 ? 255 : 0;
            int wrong = 0;
            for (size_t i = 0; i < all.size() && wrong < 3; ++i) {
              const Sampled& at = all[i];
              if (at.doubtful) continue;
              const int x = static_cast<int>(i % kWidth), y = static_cast<int>(i / kWidth);
              for (int p = 0; p < a->GetPlanes(); ++p) {
                const bool gray = lines && b->IsColor() && !a->IsColor();
                const int q = std::min(p, b->GetPlanes() - 1);
                const auto value = [&](int plane) {
                  return scaled ? b->To256(at.value[plane], plane) : at.value[plane];
                };
                double second = outside;
                if (at.inside) {
                  second = gray ? 0.299 * value(0) + 0.587 * value(1) + 0.114 * value(2) : value(q);
                } else if (scaled && !lines) {
                  second = outside * 255 / b->GetLevelRange(q);
                }
                const double raw = a->GetPixelGrayRaw(x, y, p), first = scaled ? a->To256(raw, p) : raw;
                double expected = Combine(mode, scaled, cut, 0.3, first, second);
                if (scaled) expected = a->ToRaw(expected, p);
                const double got = target.GetPixelGrayRaw(x, y, p);
                const double scale = std::abs(raw) + std::abs(second) + std::abs(expected) + 1000;
                if (std::abs(got - expected) <= 2e-5 * scale) continue;
                ADD_FAILURE() << place.form << (lines ? " by lines" : "") << " mode " << mode << " method "
                              << method << " level " << level << " (" << x << ", " << y << ") " << p << ": "
                              << got << ", not " << expected;
                ++wrong;
              }
            }
          }
        }
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(All, Composites, ::testing::Values(Pair{1, 1}, Pair{3, 3}, Pair{3, 1}, Pair{1, 3}));

TEST(CImgComposit, SmallRectanglesAreWidenedByPipelinesOnly) {
  const PixelRule first = Random(0, 100), old = Wild(0, 100);
  for (const bool lines : {false, true}) {
    const auto store = lines ? TinyPool() : MemoryStore();
    const auto a = Make(store, 150, 90, 3, first), b = Make(store, 40, 50, 1, Waves);
    CImgComposit target;
    target.Create(*a, nullptr);
    Paint(target, old);
    for (int p = 0; p < 3; ++p) {
      target.SetLevel(p, p, 7 + p);
    }
    CRect rect(100, 20, 110, 30);
    target.Do(a.get(), b.get(), 90, 10, 0, 0, 1, 0, 0, 0, 0, 0, 0, &rect, 0, -1);
    const auto expected = [&](int p, int x, int y) -> double {
      const bool done =
          lines ? x >= 100 && x < 110 && y >= 20 && y < 30 : x >= 86 && x < 150 && y >= 20 && y < 52;
      if (!done) return static_cast<float>(old(p, x, y));
      const bool inside = x >= 90 && x < 130 && y >= 10 && y < 60;
      return static_cast<float>(first(p, x, y)) + (inside ? b->GetPixelGrayRaw(x - 90, y - 10, 0) : 0);
    };
    EXPECT_EQ(Difference(target, expected, 1e-4), "") << lines;
    EXPECT_EQ(target.GetLevelMax(2), 9) << "the target keeps its levels";
  }
}

TEST(CImgComposit, TheTargetMayBeOneOfTheImages) {
  const PixelRule first = Random(0, 100);
  for (const bool lines : {false, true}) {
    for (const double degrees : {0.0, 30.0}) {
      const auto store = lines ? TinyPool() : MemoryStore();
      const auto a = Make(store, 80, 60, 1, first), b = Make(store, 80, 60, 1, Waves);
      a->CalcMinMax(0), b->CalcMinMax(0);
      CImgComposit apart, onA, onB;
      apart.Create(*a, nullptr);
      onA.CopyImage(*a, nullptr, nullptr);
      onB.CopyImage(*b, nullptr, nullptr);
      apart.Do(a.get(), b.get(), 2.5, 3.5, degrees, 0, 2, 1, 0);
      onA.Do(&onA, b.get(), 2.5, 3.5, degrees, 0, 2, 1, 0);
      EXPECT_EQ(Difference(onA, apart), "") << lines << degrees;
      onB.Do(a.get(), &onB, 2.5, 3.5, degrees, 0, 2, 1, 0);
      EXPECT_EQ(Difference(onB, apart), "") << lines << degrees;
      // Neighbours are those of before, on either of them.
      for (const int radius : {0, 1, 2}) {
        apart.Abr(a.get(), b.get(), 1, 2, degrees, 9, 0.9, 0, 0, 0.95, radius, nullptr, 0, -1);
        for (CImgComposit* target : {&onA, &onB}) {
          target->CopyImage(target == &onA ? *a : *b, nullptr, nullptr);
          CVelImage* second = target == &onB ? target : static_cast<CVelImage*>(b.get());
          target->Abr(target == &onA ? target : static_cast<CVelImage*>(a.get()), second, 1, 2, degrees, 9,
                      0.9, 0, 0, 0.95, radius, nullptr, 0, -1);
          EXPECT_EQ(Difference(*target, apart), "") << lines << degrees << radius << (target == &onB);
        }
      }
    }
  }
}

TEST(CImgComposit, PlanesBeyondTheThirdAreLeftAlone) {
  for (const bool lines : {false, true}) {
    const auto store = lines ? TinyPool() : MemoryStore();
    const auto a = Make(store, 70, 40, 5, Random(0, 100)), b = Make(store, 70, 40, 5, Random(0, 100, 2));
    CImgComposit target;
    target.Create(*a, nullptr);
    Paint(target, Random(5, 6));
    for (const int mode : {1, 9}) {
      target.Do(a.get(), b.get(), 1.5, 2, 0, 0, mode, 0, 0.5, 0, 0, 0.5, 1, nullptr, 0, -1);
      for (int p = 0; p < 5; ++p) {
        EXPECT_EQ(target.GetPixelGrayRaw(30, 20, p) == static_cast<float>(Random(5, 6)(p, 30, 20)), p >= 3);
      }
    }
  }
}

TEST(CImgComposit, WhatCannotBeDoneLeavesTheTarget) {
  constexpr double kNan = std::numeric_limits<double>::quiet_NaN(),
                   kInf = std::numeric_limits<double>::infinity();
  for (const bool lines : {false, true}) {
    const auto store = lines ? TinyPool() : MemoryStore();
    const auto a = Make(store, 40, 30, 1, Random(1, 2)), b = Make(store, 40, 30, 1, Random(1, 2, 2));
    const auto smaller = Make(store, 40, 29, 1, Random(1, 2));
    CImgComposit target;
    target.Create(*a, nullptr);
    Paint(target, Random(5, 6));
    const auto before = target.Clone(nullptr);
    target.Do(a.get(), b.get(), 1, 1, 0, 0, -1, 0, 0);
    target.Do(smaller.get(), b.get(), 1, 1, 0, 0, 1, 0, 0);
    target.Do65(a.get(), b.get(), 1, 1, 0, -3, 0);
    EXPECT_EQ(Difference(target, *before), "");
    if (!lines) {
      target.Do(a.get(), b.get(), 1.5, 1, 0, 0, 1, 5, 0);
      EXPECT_EQ(Difference(target, *before), "") << "no such method";
    }
    // Nowhere: nothing of b is met, and nothing is read outside.
    for (const double far : {kNan, kInf, -kInf, 1e300, -1e10, 2147483648.0}) {
      for (const double degrees : {0.0, 45.0}) {
        target.Do(a.get(), b.get(), far, 0, degrees, 0, 1, 1, 0);
        EXPECT_EQ(Difference(target, *a), "") << far << " " << degrees << lines;
      }
    }
    // What lies outside is 255 to a product and a quotient; with levels on the scale of 0 to 255, or counted
    // from b's black in pipelines, where it has b's range.
    for (const double far : {kNan, kInf, -kInf, 1e300, -1e10, 2147483648.0}) {
      for (const int level : {0, 1}) {
        for (const int mode : {4, 5}) {
          target.Do(a.get(), b.get(), 0, far, 0, 0, mode, 1, level);
          const double second = lines || !level ? 255 : 255 * 255 / b->GetLevelRange(0);
          const auto expected = [&](int p, int x, int y) {
            const double raw = a->GetPixelGrayRaw(x, y, p);
            return level ? a->ToRaw(Combine(mode, true, false, 0, a->To256(raw, p), second), p)
                         : Combine(mode, false, false, 0, raw, second);
          };
          EXPECT_EQ(Difference(target, expected, 1e-4), "") << far << " mode " << mode << level << lines;
        }
      }
    }
    for (const double degrees : {kNan, kInf}) {
      target.Do(a.get(), b.get(), 0, 0, degrees, 0, 1, 1, 0);
      EXPECT_EQ(Difference(target, *a), "") << degrees << lines;
    }
  }
}

TEST(CImgComposit, Version65GoesByLinesAndSumsInFloats) {
  const auto a = Make(MemoryStore(), 80, 60, 3, Random(0, 100)), b = Make(MemoryStore(), 70, 66, 3, Waves);
  const auto pagedA = Make(TinyPool(), 80, 60, 3, Random(0, 100)),
             pagedB = Make(TinyPool(), 70, 66, 3, Waves);
  CImgComposit old, paged;
  old.Create(*a, nullptr);
  paged.Create(*pagedA, nullptr);
  for (int mode = 0; mode <= 10; ++mode) {
    for (const int level : {0, 1}) {
      if (mode == 9) continue;
      old.Do65(a.get(), b.get(), 3.5, 2, mode % 2 * 20.0, mode, level);
      paged.Do(pagedA.get(), pagedB.get(), 3.5, 2, mode % 2 * 20.0, 0, mode, 0, level);
      EXPECT_EQ(Difference(old, paged, mode == 0 ? 1e-4 : 0), "") << mode << level;
    }
  }
  old.Do65(a.get(), b.get(), 1, 2, 0, 0, 0);
  for (int y = 2; y < 60; ++y) {
    const float sum = a->GetPixelGrayRaw(9, y, 1) + b->GetPixelGrayRaw(8, y - 2, 1);
    EXPECT_EQ(old.GetPixelGrayRaw(9, y, 1), sum * 0.5f);
  }
}

TEST(CImgComposit, AShortExposureReplacesWhatIsSaturated) {
  struct Case {
    const char* name;
    double a, b;              // everywhere
    double besideA, besideB;  // at (5, 4)
    double middleA, middleB;  // at (4, 4)
    double ratio;
    int radius;
    double expected;  // at (4, 4)
  };
  for (const auto& store : {MemoryStore(), TinyPool()}) {
    for (const Case& c : {Case{"no radius, b", 300, 20, 300, 20, 300, 20, 4, 0, 80},
                          {"no radius, a", 300, 90, 300, 90, 300, 90, 4, 0, 300},
                          {"nothing saturated", 100, 20, 100, 20, 100, 20, 4, 1, 80},
                          {"a spot of b only", 100, 20, 100, 500, 100, 20, 4, 1, 100},
                          {"a spot of a only", 100, 60, 1000, 60, 100, 60, 4, 1, 240},
                          {"in the middle of both spots", 100, 60, 1000, 500, 1000, 500, 1.5, 1, 750},
                          {"at the border, like a", 100, 60, 1000, 500, 100, 60, 4, 1, 100},
                          {"at the border, like b", 300, 60, 1000, 500, 300, 60, 4, 1, 240},
                          {"a radius of 9 is 2", 100, 20, 100, 500, 100, 20, 4, 9, 100}}) {
      const auto paint = [](double all, double beside, double middle, double maximum) {
        return [=](int, int x, int y) {
          if (x == 8 && y == 8) return maximum;
          return y != 4 ? all : x == 5 ? beside : x == 4 ? middle : all;
        };
      };
      const auto a = Make(store, 9, 9, 1, paint(c.a, c.besideA, c.middleA, 1000)),
                 b = Make(store, 9, 9, 1, paint(c.b, c.besideB, c.middleB, 500));
      a->SetLevel(0, 0, 1000);
      b->SetLevel(0, 0, 500);
      for (CVelImage* image : {a.get(), b.get()}) {
        image->CalcMinMax(0);
        image->SetStdCtr(4.5, 4.5);
      }
      CImgComposit target;
      target.Create(*a, nullptr);
      target.Abr(a.get(), b.get(), 0, 0, 0, 9, c.ratio, 0, 0, 0.95, c.radius, nullptr, 0, -1);
      EXPECT_NEAR(target.GetPixelGrayRaw(4, 4, 0), c.expected, 1e-3) << c.name;
      for (const auto& [x, y] : {std::pair(0, 3), {8, 3}, {3, 0}, {3, 8}}) {
        EXPECT_EQ(target.GetPixelGrayRaw(x, y, 0), static_cast<float>(c.a)) << "the edge is a's";
      }
      // On the scale of levels b counts for twice as much.
      CImgComposit scaled, plain;
      scaled.Create(*a, nullptr);
      scaled.Do65(a.get(), b.get(), 0, 0, 0, 9, c.ratio / 2, 1, 0, 0.95, c.radius, nullptr, 0, -1);
      EXPECT_NEAR(scaled.GetPixelGrayRaw(4, 4, 0), c.expected, 1e-2) << c.name;
      plain.Create(*a, nullptr);
      plain.Do(a.get(), b.get(), 0, 0, 0, 0, 9, 0, c.ratio, 0, 0, 0.95, c.radius, nullptr, 0, -1);
      EXPECT_EQ(Difference(plain, target), "") << c.name;
    }
  }
}

TEST(CImgComposit, NeighboursFollowTheirRulesWithEverythingAltered) {
  constexpr int kW = 60, kH = 44;
  constexpr double kRatio = 1.7, kDx = 1.3, kDy = -2.6, kDegrees = 7;
  const double s = std::sin(kDegrees * std::numbers::pi / 180), c = std::sqrt(1 - s * s);
  int rules[10] = {};
  for (const auto& store : {MemoryStore(), TinyPool()}) {
    for (const int planesB : {1, 3}) {
      for (const int level : {0, 1}) {
        for (const auto& around : {std::pair(0, 1), {1, 0}, {2, 1}, {7, 0}}) {
          const int radius = around.first, method = around.second;
          const auto a = Make(store, kW, kH, 3, Random(0, 1000)),
                     b = Make(store, 55, 47, planesB, Random(0, 600, 5));
          // Few pixels are saturated, so that all cases of neighbours occur.
          const double threshold = radius == 1 ? 0.9 : 0.97;
          for (int p = 0; p < 3; ++p) {
            a->SetLevel(p, 10 * p, 990 + p);
            if (p < planesB) b->SetLevel(p, 5 * p, 590 - p);
          }
          a->CalcMinMax(0), b->CalcMinMax(0);
          b->SetStdCtr(20.5, 30.25);
          CImgComposit target;
          target.Create(*a, nullptr);
          for (int p = 0; p < 3; ++p) {
            target.SetLevel(p, 50 + p, 800 - 9 * p);
          }
          Paint(target, Random(0, 1000, 9));
          const auto old = target.Clone(nullptr);
          CRect rect(3, 0, 57, 40);
          target.Do(a.get(), b.get(), kDx, kDy, kDegrees, 0, 9, method, kRatio, level, 1, threshold, radius,
                    &rect, 0, -1);
          const double limitA = level ? threshold * 255 : a->GetMaxPixel(0) * threshold;
          const double limitB = level ? threshold * 255 : b->GetMaxPixel(0) * threshold;
          const auto saturated = [&](double v, double limit) { return level ? v > limit : v >= limit; };
          const auto expected = [&](int p, int x, int y) -> double {
            const double kept = old->GetPixelGrayRaw(x, y, p), got = target.GetPixelGrayRaw(x, y, p);
            if (x < 3 || x >= 57 || y >= 40) return kept;
            const int q = std::min(p, planesB - 1), r = std::min(radius, 2);
            const auto pixelA = [&](int i, int j) {
              const double raw = a->GetPixelGrayRaw(i, j, p);
              return level ? a->To256(raw, p) : raw;
            };
            const auto scaleB = [&](double raw) { return level ? b->To256(raw, q) : raw; };
            const double X = x - 20.5 - kDx, Y = 30.25 - y + kDy;
            const double u = c * X - s * Y + 20.5, v = 30.25 - (s * X + c * Y);
            const double av = pixelA(x, y);
            int rule = 2;
            double result = av;
            if (u >= 1 && u < b->GetWidth() - 1 && v >= 1 && v < b->GetHeight() - 1) {
              const double bv = scaleB(Between(*b, q, method, u, v)), scaled = bv * kRatio;
              double largestA = av, largestB = bv;
              for (int j = -r; j <= r; ++j) {
                for (int i = -r; i <= r; ++i) {
                  if (x + i < 0 || x + i >= kW || y + j < 0 || y + j >= kH) continue;
                  largestA = std::max(largestA, pixelA(x + i, y + j));
                  const int bx = std::clamp(static_cast<int>(u + i + 0.5), 0, b->GetWidth() - 1);
                  const int by = std::clamp(static_cast<int>(v + j + 0.5), 0, b->GetHeight() - 1);
                  largestB = std::max(largestB, scaleB(b->GetPixelGrayRaw(bx, by, q)));
                }
              }
              const bool spotA = saturated(largestA, limitA), spotB = saturated(largestB, limitB);
              if (radius == 0) {
                rule = 3, result = std::min(scaled, av);
              } else if (!spotA) {
                rule = 6, result = std::min(spotB ? largestB * kRatio : scaled, av);
              } else if (!spotB) {
                rule = 7, result = std::min(scaled, largestA);
              } else if (saturated(av, limitA) && saturated(bv, limitB)) {
                rule = 8, result = std::min(scaled, av);
              } else {
                rule = 9;
                double fromA = 0, fromB = 0;
                for (const auto& [i, j] : {std::pair(1, 1), {0, 1}, {1, 0}}) {
                  const int nx = std::max(x - i, 0), ny = std::max(y - j, 0);
                  const bool done = nx >= 3 && (ny != y || nx != x);
                  const double raw = (done ? target : *old).GetPixelGrayRaw(nx, ny, p);
                  const double t = level ? target.To256(raw, p) : raw;
                  fromA += std::abs(av - t), fromB += std::abs(scaled - t);
                }
                if (std::abs(fromA - fromB) < 1e-3) return got;  // rounding decides
                result = fromB > fromA ? av : scaled;
              }
            }
            ++rules[rule];
            return level ? target.ToRaw(result, 0) : result;
          };
          ASSERT_EQ(Difference(target, expected, 2e-5), "")
              << "radius " << radius << " level " << level << " planes " << planesB;
        }
      }
    }
  }
  for (const int rule : {2, 3, 6, 7, 8, 9}) {
    EXPECT_GT(rules[rule], 20) << rule;
  }
}

TEST(CAlignment, Names) {
  EXPECT_EQ(CAlignment::GetEngString(0), L"RefPoint");
  EXPECT_EQ(CAlignment::GetEngString(3), L"Matching");
  EXPECT_EQ(CAlignment::GetString(2), L"重心(並進のみ)");
  for (const int none : {-1, 4}) {
    EXPECT_EQ(CAlignment::GetEngString(none), L"");
    EXPECT_EQ(CAlignment::GetString(none), L"");
  }
}

}  // namespace
