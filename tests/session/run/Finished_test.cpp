#include "session/run/Finished.h"

#include <fstream>

#include "session/run/Tasks.h"
#include "session/run/internal/OptionsJson.h"
#include "tests/support/Folder.h"
#include "tests/support/Simulated.h"

namespace korimg::session {
namespace {

namespace fs = std::filesystem;

class FinishedTest : public files::FolderTest {
 protected:
  /// A night with a light that cannot be read, one that is excluded, and masters.
  RunOptions Night(const SimulateOptions& simulated) {
    test::Simulated(In("night"), simulated);
    files::WriteBytes(In("night/lights/broken.fits"), "no image");
    fs::copy_file(In("night/lights/light_0002.fits"), In("night/lights/extra.fits"));
    RunOptions options;
    options.calibrate.lights = {In("night/lights")};
    options.calibrate.darks = {In("night/darks")};
    options.calibrate.flats = {In("night/flats")};
    options.calibrate.biases = {In("night/biases")};
    options.calibrate.out = In("out");
    options.exclude = {"extra*"};
    return options;
  }

  static std::vector<float> PixelsOf(const fs::path& file) {
    const auto reader = files::ImageReader::Open(file);
    const files::ImageInfo& info = reader->Info();
    std::vector<float> pixels(static_cast<size_t>(info.width) * info.height * info.planes);
    reader->ReadRows(Band<float>(pixels.data(), info.planes, info.width, 0, info.height));
    return pixels;
  }

