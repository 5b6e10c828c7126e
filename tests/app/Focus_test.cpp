#include <cmath>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/app/Tool.h"

namespace korimg::files {
namespace {

using Json = nlohmann::json;

class FocusTest : public ToolTest {
 protected:
  static constexpr int kWidth = 400, kHeight = 300;

  /// Stars of a width, `ratio` times as long along x, in an exposure of `light`.
  static test::PixelRule Stars(double sigma, double ratio, double light, int seed) {
    return [=](int p, int x, int y) {
      double value = 300 * light + test::Random(-5, 5, seed)(p, x, y) * std::sqrt(light);
      for (int i = 0; i < 48; ++i) {
        const double u = (x - 30 - 48.3 * (i % 8)) / ratio, v = y - 25 - 49.6 * (i / 8);
        if (std::abs(u) > 20 || std::abs(v) > 20) continue;
        value += (500 + 60 * i) * light / (sigma * sigma) * std::exp(-(u * u + v * v) / (2 * sigma * sigma));
      }
      return value;
    };
  }

  /// A small planet with bands, seen through a blur.
  static test::PixelRule Planet(double blur, double light, int seed) {
    return [=](int p, int x, int y) {
      const double u = x - 200, v = y - 150, edge = 12 - std::hypot(u, v);
      const double disc = 0.5 * std::erfc(-edge / (blur * 1.4142));
      const double bands = 1 + 0.4 * std::exp(-0.5 * std::pow(blur, 2)) * std::sin(v);
      return 100 * light + 3000 * light * disc * bands + test::Random(-4, 4, seed)(p, x, y);
    };
  }

  static std::string Order(const std::vector<Json>& lines) {
    std::string order;
    for (const Json& line : lines) {
      order += line["file"].get<std::string>() + (line["best"] ? "! " : " ");
    }
    return order;
  }
};

TEST_F(FocusTest, FramesOfStarsAreRankedByTheirWidthWhateverTheirExposure) {
  Save("a.fits", kWidth, kHeight, 1, Stars(1.8, 1, 4, 1));
  Save("b.fits", kWidth, kHeight, 3, Stars(1.3, 1, 1, 2));
  Save("c.fits", kWidth, kHeight, 1, Stars(2.6, 1, 9, 3));
  Save("d.fits", kWidth, kHeight, 1, Stars(1.6, 2, 2, 4));
  const Result r = Shell("korimg focus --json a.fits b.fits c.fits d.fits");
  ASSERT_EQ(r.code, 0) << r.err;
  const auto lines = JsonLines(r.out);
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(Order(lines), "b.fits! a.fits d.fits c.fits ");
  for (const Json& line : lines) {
    const bool isTrailed = line["file"] == "d.fits";
    EXPECT_EQ(line["stars"], 48);
    EXPECT_NEAR(line["guide_error"], isTrailed ? 2 : 1.05, 0.1) << line;
    EXPECT_GT(line["focus"], 0.3);
    EXPECT_LT(line["focus"], 2);
  }
  const Result text = Shell("korimg focus a.fits b.fits");
  EXPECT_EQ(text.out.find("b.fits: focus "), 0u) << text.out;
  EXPECT_NE(text.out.find("\nbest by FWHM: b.fits\n"), std::string::npos) << text.out;
  // The measure of the list of stars is the same.
  const Result stars = Shell("korimg stars --json d.fits");
  EXPECT_EQ(Json::parse(stars.out)["guide_error"], lines[2]["guide_error"]);
}

TEST_F(FocusTest, AMosaicIsMeasuredInTheMeanOfItsColours) {
  // Red is half as bright as green, and blue a third.
  const auto mosaic = [](double sigma) -> test::PixelRule {
    return [=](int p, int x, int y) {
      return Stars(sigma, 1, 4, 1)(p, x, y) /
             (y % 2 == 0 ? (x % 2 == 0 ? 2.0 : 1.0) : (x % 2 == 0 ? 1.0 : 3.0));
    };
  };
  Header header;
  header.Set("BAYERPAT", "RGGB");
  Frame("sharp.fits", kWidth, kHeight, mosaic(1.5), "float32", header);
  Frame("soft.fits", kWidth, kHeight, mosaic(2.2), "float32", header);
  const auto lines = JsonLines(Shell("korimg focus --json soft.fits sharp.fits").out);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(Order(lines), "sharp.fits! soft.fits ");
  for (const Json& line : lines) {
    EXPECT_NEAR(line["guide_error"], 1.05, 0.1) << line;
    EXPECT_EQ(line["stars"], 48);
  }
}

TEST_F(FocusTest, FramesWithoutStarsAreRankedByTheFocusValue) {
  Save("soft.fits", kWidth, kHeight, 1, Planet(2.5, 5, 1));
  Save("sharp.fits", kWidth, kHeight, 1, Planet(0.7, 1, 2));
  Save("middle.fits", kWidth, kHeight, 1, Planet(1.5, 2, 3));
  Save("bright.fits", kWidth, kHeight, 1, Planet(0.7, 8, 4));
  Save("empty.fits", kWidth, kHeight, 1, [](int, int, int) { return 7; });
  Frame("small.fits", 15, 12, Planet(1, 1, 5));
  std::ofstream(In("broken.fits")) << "no image";
  const Result r = Shell("korimg focus --json *.fits");
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("broken.fits"), std::string::npos) << r.err;
  const auto lines = JsonLines(r.out);
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_NEAR(lines[0]["focus"].get<double>() / lines[1]["focus"].get<double>(), 1, 0.02)
      << "of one sharpness in two exposures";
  EXPECT_NE(lines[0]["file"], "middle.fits");
  EXPECT_EQ(lines[2]["file"], "middle.fits");
  EXPECT_EQ(lines[3]["file"], "soft.fits");
  for (int i = 4; i < 6; ++i) {
    EXPECT_EQ(lines[i]["focus"], 0);
    EXPECT_TRUE(lines[i]["guide_error"].is_null());
  }
  EXPECT_NE(Shell("korimg focus soft.fits middle.fits").out.find("best by focus: middle.fits"),
            std::string::npos);
  EXPECT_NE(Shell("korimg focus empty.fits small.fits").out.find("best by focus: none"), std::string::npos);
}

}  // namespace
}  // namespace korimg::files
