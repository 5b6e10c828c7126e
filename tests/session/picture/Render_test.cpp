// Pictures as a host asks for them.
#include "session/picture/Render.h"

#include <gtest/gtest.h>

#include "tests/support/Folder.h"

namespace korimg::session {
namespace {

namespace fs = std::filesystem;

class RenderSteps : public files::FolderTest {
 protected:
  static constexpr int kWidth = 80, kHeight = 61;

  RenderSteps() {
    files::Header header;
    for (const char* plane : {"1", "2", "3"}) {
      header.Set("KORLMIN" + std::string(plane), 100.0);
      header.Set("KORLMAX" + std::string(plane), 300.0);
    }
    const auto writer = files::ImageWriter::Create(
        In("a.fits"), {.width = kWidth, .height = kHeight, .planes = 3, .header = header});
    files::Planes planes;
    for (const float value : {100.0f, 200.0f, 900.0f}) {
      planes.emplace_back(kWidth * kHeight, value);
    }
    files::WriteAll(*writer, planes, kWidth, kHeight, 64);
  }

  RenderOptions options_{.input = In("a.fits"), .output = In("a.png"), .level = LevelMethod::None};
  Job job_;
};

TEST_F(RenderSteps, TellSizeAndLevelsOfThePicture) {
  options_.scale = 0.25;
  PlanRender(job_, options_);
  EXPECT_FALSE(fs::exists(In("a.png")));
  const RenderResult result = Render(job_, options_);
  EXPECT_EQ(std::tuple(result.shape.width, result.shape.height, result.shape.planes), std::tuple(20, 15, 3));
  for (int p = 0; p < 3; ++p) {
    EXPECT_EQ(std::pair(result.levels.min[p], result.levels.max[p]), std::pair(100.0, 300.0));
  }
  const auto picture = files::ImageReader::Open(In("a.png"));
  EXPECT_EQ(std::tuple(picture->Info().width, picture->Info().height), std::tuple(20, 15));
  const files::Planes pixels = files::ReadAll(*picture, 64);
  EXPECT_EQ(pixels[0][7], 0);
  EXPECT_NEAR(pixels[1][7], 127.5, 1);
  EXPECT_EQ(pixels[2][7], 255);
  EXPECT_THROW(Render(job_, options_), files::FileError) << "it exists already";
  EXPECT_THROW(PlanRender(job_, options_), files::FileError);
}

TEST_F(RenderSteps, DrawTheAnnotationsThatAreToldOrKnown) {
  Render(job_, options_);
  const auto differs = [&](const char* output) {
    options_.output = In(output);
    Render(job_, options_);
    return files::ReadAll(*files::ImageReader::Open(In(output)), 64) !=
           files::ReadAll(*files::ImageReader::Open(In("a.png")), 64);
  };
  EXPECT_FALSE(differs("b.png"));
  options_.annotations = Annotations{.title = "M 1"};
  EXPECT_TRUE(differs("c.png"));
  options_.annotations = Annotations();
  options_.output = In("d.png");
  EXPECT_THROW(Render(job_, options_), files::FileError) << "it names no object";
  EXPECT_FALSE(fs::exists(In("d.png")));
}

}  // namespace
}  // namespace korimg::session
