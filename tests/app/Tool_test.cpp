// The tool as a person or a script calls it.
#include "tests/app/Tool.h"

#include <cmath>
#include <cstring>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "session/operations/Operations.h"
#include "session/simulate/Simulate.h"

namespace korimg::files {
namespace {

using nlohmann::json;
namespace fs = std::filesystem;

TEST_F(ToolTest, InfoTellsWhatIsThere) {
  Header header;
  header.Set("EXPTIME", "060.00");
  header.Set("CCD-TEMP", -10.5);
  header.Set("BAYERPAT", "RGGB");
  Frame(
      "a b.fits", 40, 30, [](int, int x, int y) { return x + 40 * y; }, "uint16", header);
  const Result plain = Shell("korimg info 'a b.fits'");
  EXPECT_EQ(plain.code, 0);
  for (const char* part : {"40 x 30 x 1 uint16", "min 0, max 1199, mean 599.5, median 599.5",
                           "EXPTIME 060.00", "CCD-TEMP -10.5", "BAYERPAT RGGB"}) {
    EXPECT_NE(plain.out.find(part), std::string::npos) << part << " in " << plain.out;
  }
  const json j = json::parse(Shell("korimg info --json 'a b.fits'").out);
  EXPECT_EQ(j["file"], "a b.fits");
  EXPECT_EQ(std::tuple(j["width"], j["height"], j["planes"], j["type"]), std::tuple(40, 30, 1, "uint16"));
  EXPECT_EQ(j["max"][0], 1199);
  EXPECT_NEAR(j["stddev"][0].get<double>(), std::sqrt((1200.0 * 1200 - 1) / 12), 1e-6);
}

TEST_F(ToolTest, FramesAreReadUprightAndWrittenInTheirOwnOrder) {
  const auto rule = [](int, int x, int y) { return 100 + x + 10 * y; };  // of the stored rows
  constexpr int kWidth = 9, kHeight = 7;
  const auto header = [](const char* order, double determinant, const char* first = "RA---TAN") {
    Header h = determinant == 0 ? Header() : SkyFromBelow();
    if (*order) h.Set("ROWORDER", order);
    if (determinant == 0) return h;
    if (determinant > 0) h.Set("CD1_1", 0.5);
    h.Set("CTYPE1", first);
    h.Set("CTYPE2", first == std::string("RA---TAN") ? "DEC--TAN" : "RA---TAN");
    return h;
  };
  const struct {
    Header header;
    bool turned;
  } cases[] = {{header("", 0), false},
               {header("BOTTOM-UP", 0), true},
               {header("TOP-DOWN", -1), false},
               {header("BOTTOM-UP", 1), true},
               {header("", -1), true},
               {header("", 1), false},
               {header("", 1, "DEC--TAN"), true},
               {header("", -1, "DEC--TAN"), false}};
  for (const auto& c : cases) {
    Frame("a.fits", kWidth, kHeight, rule, "float32", c.header);
    const std::string what =
        c.header.GetString("ROWORDER").value_or("none") + c.header.GetString("CD1_1").value_or("");
    // Where nothing is stated, places count as rows are stored, in all verbs alike.
    const bool stated = c.header.GetString("ROWORDER") == "BOTTOM-UP";
    const auto reader = ImageReader::Open(In("a.fits"));
    EXPECT_EQ(reader->Info().header.turned, stated) << what;
    EXPECT_EQ(ReadAll(*reader, 3)[0][0], stated ? 160 : 100) << what;
    EXPECT_EQ(ReadAll(*reader, 4, true)[0][kWidth], stated ? 150 : 110) << what;
    const auto place = reader->Info().header.GetDouble("CRPIX2");
    EXPECT_TRUE(!place || *place == (stated ? kHeight + 1 - 2 : 2)) << what;
    ASSERT_EQ(Shell("korimg apply crop rect=2,1,6,3 a.fits -o cut.fits --overwrite").code, 0);
    EXPECT_EQ(Read("cut.fits")[0][0], stated ? 152 : 112) << what;
    // Pictures are upright, and FITS files as they were.
    ASSERT_EQ(Shell("korimg apply calculate op=add value=0 a.fits -o b.fits --overwrite && "
                    "korimg apply calculate op=add value=0 a.fits -o b.tif --overwrite")
                  .code,
              0);
    EXPECT_EQ(Read("b.tif")[0][0], c.turned ? 160 : 100) << what;
    const std::string before = ReadBytes(In("a.fits")), after = ReadBytes(In("b.fits"));
    const size_t bytes = (kWidth * kHeight * 4 + 2879) / 2880 * 2880;
    EXPECT_TRUE(before.substr(before.size() - bytes) == after.substr(after.size() - bytes)) << what;
    // What serves a frame lies as it does, unless it says otherwise.
    Frame("dark.fits", kWidth, kHeight, rule);
    ASSERT_EQ(Shell("korimg apply dark file=dark.fits a.fits -o c.fits --overwrite --store paged").code, 0);
    EXPECT_EQ(Read("c.fits")[0], std::vector<float>(kWidth * kHeight)) << what;
    const auto again = ImageReader::Open(In("b.fits"));
    EXPECT_EQ(again->Info().header.GetString("ROWORDER"), c.header.GetString("ROWORDER"))
        << "none is invented";
    EXPECT_EQ(again->Info().header.GetDouble("CRPIX2"), place) << what;
  }
}

TEST_F(ToolTest, SixteenBitsKeepColoursAndWhatIsBelowZero) {
  constexpr double kPlanes[] = {1, 2, 0.5};
  const auto rule = [&](int p, int x, int y) { return kPlanes[p] * (test::Noise(y * 900 + x) - 0.1); };
  Planes pixels(3, std::vector<float>(40 * 30));
  for (int p = 0; p < 3; ++p) {
    for (int i = 0; i < 40 * 30; ++i) {
      pixels[p][i] = static_cast<float>(rule(p, i % 40, i / 40));
    }
  }
  pixels[1][77] = INFINITY;
  WriteAll(*ImageWriter::Create(In("a.fits"), {.width = 40, .height = 30, .planes = 3}), pixels, 40, 30, 30);
  for (const char* name : {"b.png", "b.tif", "b.fits", "s.png"}) {
    const std::string call = name == std::string("s.png") ? "stack a.fits --normalize none "
                                                          : "apply calculate op=add value=0 a.fits ";
    const char* bits = fs::path(name).extension() == ".png" ? "" : " --bits 16";
    ASSERT_EQ(Shell("korimg " + call + "-o " + name + bits).code, 0);
    const Planes read = Read(name);
    for (int p = 0; p < 3; ++p) {
      for (int i = 0; i < 40 * 30; ++i) {
        if (p == 1 && i == 77) continue;
        ASSERT_NEAR(read[p][i], pixels[p][i], 2.0 / 65535) << name << p << " " << i;
      }
    }
  }
}

TEST_F(ToolTest, InfoPassesOverBlankPixels) {
  Frame("nan.fits", 9, 1, [](int, int x, int) { return x < 4 ? NAN : -10.0 * x; });
  const json j = json::parse(Shell("korimg info --json nan.fits").out);
  EXPECT_EQ(std::tuple(j["min"][0], j["max"][0], j["mean"][0], j["median"][0]),
            std::tuple(-80, -40, -60, -60));
  Frame("blank.fits", 3, 3, [](int, int, int) { return NAN; });
  EXPECT_TRUE(json::parse(Shell("korimg info --json blank.fits").out)["median"][0].is_null());
}

TEST_F(ToolTest, ColourFramesAreCalibratedPlaneByPlane) {
  const auto frame = [&](const std::string& name, const test::PixelRule& rule, int planes) {
    Planes pixels(planes, std::vector<float>(60 * 40));
    for (int p = 0; p < planes; ++p) {
      for (int i = 0; i < 60 * 40; ++i) {
        pixels[p][i] = static_cast<float>(rule(p, i % 60, i / 60));
      }
    }
    const auto writer = ImageWriter::Create(In(name), {.width = 60, .height = 40, .planes = planes});
    WriteAll(*writer, pixels, 60, 40, 16);
    return pixels;
  };
  const Planes light = frame("light.fits", test::Random(500, 2000), 3),
               dark = frame("dark.fits", test::Random(90, 110, 2), 1),
               flat = frame(
                   "flat.fits",
                   [](int p, int x, int y) { return (p + 1) * test::Random(900, 1100, 3)(p, x, y); }, 3);
  ASSERT_EQ(Shell("korimg calibrate --dark dark.fits --flat flat.fits --out done light.fits").code, 0);
  const Planes done = Read("done/light.fits");
  ASSERT_EQ(done.size(), 3u);
  for (int p = 0; p < 3; ++p) {
    double mean = 0;
    for (const float v : flat[p]) {
      mean += v / 2400.0;
    }
    for (int i = 0; i < 2400; ++i) {
      ASSERT_NEAR(done[p][i], (light[p][i] - dark[0][i]) * mean / flat[p][i], 0.01) << p << " " << i;
    }
  }
}

TEST_F(ToolTest, BadFilesAreOneLineEachAndTheOthersAreDone) {
  Frame("good.fits", 8, 8, [](int, int, int) { return 5; });
  WriteBytes(In("empty.fits"), "");
  WriteBytes(In("text.fits"), "not an image");
  const Result r = Shell("korimg info text.fits good.fits missing.fits empty.fits");
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.out.find("good.fits"), std::string::npos);
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 3) << r.err;
  for (const char* name : {"text.fits: ", "missing.fits: ", "empty.fits: "}) {
    EXPECT_NE(r.err.find(name), std::string::npos) << r.err;
  }
}

