// Gradients over skies with stars and a nebula, of which all is known.
#include "korimg/calibration/CImgGradient.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

constexpr int kWidth = 900, kHeight = 700;

/// From -1 to 1 on the longer side.
double U(int x) {
  return (x - kWidth / 2.0) / (kWidth / 2.0);
}
double V(int y) {
  return (y - kHeight / 2.0) / (kWidth / 2.0);
}

double Normal(int p, int x, int y) {
  double sum = 0;
  for (int i = 0; i < 6; ++i) {
    sum += Random(-0.5, 0.5, i + 1)(p, x, y);
  }
  return sum * std::sqrt(2.0);
}

/// Soft light over a third of the image.
double Nebula(int x, int y) {
  const double dx = U(x) + 0.25, dy = V(y) - 0.1, r2 = dx * dx * 1.3 + dy * dy * 2;
  return 150 * std::exp(-r2 / 0.14) * (1 + 0.3 * std::sin(x / 17.0) * std::cos(y / 23.0));
}

double Stars(int x, int y) {
  const int cell = 60, i = x / cell, j = y / cell;
  const double cx = (i + 0.1 + 0.8 * Noise(31 * i + 7 * j)) * cell,
               cy = (j + 0.1 + 0.8 * Noise(13 * i + 57 * j)) * cell;
  const double d2 = (x - cx) * (x - cx) + (y - cy) * (y - cy);
  return 3000 * Noise(5 * i + 3 * j) * std::exp(-d2 / 5);
}

struct Slope {
  const char* name;
  double (*at)(int x, int y);
};

const Slope kSlopes[] = {
    {"line", [](int x, int y) { return 200 * U(x) - 120 * V(y); }},
    {"bowl", [](int x, int y) { return 220 * (U(x) * U(x) + V(y) * V(y)) - 60 * U(x); }},
    {"moon", [](int x, int y) { return 500 / (1 + 2 * std::hypot(U(x) - 1.6, V(y) + 1.2)); }},
};

CImgGradient::Options OptionsFor(CImgGradient::Surface surface, int degree) {
  CImgGradient::Options options;
  options.surface = surface;
  options.degree = degree;
  return options;
}

TEST(CImgGradient, LeavesLittleOfTheGradientAndTheNebula) {
  constexpr int kEvery = 7;
  const auto store = MemoryStore();
  const struct {
    const char* name;
    CImgGradient::Surface surface;
    int degree;
    double left;      ///< of the gradient's range, root mean square
    double taken[3];  ///< of the nebula: what is left that is like it, under each slope
  } cases[] = {{"plate", CImgGradient::ThinPlate, 2, 0.02, {0.02, 0.02, 0.04}},
               {"parabola", CImgGradient::Polynomial, 2, 0.05, {0.02, 0.02, 0.15}},
               {"degree 4", CImgGradient::Polynomial, 4, 0.02, {0.02, 0.04, 0.1}}};
  for (const Slope& slope : kSlopes) {
    const auto nebula = [](int p, int x, int y) { return (p == 0 ? 1 : 0.4) * Nebula(x, y); };
    const auto wanted = [&](int p, int x, int y) { return (1 + 0.3 * p) * slope.at(x, y); };
    const auto src = Make<CVelImage>(store, kWidth, kHeight, 2, [&](int p, int x, int y) {
      return 1000 + 100 * p + wanted(p, x, y) + nebula(p, x, y) + Stars(x, y) + 15 * Normal(p, x, y);
    });
    for (const auto& c : cases) {
      SCOPED_TRACE(std::string(slope.name) + ", " + c.name);
      CImgGradient::Options options = OptionsFor(c.surface, c.degree);
      options.result = CImgGradient::Model;
      const auto target = Make<CImgGradient>(store, kWidth, kHeight, 2, Random(0, 1));
      CImgGradient::Findings findings;
      ASSERT_EQ(target->Do(options, src.get(), 0, &findings), 1);
      for (int p = 0; p < 2; ++p) {
        double low = 1e9, high = -1e9, lowest = 1e9, highest = -1e9;
        std::vector<double> left, light;
        for (int y = 0; y < kHeight; y += kEvery) {
          for (int x = 0; x < kWidth; x += kEvery) {
            low = std::min(low, wanted(p, x, y)), high = std::max(high, wanted(p, x, y));
            const double got = target->GetPixelGrayRaw(x, y, p);
            lowest = std::min(lowest, got), highest = std::max(highest, got);
            left.push_back(got - wanted(p, x, y));
            light.push_back(nebula(p, x, y));
          }
        }
        const auto mean = [](const std::vector<double>& v) {
          return std::accumulate(v.begin(), v.end(), 0.0) / static_cast<double>(v.size());
        };
        const double level = mean(left), middle = mean(light);
        double squares = 0, taken = 0, all = 0;
        for (size_t i = 0; i < left.size(); ++i) {
          squares += (left[i] - level) * (left[i] - level);
          taken += (left[i] - level) * (light[i] - middle);
          all += (light[i] - middle) * (light[i] - middle);
        }
        EXPECT_LT(std::sqrt(squares / static_cast<double>(left.size())) / (high - low), c.left);
        EXPECT_LT(std::abs(taken / all), c.taken[&slope - kSlopes]);
        // Of the mesh that the surface is computed on.
        EXPECT_NEAR(findings.low[p], lowest, 0.03 * (high - low));
        EXPECT_NEAR(findings.high[p], highest, 0.03 * (high - low));
      }
    }
  }
}

