// What every step keeps to: one family of errors, and nothing left behind by one that is cancelled.
#include <atomic>
#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "korimg/platform/CException.h"

#include "session/composite/Composite.h"
#include "session/develop/DevelopFiles.h"
#include "session/info/Inspect.h"
#include "session/operations/Apply.h"
#include "session/operations/Operations.h"
#include "session/operations/Recipe.h"
#include "session/picture/Render.h"
#include "session/register/RegisterFiles.h"
#include "session/run/Run.h"
#include "session/stack/StackFiles.h"
#include "session/stars/Stars.h"
#include "tests/support/FailedPipeline.h"
#include "tests/support/Folder.h"
#include "tests/support/Simulated.h"

namespace korimg::session {
namespace {

namespace fs = std::filesystem;

class Steps : public files::FolderTest {
 protected:
  using Step = std::pair<const char*, std::function<void(Job&)>>;

  void SetUp() override {
    test::Simulated(In("night"), {.frames = 3, .width = 300, .height = 200, .bayer = "RGGB"});
  }

  /// Steps that work on pixels, with their outputs in the folder out.
  std::vector<Step> Working() const {
    return {{"Open", [this](Job& job) { Image::Open(job, light_); }},
            {"Calibrate", [this](Job& job) { Calibrate(job, CalibrateChoices()); }},
            {"DevelopFiles", [this](Job& job) { DevelopFiles(job, DevelopChoices()); }},
            {"RegisterFiles", [this](Job& job) { RegisterFiles(job, {.files = {In("night/lights")}}); }},
            {"StackFiles", [this](Job& job) { StackFiles(job, StackChoice()); }},
            {"Simulate",
             [this](Job& job) { Simulate(job, In("out/other"), {.frames = 1, .width = 64, .height = 64}); }},
            {"Run", [this](Job& job) { session::Run(job, {.calibrate = CalibrateChoices()}); }},
            {"FindStars",
             [this](Job& job) {
               FindStars(job, {.files = {light_, light_}});
             }},
            {"Inspect",
             [this](Job& job) {
               Inspect(job, {.files = {light_, light_}});
             }},
            {"Render", [this](Job& job) { Render(job, {.input = light_, .output = In("out/a.png")}); }},
            {"CompositeFiles", [this](Job& job) { CompositeFiles(job, CompositeChoices()); }},
            {"ApplyFile", [this](Job& job) { ApplyFile(job, ApplyChoices()); }},
            {"Apply",
             [this](Job& job) {
               Job quiet;
               Image image = Image::Open(quiet, light_);
               Apply(job, ApplyChoices(), image);
             }},
            {"Composite", [this](Job& job) {
               Job quiet;
               Image first = Image::Open(quiet, light_);
               Composite(job, first, Image::Open(quiet, light_), {});
             }}};
  }

  std::vector<Step> Telling() const {
    return {{"PlanCalibration", [this](Job& job) { PlanCalibration(job, CalibrateChoices()); }},
            {"PlanDevelopFiles", [this](Job& job) { PlanDevelopFiles(job, DevelopChoices()); }},
            {"PlanStackFiles", [this](Job& job) { PlanStackFiles(job, StackChoice()); }},
            {"PlanRun", [this](Job& job) { PlanRun(job, {.calibrate = CalibrateChoices()}); }},
            {"PlanRender",
             [this](Job& job) {
               PlanRender(job, {light_, In("out/a.png")});
             }},
            {"PlanCompositeFiles", [this](Job& job) { PlanCompositeFiles(job, CompositeChoices()); }}};
  }

 private:
  CalibrateOptions CalibrateChoices() const {
    CalibrateOptions options;
    options.lights = {In("night/lights")};
    options.biases = {In("night/biases")};
    options.out = In("out");
    return options;
  }
  DevelopFilesOptions DevelopChoices() const {
    DevelopFilesOptions options;
    options.frames = {light_};
    options.out = In("out");
    options.black = 500;
    return options;
  }
  StackFilesOptions StackChoice() const {
    StackFilesOptions options;
    options.frames = {In("night/darks")};
    options.output = In("out/stack.fits");
    return options;
  }
  CompositeFilesOptions CompositeChoices() const {
    CompositeFilesOptions options;
    options.first = options.second = light_;
    options.output = In("out/both.fits");
    return options;
  }
  ApplyOptions ApplyChoices() const {
    ApplyOptions options;
    options.steps = {session::Step(FindOperation("gaussian")), session::Step(FindOperation("invert"))};
    options.input = light_;
    options.output = In("out/applied.fits");
    return options;
  }

