#include <algorithm>
#include <cmath>
#include <filesystem>
#include <string>

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <signal.h>

#include "session/files/Mosaic.h"
#include "session/stack/internal/RejectedPixels.h"
#include "tests/app/Tool.h"

namespace korimg::tool {
namespace {

namespace fs = std::filesystem;
using files::Header;
using files::Planes;
using nlohmann::json;
using test::Noise;

/// Some 1.2 pixels wide star of an unmoved sky, over each pixel.
double StarsAt(double x, double y) {
  const double sigma = 1.2 / 2.3548;
  const auto share = [&](double d) {
    return (std::erf((d + 0.5) / (sigma * std::sqrt(2))) - std::erf((d - 0.5) / (sigma * std::sqrt(2)))) / 2;
  };
  double light = 0;
  for (int k = 0; k < 12; ++k) {
    light += 20000 * share(x - 8.3 - 7.7 * (k % 4)) * share(y - 7.6 - 8.4 * (k / 4));
  }
  return light;
}

class DrizzleTest : public files::ToolTest {
 protected:
  int width_ = 43, height_ = 37;

  /// Frames f00.fits ... with a level, noise and place of their own, and their transforms t.jsonl. `dx` and
  /// `dy` tell what moves frame i to the reference, the first.
  void Frames(int count, int planes, const std::function<double(int)>& dx,
              const std::function<double(int)>& dy, const std::function<double(int, int, int)>& more = {}) {
    std::string lines;
    for (int i = 0; i < count; ++i) {
      Header header;
      header.Set("EXPTIME", 60.0);
      header.Set("XPIXSZ", 3.76);
      header.Set("EGAIN", 0.8);
      for (const auto& [key, value] : {std::pair("CRPIX1", 20.0),
                                       {"CRPIX2", 15.5},
                                       {"CRVAL1", 83.0},
                                       {"CRVAL2", -5.0},
                                       {"CDELT1", -4e-4},
                                       {"CDELT2", 4e-4}}) {
        header.Set(key, value);
      }
      header.Set("CTYPE1", "RA---TAN");
      header.Set("CTYPE2", "DEC--TAN");
      const std::string name = fmt::format("f{:02}.fits", i);
      Save(
          name, width_, height_, planes,
          [&](int p, int x, int y) {
            const double noise = Noise(i * 90000000LL + p * 900000 + y * 9000 + x) +
                                 Noise(i * 70000000LL + p * 700000 + y * 7000 + x + 13) - 1;
            return 1000 + 50 * i + 10 * p + (20 + 5 * (i % 3) + p) * noise + StarsAt(x + dx(i), y + dy(i)) +
                   (more ? more(i, x, y) : 0);
          },
          header);
      lines +=
          json{{"file", name}, {"dx", dx(i)}, {"dy", dy(i)}, {"degrees", 0}, {"status", "ok"}}.dump() + "\n";
    }
    files::WriteBytes(In("t.jsonl"), lines);
  }

  void Run(const std::string& options) {
    const files::Result result = Shell("korimg stack f*.fits --transforms t.jsonl --overwrite " + options);
    ASSERT_EQ(result.code, 0) << result.err;
    err_ = result.err;
    out_ = result.out;
  }

