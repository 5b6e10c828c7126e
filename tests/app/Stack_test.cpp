#include <chrono>
#include <cmath>
#include <fstream>
#include <map>
#include <numbers>
#include <thread>

#include <fcntl.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <signal.h>
#include <sys/resource.h>

#include "app/tool/Tool.h"
#include "session/files/internal/Times.h"
#include "session/stack/StackFiles.h"
#include "session/stack/internal/Journal.h"
#include "tests/app/Tool.h"
#include "tests/support/Simulated.h"

namespace korimg::tool {
namespace {

namespace fs = std::filesystem;
using files::Header;
using files::Planes;
using nlohmann::json;
using test::Noise;

class StackTest : public files::ToolTest {
 protected:
  /// Frames f00.fits, f01.fits ... of noise with a level of their own, of 16-bit integers.
  void Frames(int count, int width, int height) {
    for (int i = 0; i < count; ++i) {
      Header header;
      header.Set("EXPTIME", 60.0);
      Frame(
          fmt::format("f{:02}.fits", i), width, height,
          [i](int, int x, int y) {
            return std::round(1000 + 20 * i + 300 * Noise(i * 90000000LL + y * 9000 + x));
          },
          "uint16", header);
    }
  }

  /// A line of transforms.
  static std::string Line(const std::string& file, double dx, double dy, double degrees,
                          const std::string& status = "ok", double fwhm = 3) {
    return json{{"file", file}, {"dx", dx},     {"dy", dy},         {"degrees", degrees},
                {"stars", 50},  {"fwhm", fwhm}, {"status", status}, {"method", "stars"}}
               .dump() +
           "\n";
  }

