#include "session/operations/Operations.h"

#include <algorithm>
#include <cmath>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "session/picture/Image.h"
#include "session/picture/Images.h"
#include "tests/support/Folder.h"
#include "tests/support/Images.h"

namespace korimg::session {
namespace {

using namespace korimg::test;

class Table : public files::FolderTest {
 protected:
  /// A colour image of 97 x 71, from a file.
  std::filesystem::path File(const std::string& name, const PixelRule& rule) {
    const auto image = Make(MemoryStore(), 97, 71, 3, rule);
    SaveImage(job_, *image, {}, In(name));
    return In(name);
  }

  /// A value for a parameter that has no default.
  std::string Value(const Parameter& parameter) {
    if (parameter.kind == ParameterKind::File) return second_.string();
    if (parameter.kind == ParameterKind::Rect) return "11,7,80,66";
    if (parameter.kind == ParameterKind::Points) return "0:0,0.3:0.5,1:1";
    if (parameter.name == "max") return "800,900,1000";
    if (parameter.name == "high") return "800";
    if (parameter.name == "rank") return "2,3,1";
    if (parameter.name == "width" || parameter.name == "height") return "120";
    if (parameter.name == "radius" || parameter.name.starts_with("centre-")) return "40";
    if (parameter.kind == ParameterKind::PerPlane) return "150,100,200";
    return parameter.kind == ParameterKind::Integer ? "7" : "437.5";
  }

  std::unique_ptr<CVelImage> Run(const Operation& operation, const std::string& store, CRect* rect,
                                 bool optionals = true) {
    Step step{&operation, {}};
    for (const Parameter& parameter : operation.parameters) {
      if (!parameter.defaultValue.empty() || (parameter.optional && !optionals)) continue;
      if (operation.name == "scale" && parameter.name == "factor") continue;  // width and height are given
      step.values[parameter.name] = Value(parameter);
    }
    return Run(step, store, rect);
  }

  std::unique_ptr<CVelImage> Run(const Step& step, const std::string& store, CRect* rect = nullptr) {
    managers_.push_back(store == "contiguous" ? MemoryStore() : TinyPool());
    Image loaded = Image::Open(job_, managers_.back(), first_);
    Call call(job_, step, loaded.Pointer(), loaded.Header(), rect);
    step.operation->run(call);
    return std::move(loaded.Pointer());
  }

