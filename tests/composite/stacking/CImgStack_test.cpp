#include "korimg/composite/stacking/CImgStack.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <numbers>
#include <numeric>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "korimg/composite/stacking/FrameLevels.h"
#include "korimg/geometry/CImgWarp.h"
#include "korimg/geometry/CInterp.h"

#include "tests/support/Images.h"

using namespace korimg;
using namespace korimg::test;

namespace {

constexpr int kWidth = 61, kHeight = 43;
constexpr Rejection kKeepAll{Rejection::None}, kClip{Rejection::Sigma, 1.4, 1.7, 4};

struct Value {
  double v, weight;
};

/// What a pixel should become.
struct Expected {
  double value = 0;
  int low = 0, high = 0;
  bool doubtful = false;  ///< a value lies so near a limit that rounding decides
};

double MiddleOf(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

Expected Reference(CImgStack::Method method, const Rejection& clip, std::vector<Value> values) {
  Expected expected;
  const auto plain = [&] {
    std::vector<double> v;
    for (const Value& value : values)
      v.push_back(value.v);
    return v;
  };
  const bool clips = method == CImgStack::Mean && clip.test == Rejection::Sigma;
  for (int round = 0; clips && round < clip.iterations && values.size() > 2; ++round) {
    const double m = MiddleOf(plain()), n = static_cast<double>(values.size());
    double mean = 0, variance = 0;
    for (const Value& value : values)
      mean += value.v / n;
    for (const Value& value : values)
      variance += (value.v - mean) * (value.v - mean) / n;
    const double low = m - clip.low * std::sqrt(variance), high = m + clip.high * std::sqrt(variance);
    std::vector<Value> kept;
    int below = 0, above = 0;
    for (const Value& value : values) {
      const double slack = 1e-4 * (1 + std::abs(value.v));
      expected.doubtful |= std::abs(value.v - low) < slack || std::abs(value.v - high) < slack;
      below += value.v < low;
      above += value.v > high;
      if (value.v >= low && value.v <= high) kept.push_back(value);
    }
    if (kept.empty() || kept.size() == values.size()) break;
    expected.low += below;
    expected.high += above;
    values = kept;
  }
  const std::vector<double> v = plain();
  if (method == CImgStack::Median) expected.value = MiddleOf(v);
  if (method == CImgStack::Maximum) expected.value = *std::max_element(v.begin(), v.end());
  if (method == CImgStack::Minimum) expected.value = *std::min_element(v.begin(), v.end());
  if (method == CImgStack::Mean) {
    double sum = 0, weights = 0;
    for (const Value& value : values) {
      sum += value.weight * value.v;
      weights += value.weight;
    }
    expected.value = sum / weights;
  }
  return expected;
}

constexpr std::pair<CImgStack::Method, Rejection> kMethods[] = {{CImgStack::Median, kClip},
                                                                {CImgStack::Mean, kKeepAll},
                                                                {CImgStack::Mean, kClip},
                                                                {CImgStack::Maximum, kClip},
                                                                {CImgStack::Minimum, kClip}};

/// Another one in each plane.
CImgStack::PlaneWeights WeightsOf(int frame) {
  return {0.25 + frame % 3, 0.5 + frame % 2, 3.0 / (1 + frame)};
}

/// Whole shifts with holes; pixels are negative too, wild ones among them.
class CImgStackOf : public ::testing::TestWithParam<int> {};

TEST_P(CImgStackOf, EveryMethodIsThatOfTheFiniteValuesNormalisedAndWeighted) {
  const int frames = GetParam();
  for (const bool paged : {false, true}) {
    const auto store = paged ? TinyPool() : MemoryStore();
    std::vector<std::shared_ptr<CVelImage>> images;
    std::vector<CImgStack::PlaneWeights> weights;
    for (int i = 0; i < frames; ++i) {
      images.push_back(Make(store, kWidth, kHeight, 2 * (i % 2) + 1, Wild(-300, 500, i)));
      weights.push_back(WeightsOf(i));
    }
    const auto dx = [](int i) { return i * 7 % 11 - 5; };
    const auto dy = [](int i) { return i * 5 % 13 - 6; };
    const auto normalised = [](double v, int i) { return (v - 10 * i) * (3.0 / (1 + i % 4)) + 20; };
    for (const auto& [method, rejection] : kMethods) {
      const auto target = Make(store, kWidth, kHeight, 3, Random(0, 1)),
                 low = Make(store, kWidth, kHeight, 3, Wild(0, 1)),
                 high = Make(store, kWidth, kHeight, 3, Wild(0, 1));
      CImgStack stack(target.get());
      constexpr int kRows = 16;
      ASSERT_EQ(stack.AllocateStoreBuffer(target.get(), frames, kRows), 1);
      stack.SetWeights(weights);
      stack.SetRejectionMaps(low.get(), high.get());
      stack.SetOutside(NAN);
      double reference[] = {20, 20, 20}, spread[] = {3, 3, 3};
      stack.SetRefNormalizeParam(reference, spread);
      for (int i = 0; i < frames; ++i) {
        double a[] = {10.0 * i, 10.0 * i, 10.0 * i}, b[] = {1.0 + i % 4, 1.0 + i % 4, 1.0 + i % 4};
        stack.AddNormalizeParam(a, b);
      }
      for (int y = 0; y < kHeight; y += kRows) {
        for (int i = 0; i < frames; ++i) {
          stack.Store(i, images[i].get(), y, y + kRows - 1, dx(i), dy(i), 0, CInterp::MethodBicubic);
        }
        stack.Stack(method, rejection, y, y + kRows - 1);
      }
      long long values = 0, lows = 0, highs = 0, doubtful = 0;
      int wrong = 0;
      for (int i = 0; i < 3 * kHeight * kWidth && wrong < 3; ++i) {
        const int p = i / (kHeight * kWidth), y = i / kWidth % kHeight, x = i % kWidth;
        std::vector<Value> found;
        for (int f = 0; f < frames; ++f) {
          const int u = x - dx(f), v = y - dy(f);
          if (u < 0 || v < 0 || u >= kWidth || v >= kHeight) continue;
          const float pixel = images[f]->GetPixelGrayRaw(u, v, images[f]->GetPlanes() > 1 ? p : 0);
          if (std::isfinite(pixel)) found.push_back({normalised(pixel, f), weights[f][p]});
        }
        values += static_cast<long long>(found.size());
        const double got = target->GetPixelGrayRaw(x, y, p);
        if (found.empty()) {
          if (std::isnan(got)) continue;
          ADD_FAILURE() << "no value at " << x << ", " << y << ", but " << got;
          ++wrong;
          continue;
        }
        const Expected expected = Reference(method, rejection, found);
        lows += expected.low;
        highs += expected.high;
        doubtful += expected.doubtful;
        if (expected.doubtful ||
            (std::abs(got - expected.value) < 1e-3 && low->GetPixelGrayRaw(x, y, p) == expected.low &&
             high->GetPixelGrayRaw(x, y, p) == expected.high)) {
          continue;
        }
        ADD_FAILURE() << "method " << method << " of " << frames << (paged ? " paged" : "") << " plane " << p
                      << " (" << x << ", " << y << "): " << got << ", not " << expected.value << "; "
                      << low->GetPixelGrayRaw(x, y, p) << " low, not " << expected.low << "; "
                      << high->GetPixelGrayRaw(x, y, p) << " high, not " << expected.high;
        ++wrong;
      }
      CImgStack::Counts all;
      for (const auto& counts : stack.TakeCounts()) {
        all.values += counts.values;
        all.low += counts.low;
        all.high += counts.high;
      }
      EXPECT_EQ(all.values, values);
      EXPECT_LE(std::abs(all.low - lows), frames * doubtful) << "method " << method << " of " << frames;
      EXPECT_LE(std::abs(all.high - highs), frames * doubtful) << "method " << method << " of " << frames;
      EXPECT_LE(doubtful, 3 * kHeight * kWidth / 50) << "the reference has little to say";
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Frames, CImgStackOf, ::testing::Values(1, 2, 3, 8, 21));

/// A stack of turned and shifted frames in bands, with its maps below it.
std::vector<float> StackBands(const std::shared_ptr<CVmManager>& store,
                              const std::vector<std::shared_ptr<CVelImage>>& images, int rows, int kernel) {
  const auto target = Make(store, kWidth, kHeight, 3, Random(0, 1)),
             low = Make(store, kWidth, kHeight, 3, Random(0, 1)),
             high = Make(store, kWidth, kHeight, 3, Random(0, 1));
  const int frames = static_cast<int>(images.size());
  CImgStack stack(target.get());
  EXPECT_EQ(stack.AllocateStoreBuffer(target.get(), frames, rows), 1);
  stack.SetRejectionMaps(low.get(), high.get());
  std::vector<CImgStack::PlaneWeights> weights;
  for (int i = 0; i < frames; ++i) {
    weights.push_back(WeightsOf(i));
  }
  stack.SetWeights(weights);
  for (int y = 0; y < kHeight; y += rows) {
    for (int i = 0; i < frames; ++i) {
      const double turn = i % 3 == 0 ? 0 : i % 3 == 1 ? 0.01 * i : std::numbers::pi + 0.003;
      stack.Store(i, images[i].get(), y, y + rows - 1, 0.37 * i - 1, 2.1 - 0.77 * i, turn, kernel);
    }
    stack.Stack(CImgStack::Mean, kClip, y, y + rows - 1);
  }
  std::vector<float> all = Pixels(*target);
  for (const auto& map : {low, high}) {
    const std::vector<float> counts = Pixels(*map);
    all.insert(all.end(), counts.begin(), counts.end());
  }
  return all;
}

TEST(CImgStack, TheSameBitsForAnyBandsThreadsAndTargets) {
  std::vector<std::shared_ptr<CVelImage>> images, paged;
  const auto pool = TinyPool();
  for (int i = 0; i < 9; ++i) {
    const auto rule = i % 2 ? Wild(100, 900, i) : Random(100, 900, i);
    images.push_back(Make(MemoryStore(), kWidth, kHeight, 3, rule));
    paged.push_back(Make(pool, kWidth, kHeight, 3, rule));
  }
  for (const auto& frames : {images, paged}) {
    const auto whole = StackBands(MemoryStore(), frames, kHeight, CInterp::MethodBicubic);
    for (const int rows : {1, 7, 64}) {
      for (const int threads : {1, 5}) {
        const WithThreads team(threads);
        EXPECT_EQ(std::memcmp(StackBands(MemoryStore(), frames, rows, CInterp::MethodBicubic).data(),
                              whole.data(), whole.size() * sizeof(float)),
                  0)
            << rows << " rows, " << threads << " threads" << (frames == paged ? ", paged frames" : "");
      }
    }
    const auto onPages = StackBands(pool, frames, 9, CInterp::MethodBicubic);
    EXPECT_EQ(std::memcmp(onPages.data(), whole.data(), whole.size() * sizeof(float)), 0) << "a paged target";
  }
}

TEST(CImgStack, ShiftsByPartsOfAPixelTakeTheKernelThatIsAskedFor) {
  for (const auto& store : {MemoryStore(), TinyPool()}) {
    const auto frame = Make(store, kWidth, kHeight, 1, Random(1, 100));
    for (const int kernel : {CInterp::MethodBilinear, CInterp::MethodBicubic, CInterp::MethodLanczos2,
                             CInterp::MethodLanczos3, CInterp::MethodNearest}) {
      for (const double dy : {-1.5, 0.0}) {
        const auto target = Make(store, kWidth, kHeight, 1, Random(0, 1));
        CImgStack stack(target.get());
        stack.AllocateStoreBuffer(target.get(), 1, kHeight);
        stack.Store(0, frame.get(), 0, kHeight - 1, 3.25, dy, 0, kernel);
        stack.Stack(CImgStack::Mean, kKeepAll, 0, kHeight - 1);
        CInterp interp(kernel, frame.get(), 0);
        for (int y = 0; y < kHeight; ++y) {
          for (int x = 0; x < kWidth; ++x) {
            const bool reached = x >= 4 && y - dy < kHeight;
            ASSERT_NEAR(target->GetPixelGrayRaw(x, y, 0), reached ? interp.Do(x - 3.25, y - dy, 0) : 0, 2e-3)
                << kernel << " " << x << ", " << y << " by " << dy;
          }
        }
      }
    }
  }
}

/// One pixel of one frame for each value, and what becomes of it.
float OnePixel(const std::vector<float>& values, CImgStack::Method method, const Rejection& clip = kKeepAll) {
  const auto target = Make(MemoryStore(), 1, 1, 1, Random(0, 1));
  CImgStack stack(target.get());
  stack.AllocateStoreBuffer(target.get(), static_cast<int>(values.size()), 1);
  for (size_t i = 0; i < values.size(); ++i) {
    const auto frame = Make(MemoryStore(), 1, 1, 1, [&](int, int, int) { return values[i]; });
    stack.Store(static_cast<int>(i), frame.get(), 0, 0, 0, 0, 0, CInterp::MethodBicubic);
  }
  stack.Stack(method, clip, 0, 0);
  return target->GetPixelGrayRaw(0, 0, 0);
}

TEST(CImgStack, AFrameIsLaidByAMapInAnyBands) {
  const CLensDistortion lens = CLensDistortion::Of(kWidth, kHeight, {0.05, -0.01, 0, 0.01});
  const CFrameMap map({1.02, -0.1, 4, 0.08, 0.97, -3, 1e-4, 0, 1}, lens, lens);
  for (const StoreCase& store : Stores()) {
    const auto colour = Make(store.make(), kWidth + 5, kHeight - 4, 2, Random(0, 1000)),
               mono = Make(store.make(), kWidth, kHeight, 1, Random(5, 10));
    const auto warped = Make<CImgWarp>(store.make(), kWidth, kHeight, 2, Random(0, 1));
    ASSERT_EQ(warped->Do(colour.get(), map, CInterp::MethodBicubic, NAN, 0), 1);
    for (const int band : {kHeight, 7}) {
      const auto target = Make(MemoryStore(), kWidth, kHeight, 2, Random(0, 1));
      CImgStack stack(target.get());
      stack.SetOutside(NAN);
      ASSERT_EQ(stack.AllocateStoreBuffer(target.get(), 2, band), 1);
      for (int top = 0; top < kHeight; top += band) {
        EXPECT_EQ(stack.Store(0, colour.get(), top, top + band - 1, map, CInterp::MethodBicubic), 1);
        EXPECT_EQ(stack.Store(1, mono.get(), top, top + band - 1, CFrameMap({1, 0, 900, 0, 1, 0, 0, 0, 1}),
                              CInterp::MethodBicubic),
                  1)
            << "which reaches nothing";
        stack.Stack(CImgStack::Mean, kKeepAll, top, std::min(top + band, kHeight) - 1);
      }
      int outside = 0;
      for (int p = 0; p < 2; ++p) {
        for (int y = 0; y < kHeight; ++y) {
          for (int x = 0; x < kWidth; ++x) {
            const float expected = warped->GetPixelGrayRaw(x, y, p), v = target->GetPixelGrayRaw(x, y, p);
            outside += std::isnan(expected);
            ASSERT_TRUE(v == expected || (std::isnan(v) && std::isnan(expected)))
                << store.name << " " << v << " for " << expected << " at " << x << ", " << y;
          }
        }
      }
      EXPECT_GT(outside, 100);
    }
  }
}

TEST(CImgStack, FramesFadeIntoEachOther) {
  // Two frames over one row of the target, with weights, one of them by a map; a third has an outlier.
  constexpr int kSize = 60, kRows = 9, kFeather = 4;
  const auto left = Make(MemoryStore(), 30, kRows, 2, [](int, int, int) { return 100; }),
             right = Make(MemoryStore(), 36, kRows, 2, [](int, int, int) { return 200; });
  for (const auto test : {Rejection::None, Rejection::Sigma}) {
    for (const bool byMap : {false, true}) {
      const auto target = Make(MemoryStore(), kSize, kRows, 2, Random(0, 1));
      CImgStack stack(target.get());
      stack.AllocateStoreBuffer(target.get(), 2, kRows);
      stack.SetFeather(kFeather);
      stack.SetWeights(std::vector<CImgStack::PlaneWeights>{{1, 1, 1}, {3, 1, 1}});
      stack.Store(0, left.get(), 0, kRows - 1, 0, 0, 0, CInterp::MethodBicubic);
      if (byMap) {
        stack.Store(1, right.get(), 0, kRows - 1, CFrameMap({1, 0, 24, 0, 1, 0, 0, 0, 1}),
                    CInterp::MethodBicubic);
      } else {
        stack.Store(1, right.get(), 0, kRows - 1, 24, 0, 0, CInterp::MethodBicubic);
      }
      stack.Stack(CImgStack::Mean, {test, 2, 2, 3}, 0, kRows - 1);
      for (int p = 0; p < 2; ++p) {
        for (int x = 0; x < kSize; ++x) {
          const auto share = [](int at, int size) {
            return std::clamp(std::min(at + 1, size - at) / 4.0, 0.0, 1.0);
          };
          const double a = x < 30 ? share(x, 30) : 0, b = x < 24 ? 0 : share(x - 24, 36) * (p == 0 ? 3 : 1);
          ASSERT_NEAR(target->GetPixelGrayRaw(x, 4, p), (100 * a + 200 * b) / (a + b), 0.01)
              << x << " " << byMap;
        }
      }
      EXPECT_NEAR(target->GetPixelGrayRaw(24, 0, 1), (100 * 0.25 + 200 * 0.25) / 0.5, 0.01)
          << "the upper edge fades too";
    }
  }
}

TEST(CImgStack, UndershootBesideBrightPixelsIsRaisedAndNothingElse) {
  // A sky of 100 with noise, a bright bar, and a dark pixel of the sensor.
  constexpr int kSize = 80, kDarkX = 60, kDarkY = 20;
  const auto rule = [](int, int x, int y) -> double {
    if (x == kDarkX && y == kDarkY) return 20;
    return x >= 30 && x < 38 && y >= 20 && y < 60 ? 5000 : 99 + 2 * Noise(y * 1000LL + x);
  };
  struct Case {
    double dx, dy, degrees;
    int method;
    bool rings;
    bool byMap = false;
  };
  for (const Case& c : {Case{0.5, 0, 0, CInterp::MethodBicubic, true},
                        {-3.4, 2.6, 0, CInterp::MethodLanczos3, true},
                        {1.2, -0.7, 7, CInterp::MethodBicubic, true},
                        {1.2, -0.7, 7, CInterp::MethodBicubic, true, true},
                        {0.5, 0.5, -4, CInterp::MethodBilinear, false},
                        {2, 1, 0, CInterp::MethodBicubic, false}}) {
    for (const StoreCase& store : Stores()) {
      const auto frame = Make(store.make(), kSize, kSize, 1, rule);
      const auto stacked = [&](const FrameLevels* levels) {
        const auto target = Make(MemoryStore(), kSize, kSize, 1, Random(0, 1));
        CImgStack stack(target.get());
        stack.AllocateStoreBuffer(target.get(), 1, kSize);
        if (c.byMap) {
          stack.Store(0, frame.get(), 0, kSize - 1, CFrameMap::FromPose(c.dx, c.dy, c.degrees, kSize, kSize),
                      c.method, levels);
        } else {
          stack.Store(0, frame.get(), 0, kSize - 1, c.dx, c.dy, c.degrees * std::numbers::pi / 180, c.method,
                      levels);
        }
        stack.SetOutside(100);
        stack.Stack(CImgStack::Median, kClip, 0, kSize - 1);
        return Pixels(*target);
      };
      const FrameLevels levels = MeasureLevels(*frame);
      const auto kept = stacked(nullptr), raised = stacked(&levels);
      int rings = 0;
      double darkest = 1000;
      for (size_t i = 0; i < kept.size(); ++i) {
        if (kept[i] != raised[i]) {
          ++rings;
          EXPECT_LT(kept[i], levels.level[0] - 5 * levels.noise[0] + 1e-3);
          EXPECT_GT(raised[i] - kept[i], 5 * levels.noise[0] - 1e-3);
          EXPECT_GE(raised[i], 99) << store.name;
        }
        darkest = std::min<double>(darkest, raised[i]);
      }
      EXPECT_EQ(rings > 40, c.rings) << store.name << ", " << rings;
      EXPECT_EQ(rings > 0, c.rings);
      EXPECT_LT(darkest, 85) << "the dark pixel stays";
    }
  }
}

/// Frames of a sky of 1000 with stars, each of its own noise and on its own slope, and what a stack of them
/// is.
struct Sky {
  int width = 400, height = 170;
  std::vector<double> noise;  ///< by frames
  double slope = 0;           ///< how much the sky of each rises across the frame, each to another side
  std::function<double(int frame, int x, int y)> spoils = [](int, int, int) { return 0.0; };

  double Of(int frame, int x, int y) const {
    const long long key = (1LL * frame * height + y) * width + x;
    const double normal =
        std::sqrt(-2 * std::log(1 - Noise(2 * key))) * std::cos(2 * std::numbers::pi * Noise(2 * key + 1));
    const double rises = slope * (std::cos(2.0 * frame) * (x - width / 2.0) / width +
                                  std::sin(2.0 * frame) * (y - height / 2.0) / height);
    const double dx = x % 80 - 40, dy = y % 50 - 25, star = 3000 * std::exp(-(dx * dx + dy * dy) / 8);
    // Seeing spreads the light of stars one way and another.
    return 1000 + rises + star * (1 + 0.1 * std::sin(frame)) + noise[frame] * normal + spoils(frame, x, y);
  }

  struct Stacked {
    std::vector<float> pixels;
    std::vector<CImgStack::Counts> counts;
    std::vector<double> noise;
  };

  Stacked Stack(const Rejection& rejection, int rows = 64, bool samples = true,
                const std::shared_ptr<CVmManager>& store = MemoryStore()) const {
    const int frames = static_cast<int>(noise.size());
    std::vector<std::shared_ptr<CVelImage>> images;
    for (int i = 0; i < frames; ++i) {
      images.push_back(Make(store, width, height, 1, [&, i](int, int x, int y) { return Of(i, x, y); }));
    }
    const auto target = Make(store, width, height, 1, Random(0, 1));
    CImgStack stack(target.get());
    stack.AllocateStoreBuffer(target.get(), frames, rows);
    const auto fill = [&](int y, int end) {
      for (int i = 0; i < frames; ++i) {
        stack.Store(i, images[i].get(), y, end - 1, 0, 0, 0, CInterp::MethodNearest);
      }
    };
    const std::vector<int> sampled = samples ? stack.RowsToSample() : std::vector<int>();
    for (size_t i = 0; i < sampled.size(); ++i) {
      fill(sampled[i], sampled[i] + 1);
      stack.Sample(static_cast<int>(i));
    }
    if (samples) stack.SettleSamples();
    for (int y = 0; y < height; y += rows) {
      fill(y, y + rows);
      stack.Stack(CImgStack::Mean, rejection, y, y + rows - 1);
    }
    Stacked stacked{Pixels(*target), stack.TakeCounts(), {}};
    for (int i = 0; i < frames; ++i) {
      stacked.noise.push_back(stack.NoiseOf(i, 0));
    }
    return stacked;
  }
};

TEST(CImgStack, TrailsGoFromFewFramesOnSkiesThatMove) {
  // A trail along a row, as bright as ten times the noise, and one that rises, half as wide as a cell.
  const auto trail = [](int frame, int x, int y) {
    if (frame != 1) return 0.0;
    return std::abs(y - 85) < 4 ? 150.0 : std::abs(y - 30 - x / 10) < 3 ? 400.0 : 0.0;
  };
  for (const double slope : {0.0, 200.0, 900.0}) {
    for (const int frames : {2, 3, 5, 8, 16}) {
      Sky sky{.noise = std::vector<double>(frames, 15), .slope = slope};
      const auto clean = sky.Stack({Rejection::Auto});
      sky.spoils = trail;
      const auto spoiled = sky.Stack({Rejection::Auto}), kept = sky.Stack({Rejection::None});
      int visible = 0, before = 0;
      double sum = 0;
      for (int y = 0; y < sky.height; ++y) {
        for (int x = 0; x < sky.width; ++x) {
          const int i = y * sky.width + x;
          const double seen = 5 * 15 / std::sqrt(frames), left = spoiled.pixels[i] - clean.pixels[i];
          visible += std::abs(left) > seen;
          before += std::abs(kept.pixels[i] - clean.pixels[i]) > seen;
          sum += left;
        }
      }
      const std::string name = std::to_string(frames) + " frames, slope " + std::to_string(slope);
      EXPECT_GE(before, 2000) << name;
      EXPECT_LT(visible, before / (frames > 2 ? 60 : 25)) << name;
      EXPECT_NEAR(sum / sky.width / sky.height, 0, 0.35)
          << name << ": the sky under the trail is that beside it";
    }
  }
}

TEST(CImgStack, FramesAreToldByTheirOwnNoise) {
  Sky sky{.noise = {10, 12, 25, 11, 9, 10, 13, 12}, .slope = 60};
  sky.spoils = [](int frame, int x, int y) {
    return frame == 2 && std::abs(y - 30 - x / 10) < 2 ? 300.0 : 0.0;
  };
  for (const auto test : {Rejection::Auto, Rejection::Winsorized, Rejection::Esd, Rejection::Sigma}) {
    const double kappa = test == Rejection::Sigma ? 2.5 : 3;
    const auto stacked = sky.Stack({test, kappa, kappa});
    const double trail = 3.0 / sky.height;
    std::vector<double> lost;
    for (size_t i = 0; i < sky.noise.size(); ++i) {
      EXPECT_NEAR(stacked.noise[i], sky.noise[i], 0.15 * sky.noise[i]) << "frame " << i;
      const auto& counts = stacked.counts[i];
      lost.push_back(static_cast<double>(counts.low + counts.high) / static_cast<double>(counts.values));
    }
    const double noisiest = lost[2] - trail;
    lost.erase(lost.begin() + 2);
    const double others = std::accumulate(lost.begin(), lost.end(), 0.0) / static_cast<double>(lost.size());
    EXPECT_LT(noisiest, 1.5 * others + 1e-3) << "test " << test;
    EXPECT_GT(noisiest, -0.1 * trail) << "test " << test << ": the trail went";
  }
}

/// Shares of the pixels of frames that were rejected.
std::vector<double> Lost(const Sky::Stacked& stacked) {
  std::vector<double> lost;
  for (const auto& counts : stacked.counts) {
    lost.push_back(static_cast<double>(counts.low + counts.high) / static_cast<double>(counts.values));
  }
  return lost;
}

TEST(CImgStack, GoodPixelsOfFewFramesStay) {
  // Frames of very unequal noise, and skies that rise steeply, straight and bent, to either side.
  for (const auto& noise : {std::vector<double>{10, 40, 40}, {10, 25}, {10, 40, 40, 40}, {10, 10, 40, 40}}) {
    const Sky sky{.noise = noise};
    for (const double lost : Lost(sky.Stack({Rejection::Auto}))) {
      EXPECT_LT(lost, 0.004) << testing::PrintToString(noise);
    }
  }
  for (const bool bends : {false, true}) {
    for (const bool upward : {false, true}) {
      Sky sky{.noise = {10, 10, 10, 10, 10, 10}};
      sky.spoils = [&](int frame, int x, int y) {
        const double u = upward ? y / 170.0 : x / 400.0;
        return 2000 * std::cos(frame) * (bends ? u * u : u);
      };
      for (const int frames : {3, 6}) {
        sky.noise.resize(frames, 10);
        for (const double lost : Lost(sky.Stack({Rejection::Auto}))) {
          EXPECT_LT(lost, 0.01) << frames << " frames" << (bends ? ", bent" : "")
                                << (upward ? ", upward" : "");
        }
      }
    }
  }
}

TEST(CImgStack, StarsKeepWhatTheSeeingMakesOfThem) {
  // In half of the frames stars grow wider to the right and narrower to the left, up to nine times the noise:
  // so near a star that is no outlier, and on the sky it is.
  for (const int frames : {8, 20}) {
    Sky sky{.noise = std::vector<double>(frames, 10.0)};
    sky.spoils = [=](int frame, int x, int y) {
      const double wide = std::max(2 * frame + 2 - frames, 0) * 90.0 / frames;
      const int column = y % 50 == 25 ? x % 80 : 0;
      return column == 45 || column == 5 ? wide : column == 35 || column == 75 ? -wide : 0;
    };
    const auto stacked = sky.Stack({Rejection::Auto});
    const auto off = [&](int first) {
      double sum = 0, count = 0;
      for (int y = 25; y < sky.height; y += 50) {
        for (int x = first; x < sky.width; x += 80) {
          double mean = 0;
          for (int i = 0; i < frames; ++i) {
            mean += sky.Of(i, x, y) / frames;
          }
          sum += std::abs(stacked.pixels[y * sky.width + x] - mean);
          ++count;
        }
      }
      return sum / count;
    };
    EXPECT_LT(off(45), 0.6 * off(5)) << frames;
    EXPECT_LT(off(35), 0.6 * off(75)) << frames;
    EXPECT_GT(off(5), 5) << frames;
    EXPECT_GT(off(75), 5) << frames;
  }
}

TEST(CImgStack, FramesThatReachOnlyAStripSpoilNothing) {
  for (int seed = 0; seed < 12; ++seed) {
    Sky sky{.noise = std::vector<double>(5, 10)};
    sky.spoils = [&](int frame, int x, int y) {
      if (frame < 3) return 0.0;
      const bool isThere =
          seed % 2 ? std::abs(x - 30 * seed) < 25 + 10 * frame : std::abs(y - 14 * seed) < 6 + frame;
      return isThere ? 1e-9 * seed : NAN;
    };
    const auto all = sky.Stack({Rejection::None}).pixels, kept = sky.Stack({Rejection::Auto}).pixels;
    double farthest = 0;
    for (size_t i = 0; i < all.size(); ++i) {
      farthest = std::max(farthest, std::abs(kept[i] - all[i]) / (1 + 0.01 * (all[i] - 900)));
    }
    EXPECT_LT(farthest, 60) << "strip " << seed;
  }
}

TEST(CImgStack, HotPixelsGoFromNebulaeToo) {
  for (const int frames : {3, 4, 7}) {
    Sky sky{.noise = std::vector<double>(frames, 10)};
    const auto nebula = [](int, int x, int y) {
      const double dx = x - 200, dy = y - 85;
      return 3000 * std::exp(-(dx * dx + dy * dy) / 2 / 3600);
    };
    const auto isHot = [](int frame, int x, int y) { return (x * 31 + y * 17) % 997 == 100 * frame; };
    sky.spoils = nebula;
    const auto clean = sky.Stack({Rejection::Auto}).pixels;
    sky.spoils = [&](int frame, int x, int y) {
      return nebula(frame, x, y) + (isHot(frame, x, y) ? 400 : 0);
    };
    const auto spoiled = sky.Stack({Rejection::Auto}).pixels;
    int hot = 0, left = 0;
    for (int i = 0; i < sky.width * sky.height; ++i) {
      const int x = i % sky.width, y = i / sky.width;
      const bool isOnStar = std::abs(x % 80 - 40) < 9 && std::abs(y % 50 - 25) < 9;
      for (int f = 0; f < frames && !isOnStar; ++f) {
        if (!isHot(f, x, y)) continue;
        ++hot;
        left += spoiled[i] - clean[i] > 5 * 10 / std::sqrt(frames);
      }
    }
    EXPECT_GT(hot, 150);
    EXPECT_LE(left, hot / 50) << frames << " frames";
  }
}

TEST(CImgStack, SampledStacksAreTheSameForAnyBandsThreadsAndStores) {
  const Sky sky{
      .width = 750, .height = 60, .noise = {5, 6, 7, 15, 5}, .slope = 90, .spoils = [](int f, int x, int y) {
        return (x * 7 + y * 13 + f * 29) % 211 == 0 ? 500.0 : 0.0;
      }};
  const auto whole = sky.Stack({Rejection::Auto}, 60);
  for (const auto& [rows, threads] : {std::pair(1, 3), {7, 1}, {64, 5}}) {
    const WithThreads team(threads);
    EXPECT_EQ(sky.Stack({Rejection::Auto}, rows).pixels, whole.pixels) << rows << " rows";
  }
  EXPECT_EQ(sky.Stack({Rejection::Auto}, 16, true, TinyPool()).pixels, whole.pixels);
}

TEST(CImgStack, ImagesWithoutNoiseOrTooSmallToMeasure) {
  // Equal frames but for single pixels.
  Sky sky{.width = 130, .height = 20, .noise = {0, 0, 0}};
  const auto clean = sky.Stack({Rejection::None});
  sky.spoils = [](int f, int x, int y) { return x == 30 + 20 * f && y == 9 ? 60.0 : 0.0; };
  const auto spoiled = sky.Stack({Rejection::Auto});
  int differ = 0;
  for (size_t i = 0; i < clean.pixels.size(); ++i) {
    differ += std::abs(spoiled.pixels[i] - clean.pixels[i]) > 0.2 + 0.05 * (clean.pixels[i] - 1000);
  }
  EXPECT_EQ(differ, 0);
  for (const auto& [width, height, frames] : {std::tuple(1, 1, 3), {1, 40, 5}, {50, 1, 2}, {3, 2, 1}}) {
    const Sky tiny{.width = width, .height = height, .noise = std::vector<double>(frames, 1)};
    const auto all = tiny.Stack({Rejection::None}).pixels, kept = tiny.Stack({Rejection::Auto}).pixels;
    for (size_t i = 0; i < all.size(); ++i) {
      EXPECT_NEAR(kept[i], all[i], 400) << width << " x " << height;
      EXPECT_TRUE(std::isfinite(kept[i]));
    }
  }
}

TEST(CImgStack, ByHand) {
  const float nan = NAN, inf = INFINITY;
  EXPECT_EQ(OnePixel({-3, -8, nan}, CImgStack::Maximum), -3) << "of negatives too";
  EXPECT_EQ(OnePixel({-3, inf, -inf, 8}, CImgStack::Minimum), -3);
  EXPECT_EQ(OnePixel({nan, inf, -inf}, CImgStack::Median), 0) << "no value";
  EXPECT_EQ(OnePixel({nan, 4, inf, 8}, CImgStack::Mean), 6);
  EXPECT_EQ(OnePixel({4, 8}, CImgStack::Mean, {Rejection::Sigma, 0.1, 0.1, 5}), 6)
      << "of two none is rejected";
  EXPECT_EQ(OnePixel({0, 0, 10, 10}, CImgStack::Mean, {Rejection::Sigma, 0.5, 0.5, 5}), 5) << "never all";
  // The first round rejects 1000, the second 30.
  const std::vector<float> outliers = {0, 1, 2, 3, 4, 5, 6, 7, 8, 30, 1000};
  EXPECT_FLOAT_EQ(OnePixel(outliers, CImgStack::Mean, {Rejection::Sigma, 2.5, 2.5, 1}), 6.6f);
  EXPECT_FLOAT_EQ(OnePixel(outliers, CImgStack::Mean, {Rejection::Sigma, 2.5, 2.5, 5}), 4);
  EXPECT_FLOAT_EQ(OnePixel(outliers, CImgStack::Mean, {Rejection::Sigma, 2.5, 1e3, 5}), 1066.0f / 11)
      << "low only";
  const auto target = Make(MemoryStore(), 1, 1, 1, Random(0, 1));
  for (const double weight : {0.0, -1.0, static_cast<double>(nan), static_cast<double>(inf)}) {
    const auto set = [&] {
      CImgStack(target.get()).SetWeights(std::vector<CImgStack::PlaneWeights>{{1, 1, 1}, {1, 1, weight}});
    };
    EXPECT_TRUE(ThrowsPointer<CInvalidArgException>(set)) << weight;
  }
}

TEST(FrameLevels, LevelSpreadAndNoiseOfASkyWithStarsAndGradient) {
  // Noise of deviation 10 on a slope, a share of bright pixels and some that are no numbers.
  const auto rule = [](int p, int x, int y) -> double {
    const double u = Noise(1 + p * 9000000LL + y * 3000LL + x),
                 v = Noise(77 + p * 9000000LL + y * 3000LL + x);
    const double normal = std::sqrt(-2 * std::log(1 - u)) * std::cos(2 * std::numbers::pi * v);
    if ((x * 31 + y * 17) % 97 == 0) return (x + y) % 2 ? NAN : 30000;
    return 1000 * (p + 1) + 10 * normal + 0.5 * (x - 200);
  };
  for (const auto& store : {MemoryStore(), TinyPool()}) {
    const auto image = Make(store, 401, 333, 3, rule);
    const FrameLevels levels = MeasureLevels(*image);
    // Uniform of 200 wide with noise: half of the pixels lie within 50.3 of the middle.
    for (int p = 0; p < 3; ++p) {
      EXPECT_NEAR(levels.level[p], 1000 * (p + 1), 2) << p;
      EXPECT_NEAR(levels.spread[p], 1.4826 * 50.3, 2) << p;
      EXPECT_NEAR(levels.noise[p], 10, 0.3) << p;
    }
  }
  const auto empty = Make(MemoryStore(), 5, 1, 1, [](int, int, int) { return NAN; });
  EXPECT_EQ(MeasureLevels(*empty).level[0], 0);
  EXPECT_EQ(MeasureLevels(*Make(MemoryStore(), 1, 3, 1, [](int, int, int) { return 7; })).level[0], 7);
  EXPECT_EQ(LinesForLevels(20001, 10), (std::vector<int>{1, 5, 8}));
  EXPECT_EQ(LinesForLevels(100, 2), (std::vector<int>{0, 1}));
  EXPECT_EQ(LinesForLevels(1000000, 9), std::vector<int>{4});
}

}  // namespace
