// Hot and cold pixels: what is taken for such, and what stands in for it.
#include "session/calibrate/internal/DefectMap.h"

#include <cmath>
#include <set>

#include <gtest/gtest.h>

#include "session/picture/Image.h"
#include "tests/support/Images.h"

namespace korimg::session {
namespace {

using namespace korimg::test;
using Places = std::set<std::pair<int, int>>;

constexpr int kRggb = 1, kGbrg = 4, kHoneycomb2 = 12;

Places PlacesOf(const DefectMap& map, bool hot) {
  Places places;
  for (const Defect& d : map.Defects()) {
    if (d.isHot == hot) places.insert({d.x, d.y});
  }
  return places;
}

double Gaussian(std::uint64_t n) {
  return std::sqrt(-2 * std::log(Noise(2 * n) + 1e-12)) * std::cos(6.283185307 * Noise(2 * n + 1));
}

TEST(DefectMap, ADefectBecomesTheMedianOfTheNearestOfItsColour) {
  constexpr int kSide = 12;
  const PixelRule pixels = [](int, int x, int y) { return 100 + (x * 37 + y * 91) % 53; };
  struct Case {
    int cfa;
    std::vector<Defect> defects;  ///< the first is looked at
    std::vector<std::pair<int, int>> near;
  };
  const std::vector<Case> cases = {
      {0, {{5, 5, true}}, {{5, 4}, {4, 5}, {6, 5}, {5, 6}}},
      {0, {{5, 5, true}, {6, 5, false}}, {{5, 4}, {4, 5}, {5, 6}, {4, 4}, {6, 4}, {4, 6}, {6, 6}}},
      {0, {{0, 0, true}}, {{1, 0}, {0, 1}, {1, 1}, {2, 0}, {0, 2}}},
      {0, {{11, 11, true}}, {{10, 11}, {11, 10}, {10, 10}, {9, 11}, {11, 9}}},
      // Red, green and blue of RGGB; the same column and row are green in GBRG.
      {kRggb, {{4, 6, true}}, {{4, 4}, {2, 6}, {6, 6}, {4, 8}}},
      {kRggb, {{5, 6, true}}, {{4, 5}, {6, 5}, {4, 7}, {6, 7}}},
      {kRggb, {{5, 5, true}}, {{5, 3}, {3, 5}, {7, 5}, {5, 7}}},
      {kGbrg, {{4, 6, true}}, {{3, 5}, {5, 5}, {3, 7}, {5, 7}}},
      {kRggb, {{4, 6, true}, {4, 4, true}, {6, 6, true}}, {{2, 6}, {4, 8}, {2, 4}, {6, 4}, {2, 8}, {6, 8}}},
      // Red at (2, 0) of the honeycomb: blue at (0, 0) and (4, 0), green at (1, 1) and (3, 1).
      {kHoneycomb2, {{6, 4, true}}, {{4, 2}, {8, 2}, {4, 6}, {8, 6}}},
      {kHoneycomb2, {{5, 5, true}}, {{5, 3}, {3, 5}, {7, 5}, {5, 7}}},
  };
  for (const Case& c : cases) {
    const auto image = Make(MemoryStore(), kSide, kSide, 1, pixels);
    std::vector<Defect> defects = c.defects;
    std::sort(defects.begin(), defects.end(),
              [](const Defect& a, const Defect& b) { return std::pair(a.y, a.x) < std::pair(b.y, b.x); });
    std::vector<double> near;
    for (const auto& [x, y] : c.near) {
      near.push_back(pixels(0, x, y));
    }
    std::sort(near.begin(), near.end());
    const double median = 0.5 * (near[(near.size() - 1) / 2] + near[near.size() / 2]);
    DefectMap(kSide, kSide, c.cfa, defects).Mend(Image::RowsOf(*image, 0, kSide), 0, kSide);
    const auto [x, y, isHot] = c.defects.front();
    EXPECT_EQ(image->GetPixelGrayRaw(x, y, 0), median) << c.cfa << " at " << x << ", " << y;
    EXPECT_EQ(Difference(
                  *image,
                  [&](int, int i, int j) -> double {
                    const bool isOne = std::any_of(defects.begin(), defects.end(),
                                                   [&](const Defect& d) { return d.x == i && d.y == j; });
                    return isOne ? image->GetPixelGrayRaw(i, j, 0) : pixels(0, i, j);
                  },
                  0),
              "");
  }
}

TEST(DefectMap, BlankPixelsStayAndStandInForNone) {
  const auto image = Make(MemoryStore(), 9, 9, 1, [](int, int x, int y) -> double {
    return x == 3 && y == 4 ? NAN : x == 5 && y == 4 ? INFINITY : x == 7 && y == 7 ? NAN : 10 * y + x;
  });
  const DefectMap map(9, 9, 0, {{4, 4, true}, {7, 7, false}});
  map.Mend(Image::RowsOf(*image, 0, 9), 0, 9);
  EXPECT_EQ(image->GetPixelGrayRaw(4, 4, 0), 44);  // of 34, 54, 33, 35, 53 and 55
  EXPECT_TRUE(std::isnan(image->GetPixelGrayRaw(7, 7, 0)));
  const auto store = MemoryStore();
  const auto told = map.ToImage(store);
  EXPECT_EQ(map.Hot(), 1);
  EXPECT_EQ(map.Cold(), 1);
  EXPECT_EQ(Difference(
                *told, [](int, int x, int y) { return x == 4 && y == 4   ? 1
                                                      : x == 7 && y == 7 ? -1
                                                                         : 0; }, 0),
            "");
}

TEST(DefectMap, ADarkTellsByColourAndNotByItsGlow) {
  const Places hot = {{0, 0}, {40, 41}, {41, 41}, {99, 63}, {70, 5}}, cold = {{12, 30}, {55, 0}};
  for (const int cfa : {0, kRggb, kHoneycomb2}) {
    const PixelRule dark = [&](int, int x, int y) -> double {
      const SameColour colours(cfa);
      if (colours.ColourAt(x, y) < 0) return 0;
      // The corner glows by 30 times the noise, and the colours lie 40 times apart.
      const double glow = 60 * std::exp(-std::hypot(x - 99, y - 0) / 15);
      double level = 500 + 80 * colours.ColourAt(x, y) + glow + 2 * Gaussian(y * 100 + x);
      if (hot.count({x, y})) level += 70 + glow;
      if (cold.count({x, y})) level -= 70;
      return level;
    };
    const auto isSite = [&](const Places& all) {
      Places sites;
      for (const auto& [x, y] : all) {
        if (SameColour(cfa).ColourAt(x, y) >= 0) sites.insert({x, y});
      }
      return sites;
    };
    const DefectMap map = FindDefectsInDark(*Make(MemoryStore(), 100, 64, 1, dark), cfa);
    EXPECT_EQ(PlacesOf(map, true), isSite(hot)) << cfa;
    EXPECT_EQ(PlacesOf(map, false), isSite(cold)) << cfa;
  }
}

TEST(DefectMap, ADarkOfFewValuesTellsByTheirSteps) {
  const PixelRule dark = [](int, int x, int y) {
    return x == 7 && y == 3 ? 140 : (x * 3 + y) % 5 == 0 ? 104 : 100;
  };
  EXPECT_EQ(FindDefectsInDark(*Make(MemoryStore(), 30, 20, 1, [](int, int, int) { return 7; }), 0).Hot(), 0);
  EXPECT_EQ(FindDefectsInDark(*Make(MemoryStore(), 30, 20, 1, dark), 0).Hot(), 0);  // 40 of 4 * 1.48
  const DefectMap map =
      FindDefectsInDark(*Make(MemoryStore(), 30, 20, 1,
                              [&](int p, int x, int y) { return x == 9 && y == 9 ? 165 : dark(p, x, y); }),
                        0);
  EXPECT_EQ(PlacesOf(map, true), (Places{{9, 9}}));
}

/// Lights of a sky of noise with stars that stay in their place, or move by `step` pixels from one to the
/// next.
class Lights {
 public:
  Lights(int cfa, double sigma, double step) : cfa_(cfa), sigma_(sigma), step_(step) {}