  std::string err_, out_;
};

/// Dithers of tenths of pixels.
double Tenths(int i) {
  return i == 0 ? 0 : (i * 7 % 23 - 11) / 10.0;
}

TEST_F(DrizzleTest, AsFineAsTheFramesAndMovedByWholePixelsItIsThePlainStack) {
  for (const int planes : {1, 3}) {
    // A cosmic ray and blank pixels, which are left out; corners that no frame reaches.
    Frames(
        7, planes, [](int i) { return 3.0 * (i % 3); }, [](int i) { return -2.0 * (i % 4); },
        [](int i, int x, int y) -> double {
          if (x == 5 && y % 6 == i) return NAN;
          return i == 3 && std::abs(x - y) < 2 ? 5000 : 0;
        });
    for (const std::string options :
         {"", "--reject none --weight none", "--normalize none --reject sigma", "--normalize level+scale"}) {
      Run("--reference f01.fits " + options + " -o plain.fits");
      Run("--reference f01.fits " + options + " --drizzle 1 --pixfrac 1 -o drizzled.fits");
      const Planes plain = Read("plain.fits"), drizzled = Read("drizzled.fits");
      for (int p = 0; p < planes; ++p) {
        for (int i = 0; i < width_ * height_; ++i) {
          ASSERT_EQ(std::isnan(plain[p][i]), std::isnan(drizzled[p][i])) << i % width_ << ", " << i / width_;
          // A stack brings what is left of a pixel to the sky of all frames, which is measured.
          if (std::isnan(plain[p][i])) continue;
          ASSERT_NEAR(drizzled[p][i], plain[p][i], 2) << options << ": " << i % width_ << ", " << i / width_;
        }
      }
    }
  }
}

TEST_F(DrizzleTest, ATrailIsTakenOut) {
  const auto dy = [](int i) { return -Tenths(i + 4); };
  const auto trail = [](int i, int x, int y) {
    return i == 5 && std::abs(y - 31 - x / 15.0) < 1.2 ? 3000 : 0;
  };
  Frames(12, 1, Tenths, dy, trail);
  Run("--drizzle 2 -o trail.fits --json");
  const json told = files::JsonLines(out_).back();
  EXPECT_NEAR(told["noise_correlation"], 1.4 / (1 - 1 / 4.2), 1e-9);
  EXPECT_GT(told["frames"][5]["rejected_high"], 0.02);
  EXPECT_EQ(fs::path(told["weights"]).filename(), "trail_weights.fits");
  Run("--drizzle 2 --reject none -o all.fits");
  Frames(12, 1, Tenths, dy);
  Run("--drizzle 2 --reject none -o clean.fits");
  const Planes taken = Read("trail.fits"), all = Read("all.fits"), clean = Read("clean.fits");
  double worst = 0, worstOfAll = 0;
  for (int y = 58; y < 2 * height_; ++y) {
    for (int x = 8; x < 2 * width_ - 8; ++x) {
      const size_t i = y * 2UL * width_ + x;
      if (std::isnan(clean[0][i])) continue;
      worst = std::max(worst, 1.0 * std::abs(taken[0][i] - clean[0][i]));
      worstOfAll = std::max(worstOfAll, 1.0 * std::abs(all[0][i] - clean[0][i]));
    }
  }
  EXPECT_GT(worstOfAll, 200);
  EXPECT_LT(worst, 40) << "of 3000 in one of 12 frames";
}

TEST_F(DrizzleTest, StarsAreSharperAndKeepTheirLight) {
  const auto dither = [](int i) { return i == 0 ? 0 : 3 * Noise(i) - 1.5; };
  Frames(60, 1, dither, [&](int i) { return dither(i * 1000); });
  /// Light of all stars, and the area that it lies on, in pixels of frames.
  const auto measure = [&](const std::string& options, int scale) {
    Run("--reject none " + options + " -o out.fits");
    const Planes image = Read("out.fits");
    double light = 0, squares = 0;
    for (int y = 4 * scale; y < 28 * scale; ++y) {
      for (int x = 4 * scale; x < 35 * scale; ++x) {
        const double v = image[0][1UL * y * width_ * scale + x] - 1000;
        light += v;
        squares += v * v;
      }
    }
    return std::pair(light / scale / scale, light * light / squares / scale / scale);
  };
  const auto [plain, plainArea] = measure("--undershoot keep", 1);
  const auto [light, area] = measure("--drizzle 2 --pixfrac 0.5", 2);
  EXPECT_NEAR(plain / (12 * 20000), 1, 2e-3);
  EXPECT_NEAR(light / (12 * 20000), 1, 2e-3);
  // By convolution of the star with pixel, drop and fine pixel, or with pixel and bicubic kernel: 0.949.
  EXPECT_NEAR(area / plainArea, 0.949, 0.02);
}

TEST_F(DrizzleTest, TheHeaderIsOfTheFineGrid) {
  Frames(6, 1, Tenths, Tenths);
  Run("--drizzle 1.5 --pixfrac 0.8 --drizzle-kernel gaussian -o out.fits");
  for (const char* name : {"out.fits", "out_weights.fits"}) {
    const auto reader = files::ImageReader::Open(In(name));
    const files::ImageInfo& info = reader->Info();
    EXPECT_EQ(info.width, 65);
    EXPECT_EQ(info.height, 56);
    // The corner of the first pixel stays: 19.5 of its pixels from the reference position, 29.25 of these.
    EXPECT_NEAR(*info.header.GetDouble("CRPIX1"), 29.75, 1e-9);
    EXPECT_NEAR(*info.header.GetDouble("CRPIX2"), 23, 1e-9);
    EXPECT_NEAR(*info.header.GetDouble("CDELT2"), 4e-4 / 1.5, 1e-12);
    EXPECT_NEAR(*info.header.GetDouble("XPIXSZ"), 3.76 / 1.5, 1e-9);
    EXPECT_EQ(*info.header.GetDouble("LIVETIME"), 360);
    const std::string cards = fmt::format("{}", fmt::join(info.header.cards, "\n"));
    EXPECT_NE(cards.find("0.8 --drizzle-kernel gaussian"), std::string::npos) << cards;
    EXPECT_EQ(cards.find("CRPIX1,"), std::string::npos) << "frames do not differ in it";
  }
  Run("--reject none -o plain.fits");
  const auto gain = [&](const char* name) {
    return *files::ImageReader::Open(In(name))->Info().header.GetDouble("KORLGAIN");
  };
  EXPECT_NEAR(gain("out.fits"), gain("plain.fits") / 2.25, 1e-6 * gain("plain.fits"));
  // A sample falls whole: weights of all pixels are those of the frames' pixels inside.
  Run("--drizzle 1.5 --weight none --reject none -o out.fits");
  const Planes weights = Read("out_weights.fits");
  double sum = 0;
  for (const float w : weights[0]) {
    sum += w;
  }
  EXPECT_NEAR(sum / (6.0 * width_ * height_), 1, 0.03);
}

TEST_F(DrizzleTest, BandsDoNotShowAndAKilledRunGoesOn) {
  height_ = 150;
  const auto dy = [](int i) { return Tenths(i + 3); };
  Frames(9, 3, Tenths, dy, [](int i, int x, int y) { return i == 5 && std::abs(x - y) < 2 ? 3000 : 0; });
  const std::string call = "korimg stack f*.fits --transforms t.jsonl --drizzle 2.5 --overwrite ";
  const files::Result whole = Shell(call + "-o whole.fits --json");
  ASSERT_EQ(whole.code, 0) << whole.err;
  const files::Result banded = Shell(call + "-o banded.fits --json --memory 400K --threads 1");
  ASSERT_EQ(banded.code, 0) << banded.err;
  EXPECT_EQ(files::JsonLines(whole.out).back()["bands"], 1);
  EXPECT_GT(files::JsonLines(banded.out).back()["bands"], 3);
  const auto expectSame = [&](const char* name) {
    for (const char* end : {"", "_weights"}) {
      const Planes got = Read(fmt::format("{}{}.fits", name, end)),
                   wanted = Read(fmt::format("whole{}.fits", end));
      for (int p = 0; p < 3; ++p) {
        EXPECT_TRUE(std::equal(got[p].begin(), got[p].end(), wanted[p].begin(), wanted[p].end(),
                               [](float a, float b) { return a == b || (std::isnan(a) && std::isnan(b)); }))
            << name << end << ", plane " << p;
      }
    }
  };
  expectSame("banded");
  // Each row of a frame is counted in one band; one lies beyond the grid.
  const files::Result all = Shell(call + "--reject none -o all.fits --json --memory 400K --threads 1");
  EXPECT_GT(files::JsonLines(all.out).back()["bands"], 1);
  for (const int i : {0, 1}) {  // moved down and up
    EXPECT_EQ(files::JsonLines(all.out).back()["frames"][i]["covers"], 149.0 / 150);
  }
  // Killed while outliers are looked for, and while pixels are dropped.
  const std::vector<std::string> words = {
      "korimg",    "stack",    "-o",       "out.fits",     "--drizzle", "2.5",      "--memory", "400K",
      "--threads", "1",        "--resume", "--transforms", "t.jsonl",   "f00.fits", "f01.fits", "f02.fits",
      "f03.fits",  "f04.fits", "f05.fits", "f06.fits",     "f07.fits",  "f08.fits"};
  const auto size = [&](const char* name) -> std::uintmax_t {
    std::error_code none;
    const auto bytes = fs::file_size(In(name), none);
    return none ? 0 : bytes;
  };
  int killed = 0;
  killed += files::RunAndKill(folder_, words, SIGKILL, [&] { return size("out.fits.rejected") > 3000; });
  killed += files::RunAndKill(folder_, words, SIGKILL, [&] { return size("out.fits.resume") > 20000; });
  EXPECT_GT(killed, 0);
  const files::Result resumed = Shell(
      "korimg stack f*.fits --transforms t.jsonl --drizzle 2.5 --memory 400K --resume -o out.fits --threads "
      "2");
  ASSERT_EQ(resumed.code, 0) << resumed.err;
  expectSame("out");
  for (const char* left : {"out.fits.rejected", "out.fits.resume"}) {
    EXPECT_FALSE(fs::exists(In(left))) << left;
  }
}

TEST_F(DrizzleTest, SitesOfMosaicsKeepTheirColours) {
  constexpr double kLevels[] = {1000, 2500, 4000};  // of red, green and blue
  for (const auto& [pattern, cfa] : {std::pair("GBRG", 4), {"HONEYCOMB2", 12}}) {
    std::string lines;
    for (int i = 0; i < 20; ++i) {
      Header header;
      header.Set("BAYERPAT", pattern);
      header.Set("ROWORDER", "TOP-DOWN");
      const std::string name = fmt::format("f{:02}.fits", i);
      Frame(
          name, width_, height_,
          [&, cfa = cfa](int, int x, int y) {
            const int colour = files::ColourOfSite(cfa, x, y);
            // A trail in one of them, and little noise.
            const bool isTrail = i == 7 && std::abs(y - x) < 3 && x > 11 && x < 28;
            return colour < 0 ? 0 : kLevels[colour] + 2 * Noise(1000 * i + 77 * y + x) + (isTrail ? 2000 : 0);
          },
          "float32", header);
      lines += json{{"file", name},
                    {"dx", 1.3 * Tenths(i)},
                    {"dy", Tenths(3 * i + 1)},
                    {"degrees", 0.5 * i},
                    {"status", "ok"}}
                   .dump() +
               "\n";
    }
    files::WriteBytes(In("t.jsonl"), lines);
    // Levels and noise are those of single colours, and what lies between sites has neither.
    Run("--drizzle 1.5 --pixfrac 1 --normalize none --undershoot keep --reference f00.fits -o out.fits");
    const Planes got = Read("out.fits"), weights = Read("out_weights.fits");
    ASSERT_EQ(got.size(), 3);
    size_t reached = 0;
    for (int p = 0; p < 3; ++p) {
      for (size_t i = 0; i < got[p].size(); ++i) {
        ASSERT_EQ(std::isnan(got[p][i]), weights[p][i] == 0);
        if (std::isnan(got[p][i])) continue;
        ++reached;
        ASSERT_NEAR(got[p][i], kLevels[p] + 1, 1.01) << pattern << ", plane " << p << ", " << i;
      }
    }
    EXPECT_GT(reached, 2 * got[0].size());
    EXPECT_FALSE(files::ImageReader::Open(In("out.fits"))->Info().header.GetString("BAYERPAT"));
    // The same without a trail being told.
    Run("--drizzle 1.5 --pixfrac 1 --normalize none --reject none -o out.fits");
    double most = 0;
    const Planes unrejected = Read("out.fits");
    for (const float v : unrejected[1]) {
      most = std::max<double>(most, v);
    }
    EXPECT_GT(most, kLevels[1] + 50);
  }
}

TEST_F(DrizzleTest, ARunDrizzlesMonoLightsAndTheSitesOfColourOnes) {
  for (const char* camera : {"", "--bayer GRBG"}) {
    ASSERT_EQ(
        Shell(fmt::format("korimg simulate night --frames 9 --size 220x160 --overwrite {}", camera)).code, 0);
    for (const char* options : {"--out plain", "--out fine --drizzle 2 --pixfrac 1"}) {
      const files::Result result = Shell(fmt::format("korimg run night {} --overwrite --json", options));
      ASSERT_EQ(result.code, 0) << result.err;
    }
    const Planes plain = Read("plain/stack.fits"), fine = Read("fine/stack.fits"),
                 weights = Read("fine/stack_weights.fits");
    ASSERT_EQ(fine.size(), plain.size());
    for (size_t p = 0; p < plain.size(); ++p) {
      ASSERT_EQ(fine[p].size(), 4 * plain[p].size());
      ASSERT_EQ(weights[p].size(), fine[p].size());
      // Fine pixels of four, beside the plain one.
      std::vector<double> off, noise;
      for (int y = 20; y < 140; ++y) {
        for (int x = 20; x < 200; ++x) {
          double sum = 0;
          for (const int i : {0, 1, 440, 441}) {
            sum += fine[p][2UL * y * 440 + 2 * x + i];
          }
          if (std::isnan(sum)) continue;
          off.push_back(sum / 4 - plain[p][y * 220 + x]);
          noise.push_back(std::abs(off.back()));
        }
      }
      ASSERT_GT(off.size(), 120 * 180 / 2) << "9 lights leave holes in red and blue";
      std::sort(off.begin(), off.end());
      std::sort(noise.begin(), noise.end());
      EXPECT_LT(std::abs(off[off.size() / 2]), 0.2 * noise[noise.size() / 2]) << camera << ", plane " << p;
      EXPECT_LT(noise[noise.size() / 2], 25);
    }
    // What is there serves again.
    const files::Result again = Shell("korimg run night --out fine --drizzle 2 --pixfrac 1");
    ASSERT_EQ(again.code, 0) << again.err;
    EXPECT_NE((again.out + again.err).find("as it was made before"), std::string::npos) << again.out;
    fs::remove_all(In("night"));
    fs::remove_all(In("plain"));
    fs::remove_all(In("fine"));
  }
}

TEST_F(DrizzleTest, RejectedPixelsAreKeptWhole) {
  const Shape shape{13, 9, 2};
  const auto open = [&](const std::string& digest) {
    return RejectedPixels(In("x"), digest, shape, 3, Journal::Kept);
  };
  const auto isMarked = [](int frame, int x, int y, int plane) {
    return (x * 5 + y * 7 + frame * 3 + plane) % 4 == 0;
  };
  const auto add = [&](RejectedPixels& pixels, int rows) {
    pixels.Begin(rows + 2);
    const int top = pixels.Rows();
    for (int i = 0; i < 3 * 2 * rows * 13; ++i) {
      const int frame = i % 3, plane = i / 3 % 2, x = i / 6 % 13, y = top + i / 78;
      if (isMarked(frame, x, y, plane)) pixels.Mark(frame, x, y, plane);
    }
    pixels.End(rows, {{1, 2, 3}, {4, 5, 6}, {7, 8, rows}});
  };
  {
    RejectedPixels pixels = open("a");
    add(pixels, 4);
    add(pixels, 3);
  }
  RejectedPixels pixels = open("a");
  ASSERT_EQ(pixels.Rows(), 7);
  EXPECT_EQ(pixels.Counts()[2].high, 7);
  add(pixels, 2);
  for (int frame = 0; frame < 3; ++frame) {
    const RejectedPixels::Bits bits = pixels.Of(frame, 2, 7);
    for (int i = 0; i < 2 * 7 * 13; ++i) {
      const int plane = i % 2, x = i / 2 % 13, y = 2 + i / 26;
      ASSERT_EQ(bits(x, y, plane), isMarked(frame, x, y, plane)) << frame << ": " << x << ", " << y;
    }
  }
  std::string bytes = files::ReadBytes(In("x.rejected"));
  bytes[bytes.find("a\n") + 4] ^= 1;
  files::WriteBytes(In("x.rejected"), bytes);
  EXPECT_EQ(open("a").Rows(), 0) << "its state is damaged";
  EXPECT_EQ(open("b").Rows(), 0) << "made from others";
}

TEST_F(DrizzleTest, UnevenWeightsAreWarnedOf) {
  Frames(3, 1, Tenths, Tenths);
  Run("--drizzle 3 --pixfrac 0.4 --reject none -o out.fits");
  EXPECT_NE(err_.find("use a larger --pixfrac"), std::string::npos) << err_;
  Run("--drizzle 1 --pixfrac 0.4 --reject none -o out.fits");
  EXPECT_EQ(err_.find("use a larger --pixfrac"), std::string::npos) << err_;
}

TEST_F(DrizzleTest, WhatDoesNotGoTogetherIsRefused) {
  Frames(3, 1, Tenths, Tenths);
  for (const auto& [options, message] :
       {std::pair("--drizzle 2 --method median", "no --method median"),
        {"--drizzle 2 --rejection-maps", "without --rejection-maps, --uncertainty, --mask, --frame union"},
        {"--drizzle 2 --frame union", "without --rejection-maps, --uncertainty, --mask, --frame union"},
        {"--pixfrac 0.5", "--drizzle"},
        {"--drizzle 0.9", "0.9"},
        {"--drizzle 2 --pixfrac 0", "--pixfrac"},
        {"--drizzle 2 --memory 5K", "use --memory"}}) {
    const files::Result result =
        Shell(fmt::format("korimg stack f*.fits --transforms t.jsonl -o out.fits {}", options));
    EXPECT_NE(result.code, 0) << options;
    EXPECT_NE(result.err.find(message), std::string::npos) << options << ": " << result.err;
    EXPECT_FALSE(fs::exists(In("out.fits")));
  }
  const files::Result plan =
      Shell("korimg stack f*.fits --transforms t.jsonl -o out.fits --drizzle 2 --dry-run");
  EXPECT_EQ(plan.code, 0);
  EXPECT_NE(plan.out.find("86 x 74: drizzled in 1 band"), std::string::npos) << plan.out;
  EXPECT_FALSE(fs::exists(In("out.fits")));
}

}  // namespace
}  // namespace korimg::tool
