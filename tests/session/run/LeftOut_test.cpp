#include "session/calibrate/FindSession.h"
#include "session/run/Run.h"
#include "tests/support/Folder.h"
#include "tests/support/Simulated.h"

namespace korimg::session {
namespace {

using LeftOutTest = files::FolderTest;

TEST_F(LeftOutTest, EachLightThatIsNotStackedSaysWhy) {
  test::Simulated(In("night"), {.frames = 3, .width = 300, .height = 200});
  const auto cut = In("night/lights/x.fits"), junk = In("night/lights/y.fits");
  files::WriteBytes(cut, files::ReadBytes(In("night/lights/light_0001.fits")).substr(0, 9000));
  files::WriteBytes(junk, "no image");
  Job job;
  RunOptions options;
  options.calibrate.lights = {In("night/lights")};
  options.calibrate.out = In("out");
  const RunResult result = session::Run(job, options);
  ASSERT_EQ(result.frames.size(), 5u);
  for (const RunFrame& frame : result.frames) {
    const bool isWhole = frame.file != cut && frame.file != junk;
    EXPECT_EQ(frame.isStacked, isWhole) << frame.file << frame.status;
    if (frame.file == cut) {
      EXPECT_NE(frame.status.find("take 120000 bytes, the file holds"), std::string::npos) << frame.status;
    }
    if (frame.file == junk) {
      EXPECT_NE(frame.status.find("neither FITS, TIFF, PNG nor camera raw"), std::string::npos)
          << frame.status;
    }
  }
  EXPECT_FALSE(job.HasFailed());
}

}  // namespace
}  // namespace korimg::session