TEST_F(ToolTest, RawFilesNeedTheDecoderBesideTheTool) {
  WriteBytes(In("text.cr2"), "not a raw file, but long enough to be looked at");
  const Result there = Shell("korimg info text.cr2");
  EXPECT_EQ(there.code, 1);
  EXPECT_NE(there.err.find("(cannot read it as camera raw"), std::string::npos) << there.err;
  const Result absent = Shell("cp '" KORIMG_TOOL
                              "' alone && cp $(ldd alone | awk '/libkorimg/ {print $3}') . && "
                              "LD_LIBRARY_PATH=. ./alone info text.cr2");
  EXPECT_EQ(absent.code, 1);
  EXPECT_NE(absent.err.find("text.cr2: cannot be decoded without the program korimg-decoder"),
            std::string::npos)
      << absent.err;
}

TEST_F(ToolTest, WrongCallsExitWithTwoAndSayWhatToDo) {
  Frame("a.fits", 8, 8, [](int, int, int) { return 5; });
  struct Case {
    const char *arguments, *says;
  };
  for (const Case& c :
       {Case{"apply invrt a.fits -o b.fits", "did you mean 'invert'"},
        Case{"apply invert -o b.fits", "input image is missing"},
        Case{"apply bright brightness=3 a.fits -o b.fits", "no parameter 'brightness'"},
        Case{"apply calculate a.fits -o b.fits", "calculate wants value="},
        Case{"apply calculate op=divide value=0 a.fits -o b.fits", "division by 0"},
        Case{"apply invert a.fits a.fits -o b.fits", "one input image only"},
        Case{"apply invert a.fits -o b.fits --rect 5,5,2,9", "rectangle is empty"},
        Case{"apply invert a.fits -o b.fits --rect 5,5,2", "no rectangle"},
        Case{"apply to-gray a.fits -o b.fits --rect 0,0,4,4", "leave --rect out"},
        Case{"apply curve points=0:0,0.5:1 a.fits -o b.fits", "the last at x = 1"},
        Case{"apply rank rank=5 a.fits -o b.fits", "0 to 4, not 5"},
        Case{"apply invert a.fits -o b.fits --mask-reverse", "--mask"},
        Case{"apply invert a.fits -o b.fits --select-reverse", "--select"},
        Case{"apply to-colour then to-gray a.fits -o b.fits --mask a.fits", "8 x 8 x 3 of 8 x 8 x 1"},
        Case{"apply auto-level method=histogram low=0 high=0 a.fits -o b.fits", "must not be 0"},
        Case{"apply invert a.fits -o b.fits --memory lots", "no size"},
        Case{"render a.fits -o a.png --title x", "--annotate"},
        Case{"composite a.fits -o b.fits", "second"},
        Case{"composite a.fits a.fits -o b.fits --mode blend", "--mode"},
        Case{"composite a.fits a.fits -o b.fits --mode neighbour --angle 90", "less than 90"},
        Case{"composite a.fits a.fits -o b.fits --centre 5", "write X,Y"},
        Case{"composite a.fits a.fits -o b.fits --dx nan", "--dx"},
        Case{"composite a.fits a.fits -o b.fits --rect 5,5,5,5", "empty"},
        Case{"apply crop rect=0,0,30,5 a.fits -o b.fits", "not inside the image, 8 x 8"},
        Case{"apply flip a.fits -o b.fits --rect 0,0,5,5", "leave --rect out"},
        Case{"apply rotate degrees=45 a.fits -o b.fits --mask a.fits", "cannot blend"},
        Case{"simulate d --size 20", "no size"},
        Case{"nothing", ""},
        Case{"", ""}}) {
    const Result r = Shell("korimg " + std::string(c.arguments));
    EXPECT_EQ(r.code, 2) << c.arguments << "\n" << r.err;
    EXPECT_NE(r.err.find(c.says), std::string::npos) << c.arguments << "\n" << r.err;
  }
  EXPECT_FALSE(std::filesystem::exists(In("b.fits")));
}

