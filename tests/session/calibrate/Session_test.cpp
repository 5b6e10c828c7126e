// A light's rows, read as they are wanted.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include "session/calibrate/internal/LightRows.h"
#include "tests/support/Folder.h"
#include "tests/support/Simulated.h"

namespace korimg::session {
namespace {

using SessionTest = files::FolderTest;

TEST_F(SessionTest, RowsInPiecesAreThoseOfTheWholeLight) {
  constexpr int kSide = 101;
  test::Simulated(In("mono"), {.frames = 3, .width = kSide, .height = kSide});
  test::Simulated(In("colour"), {.frames = 3, .width = kSide, .height = kSide, .bayer = "GRBG"});
  test::Simulated(In("comb"), {.frames = 3, .width = kSide, .height = kSide, .bayer = "HONEYCOMB2"});
  struct Case {
    const char* session;
    double pedestal;
    bool half, keepMosaic;
    int planes, side;
    Cosmetic cosmetic = Cosmetic::None;
    bool hasDarks = true;
  } cases[] = {{"mono", 0, false, false, 1, kSide},
               {"mono", 200, false, false, 1, kSide},
               {"colour", 0, false, false, 3, kSide},
               {"colour", 200, false, false, 3, kSide},
               {"colour", 0, true, false, 3, kSide / 2},
               {"colour", 0, false, true, 1, kSide},
               {"comb", 200, false, false, 3, kSide},
               {"mono", 0, false, false, 1, kSide, Cosmetic::Auto},
               {"colour", 200, false, false, 3, kSide, Cosmetic::Auto, false},
               {"colour", 0, false, true, 1, kSide, Cosmetic::Auto},
               {"comb", 0, false, false, 3, kSide, Cosmetic::Auto, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(fmt::format("{} {} {} {}", c.session, c.pedestal, c.half, c.keepMosaic));
    Job job;
    CalibrateOptions options;
    const std::filesystem::path folder = In(c.session);
    options.lights = {folder / "lights"};
    if (c.hasDarks) options.darks = {folder / "darks"};
    options.flats = {folder / "flats"};
    options.biases = {folder / "biases"};
    options.pedestal = c.pedestal;
    options.develop.half = c.half;
    options.keepMosaic = c.keepMosaic;
    options.cosmetic = c.cosmetic;
    Session session(job, options);
    session.Prepare();
    ASSERT_EQ(session.Lights().size(), 3u);
    const Light& light = session.Lights()[1];
    EXPECT_EQ(session.DefectsOf(light) && session.DefectsOf(light)->Hot() > 0, c.cosmetic == Cosmetic::Auto);

    // What the whole light comes to at once.
    Session::Calibrated whole = session.LoadLight(light);
    CVelImage& image = *whole.loaded.Pointer();
    std::unique_ptr<CVelImage> developed;
    if (light.mosaic.cfa > 0) {
      if (c.pedestal > 0) Calculate(image, Calculation::Subtract, c.pedestal);
      Development development = session.Develop(MosaicSource(image), light, whole.loaded.Info());
      developed = development.Rows(0, development.Size().height);
      if (c.pedestal > 0) Calculate(*developed, Calculation::Add, c.pedestal);
    }
    CVelImage& wanted = developed ? *developed : image;

    LightRows rows(session, light);
    ASSERT_EQ(rows.Size().planes, c.planes);
    ASSERT_EQ(rows.Size().width, c.side);
    ASSERT_EQ(rows.Size().height, c.side);
    for (const auto& [y0, count] : {std::pair(0, c.side),
                                    {0, 1},
                                    {1, 1},
                                    {2, 7},
                                    {3, 10},
                                    {4, 2},
                                    {5, 40},
                                    {c.side - 9, 4},
                                    {c.side - 2, 2},
                                    {c.side - 1, 1}}) {
      const files::GappedRows part(c.planes, c.side, y0, count, count % 2);
      rows.Read(part.band);
      EXPECT_TRUE(part.HasWholeGaps());
      for (int p = 0; p < c.planes; ++p) {
        for (int y = y0; y < y0 + count; ++y) {
          ASSERT_TRUE(
              std::ranges::equal(part.band.Row(p, y), Row<const float>(wanted.GetLine(0, y, p), c.side)))
              << "rows " << y0 << " + " << count << ", row " << y << ", plane " << p;
        }
      }
      if (y0 == 0 && count == c.side) {
        EXPECT_EQ(rows.Clipped(), whole.clipped);
      }
    }
  }
}

}  // namespace
}  // namespace korimg::session
