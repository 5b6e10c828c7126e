// Development of files as a host calls it.
#include "session/develop/DevelopFiles.h"

#include <gtest/gtest.h>

#include "tests/support/Folder.h"
#include "tests/support/Simulated.h"

namespace korimg::session {
namespace {

namespace fs = std::filesystem;

class DevelopSteps : public files::FolderTest {
 protected:
  void SetUp() override {
    test::Simulated(In("night"), {.frames = 2, .width = 120, .height = 90, .bayer = "GBRG"});
    options_.frames = {In("night/lights")};
    options_.dark = In("night/darks/dark_0001.fits");
    options_.out = In("out");
    options_.previews = true;
  }

  DevelopFilesOptions options_;
};

TEST_F(DevelopSteps, GiveWhatTheyPlanned) {
  Job job;
  const auto planned = PlanDevelopFiles(job, options_);
  ASSERT_FALSE(fs::exists(In("out")));
  const auto done = DevelopFiles(job, options_);
  ASSERT_EQ(done.size(), 2u);
  ASSERT_EQ(planned.size(), 2u);
  for (size_t i = 0; i < done.size(); ++i) {
    const DevelopedFrame& frame = done[i];
    EXPECT_EQ(std::tie(frame.file, frame.output, frame.preview),
              std::tie(planned[i].file, planned[i].output, planned[i].preview));
    EXPECT_EQ(frame.whiteBalance.gains, planned[i].whiteBalance.gains);
    EXPECT_EQ(frame.whiteBalance.text, "by medians");
    EXPECT_EQ(frame.mosaic.name, "GBRG");
    EXPECT_EQ(frame.output, In("out") / ("light_000" + std::to_string(i + 1) + ".fits"));
    EXPECT_EQ(files::ImageReader::Open(frame.output)->Info().planes, 3);
    EXPECT_TRUE(frame.preview && fs::exists(*frame.preview));
  }
  EXPECT_FALSE(job.HasFailed());

  // Outputs that exist are failures of their frames; the third one is new.
  fs::copy(In("night/lights/light_0001.fits"), In("night/lights/light_0003.fits"));
  const auto again = DevelopFiles(job, options_);
  ASSERT_EQ(again.size(), 1u);
  EXPECT_EQ(again[0].file, In("night/lights/light_0003.fits"));
  EXPECT_TRUE(job.HasFailed());
}

TEST_F(DevelopSteps, RefuseWhatDoesNotGoTogether) {
  // Before anything is read.
  options_.dark = In("none");
  for (const auto& change : std::initializer_list<void (*)(DevelopFilesOptions&)>{
           [](DevelopFilesOptions& o) { o.half = o.mono = true; },
           [](DevelopFilesOptions& o) { o.black = 1; },
           [](DevelopFilesOptions& o) {
             o.whiteBalance = {WhiteBalanceChoice::Gains, {1, 2, 3}};
           },
           [](DevelopFilesOptions& o) { o.out += ".tif"; }}) {
    DevelopFilesOptions wrong = options_;
    change(wrong);
    Job job;
    EXPECT_THROW(DevelopFiles(job, wrong), UsageError);
    EXPECT_THROW(PlanDevelopFiles(job, wrong), UsageError);
  }
  Job job;
  EXPECT_THROW(DevelopFiles(job, options_), files::FileError);
  EXPECT_FALSE(fs::exists(In("out")));
}

}  // namespace
}  // namespace korimg::session
