#include "session/operations/Operations.h"

#include <algorithm>
#include <cmath>
#include <set>
#include <sstream>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "session/operations/Describe.h"
#include "session/operations/Documentation.h"
#include "session/picture/Image.h"
#include "session/picture/Images.h"
#include "tests/support/Folder.h"
#include "tests/support/Images.h"

namespace korimg::session {
namespace {

using namespace korimg::test;

bool IsAsBefore(CVelImage& image, CVelImage& before) {
  const int p = before.GetPlanes() / 2;
  return image.GetWidth() == before.GetWidth() && image.GetPlanes() == before.GetPlanes() &&
         image.GetLevelMin(p) == before.GetLevelMin(p) && image.GetLevelMax(p) == before.GetLevelMax(p) &&
         Difference(image, before, 0).empty();
}

class Table : public files::FolderTest {
 protected:
  /// An image of 97 x 71, in colour, from a file.
  std::filesystem::path File(const std::string& name, const PixelRule& rule, int planes = 3) {
    const auto image = Make(MemoryStore(), 97, 71, planes, rule);
    SaveImage(job_, *image, {}, In(name));
    return In(name);
  }

  /// The example of an operation, with its images; without the values that may be left out, if wanted.
  Step Example(const Operation& operation, bool requiredOnly = false) {
    Step step(operation);
    std::istringstream words(operation.example);
    for (std::string word; words >> word;) {
      const Parameter& parameter = operation.Find(word.substr(0, word.find('=')));
      const std::string value = word.substr(word.find('=') + 1);
      if (requiredOnly && !parameter.required) continue;
      step.Set(parameter.name, parameter.kind == ParameterKind::Image ? In(value).string() : value);
    }
    return step;
  }

  /// The images that examples speak of.
  void MakeExamples() {
    first_ = File("light.fits", Random(100, 1000));
    int seed = 1;
    for (const char* name : {"dark.fits", "flat.fits", "other.fits"}) {
      File(name, Random(50, 500, ++seed));
    }
    File("mosaic.fits", Random(100, 1000), 1);
  }
  /// What the example of an operation runs on.
  void TakeImageOf(const Operation& operation) {
    first_ = In(operation.name == "cfa-noise" ? "mosaic.fits" : "light.fits");
  }

  std::unique_ptr<CVelImage> Run(const Step& step, const std::string& store, CRect* rect = nullptr) {
    managers_.push_back(store == "contiguous" ? MemoryStore() : TinyPool());
    Image image = Image::Open(job_, managers_.back(), first_);
    step.Run(job_, image, rect);
    return std::move(image.Pointer());
  }