TEST_F(ToolTest, FilesThatDontServeExitWithOneAndSayWhy) {
  Frame("a.fits", 20, 20, [](int, int x, int) { return x; });
  WriteBytes(In("bad.txt"), "1 2\n3\n");
  struct Case {
    const char *arguments, *says;
  };
  for (const Case& c :
       {Case{"render a.fits -o a.png --annotate", "names no OBJECT"},
        Case{"render a.fits -o a.png --annotate --scale-bar", "a.fits: does not say its scale"},
        Case{"render a.fits -o a.png --annotate --stars bad.txt", "line 2: '3' is no star"},
        Case{"render a.fits -o a.png --annotate --stars none.txt", "none.txt"},
        Case{"render a.fits -o a.gif", ".jpg"}, Case{"composite a.fits none.fits -o b.fits", "none.fits"},
        Case{"composite a.fits a.fits -o a.fits", "--overwrite"}}) {
    const Result r = Shell("korimg " + std::string(c.arguments));
    EXPECT_EQ(r.code, 1) << c.arguments << "\n" << r.err;
    EXPECT_NE(r.err.find(c.says), std::string::npos) << c.arguments << "\n" << r.err;
  }
  EXPECT_EQ(Names().size(), 4u) << "no more than the image, the list, and what the last call said";
}

