#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/app/Tool.h"

namespace korimg::files {
namespace {

using Json = nlohmann::json;

/// A slope of stars but for an even patch with noise, at 90, 60 of 400 x 300.
double SkyWithPatch(int p, int x, int y) {
  const bool patch = x >= 90 && x < 190 && y >= 60 && y < 170;
  return patch ? 200 + 50 * p + test::Random(-6, 6)(p, x, y) * (p + 1) : 900 + 8.0 * x;
}

using SkyTest = ToolTest;

TEST_F(SkyTest, IsFoundAndMeasured) {
  Save("field.fits", 400, 300, 3, SkyWithPatch);
  const Result r = Shell("korimg sky --json field.fits");
  ASSERT_EQ(r.code, 0) << r.err;
  const Json json = Json::parse(r.out);
  EXPECT_EQ(json["file"], "field.fits");
  const std::vector<int> rect = json["rect"];
  ASSERT_EQ(rect.size(), 4u);
  EXPECT_GE(rect[0], 90);
  EXPECT_LE(rect[2], 190);
  EXPECT_GE(rect[1], 60);
  EXPECT_LE(rect[3], 170);
  EXPECT_EQ(rect[2] - rect[0], 64);
  ASSERT_EQ(json["planes"].size(), 3u);
  for (int p = 0; p < 3; ++p) {
    EXPECT_NEAR(json["planes"][p]["background"], 200 + 50 * p, 0.5 * (p + 1));
    EXPECT_NEAR(json["planes"][p]["noise"], 12 / std::sqrt(12) * (p + 1), 0.1 * (p + 1));
  }
  const Result lines = Shell("korimg sky field.fits");
  EXPECT_EQ(lines.code, 0);
  const std::string place = std::to_string(rect[0]) + "," + std::to_string(rect[1]) + ",";
  EXPECT_NE(lines.out.find("field.fits: clean sky at " + place), std::string::npos) << lines.out;
  EXPECT_NE(lines.out.find("plane 2: background"), std::string::npos) << lines.out;
}

TEST_F(SkyTest, WithoutAnyOthersAreStillMeasured) {
  Save("slope.fits", 400, 300, 1, [](int, int x, int) { return 8.0 * x; });
  Save("field.fits", 400, 300, 1, SkyWithPatch);
  Frame("small.fits", 12, 9, SkyWithPatch);
  const Result r = Shell("korimg sky slope.fits small.fits field.fits");
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("slope.fits: no clean sky"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("small.fits: no clean sky"), std::string::npos) << r.err;
  EXPECT_NE(r.out.find("field.fits: clean sky at"), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find("slope.fits"), std::string::npos) << r.out;
}

}  // namespace
}  // namespace korimg::files
