// Masks and uncertainties of frames and stacks, from raw frames to what others read.
#include <cmath>
#include <fstream>
#include <numbers>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "session/calibrate/Calibrate.h"
#include "session/picture/Images.h"
#include "session/picture/Quality.h"
#include "session/stack/StackFiles.h"
#include "tests/app/Tool.h"
#include "tests/support/Simulated.h"

namespace korimg::session {
namespace {

namespace fs = std::filesystem;
using files::Planes;
using files::Result;
using nlohmann::json;
using test::Noise;

class Uncertainty : public files::ToolTest {
 protected:
  /// Pixels of a file, and what lies beside them.
  struct Known {
    Planes pixels, variance, mask;
  };

  Known ReadKnown(const std::string& name) const {
    const auto reader = files::ImageReader::Open(In(name));
    const files::ImageInfo& info = reader->Info();
    QualityReader quality(*reader);
    BandBuffer pixels, variances, masks;
    const auto room = [&](BandBuffer& buffer) { return buffer.Get(info.planes, info.width, 0, info.height); };
    const Band<float> values = room(pixels), variance = room(variances), mask = room(masks);
    reader->ReadRows(values);
    quality.ReadRows({quality.HasUncertainty() ? variance : Band<float>(), mask});
    const auto planesOf = [&](const Band<float>& band) {
      Planes planes;
      for (int p = 0; p < info.planes; ++p) {
        planes.emplace_back(band.Data()[p], band.Data()[p] + static_cast<long>(info.width) * info.height);
      }
      return planes;
    };
    return {planesOf(values), planesOf(variance), planesOf(mask)};
  }

  /// Lights, darks, flats and biases with known noise; answers what `register` would say of the lights.
  void Session(const std::string& folder, int frames, int size, std::uint64_t noise = 0,
               const std::string& bayer = "") {
    test::Simulated(In(folder),
                    {.frames = frames, .width = size, .height = size, .bayer = bayer, .noiseSeed = noise});
    std::ifstream in(In(folder) / "truth.json");
    std::ofstream out(In(folder) / "transforms.jsonl");
    const json truth = json::parse(in);
    for (const json& light : truth["lights"]) {
      const double angle = -light["rotation_deg"].get<double>() * std::numbers::pi / 180, c = std::cos(angle),
                   s = std::sin(angle), dx = 0.5 - light["dx"].get<double>(),
                   dy = 0.5 - light["dy"].get<double>();
      const fs::path name = light["file"].get<std::string>();
      out << json{{"file", (In(folder) / "calibrated" / name.filename()).string()},
                  {"dx", c * dx - s * dy - 0.5},
                  {"dy", s * dx + c * dy - 0.5},
                  {"degrees", angle * 180 / std::numbers::pi},
                  {"status", "ok"}}
                 .dump()
          << '\n';
    }
  }