  Job job_;
  std::filesystem::path first_, second_;
  std::vector<std::shared_ptr<CVmManager>> managers_;
};

TEST_F(Table, EveryExampleGivesTheSameOnBothStores) {
  MakeExamples();
  for (const Operation& operation : Operations()) {
    TakeImageOf(operation);
    const auto before = Image::Open(job_, first_);
    for (const auto& [partial, requiredOnly] : {std::pair(false, false), {true, false}, {true, true}}) {
      if (partial && !operation.takesRect) continue;
      if (requiredOnly && operation.name == "dark-flat") continue;        // wants one of them
      if (requiredOnly && operation.name == "cfa-noise") continue;        // wants a pattern in the header
      if (requiredOnly && operation.name == "flatten") continue;          // wants the numbers of its model
      if (requiredOnly && operation.family == "deconvolution") continue;  // measures stars: there are none
      const Step step = Example(operation, requiredOnly);
      CRect rect(13, 5, 90, 60);
      const auto contiguous = Run(step, "contiguous", partial ? &rect : nullptr);
      const auto paged = Run(step, "paged", partial ? &rect : nullptr);
      ASSERT_EQ(contiguous->GetPlanes(), paged->GetPlanes()) << step.Text();
      // Noise alone holds no hits.
      if (!requiredOnly && operation.name != "to-colour" && operation.name != "cosmic-rays") {
        EXPECT_FALSE(IsAsBefore(*contiguous, before.Pixels())) << step.Text() << " does nothing";
      }
      // With the values of their examples these agree, with others they do not.
      static const std::set<std::string> kAgreeHere = {"maximum", "minimum", "rank", "scale"};
      const auto share = kAgreeHere.contains(operation.name) ? 1e-5 : operation.storesAgree;
      if (!share) continue;
      EXPECT_EQ(Difference(*contiguous, *paged, *share), "") << step.Text();
      for (int p = 0; p < contiguous->GetPlanes(); ++p) {
        // Automatic levels count in bins, a few of which make up the difference of the two paths.
        EXPECT_NEAR(contiguous->GetLevelMin(p), paged->GetLevelMin(p), 2.0) << step.Text();
        EXPECT_NEAR(contiguous->GetLevelMax(p), paged->GetLevelMax(p), 2.0) << step.Text();
      }
    }
  }
}

/// An operation with one of its choices and flags after the other turned from what its example has.
std::vector<Step> Variants(const Step& example) {
  std::vector<Step> variants = {example};
  for (const Parameter& parameter : example.What().parameters) {
    std::vector<std::string> texts = parameter.choices;
    if (parameter.kind == ParameterKind::Flag) texts = {"0", "1"};
    for (const std::string& text : texts) {
      variants.push_back(example);
      variants.back().Set(parameter.name, text);
    }
  }
  return variants;
}

TEST_F(Table, SourcesStayThatAreSaidTo) {
  MakeExamples();
  int kept = 0;
  for (const Operation& operation : Operations()) {
    if (!operation.keepsSource) continue;
    ++kept;
    TakeImageOf(operation);
    Image opened = Image::Open(job_, first_);
    const int planes = opened.Planes();
    for (const Step& step : Variants(Example(operation))) {
      for (const bool partial : {false, true}) {
        if (partial && !operation.takesRect) continue;
        std::vector<float> pixels(static_cast<size_t>(planes) * 97 * 71), result(pixels.size(), 7.0F);
        const Band<float> source(pixels.data(), planes, 97, 0, 71), to(result.data(), planes, 97, 0, 71);
        opened.ReadRows(source);
        const std::vector<float> before = pixels;
        CRect rect(13, 5, 90, 60);
        Image over =
            Image::Over(job_, source, nullptr, {{100, 1000}}, {.planes = {to.Data(), to.Data() + planes}});
        over.Header() = opened.Header();
        Image plain = Image::CopyOf(job_, source);
        for (int p = 0; p < planes; ++p) {
          plain.Pixels().SetLevel(p, 100, 1000);
        }
        plain.Header() = opened.Header();
        try {
          step.Run(job_, plain, partial ? &rect : nullptr);
        } catch (const UsageError&) {
          continue;  // these values do not go together
        }
        step.Run(job_, over, partial ? &rect : nullptr);
        EXPECT_EQ(pixels, before) << step.Text();
        EXPECT_EQ(Difference(over.Pixels(), plain.Pixels(), 0), "") << step.Text() << " lies elsewhere";
        if (over.Width() != 97 || over.Height() != 71 || over.Planes() != planes) continue;
        EXPECT_EQ(over.Rows().Data()[0], result.data())
            << step.Text() << " leaves the result's memory unused";
      }
    }
  }
  EXPECT_GT(kept, 50);
}

TEST_F(Table, HeadersGoTheWayThatIsSaid) {
  MakeExamples();
  files::Header header;
  for (const auto& [key, value] : {std::pair("CRPIX1", 30.5),
                                   {"CRPIX2", 20.25},
                                   {"CRVAL1", 83.8},
                                   {"CRVAL2", -5.4},
                                   {"CD1_1", -2.8e-4},
                                   {"CD2_2", 2.8e-4},
                                   {"EGAIN", 1.3},
                                   {"KORLGAIN", 2.5}}) {
    header.Set(key, value);
  }
  header.Set("CTYPE1", "RA---TAN");
  header.Set("CTYPE2", "DEC--TAN");
  header.Set("GAIN", 1.5, "e-/ADU");
  header.Set("OBJECT", "M 42");
  for (const Operation& operation : Operations()) {
    TakeImageOf(operation);
    Image image = Image::Open(job_, first_);
    image.Header() = header;
    Example(operation).Run(job_, image);
    const files::Header& after = image.Header();
    const auto has = [&](const char* key) { return after.GetString(key).has_value(); };
    const bool moves = operation.header == HeaderEffect::Moves,
               places = operation.header != HeaderEffect::DropsPlaces,
               counts = operation.header != HeaderEffect::DropsCounts;
    EXPECT_EQ(has("CTYPE1"), places) << operation.name;
    EXPECT_EQ(has("CRPIX1"), places) << operation.name;
    for (const char* key : {"EGAIN", "KORLGAIN", "GAIN"}) {
      EXPECT_EQ(has(key), counts) << operation.name << " " << key;
    }
    EXPECT_TRUE(has("OBJECT")) << operation.name;
    const bool stays = after.GetDouble("CRPIX1") == 30.5 && after.GetDouble("CRPIX2") == 20.25;
    EXPECT_EQ(stays, places && !moves) << operation.name;
    const bool keeps = operation.header == HeaderEffect::Keeps;
    EXPECT_EQ(after.cards == header.cards, keeps) << operation.name;
  }
}

TEST_F(Table, AWindowLeavesTheRestAsItWas) {
  MakeExamples();
  for (const Operation& operation : Operations()) {
    if (!operation.takesRect) continue;
    TakeImageOf(operation);
    for (const std::string store : {"contiguous", "paged"}) {
      CRect rect(13, 5, 90, 60);
      const auto image = Run(Example(operation), store, &rect);
      for (const auto& [x, y] : {std::pair(12, 30), {90, 30}, {50, 4}, {50, 60}}) {
        const int p = image->GetPlanes() / 2;
        EXPECT_EQ(image->GetPixelGrayRaw(x, y, p), static_cast<float>(Random(100, 1000)(p, x, y)))
            << operation.name;
      }
    }
  }
}

TEST_F(Table, ABlankPixelOfAFlatLeavesItsPixelAlone) {
  first_ = File("first.fits", Random(100, 1000));
  second_ = File("flat.fits",
                 [](int p, int x, int y) { return x == 7 && y == 9 ? NAN : Random(50, 500, 2)(p, x, y); });
  const auto image = Run(Step(FindOperation("dark-flat"), {{"flat", second_.string()}}), "contiguous");
  EXPECT_EQ(image->GetPixelGrayRaw(7, 9, 1), static_cast<float>(Random(100, 1000)(1, 7, 9)));
  EXPECT_TRUE(std::isfinite(image->GetPixelGrayRaw(8, 9, 1)));
  EXPECT_THROW(Run(Step(FindOperation("flat"), {{"file", second_.string()}}), "contiguous"), UsageError);
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
    Step step(FindOperation(c.operation), c.values);
    if (step.What().name == "flat") step.Set("file", second_.string());
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
    const auto image = Run(Step(FindOperation("auto-level"), {{"method", method}}), "contiguous");
    EXPECT_LT(image->GetLevelMin(0), 990) << method;
    EXPECT_GT(image->GetLevelMax(0), 1050) << method;
  }
}

TEST_F(Table, DefaultsAreWithinTheirRangesAndNamesAreUnique) {
  std::vector<std::string> names;
  for (const Operation& operation : Operations()) {
    names.push_back(operation.name);
    EXPECT_FALSE(operation.summary.empty() || operation.text.empty()) << operation.name;
    for (const Parameter& parameter : operation.parameters) {
      EXPECT_FALSE(parameter.help.empty()) << operation.name << " " << parameter.name;
      if (!parameter.defaultValue) continue;
      // What is written of it in the documentation can be written in a call.
      EXPECT_EQ(TextOf(parameter.Read(TextOf(*parameter.defaultValue))), TextOf(*parameter.defaultValue))
          << operation.name;
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
                        Case{"bright", "bright", "1,2,3,"},
                        Case{"bright", "bright", "1,"},
                        Case{"curve", "points", "0:0,1:1,"},
                        Case{"dark", "file", ""},
                        Case{"crop", "rect", "1,2,3"},
                        Case{"crop", "rect", "5,5,2,9"},
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
    std::string error;
    try {
      Step(FindOperation(c.operation)).Set(c.parameter, c.value);
    } catch (const UsageError& refused) {
      error = refused.what();
    }
    EXPECT_TRUE(error.starts_with(std::string(c.operation) + ": " + c.parameter + "=")) << error;
  }
  EXPECT_THROW(FindOperation("inverse"), UsageError);
}

TEST_F(Table, FramesOfAnotherSizeAreRefusedWithBothSizes) {
  first_ = File("first.fits", Random(100, 1000));
  second_ = In("small.fits");
  SaveImage(job_, *Make(MemoryStore(), 50, 40, 1, Random(0, 1)), {}, second_);
  for (const char* name : {"dark", "flat", "dark-flat", "paste", "synthesize-dark"}) {
    const Operation& operation = FindOperation(name);
    Step step(operation);
    for (const Parameter& parameter : operation.parameters) {
      if (parameter.kind == ParameterKind::Image) step.Set(parameter.name, second_.string());
    }
    const std::string error = files::ErrorOf([&] { Run(step, "contiguous"); });
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
      const auto image = Run(Step(FindOperation(c.operation), c.values), store);
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
      const Step step(FindOperation("curve"),
                      lines ? std::map<std::string, std::string>{{"points", "1:1,0:0,0.2:0.35"},
                                                                 {"blue", "0:1,1:0"},
                                                                 {"kind", "line"}}
                            : std::map<std::string, std::string>{{"points", "0:0,0.3:0.9,1:1"}});
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
                       const char* store) { return Run(Step(FindOperation(name), values), store); };
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
  EXPECT_THROW(run("gradient", {{"degree", "3"}}, "contiguous"), UsageError) << "of another surface";
  EXPECT_THROW(run("gradient", {{"surface", "polynomial"}, {"smoothing", "1"}}, "paged"), UsageError);
  // What is said of planes that are not there does not count.
  EXPECT_NO_THROW(run("minimum", {{"radius", "1,11,11"}}, "contiguous"));
}

enum class Shade { Dark, Light };

struct OwnOptions {
  double number = 0.5;
  int count = 3;
  bool flag = false;
  Shade shade = Shade::Dark;
  PerPlane planes = 2;
  std::optional<CRect> window;
  std::optional<std::vector<CurvePoint>> points;
  Matrix matrix = {1, 1, {1}};
  std::optional<ImageValue> image;
};

/// An operation of a host's own, which writes what it was given into the first pixels.
Operation Own() {
  return Describe<OwnOptions>("own", "tells what it was given", "For tests.")
      .Takes("number", &OwnOptions::number, {"a number", "raw", -1, 1})
      .Takes("count", &OwnOptions::count, {"a count", "", 0, 9})
      .Takes("flag", &OwnOptions::flag, {"a flag"})
      .Chooses("shade", &OwnOptions::shade, {{"dark", Shade::Dark}, {"light", Shade::Light}}, "a choice")
      .Takes("planes", &OwnOptions::planes, {"for each plane", "", -5, 5})
      .Takes("window", &OwnOptions::window, {"a window"})
      .Takes("points", &OwnOptions::points, {"points"})
      .Takes("matrix", &OwnOptions::matrix, {"rows", "", -10, 10})
      .Takes("image", &OwnOptions::image, {"another image"})
      .Runs([](Call& call, const OwnOptions& options) {
        float* to = call.image->GetWritableLine(0, 0, 0);
        *to++ = static_cast<float>(options.number);
        *to++ = static_cast<float>(options.count);
        *to++ = options.flag;
        *to++ = options.shade == Shade::Light;
        *to++ = static_cast<float>(options.planes[2]);
        *to++ = options.window ? static_cast<float>(options.window->right) : -1;
        *to++ = options.points ? static_cast<float>((*options.points)[1].y) : -1;
        *to++ = static_cast<float>(options.matrix.values.back() + 100 * options.matrix.rows);
        *to++ = options.image ? call.Load(*options.image)->GetPixelGrayRaw(0, 0, 0) : -1;
      });
}

TEST_F(Table, ValuesAreReadOrGivenByTheirType) {
  const Operation own = Own();
  auto other = std::make_shared<Image>(NewImage(MemoryStore(), 20, 3, 1));
  other->Pixels().SetPixelGrayRaw(0, 0, 77, 0);
  const auto told = [&](const Step& step) {
    Image image(NewImage(MemoryStore(), 20, 3, 1));
    step.Run(job_, image);
    const float* line = image.Pixels().GetLine(0, 0, 0);
    return std::vector<float>(line, line + 9);
  };
  EXPECT_EQ(told(Step(own)), (std::vector<float>{0.5, 3, 0, 0, 2, -1, -1, 101, -1}));
  const Step read(own, {{"number", "-0.25"},
                        {"count", "7"},
                        {"flag", "1"},
                        {"shade", "light"},
                        {"planes", "1,2,-3"},
                        {"window", "1,2,30,40"},
                        {"points", "1:1,0.5:0.75,0:0"},
                        {"matrix", "1,2,3;4,5,-6"}});
  const std::vector<float> expected = {-0.25, 7, 1, 1, -3, 30, 0.75, 194, -1};
  EXPECT_EQ(told(read), expected);
  Step given(own);
  given.SetValue("number", -0.25)
      .SetValue("count", 7.0)
      .SetValue("flag", 1)
      .SetValue("shade", std::string("light"));
  given.SetValue("planes", PerPlane({1, 2, -3})).SetValue("window", CRect(1, 2, 30, 40));
  given.SetValue("points", std::vector<CurvePoint>{{1, 1}, {0.5, 0.75}, {0, 0}});
  given.SetValue("matrix", Matrix{2, 3, {1, 2, 3, 4, 5, -6}});
  EXPECT_EQ(told(given), expected);
  // The one is written as the other, but for points, which come in order.
  EXPECT_EQ(given.Text(),
            "own count=7 flag=1 matrix=1,2,3;4,5,-6 number=-0.25 planes=1,2,-3 "
            "points=0:0,0.5:0.75,1:1 shade=light window=1,2,30,40");
  given.SetValue("image", ImageValue{.image = other}).SetValue("planes", 4);
  EXPECT_EQ(told(given)[8], 77);
  EXPECT_EQ(told(given)[4], 4);

  Step step(own);
  const std::vector<std::pair<const char*, Value>> wrong = {{"number", 1.5},
                                                            {"number", std::string("1")},
                                                            {"number", std::nan("")},
                                                            {"count", 2.5},
                                                            {"count", 10},
                                                            {"flag", 2},
                                                            {"shade", std::string("grey")},
                                                            {"shade", 0},
                                                            {"planes", PerPlane({1, 2})},
                                                            {"planes", PerPlane({1, 2, 6})},
                                                            {"window", CRect(3, 3, 3, 9)},
                                                            {"points", std::vector<CurvePoint>{{0, 0}}},
                                                            {"matrix", Matrix{2, 2, {1, 2, 3}}},
                                                            {"matrix", Matrix{1, 1, {11}}},
                                                            {"image", ImageValue{}},
                                                            {"colour", 1.0}};
  for (const auto& [name, value] : wrong) {
    EXPECT_THROW(step.SetValue(name, value), UsageError) << name << "=" << TextOf(value);
  }
  for (const char* text : {"", "1,2;3", "1,x", "1;11"}) {
    EXPECT_THROW(step.Set("matrix", text), UsageError) << text;
  }
  EXPECT_EQ(told(step), told(Step(own))) << "what was refused has left something";
}

TEST_F(Table, ProgramsAreToldTheSame) {
  const auto all = nlohmann::json::parse(OperationsAsJson()).at("operations");
  ASSERT_EQ(all.size(), Operations().size());
  for (size_t i = 0; i < all.size(); ++i) {
    const Operation& operation = Operations()[i];
    const auto& told = all[i];
    EXPECT_EQ(told.at("name"), operation.name);
    const auto& schema = told.at("parameters");
    EXPECT_EQ(schema.at("properties").size(), operation.parameters.size());
    size_t required = 0;
    for (const Parameter& parameter : operation.parameters) {
      const auto& property = schema.at("properties").at(parameter.name);
      EXPECT_EQ(property.contains("default"), parameter.defaultValue.has_value()) << operation.name;
      EXPECT_TRUE(property.contains("type") || property.contains("oneOf")) << operation.name;
      required += parameter.required;
    }
    EXPECT_EQ(schema.at("required").size(), required) << operation.name;
  }
  const auto gaussian = nlohmann::json::parse(OperationsAsJson("gaussian")).at("operations").at(0);
  EXPECT_EQ(gaussian.at("family"), "filters");
  EXPECT_TRUE(gaussian.at("stores_agree").is_null());
  EXPECT_EQ(gaussian.at("parameters").at("properties").at("sigma"),
            nlohmann::json::parse(R"({"oneOf": [{"type": "number", "minimum": 0.0, "maximum": 1000.0},
                {"type": "array", "items": {"type": "number", "minimum": 0.0, "maximum": 1000.0},
                 "minItems": 3, "maxItems": 3}],
                "description": "standard deviation; 0 leaves the plane as it is", "kind": "number, or three",
                "unit": "pixels", "default": 1.0})"));
}

TEST_F(Table, WhatIsRefusedChangesNothing) {
  MakeExamples();
  File("constant.fits", [](int, int, int) { return 700; });
  const auto refuses = [&](const Step& step, CRect* rect) {
    Image image = Image::Open(job_, first_);
    EXPECT_THROW(step.Run(job_, image, rect), UsageError) << step.Text();
    EXPECT_TRUE(IsAsBefore(image.Pixels(), Image::Open(job_, first_).Pixels())) << step.Text();
  };
  refuses(Step(FindOperation("dark-flat"),
               {{"dark", In("dark.fits").string()}, {"flat", In("constant.fits").string()}}),
          nullptr);
  for (CRect rect : {CRect(97, 0, 99, 9), CRect(-9, 3, 0, 9), CRect(5, 71, 9, 80), CRect(20, 20, 10, 10)}) {
    refuses(Step(FindOperation("invert")), &rect);
  }
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
