// What files hold, as a host asks for it.
#include "session/info/Inspect.h"

#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "tests/support/Folder.h"

namespace korimg::session {
namespace {

using Inspection = files::FolderTest;

TEST_F(Inspection, MeasuresThePlanesOfEachFile) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  files::Header header;
  header.Set("KORLMIN1", 1.0);
  header.Set("KORLMAX1", 90.0);
  header.Set("FILTER", "Ha");
  header.Set("OBJECT", "M 1");
  const struct {
    const char* name;
    files::Planes planes;
    double min, max, mean, median, stddev;  // of the last plane
  } cases[] = {{"odd.fits", {{-4, 8, nan, 1, 1, 9}}, -4, 9, 3, 1, std::sqrt((49 + 25 + 4 + 4 + 36) / 5.0)},
               {"even.fits",
                {{0, 0, 0, 0, 0, 0}, {1, 1, 1, 1, 1, 1}, {6, 2, 4, 8, 2, 2}},
                2,
                8,
                4,
                3,
                std::sqrt((4 + 4 + 0 + 16 + 4 + 4) / 6.0)}};
  InspectOptions options;
  for (const auto& c : cases) {
    const int planes = static_cast<int>(c.planes.size());
    const auto writer =
        files::ImageWriter::Create(In(c.name), {.width = 3, .height = 2, .planes = planes, .header = header});
    files::WriteAll(*writer, c.planes, 3, 2, 2);
    options.files.push_back(In(c.name));
    options.files.push_back(In("none.fits"));
  }
  Job job;
  const auto found = Inspect(job, options);
  ASSERT_EQ(found.size(), std::size(cases));
  EXPECT_TRUE(job.HasFailed());
  for (size_t i = 0; i < found.size(); ++i) {
    SCOPED_TRACE(cases[i].name);
    EXPECT_EQ(found[i].info.path, In(cases[i].name));
    ASSERT_EQ(found[i].planes.size(), cases[i].planes.size());
    const PlaneContents& m = found[i].planes.back();
    EXPECT_EQ(m.min, cases[i].min);
    EXPECT_EQ(m.max, cases[i].max);
    EXPECT_FLOAT_EQ(m.mean, cases[i].mean);
    EXPECT_EQ(m.median, cases[i].median);
    EXPECT_NEAR(m.stddev, cases[i].stddev, 1e-4);
    EXPECT_EQ(std::pair(found[i].planes[0].black, found[i].planes[0].white), std::pair(1.0, 90.0));
    const std::vector<std::pair<std::string, std::string>> keywords = {{"OBJECT", "M 1"}, {"FILTER", "Ha"}};
    EXPECT_EQ(found[i].keywords, keywords);
    EXPECT_EQ(found[i].mosaic.name, "");
  }
}

}  // namespace
}  // namespace korimg::session
