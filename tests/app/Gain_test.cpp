#include "session/files/Gain.h"

#include <nlohmann/json.hpp>

#include "tests/app/Tool.h"

namespace korimg::files {
namespace {

class GainTest : public ToolTest {};

TEST_F(GainTest, IsWhatTheHeaderSaysInElectrons) {
  const auto gain = [](const std::function<void(Header&)>& fill, double noise = 5) {
    Header header;
    fill(header);
    return FindGain(header, noise);
  };
  EXPECT_EQ(gain([](Header& h) { h.Set("EGAIN", 1.5); }).electrons, 1.5);
  EXPECT_EQ(gain([](Header& h) { h.Set("GAIN", 1.5, "[e-/ADU] of the chip"); }).electrons, 1.5);
  EXPECT_EQ(gain([](Header& h) { h.Set("GAIN", 2.3, "Electrons per count"); }).electrons, 2.3);
  EXPECT_EQ(gain([](Header& h) { h.Set("GAIN", 100.0, "gain step of the camera"); }).electrons, 0);
  EXPECT_EQ(gain([](Header& h) { h.Set("GAIN", 100.0); }).electrons, 0);
  EXPECT_EQ(gain([](Header& h) { h.Set("EGAIN", 0.0); }).electrons, 0);
  EXPECT_EQ(gain([](Header&) {}).source, "no EGAIN");
  const auto stacked = [](Header& h) {
    h.Set("EGAIN", 0.5);
    h.Set("NCOMBINE", 20);
  };
  EXPECT_EQ(gain(stacked).electrons, 10);
  EXPECT_EQ(gain(stacked).source, "EGAIN, 20 frames");
  EXPECT_EQ(gain(stacked, 1e-5).electrons, 0) << "on a scale of 0 to 1";
}

TEST_F(GainTest, StarsSayWhatTheirNoiseIsMadeOf) {
  const auto rule = [](int p, int x, int y) {
    return test::Random(95, 105)(p, x, y) +
           20000 * std::exp(-(std::pow(x - 40.3, 2) + std::pow(y - 30.2, 2)) / 4);
  };
  Header told;
  told.Set("EGAIN", 2.0);
  Frame("told.fits", 80, 60, rule, "float32", told);
  Frame("silent.fits", 80, 60, rule);
  const auto snr = [&](const std::string& call) {
    const Result r = Shell("korimg stars --json " + call);
    return nlohmann::json::parse(r.out)["list"][0]["snr"].get<double>();
  };
  const double photons = std::sqrt(2 * 20000 * 4 * 3.14159);
  EXPECT_LT(snr("told.fits"), photons);
  EXPECT_GT(snr("told.fits"), 0.9 * photons);
  EXPECT_EQ(snr("silent.fits --gain 2"), snr("told.fits"));
  EXPECT_GT(snr("silent.fits"), 3 * photons);
  EXPECT_NE(Shell("korimg stars told.fits").out.find("gain 2 (EGAIN)"), std::string::npos);
  EXPECT_NE(Shell("korimg stars silent.fits").out.find("gain unknown (no EGAIN)"), std::string::npos);
}

}  // namespace
}  // namespace korimg::files
