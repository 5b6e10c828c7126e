#include <cmath>
#include <functional>
#include <numbers>
#include <numeric>
#include <sstream>

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <sys/resource.h>
#include <sys/wait.h>

#include "korimg/platform/CParallel.h"

#include "app/verbs/Verbs.h"
#include "tests/support/Folder.h"
#include "tests/support/Images.h"
#include "tests/support/Process.h"
#include "tests/support/Simulated.h"

namespace korimg::tool {
namespace {

namespace fs = std::filesystem;
using files::Header;
using files::ImageReader;
using files::ImageWriter;
using nlohmann::json;

/// What a call of the tool gave.
struct Outcome {
  int code;
  std::string out, errors;
};

/// The value of a pixel.
using Rule = std::function<double(int x, int y)>;

class CalibrateTest : public files::FolderTest {
 protected:
  static constexpr int kWidth = 20, kHeight = 12;

  /// Calls a verb as main does.
  static Outcome Call(std::vector<std::string> words) {
    const test::WithThreads restored(CParallel::GetMaxThreads());
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    Outcome outcome;
    {
      Tool tool;
      CLI::App app;
      AddCalibrate(app, tool);
      AddRun(app, tool);
      try {
        app.parse(std::vector<std::string>(words.rbegin(), words.rend()));
        outcome.code = tool.ExitCode();
      } catch (const UsageError& error) {
        tool.console.Error(error.what());
        outcome.code = kBadUsage;
      } catch (const files::FileError& error) {
        tool.console.Error(error.what());
        outcome.code = kFailed;
      }
    }
    outcome.out = testing::internal::GetCapturedStdout();
    outcome.errors = testing::internal::GetCapturedStderr();
    return outcome;
  }

  /// The same with files in the folder, written as "@name".
  Outcome Calibrate(const std::string& line) const {
    std::vector<std::string> words = {"calibrate"};
    std::istringstream in(line);
    for (std::string word; in >> word;) {
      words.push_back(word.starts_with("@") ? In(word.substr(1)).string() : word);
    }
    return Call(words);
  }

  void Write(const std::string& name, const Rule& rule, const Header& header = {}, int width = kWidth,
             const std::string& type = "float32", int height = kHeight) const {
    fs::create_directories(In(name).parent_path());
    std::vector<float> pixels;
    for (int i = 0; i < width * height; ++i) {
      pixels.push_back(static_cast<float>(rule(i % width, i / width)));
    }
    files::WriteAll(
        *ImageWriter::Create(
            In(name), {.width = width, .height = height, .type = type, .header = header, .overwrite = true}),
        {pixels}, width, height, height);
  }

  static std::vector<float> Pixels(const fs::path& path) {
    const auto reader = ImageReader::Open(path);
    return files::ReadAll(*reader, reader->Info().height)[0];
  }

  /// Where a result is not what it should be; empty when it is.
  std::string Difference(const std::string& name, const Rule& expected) const {
    const std::vector<float> pixels = Pixels(In(name));
    for (int i = 0; i < kWidth * kHeight; ++i) {
      const double want = expected(i % kWidth, i / kWidth);
      if (std::isnan(want) ? !std::isnan(pixels[i])
                           : !(std::abs(pixels[i] - want) < 1e-4 * (1 + std::abs(want)))) {
        return fmt::format("({}, {}): {} for {}", i % kWidth, i / kWidth, pixels[i], want);
      }
    }
    return "";
  }