TEST_F(ToolTest, ApplyRunsAListOfOperations) {
  Header header;
  header.Set("OBJECT", "M 42");
  Frame("a.fits", 50, 40, test::Random(0, 1000), "float32", header);
  ASSERT_EQ(Shell("korimg apply calculate value=10 then calculate op=multiply value=-2 a.fits -o b.fits "
                  "--rect 5,5,20,20")
                .code,
            0);
  const Planes a = Read("a.fits"), b = Read("b.fits");
  for (int y = 0; y < 40; ++y) {
    for (int x = 0; x < 50; ++x) {
      const bool inside = x >= 5 && x < 20 && y >= 5 && y < 20;
      const float v = a[0][y * 50 + x];
      ASSERT_FLOAT_EQ(b[0][y * 50 + x], inside ? (v + 10) * -2 : v);
    }
  }
  const auto reader = ImageReader::Open(In("b.fits"));
  EXPECT_EQ(reader->Info().header.GetString("OBJECT"), "M 42");
  bool told = false;
  for (const std::string& card : reader->Info().header.cards) {
    told |= card.find("HISTORY") == 0 && card.find("calculate value=10") != std::string::npos;
  }
  EXPECT_TRUE(told) << "HISTORY tells what was done";
}

TEST_F(ToolTest, MasksAndSelectionsLimitTheWholeList) {
  Frame("a.fits", 50, 40, test::Random(0, 1000));
  Frame(
      "mask.fits", 50, 40, [](int, int x, int) { return x < 25 ? 0 : 65535; }, "uint16");
  WriteBytes(In("p.txt"), "20 10\n40 10\n40 30\n20 30\n");
  ASSERT_EQ(Shell("korimg apply calculate value=10 then calculate value=5 a.fits -o b.fits --mask mask.fits "
                  "--mask-reverse --select p.txt --select-reverse")
                .code,
            0);
  const Planes a = Read("a.fits"), b = Read("b.fits");
  for (int i = 0; i < 2000; ++i) {
    const int x = i % 50, y = i / 50;
    const bool inside = x >= 20 && x <= 40 && y >= 10 && y <= 30;
    ASSERT_NEAR(b[0][i], a[0][i] + (x < 25 && !inside ? 15 : 0), 1e-3) << x << " " << y;
  }
  std::string history;
  const auto result = ImageReader::Open(In("b.fits"));
  for (const std::string& card : result->Info().header.cards) {
    if (card.starts_with("HISTORY")) history += card.substr(8, card.find_last_not_of(' ') - 7) + " ";
  }
  EXPECT_NE(history.find("value=5 --mask mask.fits --mask-reverse --select p.txt --select-reverse"),
            history.npos)
      << history;
  Frame("small.fits", 30, 20, [](int, int x, int) { return x; });
  const Result r = Shell("korimg apply invert a.fits -o c.fits --mask small.fits");
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("30 x 20, but the image is 50 x 40"), std::string::npos) << r.err;
}

