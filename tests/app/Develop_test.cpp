// Development by the tool: from mosaics in files to colour images in files.
#include "session/develop/Develop.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "korimg/raw/CImgBayerToRgb.h"
#include "korimg/raw/CImgHoneyCombToRgb.h"

#include "session/files/Mosaic.h"
#include "tests/app/Tool.h"
#include "tests/support/Dng.h"
#include "tests/support/Simulated.h"

namespace korimg::files {
namespace {

using nlohmann::json;

class DevelopTest : public ToolTest {
 protected:
  static constexpr int kWidth = 60, kHeight = 41;

  /// A scene of one colour behind a pattern, on an offset.
  static test::PixelRule Plain(const std::string& pattern, std::array<double, 3> colour, double offset) {
    return [=](int, int x, int y) {
      const size_t plane = std::string("RGB").find(pattern[static_cast<size_t>(y % 2 * 2 + x % 2)]);
      return offset + colour[plane];
    };
  }

  static test::Dng Raw(const std::string& pattern, std::array<double, 3> colour, std::array<int, 4> black) {
    test::Dng dng;
    dng.width = kWidth;
    dng.height = kHeight;
    dng.pattern = pattern;
    dng.black = black;
    for (int y = 0; y < dng.height; ++y) {
      for (int x = 0; x < dng.width; ++x) {
        dng.pixels.push_back(static_cast<std::uint16_t>(
            Plain(pattern, colour, black[static_cast<size_t>(y % 2 * 2 + x % 2)])(0, x, y)));
      }
    }
    return dng;
  }

