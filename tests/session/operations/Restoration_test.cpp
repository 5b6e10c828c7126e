// What restoring operations add to the library's: blank pixels, refusals, and cancelling.
#include <gtest/gtest.h>

#include "session/operations/Describe.h"
#include "session/operations/Operations.h"
#include "session/picture/Image.h"
#include "tests/support/Images.h"

namespace korimg::session {
namespace {

using namespace korimg::test;

Image ImageOf(const std::shared_ptr<CVmManager>& store, int width, int height, const PixelRule& rule) {
  auto pixels = std::make_unique<CVelImage>(store, CImage::Float, width, height, 3, 1.0, 0.0, 1, nullptr);
  Paint(*pixels, rule);
  for (int p = 0; p < 3; ++p) {
    pixels->SetLevel(p, 100 + 10 * p, 900);
  }
  return Image(std::move(pixels));
}

std::vector<float> Result(Image& image, const std::string& operation,
                          const std::map<std::string, std::string>& values) {
  Job job;
  Step(FindOperation(operation), values).Run(job, image);
  return Pixels(image.Pixels());
}

TEST(Wavelet, GainsAreThoseOfTheirLevelAndDirection) {
  const auto store = MemoryStore();
  // Stripes of two pixels are detail of the finest level of Haar's wavelet, in one direction.
  const auto across = [](int, int x, int) { return x % 2 ? 300.0 : 500.0; };
  const auto down = [](int, int, int y) { return y % 2 ? 300.0 : 500.0; };
  const auto wider = [](int, int x, int) { return x % 4 / 2 ? 300.0 : 500.0; };
  const auto checked = [](int, int x, int y) { return (x + y) % 2 ? 300.0 : 500.0; };
  const struct {
    PixelRule rule;
    const char* gains;
    float first;
  } cases[] = {{across, "0", 400},      {across, "1,0", 500},    {wider, "0", 500},
               {wider, "1,0", 400},     {wider, "1,2", 600},     {across, "0;1;1", 400},
               {across, "1;0;0", 500},  {down, "1;0;1", 400},    {down, "0;1;0", 500},
               {checked, "1;1;0", 400}, {checked, "0;0;1", 500}, {checked, "1,1;1,1;-1,1", 300}};
  for (const auto& c : cases) {
    Image image = ImageOf(store, 24, 18, c.rule);
    EXPECT_NEAR(Result(image, "wavelet", {{"gains", c.gains}, {"levels", "3"}, {"order", "1"}})[0], c.first,
                1e-3)
        << c.gains;
  }
  Image grey = ImageOf(store, 24, 18, [](int, int, int) { return 300.0; });
  EXPECT_NEAR(Result(grey, "wavelet", {{"gains", "1"}, {"low", "0.5"}})[0], 400, 1e-3)
      << "towards the middle of the levels";
}

TEST(Wavelet, BlankPixelsStayAndBlankNoOthers) {
  for (const auto& store : {MemoryStore(), TinyPool()}) {
    Image image = ImageOf(store, 71, 67, Wild(100, 900));
    const auto before = Pixels(image.Pixels()),
               after = Result(image, "wavelet", {{"gains", "0.5,1.5"}, {"levels", "5"}});
    int changed = 0;
    for (size_t i = 0; i < before.size(); ++i) {
      ASSERT_EQ(std::isfinite(before[i]), std::isfinite(after[i])) << i;
      ASSERT_EQ(std::isnan(before[i]), std::isnan(after[i])) << i;
      changed += std::isfinite(before[i]) && before[i] != after[i];
    }
    EXPECT_GT(changed, 10000);
  }
}

TEST(Wavelet, WhatHasNoMeaningIsRefused) {
  Image image = ImageOf(MemoryStore(), 40, 31, Random(100, 900));
  const struct {
    std::map<std::string, std::string> values;
    const char* says;
  } cases[] = {{{{"gains", "1"}, {"levels", "6"}}, "6 levels"},
               {{{"gains", "1,1,1"}, {"levels", "2"}}, "3 levels of 2"},
               {{{"gains", "1;1"}}, "one row"},
               {{}, "gains"}};
  for (const auto& c : cases) {
    try {
      Result(image, "wavelet", c.values);
      ADD_FAILURE() << c.says;
    } catch (const UsageError& error) {
      EXPECT_NE(std::string(error.what()).find(c.says), std::string::npos) << error.what();
    }
  }
}

TEST(Rotational, CentresLimitsAndAmounts) {
  const auto store = MemoryStore();
  const auto run = [&](const std::string& name, const std::map<std::string, std::string>& values) {
    Image image = ImageOf(store, 40, 31, Random(100, 900));
    return Result(image, name, values);
  };
  Image plain = ImageOf(store, 40, 31, Random(100, 900));
  const auto before = Pixels(plain.Pixels());
  for (const std::string name : {"rotational-gradient", "rotational-unsharp"}) {
    EXPECT_EQ(run(name, {}), run(name, {{"centre-x", "19.5"}, {"centre-y", "15"}})) << "the middle";
    EXPECT_NE(run(name, {}), run(name, {{"centre-x", "18"}})) << name;
    EXPECT_NE(run(name, {}), run(name, {{"centre-y", "18"}})) << name;
    EXPECT_EQ(run(name, {{"radius-min", "90"}}), before) << name;
    EXPECT_EQ(run(name, {{"dark", "300"}}), before) << name;
    EXPECT_EQ(run(name, {{"highlight", "-10"}}), before) << name;
    EXPECT_EQ(run(name, {{"mark", "1"}, {"dark", "300"}})[15 * 40], 900) << name;
    EXPECT_THROW(run(name, {{"dark-range", "9"}}), UsageError) << name;
    const auto brighter = run(name, {{"brighter", "100"}});
    for (size_t i = 0; i < before.size(); ++i) {
      ASSERT_GE(brighter[i], before[i] - 1e-3) << name;
    }
  }
  const auto mean = run("rotational-unsharp", {{"mean", "1"}}),
             twice = run("rotational-unsharp", {{"amount", "2"}});
  for (size_t i = 0; i < before.size(); ++i) {
    ASSERT_NEAR(twice[i], before[i] + 2 * (before[i] - mean[i]), 0.01);
  }
  EXPECT_NE(run("rotational-unsharp", {{"segments", "2"}}), run("rotational-unsharp", {}));
  EXPECT_NE(run("rotational-gradient", {{"source", "0"}}), run("rotational-gradient", {}));
  // Planes 0 and 2 differ by their black.
  const auto grey = run("rotational-unsharp", {{"grey", "1"}});
  for (int i = 0; i < 40 * 31; ++i) {
    ASSERT_NEAR((grey[i] - 100) / 800, (grey[2 * 40 * 31 + i] - 120) / 780, 1e-5);
  }
}

TEST(Restoration, CancelledOperationsLeaveTheImageAsItWas) {
  const auto store = MemoryStore();
  for (const auto& [name, values] : std::vector<std::pair<std::string, std::map<std::string, std::string>>>{
           {"wavelet", {{"gains", "0"}}},
           {"rotational-unsharp", {}},
           {"wiener", {{"sigma", "1.5"}}},
           {"richardson-lucy", {{"sigma", "1.5"}, {"iterations", "3"}}},
           {"maximum-entropy", {{"sigma", "1.5"}, {"iterations", "3"}}}}) {
    int cancelled = 0;
    for (bool ends = false; !ends; ++cancelled) {
      Image image = ImageOf(store, 120, 110, Random(100, 900));
      const auto before = Pixels(image.Pixels());
      JobOptions options;
      options.report = [&, left = cancelled](const Event&) mutable {
        if (left-- == 0) options.cancel->Cancel();
      };
      Job job(options);
      try {
        Step(FindOperation(name), values).Run(job, image);
        ends = true;
      } catch (const Cancelled&) {
        EXPECT_EQ(Pixels(image.Pixels()), before) << name << " after event " << cancelled;
      }
      // The thread is free for the next one.
      Job next;
      Image other = ImageOf(store, 120, 110, Random(100, 900));
      EXPECT_NO_THROW(Step(FindOperation(name), values).Run(next, other)) << name << " after " << cancelled;
    }
    EXPECT_GT(cancelled, 10) << name;
  }
}

TEST(Background, NothingIsDividedByASkyThatWasSubtracted) {
  const auto store = MemoryStore();
  const auto sky = [](double level) {
    return [level](int p, int x, int y) { return level + 50 * p + 10 * Random(-1, 1)(p, x, y); };
  };
  for (const auto& [name, values] : std::vector<std::pair<std::string, std::map<std::string, std::string>>>{
           {"self-flat", {}}, {"flatten", {{"slope", "0.1"}}}}) {
    Image bright = ImageOf(store, 60, 50, sky(300)), subtracted = ImageOf(store, 60, 50, sky(-50));
    EXPECT_NO_THROW(Result(bright, name, values)) << name;
    const auto before = Pixels(subtracted.Pixels());
    try {
      Result(subtracted, name, values);
      ADD_FAILURE() << name;
    } catch (const UsageError& error) {
      EXPECT_NE(std::string(error.what()).find("the sky of plane 0"), std::string::npos) << error.what();
    }
    EXPECT_EQ(Pixels(subtracted.Pixels()), before);
  }
  Image subtracted = ImageOf(store, 60, 50, sky(-50));
  for (const std::map<std::string, std::string>& wrong : {std::map<std::string, std::string>{},
                                                          {{"model", "plane"}, {"slope", "1"}, {"a", "1"}},
                                                          {{"slope", "0.1"}, {"square", "1"}},
                                                          {{"model", "paraboloid"}}}) {
    Image bright = ImageOf(store, 60, 50, sky(300));
    EXPECT_THROW(Result(bright, "flatten", wrong), UsageError);
  }
  EXPECT_NO_THROW(Result(subtracted, "flatten", {{"by", "subtract"}, {"slope", "0.1"}}));
}

}  // namespace
}  // namespace korimg::session