TEST_F(ToolTest, WorldCoordinatesMoveWithThePixels) {
  Header header;
  header.Set("CRPIX1", 10.5);
  header.Set("CRPIX2", 20.5);
  Frame("a.fits", 50, 40, test::Random(0, 1000), "float32", header);
  ASSERT_EQ(Shell("korimg apply lift-up lines=7 a.fits -o b.fits").code, 0);
  const auto reader = ImageReader::Open(In("b.fits"));
  EXPECT_EQ(reader->Info().header.GetDouble("CRPIX2"), 13.5);
  EXPECT_EQ(reader->Info().header.GetDouble("CRPIX1"), 10.5);
  EXPECT_EQ(Read("b.fits")[0][3 * 50 + 4], Read("a.fits")[0][10 * 50 + 4]);
}

TEST_F(ToolTest, LevelsTravelWithTheImage) {
  Frame("a.fits", 20, 20, [](int, int x, int) { return 100 * x; });
  ASSERT_EQ(Shell("korimg apply level min=500 max=1500 a.fits -o b.fits").code, 0);
  const json j = json::parse(Shell("korimg info --json b.fits").out);
  EXPECT_EQ(j["level_min"][0], 500);
  EXPECT_EQ(j["level_max"][0], 1500);
  // A picture shows them: black at 500, white at 1500.
  ASSERT_EQ(Shell("korimg render b.fits -o b.png --level none").code, 0);
  const Planes picture = Read("b.png");
  EXPECT_EQ(picture[0][4], 0);
  EXPECT_EQ(picture[0][10], 127);  // 127.5 without its fraction
  EXPECT_EQ(picture[0][16], 255);
  for (const char* level : {"normal", "mean", "median", "histogram"}) {
    ASSERT_EQ(
        Shell(std::string("korimg render a.fits -o a.png --overwrite --scale 0.5 --level ") + level).code, 0);
    const auto reader = ImageReader::Open(In("a.png"));
    EXPECT_EQ(reader->Info().width, 10);
    const Planes p = Read("a.png");
    EXPECT_LT(p[0][0], p[0][9]) << level;
  }
}