  /// All pixels of the planes are these values.
  static void ExpectColour(const Planes& planes, const std::vector<double>& colour, double tolerance = 1e-3) {
    ASSERT_EQ(planes.size(), colour.size());
    for (size_t p = 0; p < planes.size(); ++p) {
      for (const float v : planes[p]) {
        ASSERT_NEAR(v, colour[p], tolerance) << "plane " << p;
      }
    }
  }
};

TEST_F(DevelopTest, CameraRawTakesBlackAndGainsFromItsFile) {
  test::Dng dng = Raw("BGGR", {400, 800, 500}, {510, 520, 530, 540});
  dng.neutral = {0.5, 1, 0.625};
  test::WriteDng(In("a.dng"), dng);
  const Result r = Shell("korimg develop a.dng --out done --previews --json");
  ASSERT_EQ(r.code, 0) << r.err;
  const json told = json::parse(r.out);
  EXPECT_EQ(told["mosaic"], "BGGR");
  EXPECT_EQ(told["white_balance"], "the camera's");
  EXPECT_TRUE(std::filesystem::exists(In("done/previews/a.png")));
  const auto reader = ImageReader::Open(In("done/a.fits"));
  ExpectColour(ReadAll(*reader, 64), {800, 800, 800}, 0.1);
  EXPECT_EQ(FindMosaic(reader->Info()).name, "");
  EXPECT_FALSE(reader->Info().header.GetString("BAYERPAT"));
  EXPECT_EQ(reader->Info().header.GetString("INSTRUME"), "Canon EOS 6D");

  ASSERT_EQ(Shell("korimg develop a.dng --out none.fits --white-balance none").code, 0);
  ExpectColour(Read("none.fits"), {400, 800, 500});
  ASSERT_EQ(Shell("korimg develop a.dng --out half.fits --half").code, 0);
  const auto half = ImageReader::Open(In("half.fits"));
  EXPECT_EQ(std::pair(half->Info().width, half->Info().height), std::pair(30, 20));
  ExpectColour(ReadAll(*half, 64), {800, 800, 800}, 0.1);
  ASSERT_EQ(Shell("korimg develop a.dng --out mono.fits --mono --white-balance 2,1,1,2").code, 0);
  ExpectColour(Read("mono.fits"), {(800 + 800 + 1000) / 3.0}, 0.1);
  // 16 bits: white of the file, 16383 less its black, is 65535.
  ASSERT_EQ(Shell("korimg develop a.dng --out sixteen.tif --bits 16 --white-balance none").code, 0);
  const auto sixteen = ImageReader::Open(In("sixteen.tif"));
  EXPECT_EQ(sixteen->Info().type, "uint16");
  ExpectColour(ReadAll(*sixteen, 64), {400 * 65535 / 15873.0, 800 * 65535 / 15873.0, 500 * 65535 / 15873.0},
               0.6);
  ASSERT_EQ(Shell("korimg develop a.dng --out float.tif --white-balance none").code, 0);
  EXPECT_EQ(ImageReader::Open(In("float.tif"))->Info().type, "float32");
  // Noise below black is kept.
  ASSERT_EQ(
      Shell("korimg apply calculate op=subtract value=1300 a.dng -o low.fits && "
            "korimg develop low.fits --black 100 --out low.tif --cfa BGGR --bits 16 --white-balance none")
          .code,
      0);
  EXPECT_LT(Read("low.tif")[0][500], -100);
  ASSERT_EQ(Shell("korimg develop a.dng --out wrong.fits --cfa rggb --white-balance none").code, 0);
  ExpectColour(Read("wrong.fits"), {500, 800, 400}, 31);
}

TEST_F(DevelopTest, MosaicsOfFitsFilesByTheirKeywords) {
  Header header;
  header.Set("BAYERPAT", "RGGB");
  header.Set("ROWORDER", "BOTTOM-UP");
  header.Set("XBAYROFF", 1);
  header.Set("OBJECT", "M 31");
  // Upright GRBG; of 40 rows, bottom-up: BGGR is what is stored. Frames are read upright.
  Frame("a.fits", kWidth, 40, Plain("BGGR", {400, 800, 500}, 1000), "uint16", header);
  EXPECT_NE(Shell("korimg info a.fits").out.find("mosaic GRBG from the upper left corner on"),
            std::string::npos);
  // Its rows, whose order it does not state, are the sensor's.
  const auto dark = [](int, int, int y) { return 1000 + 10 * (y / 2); };
  Frame("dark.fits", kWidth, 40, dark, "uint16");
  Frame(
      "steep.fits", kWidth, 40,
      [&](int p, int x, int y) {
        return dark(p, x, y) + Plain("BGGR", {400, 800, 500}, 0)(p, x, y);
      },
      "uint16", header);
  ASSERT_EQ(Shell("korimg develop steep.fits --dark dark.fits --out steep --white-balance none").code, 0);
  ExpectColour(Read("steep/steep.fits"), {400, 800, 500});
  Frame(
      "dark.fits", kWidth, 40, [](int, int, int) { return 1000; }, "uint16");
  // The flat's light is reddish, and falls off to both sides.
  const auto fall = [](int x) { return 1 - (x - 29.5) * (x - 29.5) / 1800; };
  Frame(
      "flat.fits", kWidth, 40,
      [&](int, int x, int y) {
        return fall(x) * Plain("BGGR", {3000, 2000, 1000}, 0)(0, x, y);
      },
      "float32", header);
  Frame(
      "lit.fits", kWidth, 40,
      [&](int, int x, int y) {
        return 1000 + fall(x) * Plain("BGGR", {400, 800, 500}, 0)(0, x, y);
      },
      "float32", header);
  ASSERT_EQ(Shell("korimg develop a.fits --dark dark.fits --out done --white-balance none").code, 0);
  ExpectColour(Read("done/a.fits"), {400, 800, 500});
  const auto reader = ImageReader::Open(In("done/a.fits"));
  for (const char* key : {"BAYERPAT", "XBAYROFF"}) {
    EXPECT_FALSE(reader->Info().header.GetString(key)) << key;
  }
  EXPECT_EQ(reader->Info().header.GetString("OBJECT"), "M 31");
  EXPECT_EQ(reader->Info().header.GetString("ROWORDER"), "BOTTOM-UP");
  ASSERT_EQ(Shell("korimg develop a.fits --black 1000 --out auto.fits").code, 0);
  ExpectColour(Read("auto.fits"), {800, 800, 800}, 0.01);
  const Result flat = Shell(
      "korimg develop lit.fits --dark dark.fits --flat flat.fits --out flat.fits.d --white-balance none");
  ASSERT_EQ(flat.code, 0) << flat.err;
  const Planes planes = Read("flat.fits.d/lit.fits");
  for (int p = 0; p < 3; ++p) {
    const double expected[] = {400, 800, 500};
    for (const float v : planes[p]) {
      ASSERT_NEAR(v / planes[1][0], expected[p] / 800, 0.001) << p;
    }
  }
  // Pixels from 0 to 1 are balanced by their medians as well.
  Frame("unit.fits", kWidth, 40, Plain("BGGR", {0.25, 0.5, 0.125}, 0), "float32", header);
  ASSERT_EQ(Shell("korimg develop unit.fits --out unit.d --white-balance auto").code, 0);
  ExpectColour(Read("unit.d/unit.fits"), {0.5, 0.5, 0.5}, 1e-6);
}

TEST_F(DevelopTest, WhatCannotBeDoneIsSaidAndNothingIsLost) {
  Header other;
  other.Set("BAYERPAT", "GMYC");
  Frame("mono.fits", 20, 20, test::Random(0, 100), "uint16");
  Frame("gmyc.fits", 20, 20, test::Random(0, 100), "uint16", other);
  Frame("small.fits", 5, 20, test::Random(0, 100), "uint16");
  Frame("dark.fits", 20, 21, test::Random(0, 100), "uint16");
  WriteBytes(In("taken.fits"), "mine");
  const struct {
    const char *command, *says;
    int code;
  } cases[] = {
      {"mono.fits --out a", "give --cfa", 1},
      {"gmyc.fits --out a", "pattern GMYC is not supported", 1},
      {"small.fits --cfa RGGB --out a", "too small", 1},
      {"mono.fits --cfa RGGB --white-balance camera --out a", "knows no white balance", 1},
      {"mono.fits --cfa RGGB --dark dark.fits --out a", "20 x 21", 1},
      {"mono.fits --cfa RGGB --out taken.fits", "exists already", 1},
      {"mono.fits --cfa RGGB --out mono.fits --overwrite", "own result", 1},
      {"mono.fits --cfa RGGB --white-balance 1,2,3 --out a", "four positive gains", 2},
      {"mono.fits --cfa RGGB --white-balance 1,0,1,1 --out a", "four positive gains", 2},
      {"mono.fits --cfa RGGB --half --mono --out a", "--half takes neither", 2},
      {"mono.fits gmyc.fits --cfa RGGB --out a.fits", "need a folder", 2},
      {"mono.fits --cfa RGBG --out a", "RGBG", 2},
  };
  for (const auto& c : cases) {
    const Result r = Shell(std::string("korimg develop ") + c.command);
    EXPECT_EQ(r.code, c.code) << c.command << r.err;
    EXPECT_NE(r.err.find(c.says), std::string::npos) << c.command << ": " << r.err;
    EXPECT_TRUE(!std::filesystem::exists(In("a")) || std::filesystem::is_empty(In("a"))) << c.command;
  }
  EXPECT_EQ(ReadBytes(In("taken.fits")), "mine");
  EXPECT_EQ(Read("mono.fits").size(), 1u);
}

TEST_F(DevelopTest, BandsAreTheWholeInParts) {
  const auto store = test::MemoryStore();
  for (const int height : {6, 127, 128, 133, 134, 263, 391}) {
    for (int options = 0; options <= 4; ++options) {
      session::DevelopOptions develop;
      develop.mono = options & 1;
      develop.levelCut = options & 2;
      develop.gamma = options & 2 ? 2.2 : 1;
      develop.half = options == 4;
      const auto image = test::Make(store, 37, height, 1, test::Random(-10, 900));
      ImageInfo info;
      info.planes = 1;
      session::WhiteBalance balance{{1.5, 1, 1, 2}, "as told"};
      Mosaic mosaic{1, "RGGB", ""};
      const auto whole = test::Make<CImgBayerToRgb>(store, 37, height, 1, test::Random(-10, 900));
      whole->SetLevel(0, image->GetLevelMin(0), image->GetLevelMax(0));
      tagBayerStruct bayer;
      bayer.nCFA = 1;
      bayer.nSrcBits = bayer.nDstBits = -32;
      bayer.bMono = develop.mono;
      bayer.bToneCurve = !develop.half;
      bayer.pGain = balance.gains.data();
      bayer.bLevelCut = bayer.bGamma = develop.levelCut;
      bayer.dGamma = 2.2;
      bayer.bRoundUp = develop.half;
      bayer.nRoundUpGreen = 2;
      ASSERT_TRUE(whole->Do(bayer, 0));
      if (develop.half) balance.gains = {1, 1, 1, 1};
      session::Development bands(session::MosaicSource(*image), info, mosaic, balance, develop);
      session::Job job;
      int next = 0;
      bands.ForBands(job, "", [&](std::unique_ptr<CVelImage> part) {
        CVelImage& band = *part;
        for (int p = 0; p < band.GetPlanes(); ++p) {
          for (int y = 0; y < band.GetHeight(); ++y) {
            const float *got = band.GetLine(0, y, p), *wanted = whole->GetLine(0, next + y, p);
            ASSERT_TRUE(std::equal(got, got + band.GetWidth(), wanted))
                << height << ' ' << options << ' ' << next + y;
          }
        }
        next += band.GetHeight();
      });
      EXPECT_EQ(next, whole->GetHeight());
    }
  }
}

TEST_F(DevelopTest, BandsOfAHoneycombAreTheWholeInParts) {
  const auto store = test::MemoryStore();
  for (const int height : {10, 127, 131, 138, 263}) {
    for (int cfa = 11; cfa <= 14; ++cfa) {
      const auto image = test::Make(store, 37, height, 1, test::Random(-10, 900));
      const auto whole = test::Make<CImgHoneyCombToRgb>(store, 37, height, 1, test::Random(-10, 900));
      tagHoneyCombStruct honeyComb;
      honeyComb.nCFA = cfa;
      honeyComb.nKind = 1;
      honeyComb.nSrcBits = honeyComb.nDstBits = -32;
      ASSERT_TRUE(whole->Do(honeyComb, 0));
      ImageInfo info;
      info.planes = 1;
      session::Development bands(session::MosaicSource(*image), info, {cfa, CfaName(cfa), ""}, {}, {});
      session::Job job;
      int next = 0;
      const auto compare = [&](std::unique_ptr<CVelImage> band) {
        for (int p = 0; p < 3; ++p) {
          for (int y = 0; y < band->GetHeight(); ++y) {
            const float *got = band->GetLine(0, y, p), *wanted = whole->GetLine(0, next + y, p);
            ASSERT_TRUE(std::equal(got, got + 37, wanted)) << height << ' ' << cfa << ' ' << next + y;
          }
        }
        next += band->GetHeight();
      };
      bands.ForBands(job, "", compare);
      EXPECT_EQ(next, height);
      for (next = 0; next < height;) {
        compare(bands.Rows(next, std::min(next + 3, height)));
      }
    }
  }
}

TEST_F(DevelopTest, HoneycombsByTheirKeywords) {
  constexpr const char* kRows[] = {"B.R.", ".G.G", "R.B.", ".G.G"};  // of 12
  const auto site = [&](int x, int y) { return kRows[y % 4][x % 4]; };
  const auto plain = [&](std::array<double, 3> colour, double offset) -> test::PixelRule {
    return [=](int, int x, int y) {
      return site(x, y) == '.' ? 0 : offset + colour[std::string("RGB").find(site(x, y))];
    };
  };
  Header header;
  header.Set("BAYERPAT", "HONEYCOMB2");
  Frame("a.fits", kWidth, kHeight, plain({400, 800, 500}, 1000), "uint16", header);
  Frame("bare.fits", kWidth, kHeight, plain({400, 800, 500}, 1000), "uint16");
  EXPECT_NE(Shell("korimg info a.fits").out.find("mosaic HONEYCOMB2"), std::string::npos);
  const struct {
    const char* options;
    std::vector<double> colour;
  } cases[] = {{"a.fits --white-balance none", {400, 800, 500}},
               {"a.fits", {800, 800, 800}},
               {"bare.fits --cfa honeycomb2 --white-balance 3,0.5,1.5,2", {1200, 800, 1000}},
               {"bare.fits --cfa HONEYCOMB1 --white-balance 1,2,2,1", {500, 1600, 400}},
               {"a.fits --mono --white-balance none", {0.3 * 400 + 0.59 * 800 + 0.11 * 500}}};
  for (const auto& [given, colour] : cases) {
    const Result r = Shell(std::string("korimg develop --overwrite --black 1000 --out done.fits ") + given);
    ASSERT_EQ(r.code, 0) << given << r.err;
    ExpectColour(Read("done.fits"), colour);
  }
  EXPECT_FALSE(ImageReader::Open(In("done.fits"))->Info().header.GetString("BAYERPAT"));
  // The flat's light is reddish, and falls off to both sides; between the sites it has none.
  const auto lit = [&](const test::PixelRule& rule, double offset) -> test::PixelRule {
    return [=](int p, int x, int y) {
      const double fall = 1 - (x - 29.5) * (x - 29.5) / 1800;
      return site(x, y) == '.' ? 0 : offset + fall * rule(p, x, y);
    };
  };
  Frame("lit.fits", kWidth, kHeight, lit(plain({400, 800, 500}, 0), 1000), "float32", header);
  Frame("dark.fits", kWidth, kHeight, plain({0, 0, 0}, 1000), "uint16");
  Frame("flat.fits", kWidth, kHeight, lit(plain({3000, 2000, 1000}, 0), 0), "float32", header);
  const Result flat =
      Shell("korimg develop lit.fits --dark dark.fits --flat flat.fits --out flat --white-balance none");
  ASSERT_EQ(flat.code, 0) << flat.err;
  const Planes planes = Read("flat/lit.fits");
  for (size_t p = 0; p < 3; ++p) {
    for (const float v : planes[p]) {
      ASSERT_NEAR(v / planes[1][0], (std::array{0.5, 1.0, 0.625})[p], 0.001) << p;
    }
  }
  // A crop by one column has no honeycomb of ours, and a file that begins there is not developed.
  EXPECT_EQ(Shell("korimg apply crop rect=1,0,50,40 a.fits -o cropped.fits").code, 2);
  ASSERT_EQ(Shell("korimg apply crop rect=3,1,50,40 a.fits -o cropped.fits").code, 0);
  EXPECT_EQ(ImageReader::Open(In("cropped.fits"))->Info().header.GetString("BAYERPAT"), "HONEYCOMB3");
  header.Set("XBAYROFF", 1);
  Frame("between.fits", kWidth, kHeight, plain({400, 800, 500}, 1000), "uint16", header);
  Frame("small.fits", 9, 20, plain({400, 800, 500}, 1000), "uint16");
  for (const auto& [given, says] : {std::pair("between.fits", "between two sites"),
                                    {"a.fits --half", "leave out --half"},
                                    {"small.fits --cfa HONEYCOMB2", "10 x 10 is the smallest"},
                                    {"a.fits --cfa HONEYCOMB5", "HONEYCOMB5"}}) {
    const Result r = Shell(std::string("korimg develop --black 1000 --out no ") + given);
    EXPECT_NE(r.code, 0) << given;
    EXPECT_NE(r.err.find(says), std::string::npos) << r.err;
  }
}

class ColourSessionTest : public DevelopTest, public testing::WithParamInterface<const char*> {};
INSTANTIATE_TEST_SUITE_P(Patterns, ColourSessionTest, testing::Values("GBRG", "HONEYCOMB4"));

TEST_P(ColourSessionTest, GivesColour) {
  korimg::session::SimulateOptions options;
  options.frames = 3;
  options.width = 240;
  options.height = 180;
  options.bayer = GetParam();
  test::Simulated(In("night"), options);
  const std::string calibrate =
      "korimg calibrate night/lights --dark night/darks --flat night/flats --bias night/biases ";
  const Result r =
      Shell(calibrate + "--out done --pedestal 100 && " + calibrate + "--out kept --keep-mosaic");
  ASSERT_EQ(r.code, 0) << r.err;
  std::vector<std::array<double, 3>> medians;
  for (const char* name : {"done/light_0001.fits", "done/light_0003.fits"}) {
    const auto reader = ImageReader::Open(In(name));
    Planes planes = ReadAll(*reader, 64);
    ASSERT_EQ(planes.size(), 3u);
    EXPECT_EQ(FindMosaic(reader->Info()).name, "");
    std::array<double, 3> sky;
    for (int p = 0; p < 3; ++p) {
      std::nth_element(planes[p].begin(), planes[p].begin() + 240 * 90, planes[p].end());
      sky[p] = planes[p][240 * 90] - 100;
    }
    // The sky of the first light is grey, and nearly so in the others.
    EXPECT_NEAR(sky[0] / sky[1], 1, 0.03) << name;
    EXPECT_NEAR(sky[2] / sky[1], 1, 0.03) << name;
    medians.push_back(sky);
  }
  // The flat takes nothing of its level; stars and nebula raise the median a little.
  const json truth = json::parse(ReadBytes(In("night/truth.json")));
  const double level = truth["sky"]["sky_e"].get<double>() * truth["flat"]["mean"].get<double>() /
                       truth["camera"]["gain_e_per_adu"].get<double>();
  EXPECT_NEAR(medians[0][1] / level, 1.01, 0.02);
  const auto kept = ImageReader::Open(In("kept/light_0001.fits"));
  EXPECT_EQ(kept->Info().planes, 1);
  EXPECT_EQ(FindMosaic(kept->Info()).name, GetParam());
  // A calibrated mosaic that was kept can be developed later, to the same.
  ASSERT_EQ(Shell("korimg develop kept/light_0001.fits --out later --white-balance none && " + calibrate +
                  "--out plain --white-balance none")
                .code,
            0);
  EXPECT_EQ(Read("later/light_0001.fits"), Read("plain/light_0001.fits"));
}

TEST_F(DevelopTest, SessionsOfCameraRawFiles) {
  // Lights of one colour on a black level with warm pixels, darks and flats that know them.
  const auto warm = [](int x, int y) { return x * 7 % 50 == 3 && y % 11 == 4 ? 900 : 0; };
  const auto fall = [](int x) { return 1 - (x - 29.5) * (x - 29.5) / 1800; };
  for (const char* folder : {"lights", "darks", "flats"}) {
    std::filesystem::create_directories(In("night") / folder);
  }
  const auto write = [&](const std::string& name, const std::function<double(int, int)>& rule) {
    test::Dng dng = Raw("RGGB", {0, 0, 0}, {512, 512, 512, 512});
    for (int y = 0; y < kHeight; ++y) {
      for (int x = 0; x < kWidth; ++x) {
        dng.pixels[static_cast<size_t>(y) * kWidth + x] = static_cast<std::uint16_t>(std::lround(rule(x, y)));
      }
    }
    dng.neutral = {0.5, 1, 0.8};
    test::WriteDng(In("night") / name, dng);
  };
  for (const char* n : {"1", "2", "3"}) {
    const std::string end = std::string(n) + ".dng";
    write("lights/light" + end, [&](int x, int y) {
      return 512 + warm(x, y) + fall(x) * Plain("RGGB", {2000, 4000, 3200}, 0)(0, x, y);
    });
    write("darks/dark" + end, [&](int x, int y) { return 512 + warm(x, y); });
    write("flats/flat" + end, [&](int x, int y) {
      return 512 + warm(x, y) + fall(x) * Plain("RGGB", {9000, 7000, 8000}, 0)(0, x, y);
    });
  }
  const Result r = Shell("korimg calibrate night/lights --dark night/darks --flat night/flats --out done");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.err.find("warning"), std::string::npos) << r.err;
  const Planes planes = Read("done/light2.fits");
  ASSERT_EQ(planes.size(), 3u);
  for (size_t p = 0; p < planes.size(); ++p) {
    for (size_t i = 0; i < planes[p].size(); ++i) {
      ASSERT_NEAR(planes[p][i] / planes[0][0], 1, 0.003) << p << ' ' << i % kWidth << ' ' << i / kWidth;
    }
  }
}

}  // namespace
}  // namespace korimg::files
