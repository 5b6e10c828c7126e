#include <cmath>
#include <fstream>
#include <numbers>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/app/Tool.h"

namespace korimg::files {
namespace {

using Json = nlohmann::json;

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.at(values.size() / 2);
}

std::vector<Json> Lines(const std::string& text) {
  std::vector<Json> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    lines.push_back(Json::parse(line));
  }
  return lines;
}

class StarsTest : public ToolTest {
 protected:
  void Simulate() {
    ASSERT_EQ(Shell("korimg simulate night --frames 5 --size 1400x1000 --seed 4").code, 0);
    truth_ = Json::parse(std::ifstream(In("night/truth.json")));
  }

  Json truth_;
};

TEST_F(StarsTest, RegistersASessionAgainstItsTruth) {
  Simulate();
  const Result r =
      Shell("korimg register --json --reference night/lights/light_0001.fits night/lights/*.fits");
  ASSERT_EQ(r.code, 0) << r.err;
  const auto lines = Lines(r.out);
  ASSERT_EQ(lines.size(), 5u);
  std::vector<double> shifts, angles;
  for (size_t i = 0; i < lines.size(); ++i) {
    const Json& line = lines[i];
    ASSERT_EQ(line["status"], "ok") << line;
    EXPECT_EQ(line["method"], "stars");
    EXPECT_GT(line["stars"], 60);
    EXPECT_LT(line["residual_px"], 0.5);
    // The truth turns about the middle of the outer pixels' middles, the result about half the size.
    const Json& pose = truth_["lights"][i];
    const double turn = pose["rotation_deg"], a = -turn * std::numbers::pi / 180;
    const double x = 0.5 - pose["dx"].get<double>(), y = 0.5 - pose["dy"].get<double>();
    const double dx = std::cos(a) * x - std::sin(a) * y - 0.5, dy = std::sin(a) * x + std::cos(a) * y - 0.5;
    shifts.push_back(std::hypot(line["dx"].get<double>() - dx, line["dy"].get<double>() - dy));
    angles.push_back(std::abs(line["degrees"].get<double>() + turn));
    EXPECT_LT(shifts.back(), 0.05) << line;
  }
  EXPECT_LT(Median(shifts), 0.02);
  EXPECT_LT(Median(angles), 0.002);

  const Result automatic = Shell("korimg register night/lights/*.fits");
  EXPECT_EQ(automatic.code, 0);
  EXPECT_NE(automatic.out.find("reference: night/lights/"), std::string::npos);
  EXPECT_NE(automatic.out.find("shift 0.000, 0.000, angle 0.0000"), std::string::npos)
      << "of the reference" << automatic.out;
}

TEST_F(StarsTest, FindsTheStarsOfASession) {
  Simulate();
  const Result r = Shell("korimg stars --json -o list.txt night/lights/light_0001.fits");
  ASSERT_EQ(r.code, 0) << r.err;
  const Json found = Lines(r.out).at(0);
  EXPECT_NEAR(found["fwhm"].get<double>(), truth_["lights"][0]["fwhm_px"].get<double>(), 0.09);
  EXPECT_EQ(found["stars"], found["list"].size());
  int bright = 0, met = 0;
  for (const Json& star : truth_["stars"]) {
    const double x = star["x"], y = star["y"];
    if (star["flux_e"] < 5000 || x < 8 || y < 8 || x > 1391 || y > 991) continue;
    ++bright;
    for (const Json& near : found["list"]) {
      if (std::hypot(near["x"].get<double>() - x, near["y"].get<double>() - y) > 1) continue;
      ++met;
      break;
    }
  }
  EXPECT_GE(met, 0.95 * bright);

  std::ifstream list(In("list.txt"));
  size_t stars = 0;
  for (std::string line; std::getline(list, line);) {
    std::istringstream words(line.substr(0, line.find('#')));
    double x, y, radius;
    if (!(words >> x)) continue;
    ASSERT_TRUE(words >> y >> radius) << line;
    EXPECT_NEAR(x, found["list"][stars]["x"].get<double>(), 0.001);
    EXPECT_GE(radius, 3);
    std::string more;
    EXPECT_FALSE(words >> more) << line;
    ++stars;
  }
  EXPECT_EQ(stars, found["list"].size());
}

TEST_F(StarsTest, FailuresSayWhatIsWrong) {
  Frame("flat.fits", 80, 60, [](int, int, int) { return 100; });
  Frame("noise.fits", 80, 60, test::Random(90, 110));
  EXPECT_NE(Shell("korimg stars flat.fits noise.fits").out.find("flat.fits: 0 stars"), std::string::npos);
  const Result r = Shell("korimg register --json flat.fits missing.fits noise.fits");
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("missing.fits: "), std::string::npos);
  ASSERT_EQ(Lines(r.out).size(), 2u);
  for (const Json& line : Lines(r.out)) {
    EXPECT_EQ(line["status"], "no stars");
  }
  EXPECT_EQ(Shell("korimg stars -o list.txt flat.fits noise.fits").code, 2);
  EXPECT_EQ(Shell("korimg stars -o list.txt flat.fits && korimg stars -o list.txt flat.fits").code, 1);
  EXPECT_EQ(Shell("korimg register --reference missing.fits flat.fits").code, 1);
}

}  // namespace
}  // namespace korimg::files