TEST_F(ToolTest, OutputsAreNeverReplacedUnasked) {
  Frame("a.fits", 8, 8, [](int, int, int) { return 5; });
  Frame("b.fits", 8, 8, [](int, int, int) { return 7; });
  const std::string before = ReadBytes(In("b.fits"));
  const Result refused = Shell("korimg apply invert a.fits -o b.fits");
  EXPECT_EQ(refused.code, 1);
  EXPECT_NE(refused.err.find("--overwrite"), std::string::npos);
  EXPECT_EQ(ReadBytes(In("b.fits")), before);
  EXPECT_EQ(Shell("korimg apply invert a.fits -o b.fits --dry-run").code, 0);
  EXPECT_EQ(ReadBytes(In("b.fits")), before);
  EXPECT_EQ(Shell("korimg apply invert a.fits -o b.fits --overwrite").code, 0);
  EXPECT_NE(ReadBytes(In("b.fits")), before);
  // The input itself may be the output: it is read to its end before the new file takes its name.
  EXPECT_EQ(Shell("korimg apply invert a.fits -o a.fits --overwrite").code, 0);
  EXPECT_EQ(Read("a.fits")[0].size(), 64u);
}

TEST_F(ToolTest, ImagesLargerThanTheMemoryComeOutTheSame) {
  // 77 MB of pixels; what is private stays within the budget of 8 MiB plus 150 MB, which ulimit enforces.
  Frame("big.fits", 5003, 3847, test::Random(0, 1000), "uint16");
  const std::string steps = "apply invert then bright bright=20 contrast=30 then rebase-to-zero big.fits ";
  ASSERT_EQ(Shell("korimg " + steps + "-o whole.fits").code, 0);
  const std::string whole = ReadBytes(In("whole.fits")).substr(2880 * 2);
  // A sanitizer's own memory would count.
  const std::string limit = kSanitized ? "" : "ulimit -d $((158 * 1024)); ";
  for (const std::string store : {"contiguous", "paged"}) {
    const Result r = Shell(limit + "korimg " + steps +
                           "-o small.fits --overwrite --threads 2 --memory 8M --store " + store);
    ASSERT_EQ(r.code, 0) << store << ": " << r.err;
    const std::string small = ReadBytes(In("small.fits")).substr(2880 * 2);
    ASSERT_EQ(small.size(), whole.size());
    // The two paths round differently: pixels, not bytes, agree across them.
    if (store == "contiguous") {
      EXPECT_TRUE(small == whole);
    } else {
      const Planes a = Read("whole.fits"), b = Read("small.fits");
      for (size_t i = 0; i < a[0].size(); ++i) {
        ASSERT_NEAR(a[0][i], b[0][i], 1e-5 * std::max(1000.0f, std::abs(a[0][i]))) << i;
      }
    }
  }
}

TEST_F(ToolTest, SaysOnceThatTemporaryFilesTakeMemory) {
  if (Shell("stat -f -c %T /dev/shm").out != "tmpfs\n") GTEST_SKIP() << "/dev/shm is no memory here";
  Frame("a.fits", 600, 600, test::Random(0, 1));
  for (const std::string store : {"contiguous", "paged"}) {
    const std::string call =
        "TMPDIR=/dev/shm korimg apply invert then invert a.fits -o b.fits --overwrite "
        "--memory 1M --store " +
        store;
    EXPECT_EQ(Shell(call).err.find("take memory"), std::string::npos);
    const std::string said = Shell(call + " --verbose").err;
    EXPECT_NE(said.find("/dev/shm take memory"), std::string::npos) << said;
    EXPECT_EQ(said.find("take memory"), said.rfind("take memory")) << said;
  }
}