  /// The digits of what --json printed last.
  static json LastJson(const files::Result& result) {
    const size_t start = result.out.rfind("\n{");
    return json::parse(result.out.substr(start == std::string::npos ? 0 : start + 1));
  }
};

TEST_F(StackTest, MeanOfFramesAsTheyLieWithHolesAndBlankPixels) {
  const auto rule = [](int i) {
    return [i](int, int x, int y) -> double { return (x + y + i) % 4 == 0 || x == 3 ? NAN : 10 * i + x - y; };
  };
  for (int i = 0; i < 5; ++i) {
    Frame(fmt::format("it's [{}] a.fits", i), 23, 17, rule(i));
  }
  const files::Result result = Shell(
      "korimg stack it*a.fits --reject none --normalize none --rejection-maps -o 'sum [1] é.fits' --json");
  ASSERT_EQ(result.code, 0) << result.err;
  EXPECT_EQ(LastJson(result)["frames"].size(), 5);
  const Planes got = Read("sum [1] é.fits"), low = Read("sum [1] é_low.fits"),
               high = Read("sum [1] é_high.fits");
  for (int i = 0; i < 23 * 17; ++i) {
    const int x = i % 23, y = i / 23;
    double sum = 0, n = 0;
    for (int f = 0; f < 5; ++f) {
      const double v = rule(f)(0, x, y);
      if (std::isnan(v)) continue;
      sum += v;
      ++n;
    }
    if (n == 0) {
      EXPECT_TRUE(std::isnan(got[0][i]));
    } else {
      ASSERT_NEAR(got[0][i], sum / n, 1e-4) << x << ", " << y;
    }
    EXPECT_EQ(low[0][i] + high[0][i], 0);
  }
}

TEST_F(StackTest, TransformsAreThoseOfTheCompositeAndBadFramesAreLeftOut) {
  constexpr int kWidth = 40, kHeight = 30;
  const auto scene = [](double x, double y) {
    return 500 + 200 * std::sin(x / 3.0) + 100 * std::cos(y / 4.0);
  };
  // Half a turn about (20, 15) brings pixel (x, y) to (40 - x, 30 - y); one more to the left and up.
  const struct {
    double dx, dy, degrees;
  } poses[] = {{0, 0, 0}, {-1, -1, 180}, {3, -2, 0}, {0.25, 1.5, 0}, {-1.3, 0.4, 2}};
  std::string lines;
  for (int i = 0; i < 5; ++i) {
    const auto& pose = poses[i];
    const double a = pose.degrees * std::numbers::pi / 180, c = std::cos(a), s = std::sin(a);
    Frame(fmt::format("{}.fits", i), kWidth, kHeight, [&](int, int u, int v) {
      const double x = u - 20, y = v - 15;
      return scene(c * x - s * y + 20 + pose.dx, s * x + c * y + 15 + pose.dy);
    });
    lines += Line(fmt::format("{}.fits", i), pose.dx, pose.dy, pose.degrees);
  }
  Frame("cloud.fits", kWidth, kHeight, [](int, int, int) { return 1e6; });
  lines += "{\"reference\": \"0.fits\"}\n\n" +
           json{{"file", "cloud.fits"}, {"dx", nullptr}, {"status", "no match"}}.dump();
  files::WriteBytes(In("t.jsonl"), lines);
  for (int i = 1; i < 5; ++i) {
    const files::Result result =
        Shell(fmt::format("korimg stack 0.fits {}.fits cloud.fits --transforms t.jsonl --normalize none "
                          "--method {} -o out.fits --overwrite",
                          i, i % 2 ? "mean" : "median"));
    ASSERT_EQ(result.code, 0) << result.err;
    EXPECT_NE(result.err.find("cloud.fits: left out: no match"), std::string::npos) << result.err;
    const Planes got = Read("out.fits");
    for (int y = 6; y < kHeight - 6; ++y) {
      for (int x = 6; x < kWidth - 6; ++x) {
        ASSERT_NEAR(got[0][y * kWidth + x], scene(x, y), 0.5) << i << " at " << x << ", " << y;
      }
    }
  }
  // The same transform, by composite.
  ASSERT_EQ(
      Shell("korimg composite 0.fits 4.fits --dx -1.3 --dy 0.4 --angle 2 --kernel bicubic -o both.fits").code,
      0);
  ASSERT_EQ(
      Shell("korimg stack 0.fits 4.fits --transforms t.jsonl --reject none --normalize none --weight none -o "
            "out.fits --overwrite")
          .code,
      0);
  const Planes both = Read("both.fits"), stacked = Read("out.fits");
  for (int i = 10 * kWidth; i < 20 * kWidth; ++i) {
    const int x = i % kWidth;
    if (x <= 5 || x >= 34) continue;  // the first alone, or with 0
    EXPECT_NEAR(both[0][i], stacked[0][i], 1e-3) << x;
  }
}

// Frames that register compared by their stars are brought to one scale of light, and pictures are upright.
TEST_F(StackTest, FluxesOfTransformsAreTheScale) {
  constexpr int kWidth = 120, kHeight = 80;
  const auto scene = [](int x, int y) {
    return 900 * std::exp(-(std::pow(x - 60.0, 2) + std::pow(y - 20.0, 2)) / 6);
  };
  Header sky = files::SkyFromBelow();
  sky.Set("EGAIN", 2.0);
  // Half of the light, but the noise of an equal sky.
  const double fluxes[] = {1, 0.5};
  for (int i = 0; i < 2; ++i) {
    Frame(
        fmt::format("{}.fits", i), kWidth, kHeight,
        [&](int, int x, int y) {
          return 300 + fluxes[i] * scene(x, y) + 10 * (test::Noise(7919 * i + 1000 * y + x) - 0.5);
        },
        "float32", sky);
  }
  const auto line = [](const char* name, double ratio) {
    return json{{"file", name}, {"dx", 0}, {"dy", 0}, {"degrees", 0}, {"flux_ratio", ratio}}.dump() + "\n";
  };
  files::WriteBytes(In("t.jsonl"), line("0.fits", 1) + line("1.fits", 0.5));
  const auto peak = [&](const std::string& options) {
    const files::Result r =
        Shell("korimg stack 0.fits 1.fits --reject none --weight none -o out.fits --overwrite " + options);
    EXPECT_EQ(r.code, 0) << r.err;
    return Read("out.fits")[0][20 * kWidth + 60] - 300;
  };
  // Light that was doubled has twice the variance of its photons.
  const auto gain = [&] {
    return files::ImageReader::Open(In("out.fits"))->Info().header.GetDouble("KORLGAIN");
  };
  EXPECT_NEAR(peak("--transforms t.jsonl"), 900, 10);
  EXPECT_NEAR(gain().value_or(0), 2.0 * 4 / (1 + 2), 1e-6);
  EXPECT_NE(Shell("korimg stars out.fits").out.find("gain 2.66667 (KORLGAIN)"), std::string::npos);
  EXPECT_NEAR(peak("--transforms t.jsonl --normalize level"), 675, 10);
  EXPECT_NEAR(gain().value_or(0), 4, 1e-6);
  EXPECT_NEAR(peak(""), 675, 10);
  // Light that is not known cannot stand beside light that is.
  files::WriteBytes(In("t.jsonl"), line("0.fits", 1) +
                                       json{{"file", "1.fits"}, {"dx", 0}, {"dy", 0}, {"degrees", 0}}.dump());
  EXPECT_NEAR(peak("--transforms t.jsonl"), 900, 10);
  EXPECT_NEAR(peak("--transforms t.jsonl --normalize level"), 675, 10);
  ASSERT_EQ(Shell("korimg stack 0.fits 1.fits --rejection-maps -o out.tif --memory 400K").code, 0);
  const Planes fits = Read("out.fits"), picture = Read("out.tif"), low = Read("out_low.tif");
  EXPECT_GT(picture[0][(kHeight - 1 - 20) * kWidth + 60], 600);
  EXPECT_LT(picture[0][20 * kWidth + 60], 400);
  EXPECT_EQ(low[0].size(), picture[0].size());
}

TEST_F(StackTest, WhatIsWrongIsToldBeforeTheWork) {
  Frames(3, 16, 12);
  Frame("small.fits", 15, 12, [](int, int, int) { return 1; });
  Header bayer;
  bayer.Set("BAYERPAT", "RGGB");
  Frame(
      "bayer.fits", 16, 12, [](int, int, int) { return 1; }, "uint16", bayer);
  files::WriteBytes(In("t.jsonl"),
                    Line("f00.fits", 0, 0, 0) + Line("f01.fits", 1, 0, 0) + Line("bayer.fits", 1, 0, 0));
  files::WriteBytes(In("bad.jsonl"), Line("f00.fits", 0, 0, 0) + "{\"file\": \"f01.fits\", \"dx\": 1e9}\n");
  files::WriteBytes(In("no.jsonl"), Line("f00.fits", 0, 0, 0, "no stars"));
  const struct {
    const char *call, *error;
    int code;
  } cases[] = {
      {"f0*.fits --transforms t.jsonl -o a.fits", "f02.fits: t.jsonl says nothing of this frame", 1},
      {"f0*.fits --transforms bad.jsonl -o a.fits", "bad.jsonl: line 2: dx = 1000000000", 1},
      {"f00.fits --transforms no.jsonl -o a.fits", "none of them is ok", 2},
      {"f00.fits bayer.fits --transforms t.jsonl -o a.fits", "undeveloped mosaic", 1},
      {"f00.fits small.fits -o a.fits",
       "small.fits: is 15 x 12 x 1, but the reference is 16 x 12 x 1 (f00.fits)", 1},
      {"f0*.fits -o f01.fits --overwrite", "f01.fits: is one of the frames", 1},
      {"f0*.fits --reference small.fits -o a.fits", "small.fits: is none of the frames", 1},
      {"f0*.fits -o small.fits", "exists already", 1},
      {"f0*.fits -o a.txt", "cannot tell the format", 1},
      {"f0*.fits --reject sigma --kappa 2,x -o a.fits", "--kappa 2,x", 2},
      {"f0*.fits --reject noise --kappa -1 -o a.fits", "--kappa -1", 2},
      {"f0*.fits --kappa 3 -o a.fits", "--kappa is for --reject sigma, winsorized, linear-fit and noise", 2},
      {"f0*.fits --weight fwhm -o a.fits", "--transforms", 2},
      {"f0*.fits --memory 1K -o a.fits", "use --memory", 1},
  };
  for (const auto& [call, error, code] : cases) {
    const files::Result result = Shell(std::string("korimg stack ") + call);
    EXPECT_EQ(result.code, code) << call << result.err;
    EXPECT_NE(result.err.find(error), std::string::npos) << call << ": " << result.err;
  }
  EXPECT_EQ(Names().size(), 5 + 3 + 2) << "nothing is left";
}

TEST_F(StackTest, ClippingThatCannotRejectIsToldOf) {
  for (int i = 0; i < 5; ++i) {
    Frame(fmt::format("{}.fits", i), 20, 10,
          [i](int, int x, int) { return x == 5 && i == 2 ? 9000 : 100 + i; });
  }
  const struct {
    std::string call;
    bool warns, rejects;
  } cases[] = {{"[0-4].fits --reject sigma --kappa 2.6", true, false},
               {"[0-4].fits --reject sigma --kappa 2.4", false, true},
               {"[0-3].fits --reject sigma", true, false},
               {"[0-3].fits --reject sigma --kappa 2", false, true},
               {"[0-3].fits --reject noise", false, true},
               {"[0-4].fits", false, true},
               {"[0-3].fits --method median", false, true}};
  for (const auto& [call, warns, rejects] : cases) {
    const files::Result r = Shell("korimg stack --overwrite --normalize none -o stack.fits " + call);
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.err.find("however bright") != std::string::npos, warns) << call << r.err;
    EXPECT_EQ(Read("stack.fits")[0][5] < 110, rejects) << call;
  }
}

TEST_F(StackTest, HeaderOfTheFramesThatWereUsed) {
  const char* dates[] = {"2026-03-14T22:00:00", "2026-03-14T21:00:00.5", "2026-03-14T23:59:00"};
  std::string lines;
  for (int i = 0; i < 4; ++i) {
    Header header;
    header.Set("EXPTIME", i == 2 ? 300.0 : 60.0);
    header.Set("DATE-OBS", i < 3 ? dates[i] : "2027-01-01T00:00:00");
    header.Set("DATE-BEG", i < 3 ? dates[i] : "2027-01-01T00:00:00");
    header.Set("DATE-AVG", "2026-03-14T22:00:30");
    header.Set("MJD-AVG", 61113.9);
    header.Set("TELAPSE", 60.0);
    header.Set("CBLACK", 100);
    header.Set("OBJECT", "M 42");
    header.Set("FILTER", i == 1 ? "Ha" : "L");
    header.Set("CRVAL1", 83.8);
    header.Set("CTYPE1", "RA---TAN");
    header.cards.push_back(fmt::format("{:80}", "CHECKSUM= 'abc'"));
    Frame(
        fmt::format("{}.fits", i), 12, 9, [i](int, int, int) { return i; }, "float32", header);
    lines += Line(fmt::format("{}.fits", i), i, 0, 0, i == 3 ? "clouds" : "ok");
  }
  files::WriteBytes(In("t.jsonl"), lines);
  ASSERT_EQ(Shell("korimg stack [0-3].fits --transforms t.jsonl -o out.fits --reject sigma --kappa 3,2").code,
            0);
  const Header header = files::ImageReader::Open(In("out.fits"))->Info().header;
  EXPECT_EQ(header.GetDouble("EXPTIME"), 140);
  EXPECT_EQ(header.GetDouble("LIVETIME"), 420);
  EXPECT_EQ(header.GetInt("STACKCNT"), 3);
  EXPECT_EQ(header.GetInt("NCOMBINE"), 3);
  EXPECT_EQ(header.GetString("DATE-OBS"), "2026-03-14T21:00:00.500");
  EXPECT_EQ(header.GetString("DATE-END"), "2026-03-15T00:04:00.000");
  // (60 x 22:00:30 + 60 x 21:00:30.5 + 300 x 24:01:30) / 420
  EXPECT_EQ(header.GetString("DATE-AVG"), "2026-03-14T23:18:21.500");
  EXPECT_EQ(header.GetString("DATE-BEG"), "2026-03-14T21:00:00.500");
  EXPECT_NEAR(header.GetDouble("MJD-AVG").value_or(0), 61113 + (23 * 3600 + 18 * 60 + 21.5) / 86400, 1e-8);
  EXPECT_EQ(header.GetDouble("TELAPSE"), 3 * 3600 + 4 * 60 - 0.5);
  EXPECT_FALSE(header.GetString("MJD-OBS")) << "the reference has none";
  EXPECT_FALSE(header.GetString("CBLACK")) << "the pixels are others";
  EXPECT_EQ(header.GetString("OBJECT"), "M 42");
  EXPECT_EQ(header.GetString("FILTER"), "L");
  EXPECT_EQ(header.GetString("CTYPE1"), "RA---TAN") << "the reference lies on its own grid";
  EXPECT_FALSE(header.GetString("CHECKSUM"));
  std::string history;
  for (const std::string& card : header.cards) {
    if (card.starts_with("HISTORY ")) history += card.substr(8, card.find_last_not_of(' ') - 7) + " ";
  }
  for (const char* said :
       {"--reject sigma --kappa 3,2", "3 frames stacked, 1 left out", "left out: 3.fits (clouds)",
        "are those of the reference: FILTER", "rejected as too low 0 %"}) {
    EXPECT_NE(history.find(said), std::string::npos) << said << " in " << history;
  }
  // Without a frame that lies still there is no grid that the coordinates belong to.
  ASSERT_EQ(Shell("korimg stack [12].fits --transforms t.jsonl -o moved.fits").code, 0);
  EXPECT_FALSE(files::ImageReader::Open(In("moved.fits"))->Info().header.GetString("CTYPE1"));
}

TEST(Times, DatesThereAndBack) {
  using files::FitsDate, files::FitsTime;
  for (const char* date : {"1969-07-20T20:17:40.000", "2000-02-29T23:59:59.999", "2026-12-31T00:00:00.001"}) {
    ASSERT_TRUE(FitsTime(date)) << date;
    EXPECT_EQ(FitsDate(*FitsTime(date)), date);
  }
  EXPECT_EQ(FitsTime("1970-01-02"), 86400);
  EXPECT_EQ(FitsTime("1970-01-01T00:01:00.25"), 60.25);
  for (const char* wrong : {"", "2026", "2026-02-30", "2026-01-01T25:00:00", "2026-01-01T12:60:00", "x",
                            "2026-01-01T12:00", "2026-01-01T12:00:nan", "31/12/99", "2026-01-01-0700"}) {
    EXPECT_FALSE(FitsTime(wrong)) << wrong;
  }
  for (const char* zoned : {"2026-03-14T23:30:05.5-0700", "2026-03-15T07:30:05.5+01:00",
                            "2026-03-15T08:30:05.5+02", "2026-03-15T06:30:05.5Z"}) {
    EXPECT_EQ(FitsDate(FitsTime(zoned).value_or(0)), "2026-03-15T06:30:05.500") << zoned;
  }
  const std::pair<std::map<std::string, std::string>, const char*> headers[] = {
      {{{"DATE-OBS", "2026-03-14"}, {"TIME-OBS", "21:05:00"}}, "2026-03-14T21:05:00.000"},
      {{{"DATE-OBS", "2026-03-14T20:00:00"}, {"DATE-BEG", "2026-03-14T21:05:00"}}, "2026-03-14T21:05:00.000"},
      {{{"DATE-OBS", "last night"}, {"MJD-OBS", "61113.25"}}, "2026-03-14T06:00:00.000"}};
  for (const auto& [cards, start] : headers) {
    Header header;
    for (const auto& [key, value] : cards) {
      header.Set(key, value);
    }
    EXPECT_EQ(FitsDate(files::StartOf(header).value_or(0)), start);
  }
}

TEST_F(StackTest, FramesOfOneKindAndOneScale) {
  fs::create_directory(In("d"));
  const auto rule = [](double scale) {
    return [scale](int, int x, int y) { return scale * (1000 + 100 * Noise(y * 9000 + x)); };
  };
  for (const char* name : {"d/a.fits", "d/b.fits", "d/a.png", "d/c.tif", "e.tif"}) {
    Frame(name, 40, 30, rule(1), fs::path(name).extension() == ".png" ? "uint16" : "float32");
  }
  Frame("unit.fits", 40, 30, rule(1 / 65535.0));
  const struct {
    const char* call;
    int code;
    std::vector<const char*> said;
  } cases[] = {
      {"d", 0, {"d: 1 TIFF files beside the frames are left out", "d: 1 PNG files beside"}},
      {"d/a.fits d/a.png", 1, {"a.png: is a PNG file, but the reference is FITS (a.fits)"}},
      {"d/a.fits e.tif", 1, {"e.tif: is a TIFF file"}},
      {"d/a.fits d/b.fits unit.fits", 1, {"unit.fits: has a noise of", "their scales differ"}},
  };
  for (const auto& c : cases) {
    const files::Result r = Shell(fmt::format("korimg stack {} -o out.fits --overwrite", c.call));
    EXPECT_EQ(r.code, c.code) << c.call << r.err;
    for (const char* said : c.said) {
      EXPECT_NE(r.err.find(said), std::string::npos) << c.call << ": " << r.err;
    }
  }
  EXPECT_EQ(files::ImageReader::Open(In("out.fits"))->Info().header.GetInt("NCOMBINE"), 2);
  // Two kinds that both are frames, or both pictures.
  files::WriteBytes(In("d/x.cr2"), "raw");
  EXPECT_NE(Shell("korimg stack d -o out2.fits").err.find("2 FITS and 1 camera raw"), std::string::npos);
  fs::create_directory(In("p"));
  fs::rename(In("d/a.png"), In("p/a.png"));
  fs::rename(In("d/c.tif"), In("p/c.tif"));
  EXPECT_NE(Shell("korimg stars p").err.find("1 TIFF and 1 PNG"), std::string::npos);
}

TEST_F(StackTest, TheSamePixelsForAnyMemoryAndThreads) {
  Frames(7, 90, 64);
  std::string lines;
  for (int i = 0; i < 7; ++i) {
    lines +=
        Line(fmt::format("f{:02}.fits", i), 1.7 * i, -0.9 * i, i == 3 ? 180.2 : 0.4 * i, "ok", 3 + 0.2 * i);
  }
  files::WriteBytes(In("t.jsonl"), lines);
  for (const char* options : {"--normalize level --weight noise", "--normalize level+scale --weight fwhm",
                              "--method median --kernel lanczos3 --bits 16"}) {
    const std::string call =
        fmt::format("korimg stack f*.fits --transforms t.jsonl --rejection-maps {} --json ", options);
    const files::Result whole = Shell(call + "-o a.fits --overwrite");
    ASSERT_EQ(whole.code, 0) << whole.err;
    EXPECT_EQ(LastJson(whole)["bands"], 1);
    for (const char* how :
         {"--memory 270K --threads 1", "--memory 430K --threads 2", "--memory 390K --threads 2 --resume"}) {
      const files::Result result = Shell(call + how + " -o b.fits --overwrite");
      ASSERT_EQ(result.code, 0) << how << result.err;
      EXPECT_GT(LastJson(result)["bands"], 3) << how;
      for (const char* end : {"", "_low", "_high"}) {
        const Planes a = Read(fmt::format("a{}.fits", end)), b = Read(fmt::format("b{}.fits", end));
        EXPECT_EQ(std::memcmp(a[0].data(), b[0].data(), a[0].size() * 4), 0) << options << how << end;
      }
    }
  }
  EXPECT_EQ(Names().size(), 7 + 1 + 6 + 2) << "no states, no parts";
}

/// Frames that are made as they are read: one scene, each at its own level and scale.
std::vector<StackInput> Scenes(int frames, const Shape& shape,
                               const std::function<double(int i, int p, int x, int y)>& rule) {
  Job job;
  std::vector<StackInput> inputs;
  for (int i = 0; i < frames; ++i) {
    StackInput input{fmt::format("scene {}", i), shape};
    input.read = [=](const Band<float>& to) {
      for (int p = 0; p < shape.planes; ++p) {
        for (int y = to.Top(); y < to.Bottom(); ++y) {
          for (int x = 0; x < shape.width; ++x) {
            to.Row(p, y)[x] = static_cast<float>(rule(i, p, x, y));
          }
        }
      }
    };
    input.levels = MeasureInput(job, input);
    inputs.push_back(std::move(input));
  }
  return inputs;
}

TEST(Stack, NormalisedFramesAreAllLikeTheReference) {
  const test::WithThreads team(2);
  const Shape shape{70, 50, 3};
  const auto scene = [](int p, int x, int y) { return 100 * p + 40 * Noise(p * 100000 + y * 100 + x); };
  const auto scaled =
      Scenes(6, shape, [&](int i, int p, int x, int y) { return 50 * i + (1 + 0.5 * i) * scene(p, x, y); });
  const auto shifted = Scenes(6, shape, [&](int i, int p, int x, int y) { return 50 * i + scene(p, x, y); });
  const struct {
    const std::vector<StackInput>& inputs;
    Normalisation normalisation;
    bool alike;
  } cases[] = {{scaled, Normalisation::LevelAndScale, true},
               {scaled, Normalisation::Level, false},
               {shifted, Normalisation::Level, true},
               {shifted, Normalisation::None, false}};
  for (const auto& [inputs, normalisation, alike] : cases) {
    for (const auto method : {CImgStack::Minimum, CImgStack::Maximum}) {
      Job job;
      constexpr int kReference = 2;
      double most = 0;
      int next = 0;
      Stack(job, inputs, kReference, {.method = method, .normalisation = normalisation, .memory = 1 << 19},
            {}, [&, &inputs = inputs](const StackBand& band) {
              EXPECT_EQ(band.result.Top(), next);
              next = band.result.Bottom();
              EXPECT_EQ(band.low.Planes(), 0);
              BandBuffer buffer;
              const Band<float> wanted = buffer.Get(3, 70, band.result.Top(), band.result.Rows());
              inputs[kReference].read(wanted);
              for (int p = 0; p < 3; ++p) {
                for (int y = wanted.Top(); y < wanted.Bottom(); ++y) {
                  for (int x = 0; x < 70; ++x) {
                    most = std::max<double>(most, std::abs(wanted.Row(p, y)[x] - band.result.Row(p, y)[x]));
                  }
                }
              }
            });
      EXPECT_EQ(next, 50);
      EXPECT_EQ(most < 0.01, alike) << static_cast<int>(normalisation) << " " << most;
    }
  }
}

TEST(Stack, WeightsAreOneOverTheSquareOfTheNoiseOfEachPlane) {
  // The first frame is the best in its first plane, the third one in its last.
  const auto noise = [](int i, int p) { return p == 2 ? 4.0 - i : 1.0 + i; };
  const auto inputs = Scenes(4, {200, 100, 3}, [&](int i, int p, int x, int y) {
    return i == 3 ? 5 : noise(i, p) * Noise(i * 1000000 + p * 300000 + y * 1000 + x);
  });
  const auto plain = NoiseWeights(inputs, 0, Normalisation::Level),
             scaled = NoiseWeights(inputs, 0, Normalisation::LevelAndScale);
  for (int i = 0; i < 3; ++i) {
    for (int p = 0; p < 3; ++p) {
      const double ratio = noise(i, p) / (p == 2 ? 2 : 1);
      EXPECT_NEAR(plain[i][p] * ratio * ratio, 1, 0.1) << i << ' ' << p;
      EXPECT_NEAR(scaled[i][p], 1, 0.1) << "scaled to one spread they have one noise";
    }
  }
  EXPECT_EQ(plain[3], (CImgStack::PlaneWeights{1, 1, 1})) << "without noise nothing is known";
}

TEST(Stack, WhatReadingThrowsReachesTheCaller) {
  const test::WithThreads team(2);
  for (const int fails : {0, 2}) {
    auto inputs = Scenes(3, {30, 20, 1}, [](int i, int, int, int) { return i; });
    inputs[fails].read = [](const Band<float>& to) {
      if (to.Top() > 4) throw files::FileError("frame", "is gone");
    };
    Job job;
    int bands = 0;
    EXPECT_EQ(files::ErrorOf([&] {
                Stack(job, inputs, 0, {.normalisation = Normalisation::None, .memory = 350000}, {},
                      [&](const StackBand&) { ++bands; });
              }),
              "frame: is gone");
    EXPECT_LT(bands, 20);
  }
}

TEST_F(StackTest, MoreFramesThanMayBeOpenAtOnce) {
  constexpr int kFrames = 140;
  for (int i = 0; i < kFrames; ++i) {
    Frame(fmt::format("{:03}.fits", i), 9, 8, [i](int, int x, int) { return i * (x + 1.0); });
  }
  const files::Result result =
      Shell("ulimit -n 128 && korimg stack ???.fits --method max --normalize none -o out.tif");
  ASSERT_EQ(result.code, 0) << result.err;
  EXPECT_EQ(Read("out.tif")[0][8], 9 * (kFrames - 1));
}

TEST_F(StackTest, MemoryIsBoundedHoweverManyFrames) {
  if (files::kSanitized) GTEST_SKIP() << "sanitizers take memory of their own";
  constexpr int kFrames = 120;
  for (int i = 0; i < kFrames; ++i) {
    Frame(
        fmt::format("{:03}.fits", i), 600, 400, [i](int, int x, int y) { return i + x + y; }, "uint16");
  }
  const files::Result result = Shell("korimg stack ???.fits -o out.fits --memory 40M --json");
  ASSERT_EQ(result.code, 0) << result.err;
  // Values and flags of all frames are 219 MiB.
  EXPECT_LT(LastJson(result)["peak_memory_bytes"], 90 << 20);
}

TEST_F(StackTest, ARunThatIsKilledGoesOnToTheSameResult) {
  constexpr int kFrames = 12, kWidth = 160, kHeight = 240;
  Frames(kFrames, kWidth, kHeight);
  std::vector<std::string> call = {"korimg",   "stack", "--threads",        "2",
                                   "--memory", "900K",  "--rejection-maps", "--normalize",
                                   "level",    "-o",    "out.fits",         "--resume"};
  const auto lineTo = [](const std::string& output) {
    return "korimg stack --threads 2 --memory 900K --rejection-maps --normalize level f*.fits -o " + output;
  };
  for (int i = 0; i < kFrames; ++i) {
    call.push_back(fmt::format("f{:02}.fits", i));
  }
  ASSERT_EQ(Shell(lineTo("whole.fits")).code, 0);
  const double full = 3.0 * 4 * kWidth * kHeight;
  const auto expectWhole = [&] {
    for (const char* end : {"", "_low", "_high"}) {
      const Planes a = Read(fmt::format("whole{}.fits", end)), b = Read(fmt::format("out{}.fits", end));
      EXPECT_EQ(std::memcmp(a[0].data(), b[0].data(), a[0].size() * 4), 0) << end;
    }
  };
  int killed = 0;
  for (int i = 0; i < 10; ++i) {
    // At some place of the whole way, and some while after it.
    const double share = 0.1 * i + 0.1 * Noise(i);
    const auto delay = std::chrono::microseconds(static_cast<int>(3000 * Noise(100 + i)));
    killed += files::RunAndKill(folder_, call, SIGKILL, [&] {
      std::error_code error;
      const auto size = fs::file_size(In("out.fits.resume"), error);
      if (error || static_cast<double>(size) < share * full) return false;
      std::this_thread::sleep_for(delay);
      return true;
    });
    if (fs::exists(In("out.fits"))) expectWhole();
  }
  EXPECT_GT(killed, 3);
  const bool found = fs::exists(In("out.fits.resume"));
  const files::Result result =
      Shell(fmt::format("{} --resume {}", lineTo("out.fits"), found ? "" : "--overwrite"));
  ASSERT_EQ(result.code, 0) << result.err;
  EXPECT_EQ(found, result.out.find("going on at row") != std::string::npos) << result.out;
  expectWhole();
  EXPECT_FALSE(fs::exists(In("out.fits.resume")));
}

// What had only to be written when it was ended has its weights still.
TEST_F(StackTest, AStackThatIsOnlyWrittenTellsItsWeights) {
  Frames(5, 160, 240);
  StackFilesOptions options;
  for (int i = 0; i < 5; ++i) {
    options.frames.push_back(In(fmt::format("f{:02}.fits", i)));
  }
  options.weight = FrameWeights::Noise;
  options.output = In("whole.fits");
  Job job;
  const StackResult whole = StackFiles(job, options);
  ASSERT_NE(whole.frames[0].weight, whole.frames[1].weight);
  options.output = In("out.fits");
  options.resume = true;
  JobOptions world;
  bool stacks = false;
  world.report = [&](const Event& event) {
    if (event.kind != Event::Progress) return;
    if (stacks && event.total == 0) world.cancel->Cancel();
    stacks = event.text == "stacking";
  };
  Job ended(world);
  EXPECT_THROW(StackFiles(ended, options), Cancelled);
  ASSERT_TRUE(fs::exists(In("out.fits.resume")) && !fs::exists(In("out.fits")));
  Job again({.report = [](const Event& event) { EXPECT_NE(event.text, "stacking") << "done before"; }});
  const StackResult written = StackFiles(again, options);
  for (size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(written.frames[i].weight, whole.frames[i].weight) << i;
    EXPECT_EQ(written.frames[i].rejectedHigh, whole.frames[i].rejectedHigh) << i;
  }
  EXPECT_EQ(Read("whole.fits"), Read("out.fits"));
}

TEST_F(StackTest, CancelledItLeavesNothingOrWhatResumeWants) {
  Frames(12, 160, 240);
  std::vector<std::string> call = {"korimg", "stack", "--threads", "2", "--memory", "600K", "-o", "out.fits"};
  for (int i = 0; i < 12; ++i) {
    call.push_back(fmt::format("f{:02}.fits", i));
  }
  const auto begun = [&] {
    std::error_code error;
    return fs::file_size(In("out.fits.resume"), error) > 3000 && !error;
  };
  EXPECT_TRUE(files::RunAndKill(folder_, call, SIGINT, begun));
  EXPECT_EQ(Names().size(), 12) << "nothing is left";
  call.push_back("--resume");
  EXPECT_TRUE(files::RunAndKill(folder_, call, SIGINT, begun));
  EXPECT_EQ(Names().size(), 13);
  EXPECT_TRUE(fs::exists(In("out.fits.resume")));
  // A state of other options is of no use, and a plain run leaves it behind as little.
  const std::string line = "korimg stack f*.fits -o out.fits --threads 2 --memory 600K ";
  const files::Result other = Shell(line + "--resume --reject sigma --kappa 4");
  EXPECT_EQ(other.code, 0);
  EXPECT_NE(other.err.find("beginning anew"), std::string::npos) << other.err;
  EXPECT_FALSE(fs::exists(In("out.fits.resume")));
}

TEST_F(StackTest, TheJournalKeepsWholeBandsOnly) {
  const Shape shape{5, 12, 3};
  std::vector<float> pixels(5 * 12 * 3 * 3);
  for (size_t i = 0; i < pixels.size(); ++i) {
    pixels[i] = static_cast<float>(i);
  }
  const auto band = [&](int y0, int rows, auto&& use) {
    const auto image = [&](int i) {
      return Band<const float>(pixels.data() + i * 180, 3, 5, 0, 12).Part(y0, rows);
    };
    use(StackBand{image(0), image(1), image(2), {{y0, 1, 2}, {rows, 3, 4}}});
  };
  const auto open = [&](const std::string& digest, Journal::Use use = Journal::Kept) {
    return Journal(In("x.resume"), digest, shape, {&StackBand::result, &StackBand::low, &StackBand::high}, 2,
                   use);
  };
  const auto expectRows = [&](const Journal& journal, int rows) {
    int next = 0;
    journal.ForBands([&](const StackBand& got) {
      band(got.result.Top(), got.result.Rows(), [&](const StackBand& made) {
        EXPECT_EQ(got.result.Top(), next);
        EXPECT_EQ(got.counts[1].values, made.counts[1].values);
        EXPECT_EQ(got.counts[0].high, 2);
        for (const auto image : {&StackBand::result, &StackBand::low, &StackBand::high}) {
          for (int p = 0; p < 3; ++p) {
            for (int y = next; y < got.result.Bottom(); ++y) {
              EXPECT_TRUE(std::ranges::equal((got.*image).Row(p, y), (made.*image).Row(p, y)))
                  << p << ' ' << y;
            }
          }
        }
      });
      next = got.result.Bottom();
    });
    EXPECT_EQ(next, rows);
  };
  {
    Journal journal = open("a");
    for (const auto& [y0, rows] : {std::pair(0, 5), {5, 4}}) {
      band(y0, rows, [&](const StackBand& made) { journal.Add(made); });
    }
    expectRows(journal, 9);
  }
  const std::string whole = files::ReadBytes(In("x.resume"));
  const size_t second = 4 * 5 * 9 * 4 + 16 + 2 * sizeof(CImgStack::Counts);
  for (size_t cut : {size_t{1}, second - 20, second - 1}) {
    files::WriteBytes(In("x.resume"), whole.substr(0, whole.size() - cut));
    expectRows(open("a"), 5);
  }
  for (size_t at :
       {size_t{3}, second - 60, second - 5}) {  // from the end: pixels, counts, the number of rows
    std::string broken = whole;
    broken[broken.size() - at] ^= 0x40;
    files::WriteBytes(In("x.resume"), broken);
    Journal journal = open("a");
    expectRows(journal, 5);
    band(5, 7, [&](const StackBand& made) { journal.Add(made); });
    expectRows(journal, 12);
  }
  files::WriteBytes(In("x.resume"), whole);
  expectRows(open("a"), 9);
  EXPECT_TRUE(open("b").WasOther());
  EXPECT_EQ(open("b").NextRow(), 0);
  files::WriteBytes(In("x.resume"), whole.substr(0, 30));
  EXPECT_EQ(open("a").NextRow(), 0);
  open("a", Journal::Passing);
  EXPECT_FALSE(fs::exists(In("x.resume")));
}

TEST_F(StackTest, ASimulatedSessionByItsTruth) {
  constexpr int kFrames = 16, kWidth = 420, kHeight = 320;
  test::Simulated(In("night"), {.frames = kFrames, .width = kWidth, .height = kHeight, .seed = 5});
  const files::Result calibrated = Shell(
      "cd night && korimg calibrate lights --dark darks --flat flats --bias biases --out ../c --pedestal 500 "
      "-q");
  ASSERT_EQ(calibrated.code, 0) << calibrated.err;
  const json truth = json::parse(files::ReadBytes(In("night/truth.json")));
  std::string lines;
  for (const json& light : truth["lights"]) {
    // From where a star of the reference is in the light to what brings it back, about width / 2, height / 2.
    const double turn = light["rotation_deg"], a = -turn * std::numbers::pi / 180, c = std::cos(a),
                 s = std::sin(a);
    const double x = 0.5 - light["dx"].get<double>(), y = 0.5 - light["dy"].get<double>();
    lines += Line("c/" + fs::path(light["file"].get<std::string>()).filename().string(), c * x - s * y - 0.5,
                  s * x + c * y - 0.5, -turn);
  }
  files::WriteBytes(In("t.jsonl"), lines);
  const auto stack = [&](int frames, const std::string& options) {
    std::string call =
        "korimg stack --transforms t.jsonl --overwrite --rejection-maps -o s.fits --json " + options;
    for (int i = 0; i < frames; ++i) {
      call += fmt::format(" c/light_{:04}.fits", i + 1);
    }
    const files::Result result = Shell(call);
    EXPECT_EQ(result.code, 0) << result.err;
    return Read("s.fits")[0];
  };
  const std::vector<float> result =
      stack(kFrames, "--reject sigma --kappa 3 --normalize level --weight noise");

  // Bright stars stand where the reference has them.
  int stars = 0;
  double dx = 0, dy = 0;
  for (const json& star : truth["stars"]) {
    const double sx = star["x"], sy = star["y"], flux = star["flux_adu"];
    if (sx < 25 || sy < 25 || sx > kWidth - 25 || sy > kHeight - 25 || flux < 2500 || flux > 50000) continue;
    const auto disturbs = [&](const json& other) {
      const double distance = std::hypot(other["x"].get<double>() - sx, other["y"].get<double>() - sy);
      return distance > 0 && distance < 12 && other["flux_adu"] > 0.1 * flux;
    };
    if (std::any_of(truth["stars"].begin(), truth["stars"].end(), disturbs)) continue;
    double sum = 0, mx = 0, my = 0;
    const int left = static_cast<int>(std::lround(sx)), top = static_cast<int>(std::lround(sy));
    double sky = INFINITY;
    for (int y = top - 5; y <= top + 5; ++y) {
      for (int x = left - 5; x <= left + 5; ++x) {
        sky = std::min<double>(sky, result[y * kWidth + x]);
      }
    }
    for (int y = top - 3; y <= top + 3; ++y) {
      for (int x = left - 3; x <= left + 3; ++x) {
        const double v = result[y * kWidth + x] - sky - 0.1 * (result[top * kWidth + left] - sky);
        if (v <= 0) continue;
        sum += v;
        mx += v * (x - sx);
        my += v * (y - sy);
      }
    }
    EXPECT_LT(std::hypot(mx / sum, my / sum), 0.5) << sx << ", " << sy;
    dx += mx / sum;
    dy += my / sum;
    ++stars;
  }
  ASSERT_GE(stars, 6);
  EXPECT_NEAR(dx / stars, 0, 0.1);
  EXPECT_NEAR(dy / stars, 0, 0.1);

  // Noise falls as it should: four times the frames, half the noise.
  const auto noise = [](const std::vector<float>& pixels) {
    std::vector<double> d;
    for (int y = 30; y < kHeight - 30; ++y) {
      for (int x = 30; x < kWidth - 30; x += 3) {
        d.push_back(std::abs(pixels[y * kWidth + x] -
                             0.5 * (pixels[(y - 3) * kWidth + x] + pixels[(y + 3) * kWidth + x])));
      }
    }
    std::nth_element(d.begin(), d.begin() + d.size() / 2, d.end());
    return d[d.size() / 2];
  };
  const double four = noise(stack(4, "--reject none --normalize none")),
               sixteen = noise(stack(kFrames, "--reject none --normalize none"));
  EXPECT_NEAR(four / sixteen, 2, 0.25);

  // The trail and the cosmic rays are in the mean, and gone from the clipped mean.
  const std::vector<float> mean = stack(kFrames, "--reject none --normalize level");
  const double x0 = truth["trail"]["x0"], y0 = truth["trail"]["y0"], x1 = truth["trail"]["x1"],
               y1 = truth["trail"]["y1"];
  const json& trailed = truth["lights"][kFrames / 2];
  const double a = -trailed["rotation_deg"].get<double>() * std::numbers::pi / 180;
  std::vector<double> trail, clean;
  for (int i = 60; i < kWidth - 60; ++i) {
    const double px = x0 + (x1 - x0) * i / kWidth - (kWidth - 1) / 2.0 - trailed["dx"].get<double>(),
                 py = y0 + (y1 - y0) * i / kWidth - (kHeight - 1) / 2.0 - trailed["dy"].get<double>();
    const int x = static_cast<int>(std::lround(std::cos(a) * px - std::sin(a) * py + (kWidth - 1) / 2.0)),
              y = static_cast<int>(std::lround(std::sin(a) * px + std::cos(a) * py + (kHeight - 1) / 2.0));
    if (x < 0 || x >= kWidth || y < 8 || y >= kHeight - 8) continue;
    const auto above = [&](const std::vector<float>& image) {
      return image[y * kWidth + x] - 0.5 * (image[(y - 8) * kWidth + x] + image[(y + 8) * kWidth + x]);
    };
    trail.push_back(above(mean));
    clean.push_back(above(result));
  }
  ASSERT_GT(trail.size(), 50);
  std::nth_element(trail.begin(), trail.begin() + trail.size() / 2, trail.end());
  std::nth_element(clean.begin(), clean.begin() + clean.size() / 2, clean.end());
  EXPECT_GT(trail[trail.size() / 2], 20);
  EXPECT_LT(std::abs(clean[clean.size() / 2]), 6);
}

}  // namespace
}  // namespace korimg::tool
