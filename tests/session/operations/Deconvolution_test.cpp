// What the restorations add to the library's: the point-spread function and the noise of an image itself.
#include <numeric>

#include "tests/session/operations/OperationTest.h"

namespace korimg::session {
namespace {

using namespace korimg::test;

class Deconvolution : public OperationTest {
 protected:
  Deconvolution() : OperationTest({.report = [this](const Event& event) { told_.push_back(event.text); }}) {}

  static constexpr int kWidth = 160, kHeight = 130;
  static constexpr double kSigma = 1.8, kSky = 400, kNoise = 6;

  /// Stars of one width on a sky with noise.
  static double Star(int, int x, int y) {
    double sum = kSky + kNoise * 3.46 * (Random(-0.5, 0.5)(0, x, y));
    for (int i = 0; i < 20; ++i) {
      const double dx = x - 12 - 33 * (i % 5) - 0.37 * i, dy = y - 15 - 32 * (i / 5) + 0.21 * i;
      sum += (900 + 150 * i) * std::exp(-(dx * dx + dy * dy) / (2 * kSigma * kSigma));
    }
    return sum;
  }
  Image File(const PixelRule& rule, double gain = 0) {
    files::Header header;
    if (gain > 0) header.Set("EGAIN", gain);
    return Saved(*Make(MemoryStore(), kWidth, kHeight, 1, rule), header);
  }

  std::vector<std::string> told_;
};

TEST_F(Deconvolution, TheStarsTellHowBlurredTheyAre) {
  for (const char* name : {"wiener", "richardson-lucy", "maximum-entropy"}) {
    told_.clear();
    const auto before = Pixels(File(Star).Pixels());
    const auto found = Result(File(Star), name, {});
    double sigma = 0;
    for (const std::string& line : told_) {
      const auto at = line.find("sigma ");
      if (line.starts_with(name) && at != std::string::npos) sigma = std::stod(line.substr(at + 6));
    }
    EXPECT_NEAR(sigma, kSigma, 0.1) << name;
    EXPECT_EQ(found == before, false) << name;
    // The sky and the light stay, stars become higher.
    double sum = 0, was = 0;
    float highest = 0, high = 0;
    for (size_t i = 0; i < found.size(); ++i) {
      sum += found[i], was += before[i];
      highest = std::max(highest, found[i]), high = std::max(high, before[i]);
    }
    EXPECT_NEAR(sum / was, 1, 0.03) << name;
    EXPECT_GT(highest, 1.2 * high) << name;
  }
}

TEST_F(Deconvolution, SigmaAndFullWidthAreOneThing) {
  for (const char* name : {"wiener", "richardson-lucy", "maximum-entropy"}) {
    const auto one = Result(File(Star), name, {{"sigma", "2"}}),
               other = Result(File(Star), name, {{"fwhm", "4.70964"}});
    ASSERT_EQ(one.size(), other.size());
    for (size_t i = 0; i < one.size(); ++i) {
      ASSERT_NEAR(one[i], other[i], 2e-3 * std::abs(one[i]) + 0.1) << name;
    }
  }
}

TEST_F(Deconvolution, NothingLiesFarBelowTheSky) {
  const auto found = Result(File(Star, 2), "richardson-lucy", {{"sigma", "1.8"}, {"iterations", "50"}});
  EXPECT_GT(*std::min_element(found.begin(), found.end()), kSky - 5 * kNoise);
}

TEST_F(Deconvolution, CountsComeFromTheHeaderUnlessTheyAreTold) {
  const auto header = Result(File(Star, 2), "richardson-lucy", {{"sigma", "1.8"}, {"read-noise", "5"}});
  EXPECT_EQ(Result(File(Star), "richardson-lucy", {{"sigma", "1.8"}, {"read-noise", "5"}, {"gain", "2"}}),
            header);
  EXPECT_NE(Result(File(Star), "richardson-lucy", {{"sigma", "1.8"}, {"read-noise", "5"}}), header);
}

TEST_F(Deconvolution, WhatTellsNothingIsRefused) {
  const auto flat = [](int, int, int) { return 7.0; };
  const struct {
    const char* operation;
    std::map<std::string, std::string> values;
    const char* says;
  } cases[] = {{"wiener", {}, "no star"},
               {"richardson-lucy", {{"sigma", "2"}, {"fwhm", "4"}}, "not both"},
               {"maximum-entropy", {{"sigma", "2"}}, "no noise"}};
  for (const auto& c : cases) {
    ExpectRefused(File(flat), c.operation, c.values, c.says);
  }
}

TEST_F(Deconvolution, NoNoiseIsTooLittleForTheLight) {
  const auto before = Pixels(File(Star).Pixels());
  const auto mean = [](const std::vector<float>& v) {
    return std::accumulate(v.begin(), v.end(), 0.0) / static_cast<double>(v.size());
  };
  for (const char* noise : {"1e-9", "1e-30"}) {
    const auto found =
        Result(File(Star), "maximum-entropy", {{"sigma", "1.8"}, {"noise", noise}, {"iterations", "30"}});
    EXPECT_NEAR(mean(found) / mean(before), 1, 0.02) << noise;
    EXPECT_GT(*std::max_element(found.begin(), found.end()), *std::max_element(before.begin(), before.end()));
  }
}

}  // namespace
}  // namespace korimg::session
