// Exposures through filters become one colour image.
#include "session/compose/Compose.h"

#include <cmath>

#include <gtest/gtest.h>

#include "korimg/composite/stacking/FrameLevels.h"
#include "korimg/measurement/CStarFinder.h"

#include "session/compose/Palette.h"
#include "session/compose/internal/CommonArea.h"
#include "tests/support/Folder.h"
#include "tests/support/Images.h"

namespace korimg::session {
namespace {

using namespace korimg::test;

TEST(CommonArea, IsTheLargestRectangleThatAllReach) {
  for (int seed = 0; seed < 200; ++seed) {
    int n = seed * 100;
    const auto random = [&n](double low, double high) { return low + (high - low) * Noise(++n); };
    const int width = static_cast<int>(random(1, 14)), height = static_cast<int>(random(1, 12));
    std::vector<Placement> images;
    for (int i = 0; i < 2; ++i) {
      const bool turns = seed % 3 == 0, halves = seed % 3 == 1;
      images.push_back({static_cast<int>(random(1, 16)), static_cast<int>(random(1, 16)),
                        halves ? random(-4, 4) : std::floor(random(-4, 4)),
                        halves ? random(-4, 4) : std::floor(random(-4, 4)), turns ? random(-180, 180) : 0});
    }
    const auto reaches = [&](int x, int y) {
      return std::all_of(images.begin(), images.end(), [&](const Placement& p) {
        const double a = p.degrees * M_PI / 180, cx = p.width * 0.5, cy = p.height * 0.5;
        const double right = x - cx - p.dx, up = cy - y + p.dy;
        const double u = std::cos(a) * right - std::sin(a) * up + cx,
                     v = cy - (std::sin(a) * right + std::cos(a) * up);
        return u >= -1e-7 && u <= p.width - 1 + 1e-7 && v >= -1e-7 && v <= p.height - 1 + 1e-7;
      });
    };
    const auto allReach = [&](const CRect& r) {
      for (int y = r.top; y < r.bottom; ++y) {
        for (int x = r.left; x < r.right; ++x) {
          if (!reaches(x, y)) return false;
        }
      }
      return true;
    };
    const CRect found = CommonArea(width, height, images);
    EXPECT_TRUE(allReach(found)) << seed;
    int most = 0;
    for (int top = 0; top < height; ++top) {
      for (int left = 0; left < width; ++left) {
        for (int bottom = top + 1; bottom <= height; ++bottom) {
          for (int right = left + 1; right <= width; ++right) {
            const int pixels = (right - left) * (bottom - top);
            if (pixels > most && allReach({left, top, right, bottom})) most = pixels;
          }
        }
      }
    }
    EXPECT_EQ(found.Width() * found.Height(), most) << seed;
  }
}

TEST(Palette, FiltersByTheirNames) {
  const std::pair<const char*, const char*> names[] = {{"L", "L"},
                                                       {"Luminance", "L"},
                                                       {"r", "R"},
                                                       {"Baader Red", "R"},
                                                       {"GREEN", "G"},
                                                       {"V", "G"},
                                                       {"Blue_2", "B"},
                                                       {"Ha", "Ha"},
                                                       {"H-alpha", "Ha"},
                                                       {"H_Alpha 7nm", "Ha"},
                                                       {"HA 3nm", "Ha"},
                                                       {"O3", "OIII"},
                                                       {"OIII", "OIII"},
                                                       {"[SII] 6.5nm", "SII"},
                                                       {"", ""},
                                                       {"Ha7nm", "Ha"},
                                                       {"OIII6.5 nm", "OIII"},
                                                       {"L-eXtreme", ""},
                                                       {"Dual Ha OIII", ""},
                                                       {"Moon", ""},
                                                       {"red or blue", ""},
                                                       {"UHC", ""}};
  for (const auto& [name, kind] : names) {
    EXPECT_EQ(KindOfFilter(name), kind) << name;
  }
}

TEST(Palette, WhatFiltersMake) {
  const std::vector<std::string> all = {"SII", "Ha", "B", "Lum", "R", "OIII", "Green", "Red"};
  EXPECT_EQ(PlanColours(Palette::Auto, all)->text, "luminance Lum, red R, green Green, blue B");
  EXPECT_EQ(PlanColours(Palette::Auto, all)->composition, Composition::Lrgb);
  EXPECT_EQ(PlanColours(Palette::Sho, all)->filters, (std::vector<size_t>{0, 1, 5}));
  EXPECT_EQ(PlanColours(Palette::Hoo, all)->filters, (std::vector<size_t>{1, 5, 5}));
  EXPECT_EQ(PlanColours(Palette::Hoo, all)->composition, Composition::Rgb);
  EXPECT_EQ(PlanColours(Palette::Auto, {"B", "G", "R", "Ha"})->filters, (std::vector<size_t>{2, 1, 0}));
  EXPECT_EQ(PlanColours(Palette::Auto, {"Ha", "OIII"})->text, "red Ha, green OIII, blue OIII");
  EXPECT_FALSE(PlanColours(Palette::Auto, {"L", "R", "G"}));
  EXPECT_FALSE(PlanColours(Palette::None, all));
  EXPECT_THROW(PlanColours(Palette::Sho, {"Ha", "OIII"}), UsageError);
}

class ComposeSteps : public files::FolderTest {
 protected:
  Image Make(int width, int height, int planes, const PixelRule& rule) {
    Image image(NewImage(job_.MakeStore(), width, height, planes));
    Paint(image.Pixels(), rule);
    return image;
  }

