#include <chrono>
#include <cmath>
#include <csignal>
#include <limits>
#include <random>

#include <sys/resource.h>

#include "tests/support/Folder.h"

namespace korimg::files {
namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

class ImageFile : public FolderTest {
 protected:
  /// Values in and around the range of 16 bits, some between two whole numbers, NaN and infinities among
  /// them.
  static Planes Noise(int planes, int width, int height) {
    std::mt19937 random(7);
    Planes result(planes, std::vector<float>(static_cast<std::size_t>(width) * height));
    for (auto& plane : result) {
      for (float& value : plane)
        value = static_cast<float>(random() % 280000) / 4 - 1000;
      const float special[] = {kNaN, kInfinity, -kInfinity, -0.0f, 0.49999997f, 65535.5f};
      for (std::size_t i = 0; i < plane.size() / 2 && i < 6; ++i)
        plane[i * plane.size() / 7] = special[i];
    }
    return result;
  }

  /// What is read back after writing `value` as that type.
  static float Stored(float value, const std::string& type) {
    if (type == "float32") return value;
    if (std::isnan(value)) return 0;
    return std::floor(std::clamp(static_cast<double>(value), 0.0, type == "uint8" ? 255.0 : 65535.0) + 0.5);
  }

  static void ExpectSame(const Planes& got, const Planes& wanted, const std::string& what) {
    ASSERT_EQ(got.size(), wanted.size()) << what;
    for (std::size_t p = 0; p < got.size(); ++p) {
      for (std::size_t i = 0; i < got[p].size(); ++i) {
        const bool same = got[p][i] == wanted[p][i] || (std::isnan(got[p][i]) && std::isnan(wanted[p][i]));
        ASSERT_TRUE(same) << what << ": plane " << p << ", pixel " << i << ": " << got[p][i] << ", not "
                          << wanted[p][i];
      }
    }
  }
};

TEST_F(ImageFile, RoundTripsOverFormatsTypesAndSizes) {
  const struct {
    const char *name, *type;
  } kinds[] = {{"a [2].fits", "float32"}, {"b.FIT", "uint16"},  {"星.fts", "uint16"},
               {"c (1).tif", "float32"},  {"d.TIFF", "uint16"}, {"e ß.png", "uint16"},
               {"f.PNG", "uint8"}};
  const int sizes[][2] = {{1, 1}, {1, 37}, {37, 1}, {7, 5}, {129, 67}, {721, 301}};
  for (const auto& kind : kinds) {
    for (const auto& [width, height] : sizes) {
      for (const int planes : {1, 3}) {
        const std::string what = std::string(kind.name) + " " + kind.type + " " + std::to_string(width) +
                                 "x" + std::to_string(height) + "x" + std::to_string(planes);
        Planes image = Noise(planes, width, height);
        const WriteOptions options{
            .width = width, .height = height, .planes = planes, .type = kind.type, .overwrite = true};
        WriteAll(*ImageWriter::Create(In(kind.name), options), image, width, height, 10);
        const auto reader = ImageReader::Open(In(kind.name));
        EXPECT_EQ(reader->Info().width, width) << what;
        EXPECT_EQ(reader->Info().height, height) << what;
        EXPECT_EQ(reader->Info().type, kind.type) << what;
        for (auto& plane : image) {
          for (float& value : plane)
            value = Stored(value, kind.type);
        }
        ExpectSame(ReadAll(*reader, 13), image, what);
        ExpectSame(ReadAll(*reader, 29, true), image, what + " backwards");
      }
    }
  }
  EXPECT_EQ(Names().size(), std::size(kinds));  // no partial file is left
}

TEST_F(ImageFile, SixteenBitsTakeTheImagesOwnRangeAndSayIt) {
  constexpr int kWidth = 61, kHeight = 23;
  const auto image = [&](double low, double high, bool whole) {
    Planes planes = Noise(3, kWidth, kHeight);
    for (auto& plane : planes) {
      for (size_t i = 0; i < plane.size(); ++i) {
        const double v = low + (high - low) * static_cast<double>((i * 7919 + 13) % 1403) / 1402;
        plane[i] = static_cast<float>(whole ? std::round(v) : v);
      }
    }
    return planes;
  };
  const struct {
    double low, high;
    bool whole, exact, blank = false;
  } cases[] = {{0, 1, false, false},         {-37.5, 810.25, false, false},
               {0, 65535, true, true},       {3, 900, true, true},
               {-5, 900, true, false},       {100, 70000, true, false},
               {1e-12, 3e-12, false, false}, {-37.5, 810.25, false, false, true},
               {0, 900, true, true, true},   {3, 65535, true, true, true},
               {0, 65535, true, false, true}};
  for (const auto& c : cases) {
    Planes pixels = image(c.low, c.high, c.whole);
    if (c.blank) pixels[1][5] = NAN;
    RangeOf16Bits range;
    GappedRows gapped(3, kWidth, 0, kHeight, 3);
    CopyPixels(RowsOf(pixels, kWidth, 0, kHeight), gapped.band);
    range.Add(gapped.band);
    const float infinite = INFINITY;
    range.Add({&infinite, 1, 1, 0, 1});
    EXPECT_EQ(range.Get().IsPlain(), c.exact && !c.blank) << c.low;
    for (const char* name : {"a.fits", "a.tif", "a.png"}) {
      WriteAll(*ImageWriter::Create(In(name), {.width = kWidth,
                                               .height = kHeight,
                                               .planes = 3,
                                               .type = "uint16",
                                               .overwrite = true,
                                               .scale = range.Get()}),
               pixels, kWidth, kHeight, 10);
      const auto reader = ImageReader::Open(In(name));
      const Planes read = ReadAll(*reader, 7);
      const double step = c.exact ? 0 : (c.high - c.low) / 65534;
      for (int p = 0; p < 3; ++p) {
        for (size_t i = 0; i < read[p].size(); ++i) {
          ASSERT_EQ(std::isnan(read[p][i]), std::isnan(pixels[p][i])) << name << c.low << ' ' << i;
          if (std::isnan(pixels[p][i])) continue;
          // Half a step, and the rounding of floats.
          ASSERT_NEAR(read[p][i], pixels[p][i], 0.51 * step + 1e-7 * std::abs(pixels[p][i])) << name << c.low;
        }
      }
    }
  }
  EXPECT_EQ(Scale::Parse(Scale{2.5e-7, -13}.Text()).value().step, 2.5e-7);
  for (const char* other :
       {"", "korimg: raw value = 1 + nan * stored number", "taken with a camera",
        "korimg: raw value = 1 + 0 * stored number", "korimg: raw value = x + 1 * stored number"}) {
    EXPECT_FALSE(Scale::Parse(other)) << other;
  }
}

TEST_F(ImageFile, JpegTakesRowsOfAnyPitch) {
  constexpr int kWidth = 37, kHeight = 21;
  const Planes image = Noise(3, kWidth, kHeight);
  const WriteOptions options{.width = kWidth, .height = kHeight, .planes = 3, .type = "uint8"};
  const auto whole = ImageWriter::Create(In("whole.jpg"), options);
  whole->WriteRows(RowsOf(image, kWidth, 0, kHeight));
  whole->Commit();
  WriteAll(*ImageWriter::Create(In("bands.jpg"), options), image, kWidth, kHeight, 4);
  EXPECT_EQ(ReadBytes(In("bands.jpg")), ReadBytes(In("whole.jpg")));
}

TEST_F(ImageFile, RowsOfFitsFromTheLowestUpAreTurned) {
  constexpr int kWidth = 9, kHeight = 14;
  Planes image = Noise(3, kWidth, kHeight);
  WriteOptions options{.width = kWidth, .height = kHeight, .planes = 3};
  options.header.Set("ROWORDER", "BOTTOM-UP");
  options.verbatim = true;  // the rows too
  WriteAll(*ImageWriter::Create(In("stored.fits"), options), image, kWidth, kHeight, 5);
  options.header.turned = true;
  options.verbatim = false;
  WriteAll(*ImageWriter::Create(In("turned.fits"), options), image, kWidth, kHeight, 5);
  ExpectSame(ReadAll(*ImageReader::Open(In("turned.fits")), 4), image, "turned to and fro");
  for (auto& plane : image) {
    for (int y = 0; y < kHeight / 2; ++y) {
      std::swap_ranges(&plane[y * kWidth], &plane[y * kWidth] + kWidth, &plane[(kHeight - 1 - y) * kWidth]);
    }
  }
  ExpectSame(ReadAll(*ImageReader::Open(In("stored.fits")), 4), image, "turned");
  ExpectSame(ReadAll(*ImageReader::Open(In("stored.fits")), 5, true), image, "turned, backwards");
}

TEST_F(ImageFile, FitsTakesRowsInAnyOrder) {
  const Planes image = Noise(3, 11, 20);
  const auto writer = ImageWriter::Create(In("a.fits"), {.width = 11, .height = 20, .planes = 3});
  for (const int y : {15, 0, 10, 5}) {
    writer->WriteRows(RowsOf(image, 11, y, 5));
  }
  writer->Commit();
  ExpectSame(ReadAll(*ImageReader::Open(In("a.fits")), 20), image, "shuffled bands");
  EXPECT_EQ(ReadBytes(In("a.fits")).size() % 2880, 0u);
}

TEST_F(ImageFile, RowsOutsideAreRefused) {
  WriteAll(*ImageWriter::Create(In("a.png"), {.width = 4, .height = 6, .type = "uint8"}), Noise(1, 4, 6), 4,
           6, 6);
  const auto reader = ImageReader::Open(In("a.png"));
  float pixels[40];
  const struct {
    int planes, width, top, rows;
  } wrong[] = {{1, 4, -1, 1}, {1, 4, 0, 7}, {1, 4, 6, 1}, {1, 4, 5, std::numeric_limits<int>::max()},
               {1, 3, 0, 1},  {1, 5, 0, 1}, {3, 4, 0, 1}, {0, 4, 0, 1}};
  for (const auto& [planes, width, top, rows] : wrong) {
    const Band<float> band(pixels, planes, width, top, rows);
    EXPECT_THROW(reader->ReadRows(band), std::out_of_range)
        << planes << ' ' << width << ' ' << top << ' ' << rows;
    const auto writer = ImageWriter::Create(In("b.fits"), {.width = 4, .height = 6});
    EXPECT_THROW(writer->WriteRows(band), std::out_of_range)
        << planes << ' ' << width << ' ' << top << ' ' << rows;
  }
  EXPECT_NO_THROW(reader->ReadRows({pixels, 1, 4, 6, 0}));
  const auto writer = ImageWriter::Create(In("b.tif"), {.width = 4, .height = 6});
  EXPECT_THROW(writer->WriteRows({pixels, 1, 4, 1, 1}), std::out_of_range) << "out of order";
}

TEST_F(ImageFile, UnsupportedOutputsAreNamed) {
  const WriteOptions good{.width = 2, .height = 2};
  const struct {
    const char* name;
    WriteOptions options;
    const char* says;
  } cases[] = {
      {"a.gif", good, ".fits .fit .fts .tif .tiff .png .jpg .jpeg"},
      {"a.jpg", good, "supported are uint8"},
      {"fits", good, "supported are"},
      {"a.png", good, "uint8 and uint16"},
      {"a.fits", {.width = 2, .height = 2, .type = "uint8"}, "float32 and uint16"},
      {"a.fits", {.width = 0, .height = 2}, "0 x 2"},
      {"a.fits", {.width = 2, .height = 2000000}, "2 x 2000000"},
      {"a.fits", {.width = 2, .height = 2, .planes = 4}, "4 planes"},
      {"a.tif", {.width = 2, .height = 2, .planes = 2}, "2 planes"},
      {"none/a.fits", good, "No such file"},
      {"none/a.tif", good, "none/a.tif"},
      {"folder.fits", good, "is a folder"},
  };
  std::filesystem::create_directory(In("folder.fits"));
  for (const auto& wrong : cases) {
    const std::string error = ErrorOf([&] { ImageWriter::Create(In(wrong.name), wrong.options); });
    EXPECT_NE(error.find(wrong.says), std::string::npos) << wrong.name << ": " << error;
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
    EXPECT_TRUE(error.starts_with(In(wrong.name).string() + ": ")) << error;
  }
  EXPECT_EQ(Names().size(), 1u);
}

TEST_F(ImageFile, AppearsOnlyWhenComplete) {
  for (const char* name : {"a.fits", "a.tif", "a.png"}) {
    WriteOptions options{.width = 5, .height = 4, .type = "uint16"};
    const Planes image = Noise(1, 5, 4);
    const std::string part = std::string(name) + ".part";
    {
      const auto writer = ImageWriter::Create(In(name), options);
      EXPECT_EQ(Names(), std::vector<std::string>{part});
      writer->WriteRows(RowsOf(image, 5, 0, 3));
      EXPECT_NE(ErrorOf([&] { writer->Commit(); }).find("only 3 of 4 rows"), std::string::npos);
    }
    EXPECT_TRUE(Names().empty()) << name;

    WriteBytes(In(name), "old");
    EXPECT_NE(ErrorOf([&] { ImageWriter::Create(In(name), options); }).find("--overwrite"),
              std::string::npos);
    options.overwrite = true;
    const auto writer = ImageWriter::Create(In(name), options);
    EXPECT_EQ(ReadBytes(In(name)), "old");
    WriteAll(*writer, image, 5, 4, 4);
    EXPECT_EQ(Names(), std::vector<std::string>{name});
    EXPECT_EQ(ImageReader::Open(In(name))->Info().width, 5);
    std::filesystem::remove(In(name));
  }
}

TEST_F(ImageFile, PartialFilesGoOnRequest) {
  std::vector<std::unique_ptr<ImageWriter>> writers;
  for (int i = 0; i < 5; ++i) {
    writers.push_back(ImageWriter::Create(In(std::to_string(i) + ".fits"), {.width = 2, .height = 2}));
  }
  writers.erase(writers.begin() + 2);
  EXPECT_EQ(Names().size(), 4u);
  RemovePartialFiles();
  EXPECT_TRUE(Names().empty());
}

TEST_F(ImageFile, FullDiskLeavesNothingBehind) {
  const auto writeInLimits = [&](const char* name) {
    // A limit on the size of files stands in for the end of the disk.
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{300000, 300000};
    setrlimit(RLIMIT_FSIZE, &limit);
    const WriteOptions options{.width = 900, .height = 600, .type = "uint16"};
    const std::string error =
        ErrorOf([&] { WriteAll(*ImageWriter::Create(In(name), options), Noise(1, 900, 600), 900, 600, 50); });
    std::fprintf(stderr, "%s, %zu files left\n", error.c_str(), Names().size());
    std::_Exit(0);
  };
  for (const char* name : {"a.fits", "a.tif", "a.png"}) {
    EXPECT_EXIT(writeInLimits(name), testing::ExitedWithCode(0),
                "no room in folder /.*: [0-9]+ bytes needed, [0-9]+ available.*, 0 files left");
  }
}

TEST_F(ImageFile, TooLargeForTheDiskIsSaidAtOnce) {
  const WriteOptions options{.width = kMaxSide, .height = kMaxSide, .planes = 3};
  for (const char* name : {"a.fits", "a.tif"}) {
    EXPECT_NE(ErrorOf([&] { ImageWriter::Create(In(name), options); }).find("12000000"), std::string::npos);
  }
  EXPECT_TRUE(Names().empty());
}

TEST_F(ImageFile, CutFilesThatWereJustWrittenAreUnfinished) {
  using namespace std::chrono_literals;
  const Planes pixels(1, std::vector<float>(200 * 100, 7));
  const auto whole = [&](const std::string& name, const std::string& type) {
    const auto writer =
        ImageWriter::Create(In(name), {.width = 200, .height = 100, .type = type, .overwrite = true});
    WriteAll(*writer, pixels, 200, 100, 16);
    return ReadBytes(In(name));
  };
  const struct {
    std::string name, type;
    size_t bytes;
  } cuts[] = {{"a.fits", "uint16", 30000}, {"b.fits", "float32", 100}, {"c.tif", "uint16", 4},
              {"d.tif", "uint16", 20000},  {"e.png", "uint16", 60},    {"f.png", "uint8", 20}};
  const auto read = [&](const std::string& name) { ReadAll(*ImageReader::Open(In(name)), 64); };
  for (const auto& [name, type, bytes] : cuts) {
    const std::string all = whole(name, type);
    read(name);
    ASSERT_LT(bytes, all.size()) << name;
    WriteBytes(In(name), all.substr(0, bytes));
    const auto now = std::filesystem::file_time_type::clock::now();
    EXPECT_THROW(read(name), UnfinishedError) << name;
    for (const auto age : std::initializer_list<std::chrono::minutes>{2min, -48h}) {
      std::filesystem::last_write_time(In(name), now - age);
      try {
        read(name);
        ADD_FAILURE() << name;
      } catch (const UnfinishedError&) {
        ADD_FAILURE() << name << " of " << age.count() << " minutes";
      } catch (const FileError& error) {
        EXPECT_EQ(error.what(), In(name).string() + ": " + error.Reason());
        EXPECT_NE(error.Reason().find("get the file again"), std::string::npos) << error.Reason();
      }
    }
  }
  // What of camera raw is missing and what is wrong cannot be told apart; other names say nothing.
  WriteBytes(In("g.cr2"), "no image");
  WriteBytes(In("g.fits"), "no image");
  EXPECT_THROW(read("g.cr2"), UnfinishedError);
  try {
    read("g.fits");
  } catch (const FileError& error) {
    EXPECT_FALSE(dynamic_cast<const UnfinishedError*>(&error)) << error.what();
  }
}

}  // namespace
}  // namespace korimg::files
