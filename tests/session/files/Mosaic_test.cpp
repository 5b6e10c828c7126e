// Which mosaic a file has: patterns, offsets, orders of rows, crops; names of cameras; camera raw files.
#include "session/files/Mosaic.h"

#include <gtest/gtest.h>

#include "korimg/platform/Debug.h"
#include "korimg/raw/CImgInformation.h"

#include "session/files/Geometry.h"
#include "session/files/internal/CameraName.h"
#include "tests/support/Dng.h"
#include "tests/support/Folder.h"
#include "tests/support/Images.h"

namespace korimg::files {
namespace {

/// Colour of an upright frame's pixel by its pattern and offsets.
char ColourAt(const std::string& pattern, int xOffset, int yOffset, int x, int y) {
  return pattern[static_cast<size_t>((y + yOffset) % 2 * 2 + (x + xOffset) % 2)];
}

TEST(Mosaic, StoredPatternIsWhatTheUprightPictureHasThere) {
  for (const std::string pattern : {"RGGB", "GRBG", "BGGR", "GBRG"}) {
    for (int bits = 0; bits < 64; ++bits) {
      MosaicLayout layout;
      layout.pattern = CfaNumber(pattern);
      layout.xOffset = bits & 1;
      layout.yOffset = bits >> 1 & 1;
      layout.rowOrder = bits & 4 ? RowOrder::BottomUp : RowOrder::TopDown;
      layout.height = bits & 8 ? 10 : 11;
      layout.cropX = bits >> 4 & 1;
      layout.cropY = bits >> 5 & 1;
      std::string stored;
      for (int y = layout.cropY; y < layout.cropY + 2; ++y) {
        for (int x = layout.cropX; x < layout.cropX + 2; ++x) {
          const int row = layout.rowOrder == RowOrder::BottomUp ? layout.height - 1 - y : y;
          stored += ColourAt(pattern, layout.xOffset, layout.yOffset, x, row);
        }
      }
      EXPECT_STREQ(CfaName(CfaNumber(layout)), stored.c_str()) << pattern << " case " << bits;
    }
  }
}

TEST(Mosaic, AHoneycombBeginsWithASiteOrHasNoNumber) {
  // What 11 has, and where the others have its corner.
  constexpr const char* kCell[] = {"R.B.", ".G.G", "B.R.", ".G.G"};
  constexpr int kOrigin[][2] = {{0, 0}, {2, 0}, {1, 1}, {3, 1}};
  const auto colourAt = [&](int cfa, int x, int y) {
    return kCell[(y - kOrigin[cfa - 11][1] + 8) % 4][(x - kOrigin[cfa - 11][0] + 8) % 4];
  };
  int none = 0, cases = 0;
  for (int pattern = 11; pattern <= 14; ++pattern) {
    EXPECT_EQ(CfaNumber(CfaName(pattern)), pattern);
    for (int i = 0; i < 1024; ++i, ++cases) {
      MosaicLayout layout{.pattern = pattern, .xOffset = i & 3, .yOffset = i >> 2 & 3};
      layout.cropX = i >> 4 & 3, layout.cropY = i >> 6 & 3;
      layout.rowOrder = i & 256 ? RowOrder::BottomUp : RowOrder::TopDown;
      layout.height = i & 512 ? 10 : 11;
      const auto stored = [&](int x, int y) {
        const int row = y + layout.cropY;
        const int upright = layout.rowOrder == RowOrder::BottomUp ? layout.height - 1 - row : row;
        return colourAt(pattern, x + layout.cropX + layout.xOffset, upright + layout.yOffset);
      };
      const int cfa = CfaNumber(layout);
      ASSERT_EQ(cfa == 0, stored(0, 0) == '.') << pattern << " case " << i;
      none += cfa == 0;
      for (int k = 0; cfa > 0 && k < 16; ++k) {
        ASSERT_EQ(colourAt(cfa, k % 4, k / 4), stored(k % 4, k / 4)) << pattern << " case " << i;
      }
    }
  }
  EXPECT_EQ(none, cases / 2);
}

TEST(Mosaic, HeadersSayWhichAndWhy) {
  using Cards = std::vector<std::pair<const char*, const char*>>;
  const struct {
    const char* title;
    Cards cards;
    int height;
    MosaicOptions options;
    const char* name;  // "" none
    int cfa;
    const char* reason;  // part of it
  } cases[] = {
      {"nothing", {}, 10, {}, "", 0, ""},
      {"a capture program", {{"BAYERPAT", "RGGB"}}, 10, {}, "RGGB", 1, "by default"},
      {"lower case", {{"BAYERPAT", "gbrg"}}, 10, {}, "GBRG", 4, "BAYERPAT"},
      {"odd column", {{"BAYERPAT", "RGGB"}, {"XBAYROFF", "1"}}, 10, {}, "GRBG", 2, "XBAYROFF"},
      {"odd negative row", {{"BAYERPAT", "RGGB"}, {"YBAYROFF", "-3"}}, 10, {}, "GBRG", 4, "YBAYROFF"},
      {"even offsets", {{"BAYERPAT", "RGGB"}, {"XBAYROFF", "2"}, {"YBAYROFF", "0"}}, 10, {}, "RGGB", 1, ""},
      {"bottom-up, even",
       {{"BAYERPAT", "RGGB"}, {"ROWORDER", "BOTTOM-UP"}},
       10,
       {},
       "GBRG",
       4,
       "RGGB by BAYERPAT"},
      {"bottom-up, odd", {{"BAYERPAT", "RGGB"}, {"ROWORDER", "BOTTOM-UP"}}, 11, {}, "RGGB", 1, "ROWORDER"},
      {"a filter's name, by the standard", {{"FILTER", "RGGB"}}, 10, {}, "GBRG", 4, "FILTER"},
      {"a filter's name, top-down",
       {{"FILTER", "RGGB"}, {"ROWORDER", "TOP-DOWN"}},
       10,
       {},
       "RGGB",
       1,
       "FILTER"},
      {"another filter", {{"FILTER", "Ha"}}, 10, {}, "", 0, ""},
      {"not supported", {{"BAYERPAT", "GMYC"}}, 10, {}, "GMYC", 0, ""},
      {"told rows",
       {{"BAYERPAT", "RGGB"}, {"ROWORDER", "TOP-DOWN"}},
       10,
       {"", "bottom-up"},
       "GBRG",
       4,
       "as told"},
      {"told pattern keeps the rows",
       {{"BAYERPAT", "RGGB"}, {"ROWORDER", "BOTTOM-UP"}, {"XBAYROFF", "1"}},
       10,
       {"bggr", ""},
       "GRBG",
       2,
       "as told"},
      {"a honeycomb", {{"BAYERPAT", "honeycomb3"}}, 10, {}, "HONEYCOMB3", 13, "BAYERPAT"},
      {"a honeycomb, two columns on",
       {{"BAYERPAT", "HONEYCOMB1"}, {"XBAYROFF", "-2"}},
       10,
       {},
       "HONEYCOMB2",
       12,
       "XBAYROFF 2"},
      {"a honeycomb, bottom-up, odd",
       {{"BAYERPAT", "HONEYCOMB1"}, {"ROWORDER", "BOTTOM-UP"}},
       11,
       {},
       "HONEYCOMB2",
       12,
       "HONEYCOMB1 by BAYERPAT"},
      {"between the sites",
       {{"BAYERPAT", "HONEYCOMB1"}, {"YBAYROFF", "1"}},
       10,
       {},
       "HONEYCOMB1",
       0,
       "between two sites"},
      {"told pattern against another", {{"BAYERPAT", "GMYC"}}, 10, {"BGGR", ""}, "BGGR", 3, "as told"},
  };
  for (const auto& c : cases) {
    ImageInfo info;
    info.height = c.height;
    for (const auto& [key, value] : c.cards) {
      info.header.Set(key, value);
    }
    const Mosaic mosaic = FindMosaic(info, c.options);
    EXPECT_EQ(mosaic.name, c.name) << c.title;
    EXPECT_EQ(mosaic.cfa, c.cfa) << c.title;
    EXPECT_NE(mosaic.reason.find(c.reason), std::string::npos) << c.title << ": " << mosaic.reason;
    info.planes = 3;
    EXPECT_EQ(FindMosaic(info).name, "") << c.title << ", developed";
    if (std::string(c.title) == "bottom-up, even") {
      info.planes = 1;
      info.header.turned = true;
      EXPECT_EQ(FindMosaic(info).name, "RGGB") << "read upright";
      EXPECT_EQ(FindMosaic(info, {"", "top-down"}).name, "GBRG") << "read turned, as the header wants it";
    }
    RemoveMosaic(info.header);
    info.planes = 1;
    EXPECT_EQ(FindMosaic(info).name, "") << c.title << ": keywords left";
    EXPECT_EQ(info.header.GetString("FILTER").has_value(), std::string(c.title) == "another filter");
  }
}

TEST(CameraName, SpellingsOfFilesMeetTheLists) {
  const struct {
    const char *maker, *model;  // maker empty: in one piece
    int cfa;
  } cases[] = {
      {"Canon", "Canon EOS 5D Mark III", 1},
      {"Canon", "Canon EOS 5D Mark II", 4},
      {"Canon", "EOS 5D Mark II", 4},
      {"Canon", "Canon EOS REBEL T3i", 4},
      {"Canon", "Canon EOS 300D DIGITAL", 1},
      {"NIKON CORPORATION", "NIKON D750", 1},
      {"Nikon", "D750", 1},
      {"NIKON", "E8800", 3},
      {"NIKON CORPORATION", "NIKON D3000", 4},
      {"PENTAX Corporation", "PENTAX *ist DS", 1},
      {"Pentax", "*ist DS", 1},
      {"PENTAX", "PENTAX K-5", 3},
      {"RICOH IMAGING COMPANY, LTD.", "PENTAX K-3 II", 1},
      {"Pentax", "K-70", 1},
      {"PENTAX", "PENTAX K-30", 0},
      {"FUJIFILM", "FinePixS2Pro", 11},
      {"Fujifilm", "FinePix S2Pro", 11},
      {"OLYMPUS IMAGING CORP.  ", "E-5             ", 3},
      {"OLYMPUS CORPORATION", "E-M1MarkII", 1},
      {"KONICA MINOLTA", "DYNAX 7D", 1},
      {"Konica Minolta Camera, Inc.", "MAXXUM 7D", 1},
      {"Minolta", "ALPHA-7 DIGITAL", 1},
      {"SONY", "ILCE-7M2", 1},
      {"Leica", "M9", 0},
      {"", "Canon EOS 60D", 4},
      {"", "NIKON D5100", 1},
      {"", "SONY ILCE-7S", 1},
      {"", "ZWO ASI294MC Pro", 0},
      {"", "", 0},
  };
  const auto store = CreateContiguousManager({});
  for (const auto& c : cases) {
    const auto [maker, model] = *c.maker ? ListedName(c.maker, c.model) : ListedName(c.model);
    CVelImage frame(store, CImage::Float, 8, 8, 1, 1.0, 0.0, 1, nullptr);
    CImgInformation image;
    image.Swap(&frame);
    image.GetHeader()->SetCameraMaker(Widen(maker));
    image.GetHeader()->SetCameraModel(Widen(model));
    int cfa = 0;
    image.GetAutoCFA(&cfa);
    EXPECT_EQ(cfa, c.cfa) << c.maker << " / " << c.model << " -> " << maker << " / " << model;
  }
}

class RawFile : public FolderTest {
 protected:
  /// A mosaic whose pixels are all different.
  static test::Dng Ramp(int width, int height) {
    test::Dng dng;
    dng.width = width;
    dng.height = height;
    dng.pixels.resize(static_cast<size_t>(width) * height);
    for (size_t i = 0; i < dng.pixels.size(); ++i) {
      dng.pixels[i] = static_cast<std::uint16_t>(i * 7919 % 16000);
    }
    return dng;
  }
};

TEST_F(RawFile, GivesThePixelsAndWhatTheFileSaysOfThem) {
  for (const bool compressed : {false, true}) {
    test::Dng dng = Ramp(64, 38);
    dng.pattern = "GBRG";
    dng.black = {500, 510, 520, 530};
    dng.neutral = {0.5, 1, 0.8};
    dng.compressed = compressed;
    test::WriteDng(In("a.dng"), dng);
    std::filesystem::copy_file(In("a.dng"), In(compressed ? "c.tif" : "p.tif"));
    for (const auto& name : {In("a.dng"), In(compressed ? "c.tif" : "p.tif")}) {
      const auto reader = ImageReader::Open(name);
      const Planes planes = ReadAll(*reader, 7, true);
      const ImageInfo& info = reader->Info();
      ASSERT_TRUE(info.camera) << name;
      EXPECT_EQ(info.format, "camera raw");
      EXPECT_EQ(std::pair(info.width, info.height), std::pair(64, 38));
      EXPECT_EQ(planes[0], std::vector<float>(dng.pixels.begin(), dng.pixels.end())) << compressed;
      EXPECT_EQ(FindMosaic(info).name, "GBRG");
      EXPECT_EQ(info.camera->model, "EOS 6D");
      EXPECT_EQ(info.header.GetString("INSTRUME"), "Canon EOS 6D");
      EXPECT_EQ(info.header.GetDouble("EXPTIME"), 120);
      EXPECT_EQ(info.camera->black, (std::array<double, 4>{500, 510, 520, 530}));
      EXPECT_EQ(info.camera->white, 16383);
      ASSERT_TRUE(info.camera->hasGains);
      EXPECT_NEAR(info.camera->gains[0], 1, 1e-4);
      EXPECT_NEAR(info.camera->gains[1], 1.25, 1e-4);  // blue
      EXPECT_NEAR(info.camera->gains[2], 2, 1e-4);     // red
    }
    for (const bool manyOpen : {false, true}) {
      const auto reader = ImageReader::Open(In("a.dng"), {.lessBlack = true, .manyOpen = manyOpen});
      const Planes planes = ReadAll(*reader, 5);
      for (int y = 0; y < dng.height; ++y) {
        for (int x = 0; x < dng.width; ++x) {
          const size_t i = static_cast<size_t>(y) * dng.width + x;
          ASSERT_EQ(planes[0][i],
                    static_cast<float>(dng.pixels[i]) - static_cast<float>(dng.black[y % 2 * 2 + x % 2]));
        }
      }
    }
  }
}

TEST_F(RawFile, BrokenOnesAreOneClearLine) {
  test::Dng dng = Ramp(64, 40);
  dng.compressed = true;
  test::WriteDng(In("whole.dng"), dng);
  const std::string whole = ReadBytes(In("whole.dng"));
  WriteBytes(In("empty.nef"), "");
  WriteBytes(In("text.cr2"), "no camera wrote this, and it is long enough to be looked at");
  WriteBytes(In("text.xyz"), "no camera wrote this, and it is long enough to be looked at");
  std::string damaged = whole;
  for (size_t i = 400; i < 2000; ++i) {
    damaged[i] = '\xFF';
  }
  WriteBytes(In("damaged.dng"), damaged);
  for (const char* name : {"empty.nef", "text.cr2", "text.xyz", "damaged.dng"}) {
    try {
      const auto reader = ImageReader::Open(In(name));
      ReadAll(*reader, 8);
      ADD_FAILURE() << name << " was read";
    } catch (const FileError& error) {
      EXPECT_NE(std::string(error.what()).find(name), std::string::npos);
      EXPECT_EQ(std::string(error.what()).find('\n'), std::string::npos);
    }
  }
}

TEST(RealRawFiles, DecodeToThePixelsOfTheirTwins) {
  const std::filesystem::path data = RealFrames();
  if (data.empty()) GTEST_SKIP() << "no real frames: KORIMG_TEST_DATA names no folder";
  const auto folder = data / "dslr-bayer-pair";
  for (const auto& [raw, fits] : {std::pair("frame1_0812_rewrapped.dng", "frame1_0812.fits"),
                                  {"frame2_0814_rewrapped.dng", "frame2_0814_wcs.fits"}}) {
    const auto a = ImageReader::Open(folder / raw), b = ImageReader::Open(folder / fits);
    const Planes upright = ReadAll(*a, 100), stored = ReadAll(*b, 100);
    const int width = b->Info().width, height = b->Info().height;
    ASSERT_EQ(a->Info().height, height);
    // Rows are stored from the lowest up, which the world coordinates of one of them tell.
    EXPECT_EQ(IsPictureOverturned(b->Info().header), std::string(fits).find("wcs") != std::string::npos);
    for (int y = 0; y < height; ++y) {
      const auto row = stored[0].begin() + static_cast<std::ptrdiff_t>(height - 1 - y) * width;
      ASSERT_TRUE(std::equal(row, row + width, upright[0].begin() + static_cast<std::ptrdiff_t>(y) * width))
          << y;
    }
    EXPECT_EQ(FindMosaic(a->Info()).name, "RGGB");
    EXPECT_EQ(FindMosaic(b->Info()).name, "GBRG");
    EXPECT_EQ(a->Info().camera->black[3], 2048);
  }
  int decoded = 0;
  for (const auto& entry : std::filesystem::directory_iterator(data / "camera-raw")) {
    const std::string name = entry.path().filename();
    try {
      const auto reader = ImageReader::Open(entry.path());
      ReadAll(*reader, 64);
      ++decoded;
      const Mosaic mosaic = FindMosaic(reader->Info());
      EXPECT_EQ(mosaic.cfa, name.starts_with("bmpcc") ? 4 : 0) << name;
      EXPECT_EQ(reader->Info().planes, name.starts_with("canon_eos_6d") ? 3 : 1) << name;
      EXPECT_EQ(mosaic.name.size(), name.starts_with("canon_eos_6d") ? 0u : 4u) << name << ' ' << mosaic.name;
    } catch (const FileError& error) {
      EXPECT_TRUE(name.starts_with("no") || name.starts_with("broken") || name.starts_with("nikon"))
          << error.what();
    }
  }
  EXPECT_EQ(decoded, 3);
}

}  // namespace
}  // namespace korimg::files
