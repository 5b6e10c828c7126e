// Frames of a sky with known truth, stacked one after the other.
#include "session/live/LiveStack.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <thread>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "korimg/image/internal/Numbers.h"

#include "session/calibrate/FindSession.h"
#include "session/job/Json.h"
#include "session/stack/Stack.h"
#include "tests/support/FailedPipeline.h"
#include "tests/support/Folder.h"
#include "tests/support/Images.h"
#include "tests/support/Simulated.h"

namespace korimg::session {
namespace {

namespace fs = std::filesystem;

class LiveStackTest : public files::FolderTest {
 protected:
  void Simulated(const SimulateOptions& options, const char* name = "night") {
    test::Simulated(In(name), options);
  }
  fs::path LightOf(int number, const char* night = "night") const {
    return In(night) / "lights" / fmt::format("light_{:04}.fits", number);
  }
  LiveOptions Calibrated(const char* night = "night") const {
    LiveOptions options;
    options.calibrate.darks = {In(night) / "darks"};
    options.calibrate.flats = {In(night) / "flats"};
    options.calibrate.biases = {In(night) / "biases"};
    return options;
  }

  /// A field of stars with noise, shifted by whole pixels, as a file of floats.
  struct Field {
    int dx = 0, dy = 0, seed = 1, planes = 1, width = 240, height = 180, stars = 40;
    double light = 1, sky = 500, noise = 5, blur = 1.6;
    std::vector<std::pair<std::string, std::string>> header = {};
    std::function<void(files::Planes&)> change = {};
  };
  fs::path Make(const std::string& name, const Field& field) const {
    const int width = field.width, height = field.height;
    files::Planes planes(field.planes, std::vector<float>(width * height));
    for (int p = 0; p < field.planes; ++p) {
      for (int i = 0; i < width * height; ++i) {
        const auto random = [&](int k) {
          return test::Noise(i + 1000003ULL * field.seed + 77777777ULL * (3 * k + p));
        };
        const double normal = random(0) + random(1) + random(2) + random(3) - 2;
        planes[p][i] = static_cast<float>(field.sky * (1 + 0.2 * p) + field.noise * std::sqrt(3) * normal);
      }
      for (int s = 0; s < field.stars; ++s) {
        const double x = 240 * test::Noise(1000 + 2 * s) + field.dx,
                     y = 180 * test::Noise(1001 + 2 * s) + field.dy,
                     flux = field.light * 20000 * (0.1 + test::Noise(5000 + s)) / (1 + p);
        const double v = field.blur * field.blur;
        for (int k = std::max(static_cast<int>(y) - 9, 0); k < std::min(static_cast<int>(y) + 10, height);
             ++k) {
          for (int j = std::max(static_cast<int>(x) - 9, 0); j < std::min(static_cast<int>(x) + 10, width);
               ++j) {
            planes[p][k * width + j] += static_cast<float>(
                flux / (2 * M_PI * v) * std::exp(-((j - x) * (j - x) + (k - y) * (k - y)) / (2 * v)));
          }
        }
      }
    }
    if (field.change) field.change(planes);
    files::Header header;
    for (const auto& [key, text] : field.header) {
      header.Set(key, text);
    }
    fs::create_directories(In(name).parent_path());
    const auto writer = files::ImageWriter::Create(
        In(name),
        {.width = width, .height = height, .planes = field.planes, .header = header, .overwrite = true});
    files::WriteAll(*writer, planes, width, height, 64);
    return In(name);
  }