TEST_F(ToolTest, CancelLeavesNothingUnfinished) {
  // Interrupted once it is at work.
  const Result r = Shell("{ '" KORIMG_TOOL
                         "' simulate session --frames 300 --size 1500x1000 & } && tool=$! && "
                         "until ls session/lights/*.fits; do kill -0 $tool || exit 1; sleep 0.05; done && "
                         "kill -INT $tool && wait $tool");
  EXPECT_EQ(r.code, 130) << r.err;
  EXPECT_NE(r.err.find("cancelled"), std::string::npos);
  for (const auto& entry : std::filesystem::recursive_directory_iterator(In("session"))) {
    EXPECT_NE(entry.path().extension(), ".part") << entry.path();
    EXPECT_NE(entry.path().filename(), "truth.json");
  }
}

TEST_F(ToolTest, AFullDiskNamesTheFileAndLeavesNothing) {
  if (kSanitized) GTEST_SKIP() << "sanitizers need large files of their own";
  Frame("a.fits", 600, 600, test::Random(0, 1));
  const Result r = Shell("ulimit -f 200; korimg apply invert a.fits -o b.fits");
  EXPECT_EQ(r.code, 1) << r.err;
  EXPECT_NE(r.err.find("b.fits"), std::string::npos) << r.err;
  for (const std::string& name : Names()) {
    EXPECT_NE(name.substr(0, 2), "b.") << name;
  }
}

TEST_F(ToolTest, NothingIsSavedOnceAPipelineHasFailed) {
  if (kSanitized) GTEST_SKIP() << "sanitizers have allocators of their own";
  Save("a.fits", 900, 700, 1, test::Random(100, 900));
  const std::string noRoom = "LD_PRELOAD='" KORIMG_NO_ROOM "' KORIMG_ROOM=8000 ";
  ASSERT_EQ(Shell("korimg apply gaussian sigma=5 a.fits -o whole.fits").code, 0);
  for (const char* more : {"", "--rect 100,100,300,300"}) {
    const Result failed = Shell(noRoom + "korimg apply gaussian sigma=5 a.fits -o b.fits " + more);
    EXPECT_EQ(failed.code, 1);
    EXPECT_NE(failed.err.find("a.fits: part of the computation failed"), std::string::npos) << failed.err;
    EXPECT_FALSE(std::filesystem::exists(In("b.fits")) || std::filesystem::exists(In("b.fits.part")));
  }
}

TEST_F(ToolTest, TheDocumentationIsThatOfTheTable) {
  EXPECT_EQ(ReadBytes(KORIMG_DOCS "/operations.md"), Shell("korimg ops --markdown").out)
      << "write it anew: korimg ops --markdown > docs/operations.md";
  for (const std::string& family : session::Families()) {
    EXPECT_EQ(ReadBytes(KORIMG_DOCS "/operations/" + family + ".md"),
              Shell("korimg ops --markdown " + family).out)
        << "write it anew: korimg ops --markdown " << family << " > docs/operations/" << family << ".md";
  }
}

TEST_F(ToolTest, VersionAndOperationsAreTold) {
  EXPECT_EQ(Shell("korimg --version").out.substr(0, 7), "korimg ");
  const std::string verbose = Shell("korimg --version --verbose --threads 3").out;
  EXPECT_NE(verbose.find("run in the form"), std::string::npos);
  EXPECT_NE(verbose.find("threads of line loops: 3"), std::string::npos) << verbose;
  EXPECT_NE(Shell("korimg ops bright").out.find("contrast="), std::string::npos);
  EXPECT_GE(json::parse(Shell("korimg ops --json").out).at("operations").size(), 40u);
  EXPECT_EQ(Shell("korimg ops sharp").code, 2);
}

}  // namespace
}  // namespace korimg::files
