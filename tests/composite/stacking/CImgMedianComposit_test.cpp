#include "korimg/composite/stacking/CImgMedianComposit.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include <gtest/gtest.h>

#include "korimg/geometry/CInterp.h"

#include "tests/support/Images.h"

using namespace korimg;
using namespace korimg::test;

namespace {

constexpr int kWidth = 61, kHeight = 43;

struct Statistic {
  const char* name;
  std::function<void(CImgMedianComposit&, int, int)> run;
  std::function<double(std::vector<double>)> expected;  ///< of the valid values, at least one
};

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

double Clipped(const std::vector<double>& v, double k, int mode) {
  const double m = Median(v), n = static_cast<double>(v.size());
  if (v.size() == 2) return k >= 1 ? m : 0;
  double mean = 0, squares = 0, sum = 0, kept = 0;
  for (const double x : v)
    mean += x / n;
  for (const double x : v)
    squares += (x - mean) * (x - mean) / n;
  for (const double x : v) {
    if (std::abs(x - m) > k * std::sqrt(squares)) continue;
    sum += x;
    ++kept;
  }
  if (kept == 0) return m;
  return mode == 0 ? (sum + (n - kept) * m) / n : sum / kept;
}

const Statistic kStatistics[] = {
    {"median", [](auto& stack, int y0, int y1) { stack.Calc(y0, y1); }, Median},
    {"median on all threads", [](auto& stack, int y0, int y1) { stack.MedianCalc(y0, y1); }, Median},
    {"clipped, the rest as the median", [](auto& stack, int y0, int y1) { stack.Calc(1.3, y0, y1, 0); },
     [](auto v) { return Clipped(v, 1.3, 0); }},
    {"clipped, without the rest", [](auto& stack, int y0, int y1) { stack.Calc(0.9, y0, y1, 1); },
     [](auto v) { return Clipped(v, 0.9, 1); }},
    {"maximum", [](auto& stack, int y0, int y1) { stack.CalcMax(y0, y1); },
     [](auto v) { return std::max<double>(*std::max_element(v.begin(), v.end()), 1.1754943508222875e-38); }},
    {"minimum", [](auto& stack, int y0, int y1) { stack.CalcMin(y0, y1); },
     [](auto v) { return *std::min_element(v.begin(), v.end()); }},
};

/// How a frame lies on the target.
struct Placing {
  double dx, dy, radians;
};

std::vector<Placing> Places(int frames) {
  const std::vector<Placing> some = {{0, 0, 0},       {3, -2, 0},        {-7, 5, 0},  {60, 40, 0},
                                     {2.25, -1.5, 0}, {-8.75, 3.125, 0}, {1, 2, 0.1}, {-3.5, 0.5, -0.7},
                                     {0, 0, 3.1},     {100, 0, 0},       {-2, 0, 0},  {0, 7, 0}};
  std::vector<Placing> places;
  for (int i = 0; i < frames; ++i) {
    places.push_back(some[i % some.size()]);
  }
  return places;
}

/// A frame's value at a pixel of the target, and whether it reaches it; `doubtful` where rounding decides.
struct Sampled {
  bool valid = false, doubtful = false;
  double value = 0;
};

Sampled SampleAt(CVelImage& frame, CInterp& interp, const Placing& place, int p, int x, int y) {
  const double cx = frame.GetWidth() * 0.5, cy = frame.GetHeight() * 0.5;
  const double X = x - place.dx - cx, Y = cy - (y - place.dy), c = std::cos(place.radians),
               s = std::sin(place.radians);
  const double u = place.radians != 0 ? c * X - s * Y + cx : x - place.dx;
  const double v = place.radians != 0 ? cy - (s * X + c * Y) : y - place.dy;
  Sampled at;
  at.valid = u >= 0 && v >= 0 && u < frame.GetWidth() && v < frame.GetHeight();
  for (const auto& [t, size] : {std::pair(u, frame.GetWidth()), std::pair(v, frame.GetHeight())}) {
    at.doubtful |= place.radians != 0 && (std::abs(t) < 1e-3 || std::abs(t - size) < 1e-3);
  }
  if (at.valid) at.value = interp.Do(u, v, frame.GetPlanes() > p ? p : 0);
  return at;
}

class Stacks : public ::testing::TestWithParam<int> {};

TEST_P(Stacks, EveryStatisticIsThatOfTheValidPixels) {
  const int frames = GetParam();
  for (const bool paged : {false, true}) {
    const auto store = paged ? TinyPool() : MemoryStore();
    std::vector<std::shared_ptr<CVelImage>> images;
    std::vector<CInterp> interps;
    for (int i = 0; i < frames; ++i) {
      // Smooth, with a level of its own and noise; some mono.
      const auto rule = [i](int p, int x, int y) {
        return 100 * Noise(i) - 50 + 30 * std::sin(x / 6.0 + p) + 20 * std::cos(y / 4.0 - i) + 10 * p;
      };
      images.push_back(Make(store, kWidth, kHeight, i % 5 == 4 ? 1 : 3, rule));
      interps.emplace_back(CInterp::MethodBicubic, images.back().get(), 0);
    }
    const std::vector<Placing> places = Places(frames);
    for (const Statistic& statistic : kStatistics) {
      const auto target = Make(store, kWidth, kHeight, 3, Wild(0, 1));
      CImgMedianComposit stack(target.get(), 0);
      constexpr int kRows = 16;
      ASSERT_EQ(stack.AllocateStoreBuffer(target.get(), frames, kRows), 1);
      for (int y = 0; y < kHeight; y += kRows) {
        for (int i = 0; i < frames; ++i) {
          stack.Store(i, images[i].get(), y, y + kRows - 1, places[i].dx, places[i].dy, places[i].radians, 0,
                      0, nullptr, CInterp::MethodBicubic);
        }
        statistic.run(stack, y, y + kRows - 1);
      }
      int wrong = 0;
      for (int i = 0; i < 3 * kHeight * kWidth && wrong < 3; ++i) {
        const int p = i / (kHeight * kWidth), y = i / kWidth % kHeight, x = i % kWidth;
        std::vector<double> values;
        bool doubtful = false;
        for (int f = 0; f < frames; ++f) {
          const Sampled at = SampleAt(*images[f], interps[f], places[f], p, x, y);
          doubtful |= at.doubtful;
          if (at.valid) values.push_back(at.value);
        }
        // Values at the clip's very limit may fall to either side.
        const double expected = values.empty() ? 0 : statistic.expected(values);
        const double got = target->GetPixelGrayRaw(x, y, p);
        if (doubtful || std::abs(got - expected) < 2e-3) continue;
        ADD_FAILURE() << statistic.name << " of " << frames << (paged ? " paged" : "") << " plane " << p
                      << " (" << x << ", " << y << "): " << got << ", not " << expected << " of "
                      << values.size();
        ++wrong;
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Frames, Stacks, ::testing::Values(1, 2, 3, 8, 21));

/// Runs a stack of frames that are not moved, in bands.
void StackBands(CVelImage& target, const std::vector<std::shared_ptr<CVelImage>>& images, int rows,
                const std::function<void(CImgMedianComposit&, int, int)>& calculate) {
  CImgMedianComposit stack(&target, 0);
  ASSERT_EQ(stack.AllocateStoreBuffer(&target, static_cast<int>(images.size()), rows), 1);
  for (int y = 0; y < target.GetHeight(); y += rows) {
    for (size_t i = 0; i < images.size(); ++i) {
      stack.Store(static_cast<int>(i), images[i].get(), y, y + rows - 1, 1.5, 0.25, 0, 0, 0, nullptr, 1);
    }
    calculate(stack, y, y + rows - 1);
  }
}

TEST(CImgMedianComposit, TheSameForAnyBandsThreadsAndStores) {
  const auto clip = [](CImgMedianComposit& stack, int y0, int y1) {
    const bool first = y0 == 0;
    for (int i = 0; i < 7 && first; ++i) {
      double a[] = {500.0 + i, 400, 300}, b[] = {10, 20.0 + i, 0};
      stack.AddNormalizeParam(a, b);
    }
    double a[] = {510, 410, 310}, b[] = {12, 18, 5};
    stack.SetRefNormalizeParam(a, b);
    stack.SigmaCalc(1.5, y0, y1);
  };
  std::vector<std::shared_ptr<CVelImage>> images;
  for (int i = 0; i < 7; ++i) {
    images.push_back(
        Make(MemoryStore(), kWidth, kHeight, 3, i % 2 ? Wild(100, 900, i) : Random(100, 900, i)));
  }
  const auto whole = Make(MemoryStore(), kWidth, kHeight, 3, Random(0, 1));
  StackBands(*whole, images, kHeight, clip);
  for (const int rows : {1, 7, 64}) {
    for (const int threads : {1, 5}) {
      const WithThreads team(threads);
      const auto target = Make(MemoryStore(), kWidth, kHeight, 3, Random(0, 1));
      StackBands(*target, images, rows, clip);
      EXPECT_EQ(Difference(*target, *whole), "") << rows << " " << threads;
    }
  }
  const auto paged = Make(TinyPool(), kWidth, kHeight, 3, Random(0, 1));
  StackBands(*paged, images, 9, clip);
  EXPECT_EQ(Difference(*paged, *whole), "") << "a paged target of contiguous frames";
}

/// One row of one frame for each number, and what becomes of it.
float OnePixel(const std::vector<float>& values, const std::function<void(CImgMedianComposit&)>& calculate) {
  const auto target = Make(MemoryStore(), 1, 1, 1, Random(0, 1));
  CImgMedianComposit stack(target.get(), 1);
  stack.AllocateStoreBuffer(target.get(), static_cast<int>(values.size()), 1);
  for (size_t i = 0; i < values.size(); ++i) {
    const auto frame = Make(MemoryStore(), 1, 1, 1, [&](int, int, int) { return values[i]; });
    stack.Store(static_cast<int>(i), frame.get(), 0, 0, 0, 0, 0, 0, 0, nullptr, 1);
  }
  calculate(stack);
  return target->GetPixelGrayRaw(0, 0, 0);
}

TEST(CImgMedianComposit, ClippingByHand) {
  const auto clip = [](double k, int mode) {
    return [=](CImgMedianComposit& stack) { stack.Calc(k, 0, 0, mode); };
  };
  EXPECT_FLOAT_EQ(OnePixel({1, 2, 100}, clip(1, 0)), 5.0f / 3);
  EXPECT_FLOAT_EQ(OnePixel({1, 2, 100}, clip(1, 1)), 1.5f);
  EXPECT_EQ(OnePixel({4, 8}, clip(0.5, 0)), 0);
  EXPECT_EQ(OnePixel({4, 8}, clip(1, 0)), 6);
  EXPECT_EQ(OnePixel({4}, clip(0.5, 0)), 4);
  EXPECT_EQ(OnePixel({4, 8, 10, 16}, clip(0, 1)), 9) << "none kept: the median";
  EXPECT_EQ(OnePixel({-3, -8}, [](auto& stack) { stack.CalcMax(0, 0); }), 1.1754943508222875e-38f);
  const float nan = NAN, inf = INFINITY;
  const auto median = [](auto& stack) { stack.Calc(0, 0); };
  EXPECT_EQ(OnePixel({nan, 3, 1, nan, 2}, median), 3);
  EXPECT_EQ(OnePixel({inf, 3, -inf, nan, 2}, median), 3);
  EXPECT_EQ(OnePixel({inf, nan, inf}, median), inf);
  EXPECT_TRUE(std::isnan(OnePixel({nan, 3, nan}, median)));
}

TEST(CImgMedianComposit, FramesAreBroughtToTheReference) {
  struct Case {
    double b, referenceB;
    float expected;  // of the value 30 with a = 10, reference a = 100
  };
  for (const Case& c : {Case{5, 10, 140}, Case{-1, 10, 30}, Case{5, -1, 30}, Case{5, 0, 100}, Case{0, 10, 30},
                        Case{0, 0, 100}}) {
    const float got = OnePixel({30}, [&](CImgMedianComposit& stack) {
      double a[] = {10, 0, 0}, b[] = {c.b, 0, 0}, referenceA[] = {100, 0, 0},
             referenceB[] = {c.referenceB, 0, 0};
      stack.AddNormalizeParam(a, b);
      stack.SetRefNormalizeParam(referenceA, referenceB);
      stack.SigmaCalc(2, 0, 0);
    });
    EXPECT_EQ(got, c.expected) << c.b << " " << c.referenceB;
  }
  const auto without = [] {
    OnePixel({30, 31}, [](CImgMedianComposit& stack) { stack.SigmaCalc(2, 0, 0); });
  };
  EXPECT_TRUE(ThrowsPointer<CInvalidArgException>(without));
}

TEST(CImgMedianComposit, OffsetsRunThroughTheBandValueByValue) {
  for (const auto& store : {MemoryStore(), TinyPool()}) {
    const auto frame = Make(store, 5, 4, 3, [](int, int, int) { return 10; }),
               target = Make(store, 5, 4, 3, Random(0, 1));
    CImgMedianComposit stack(target.get(), 0);
    stack.AllocateStoreBuffer(target.get(), 1, 4);
    float offsets[] = {1, 2, 3};
    EXPECT_EQ(stack.Store(0, frame.get(), 0, 3, 0, 0, 0, 0, 1, offsets, 1), 1);
    stack.Calc(0, 3);
    const auto expected = [](int p, int x, int y) { return 11.0 + ((y * 3 + p) * 5 + x) % 3; };
    EXPECT_EQ(Difference(*target, expected, 0), "");
  }
}

TEST(CImgMedianComposit, FramesMayTurnAboutTheirOwnCentre) {
  for (const auto& store : {MemoryStore(), TinyPool()}) {
    const auto frame = Make(store, kWidth, kHeight, 1, [](int, int x, int y) { return 5 + x + 100.0 * y; }),
               target = Make(store, kWidth, kHeight, 1, Random(0, 1));
    frame->SetStdCtr(20.0, 13.0);
    for (const int own : {0, 1}) {
      const double cx = own ? 20 : kWidth * 0.5, cy = own ? 13 : kHeight * 0.5, angle = 0.2;
      CImgMedianComposit stack(target.get(), 0);
      ASSERT_EQ(stack.AllocateStoreBuffer(target.get(), 1, kHeight), 1);
      ASSERT_EQ(stack.Store(0, frame.get(), 0, kHeight - 1, 1.5, -2, angle, own, 0, nullptr, 0), 1);
      stack.Calc(0, kHeight - 1);
      for (const auto& [x, y] : {std::pair(20, 13), {30, 20}, {25, 9}}) {
        const double X = x - cx - 1.5, Y = cy - y - 2;
        const double u = std::cos(angle) * X - std::sin(angle) * Y + cx,
                     v = cy - (std::sin(angle) * X + std::cos(angle) * Y);
        EXPECT_NEAR(target->GetPixelGrayRaw(x, y, 0), 5 + u + 100 * v, 0.05) << own;
      }
    }
  }
}

TEST(CImgMedianComposit, AnUnknownKernelLeavesTheBandEmpty) {
  for (const auto& store : {MemoryStore(), TinyPool()}) {
    const bool paged = store->GetAllocationPolicy() == CVmManager::Paged;
    const auto frame = Make(store, kWidth, kHeight, 1, Random(5, 6)),
               target = Make(store, kWidth, kHeight, 1, Random(0, 1));
    for (const int method : {-1, 5}) {
      for (const Placing& place : {Placing{0, 0, 0.1}, {0.5, 0, 0}, {2, 0, 0}}) {
        CImgMedianComposit stack(target.get(), 0);
        ASSERT_EQ(stack.AllocateStoreBuffer(target.get(), 1, kHeight), 1);
        stack.Store(0, frame.get(), 0, kHeight - 1, 0, 0, 0, 0, 0, nullptr, 0);
        // Whole shifts need no kernel, and other shifts of contiguous frames have one of their own.
        const bool needs = place.radians != 0 || (paged && place.dx == 0.5);
        EXPECT_EQ(stack.Store(0, frame.get(), 0, kHeight - 1, place.dx, place.dy, place.radians, 0, 0,
                              nullptr, method),
                  !needs);
        stack.Calc(0, kHeight - 1);
        EXPECT_EQ(target->GetPixelGrayRaw(30, 20, 0) == 0, needs) << paged << method;
      }
    }
  }
}

TEST(CImgMedianComposit, RowsBeyondTargetAndStoreAreLeftOut) {
  for (const auto& store : {MemoryStore(), TinyPool()}) {
    const PixelRule rule = Random(1, 2);
    const auto frame = Make(store, 9, 12, 1, rule),
               target = Make(store, 9, 12, 1, [](int, int, int) { return 7; });
    CImgMedianComposit stack(target.get(), 0);
    EXPECT_EQ(stack.Store(0, frame.get(), 0, 3, 0, 0, 0, 0, 0, nullptr, 1), 0) << "no slot";
    stack.Calc(0, 11);
    ASSERT_EQ(stack.AllocateStoreBuffer(target.get(), 1, 3), 1);
    EXPECT_EQ(stack.Store(1, frame.get(), 0, 3, 0, 0, 0, 0, 0, nullptr, 1), 0);
    EXPECT_EQ(stack.Store(0, frame.get(), -1, 3, 0, 0, 0, 0, 0, nullptr, 1), 0);
    EXPECT_EQ(stack.Store(0, frame.get(), 10, 99, 0, 0, 0, 0, 0, nullptr, 1), 1);
    stack.MedianCalc(10, 99);
    const auto expected = [&](int p, int x, int y) -> double { return y < 10 ? 7 : float(rule(p, x, y)); };
    EXPECT_EQ(Difference(*target, expected, 0), "");
    for (const double far : {1e300, -1e300, double(NAN), double(INFINITY)}) {
      for (const double radians : {0.0, 1.0}) {
        stack.Store(0, frame.get(), 0, 2, far, 0, radians, 0, 0, nullptr, 1);
        stack.Calc(0, 2);
        EXPECT_EQ(target->GetPixelGrayRaw(4, 1, 0), 0) << far << radians;
      }
    }
  }
}

}  // namespace