  static constexpr int kWidth = 160, kHeight = 130;
  const Places hot = {{0, 0}, {100, 100}, {101, 100}, {50, 119}, {159, 77}, {31, 64}, {90, 128}},
               cold = {{140, 30}, {120, 129}};

  double At(int light, int x, int y) const {
    const SameColour colours(cfa_);
    if (colours.ColourAt(x, y) < 0) return 0;
    double v = 800 + 60 * light + 50 * colours.ColourAt(x, y) + x * 0.3 +
               10 * Gaussian(((light * 331ULL + y) * 1009) + x);
    for (int i = 0; i < 15; ++i) {
      const double dx = x - 15 - 130 * Noise(500 + i) - step_ * light, dy = y - 15 - 100 * Noise(700 + i);
      if (std::abs(dx) > 12 || std::abs(dy) > 12) continue;
      const auto share = [&](double d) {
        return 0.5 * (std::erf((d + 0.5) / sigma_ / M_SQRT2) - std::erf((d - 0.5) / sigma_ / M_SQRT2));
      };
      v += 300 * std::pow(1.85, i) * share(dx) * share(dy);
    }
    if (hot.count({x, y})) v += 120 + x;
    if (cold.count({x, y})) v -= 200;
    if ((x * 7 + y * 13 + light * 29) % 997 == 0) v += 3000;  // hits of cosmic rays
    return v;
  }
  std::vector<RowSource> Sources(int count) const {
    std::vector<RowSource> sources;
    for (int i = 0; i < count; ++i) {
      const auto image =
          Make(MemoryStore(), kWidth, kHeight, 1, [&](int, int x, int y) { return At(i, x, y); });
      sources.emplace_back([image](const Band<float>& to) {
        for (int y = to.Top(); y < to.Bottom(); ++y) {
          std::copy_n(image->GetLine(0, y, 0), to.Width(), to.Row(0, y).data());
        }
      });
    }
    return sources;
  }

