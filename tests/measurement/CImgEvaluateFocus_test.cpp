#include "korimg/measurement/CImgEvaluateFocus.h"

#include <algorithm>
#include <cmath>
#include <map>

#include <gtest/gtest.h>

#include "korimg/platform/CRegistry.h"

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

/// Sets the sigmas for a scope.
class WithSigmas {
 public:
  WithSigmas(int narrow, int wide) {
    const auto map = std::make_shared<Map>();
    map->values = {{"Eval/Min", std::to_string(narrow)}, {"Eval/Max", std::to_string(wide)}};
    CRegistry::SetProvider(map);
  }
  ~WithSigmas() { CRegistry::SetProvider(nullptr); }

 private:
  struct Map : korimg::SettingsProvider {
    std::map<std::string, std::string> values;
    std::optional<std::string> Get(const std::string& section, const std::string& key) const override {
      const auto found = values.find(section + "/" + key);
      return found == values.end() ? std::nullopt : std::optional(found->second);
    }
  };
};

/// A plane smoothed along both axes, in double precision. Columns repeat the edge, rows mirror about the
/// first row and repeat the last one.
std::vector<double> Smoothed(CVelImage& image, int p, int sigma) {
  const int width = image.GetWidth(), height = image.GetHeight();
  const int radius = std::max(static_cast<int>(2.8 * sigma + 1), 1);
  std::vector<double> weights;
  double all = 0;
  for (int k = -radius; k <= radius; ++k) {
    weights.push_back(sigma ? std::exp(-0.5 * k * k / (sigma * sigma)) : k == 0);
    all += weights.back();
  }
  const auto row = [&](int y) {
    for (;;) {
      if (y < 0) y = -y;
      if (y < height) return y;
      y = 2 * height - 1 - y;
    }
  };
  std::vector<double> across(static_cast<size_t>(width) * height), both(across.size());
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      for (int k = -radius; k <= radius; ++k) {
        across[y * width + x] +=
            weights[k + radius] / all * image.GetPixelGrayRaw(std::clamp(x + k, 0, width - 1), y, p);
      }
    }
  }
  for (int y = 0; y < height; ++y) {
    for (int k = -radius; k <= radius; ++k) {
      for (int x = 0; x < width; ++x) {
        both[y * width + x] += weights[k + radius] / all * across[row(y + k) * width + x];
      }
    }
  }
  return both;
}

double Reference(CVelImage& image, const CRect& rect, int narrow, int wide) {
  const int width = image.GetWidth(), height = image.GetHeight();
  double sum = 0;
  long long count = 0;
  for (int p = 0; p < image.GetPlanes(); ++p) {
    const auto sharp = Smoothed(image, p, narrow), soft = Smoothed(image, p, wide);
    for (int y = wide; y < height - wide; ++y) {
      for (int x = wide; x < width - wide; ++x) {
        if (x < rect.left + wide || x >= rect.right - wide || y < rect.top + wide || y >= rect.bottom - wide)
          continue;
        sum += std::abs(sharp[y * width + x] - soft[y * width + x]);
        ++count;
      }
    }
  }
  return count ? sum / static_cast<double>(count) : 0;
}

TEST(EvaluateFocus, IsTheMeanDistanceOfTwoGaussians) {
  struct Case {
    int width, height, planes, narrow, wide;
    CRect rect;
  };
  // Kernels that reach beyond the edges, and further than the image is high; parts of more than 1024 columns.
  const Case cases[] = {{731, 37, 1, 1, 10, {0, 0, 731, 37}},  {57, 83, 3, 1, 10, {-5, 3, 50, 90}},
                        {57, 83, 2, 2, 7, {9, 11, 40, 71}},    {1150, 90, 1, 1, 4, {3, 0, 1150, 77}},
                        {23, 1031, 1, 0, 3, {0, 0, 23, 1031}}, {11, 9, 3, 1, 4, {0, 0, 11, 9}},
                        {90, 70, 1, 1, 10, {10, 10, 31, 31}}};
  for (const Case& c : cases) {
    const WithSigmas sigmas(c.narrow, c.wide);
    std::vector<double> values;
    OnEveryPath([&](const StoreCase& store) {
      const auto image = Make<CImgEvaluateFocus>(store.make(), c.width, c.height, c.planes, Random(100, 900));
      CRect rect = c.rect;
      values.push_back(image->Do(&rect, 0));
      if (values.size() == 1) {
        const double expected = Reference(*image, c.rect, c.narrow, c.wide);
        ASSERT_GT(expected, 1);
        EXPECT_NEAR(values[0] / expected, 1, 1e-5) << c.width << "x" << c.height;
      }
      EXPECT_NEAR(values.back() / values[0], 1, 1e-6) << store.name << " " << c.width << "x" << c.height;
      // Any number of threads gives the same.
      const WithThreads three(3);
      EXPECT_EQ(image->Do(&rect, 0), values.back()) << store.name;
    });
  }
}

TEST(EvaluateFocus, NothingIsLeftOfSmallWindowsAndFlatOnesAreZero) {
  for (const StoreCase& store : Stores()) {
    const auto image = Make<CImgEvaluateFocus>(store.make(), 41, 40, 1, Random(100, 900));
    EXPECT_GT(image->Do(0), 0);
    CRect narrow(5, 0, 25, 40), outside(60, 0, 90, 40), one(5, 5, 26, 26);
    EXPECT_EQ(image->Do(&narrow, 0), 0);
    EXPECT_EQ(image->Do(&outside, 0), 0);
    EXPECT_GT(image->Do(&one, 0), 0);
    EXPECT_EQ(Make<CImgEvaluateFocus>(store.make(), 20, 90, 3, Random(100, 900))->Do(0), 0);
    EXPECT_EQ(Make<CImgEvaluateFocus>(store.make(), 64, 64, 1, [](int, int, int) { return 0.0; })->Do(0), 0);
    EXPECT_LT(Make<CImgEvaluateFocus>(store.make(), 64, 64, 1, [](int, int, int) { return 500; })->Do(0),
              1e-3);
    const WithSigmas huge(1, 2147483647);
    EXPECT_EQ(image->Do(0), 0);
    const WithSigmas below(-3, -1);
    EXPECT_EQ(image->Do(0), 0) << "both are the pixel itself";
  }
  CImgEvaluateFocus empty;
  EXPECT_EQ(empty.Do(0), 0);
}

TEST(EvaluateFocus, FallsAsStarsGrow) {
  double before = INFINITY;
  for (const double sigma : {1.0, 1.3, 1.8, 2.6, 4.0}) {
    const auto image = Make<CImgEvaluateFocus>(MemoryStore(), 200, 150, 1, [&](int, int x, int y) {
      double light = 100;
      for (int i = 0; i < 12; ++i) {  // as much light in each
        const double dx = x - 30 - 140 * Noise(i), dy = y - 30 - 90 * Noise(i + 50);
        light += 5000 / (sigma * sigma) * std::exp(-(dx * dx + dy * dy) / (2 * sigma * sigma));
      }
      return light;
    });
    const double value = image->Do(0);
    EXPECT_LT(value, 0.98 * before);
    before = value;
  }
}

}  // namespace