  /// A sky of stars as an image that comes to lie on a canvas of 500 x 400 pixels by a placement.
  Image Sky(const Placement& place, double light, int seed) {
    Image image(NewImage(job_.MakeStore(), place.width, place.height, 1));
    Paint(image.Pixels(), [&](int, int x, int y) { return 300 * light + Random(-12, 12, seed)(0, x, y); });
    const double a = place.degrees * M_PI / 180, cx = place.width * 0.5, cy = place.height * 0.5;
    for (int i = 0; i < 150; ++i) {
      const double right = 500 * Noise(3 * i) - cx - place.dx, up = cy - 400 * Noise(3 * i + 1) + place.dy;
      const double u = std::cos(a) * right - std::sin(a) * up + cx,
                   v = cy - (std::sin(a) * right + std::cos(a) * up);
      const double peak = light * 400 / (0.05 + Noise(3 * i + 2));
      for (int y = std::max(0, static_cast<int>(v) - 9); y < std::min(place.height, static_cast<int>(v) + 10);
           ++y) {
        float* line = image.Pixels().GetWritableLine(0, y, 0);
        for (int x = std::max(0, static_cast<int>(u) - 9);
             x < std::min(place.width, static_cast<int>(u) + 10); ++x) {
          line[x] +=
              static_cast<float>(peak * std::exp(-((x - u) * (x - u) + (y - v) * (y - v)) / (2 * 1.6 * 1.6)));
        }
      }
    }
    return image;
  }

  /// Stars of one plane.
  static std::vector<CStar> Stars(CVelImage& image, int plane, const std::shared_ptr<CVmManager>& store) {
    const auto one = NewImage(store, image.GetWidth(), image.GetHeight(), 1);
    Paint(*one, [&](int, int x, int y) { return image.GetPixelGrayRaw(x, y, plane); });
    return MeasureFrame(*one, 10).stars;
  }