  Job job_;
};

TEST_F(FinishedTest, HasWhatTheRunTold) {
  RunOptions options = Night({.frames = 4, .width = 401, .height = 299, .seed = 5});
  job_.options.origin = "korimg run night";
  const RunResult told = session::Run(job_, options);
  fs::rename(In("out"), In("moved"));
  EXPECT_EQ(FindRuns(In("moved")), std::vector<fs::path>{In("moved")});
  EXPECT_EQ(FindRuns(folder_), std::vector<fs::path>{In("moved")});
  const FinishedRun run = OpenRun(In("moved"));
  EXPECT_EQ(run.command, "korimg run night");
  EXPECT_EQ(run.grid.width, 401);
  ASSERT_EQ(run.frames.size(), told.frames.size());
  ASSERT_EQ(run.frames.size(), 6u);
  int stacked = 0, excluded = 0;
  for (size_t i = 0; i < run.frames.size(); ++i) {
    const FinishedFrame& frame = run.frames[i];
    const RunFrame& own = told.frames[i];
    SCOPED_TRACE(own.file);
    EXPECT_EQ(frame.frame.file, own.file);
    EXPECT_EQ(frame.frame.status, own.status);
    EXPECT_EQ(frame.frame.weight, own.weight);
    EXPECT_EQ(frame.frame.rejected, own.rejected);
    EXPECT_EQ(frame.frame.measure.fwhm, own.measure.fwhm);
    EXPECT_EQ(frame.frame.measure.starCount, own.measure.starCount);
    EXPECT_EQ(frame.frame.registration.dx, own.registration.dx);
    EXPECT_EQ(frame.isMeasured, own.isStacked);
    EXPECT_EQ(ThumbnailOf(run, i).starts_with("\xff\xd8"), own.isStacked);
    if (frame.isMeasured) {
      EXPECT_TRUE(frame.start && frame.exposure);
      EXPECT_EQ(frame.stack, "stack");
    }
    stacked += frame.frame.isStacked;
    excluded += frame.isExcluded;
  }
  EXPECT_EQ(stacked, 4);
  EXPECT_EQ(excluded, 1);
  ASSERT_TRUE(run.reference);
  EXPECT_EQ(run.frames[*run.reference].frame.registration.method, "reference");
  ASSERT_EQ(run.stacks.size(), 1u);
  EXPECT_EQ(run.stacks[0].file, In("moved/stack.fits"));
}

TEST_F(FinishedTest, FramesLieAsTheStackHasThem) {
  // A plain mean is made of nothing but the frames where they lie.
  for (const bool isColour : {false, true}) {
    SCOPED_TRACE(isColour);
    RunOptions options = Night({.frames = 3, .width = 353, .height = 251, .bayer = isColour ? "GRBG" : ""});
    options.stack.reject = Rejection::None;
    options.stack.normalise = Normalisation::None;
    options.stack.weight = FrameWeights::None;
    session::Run(job_, options);
    const FinishedRun run = OpenRun(In("out"));
    const auto before = fs::last_write_time(In("out/masters"));
    RegisteredFrames frames(run, {});
    const Shape shape = frames.Size();
    EXPECT_EQ(shape.planes, isColour ? 3 : 1);
    const std::vector<float> stack = PixelsOf(In("out/stack.fits"));
    std::vector<double> sums(stack.size());
    std::vector<int> counts(stack.size());
    BandBuffer buffer;
    for (size_t i = 0; i < run.frames.size(); ++i) {
      if (!run.frames[i].frame.isStacked) continue;
      // In pieces that no band of a stack has.
      for (int y = 0; y < shape.height; y += 97) {
        const Band<float> rows = buffer.Get(shape.planes, shape.width, y, std::min(97, shape.height - y));
        frames.Read(i, rows);
        for (int p = 0; p < shape.planes; ++p) {
          for (int r = y; r < rows.Bottom(); ++r) {
            for (int x = 0; x < shape.width; ++x) {
              const float value = rows.Row(p, r)[x];
              const size_t at = (static_cast<size_t>(p) * shape.height + r) * shape.width + x;
              if (std::isnan(value)) continue;
              sums[at] += value;
              ++counts[at];
            }
          }
        }
      }
    }
    int compared = 0;
    for (size_t i = 0; i < stack.size(); ++i) {
      ASSERT_EQ(counts[i] == 0, static_cast<bool>(std::isnan(stack[i]))) << i;
      if (counts[i] == 0) continue;
      ASSERT_NEAR(stack[i], sums[i] / counts[i],
                  1e-4 * std::max(1.0, std::abs(static_cast<double>(stack[i]))))
          << i;
      ++compared;
    }
    EXPECT_GT(compared, 0.9 * stack.size());
    // One stretch, about the sky of each.
    const Levels shown = frames.StretchOf(0), other = frames.StretchOf(1);
    EXPECT_GT(shown.max[0], shown.min[0]);
    const auto skyOf = [&](size_t i) { return run.frames[i].frame.measure.sky; };
    EXPECT_NEAR(other.min[0] - shown.min[0], skyOf(1) - skyOf(0), 4);  // by other pixels
    EXPECT_DOUBLE_EQ(other.max[0] - other.min[0], shown.max[0] - shown.min[0]);
    EXPECT_EQ(other.midtone[0], shown.midtone[0]);
    EXPECT_THROW(frames.Read(run.frames.size() - 1, buffer.Get(shape.planes, shape.width, 0, 1)),
                 files::FileError);
    EXPECT_EQ(fs::last_write_time(In("out/masters")), before) << "nothing is written";
    // Who changed a light would be shown what the run never saw.
    files::WriteBytes(run.frames[0].frame.file, files::ReadBytes(run.frames[1].frame.file));
    RegisteredFrames later(run, {});
    EXPECT_THROW(later.Read(0, buffer.Get(shape.planes, shape.width, 0, 1)), files::FileError);
    fs::remove_all(In("night"));
    fs::remove_all(In("out"));
  }
}

TEST_F(FinishedTest, MapsCountWhatWasRejectedOfAllFrames) {
  RunOptions options = Night({.frames = 6, .width = 353, .height = 251, .bayer = "RGGB"});
  options.stack.reject = Rejection::Sigma;
  options.rejectionMaps = true;
  session::Run(job_, options);
  const FinishedRun run = OpenRun(In("out"));
  const std::vector<float> low = PixelsOf(In("out/stack_low.fits")),
                           high = PixelsOf(In("out/stack_high.fits"));
  ASSERT_EQ(low.size(), 353u * 251 * 3);
  double mapped = 0, told = 0;
  for (size_t i = 0; i < low.size(); ++i) {
    ASSERT_TRUE(low[i] >= 0 && high[i] >= 0 && low[i] + high[i] <= 6) << i;
    mapped += low[i] + high[i];
  }
  for (const FinishedFrame& frame : run.frames) {
    told += frame.frame.rejected * 353 * 251 * 3;  // of all its pixels, less those that lie beside the grid
  }
  EXPECT_GT(mapped, 100);
  EXPECT_NEAR(mapped, told, 0.1 * told);
  // In parts they are the same; what is drizzled has none.
  options.calibrate.out = In("parts");
  const auto tasks = PlanTasks(job_, options, 3);
  for (const RunTask& task : tasks) {
    DoTask(job_, options, task);
  }
  EXPECT_TRUE(PixelsOf(In("parts/stack_low.fits")) == low);
  EXPECT_TRUE(PixelsOf(In("parts/stack_high.fits")) == high);
  options.stack.drizzle.emplace();
  EXPECT_THROW(session::Run(job_, options), UsageError);
}

TEST_F(FinishedTest, IsStackedAgainWithoutSomeFrames) {
  RunOptions options = Night({.frames = 4, .width = 300, .height = 200});
  session::Run(job_, options);
  FinishedRun run = OpenRun(In("out"));
  std::vector<bool> leftOut = LeftOutBy(run, options);
  EXPECT_EQ(std::ranges::count(leftOut, true), 1);
  leftOut[1] = true;
  const RunOptions again = Again(run, leftOut);
  session::Run(job_, again);
  const std::string name = run.frames[1].frame.file.filename();
  run = OpenRun(In("out"));
  EXPECT_EQ(run.stacks[0].frames, 3);
  EXPECT_EQ(std::ranges::count_if(run.frames, &FinishedFrame::isExcluded), 2);
  EXPECT_EQ(run.frames.size(), 6u) << "none is forgotten, so that all can come back";
  EXPECT_EQ(LeftOutBy(run, again), LeftOutBy(run, run.options));
  // The same bytes as of a new run that leaves them out.
  options.exclude.push_back(name);
  options.calibrate.out = In("other");
  session::Run(job_, options);
  EXPECT_TRUE(files::ReadBytes(In("other/stack_float.tif")) == files::ReadBytes(In("out/stack_float.tif")));
}

TEST_F(FinishedTest, PatternsFitOneFrameOnly) {
  FinishedRun run;
  for (const char* file :
       {"/a[1]/light.fits", "/b/light.fits", "/b/l?ght*.fits", "/b/back\\slash.fits", "/b/l1ght2.fits"}) {
    run.frames.push_back({.frame = {.file = file}});
  }
  for (size_t i = 0; i < run.frames.size(); ++i) {
    std::vector<bool> wanted(run.frames.size());
    wanted[i] = true;
    EXPECT_EQ(LeftOutBy(run, {.exclude = {PatternOf(run, i)}}), wanted) << PatternOf(run, i);
  }
  EXPECT_EQ(LeftOutBy(run, {.include = {"light*"}, .exclude = {"/b/*"}}),
            (std::vector<bool>{false, true, true, true, true}));
}

TEST_F(FinishedTest, OptionsComeBack) {
  RunOptions options;
  options.calibrate.lights = {"/a/ß.fits"};
  options.calibrate.out = "/out";
  options.calibrate.pedestal = 100;
  options.calibrate.develop.whiteBalance = {WhiteBalanceChoice::Gains, {1, 2.5, 3, 4}};
  options.calibrate.quality = {.uncertainty = true, .gain = 1.5};
  options.stack.drizzle = {.scale = 1.5, .pixfrac = 0.5, .kernel = CImgDrizzle::Point};
  options.stack.kappa = Kappa{3, 2.5};
  options.palette = Palette::Hoo;
  options.lay.model = FrameModel::Affine;
  options.limits = {0.1, 0.2, 0.3};
  options.exclude = {"x*"};
  options.gradient = options.rejectionMaps = true;
  const auto json = ToJson(options);
  EXPECT_EQ(ToJson(RunOptionsFrom(json)), json);
  EXPECT_EQ(RunOptionsFrom(json).stack.drizzle->kernel, CImgDrizzle::Point);
  EXPECT_EQ(RunOptionsFrom(json).calibrate.quality.gain, 1.5);
  EXPECT_FALSE(RunOptionsFrom(json).calibrate.quality.readNoise);
  EXPECT_EQ(RunOptionsFrom(json).calibrate.develop.whiteBalance.gains[1], 2.5);
  EXPECT_EQ(RunOptionsFrom(json).stack.kappa->high, 2.5);
  EXPECT_NE(json, ToJson(RunOptions()));
}

TEST_F(FinishedTest, OtherFoldersAreRefused) {
  EXPECT_TRUE(FindRuns(folder_).empty());
  EXPECT_TRUE(FindRuns(In("nowhere")).empty());
  EXPECT_THROW(OpenRun(folder_), files::FileError);
  fs::create_directories(In("out/.korimg"));
  files::WriteBytes(In("out/.korimg/finished.cbor"), "no cbor");
  EXPECT_THROW(OpenRun(In("out")), files::FileError);
  const auto bytes = nlohmann::json::to_cbor({{"digest", "1"}, {"data", {{"version", 5}}}});
  files::WriteBytes(In("out/.korimg/finished.cbor"), std::string(bytes.begin(), bytes.end()));
  EXPECT_THROW(OpenRun(In("out")), files::FileError);
}

}  // namespace
}  // namespace korimg::session