TEST(CImgGradient, SubtractsDividesAndIsTheSameOnAllStoresAndTeams) {
  const auto rule = [](int p, int x, int y) {
    return x == 5 && y == 3 ? NAN : (1000 + 150 * U(x)) * (1 + 0.1 * p) + 10 * Normal(p, x, y);
  };
  std::vector<float> first;
  for (const StoreCase& store : Stores()) {
    for (const int threads : {1, 8}) {
      const WithThreads team(threads);
      const auto src = Make<CVelImage>(store.make(), kWidth, 311, 3, rule);
      const auto target = Make<CImgGradient>(store.make(), kWidth, 311, 3, Random(0, 1));
      for (const auto result : {CImgGradient::Divided, CImgGradient::Subtracted}) {
        CImgGradient::Options options = OptionsFor(CImgGradient::ThinPlate, 2);
        options.result = result;
        ASSERT_EQ(target->Do(options, src.get(), 0), 1);
        for (const int x : {10, 400, 880}) {
          double sum = 0;
          for (int y = 0; y < 311; ++y) {
            for (int k = 0; k < 10; ++k) {
              sum += target->GetPixelGrayRaw(x + k, y, 1) / 3110;
            }
          }
          EXPECT_NEAR(sum, 1100, 6) << store.name << " at " << x << " result " << result;
        }
      }
      EXPECT_TRUE(std::isnan(target->GetPixelGrayRaw(5, 3, 0)));
      std::vector<float> pixels = Pixels(*target);
      for (float& v : pixels) {
        if (std::isnan(v)) v = 0;
      }
      if (first.empty()) first = pixels;
      EXPECT_EQ(pixels == first, true) << store.name << " threads " << threads;
    }
  }
}

TEST(CImgGradient, RefusesWhatItCannotDo) {
  const auto store = MemoryStore();
  const auto flat = Make<CVelImage>(store, 200, 150, 1, [](int, int, int) { return 100; });
  const auto target = Make<CImgGradient>(store, 200, 150, 1, Random(0, 1));
  EXPECT_EQ(target->Do({}, flat.get(), 0), 1);
  EXPECT_EQ(Difference(*target, *flat, 1e-5), "");
  for (const auto& change : std::initializer_list<void (*)(CImgGradient::Options&)>{
           [](CImgGradient::Options& o) { o.degree = 5; }, [](CImgGradient::Options& o) { o.boxes = 3; },
           [](CImgGradient::Options& o) { o.tolerance = 0; }, [](CImgGradient::Options& o) { o.size = 60; },
           [](CImgGradient::Options& o) { o.size = 2000000000; },
           [](CImgGradient::Options& o) { o.surface = static_cast<CImgGradient::Surface>(2); },
           [](CImgGradient::Options& o) { o.result = static_cast<CImgGradient::Result>(3); }}) {
    CImgGradient::Options options;
    change(options);
    EXPECT_EQ(target->Do(options, flat.get(), 0), 0);
  }
  const auto blank = Make<CVelImage>(store, 200, 150, 1, [](int, int, int) { return NAN; });
  EXPECT_EQ(target->Do({}, blank.get(), 0), 0);
}

// Boxes of a sky alone differ by their noise, whatever is taken for sky of them.
TEST(CImgGradient, NoiseAloneHasNone) {
  const auto store = MemoryStore();
  int refused = 0, done = 0;
  for (int seed = 0; seed < 8; ++seed) {
    const auto src = Make<CVelImage>(store, 320, 240, 1,
                                     [seed](int, int x, int y) { return 500 + 5 * Normal(seed, x, y); });
    for (const auto& change : std::initializer_list<void (*)(CImgGradient::Options&)>{
             [](CImgGradient::Options& o) { o.tolerance = 0.5; },
             [](CImgGradient::Options& o) { o.boxes = 5, o.size = 8, o.tolerance = 1; },
             [](CImgGradient::Options& o) { o.boxes = 4, o.size = 8; },
             [](CImgGradient::Options& o) {
               o.surface = CImgGradient::Polynomial, o.degree = 4, o.boxes = 8;
             }}) {
      CImgGradient::Options options;
      change(options);
      options.result = CImgGradient::Model;
      const auto target = Make<CImgGradient>(store, 320, 240, 1, Random(0, 1));
      CImgGradient::Findings findings;
      if (!target->Do(options, src.get(), 0, &findings)) {
        ++refused;
        continue;
      }
      ++done;
      EXPECT_GT(findings.low[0], 500 - 8) << seed << " boxes " << options.boxes;
      EXPECT_LT(findings.high[0], 500 + 8) << seed << " boxes " << options.boxes;
    }
  }
  EXPECT_GT(refused, 0) << "twelve boxes are too few for a parabola";
  EXPECT_GT(done, 20);
}

}  // namespace