  Job job_;
};

TEST_F(ComposeSteps, LaysTheColoursOnEachOther) {
  const std::vector<Placement> places = {
      {500, 400, 0, 0, 0}, {500, 400, 7.3, -4.6, 0.4}, {480, 410, -3.45, 9.2, -1.3}};
  const CRect area = CommonArea(500, 400, places);
  for (const Composition composition : {Composition::Rgb, Composition::Lrgb}) {
    std::vector<Image> sources;
    if (composition == Composition::Lrgb) sources.push_back(Sky(places[0], 2, 7));
    for (int i = 0; i < 3; ++i) {
      sources.push_back(Sky(places[i], 1 - 0.25 * i, i + 1));
    }
    sources[0].Header().Set("CRPIX1", 100.0);
    sources[0].Header().Set("CRPIX2", 90.0);
    sources[0].Header().Set("CTYPE1", "RA---TAN");
    sources[0].Header().Set("FILTER", "R");
    const Image colour = Compose(job_, std::move(sources), {.composition = composition});
    EXPECT_NEAR(colour.Width(), area.Width(), 2);
    EXPECT_NEAR(colour.Height(), area.Height(), 2);
    EXPECT_NEAR(*colour.Header().GetDouble("CRPIX1"), 100 - area.left, 1);
    EXPECT_NEAR(*colour.Header().GetDouble("CRPIX2"), 90 - area.top, 1);
    EXPECT_FALSE(colour.Header().GetString("FILTER"));
    const double left = 100 - *colour.Header().GetDouble("CRPIX1");
    const Image alone = Sky(places[0], 1, 1);
    std::vector<CStar> expected = Stars(alone.Pixels(), 0, job_.MakeStore());
    for (int p = 0; p < 3; ++p) {
      double dx = 0, dy = 0;
      int count = 0;
      for (const CStar& star : Stars(colour.Pixels(), p, job_.MakeStore())) {
        for (const CStar& other : expected) {
          const double x = star.x + left - other.x, y = star.y + area.top - other.y;
          if (std::hypot(x, y) > 1.5) continue;
          dx += x;
          dy += y;
          ++count;
        }
      }
      ASSERT_GT(count, 60);
      EXPECT_LT(std::abs(dx) / count, 0.02) << "plane " << p;
      // The top edge, by the rounding of the fit, may be another row.
      EXPECT_LT(std::abs(dy / count - std::round(dy / count)), 0.02) << "plane " << p;
    }
  }
}

TEST_F(ComposeSteps, PlanesAreTheSources) {
  const auto rule = [](int i) { return Random(100, 900, i + 1); };
  std::vector<Image> sources;
  for (int i = 0; i < 3; ++i) {
    sources.push_back(Make(31 + 4 * i, 23, 1, rule(i)));
    sources[i].Pixels().SetLevel(0, 10 * i, 1000 + i);
  }
  const Image colour = Compose(job_, std::move(sources), {.registers = false});
  EXPECT_EQ(Difference(
                colour.Pixels(), [&](int p, int x, int y) { return rule(p)(0, x, y); }, 1e-6),
            "");
  EXPECT_EQ(colour.Pixels().GetLevelMax(2), 1002);
}

TEST_F(ComposeSteps, EdgesWithoutDataAreNotShared) {
  std::vector<Image> sources;
  for (int i = 0; i < 3; ++i) {
    sources.push_back(Make(60, 50, 1, [i](int, int x, int y) {
      return (i == 2 && x < 7) || (i == 1 && y > 45 && x > 3) || (x == 30 && y == 20) ? NAN : 100.0 * i + x;
    }));
  }
  sources[0].Header().Set("CRPIX1", 1.0);
  const Image colour = Compose(job_, std::move(sources), {.registers = false});
  EXPECT_EQ(std::pair(colour.Width(), colour.Height()), std::pair(53, 46));
  EXPECT_EQ(colour.Pixels().GetPixelGrayRaw(0, 0, 1), 107);
  EXPECT_TRUE(std::isnan(colour.Pixels().GetPixelGrayRaw(23, 20, 0))) << "a pixel within stays";
}

TEST_F(ComposeSteps, OneColourImageSkiesAndComplements) {
  const auto rule = [](int p, int x, int y) { return 100.0 * (p + 1) + Random(-20, 20)(p, x, y); };
  const auto compose = [&](const ComposeOptions& options) {
    std::vector<Image> sources;
    sources.push_back(Make(41, 37, 3, rule));
    return Compose(job_, std::move(sources), options);
  };
  const Image equal = compose({.registers = false, .backgrounds = Backgrounds::Equal});
  const FrameLevels sky = MeasureLevels(equal.Pixels());
  EXPECT_NEAR(sky.level[1], sky.level[0], 1e-3);
  EXPECT_NEAR(sky.level[2], sky.level[0], 1e-3);
  const Image solved = compose({.composition = Composition::Cmy, .registers = false});
  EXPECT_EQ(Difference(
                solved.Pixels(),
                [&](int p, int x, int y) {
                  const double c = rule(2, x, y), m = rule(0, x, y), v = rule(1, x, y);
                  return p == 0 ? m + v - c : p == 1 ? v + c - m : m + c - v;
                },
                1e-4),
            "");
}

TEST_F(ComposeSteps, LuminanceOfGreyColoursStaysAsItIsWithoutLoss) {
  // A gaussian sky with a few saturated pixels and one far below it; the colours have a fifth of the light.
  const auto light = [](int, int x, int y) {
    double sum = 0;
    for (int i = 0; i < 12; ++i) {
      sum += Noise(1000 * y + 12 * x + i) - 0.5;
    }
    return x % 17 == 3 && y % 11 == 4 ? 60000 : x == 9 && y == 9 ? -8 * 30 : x > 80 ? 700 : 30 * sum;
  };
  std::vector<Image> sources;
  sources.push_back(Make(120, 90, 1, [&](int p, int x, int y) { return 900 + light(p, x, y); }));
  for (int c = 0; c < 3; ++c) {
    sources.push_back(Make(120, 90, 1, [&, c](int p, int x, int y) { return 50 * c + light(p, x, y) / 5; }));
  }
  const Image image =
      Compose(job_, std::move(sources), {.composition = Composition::Lrgb, .registers = false});
  EXPECT_EQ(Difference(
                image.Pixels(), [&](int p, int x, int y) { return 900 + light(p, x, y); }, 1e-3),
            "");
}

TEST_F(ComposeSteps, SaturatedStarsOfTheLuminanceFadeNoColours) {
  // Stars are cut off in the luminance alone; a nebula has a third more red than blue.
  const auto light = [](int p, int x, int y) {
    const double star = x % 13 == 4 && y % 11 == 5 ? 1e6 : 0, nebula = x > 60 ? 900 : 0;
    const double shares[] = {1.2, 1, 0.8};
    return star + nebula * (p < 3 ? shares[p] : 1) + Random(-30, 30, p + 1)(0, x, y);
  };
  std::vector<Image> sources;
  sources.push_back(Make(100, 80, 1, [&](int, int x, int y) { return 500 + std::min(light(3, x, y), 6e4); }));
  for (int c = 0; c < 3; ++c) {
    sources.push_back(Make(100, 80, 1, [&, c](int, int x, int y) { return 500 + light(c, x, y) / 4; }));
  }
  const Image image =
      Compose(job_, std::move(sources), {.composition = Composition::Lrgb, .registers = false});
  double sums[3] = {};
  for (int p = 0; p < 3; ++p) {
    for (int y = 0; y < 80; ++y) {
      for (int x = 0; x < 100; ++x) {
        if (x % 13 != 4)
          sums[p] += image.Pixels().GetPixelGrayRaw(x, y, p) * (x > 62 ? 1 / 37.0 : x < 58 ? -1 / 58.0 : 0);
      }
    }
  }
  EXPECT_NEAR(sums[0] / sums[2], 1.2 / 0.8, 0.1);
}

TEST_F(ComposeSteps, PlanesOfLabComeBack) {
  const auto rule = Random(100, 900);
  Image colour = Make(45, 31, 3, rule);
  for (int p = 0; p < 3; ++p) {
    colour.Pixels().SetLevel(p, 50, 1000);
  }
  std::vector<Image> sources;
  sources.emplace_back(std::unique_ptr<CVelImage>(colour.Pixels().MakeLPlane()));
  sources.emplace_back(std::unique_ptr<CVelImage>(colour.Pixels().MakeAbPlane(0)));
  sources[0].Pixels().SetLevel(0, 50, 1000);
  const Image back = Compose(job_, std::move(sources), {.composition = Composition::Lab, .registers = false});
  EXPECT_EQ(Difference(back.Pixels(), rule, 1e-4), "");
}

TEST_F(ComposeSteps, RefusesWhatCannotBeComposed) {
  const auto grey = [&] { return Make(64, 64, 1, Random(0, 1)); };
  const auto refuses = [&](std::vector<Image> sources, const ComposeOptions& options,
                           const std::string& text) {
    try {
      Compose(job_, std::move(sources), options);
      ADD_FAILURE() << text;
    } catch (const Error& error) {
      EXPECT_NE(std::string(error.what()).find(text), std::string::npos) << error.what();
    }
  };
  const auto list = [](auto... images) {
    std::vector<Image> sources;
    (sources.push_back(std::move(images)), ...);
    return sources;
  };
  refuses(list(grey(), grey()), {}, "three colours");
  refuses(list(grey()), {}, "a colour image has 3");
  refuses(list(grey(), grey(), grey()), {.composition = Composition::Lrgb}, "a luminance");
  refuses(list(grey(), grey(), grey(), grey()), {.composition = Composition::Lab}, "planes a and b");
  refuses(list(grey(), grey(), grey()), {}, "--register none");
  Image mosaic = grey();
  mosaic.Header().Set("BAYERPAT", "RGGB");
  refuses(list(grey(), std::move(mosaic), grey()), {.registers = false}, "develop it");
}

}  // namespace
}  // namespace korimg::session