  fs::path light_ = In("night/lights/light_0001.fits");
};

// What a reporter throws leaves a step by the way of what the library throws: from where files are read, and
// from between.
TEST_F(Steps, ThrowErrorsOfTheFamilyOnly) {
  std::vector<Step> steps = Working();
  for (Step& step : Telling()) {
    steps.push_back(std::move(step));
  }
  for (const auto& [name, step] : steps) {
    for (const bool progressToo : {true, false}) {
      SCOPED_TRACE(name + std::string(progressToo ? ", progress" : ""));
      fs::remove_all(In("out"));
      fs::create_directory(In("out"));
      std::atomic<bool> hasThrown = false;
      Job job({.report = [&](const Event& event) {
        if (event.kind == Event::Progress && !progressToo) return;
        hasThrown = true;
        throw new CMemoryException;
      }});
      try {
        step(job);
        EXPECT_FALSE(hasThrown || progressToo) << "it has ended";
      } catch (const Error& error) {
        EXPECT_EQ(error.Kind(), ErrorKind::Resource) << error.what();
      } catch (CException* error) {
        error->Delete();
        ADD_FAILURE() << "a pointer has come out";
      }
    }
  }
}

// Whatever a host's reporter throws is its own, and not taken for the fault of a frame.
TEST_F(Steps, EndWhereverTheReporterThrows) {
  for (const auto& [name, step] : Working()) {
    int told = 0, thrown = 0;
    for (bool ends = false; !ends; ++told) {
      fs::remove_all(In("out"));
      fs::create_directory(In("out"));
      int left = told;
      bool hasThrown = false;
      Job job({.report = [&](const Event&) {
        if (left-- != 0) return;
        hasThrown = true;
        throw std::runtime_error("the host's own");
      }});
      try {
        step(job);
        EXPECT_FALSE(hasThrown) << name << " went on after event " << told;
        ends = true;
      } catch (const Error& error) {
        EXPECT_STREQ(error.what(), "the host's own") << name;
        ++thrown;
      }
      if (told > 200) break;  // those of many steps: enough
    }
    EXPECT_GT(thrown, 0) << name;
  }
}

TEST_F(Steps, DoNotSufferFromWhatTheReporterThrewBefore) {
  std::ofstream(In("bad.fits")) << "no image";
  bool throws = true;
  int failures = 0;
  Job job({.report = [&](const Event& event) {
    if (throws) throw std::runtime_error("the host's own");
    failures += event.kind == Event::Failure;
  }});
  EXPECT_THROW(Inspect(job, {.files = {In("bad.fits")}}), Error);
  throws = false;
  EXPECT_EQ(Inspect(job, {.files = {In("bad.fits"), In("night/lights/light_0001.fits")}}).size(), 1u);
  EXPECT_EQ(failures, 1);
}

TEST_F(Steps, HandOutNothingOnceAPipelineHasFailedWhileTheyWork) {
  test::FailAPipeline();
  bool fails = true;
  Job job({.report = [&](const Event&) {
    if (fails) test::FailAPipeline();
  }});
  EXPECT_FALSE(job.HasMiscomputed()) << "of a job that ended before";
  const session::Step blur =
      ParseRecipe(R"({"steps": [{"operation": "gaussian", "values": {"sigma": 2}}]})").front();
  const auto run = [&](const fs::path& path) -> std::string {
    try {
      Image image = Image::Open(job, path);
      blur.Run(job, image);
      return "";
    } catch (const Error& error) {
      return error.what();
    }
  };
  const fs::path light = In("night/lights/light_0001.fits");
  EXPECT_EQ(run(light).find(light.string() + ": part of the computation failed"), 0u) << run(light);
  fails = false;
  EXPECT_NE(run(light), "") << "what came before it may be wrong";
  job.ForgetFailures();
  EXPECT_EQ(run(light), "");
  Image copy = Image::Open(job, light);
  copy.Info().path.clear();
  fails = true;
  try {
    blur.Run(job, copy);
    ADD_FAILURE();
  } catch (const Error& error) {
    EXPECT_EQ(error.Kind(), ErrorKind::Resource);
  }
}

TEST_F(Steps, WantFrames) {
  EXPECT_THROW(Job({.memory = -1}), UsageError);
  Job job;
  EXPECT_THROW(session::Run(job, {}), UsageError);
  EXPECT_THROW(PlanRun(job, {}), UsageError);
}

TEST_F(Steps, LeaveNothingUnfinishedWhereverTheyAreCancelled) {
  for (const auto& [name, step] : Working()) {
    if (!std::set<std::string>{"DevelopFiles", "FindStars", "Inspect", "Render", "CompositeFiles",
                               "ApplyFile"}
             .count(name))
      continue;  // those of many steps have tests of their own
    SCOPED_TRACE(name);
    int cancelled = 0;
    for (bool ends = false; !ends; ++cancelled) {
      fs::create_directory(In("out"));
      JobOptions options;
      options.report = [&, left = cancelled](const Event&) mutable {
        if (left-- == 0) options.cancel->Cancel();
      };
      Job job(options);
      try {
        step(job);
        ends = true;
      } catch (const Cancelled&) {
        EXPECT_TRUE(fs::is_empty(In("out"))) << "after event " << cancelled;
      }
      fs::remove_all(In("out"));
    }
    EXPECT_GT(cancelled, 1);
  }
}

TEST_F(Steps, WriteNothingWhenTheyPlan) {
  for (const auto& [name, step] : Telling()) {
    int events = 0;
    Job job({.report = [&](const Event&) { ++events; }});
    step(job);
    EXPECT_GT(events, 0) << name;
    EXPECT_EQ(Names(), std::vector<std::string>{"night"}) << name;
  }
}

}  // namespace
}  // namespace korimg::session