  Result Calibrate(const std::string& folder, const std::string& more = "") {
    return Shell(
        fmt::format("cd {} && korimg calibrate lights --dark darks --flat flats --bias biases --out "
                    "calibrated --overwrite --uncertainty --mask {}",
                    folder, more));
  }
};

/// Twenty-four stacks of one sky that differ in the noise of lights and calibration frames alone.
TEST_F(Uncertainty, IsTheScatterOfStacks) {
  constexpr int kStacks = 24, kSide = 72;
  std::vector<Known> stacks;
  Job job;
  job.options.overwrite = true;
  for (int i = 0; i < kStacks; ++i) {
    Session("s", 6, kSide, 500 + i);
    CalibrateOptions calibrate;
    calibrate.lights = {In("s/lights")}, calibrate.darks = {In("s/darks")};
    calibrate.flats = {In("s/flats")}, calibrate.biases = {In("s/biases")};
    calibrate.out = In("s/calibrated");
    calibrate.cosmetic = Cosmetic::Auto;
    calibrate.quality = {.uncertainty = true, .mask = true};
    session::Calibrate(job, calibrate);
    StackFilesOptions stack;
    stack.frames = {In("s/calibrated")};
    stack.output = In("stack.fits");
    stack.transforms = In("s/transforms.jsonl");
    stack.reject = Rejection::None;
    stack.uncertainty = stack.mask = true;
    StackFiles(job, stack);
    stacks.push_back(ReadKnown("stack.fits"));
  }
  double predicted[2] = {}, scatter[2] = {};
  int counts[2] = {};
  std::vector<float> levels;
  for (int i = 0; i < kSide * kSide; ++i) {
    if (std::isfinite(stacks[0].pixels[0][i])) levels.push_back(stacks[0].pixels[0][i]);
  }
  std::nth_element(levels.begin(), levels.begin() + levels.size() / 2, levels.end());
  const float sky = levels[levels.size() / 2];
  for (int i = 0; i < kSide * kSide; ++i) {
    double sum = 0, squares = 0, variance = 0;
    bool isGood = true;
    for (const Known& stack : stacks) {
      const double v = stack.pixels[0][i];
      isGood &= stack.mask[0][i] == 0;
      sum += v, squares += v * v, variance += stack.variance[0][i] / kStacks;
    }
    if (!isGood) continue;
    // Whether it shows light of a star or of the nebula.
    const int isBright = sum / kStacks > sky + 5 * std::sqrt(variance);
    predicted[isBright] += variance;
    scatter[isBright] += (squares - sum * sum / kStacks) / (kStacks - 1);
    ++counts[isBright];
  }
  EXPECT_GT(counts[0], 2000);
  EXPECT_GT(counts[1], 300);
  // Four deviations of what so few stacks tell; neighbours know of each other.
  EXPECT_NEAR(std::sqrt(predicted[0] / scatter[0]), 1, 0.02);
  EXPECT_NEAR(std::sqrt(predicted[1] / scatter[1]), 1, 0.05);
}

/// Five frames by hand: a saturated star, a hot pixel, a pixel that is no number, an edge without data.
TEST_F(Uncertainty, MasksTellWhatIsWrongWithEachPixelFromFrameToStack) {
  constexpr int kWidth = 90, kHeight = 70, kFrames = 5;
  const auto isHot = [](int x, int y) { return x == 60 && y == 20; };
  fs::create_directories(In("darks"));
  fs::create_directories(In("lights"));
  for (int i = 0; i < 6; ++i) {
    Frame(fmt::format("darks/d{}.fits", i), kWidth, kHeight, [&, i](int, int x, int y) {
      return std::round(100 + 4 * Noise(i * 900001LL + y * 1000 + x) + (isHot(x, y) ? 3000 : 0));
    });
  }
  for (int i = 0; i < kFrames; ++i) {
    Frame(fmt::format("lights/l{}.fits", i), kWidth, kHeight, [&, i](int, int x, int y) -> double {
      if (x >= 80) return 0;                                     // an edge
      if (x == 10 && y == 40) return NAN;                        // in all of them
      if (x == 12 && y == 40 && i == 1) return NAN;              // in one
      if (x >= 30 && x < 33 && y >= 30 && y < 32) return 65535;  // a star
      if (x == 50 && y == 50 && i < 2) return 9000;              // two of five are hit
      return std::round(600 + 40 * Noise(i * 800011LL + y * 1003 + x) + (isHot(x, y) ? 3000 : 0));
    });
  }
  const Result calibrated =
      Shell("korimg calibrate lights --dark darks --out cal --cosmetic auto --mask --uncertainty --gain 0.5");
  ASSERT_EQ(calibrated.code, 0) << calibrated.err;
  const auto at = [&](const Planes& planes, int x, int y) { return planes[0][y * kWidth + x]; };
  const Known light = ReadKnown("cal/l1.fits");
  const std::vector<std::tuple<int, int, int>> kLight = {{5, 5, 0},
                                                         {60, 20, MaskBit::Hot},
                                                         {61, 20, 0},
                                                         {10, 40, MaskBit::NoData},
                                                         {12, 40, MaskBit::NoData},
                                                         {85, 3, MaskBit::NoData},
                                                         {31, 31, MaskBit::Saturated},
                                                         {33, 31, 0},
                                                         {50, 50, 0}};
  for (const auto& [x, y, bits] : kLight) {
    EXPECT_EQ(at(light.mask, x, y), bits) << x << ", " << y;
    EXPECT_EQ(std::isnan(at(light.variance, x, y)), (bits & MaskBit::NoData) != 0) << x << ", " << y;
  }
  // The mean of about four: a quarter of what one has, and of a median more.
  const double one = at(light.variance, 62, 22);
  EXPECT_NEAR(one, 500 / 0.5, 0.2 * one);
  EXPECT_LT(at(light.variance, 60, 20), 0.4 * one);
  EXPECT_GT(at(light.variance, 60, 20), 0.2 * one);

  const Result stacked =
      Shell("korimg stack cal -o stack.fits --mask --uncertainty --reject sigma --kappa 1.1");
  ASSERT_EQ(stacked.code, 0) << stacked.err;
  const Known stack = ReadKnown("stack.fits");
  const std::vector<std::tuple<int, int, int>> kStack = {{10, 40, MaskBit::NoData},
                                                         {12, 40, 0},
                                                         {85, 3, MaskBit::NoData},
                                                         {31, 31, MaskBit::Saturated},
                                                         {50, 50, MaskBit::RejectedHigh}};
  for (const auto& [x, y, bits] : kStack) {
    // So few equal values lose some by chance.
    const int chance = bits == MaskBit::RejectedHigh ? 0 : MaskBit::RejectedLow | MaskBit::RejectedHigh;
    EXPECT_EQ(static_cast<int>(at(stack.mask, x, y)) & ~chance, bits) << x << ", " << y;
    EXPECT_EQ(std::isnan(at(stack.variance, x, y)), (bits & MaskBit::NoData) != 0) << x << ", " << y;
  }

  // Without rejection a pixel that one frame lacks has the variance of four.
  ASSERT_EQ(Shell("korimg stack cal -o plain.fits --mask --uncertainty --reject none --weight none").code, 0);
  const Known plain = ReadKnown("plain.fits");
  double of[kFrames], all = 0, four = 0;
  for (int i = 0; i < kFrames; ++i) {
    const Known frame = ReadKnown(fmt::format("cal/l{}.fits", i));
    of[i] = at(frame.variance, 5, 5);
    all += of[i] / 25;
    if (i != 1) four += at(frame.variance, 12, 40) / 16;
  }
  EXPECT_NEAR(at(plain.variance, 5, 5), all, 1e-4 * all);
  EXPECT_NEAR(at(plain.variance, 12, 40), four, 1e-4 * four);
}

/// With a gain so high that light has no noise, what is left is the readout, as the darks show it.
TEST_F(Uncertainty, TheReadoutIsMeasuredByTheDarks) {
  fs::create_directories(In("darks"));
  for (int i = 0; i < 5; ++i) {
    Frame(fmt::format("darks/d{}.fits", i), 128, 128, [i](int, int x, int y) {
      return 100 + 10 * std::sqrt(12.0) * (Noise(i * 900001LL + y * 1000 + x) - 0.5);
    });
  }
  Frame("light.fits", 128, 128, [](int, int x, int y) { return 150 + x + y; });
  const Result result = Shell("korimg calibrate light.fits --dark darks --out o --uncertainty --gain 1e6");
  ASSERT_EQ(result.code, 0) << result.err;
  // A frame's, and that of the median of five, which is 0.287 of it.
  const Known known = ReadKnown("o/light.fits");
  for (const float variance : known.variance[0]) {
    ASSERT_NEAR(variance, 100 * 1.287, 8);
  }
}

/// Neighbours that are made of the same photosites vary together.
TEST_F(Uncertainty, WhatIsReadBetweenDevelopedPixelsVariesMore) {
  constexpr int kSide = 40;
  Job job;
  for (const char* name : {"free", "bound"}) {
    const bool isBound = name == std::string("bound");
    fs::create_directories(In(name));
    std::ofstream transforms(In(name + std::string(".jsonl")));
    for (int i = 0; i < 2; ++i) {
      const fs::path file = In(name) / fmt::format("{}.fits", i);
      ImageSaver saver(job, file, {kSide, kSide, 1}, {}, {},
                       {.uncertainty = true, .correlation = {isBound ? 1.5 : 1, 1, 1}});
      BandBuffer pixels;
      const Band<float> band = pixels.Get(1, kSide, 0, kSide);
      for (int y = 0; y < kSide; ++y) {
        for (int x = 0; x < kSide; ++x) {
          band.Row(0, y)[x] = static_cast<float>(100 + Noise(i * 90000LL + y * 100 + x));
        }
      }
      saver.Write(band);
      saver.WriteQuality(band, {});
      saver.Commit();
      // The first lies still, the second between its pixels.
      transforms
          << json{{"file", file.string()}, {"dx", 3.5 * i}, {"dy", 0}, {"degrees", 0}, {"status", "ok"}}
                 .dump()
          << '\n';
    }
    transforms.close();
    const Result result =
        Shell(fmt::format("korimg stack {0} -o {0}.fits --transforms {0}.jsonl --uncertainty "
                          "--reject none --normalize none --weight none",
                          name));
    ASSERT_EQ(result.code, 0) << result.err;
  }
  const Known independent = ReadKnown("free.fits"), bound = ReadKnown("bound.fits");
  for (int y = 2; y < kSide - 2; ++y) {
    for (int x = 8; x < kSide - 4; ++x) {
      // Half of the one's, and what the kernel leaves of the other's: 0.641 of it.
      ASSERT_NEAR(independent.variance[0][y * kSide + x], (100.5 + 0.6406 * 100.5) / 4, 0.4);
      ASSERT_NEAR(bound.variance[0][y * kSide + x], (100.5 + 1.5 * 0.6406 * 100.5) / 4, 0.5);
    }
  }
}

TEST_F(Uncertainty, IsReadByOthers) {
  if (std::system("/usr/bin/python3 -c 'import astropy' 2> /dev/null") != 0) {
    GTEST_SKIP() << "astropy is not installed";
  }
  Session("mono", 3, 64);
  Session("colour", 2, 64, 0, "RGGB");
  for (const char* folder : {"mono", "colour"}) {
    const Result calibrated = Calibrate(folder);
    ASSERT_EQ(calibrated.code, 0) << calibrated.err;
    ASSERT_EQ(Shell(fmt::format("cd {} && korimg stack calibrated -o stack.fits --transforms "
                                "transforms.jsonl --uncertainty --mask",
                                folder))
                  .code,
              0);
  }
  std::ofstream(In("read.py")) << R"(
import sys, warnings
import numpy as np
from astropy.io import fits
from astropy.nddata import CCDData, StdDevUncertainty
warnings.simplefilter("error")
for name, planes in (("mono", 0), ("colour", 3)):
    for file in (name + "/calibrated/light_0001.fits", name + "/stack.fits"):
        with fits.open(file) as units:
            units.verify("exception")
            blank = np.isnan(units[0].data)
        ccd = CCDData.read(file)
        assert isinstance(ccd.uncertainty, StdDevUncertainty), file
        assert ccd.data.ndim == (3 if planes else 2), file
        assert ccd.data.shape == ccd.uncertainty.array.shape == ccd.mask.shape, file
        assert ccd.mask.dtype == bool and ccd.mask[blank].all() and not ccd.mask.all(), file
        assert (ccd.uncertainty.array[~blank] > 0).all(), file
        assert str(ccd.unit) == "adu", file
)";
  const Result read = Shell("/usr/bin/python3 read.py");
  EXPECT_EQ(read.code, 0) << read.err;
}

TEST_F(Uncertainty, AStackThatGoesOnKeepsIt) {
  Session("s", 4, 300);
  ASSERT_EQ(Calibrate("s").code, 0);
  std::vector<std::string> call = {"korimg",
                                   "stack",
                                   "s/calibrated",
                                   "--transforms",
                                   "s/transforms.jsonl",
                                   "--uncertainty",
                                   "--mask",
                                   "--threads",
                                   "1",
                                   "--memory",
                                   "1M",
                                   "-o"};
  std::string line;
  for (const std::string& word : call) {
    line += word + " ";
  }
  const Result first = Shell(line + "whole.fits");
  ASSERT_EQ(first.code, 0) << first.err;
  call.insert(call.end(), {"part.fits", "--resume"});
  const bool isKilled = files::RunAndKill(In(""), call, SIGKILL, [&] {
    std::error_code error;
    return fs::file_size(In("part.fits.resume"), error) > 300'000 && !error;
  });
  ASSERT_TRUE(isKilled);
  const Result again = Shell(line + "part.fits --resume");
  ASSERT_EQ(again.code, 0) << again.err;
  EXPECT_NE(again.out.find("going on at row"), std::string::npos) << again.out;
  const Known whole = ReadKnown("whole.fits"), part = ReadKnown("part.fits");
  for (const auto planes : {&Known::pixels, &Known::variance, &Known::mask}) {
    for (size_t i = 0; i < (whole.*planes)[0].size(); ++i) {
      const float a = (whole.*planes)[0][i], b = (part.*planes)[0][i];
      ASSERT_TRUE(a == b || (std::isnan(a) && std::isnan(b))) << i;
    }
  }
}

TEST_F(Uncertainty, RunsWriteItWithTheirStacksAndLeaveThePixelsAlone) {
  test::Simulated(In("s"), {.frames = 4, .width = 200, .height = 150});
  ASSERT_EQ(Shell("korimg run s --out plain").code, 0);
  const Result result = Shell("korimg run s --out known --uncertainty --mask");
  ASSERT_EQ(result.code, 0) << result.err;
  const Known plain = ReadKnown("plain/stack.fits"), known = ReadKnown("known/stack.fits");
  int good = 0;
  for (size_t i = 0; i < plain.pixels[0].size(); ++i) {
    const float a = plain.pixels[0][i], b = known.pixels[0][i];
    ASSERT_TRUE(a == b || (std::isnan(a) && std::isnan(b))) << i;
    ASSERT_EQ(std::isnan(b), (static_cast<int>(known.mask[0][i]) & MaskBit::NoData) != 0) << i;
    good += known.variance[0][i] > 0;
  }
  EXPECT_GT(good, 200 * 150 * 3 / 4);
  // Asked for later, the stack is made again.
  ASSERT_EQ(Shell("korimg run s --out plain --mask").code, 0);
  EXPECT_EQ(ReadKnown("plain/stack.fits").mask, known.mask);
}

TEST_F(Uncertainty, WhatCannotBeKnownOrWrittenIsRefused) {
  Session("s", 3, 64);
  const auto expectRefused = [&](const std::string& command, const std::string& text) {
    const Result result = Shell(command);
    EXPECT_NE(result.code, 0) << command;
    EXPECT_NE(result.err.find(text), std::string::npos) << command << "\n" << result.err;
  };
  expectRefused("korimg stack s/lights -o a.fits --uncertainty", "calibrate the frames with --uncertainty");
  ASSERT_EQ(Calibrate("s").code, 0);
  expectRefused("korimg stack s/calibrated -o a.tif --mask", "name a FITS file");
  expectRefused("korimg stack s/calibrated -o a.png --uncertainty", "name a FITS file");
  expectRefused("korimg stack s/calibrated -o a.fits --uncertainty --method max", "--method mean or median");
  // Frames that say nothing, and no frames to measure by.
  Frame("l.fits", 64, 64, test::Random(100, 200));
  expectRefused("korimg calibrate l.fits --out o --uncertainty --read-noise 3", "give --gain");
  expectRefused("korimg calibrate l.fits --out o --uncertainty --gain 2", "give --read-noise");
  const Result told = Shell("korimg calibrate l.fits --out o --uncertainty --gain 2 --read-noise 3");
  ASSERT_EQ(told.code, 0) << told.err;
  const Known known = ReadKnown("o/l.fits");
  for (int i = 0; i < 64 * 64; ++i) {
    const double expected = 9.0 / 4 + known.pixels[0][i] / 2;
    ASSERT_NEAR(known.variance[0][i], expected, 1e-5 * expected);
  }
  // Operations know nothing of it, and say so.
  const Result applied = Shell("korimg apply invert o/l.fits -o inverted.fits");
  ASSERT_EQ(applied.code, 0) << applied.err;
  EXPECT_NE(applied.err.find("do not carry uncertainties and masks"), std::string::npos) << applied.err;
  EXPECT_FALSE(QualityReader(*files::ImageReader::Open(In("inverted.fits"))).Any());
}

}  // namespace
}  // namespace korimg::session