  Job job_;
};

/// Pixels in which two images differ by more than a limit; NaN equals NaN.
long long Differing(CVelImage& a, CVelImage& b, double limit) {
  long long count = 0;
  for (int p = 0; p < a.GetPlanes(); ++p) {
    for (int y = 0; y < a.GetHeight(); ++y) {
      const float *u = a.GetLine(0, y, p), *v = b.GetLine(0, y, p);
      for (int x = 0; x < a.GetWidth(); ++x) {
        const bool same = std::isnan(u[x]) ? std::isnan(v[x]) : std::abs(u[x] - v[x]) <= limit;
        count += !same;
      }
    }
  }
  return count;
}

TEST_F(LiveStackTest, AFrameWhoseComputationFailsIsLeftOutAndTheNextOnesAreAdded) {
  Simulated({.frames = 4, .width = 320, .height = 240});
  for (const int failing : {1, 2}) {
    bool fails = false;
    Job job({.report = [&](const Event&) {
      if (fails) test::FailAPipeline();
    }});
    LiveStack live(job, Calibrated());
    for (int i = 1; i <= 4; ++i) {
      SCOPED_TRACE(i);
      fails = i == failing;
      const LiveFrame frame = live.Add(LightOf(i));
      EXPECT_EQ(frame.isAdded, !fails) << frame.status;
      EXPECT_EQ(frame.status.find("computation failed") != std::string::npos, fails) << frame.status;
    }
    EXPECT_EQ(live.Snapshot()->Header().GetDouble("NCOMBINE"), 3);
  }
}

TEST_F(LiveStackTest, WithoutRejectionIsTheMeanThatStackMakes) {
  for (const int planes : {1, 3}) {
    SCOPED_TRACE(planes);
    LiveOptions options;
    options.kappa = 1e9;
    LiveStack live(job_, options);
    EXPECT_FALSE(live.Snapshot());
    const auto blank = [](files::Planes& pixels) { pixels.back()[240 * 90 + 100] = NAN; };
    const Field fields[] = {
        {.planes = planes, .change = blank},
        {.dx = 7, .dy = -4, .seed = 2, .planes = planes, .light = 0.8, .sky = 900, .noise = 8},
        {.dx = -11, .dy = 3, .seed = 3, .planes = planes, .light = 1.1, .noise = 4},
        {.dx = 2, .dy = 9, .seed = 4, .planes = planes, .sky = 300, .change = blank}};
    std::vector<StackInput> inputs;
    std::vector<std::shared_ptr<Image>> images;
    for (const Field& field : fields) {
      const LiveFrame frame = live.Add(Make(fmt::format("field{}.fits", field.seed), field));
      ASSERT_TRUE(frame.isAdded) << frame.status;
      EXPECT_NEAR(frame.dx, -field.dx, 0.1);
      EXPECT_NEAR(frame.dy, -field.dy, 0.1);
      ASSERT_TRUE(frame.fluxRatio);
      EXPECT_NEAR(*frame.fluxRatio, field.light, 0.02);
      auto image = std::make_shared<Image>(Image::Open(job_, frame.file));
      StackInput input{frame.file.string(), {240, 180, planes}, frame.dx, frame.dy, frame.degrees};
      input.levels = MeasureLevels(image->Pixels());
      std::fill_n(input.levels.spread, 3, *frame.fluxRatio);
      input.read = [image](const Band<float>& to) { image->ReadRows(to); };
      inputs.push_back(input);
      images.push_back(image);
    }
    const auto weights = NoiseWeights(inputs, 0, Normalisation::LevelAndScale);
    for (size_t i = 0; i < inputs.size(); ++i) {
      inputs[i].weights = weights[i];
      double mean = 0;
      for (int p = 0; p < planes; ++p) {
        mean += weights[i][p] / weights[0][p] / planes;
      }
      EXPECT_NEAR(live.Frames()[i].weight, mean, 1e-9);
      EXPECT_EQ(live.Frames()[i].rejected, 0.0);
    }
    const auto store = job_.MakeStore();
    const auto whole = NewImage(store, 240, 180, planes);
    Stack(
        job_, inputs, 0,
        {.rejection = {.test = Rejection::None},
         .normalisation = Normalisation::LevelAndScale,
         .memory = DefaultStackMemory(job_)},
        {}, [](const StackBand&) {}, whole.get());
    const auto shown = live.Snapshot();
    ASSERT_TRUE(shown);
    EXPECT_EQ(Differing(shown->Pixels(), *whole, 2e-2), 0);
    EXPECT_EQ(shown->Header().GetDouble("NCOMBINE"), 4);
    EXPECT_LT(shown->Pixels().GetLevelMin(0), shown->Pixels().GetLevelMax(0));
    // It can be saved as any image.
    SaveImage(job_, shown->Pixels(), shown->Header(), In(fmt::format("live{}.fits", planes)));
    EXPECT_EQ(
        Differing(Image::Open(job_, In(fmt::format("live{}.fits", planes))).Pixels(), shown->Pixels(), 0), 0);
  }
}

TEST_F(LiveStackTest, LiesWhereTheTruthDoesAndRejectsWhatMoves) {
  for (const char* bayer : {"", "GRBG"}) {
    SCOPED_TRACE(bayer);
    const std::string name = fmt::format("night{}", bayer);
    Simulated({.frames = 6, .width = 420, .height = 300, .bayer = bayer}, name.c_str());
    std::ifstream file(In(name) / "truth.json");
    const auto truth = nlohmann::json::parse(file);
    LiveOptions options = Calibrated(name.c_str());
    options.calibrate.cosmetic = Cosmetic::None;
    std::unique_ptr<Image> shown[2];
    for (const bool backwards : {false, true}) {
      LiveStack live(job_, options);
      const auto numberOf = [&](int i) { return backwards && i > 0 ? 7 - i : i + 1; };
      for (int i = 0; i < 6; ++i) {
        const LiveFrame frame = live.Add(LightOf(numberOf(i), name.c_str()));
        ASSERT_TRUE(frame.isAdded) << frame.status;
      }
      const auto frames = live.Frames();
      const auto& first = truth["lights"][0];
      for (int i = 0; i < 6; ++i) {
        const auto& light = truth["lights"][numberOf(i) - 1];
        // Turns are of some hundredths of a degree about the middle.
        EXPECT_NEAR(frames[i].dx, first["dx"].get<double>() - light["dx"].get<double>(), 0.3) << i;
        EXPECT_NEAR(frames[i].dy, first["dy"].get<double>() - light["dy"].get<double>(), 0.3) << i;
        ASSERT_TRUE(frames[i].rejected);
        const bool hasTrail = light["file"] == truth["trail"]["file"];
        EXPECT_EQ(*frames[i].rejected > 0.003, hasTrail) << i << ": " << *frames[i].rejected;
      }
      shown[backwards] = std::make_unique<Image>(std::move(*live.Snapshot()));
      EXPECT_EQ(shown[backwards]->Planes(), *bayer ? 3 : 1);
    }
    // What order they come in matters little.
    const double noise = MeasureLevels(shown[0]->Pixels()).noise[0];
    EXPECT_LT(Differing(shown[0]->Pixels(), shown[1]->Pixels(), 3 * noise),
              0.01 * 420 * 300 * shown[0]->Planes());
  }
}

TEST_F(LiveStackTest, ATrailInTheFirstFrameIsNotSeen) {
  LiveStack live(job_, {});
  const auto trail = [](files::Planes& pixels) {
    for (int x = 20; x < 220; ++x) {
      for (int y = 60; y < 64; ++y)
        pixels[0][240 * y + x] += 800;
    }
  };
  Make("a.fits", {.change = trail});
  for (int i = 2; i <= 6; ++i) {
    Make(fmt::format("a{}.fits", i), {.dx = i, .dy = 2 - i, .seed = i});
  }
  ASSERT_TRUE(live.Add(In("a.fits")).isAdded);
  EXPECT_FALSE(live.Frames()[0].rejected);
  for (int i = 2; i <= 6; ++i) {
    ASSERT_TRUE(live.Add(In(fmt::format("a{}.fits", i))).isAdded);
  }
  EXPECT_NEAR(live.Frames()[0].rejected.value_or(0), 200 * 4 / (240.0 * 180), 0.002);
  const auto shown = live.Snapshot();
  std::vector<double> left;
  for (int x = 20; x < 220; ++x) {
    left.push_back(shown->Pixels().GetLine(0, 61, 0)[x] - 500);
  }
  EXPECT_LT(std::abs(UpperMedian(left)), 2);
}

TEST_F(LiveStackTest, SaysWhyAFrameIsLeftOut) {
  const fs::path first = Make("night/f1.fits", {.header = {{"FILTER", "Ha"}, {"INSTRUME", "Cam 1"}}});
  const auto likewise = [](int seed) {
    return Field{.dx = seed, .seed = seed, .header = {{"FILTER", "Ha"}, {"INSTRUME", "Cam 1"}}};
  };
  const auto with = [&](auto&& change) {
    Field field = likewise(9);
    change(field);
    return field;
  };
  files::WriteBytes(In("night/junk.fits"), "no image");
  Make("night/whole.fits", likewise(3));
  files::WriteBytes(In("night/cut.fits"), files::ReadBytes(In("night/whole.fits")).substr(0, 9000));
  fs::last_write_time(In("night/cut.fits"), fs::file_time_type::clock::now() - std::chrono::minutes(2));
  fs::copy(first, In("night/again.fits"));
  const std::pair<fs::path, const char*> others[] = {
      {Make("night/d.fits", with([](Field& f) {
              f.header.push_back({"IMAGETYP", "Dark Frame"});
            })),
       "is a dark"},
      {Make("night/flat_2.fits", {.seed = 5}), "is a flat"},
      {Make("night/size.fits", with([](Field& f) { f.width = 260; })),
       "is 260 x 180 x 1, the reference 240 x 180 x 1"},
      {Make("night/rgb.fits", with([](Field& f) { f.planes = 3; })), "is 240 x 180 x 3"},
      {Make("night/oiii.fits", with([](Field& f) { f.header[0].second = "OIII"; })), "filter 'OIII'"},
      {Make("night/cam.fits", with([](Field& f) { f.header[1].second = "Cam 2"; })), "camera 'Cam 2'"},
      {Make("night/cloud.fits", with([](Field& f) { f.stars = 0; })), "no stars"},
      {Make("night/haze.fits", with([](Field& f) { f.stars = 8; })), "stars, fewer than"},
      {Make("night/blur.fits", with([](Field& f) {
              f.blur = 3;
              f.light = 4;
            })),
       "FWHM"},
      {Make("night/scale.fits", with([](Field& f) {
              f.change = [](files::Planes& p) {
                for (float& v : p[0])
                  v /= 65535;
              };
            })),
       "their scales differ"},
      {In("night/again.fits"), "is a copy"},
      {In("night/junk.fits"), "neither FITS"},
      {In("night/cut.fits"), "the file holds"},
      {In("night/none.fits"), "No such file"},
  };
  LiveStack live(job_, {});
  EXPECT_EQ(live.Add(In("night/cloud.fits")).status, "no stars");
  ASSERT_TRUE(live.Add(first).isAdded);
  for (int seed = 2; seed <= 4; ++seed) {
    ASSERT_TRUE(live.Add(Make("night/more.fits", likewise(seed))).isAdded);
  }
  for (const auto& [path, reason] : others) {
    const LiveFrame frame = live.Add(path);
    EXPECT_FALSE(frame.isAdded) << path;
    EXPECT_NE(frame.status.find(reason), std::string::npos) << path << ": " << frame.status;
  }
  EXPECT_TRUE(live.Add(Make("night/more.fits", likewise(8))).isAdded);
  EXPECT_EQ(live.Add(In("night/more.fits")).status, "was written anew with the pixels that it had");
  EXPECT_EQ(live.Frames().size(), 7 + std::size(others));
  EXPECT_EQ(live.Snapshot()->Header().GetDouble("NCOMBINE"), 5);
  EXPECT_FALSE(job_.HasFailed());
}

TEST_F(LiveStackTest, IsCalibratedAsASessionIs) {
  Simulated({.frames = 4, .width = 300, .height = 200, .bayer = "RGGB"});
  const auto stack = [&](const LiveOptions& options) {
    auto live = std::make_unique<LiveStack>(job_, options);
    for (int i = 1; i <= 4; ++i) {
      const LiveFrame frame = live->Add(LightOf(i));
      EXPECT_TRUE(frame.isAdded) << frame.status;
      EXPECT_NE(frame.masters.find("flat"), std::string::npos) << frame.masters;
      EXPECT_NE(frame.masters.find("dark"), std::string::npos) << frame.masters;
    }
    return live;
  };
  LiveOptions options = Calibrated();
  options.calibrate.masters = In("masters");
  const auto live = stack(options);
  // Masters that are kept serve without the frames that they are made of.
  LiveOptions ready;
  ready.calibrate.masters = In("masters");
  const auto again = stack(ready);
  const auto shown = live->Snapshot(), shownAgain = again->Snapshot();
  EXPECT_EQ(shown->Planes(), 3);
  EXPECT_EQ(Differing(shown->Pixels(), shownAgain->Pixels(), 0.02), 0);
  const auto& cards = shownAgain->Header().cards;
  for (const char* text : {"dark: ", "flat: ", "live stack"}) {
    EXPECT_TRUE(std::ranges::any_of(cards, [&](const auto& card) { return card.find(text) != card.npos; }))
        << text;
  }

  // One light has an exposure of its own, for which the darks are scaled; the next one is redder. The colours
  // stay those of the first.
  const auto change = [&](int number, const char* exposure, float red) {
    auto reader = files::ImageReader::Open(LightOf(number));
    files::Planes pixels = files::ReadAll(*reader, 50);
    for (int k = 0; k < 300 * 200; ++k) {
      if (k % 2 == 0 && k / 300 % 2 == 0) pixels[0][k] *= red;
    }
    files::Header header = reader->Info().header;
    header.Set("EXPTIME", std::stod(exposure));
    const auto writer = files::ImageWriter::Create(
        LightOf(number),
        {.width = 300, .height = 200, .type = "uint16", .header = header, .overwrite = true});
    files::WriteAll(*writer, pixels, 300, 200, 50);
  };
  change(2, "60", 1);
  change(3, "120", 1.3F);
  const auto frames = live->Frames(), others = stack(Calibrated())->Frames();
  EXPECT_EQ(others[0].sky, frames[0].sky);
  EXPECT_GT(others[1].sky, frames[1].sky + 0.5);
  EXPECT_GT(others[2].sky, 1.04 * frames[2].sky);
  EXPECT_NEAR(others[3].sky, frames[3].sky, 0.1);
}

TEST_F(LiveStackTest, AThousandFramesTakeTheMemoryOfTen) {
  constexpr int kDifferent = 20, kFrames = 1000;
  for (int i = 0; i < kDifferent; ++i) {
    Make(fmt::format("f{}.fits", i),
         {.dx = i % 5, .dy = i / 5, .seed = i + 1, .width = 160, .height = 80, .stars = 80});
  }
  LiveOptions options;
  options.countCopies = true;
  const int threads = CParallel::GetMaxThreads();
  CParallel::SetMaxThreads(1);  // small frames wait for each other else
  LiveStack live(job_, options);
  long long before = 0;
  for (int i = 0; i < kFrames; ++i) {
    const fs::path link = In(fmt::format("link{}.fits", i));
    fs::create_hard_link(In(fmt::format("f{}.fits", i % kDifferent)), link);
    const LiveFrame frame = live.Add(link);
    ASSERT_TRUE(frame.isAdded) << frame.status;
    if (i == 100) before = PeakMemory();
  }
  CParallel::SetMaxThreads(threads);
  EXPECT_EQ(live.Snapshot()->Header().GetDouble("NCOMBINE"), kFrames);
  // A frame's pixels take 77 kB, all of them 70 MB.
  EXPECT_LT(PeakMemory() - before, 8 << 20);
}

TEST_F(LiveStackTest, AnyThreadMayLookWhileFramesAreAdded) {
  constexpr int kFrames = 12;
  for (int i = 0; i < kFrames; ++i) {
    Make(fmt::format("f{}.fits", i), {.dx = i % 5, .dy = i / 5, .seed = i + 1});
  }
  LiveStack live(job_, {});
  std::atomic<bool> isDone = false;
  std::thread host([&] {
    size_t last = 0;
    double count = 0;
    while (!isDone) {
      const size_t frames = live.Frames().size();
      EXPECT_GE(frames, last);
      last = frames;
      const auto shown = live.Snapshot();
      if (!shown) continue;
      const double combined = shown->Header().GetDouble("NCOMBINE").value_or(0);
      EXPECT_GE(combined, count);
      EXPECT_NEAR(shown->Pixels().GetLine(0, 90, 0)[120], 500, 60);
      count = combined;
    }
  });
  for (int i = 0; i < kFrames; ++i) {
    EXPECT_TRUE(live.Add(In(fmt::format("f{}.fits", i))).isAdded);
  }
  isDone = true;
  host.join();
  EXPECT_EQ(live.Snapshot()->Header().GetDouble("NCOMBINE"), kFrames);
}

TEST_F(LiveStackTest, LiesOnAnotherImageWhereOneIsGiven) {
  LiveOptions options;
  options.reference = Make("other.fits", {.dx = 5, .dy = -3, .seed = 50, .noise = 1});
  LiveStack live(job_, options);
  EXPECT_FALSE(live.Snapshot());
  const LiveFrame frame = live.Add(Make("a.fits", {.dx = 2, .seed = 2}));
  ASSERT_TRUE(frame.isAdded) << frame.status;
  EXPECT_NEAR(frame.dx, 3, 0.1);
  EXPECT_NEAR(frame.dy, -3, 0.1);
  EXPECT_LT(frame.weight, 0.1);
  // What the frame does not reach: three columns on the left and three rows below.
  const auto shown = live.Snapshot();
  EXPECT_TRUE(std::isnan(shown->Pixels().GetLine(0, 50, 0)[1]));
  EXPECT_TRUE(std::isnan(shown->Pixels().GetLine(0, 179, 0)[100]));
  EXPECT_FALSE(std::isnan(shown->Pixels().GetLine(0, 50, 0)[100]));

  options.reference = In("none.fits");
  EXPECT_THROW(LiveStack(job_, options), files::FileError);
  options.reference = Make("empty.fits", {.stars = 0});
  EXPECT_THROW(LiveStack(job_, options), files::FileError);
  EXPECT_THROW(LiveStack(job_, {.kappa = 0}), UsageError);
  LiveOptions mosaics;
  mosaics.calibrate.keepMosaic = true;
  EXPECT_THROW(LiveStack(job_, mosaics), UsageError);
}

TEST_F(LiveStackTest, WhatIsWrongWithCalibrationFramesAndCancelEndTheCall) {
  Simulated({.frames = 1, .width = 120, .height = 80});
  LiveOptions options = Calibrated();
  options.calibrate.darks = {In("none")};
  LiveStack wrong(job_, options);
  EXPECT_THROW(wrong.Add(LightOf(1)), files::FileError);
  LiveStack live(job_, Calibrated());
  job_.options.cancel->Cancel();
  EXPECT_THROW(live.Add(LightOf(1)), Cancelled);
  EXPECT_TRUE(live.Frames().empty());
}

/// Ready masters of another place serve the run too, as `run --calibration` has them.
TEST_F(LiveStackTest, StacksProperlyWithReadyMasters) {
  Simulated({.frames = 4, .width = 300, .height = 200});
  fs::create_directory(In("library"));
  for (const char* kind : {"darks", "flats", "biases"}) {
    fs::rename(In("night") / kind, In("library") / kind);
  }
  LiveOptions live;
  live.calibrate.masters = In("library");
  RunOptions plain;
  plain.calibrate.out = In("run");
  TakeSession(job_, In("night"), plain.calibrate, In("library"));
  EXPECT_FALSE(plain.calibrate.darks.empty() || plain.calibrate.flats.empty());
  const RunResult proper = session::Run(job_, ProperRun(job_, In("night"), In("live"), live)),
                  run = session::Run(job_, plain);
  ASSERT_EQ(proper.stacks.size(), 1);
  EXPECT_EQ(files::ReadBytes(In("live/stack_float.tif")), files::ReadBytes(In("run/stack_float.tif")));
  EXPECT_FALSE(fs::exists(In("library/masters.json"))) << "nothing is written there";
  // Calibration takes the sky down.
  RunOptions bare;
  bare.calibrate.out = In("bare");
  TakeSession(job_, In("night"), bare.calibrate);
  const RunResult uncalibrated = session::Run(job_, bare);
  EXPECT_GT(uncalibrated.frames[0].measure.sky, proper.frames[0].measure.sky + 100);
  fs::create_directory(In("empty"));
  for (const char* folder : {"empty", "none"}) {
    live.calibrate.masters = In(folder);
    EXPECT_THROW(LiveStack(job_, live), files::FileError) << folder;
    EXPECT_THROW(FindSession(job_, In("night"), {}, In(folder)), files::FileError) << folder;
  }
}

TEST_F(LiveStackTest, StacksProperlyAsARunDoes) {
  setenv("SOURCE_DATE_EPOCH", "1700000000", 1);
  Simulated({.frames = 4, .width = 300, .height = 200});
  LiveOptions live;
  live.calibrate.darks = {LightOf(1)};  // the folder has its own
  Job job;
  session::Run(job, ProperRun(job, In("night"), In("live"), live));
  RunOptions options;
  options.calibrate.out = In("run");
  SessionFrames found = FindSession(job, In("night"), In("run"));
  options.calibrate.lights = found.lights;
  options.calibrate.darks = found.darks;
  options.calibrate.flats = found.flats;
  options.calibrate.biases = found.biases;
  session::Run(job, options);
  unsetenv("SOURCE_DATE_EPOCH");
  EXPECT_EQ(files::ReadBytes(In("live/stack.fits")).substr(5760),
            files::ReadBytes(In("run/stack.fits")).substr(5760));
  EXPECT_FALSE(files::ReadBytes(In("live/stack.fits")).empty());
}

}  // namespace
}  // namespace korimg::session
