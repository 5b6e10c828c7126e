// Stars as a host finds them: in its own arrays, and in files.
#include "session/stars/Stars.h"

#include <cmath>

#include <gtest/gtest.h>

#include "tests/support/Folder.h"
#include "tests/support/Images.h"

namespace korimg::session {
namespace {

namespace fs = std::filesystem;

class StarSteps : public files::FolderTest {
 protected:
  static constexpr int kWidth = 260, kHeight = 180;
  static constexpr double kSky = 1000, kFwhm = 3.5;

  StarSteps() : pixels_(kWidth * kHeight) {
    const double sigma = kFwhm / std::sqrt(8 * std::log(2));
    const test::PixelRule noise = test::Random(-8, 8);
    for (int y = 0; y < kHeight; ++y) {
      for (int x = 0; x < kWidth; ++x) {
        double value = kSky + noise(0, x, y);
        for (const auto& [starX, starY, peak] : kStars) {
          value += peak * std::exp(-(std::pow(x - starX, 2) + std::pow(y - starY, 2)) / (2 * sigma * sigma));
        }
        pixels_[y * kWidth + x] = static_cast<float>(value);
      }
    }
  }

  Band<float> Pixels() {
    float* const planes[] = {pixels_.data()};
    return {planes, 1, kWidth, 0, kHeight};
  }

  void Save(const std::string& name, const files::Header& header = {}) {
    const auto writer =
        files::ImageWriter::Create(In(name), {.width = kWidth, .height = kHeight, .header = header});
    files::WriteAll(*writer, {pixels_}, kWidth, kHeight, 64);
  }

  /// By falling light.
  static constexpr double kStars[][3] = {{40.25, 50.5, 9000},
                                         {200.75, 30.125, 5000},
                                         {120, 140.5, 2500},
                                         {70.5, 120, 1200},
                                         {210.125, 150, 600}};
  std::vector<float> pixels_;
  Job job_;
};

TEST_F(StarSteps, AreFoundInMemoryOfAHost) {
  const Image image = Image::Over(job_, Pixels());
  const FoundStars found = FindStars(image);
  ASSERT_EQ(found.stars.size(), std::size(kStars));
  for (size_t i = 0; i < found.stars.size(); ++i) {
    EXPECT_NEAR(found.stars[i].x, kStars[i][0], 0.05);
    EXPECT_NEAR(found.stars[i].y, kStars[i][1], 0.05);
    EXPECT_NEAR(found.stars[i].peak / kStars[i][2], 1, 0.1);
  }
  EXPECT_EQ(std::pair(found.width, found.height), std::pair(kWidth, kHeight));
  EXPECT_NEAR(found.fwhm, kFwhm, 0.2);
  EXPECT_NEAR(found.elongation, 1, 0.05);
  EXPECT_NEAR(found.sky, kSky, 2);
  EXPECT_NEAR(found.noise, 16 / std::sqrt(12), 1);
  EXPECT_EQ(found.gain.electrons, 0);
  EXPECT_TRUE(found.GainText().starts_with("gain unknown (")) << found.GainText();

  const FoundStars told = FindStars(image, {.gain = files::Gain{0.5, "measured"}});
  EXPECT_EQ(told.GainText(), "gain 0.5 (measured)");
  EXPECT_LT(told.stars[0].snr, 0.5 * found.stars[0].snr) << "a bright star's own light counts";
  EXPECT_EQ(FindStars(image, {.sigmas = 400}).stars.size(), 4u);
}

TEST_F(StarSteps, OfFilesComeWithTheirFilesAndFailuresAreTold) {
  files::Header header;
  header.Set("EGAIN", 0.5);
  Save("a.fits");
  Save("b.fits", header);
  std::vector<std::string> failures;
  Job job({.report = [&](const Event& event) {
    if (event.kind == Event::Failure) failures.push_back(event.text);
  }});
  const auto found = FindStars(job, {.files = {In("a.fits"), In("none.fits"), In("b.fits")}});
  ASSERT_EQ(found.size(), 2u);
  EXPECT_EQ(found[0].file, In("a.fits"));
  EXPECT_EQ(found[1].file, In("b.fits"));
  EXPECT_EQ(found[1].gain.electrons, 0.5);
  ASSERT_EQ(failures.size(), 1u);
  EXPECT_TRUE(failures[0].starts_with(In("none.fits").string() + ": ")) << failures[0];
  EXPECT_TRUE(job.HasFailed());
  const FoundStars same = FindStars(Image::Over(job_, Pixels()));
  ASSERT_EQ(found[0].stars.size(), same.stars.size());
  EXPECT_EQ(found[0].stars[4].flux, same.stars[4].flux);

  WriteStarList(In("list.txt"), found[0]);
  const std::string list = files::ReadBytes(In("list.txt"));
  EXPECT_TRUE(list.starts_with("# 5 stars of a.fits\n# gain unknown")) << list;
  EXPECT_EQ(std::count(list.begin(), list.end(), '\n'), 3 + 5);
  EXPECT_THROW(WriteStarList(In("none/list.txt"), found[0]), files::FileError);
}

TEST_F(StarSteps, FlagsAreNamed) {
  EXPECT_EQ(FlagsText({}), "");
  EXPECT_EQ(FlagsText({.flags = CStar::Saturated | CStar::Blended}), "saturated,blended");
}

}  // namespace
}  // namespace korimg::session
