// Operations on colours through their descriptions, and images of two planes.
#include <cmath>
#include <set>
#include <sstream>
#include <stdexcept>

#include "korimg/colour/CColor.h"
#include "korimg/composite/stacking/FrameLevels.h"

#include "tests/session/operations/OperationTest.h"

namespace korimg::session {
namespace {

using namespace korimg::test;

class Colour : public OperationTest {
 protected:
  Colour() { job_.options.overwrite = true; }

  Image File(int planes, const PixelRule& rule = Random(150, 850)) {
    return Saved(*Make(MemoryStore(), 40, 31, planes, rule));
  }
};

/// The values of an example, whose images are called so with a prefix.
std::map<std::string, std::string> ExampleOf(const Operation& operation, const std::filesystem::path& folder,
                                             const std::string& prefix) {
  std::map<std::string, std::string> values;
  std::istringstream words(operation.example);
  for (std::string word; words >> word;) {
    const std::string name = word.substr(0, word.find('=')), value = word.substr(word.find('=') + 1);
    const bool image = operation.Find(name).kind == ParameterKind::Image;
    values[name] = image ? (folder / (prefix + value)).string() : value;
  }
  return values;
}

TEST_F(Colour, EveryOperationTakesTwoPlanesOrRefusesThem) {
  const std::set<std::string> refused = {"cfa-noise",    "colour-balance", "colour-matrix", "colour-noise",
                                         "false-colour", "fringe",         "lab-enhance",   "separate",
                                         "to-colour",    "to-gray",        "to-lab"};
  const std::set<std::string> differ = {"contours", "digital-development", "gradient"};  // by all planes
  for (const char* name : {"light.fits", "dark.fits", "flat.fits", "other.fits"}) {
    for (const int planes : {2, 3}) {
      const auto image = Make(MemoryStore(), 97, 71, planes, Random(150, 850, name[0]));
      SaveImage(job_, *image, {}, In(std::to_string(planes) + name));
    }
  }
  for (const Operation& operation : Operations()) {
    for (const auto& store : {MemoryStore(), TinyPool()}) {
      Image two = Image::Open(job_, store, In("2light.fits")),
            three = Image::Open(job_, store, In("3light.fits"));
      const auto values = ExampleOf(operation, In(""), "2");
      if (refused.contains(operation.name)) {
        EXPECT_THROW(Apply(two, operation.name, values), UsageError) << operation.name;
        continue;
      }
      EXPECT_NO_THROW(Apply(two, operation.name, values)) << operation.name;
      EXPECT_EQ(two.Planes(), 2) << operation.name;
      if (differ.contains(operation.name)) continue;
      EXPECT_NO_THROW(Apply(three, operation.name, ExampleOf(operation, In(""), "3")));
      EXPECT_EQ(Difference(two.Pixels(), three.Pixels(), 1e-6), "") << operation.name;
    }
  }
}

TEST_F(Colour, BalancedPlanesAreGreyByTheirLevelsToo) {
  const double skies[] = {500, 700, 300};
  SaveImage(job_,
            *Make(MemoryStore(), 300, 220, 3,
                  [&](int p, int x, int y) {
                    const bool isStar = x % 40 == 7 && y % 30 == 11, isBlank = x < 3;
                    return isBlank ? NAN : skies[p] + Random(-20, 20)(p, x, y) + (isStar ? 2000 : 0);
                  }),
            {}, In("tinted.fits"));
  for (const char* operation : {"auto-colour", "auto-stretch"}) {
    Image image = Image::Open(job_, In("tinted.fits"));
    Apply(image, operation, {});
    double shares[3];
    for (int p = 0; p < 3; ++p) {
      const auto level = MeasureLevels(image.Pixels()).level[p];
      shares[p] = (level - image.Pixels().GetLevelMin(p)) / image.Pixels().GetLevelRange(p);
      EXPECT_NEAR(level, 500, 3) << operation << " plane " << p;
    }
    EXPECT_NEAR(shares[1], shares[0], 5e-3) << operation;
    EXPECT_NEAR(shares[2], shares[0], 5e-3) << operation;
  }
}

TEST_F(Colour, InfinitePixelsSpoilNoLevels) {
  const auto image = Make(MemoryStore(), 64, 48, 3, [](int p, int x, int y) {
    return x == 9 && y == 9 ? INFINITY : x == 10 ? NAN : Random(400, 600)(p, x, y);
  });
  files::ImageInfo info;
  info.type = "float32";
  SetLevels(*image, info, false);
  EXPECT_NEAR(image->GetLevelMin(1), 400, 1);
  EXPECT_NEAR(image->GetLevelMax(1), 600, 1);
}

TEST_F(Colour, AnOperationThatFailsHalfWayLeavesTheImage) {
  struct None {};
  const Operation fails = Describe<None>("fails", "", "").Runs([](Call& call, const None&) {
    call.InPlace<CVelImage>([](CVelImage&) { throw std::runtime_error("a disk is full"); });
  });
  Image before = File(3), image = File(3);
  EXPECT_THROW(Step(fails, {}).Run(job_, image), std::runtime_error);
  ASSERT_EQ(image.Planes(), 3);
  EXPECT_EQ(Difference(image.Pixels(), before.Pixels()), "");
}

TEST_F(Colour, MatricesCountFromTheOriginThatIsTold) {
  const std::string matrix = "1.5,-0.25,0;0,1,0;0,-0.5,2";
  struct Case {
    std::map<std::string, std::string> values;
    double origin;
    bool byLevels = false;
    double strength = 1;
  };
  const Case cases[] = {{{}, 0},
                        {{{"origin", "smallest"}}, 120},
                        {{{"origin", "value"}, {"value", "60"}, {"strength", "0.5"}}, 60, false, 0.5},
                        {{{"by", "levels"}, {"strength", "0.5"}}, 0, true, 0.5}};
  const auto rule = [](int p, int x, int y) { return x + y + p == 0 ? 120 : Random(150, 850)(p, x, y); };
  for (const Case& c : cases) {
    for (OptionalRect rect : {OptionalRect(), OptionalRect(CRect(3, 5, 30, 20))}) {
      Image before = File(3, rule), image = File(3, rule);
      auto values = c.values;
      values["matrix"] = matrix;
      Apply(image, "colour-matrix", values, Address(rect));
      CVelImage& from = before.Pixels();
      const auto want = [&](int p, int x, int y) {
        const double own = from.GetPixelGrayRaw(x, y, p);
        if (!IsInside(rect, x, y)) return own;
        const double a[3][3] = {{1.5, -0.25, 0}, {0, 1, 0}, {0, -0.5, 2}};
        double sum = c.byLevels ? from.GetLevelMin(p) : c.origin;
        for (int j = 0; j < 3; ++j) {
          const double v = from.GetPixelGrayRaw(x, y, j);
          sum += a[p][j] * (c.byLevels
                                ? (v - from.GetLevelMin(j)) / from.GetLevelRange(j) * from.GetLevelRange(p)
                                : v - c.origin);
        }
        if (!c.byLevels) sum = std::max(sum, 1e-38);
        return c.strength * sum + (1 - c.strength) * own;
      };
      EXPECT_EQ(Difference(image.Pixels(), want, 1e-6), "") << c.origin;
    }
  }
}

TEST_F(Colour, FactorsOfColoursStandForBothSigns) {
  // A reddish, a greenish, a yellowish and a bluish pixel.
  const double colours[4][3] = {{600, 300, 300}, {300, 600, 350}, {600, 590, 200}, {250, 260, 700}};
  const auto rule = [&](int p, int x, int) { return x == 39 ? 1000.0 : colours[x % 4][p]; };
  const auto chroma = [&](const std::map<std::string, std::string>& values) {
    Image image = File(3, rule);
    Apply(image, "lab-enhance", values);
    EXPECT_EQ(image.Pixels().GetLevelMin(0), 100);
    const std::unique_ptr<CVelImage> lab(image.Pixels().MakeLabPlane());
    return std::array<double, 4>{lab->GetPixelGrayRaw(0, 0, 1), lab->GetPixelGrayRaw(1, 0, 1),
                                 lab->GetPixelGrayRaw(2, 0, 2), lab->GetPixelGrayRaw(3, 0, 2)};
  };
  const auto plain = chroma({});
  const auto changed = chroma({{"a", "0.5"}, {"green", "0.75"}, {"b", "0.25"}, {"blue", "0.5"}});
  const auto other = chroma({{"a", "0.75"}, {"red", "0.5"}, {"b", "0.5"}, {"yellow", "0.25"}});
  const double factors[] = {0.5, 0.75, 0.25, 0.5};
  for (int i = 0; i < 4; ++i) {
    EXPECT_NEAR(changed[i] / plain[i], factors[i], 1e-3) << i;
    EXPECT_EQ(changed[i], other[i]);
    EXPECT_EQ(plain[i] > 0, i % 2 == 0);
  }
}

TEST_F(Colour, PalettesSpanTheLevelsOfMonoAndColour) {
  for (const int planes : {1, 3}) {
    for (OptionalRect rect : {OptionalRect(), OptionalRect(CRect(3, 5, 30, 20))}) {
      Image image = File(planes, [](int, int x, int y) { return 100.0 + 20 * x + y / 100.0; });
      CVelImage& pixels = image.Pixels();
      for (int p = 0; p < planes; ++p) {
        pixels.SetLevel(p, 100, 100 + 20 * 25.5);
      }
      Apply(image, "false-colour", {{"palette", "rainbow"}, {"low", "50"}, {"high", "150"}}, Address(rect));
      CVelImage& painted = image.Pixels();
      ASSERT_EQ(painted.GetPlanes(), 3);
      EXPECT_EQ(painted.GetLevelMax(2), 610);
      const auto at = [&](int x, int p) {
        return painted.To256(double(painted.GetPixelGrayRaw(x, 8, p)), p);
      };
      EXPECT_NEAR(at(5, 0), 0, 0.1);  // blue
      EXPECT_NEAR(at(5, 2), 255, 0.1);
      EXPECT_NEAR(at(10, 1), 255, 0.6);  // green
      EXPECT_NEAR(at(15, 0), 255, 0.6);  // red
      if (rect) {
        EXPECT_NEAR(at(35, 2), 350, 0.1) << "grey beside the rectangle";
      }
    }
  }
}

TEST_F(Colour, ChannelsKeepWhatIsTrueOfThem) {
  for (const auto& [channel, gain, first, second] : {std::tuple("red", true, 0, 0),
                                                     {"blue", true, 2, 2},
                                                     {"cyan", false, 1, 2},
                                                     {"yellow", false, 0, 1}}) {
    Image before = File(3), image = File(3);
    image.Header().Set("GAIN", 1.5, "e-/ADU");
    Apply(image, "separate", {{"channel", channel}});
    EXPECT_EQ(image.Planes(), 1);
    EXPECT_EQ(image.Header().GetDouble("GAIN").has_value(), gain) << channel;
    const auto want = [&, first = first, second = second](int, int x, int y) {
      return (before.Pixels().GetPixelGrayRaw(x, y, first) + before.Pixels().GetPixelGrayRaw(x, y, second)) /
             2;
    };
    EXPECT_EQ(Difference(image.Pixels(), want, 1e-6), "") << channel;
  }
}

TEST_F(Colour, PlanesOfLabHaveLevelsOfTheirOwn) {
  for (const auto& [planes, parts] :
       {std::pair("lab", std::vector<int>{0, 1, 2}), {"l", {0}}, {"ab", {1, 2}}}) {
    Image before = File(3), image = File(3);
    Apply(image, "to-lab", {{"planes", planes}});
    const std::unique_ptr<CVelImage> lab(before.Pixels().MakeLabPlane());
    EXPECT_EQ(Difference(
                  image.Pixels(),
                  [&, p = parts](int i, int x, int y) { return lab->GetPixelGrayRaw(x, y, p[i]); }, 0),
              "");
    for (int i = 0; i < image.Planes(); ++i) {
      EXPECT_EQ(image.Pixels().GetLevelMin(i), parts[i] == 0 ? 0 : -200);
      EXPECT_EQ(image.Pixels().GetLevelMax(i), parts[i] == 0 ? 100 : 200);
    }
    SaveImage(job_, image.Pixels(), image.Header(), In("planes.fits"));
    Image again = Image::Open(job_, In("planes.fits"));
    EXPECT_EQ(Difference(again.Pixels(), image.Pixels()), "");
    EXPECT_EQ(again.Pixels().GetLevelMin(0), image.Pixels().GetLevelMin(0));
  }
}

TEST_F(Colour, WhatHasNoColoursIsRefused) {
  const std::string identity = "1,0,0;0,1,0;0,0,1";
  const struct {
    int planes;
    const char* operation;
    std::map<std::string, std::string> values;
    const char* says;
  } cases[] = {
      {1, "colour-balance", {{"red", "1"}}, "one plane"},
      {2, "colour-balance", {{"red", "1"}}, "two planes"},
      {1, "colour-matrix", {{"matrix", identity}}, "one plane"},
      {1, "lab-enhance", {}, "one plane"},
      {1, "separate", {}, "one plane"},
      {2, "false-colour", {}, "two planes"},
      {2, "to-lab", {}, "two planes"},
      {2, "to-gray", {}, "two planes"},
      {2, "to-colour", {}, "two planes"},
      {3, "false-colour", {{"low", "20"}, {"high", "20"}}, "range"},
      {3, "colour-matrix", {{"matrix", "1,2;3,4"}}, "3 rows"},
      {3, "colour-matrix", {{"matrix", identity}, {"origin", "value"}}, "value="},
      {3, "colour-matrix", {{"matrix", identity}, {"value", "7"}}, "origin=value"},
      {3, "colour-matrix", {{"matrix", identity}, {"by", "levels"}, {"origin", "smallest"}}, "leave origin"},
  };
  for (const auto& c : cases) {
    ExpectRefused(File(c.planes), c.operation, c.values, c.says);
  }
}

TEST_F(Colour, AColourImageStaysOneByToColour) {
  Image before = File(3), image = File(3);
  Apply(image, "to-colour", {});
  EXPECT_EQ(Difference(image.Pixels(), before.Pixels()), "");
}

TEST_F(Colour, TwoPlanesAreSavedAndReadBack) {
  Image two = File(2, Wild(-90, 90));
  EXPECT_EQ(two.Planes(), 2);
  EXPECT_EQ(Difference(
                two.Pixels(),
                [](int p, int x, int y) -> double { return static_cast<float>(Wild(-90, 90)(p, x, y)); }, 0),
            "");
  for (const char* name : {"two.png", "two.tif"}) {
    EXPECT_THROW(SaveImage(job_, two.Pixels(), {}, In(name)), files::FileError);
  }
}

}  // namespace
}  // namespace korimg::session
