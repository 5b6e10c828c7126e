#include "viewer/image/Tiles.h"

#include <thread>

#include <gtest/gtest.h>

#include "session/operations/Operations.h"
#include "session/picture/Image.h"
#include "session/picture/Render.h"
#include "tests/support/Folder.h"
#include "tests/support/Images.h"

namespace korimg::viewer {
namespace {

using namespace session;
using test::Noise;

class Tiles : public files::FolderTest {
 protected:
  /// A sky with stars, lying as the header says.
  void Write(const std::string& name, int width, int height, int planes, const files::Header& header = {}) {
    const auto writer = files::ImageWriter::Create(
        In(name), {.width = width, .height = height, .planes = planes, .header = header});
    files::Planes pixels;
    for (int p = 0; p < planes; ++p) {
      pixels.emplace_back();
      for (int i = 0; i < width * height; ++i) {
        const double star = i % 997 == 5 ? 3000 * Noise(i) : 0;
        pixels[p].push_back(i % 1009 == 7 ? std::nanf("")
                                          : static_cast<float>(200 * p + 40 * Noise(i + p) + star));
      }
    }
    files::WriteAll(*writer, pixels, width, height, 64);
  }

  std::unique_ptr<Pyramid> Open(const std::string& name) {
    auto pyramid = std::make_unique<Pyramid>(OpenSource(In(name)), 16 << 20);
    while (pyramid->Progress() < 1)
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return pyramid;
  }

  Job job_;
};

TEST_F(Tiles, HaveThePixelsThatRenderWrites) {
  struct Case {
    std::string name;
    int width, height, planes;
    bool isTurned;
    LevelMethod level;
  };
  for (const Case& c : {Case{"mono.fits", 700, 301, 1, false, LevelMethod::Auto},
                        {"colour.fits", 513, 260, 3, false, LevelMethod::Auto},
                        {"linked.fits", 300, 300, 3, false, LevelMethod::Linked},
                        {"below.fits", 300, 411, 1, true, LevelMethod::Auto}}) {
    SCOPED_TRACE(c.name);
    Write(c.name, c.width, c.height, c.planes, c.isTurned ? files::SkyFromBelow() : files::Header());
    Render(job_, {.input = In(c.name), .output = In(c.name + ".png"), .level = c.level});
    const auto picture = files::ReadAll(*files::ImageReader::Open(In(c.name + ".png")), 64);
    const auto pyramid = Open(c.name);
    EXPECT_EQ(pyramid->Of().isOverturned, c.isTurned);
    const Stretch stretch{.levels = pyramid->Shown(c.level == LevelMethod::Linked)};
    for (int row = 0; row < pyramid->Strips(0); ++row) {
      for (int column = 0; column * Pyramid::kTile < c.width; ++column) {
        const Bytes tile = DrawTile(*pyramid, {0, column, row}, stretch);
        ASSERT_EQ(tile.planes, c.planes);
        for (std::size_t i = 0; i < tile.pixels.size(); ++i) {
          const int p = static_cast<int>(i) % tile.planes, at = static_cast<int>(i) / tile.planes;
          const int x = column * Pyramid::kTile + at % tile.width, y = row * Pyramid::kTile + at / tile.width;
          ASSERT_EQ(tile.pixels[i], picture[p][static_cast<std::size_t>(y) * c.width + x]) << x << ", " << y;
        }
      }
    }
  }
}

TEST_F(Tiles, AreDrawnWithTheStepsOfApply) {
  Write("a.fits", 300, 200, 1);
  const auto pyramid = Open("a.fits");
  Stretch stretch;
  stretch.levels.min[0] = -10, stretch.levels.max[0] = 900, stretch.levels.midtone[0] = 0.2;
  stretch.steps.emplace_back(FindOperation("ghs"), std::map<std::string, std::string>{{"amount", "2"}});
  stretch.steps.emplace_back(FindOperation("curve"),
                             std::map<std::string, std::string>{{"points", "0:0.1,0.5:0.4,1:1"}});
  const Bytes tile = DrawTile(*pyramid, {0, 1, 0}, stretch);
  Image whole = Image::Open(job_, In("a.fits"));
  whole.Pixels().SetLevel(0, -10, 900);
  for (const Step& step : stretch.steps)
    step.Run(job_, whole);
  ShowByLevels(whole.Pixels(), stretch.levels);
  ASSERT_EQ(std::pair(tile.width, tile.height), std::pair(300 - 256, 200));
  for (int y = 0; y < tile.height; ++y) {
    for (int x = 0; x < tile.width; ++x) {
      ASSERT_EQ(tile.pixels[y * tile.width + x], whole.Pixels().GetPixelGray256(256 + x, y, 0))
          << x << ", " << y;
    }
  }
}

TEST_F(Tiles, AreFilesThatReadAsTheyWereDrawn) {
  Write("a.fits", 100, 60, 3);
  Write("b.fits", 100, 60, 1);
  for (const char* name : {"a.fits", "b.fits"}) {
    const auto pyramid = Open(name);
    const Bytes tile = DrawTile(*pyramid, {0, 0, 0}, {.levels = pyramid->Shown(false)});
    files::WriteBytes(In("tile.png"), PngOf(tile));
    const auto reader = files::ImageReader::Open(In("tile.png"));
    ASSERT_EQ(reader->Info().planes, tile.planes);
    const files::Planes pixels = files::ReadAll(*reader, 64);
    for (std::size_t i = 0; i < tile.pixels.size(); ++i) {
      ASSERT_EQ(pixels[i % tile.planes][i / tile.planes], tile.pixels[i]);
    }
    EXPECT_EQ(JpegOf(tile).substr(0, 3), "\xFF\xD8\xFF");
  }
}

TEST_F(Tiles, InColoursRiseEvenlyFromBlueToYellow) {
  const auto writer = files::ImageWriter::Create(In("ramp.fits"), {.width = 256, .height = 1});
  files::Planes ramp(1);
  for (int i = 0; i < 256; ++i)
    ramp[0].push_back(static_cast<float>(i));
  files::WriteAll(*writer, ramp, 256, 1, 64);
  const auto pyramid = Open("ramp.fits");
  Stretch stretch{.inColours = true};
  stretch.levels.max[0] = 255;
  const Bytes tile = DrawTile(*pyramid, {0, 0, 0}, stretch);
  ASSERT_EQ(tile.planes, 3);
  double before = -1;
  for (int i = 0; i < 256; ++i) {
    const unsigned char* c = &tile.pixels[3 * i];
    const double luma = 0.2126 * c[0] + 0.7152 * c[1] + 0.0722 * c[2];
    EXPECT_GT(luma, before - 0.5) << i;
    before = luma;
  }
  EXPECT_GT(tile.pixels[3 * 60 + 2], tile.pixels[3 * 60] + 20) << "what is dark is blue";
  EXPECT_GT(tile.pixels[3 * 200], tile.pixels[3 * 200 + 2] + 40) << "what is bright is yellow";
}

TEST_F(Tiles, BesideThePictureAreRefused) {
  Write("a.fits", 300, 200, 1);
  const auto pyramid = Open("a.fits");
  for (const TilePlace place :
       {TilePlace{-1, 0, 0}, {9, 0, 0}, {0, 2, 0}, {0, 0, 1}, {0, -1, 0}, {1, 1, 0}}) {
    EXPECT_THROW(DrawTile(*pyramid, place, {.levels = pyramid->Shown(false)}), UsageError);
  }
}

}  // namespace
}  // namespace korimg::viewer