  Job job_;
  std::filesystem::path first_, second_;
  std::vector<std::shared_ptr<CVmManager>> managers_;
};

TEST_F(Table, EveryOperationGivesTheSameOnBothStores) {
  first_ = File("first.fits", Random(100, 1000));
  second_ = File("second.fits", Random(50, 500, 2));
  for (const Operation& operation : Operations()) {
    for (const auto& [partial, optionals] : {std::pair(false, true), {true, true}, {true, false}}) {
      if (partial && !operation.takesRect) continue;
      if (!optionals && operation.name == "dark-flat") continue;  // wants one of them
      CRect rect(13, 5, 90, 60);
      const auto contiguous = Run(operation, "contiguous", partial ? &rect : nullptr, optionals);
      const auto paged = Run(operation, "paged", partial ? &rect : nullptr, optionals);
      ASSERT_EQ(contiguous->GetPlanes(), paged->GetPlanes()) << operation.name;
      if (!operation.storesAgree) continue;
      EXPECT_EQ(Difference(*contiguous, *paged, *operation.storesAgree), "") << operation.name;
      for (int p = 0; p < contiguous->GetPlanes(); ++p) {
        // Automatic levels count in bins, a few of which make up the difference of the two paths.
        EXPECT_NEAR(contiguous->GetLevelMin(p), paged->GetLevelMin(p), 2.0) << operation.name;
        EXPECT_NEAR(contiguous->GetLevelMax(p), paged->GetLevelMax(p), 2.0) << operation.name;
      }
    }
  }
}

TEST_F(Table, AWindowLeavesTheRestAsItWas) {
  first_ = File("first.fits", Random(100, 1000));
  second_ = File("second.fits", Random(50, 500, 2));
  for (const Operation& operation : Operations()) {
    if (!operation.takesRect) continue;
    for (const std::string store : {"contiguous", "paged"}) {
      CRect rect(13, 5, 90, 60);
      const auto image = Run(operation, store, &rect);
      for (const auto& [x, y] : {std::pair(12, 30), {90, 30}, {50, 4}, {50, 60}}) {
        EXPECT_EQ(image->GetPixelGrayRaw(x, y, 1), static_cast<float>(Random(100, 1000)(1, x, y)))
            << operation.name;
      }
    }
  }
}

TEST_F(Table, ABlankPixelOfAFlatLeavesItsPixelAlone) {
  first_ = File("first.fits", Random(100, 1000));
  second_ = File("flat.fits",
                 [](int p, int x, int y) { return x == 7 && y == 9 ? NAN : Random(50, 500, 2)(p, x, y); });
  Step step{&FindOperation("dark-flat"), {{"flat", second_.string()}}};
  managers_.push_back(MemoryStore());
  Image loaded = Image::Open(job_, managers_.back(), first_);
  Call call(job_, step, loaded.Pointer(), loaded.Header(), nullptr);
  step.operation->run(call);
  EXPECT_EQ(loaded.Pixels().GetPixelGrayRaw(7, 9, 1), static_cast<float>(Random(100, 1000)(1, 7, 9)));
  EXPECT_TRUE(std::isfinite(loaded.Pixels().GetPixelGrayRaw(8, 9, 1)));
  EXPECT_THROW(Run(FindOperation("flat"), "contiguous", nullptr), UsageError);
}

TEST_F(Table, WhatCannotGiveAnImageIsRefused) {
  const auto sky = [](int p, int x, int y) { return 500 * p + 1000 + 30 * Random(-1, 1)(p, x, y); };
  const auto constant = [](int, int, int) { return 700.0; };
  const auto hole = [&](int p, int x, int y) { return p == 2 && x == 7 && y == 9 ? NAN : sky(p, x, y); };
  const auto infinite = [&](int p, int x, int y) {
    return p == 1 && x == 7 && y == 9 ? INFINITY : sky(p, x, y);
  };
  const struct {
    test::PixelRule image, flat;
    const char* operation;
    std::map<std::string, std::string> values;
    bool works;
  } cases[] = {
      {constant, sky, "auto-level", {{"method", "normal"}}, false},
      {constant, sky, "auto-level", {{"method", "mean"}, {"separate", "1"}}, false},
      {constant, sky, "auto-level", {{"method", "median"}}, false},
      {constant, sky, "auto-level", {{"method", "histogram"}}, false},
      {infinite, sky, "auto-level", {{"method", "mean"}}, false},
      {sky, sky, "auto-level", {{"low", "0.7"}, {"high", "0.1"}}, false},
      {sky, sky, "auto-level", {{"method", "median"}}, true},
      {sky, hole, "flat", {}, false},
      {sky, constant, "flat", {{"gamma", "2"}}, false},
      {sky, constant, "flat", {}, true},
      {sky, sky, "flat", {{"offset", "0.2"}}, false},
      {sky, sky, "flat", {{"offset", "0.2"}, {"gamma", "1"}}, true},
  };
  int number = 0;
  for (const auto& c : cases) {
    first_ = File(fmt::format("first{}.fits", ++number), c.image);
    second_ = File(fmt::format("second{}.fits", number), c.flat);
    Step step{&FindOperation(c.operation), c.values};
    if (step.operation->name == "flat") step.values["file"] = second_.string();
    for (const char* store : {"contiguous", "paged"}) {
      if (c.works) {
        EXPECT_NO_THROW(Run(step, store)) << step.Text();
      } else {
        EXPECT_THROW(Run(step, store), UsageError) << step.Text();
      }
    }
  }
}

TEST_F(Table, AutomaticLevelsKeepTheSkyByTheirOwnDefaults) {
  // A sky of noise, and stars on it.
  first_ = File("first.fits", [](int p, int x, int y) {
    const double noise = Random(-1, 1)(p, x, y) + Random(-1, 1, 5)(p, x, y) + Random(-1, 1, 9)(p, x, y);
    return 1000 + 30 * noise + (x % 17 == 3 && y % 13 == 5 ? 9000 : 0);
  });
  for (const char* method : {"normal", "mean", "median", "histogram"}) {
    const auto image = Run(Step{&FindOperation("auto-level"), {{"method", method}}}, "contiguous");
    EXPECT_LT(image->GetLevelMin(0), 990) << method;
    EXPECT_GT(image->GetLevelMax(0), 1050) << method;
  }
}

TEST_F(Table, DefaultsAreWithinTheirRangesAndNamesAreUnique) {
  std::vector<std::string> names;
  for (const Operation& operation : Operations()) {
    names.push_back(operation.name);
    EXPECT_FALSE(operation.summary.empty());
    for (const Parameter& parameter : operation.parameters) {
      EXPECT_FALSE(parameter.help.empty()) << operation.name << " " << parameter.name;
      if (!parameter.defaultValue.empty()) {
        EXPECT_NO_THROW(CheckValue(operation, parameter, parameter.defaultValue)) << operation.name;
      }
    }
  }
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
  EXPECT_EQ(std::adjacent_find(names.begin(), names.end()), names.end());
}

TEST_F(Table, RefusesValuesThatCantBe) {
  struct Case {
    const char *operation, *parameter, *value;
  };
  for (const Case& c : {Case{"bright", "bright", "1,2"},
                        Case{"bright", "bright", "1,2,3,4"},
                        Case{"bright", "bright", "red"},
                        Case{"bright", "bright", ""},
                        Case{"bright", "bright", "nan"},
                        Case{"bright", "bright", "1e9"},
                        Case{"lift-up", "lines", "1.5"},
                        Case{"lift-up", "lines", "-1"},
                        Case{"calculate", "op", "power"},
                        Case{"calculate", "cut-minus", "2"},
                        Case{"calculate", "value", "12px"},
                        Case{"gaussian", "sigma", "inf"},
                        Case{"gaussian", "sigma", "-1"},
                        Case{"curve", "entries", "1"},
                        Case{"curve", "points", ""},
                        Case{"curve", "points", "0:0"},
                        Case{"curve", "points", "0:0,0.9:1"},
                        Case{"curve", "points", "0.1:0,1:1"},
                        Case{"curve", "points", "0:0,0.5:1,0.5:0,1:1"},
                        Case{"curve", "points", "0:0,0.5:1.1,1:1"},
                        Case{"curve", "points", "0:0,0.5:nan,1:1"},
                        Case{"curve", "points", "0:0,nan:0.5,1:1"},
                        Case{"curve", "points", "0:0,1:1,2:1"},
                        Case{"curve", "red", "0:0,1"},
                        Case{"curve", "red", "0:0,1:1x"}}) {
    const Operation& operation = FindOperation(c.operation);
    const auto parameter = std::find_if(operation.parameters.begin(), operation.parameters.end(),
                                        [&](const Parameter& p) { return p.name == c.parameter; });
    EXPECT_THROW(CheckValue(operation, *parameter, c.value), UsageError) << c.parameter << "=" << c.value;
  }
  EXPECT_THROW(FindOperation("inverse"), UsageError);
}

TEST_F(Table, FramesOfAnotherSizeAreRefusedWithBothSizes) {
  first_ = File("first.fits", Random(100, 1000));
  second_ = In("small.fits");
  SaveImage(job_, *Make(MemoryStore(), 50, 40, 1, Random(0, 1)), {}, second_);
  for (const char* name : {"dark", "flat", "dark-flat", "paste", "synthesize-dark"}) {
    const std::string error = files::ErrorOf([&] { Run(FindOperation(name), "contiguous", nullptr); });
    EXPECT_NE(error.find("50 x 40"), std::string::npos) << name << ": " << error;
    EXPECT_NE(error.find("97 x 71"), std::string::npos) << name << ": " << error;
  }
}

/// Pixels of plane p in the disc about (x, y), ascending.
std::vector<double> Disc(const PixelRule& at, int p, int x, int y, double r) {
  std::vector<double> values;
  for (int dy = -10; dy <= 10; ++dy) {
    for (int dx = -10; dx <= 10; ++dx) {
      if (dx * dx + dy * dy <= r * r) values.push_back(static_cast<float>(at(p, x + dx, y + dy)));
    }
  }
  std::sort(values.begin(), values.end());
  return values;
}

/// The mean of the square about (x, y), by the weights of columns times those of rows.
double Weighted(const PixelRule& at, int p, int x, int y, int r, const std::function<double(int)>& weight) {
  double sum = 0, weights = 0;
  for (int dy = -r; dy <= r; ++dy) {
    for (int dx = -r; dx <= r; ++dx) {
      sum += weight(dx) * weight(dy) * at(p, x + dx, y + dy);
      weights += weight(dx) * weight(dy);
    }
  }
  return sum / weights;
}

TEST_F(Table, FiltersGetTheirParametersPlaneByPlane) {
  const PixelRule at = Random(100, 1000);
  first_ = File("first.fits", at);
  struct Case {
    const char* operation;
    std::map<std::string, std::string> values;
    PixelRule expected;
  };
  const auto disc = [at](int p, int x, int y) { return Disc(at, p, x, y, p + 1.0); };
  const auto square = [at](int p, int x, int y, double centre, double neighbour) {
    return Weighted(at, p, x, y, 1, [](int) { return 1; }) * 9 * neighbour +
           at(p, x, y) * (centre - neighbour);
  };
  const std::map<std::string, std::string> radii = {{"radius", "1,2,3"}};
  const Case cases[] = {
      {"gaussian",
       {{"sigma", "0,1,2.5"}},
       [at](int p, int x, int y) {
         const double sigma = std::vector{1e-9, 1.0, 2.5}[p];
         const auto bell = [&](int d) { return std::exp(-d * d / (2 * sigma * sigma)); };
         return Weighted(at, p, x, y, static_cast<int>(sigma * 2.8 + 1), bell);
       }},
      {"mean",
       {{"radius", "1,2,3"}, {"weight", "1,0.5,0"}},
       [at](int p, int x, int y) {
         return Weighted(at, p, x, y, p + 1, [&](int d) { return d == 0 ? 1 : 1 - p / 2.0; });
       }},
      {"minimum", radii, [=](int p, int x, int y) { return disc(p, x, y).front(); }},
      {"maximum", radii, [=](int p, int x, int y) { return disc(p, x, y).back(); }},
      {"rank",
       {{"radius", "1,2,3"}, {"rank", "4,6,11"}},
       [=](int p, int x, int y) {
         return disc(p, x, y)[std::vector{4, 6, 11}[p]];
       }},
      {"median",
       {{"radius", "1,2,3"}, {"dark", "60,80,100"}, {"dark-range", "40,30,20"}, {"highlight", "200,180,160"}},
       [=](int p, int x, int y) {
         // Levels of 100 + 10 p to 900 + 25 p; below the dark a shoulder, no shoulder above the highlight.
         const double s = at(p, x, y), t = (s - 100 - 10 * p) / (800 + 15 * p) * 255;
         const double share = std::clamp((t - (20 + 30 * p)) / (40 - 10 * p), 0.0, 1.0);
         const auto values = disc(p, x, y);
         return t > 200 - 20 * p ? s : s + share * (values[values.size() / 2] - s);
       }},
      {"small-median", {{"mode", "5x5"}}, [=](int p, int x, int y) { return Disc(at, p, x, y, 2.3)[10]; }},
      {"small-rank",
       {{"mode", "3x3"}, {"rank", "7"}},
       [=](int p, int x, int y) { return Disc(at, p, x, y, 1.5)[7]; }},
      {"small-unsharp",
       {{"mode", "3x3"}, {"strength", "1,2,-3"}, {"weight", "0.5"}, {"threshold", "0,0.3,10"}},
       [=](int p, int x, int y) {
         const double s = at(p, x, y), change = std::abs(square(p, x, y, 1, 1) / 9 / s - 1);
         const double strength = change < std::vector{0.0, 0.3, 10.0}[p] ? 0 : std::vector{1, 2, -3}[p];
         return s + strength * (s - square(p, x, y, 1, 0.5) / 5);
       }},
      {"laplacian",
       {{"mode", "3x3"}},
       [=](int p, int x, int y) { return 100 + std::abs(square(p, x, y, 8, -1)); }},
  };
  for (const Case& c : cases) {
    for (const char* store : {"contiguous", "paged"}) {
      const auto image = Run({&FindOperation(c.operation), c.values}, store);
      for (int i = 0; i < 60; ++i) {
        const int p = i % 3, x = 10 + i, y = 10 + (i * 7) % 50;
        const double want = c.expected(p, x, y);
        EXPECT_NEAR(image->GetPixelGrayRaw(x, y, p), want, 1e-5 * std::max(1000.0, want))
            << c.operation << " " << store << " " << p << " (" << x << ", " << y << ")";
      }
    }
  }
}

TEST_F(Table, CurvesRunThroughTheirPoints) {
  const PixelRule at = Random(135, 900);
  first_ = File("first.fits", at);
  const auto line = [](double x) { return x < 0.2 ? x / 0.2 * 0.35 : 0.35 + (x - 0.2) / 0.8 * 0.65; };
  // A natural spline of one inner point is a cubic on either side of it; this one overshoots white.
  const auto spline = [](double x) {
    const double h0 = 0.3, h1 = 0.7, y1 = 0.9, m = 3 * ((1 - y1) / h1 - y1 / h0) / (h0 + h1), u = 1 - x;
    const double y = x < h0 ? (y1 / h0 - h0 * m / 6) * x + m / (6 * h0) * x * x * x
                            : 1 + ((y1 - 1) / h1 - h1 * m / 6) * u + m / (6 * h1) * u * u * u;
    return std::min(y, 1.0);
  };
  EXPECT_EQ(spline(0.6), 1);
  for (const char* store : {"contiguous", "paged"}) {
    for (const bool lines : {true, false}) {
      // In disorder, and blue before the curve of all planes.
      const Step step{&FindOperation("curve"),
                      lines ? std::map<std::string, std::string>{{"points", "1:1,0:0,0.2:0.35"},
                                                                 {"blue", "0:1,1:0"},
                                                                 {"kind", "line"}}
                            : std::map<std::string, std::string>{{"points", "0:0,0.3:0.9,1:1"}}};
      const auto image = Run(step, store);
      const auto expected = [&](int p, int x, int y) {
        const double low = 100 + 10 * p, range = 800 + 15 * p, t = (at(p, x, y) - low) / range;
        return low + range * (lines ? line(p == 2 ? 1 - t : t) : spline(t));
      };
      EXPECT_EQ(Difference(*image, expected, 1e-3), "") << store;
    }
  }
}

TEST_F(Table, WhatAnImageCantTakeIsRefused) {
  first_ = File("colour.fits", Random(100, 1000));
  const auto mono = In("mono.fits");
  SaveImage(job_, *Make(MemoryStore(), 97, 71, 1, Random(100, 1000)), {}, mono);
  const auto run = [&](const char* name, const std::map<std::string, std::string>& values,
                       const char* store) {
    return Run({&FindOperation(name), values}, store);
  };
  // Contiguous images would be left as they are.
  for (const char* radius : {"11", "10.5", "1,2,11"}) {
    EXPECT_THROW(run("minimum", {{"radius", radius}}, "contiguous"), UsageError);
    EXPECT_THROW(run("maximum", {{"radius", radius}}, "contiguous"), UsageError);
    EXPECT_NO_THROW(run("minimum", {{"radius", radius}}, "paged"));
  }
  EXPECT_THROW(run("rank", {{"radius", "11"}, {"rank", "0"}}, "contiguous"), UsageError);
  EXPECT_NO_THROW(run("rank", {{"radius", "11"}, {"rank", "1"}}, "contiguous"));
  EXPECT_THROW(run("rank", {{"radius", "1,1,2"}, {"rank", "4,5,12"}}, "paged"), UsageError);
  EXPECT_NO_THROW(run("rank", {{"radius", "1,1,2"}, {"rank", "4,4,12"}}, "paged"));
  EXPECT_THROW(run("rank", {{"rank", "1.5"}}, "paged"), UsageError);
  EXPECT_THROW(run("small-rank", {{"rank", "5"}}, "paged"), UsageError);
  EXPECT_THROW(run("gaussian", {{"sigma", "1,1,139"}}, "contiguous"), UsageError);
  EXPECT_THROW(run("median", {{"radius", "389"}}, "contiguous"), UsageError);
  EXPECT_THROW(run("mean", {{"highlight-range", "3"}}, "contiguous"), UsageError);
  EXPECT_THROW(run("h-alpha-level", {{"factor", "0"}}, "contiguous"), UsageError);
  first_ = mono;
  EXPECT_THROW(run("curve", {{"red", "0:0,1:1"}}, "contiguous"), UsageError);
  // What is said of planes that are not there does not count.
  EXPECT_NO_THROW(run("minimum", {{"radius", "1,11,11"}}, "contiguous"));
}

TEST(Sizes, AreReadWithTheirUnits) {
  EXPECT_EQ(ParseSize("4096"), 4096);
  EXPECT_EQ(ParseSize("512M"), 512LL << 20);
  EXPECT_EQ(ParseSize("1.5GiB"), 3LL << 29);
  EXPECT_EQ(ParseSize("2kb"), 2048);
  for (const char* text : {"", "M", "12X", "-3M", "nan", "1e99", "5MM"}) {
    EXPECT_THROW(ParseSize(text), UsageError) << text;
  }
}

}  // namespace
}  // namespace korimg::session