  static Header Cards(const std::vector<std::pair<std::string, std::string>>& cards) {
    Header header;
    for (const auto& [key, value] : cards) {
      header.Set(key, value);
    }
    return header;
  }
};

double Flat(int x, int y) {
  return 0.5 + 0.04 * x + 0.01 * y;
}
double FlatMean() {
  return 0.5 + 0.04 * 9.5 + 0.01 * 5.5;
}
double Signal(int x, int y) {
  return 300 + 7 * x + 3 * y;
}
double Bias(int x, int) {
  return 90 + x % 3;
}
double Dark(int x, int y) {
  return Bias(x, y) + 25;
}

TEST_F(CalibrateTest, TakesOffsetsOffAndDividesByTheFlat) {
  // A light with a blank pixel, one that is darker than its dark, and frames that a median must see through.
  const auto light = [](int x, int y) -> double {
    if (x == 3 && y == 4) return NAN;
    if (x == 5 && y == 5) return Dark(x, y) - 15;
    return Signal(x, y) * Flat(x, y) / FlatMean() + Dark(x, y);
  };
  Write("light.fits", light, Cards({{"OBJECT", "M 1"}, {"PEDESTAL", "7"}}));
  for (int i = 0; i < 5; ++i) {
    const double stray = i == 1 ? 5000 : 0;
    const double lamp = 1000 + 400 * i;   // flats of a twilight
    const double trace = 2e-5 * (i - 2);  // frames are no copies of one another
    Write(fmt::format("dark/{}.fits", i),
          [&](int x, int y) { return Dark(x, y) + trace + (x == 2) * stray; });
    Write(fmt::format("bias/{}.fits", i),
          [&](int x, int y) { return Bias(x, y) + trace + (x == 7) * stray; });
    Write(fmt::format("flat/{}.fits", i),
          [&](int x, int y) { return lamp * Flat(x, y) + Bias(x, y) + (x == 9 && y == 9) * stray; });
  }
  const auto flattened = [](double v, int x, int y) { return v * FlatMean() / Flat(x, y); };
  const struct {
    std::string options;
    Rule expected;
    std::string pedestal, warning;
  } cases[] = {
      {"--dark @dark", [&](int x, int y) { return light(x, y) < Dark(x, y) ? 0 : light(x, y) - Dark(x, y); },
       "", ""},
      {"--bias @bias", [&](int x, int y) { return light(x, y) - Bias(x, y); }, "", ""},
      {"--dark @dark --flat @flat --bias @bias",
       [&](int x, int y) { return x == 5 && y == 5   ? 0
                                  : x == 3 && y == 4 ? NAN
                                                     : Signal(x, y); }, "", ""},
      {"--dark @dark --flat @flat --bias @bias --pedestal 100",
       [&](int x, int y) { return 100 + flattened(light(x, y) - Dark(x, y), x, y); }, "-100", ""},
      {"--bias @bias --flat @flat", [&](int x, int y) { return flattened(light(x, y) - Bias(x, y), x, y); },
       "", ""},
      {"--flat @flat/0.fits",
       [&](int x, int y) {
         const double mean = 1000 * FlatMean() + 90.95;  // of Bias over 20 columns
         return light(x, y) * mean / (1000 * Flat(x, y) + Bias(x, y));
       },
       "7", "LIGHTS WITHOUT DARK OR BIAS"},
      {"--dark @dark --flat @flat",
       [&](int x, int y) {  // the bias that stays in the flats
         const double v = light(x, y) - Dark(x, y);
         return std::isnan(v) ? v : std::max(v, 0.0);
       },
       "", "FLATS WITHOUT BIAS OR DARK"},
  };
  for (const auto& [options, expected, pedestal, warning] : cases) {
    const std::string clip = pedestal.empty() ? " --pedestal 0" : "";
    const Outcome outcome = Calibrate(options + clip + " --overwrite --json --out @out @light.fits");
    ASSERT_EQ(outcome.code, 0) << options << outcome.errors;
    if (warning.empty()) {
      EXPECT_EQ(outcome.errors, "") << options;
    } else {
      EXPECT_NE(outcome.errors.find(warning), std::string::npos) << options << ": " << outcome.errors;
    }
    if (warning.find("FLATS") == std::string::npos) {
      EXPECT_EQ(Difference("out/light.fits", expected), "") << options;
    }
    const Header header = ImageReader::Open(In("out/light.fits"))->Info().header;
    EXPECT_EQ(header.GetString("OBJECT"), "M 1");
    EXPECT_EQ(header.GetString("PEDESTAL").value_or(""), pedestal) << options;
    const bool clips = options.starts_with("--dark") && pedestal.empty();
    EXPECT_NEAR(json::parse(outcome.out)["clipped"].get<double>(), clips ? 1.0 / kWidth / kHeight : 0, 1e-9)
        << options;
  }
}

TEST_F(CalibrateTest, FaintSkiesKeepTheirNoise) {
  // A sky of 1 in noise of 5: clipped at 0 it would be 3.
  const auto noise = [](int x, int y) { return (x * 7 + y * 3) % 2 ? 5.0 : -5.0; };
  for (const char* name : {"dark/1.fits", "dark/2.fits"}) {
    Write(name, [](int, int) { return 100; });
  }
  Write("light.fits", [&](int x, int y) { return x == 4 && y == 4 ? NAN : 101 + noise(x, y); });
  Write("flat.fits", Flat);
  const auto sky = [&](int x, int y) { return x == 4 && y == 4 ? NAN : 1 + noise(x, y); };
  ASSERT_EQ(Calibrate("--dark @dark --out @out @light.fits").code, 0);
  EXPECT_EQ(Difference("out/light.fits", sky), "");
  EXPECT_FALSE(ImageReader::Open(In("out/light.fits"))->Info().header.GetString("PEDESTAL"));
  ASSERT_EQ(Calibrate("--dark @dark --flat @flat.fits --out @out --overwrite @light.fits").code, 0);
  EXPECT_EQ(Difference("out/light.fits", [&](int x, int y) { return sky(x, y) * FlatMean() / Flat(x, y); }),
            "");
  ASSERT_EQ(Calibrate("--dark @dark --pedestal 0 --out @out --overwrite @light.fits").code, 0);
  EXPECT_EQ(Difference("out/light.fits",
                       [&](int x, int y) { return x == 4 && y == 4 ? NAN : std::max(sky(x, y), 0.0); }),
            "");
}

TEST_F(CalibrateTest, MastersLieAsTheirLightsDo) {
  // One sensor stores its rows in one order, whoever says so: WCS or ROWORDER of the lights, of all, of none.
  const auto light = [](int x, int y) { return Signal(x, y) * Flat(x, y) / FlatMean() + Dark(x, y); };
  Header sky = Cards({{"CTYPE1", "RA---TAN"}, {"CTYPE2", "DEC--TAN"}});
  sky.Set("CD1_1", -0.1), sky.Set("CD2_2", 0.1), sky.Set("CRPIX1", 5.0), sky.Set("CRPIX2", 5.0);
  const Header none, up = Cards({{"ROWORDER", "BOTTOM-UP"}}), down = Cards({{"ROWORDER", "TOP-DOWN"}});
  int number = 0;
  for (const auto& [of, other] :
       {std::pair(sky, none), {up, none}, {none, up}, {up, up}, {sky, down}, {down, none}}) {
    const std::string folder = fmt::format("o{}/", ++number);
    Write(folder + "light.fits", light, of);
    for (const char* n : {"1", "2"}) {
      Write(folder + "dark/" + n + ".fits", Dark, other);
      Write(folder + "bias/" + n + ".fits", Bias);
      Write(
          folder + "flat/" + n + ".fits", [](int x, int y) { return 1000 * Flat(x, y) + Bias(x, y); }, other);
    }
    const Outcome outcome = Calibrate(
        fmt::format("--dark @{0}dark --bias @{0}bias --flat @{0}flat --out @{0}out @{0}light.fits", folder));
    ASSERT_EQ(outcome.code, 0) << outcome.errors;
    const auto reader = ImageReader::Open(In(folder + "out/light.fits"));
    const bool turned = reader->Info().header.turned;
    EXPECT_EQ(turned, of.GetString("ROWORDER") == "BOTTOM-UP");
    EXPECT_EQ(Difference(folder + "out/light.fits",
                         [&](int x, int y) { return Signal(x, turned ? kHeight - 1 - y : y); }),
              "")
        << number;
  }
}

TEST_F(CalibrateTest, MastersOnAnotherScaleAreRefusedWithTheNumbers) {
  const auto write = [&](const std::string& name, double level) {
    Write(name, [level](int x, int y) { return level * (1 + 0.01 * ((x * 5 + y * 3) % 7)); });
  };
  write("light.fits", 770);
  write("unit.fits", 770 / 65535.0);
  for (const char* n : {"1", "2"}) {
    Write(fmt::format("below/{}.fits", n), [](int x, int y) { return (x * 5 + y * 3) % 7 - 1; });
    write(fmt::format("dark/{}.fits", n), 510);
    write(fmt::format("bias/{}.fits", n), 500);
    write(fmt::format("less/{}.fits", n), 10);  // the bias is off already
    write(fmt::format("small/{}.fits", n), 510 / 65535.0);
    write(fmt::format("flat/{}.fits", n), 30000);
  }
  const struct {
    const char *call, *said;
  } cases[] = {{"--dark @dark @light.fits", ""},
               {"--dark @dark --bias @bias --flat @flat @light.fits", ""},
               {"--dark @less @light.fits", ""},
               {"--dark @below @light.fits", "14.2 % of its pixels are negative"},
               {"--dark @small @light.fits", "median of 793.1, but master_dark no pixel above 0.00825"},
               {"--bias @small @light.fits", "but master_bias no pixel above"},
               {"--dark @dark @unit.fits", "less than 525.3 of master_dark"},
               {"--dark @less --bias @bias --flat @flat @light.fits", "master_dark has a median of 10.3"}};
  for (const auto& c : cases) {
    fs::remove_all(In("out"));
    const Outcome outcome = Calibrate(std::string("--out @out ") + c.call);
    EXPECT_EQ(outcome.code, *c.said ? 1 : 0) << c.call << outcome.errors;
    EXPECT_NE(outcome.errors.find(c.said), std::string::npos) << c.call << outcome.errors;
    EXPECT_EQ(fs::exists(In("out")), !*c.said) << c.call;
    EXPECT_EQ(Calibrate(std::string("--allow-mismatch --out @out2 --overwrite ") + c.call).code, 0) << c.call;
  }
}

/// The offset, with a noise of 12 values.
Rule Reading(int seed) {
  return [=](int x, int y) {
    const std::uint64_t n = 2000003ull * seed + 2ull * (4096 * y + x);
    return std::round(200 + 12 * std::sqrt(-2 * std::log(test::Noise(n) + 1e-12)) *
                                std::cos(2 * std::numbers::pi * test::Noise(n + 1)));
  };
}

/// Counts of photons with that mean, in whole numbers of values, read with such a noise.
Rule Photons(double mean, double gain, int seed) {
  return [=](int x, int y) {
    const std::uint64_t n = 1000003ull * seed + 2ull * (4096 * y + x);
    const double normal = std::sqrt(-2 * std::log(test::Noise(n) + 1e-12)) *
                          std::cos(2 * std::numbers::pi * test::Noise(n + 1));
    const double electrons = mean * gain * (1 + 0.2 * Flat(x % 13, y)) * (x % 2 ? 1 : 0.6);
    return std::round(Reading(seed + 100)(x, y) + (electrons + std::sqrt(electrons) * normal) / gain);
  };
}

// What nobody told of the gain is told by the noise of two flats, of unequal light.
TEST_F(CalibrateTest, FlatsTellTheGain) {
  constexpr int kSide = 400;
  for (const double gain : {0.4, 3.7}) {
    const auto write = [&](const std::string& name, const Rule& rule, const Header& header = {},
                           const char* type = "uint16") { Write(name, rule, header, kSide, type, kSide); };
    // At a gain of 3.7 reading makes a quarter of the noise.
    write("flat/1.fits", Photons(gain < 1 ? 9000 : 1500, gain, 1));
    write("flat/2.fits", Photons(gain < 1 ? 7000 : 1200, gain, 2));
    for (const int n : {1, 2}) {
      write(fmt::format("bias/{}.fits", n), Reading(n));
    }
    write("light.fits", Photons(300, gain, 3));
    write("known.fits", Photons(300, gain, 3), Cards({{"EGAIN", "1.25"}}));
    write("other.fits", Photons(300, gain, 3), Cards({{"GAIN", "120"}}));
    const Outcome made = Calibrate(
        "--flat @flat --bias @bias --overwrite --out @out @light.fits @known.fits @other.fits "
        "--allow-mismatch");
    ASSERT_EQ(made.code, 0) << made.errors;
    EXPECT_NEAR(ImageReader::Open(In("out/light.fits"))->Info().header.GetDouble("EGAIN").value_or(0) / gain,
                1, 0.02);
    EXPECT_EQ(ImageReader::Open(In("out/known.fits"))->Info().header.GetDouble("EGAIN"), 1.25);
    EXPECT_FALSE(ImageReader::Open(In("out/other.fits"))->Info().header.GetDouble("EGAIN"))
        << "another setting";
    // Floats are no counts of a camera.
    write("flat/1.fits", Photons(9000, gain, 1), {}, "float32");
    ASSERT_EQ(Calibrate("--flat @flat --bias @bias --overwrite --out @out @light.fits").code, 0);
    EXPECT_FALSE(ImageReader::Open(In("out/light.fits"))->Info().header.GetDouble("EGAIN"));
  }
}

// Covered columns of calibration frames are no data, and do not count in a flat's mean.
TEST_F(CalibrateTest, PaddedCalibrationFramesHaveNoData) {
  constexpr int kSide = 60;
  const auto padded = [](double level, int columns, int seed) -> Rule {
    return [=](int x, int y) { return x < columns ? 0 : level + 9 * test::Noise(seed * 7919 + y * 100 + x); };
  };
  for (const int n : {1, 2, 3}) {
    Write(fmt::format("flat/{}.fits", n), padded(3000, 11, n), {}, kSide, "float32", kSide);
    Write(fmt::format("dark/{}.fits", n), padded(100, 8, n + 10), {}, kSide, "float32", kSide);
  }
  Write("light.fits", padded(900, 0, 30), {}, kSide, "float32", kSide);
  const Outcome made = Calibrate("--flat @flat --dark @dark --out @out @light.fits");
  ASSERT_EQ(made.code, 0) << made.errors;
  const std::vector<float> light = Pixels(In("out/light.fits"));
  for (int i = 0; i < kSide * kSide; ++i) {
    ASSERT_EQ(std::isnan(light[i]), i % kSide < 11) << i;
    ASSERT_TRUE(std::isnan(light[i]) || std::abs(light[i] - 800) < 20) << i;
  }
}

TEST_F(CalibrateTest, PaddingStaysNoDataAndPicturesAreUpright) {
  constexpr int kSide = 64;
  const Header sky = files::SkyFromBelow();
  Write(
      "light.fits",
      [](int x, int y) { return x < 9 ? 0 : 200 + 10 * test::Noise(y * kSide + x) + (y < 16 ? 400 : 0); },
      sky, kSide, "float32", kSide);
  Write(
      "dark.fits", [](int, int) { return 3; }, {}, kSide, "float32", kSide);
  const Outcome made = Calibrate("--dark @dark.fits --previews --out @out @light.fits");
  ASSERT_EQ(made.code, 0) << made.errors;
  EXPECT_NE(made.out.find("14 % of its pixels, at the edges, are 0 throughout"), std::string::npos)
      << made.out;
  const std::vector<float> light = Pixels(In("out/light.fits")),
                           preview = Pixels(In("out/previews/light.png"));
  for (int i = 0; i < kSide * kSide; ++i) {
    ASSERT_EQ(std::isnan(light[i]), i % kSide < 9) << i;
  }
  EXPECT_LT(preview[5 * kSide + 40], preview[60 * kSide + 40]);
}

TEST_F(CalibrateTest, MosaicsThatFramesDoNotName) {
  const auto cell = [](int x, int y, double red, double green, double blue) {
    return x % 2 == y % 2 ? (x % 2 ? blue : red) : green;
  };
  const auto grain = [](int x, int y) { return (x * 5 + y * 11) % 13 - 6; };
  for (const char* n : {"1", "2"}) {
    Write(fmt::format("bias/{}.fits", n), [&](int, int) { return 500; });
    // A reddish lamp, and light that falls off.
    Write(fmt::format("flat/{}.fits", n),
          [&](int x, int y) { return 500 + (1 - 0.02 * x) * cell(x, y, 9000, 6000, 5000); });
  }
  const auto light = [&](int x, int y) {
    return 500 + (1 - 0.02 * x) * (cell(x, y, 200, 400, 300) + grain(x, y));
  };
  Write("light.fits", light);
  // Rows that differ are a detector's, and no mosaic.
  Write("rows.fits", [&](int x, int y) { return 900 + 80 * (y % 2) + grain(x, y); });
  EXPECT_EQ(Calibrate("--bias @bias --out @rows @rows.fits").errors, "");
  const std::string frames = " --bias @bias --flat @flat ";
  // Nobody says a pattern: mono, with a warning.
  const Outcome silent = Calibrate("--out @mono" + frames + "@light.fits");
  EXPECT_NE(silent.errors.find("looks like a mosaic, but names no pattern"), std::string::npos)
      << silent.errors;
  EXPECT_EQ(Calibrate("--out @kept --keep-mosaic" + frames + "@light.fits").errors, "");
  // The lights' pattern is the flats' too.
  const Outcome told = Calibrate("--out @told --cfa RGGB --white-balance none" + frames + "@light.fits");
  ASSERT_EQ(told.code, 0) << told.errors;
  const auto reader = ImageReader::Open(In("told/light.fits"));
  const files::Planes planes = files::ReadAll(*reader, 5);
  const auto mean = [](const std::vector<float>& v) {
    return std::accumulate(v.begin(), v.end(), 0.0) / static_cast<double>(v.size());
  };
  EXPECT_NEAR(mean(planes.at(0)) / mean(planes.at(1)), 0.5, 0.02);
  EXPECT_NEAR(mean(planes.at(2)) / mean(planes.at(1)), 0.75, 0.02);
  // By another keyword; and without anything that tells the level of no light, colours are not balanced.
  Write("named.fits", light, Cards({{"COLORTYP", "RGGB"}}));
  const Outcome named = Calibrate("--flat @flat --out @named @named.fits --json");
  ASSERT_EQ(named.code, 0) << named.errors;
  EXPECT_EQ(json::parse(named.out)["mosaic"], "RGGB");
  EXPECT_NE(named.errors.find("its colours cannot be balanced"), std::string::npos) << named.errors;
  // A camera's name is enough where its colours show.
  Write("camera.fits", light, Cards({{"INSTRUME", "Canon EOS 600D"}}));
  Write(
      "grey.fits", [&](int x, int y) { return 900 + grain(x, y); }, Cards({{"INSTRUME", "Canon EOS 600D"}}));
  EXPECT_TRUE(json::parse(Calibrate("--bias @bias --out @by --json @camera.fits").out).contains("mosaic"));
  EXPECT_FALSE(json::parse(Calibrate("--bias @bias --out @by --json @grey.fits").out).contains("mosaic"));
  // What has colours is no mosaic.
  files::WriteAll(*ImageWriter::Create(In("colour.fits"), {.width = kWidth, .height = kHeight, .planes = 3}),
                  files::Planes(3, std::vector<float>(kWidth * kHeight, 800)), kWidth, kHeight, kHeight);
  const Outcome colour = Calibrate("--bias @bias --cfa RGGB --out @colour @colour.fits");
  EXPECT_EQ(colour.code, 1);
  EXPECT_NE(colour.errors.find("has colours already"), std::string::npos) << colour.errors;
}

TEST_F(CalibrateTest, FlatsPreferTheirOwnDark) {
  Write(
      "light.fits", [](int x, int y) { return 100 * Flat(x, y) + 50; }, Cards({{"EXPTIME", "60"}}));
  for (int i = 0; i < 3; ++i) {
    Write(
        fmt::format("d{}.fits", i), [](int, int) { return 50; }, Cards({{"EXPTIME", "060.00"}}));
    Write(
        fmt::format("fd{}.fits", i), [](int, int) { return 40; }, Cards({{"EXPTIME", "2"}}));
    Write(
        fmt::format("f{}.fits", i), [](int x, int y) { return 1000 * Flat(x, y) + 40; },
        Cards({{"EXPTIME", "2"}}));
    Write(fmt::format("b{}.fits", i), [](int, int) { return 10; });
  }
  const Outcome outcome = Calibrate(
      "--dark @d0.fits @d1.fits @d2.fits @fd0.fits @fd1.fits @fd2.fits --bias @b0.fits @b1.fits "
      "--flat @f0.fits @f1.fits @f2.fits --out @out --master-dir @masters @light.fits");
  ASSERT_EQ(outcome.code, 0) << outcome.errors;
  EXPECT_EQ(Difference("out/light.fits", [](int, int) { return 100 * FlatMean(); }), "");
  // Masters that served, with what they were made of; the bias did not.
  EXPECT_TRUE(fs::exists(In("masters/master_dark_60s.fits")));
  EXPECT_TRUE(fs::exists(In("masters/master_dark_2s.fits")));
  EXPECT_FALSE(fs::exists(In("masters/master_bias.fits")));
  EXPECT_EQ(ImageReader::Open(In("masters/master_flat.fits"))->Info().header.GetInt("NCOMBINE"), 3);
  const json manifest = json::parse(files::ReadBytes(In("masters/manifest.json")));
  ASSERT_EQ(manifest["masters"].size(), 3u);
  EXPECT_EQ(manifest["masters"][2]["offset"], "master_dark_2s");
  EXPECT_EQ(manifest["masters"][2]["inputs"][1]["file"], In("f1.fits").string());

  // The masters that were kept do the same.
  const Outcome again = Calibrate(
      "--dark @masters/master_dark_60s.fits --flat @masters/master_flat.fits --out @again @light.fits");
  ASSERT_EQ(again.code, 0) << again.errors;
  EXPECT_EQ(again.errors, "");
  EXPECT_EQ(Pixels(In("again/light.fits")), Pixels(In("out/light.fits")));
}

TEST_F(CalibrateTest, EachLightTakesTheFramesThatMatch) {
  for (const std::string filter : {"R", "Ha 7nm"}) {
    for (const std::string exposure : {"30", "300"}) {
      Write(
          fmt::format("lights/{} {}.fits", filter, exposure), [](int, int) { return 1000; },
          Cards({{"FILTER", filter}, {"EXPTIME", exposure}, {"CCD-TEMP", "-11"}}));
    }
    Write(
        fmt::format("flats/{}.fits", filter), [&](int x, int) { return x < 10          ? 1
                                                                       : filter == "R" ? 2
                                                                                       : 3; },
        filter == "R" ? Cards({{"FILTER1", " r"}, {"EXPTIME", "1"}})
                      : Cards({{"FILTER", "HA7nm"}, {"EXPTIME", "1"}}));
  }
  for (const int exposure : {30, 300}) {
    for (const int temperature : {-20, -10}) {
      Write(
          fmt::format("darks/{}{}.fits", exposure, temperature),
          [&](int, int) { return exposure - temperature; },
          Cards({{"EXPTIME", std::to_string(exposure)}, {"CCD-TEMP", std::to_string(temperature)}}));
    }
  }
  const Outcome outcome = Calibrate("--dark @darks --flat @flats --out @out @lights");
  ASSERT_EQ(outcome.code, 0) << outcome.errors;
  for (const std::string filter : {"R", "Ha 7nm"}) {
    for (const int exposure : {30, 300}) {
      const double bright = filter == "R" ? 2 : 3, mean = (1 + bright) / 2;
      EXPECT_EQ(Difference(fmt::format("out/{} {}.fits", filter, exposure),
                           [&](int x, int) { return (1000 - exposure - 10) * mean / (x < 10 ? 1 : bright); }),
                "")
          << filter << exposure;
    }
  }
}

TEST_F(CalibrateTest, MismatchesNameTheFileTheKeyAndBothValues) {
  const Header cards = Cards({{"INSTRUME", "Cam"},
                              {"GAIN", "100"},
                              {"OFFSET", "5"},
                              {"READOUTM", "Fast"},
                              {"XBINNING", "1"},
                              {"EXPTIME", "60"},
                              {"CCD-TEMP", "-10"},
                              {"FILTER", "L"}});
  Write(
      "dark.fits", [](int, int) { return 10; }, cards);
  Write("flat.fits", Flat, cards);
  const struct {
    const char *key, *value;
    bool matches;
    const char* text;
  } cases[] = {
      {"INSTRUME", "Other", false, "INSTRUME is Other, but Cam"},
      {"GAIN", "120", false, "GAIN is 120, but 100"},
      {"OFFSET", "6", false, "OFFSET is 6, but 5"},
      {"READOUTM", "Slow", false, "READOUTM is Slow, but Fast"},
      {"XBINNING", "2", false, "XBINNING is 2, but 1"},
      {"EXPTIME", "61", false, "EXPTIME is 61, but 60"},
      {"EXPTIME", "060.0", true, ""},
      {"CCD-TEMP", "-12.5", false, "CCD-TEMP is -12.5, but -10"},
      {"CCD-TEMP", "-11.9", true, ""},
      {"FILTER", "R", false, "FILTER is R, but L"},
      {"GAIN", nullptr, true, ""},
  };
  Write(
      "good.fits", [](int, int) { return 100; }, cards);
  for (const auto& [key, value, matches, text] : cases) {
    Header other = cards;
    other.Remove(key);
    if (value) other.Set(key, value);
    fs::remove(In("light.fits"));
    Write(
        "light.fits", [](int, int) { return 100; }, other);
    fs::remove_all(In("out"));
    const std::string call = "--dark @dark.fits --flat @flat.fits --out @out @light.fits @good.fits";
    const Outcome outcome = Calibrate(call);
    EXPECT_EQ(outcome.code, matches ? 0 : 1) << key;
    EXPECT_EQ(fs::exists(In("out/light.fits")), matches) << key;
    EXPECT_TRUE(fs::exists(In("out/good.fits"))) << key;
    if (matches) continue;
    EXPECT_NE(outcome.errors.find(In("light.fits").string() + ": " + text), std::string::npos)
        << outcome.errors;
    const Outcome allowed = Calibrate(call + " --allow-mismatch --overwrite");
    EXPECT_EQ(allowed.code, 0) << allowed.errors;
    EXPECT_NE(allowed.errors.find("warning"), std::string::npos);
    EXPECT_NE(allowed.errors.find(text), std::string::npos) << allowed.errors;
    EXPECT_TRUE(fs::exists(In("out/light.fits"))) << key;
  }
  fs::remove_all(In("out"));
  fs::remove(In("light.fits"));
  Write(
      "light.fits", [](int, int) { return 100; }, cards, 30);
  const Outcome size = Calibrate("--dark @dark.fits --allow-mismatch --out @out @light.fits");
  EXPECT_EQ(size.code, 1);
  EXPECT_NE(size.errors.find("30 x 12 x 1"), std::string::npos) << size.errors;
  EXPECT_NE(size.errors.find("20 x 12 x 1"), std::string::npos) << size.errors;
}

TEST_F(CalibrateTest, WhatIsBrokenOrInTheWay) {
  const auto level = [](double v) { return [v](int, int) { return v; }; };
  Write("dark.fits", level(10));
  Write("light/a.fits", level(100));
  Write("light/c.fits", level(300));
  files::WriteBytes(In("light/b.fits"), files::ReadBytes(In("light/a.fits")).substr(0, 3000));
  files::WriteBytes(In("broken.fits"), "SIMPLE");

  // Nothing to calibrate with; a folder without images; a plan.
  EXPECT_EQ(Calibrate("--out @out @light").code, kBadUsage);
  fs::create_directory(In("empty"));
  EXPECT_NE(Calibrate("--dark @empty --out @out @light").errors.find("no images"), std::string::npos);
  const Outcome plan = Calibrate("--dark @dark.fits --dry-run --out @out @light/a.fits");
  EXPECT_NE(plan.out.find("a.fits: master_dark"), std::string::npos) << plan.out;
  EXPECT_FALSE(fs::exists(In("out")));

  // Calibration frames that all are broken stop all, a broken light itself only.
  const Outcome none = Calibrate("--dark @broken.fits --out @out @light");
  EXPECT_EQ(none.code, 1);
  EXPECT_NE(none.errors.find("broken.fits"), std::string::npos);
  EXPECT_FALSE(fs::exists(In("out")));
  const Outcome some = Calibrate("--dark @dark.fits @broken.fits --out @out --json @light");
  EXPECT_EQ(some.code, 0) << "two of three stand";
  EXPECT_NE(some.errors.find("broken.fits"), std::string::npos) << "one of several frames: left out";
  EXPECT_NE(some.errors.find("b.fits: "), std::string::npos);
  EXPECT_EQ(std::count(some.errors.begin(), some.errors.end(), '\n'), 2) << some.errors;
  EXPECT_EQ(std::count(some.out.begin(), some.out.end(), '\n'), 2) << some.out;
  EXPECT_EQ(Difference("out/c.fits", level(290)), "");

  // Results are replaced when that is asked for, inputs never.
  Write("dark2.fits", level(20));
  const Outcome refused = Calibrate("--dark @dark2.fits --out @out @light/a.fits");
  EXPECT_EQ(refused.code, 1);
  EXPECT_NE(refused.errors.find("--overwrite"), std::string::npos) << refused.errors;
  EXPECT_EQ(Difference("out/a.fits", level(90)), "");
  EXPECT_EQ(Calibrate("--dark @dark2.fits --overwrite --out @out @light/a.fits").code, 0);
  EXPECT_EQ(Difference("out/a.fits", level(80)), "");
  EXPECT_EQ(Calibrate("--dark @dark.fits --overwrite --out @light @light/a.fits").code, 1);
  EXPECT_EQ(Difference("light/a.fits", level(100)), "");

  // A copy of a dark counts once: of 1, 5, 9 and 9 again the median is 5.
  for (const auto& [name, v] : {std::pair("1", 1), {"2", 5}, {"3", 9}, {"4", 9}}) {
    Write(fmt::format("darks/{}.fits", name), level(v));
  }
  const Outcome copy = Calibrate("--dark @darks --out @once @light/a.fits");
  EXPECT_NE(copy.errors.find("4.fits: is a copy of 3.fits"), std::string::npos) << copy.errors;
  EXPECT_EQ(Difference("once/a.fits", level(95)), "");

  // Two lights of one name, and folders in a folder.
  Write("other/a.fit", level(200));
  EXPECT_EQ(Calibrate("--dark @dark.fits --out @out3 @light/a.fits @other/a.fit").code, 0);
  EXPECT_EQ(Difference("out3/a.fits", level(90)), "");
  EXPECT_EQ(Difference("out3/a_2.fits", level(190)), "");
  Write("other/night 2/b.fits", level(200));
  EXPECT_NE(Calibrate("--dark @dark.fits --out @out4 @other").errors.find("are not read: night 2"),
            std::string::npos);
  fs::remove(In("other/a.fit"));
  EXPECT_NE(
      Calibrate("--dark @dark.fits --out @out5 @other").errors.find("hold some, which are not read: night 2"),
      std::string::npos);
}

/// The sky of a calibrated light over what the truth says, in cells free of stars and nebula.
struct Cell {
  double distance;  ///< from the middle, 1 in the corners
  double ratio;
};

std::vector<Cell> SkyCells(const json& truth, const std::vector<float>& light, int width, int height) {
  constexpr int kCell = 25;
  constexpr double kNegligible = 0.05;  // electrons of a star's wings
  std::vector<bool> star(light.size());
  const double w = truth["psf"]["fwhm_px"].get<double>() / (2 * std::sqrt(std::cbrt(2.0) - 1));
  for (const json& s : truth["stars"]) {
    const double peak = s["flux_e"].get<double>() * 2 / (std::numbers::pi * w * w);
    const double reach = w * std::sqrt(std::cbrt(peak / kNegligible) - 1), sx = s["x"], sy = s["y"];
    for (int y = std::max<int>(0, sy - reach); y < std::min<double>(height, sy + reach); ++y) {
      for (int x = std::max<int>(0, sx - reach); x < std::min<double>(width, sx + reach); ++x) {
        if (std::hypot(x - sx, y - sy) < reach) star[static_cast<size_t>(y) * width + x] = true;
      }
    }
  }
  const json& sky = truth["sky"];
  const double cx = (width - 1) / 2.0, cy = (height - 1) / 2.0;
  std::vector<Cell> cells;
  for (int top = 0; top + kCell <= height; top += kCell) {
    for (int left = 0; left + kCell <= width; left += kCell) {
      std::vector<double> ratios;
      for (int y = top; y < top + kCell; ++y) {
        for (int x = left; x < left + kCell; ++x) {
          const size_t i = static_cast<size_t>(y) * width + x;
          const double gradient = 1 + sky["gradient_x"].get<double>() * (x - cx) / width +
                                  sky["gradient_y"].get<double>() * (y - cy) / height;
          if (!star[i]) ratios.push_back(light[i] / gradient / sky["sky_adu"].get<double>());
        }
      }
      if (ratios.size() < kCell * kCell / 2) continue;
      // Cosmic rays and hot pixels stand far above the rest.
      std::sort(ratios.begin(), ratios.end());
      const size_t cut = ratios.size() / 50;
      double sum = 0;
      for (size_t i = cut; i < ratios.size() - cut; ++i) {
        sum += ratios[i];
      }
      cells.push_back({std::hypot(left + kCell / 2 - cx, top + kCell / 2 - cy) / std::hypot(cx, cy),
                       sum / static_cast<double>(ratios.size() - 2 * cut)});
    }
  }
  return cells;
}

/// Mean of the cells of a ring, without those that the nebula makes brighter than the noise of a cell.
double MeanRatio(const std::vector<Cell>& cells, double from, double to) {
  constexpr double kNoise = 0.0016;
  std::vector<double> ratios;
  for (const Cell& cell : cells) {
    if (cell.distance >= from && cell.distance <= to) ratios.push_back(cell.ratio);
  }
  EXPECT_GE(ratios.size(), 20u) << from << " to " << to;
  for (int round = 0; round < 10; ++round) {
    std::sort(ratios.begin(), ratios.end());
    std::erase_if(ratios, [middle = ratios[ratios.size() / 2]](double ratio) {
      return std::abs(ratio - middle) > 2.5 * kNoise;
    });
  }
  return std::accumulate(ratios.begin(), ratios.end(), 0.0) / static_cast<double>(ratios.size());
}

double CornerToCentre(const std::vector<Cell>& cells) {
  return MeanRatio(cells, 0.85, 1) / MeanRatio(cells, 0, 0.3);
}

TEST_F(CalibrateTest, ASimulatedSessionComesOutAsItsTruth) {
  constexpr int kSide = 1000;
  test::Simulated(In("s"), {.frames = 6, .width = kSide, .height = kSide, .seed = 2});
  const json truth = json::parse(files::ReadBytes(In("s/truth.json")));
  std::vector<std::vector<float>> results;
  for (const char* threads : {"1", "2", "3"}) {
    const fs::path out = In(std::string("out") + threads);
    const std::string name = std::string("@out") + threads;
    const Outcome outcome =
        Calibrate("@s/lights --dark @s/darks --flat @s/flats --bias @s/biases --out " + name +
                  " --master-dir " + name + "/masters --previews --quiet --threads " + threads);
    ASSERT_EQ(outcome.code, 0) << outcome.errors;
    EXPECT_EQ(outcome.errors, "");
    EXPECT_TRUE(fs::exists(out / "masters/master_dark_120s.fits"));
    EXPECT_EQ(ImageReader::Open(out / "previews/light_0006.png")->Info().width, kSide);
    results.push_back(Pixels(out / "light_0001.fits"));
    for (const auto& entry : fs::recursive_directory_iterator(out)) {
      EXPECT_NE(entry.path().extension(), ".part");
    }
  }
  EXPECT_EQ(results[1], results[0]);
  EXPECT_EQ(results[2], results[0]);

  const std::vector<Cell> cells = SkyCells(truth, results[0], kSide, kSide);
  EXPECT_NEAR(MeanRatio(cells, 0, 1), 1, 0.001);
  EXPECT_NEAR(CornerToCentre(cells), 1, 0.005);
  // The measure sees what the bias does when it stays in the flats.
  const Outcome outcome = Calibrate("--dark @s/darks --flat @s/flats --out @wrong @s/lights/light_0001.fits");
  ASSERT_EQ(outcome.code, 0) << outcome.errors;
  EXPECT_LT(CornerToCentre(SkyCells(truth, Pixels(In("wrong/light_0001.fits")), kSide, kSide)), 0.995);
}

TEST_F(CalibrateTest, MemoryDoesNotGrowWithTheNumberOfFrames) {
  if (test::kSanitized) GTEST_SKIP() << "sanitizers keep freed memory";
  constexpr int kSide = 1200, kFrames = 60;  // 5.8 MB each as floats
  test::Simulated(In("one"), {.frames = 1, .width = kSide, .height = kSide});
  for (const auto& [kind, frame] :
       {std::pair("lights", "light"), {"darks", "dark"}, {"flats", "flat"}, {"biases", "bias"}}) {
    fs::create_directories(In(std::string("many/") + kind));
    for (int i = 0; i < kFrames; ++i) {
      fs::create_symlink(In(fmt::format("one/{}/{}_0001.fits", kind, frame)),
                         In(fmt::format("many/{}/{}.fits", kind, i)));
    }
  }
  const std::string session = In("many").string(), out = In("out").string();
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    execl(KORIMG_TOOL, "korimg", "calibrate", (session + "/lights").c_str(), "--dark",
          (session + "/darks").c_str(), "--flat", (session + "/flats").c_str(), "--bias",
          (session + "/biases").c_str(), "--out", out.c_str(), "--quiet", nullptr);
    _exit(99);
  }
  int status = 0;
  rusage usage{};
  ASSERT_EQ(wait4(child, &status, 0, &usage), child);
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_LT(usage.ru_maxrss / 1024, 200) << "MB; the frames of one kind alone are " << 5.8 * kFrames;
  EXPECT_TRUE(fs::exists(In("out/59.fits")));
}

TEST_F(CalibrateTest, RealSessions) {
  const fs::path data = files::RealFrames();
  if (data.empty()) GTEST_SKIP() << "no real frames: KORIMG_TEST_DATA names no folder";
  const struct {
    std::string folder, light;
    std::vector<std::pair<std::string, std::string>> kinds;  // option and start of the names
    int lights;
  } sessions[] = {
      {"ub17-calibration",
       "UB17",
       {{"--dark", "calib-001-d calib-002-d"}, {"--bias", "calib-001-bi calib-002-bi"}, {"--flat", "flat"}},
       2},
      {"ic310-infrared", "IC310", {{"--bias", "bias"}, {"--flat", "flats"}}, 5},
  };
  for (const auto& [folder, light, kinds, lights] : sessions) {
    const auto find = [&, &folder = folder](const std::string& starts, std::vector<std::string>& words) {
      std::istringstream in(starts);
      for (std::string start; in >> start;) {
        for (const auto& entry : fs::directory_iterator(data / folder)) {
          if (entry.path().filename().string().starts_with(start)) words.push_back(entry.path().string());
        }
      }
    };
    std::vector<std::string> words = {"calibrate"};
    for (const auto& [option, starts] : kinds) {
      words.push_back(option);
      find(starts, words);
    }
    words.insert(words.end(), {"--out", In(folder).string()});
    find(light, words);
    const Outcome outcome = Call(words);
    ASSERT_EQ(outcome.code, 0) << folder << outcome.errors;
    EXPECT_EQ(outcome.errors, "");
    int count = 0;
    for (const auto& entry : fs::directory_iterator(In(folder))) {
      if (entry.path().extension() != ".fits") continue;
      ++count;
      for (const float v : Pixels(entry.path())) {
        ASSERT_TRUE(std::isfinite(v)) << entry.path();
      }
    }
    EXPECT_EQ(count, lights) << folder;
  }
}

}  // namespace
}  // namespace korimg::tool