 private:
  int cfa_;
  double sigma_, step_;
};

TEST(DefectMap, LightsTellHotPixelsFromStars) {
  Job job;
  for (const int cfa : {0, kRggb, kHoneycomb2}) {
    for (const double fwhm : {cfa == kHoneycomb2 ? 2.5 : 1.5, 3.0}) {
      for (const double step : {0.0, 2.3}) {
        SCOPED_TRACE(testing::Message() << cfa << " FWHM " << fwhm << " step " << step);
        const Lights lights(cfa, fwhm / 2.3548, step);
        const auto isSite = [&](const Places& all) {
          Places sites;
          for (const auto& [x, y] : all) {
            if (SameColour(cfa).ColourAt(x, y) >= 0) sites.insert({x, y});
          }
          return sites;
        };
        const auto sources = lights.Sources(5);
        const auto store = MemoryStore();
        for (const int threads : {1, 3}) {
          const WithThreads team(threads);
          const DefectMap map =
              FindDefectsInLights(job, sources, Lights::kWidth, Lights::kHeight, cfa, store);
          EXPECT_EQ(PlacesOf(map, true), isSite(lights.hot));
          EXPECT_EQ(PlacesOf(map, false), isSite(lights.cold));
        }
      }
    }
  }
}

TEST(DefectMap, SmallSensorsHaveMapsToo) {
  Job job;
  const auto sources = Lights(0, 1.2, 0).Sources(3);
  const auto store = MemoryStore();
  for (const auto& [width, height] : {std::pair(1, 1), {1, 30}, {30, 1}, {3, 3}, {9, 9}}) {
    // The same lights, but for what lies beyond.
    std::vector<RowSource> parts;
    for (const RowSource& source : sources) {
      parts.emplace_back([&source, width = width](const Band<float>& to) {
        BandBuffer buffer;
        const Band<float> rows = buffer.Get(1, Lights::kWidth, to.Top(), to.Rows());
        source(rows);
        for (int y = to.Top(); y < to.Bottom(); ++y) {
          std::copy_n(rows.Row(0, y).data(), width, to.Row(0, y).data());
        }
      });
    }
    FindDefectsInLights(job, parts, width, height, 0, store);
    FindDefectsInDark(*Make(MemoryStore(), width, height, 1, Random(0, 9)), kRggb);
  }
}

}  // namespace
}  // namespace korimg::session
