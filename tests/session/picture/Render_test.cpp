// Pictures as a host asks for them.
#include "session/picture/Render.h"

#include <algorithm>
#include <cmath>

#include <gtest/gtest.h>

#include "tests/support/Folder.h"
#include "tests/support/Images.h"

namespace korimg::session {
namespace {

namespace fs = std::filesystem;
using test::Noise;

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

TEST_F(RenderSteps, ShowALinearSkyAsADarkGreyOfNoColour) {
  constexpr double kSkies[] = {1000, 1400, 700};
  files::Planes planes;
  for (int p = 0; p < 3; ++p) {
    auto& plane = planes.emplace_back(kWidth * kHeight);
    for (int i = 0; i < kWidth * kHeight; ++i) {
      plane[i] = static_cast<float>(kSkies[p] + 60 * (Noise(3 * i + p) - 0.5) + (i == 777 ? 40000 : 0));
    }
    plane[5] = NAN;
  }
  const auto writer =
      files::ImageWriter::Create(In("sky.fits"), {.width = kWidth, .height = kHeight, .planes = 3});
  files::WriteAll(*writer, planes, kWidth, kHeight, 64);
  options_.input = In("sky.fits");
  const auto medians = [&](LevelMethod method) {
    options_.level = method;
    job_.options.overwrite = true;
    Render(job_, options_);
    std::vector<float> result;
    for (std::vector<float>& plane : files::ReadAll(*files::ImageReader::Open(In("a.png")), 64)) {
      EXPECT_GT(plane[777], 250);
      EXPECT_EQ(plane[5], 0);
      std::nth_element(plane.begin(), plane.begin() + plane.size() / 2, plane.end());
      result.push_back(plane[plane.size() / 2]);
    }
    return result;
  };
  for (const float grey : medians(LevelMethod::Auto)) {
    EXPECT_NEAR(grey, 255 / 4.0, 2);
  }
  const std::vector<float> linked = medians(LevelMethod::Linked);
  EXPECT_GT(linked[1], 150);
  EXPECT_EQ(linked[2], 0);

  // Noise alone is a sky too.
  for (auto& plane : planes) {
    plane[777] = plane[778], plane[5] = plane[6];
  }
  job_.options.overwrite = true;
  const auto starless =
      files::ImageWriter::Create(In("starless.fits"), {.width = kWidth, .height = kHeight, .planes = 3});
  for (auto& plane : planes) {
    for (int i = 0; i < kWidth * kHeight; ++i) {
      plane[i] = 500;
      for (int k = 0; k < 12; ++k) {
        plane[i] += static_cast<float>(9 * (Noise(12 * i + k) - 0.5));
      }
    }
  }
  files::WriteAll(*starless, planes, kWidth, kHeight, 64);
  options_.input = In("starless.fits");
  options_.level = LevelMethod::Auto;
  Render(job_, options_);
  std::vector<float> grey = files::ReadAll(*files::ImageReader::Open(In("a.png")), 64)[0];
  std::nth_element(grey.begin(), grey.begin() + grey.size() / 2, grey.end());
  EXPECT_NEAR(grey[grey.size() / 2], 255 / 4.0, 2);

  // What has 8 bits is a picture already.
  options_.input = In("a.png");
  options_.output = In("b.png");
  options_.level = LevelMethod::Auto;
  Render(job_, options_);
  EXPECT_EQ(files::ReadAll(*files::ImageReader::Open(In("b.png")), 64),
            files::ReadAll(*files::ImageReader::Open(In("a.png")), 64));
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

// A nebula lies in one corner, and the picture is as the image or, by its sky, turned over.
TEST_F(RenderSteps, DrawTheBoxesOfTheGradientWhereTheyLie) {
  constexpr int kSide = 200;
  for (const bool overturned : {false, true}) {
    const std::string name = overturned ? "below" : "above";
    const fs::path file = In(name + ".fits");
    files::Header header;
    if (overturned) {
      header.Set("CTYPE1", "RA---TAN");
      header.Set("CTYPE2", "DEC--TAN");
      header.Set("CD1_1", -1e-4);
      header.Set("CD2_2", 1e-4);
    }
    const auto writer =
        files::ImageWriter::Create(file, {.width = kSide, .height = kSide, .planes = 1, .header = header});
    files::Planes planes = {std::vector<float>(kSide * kSide)};
    for (int i = 0; i < kSide * kSide; ++i) {
      const int x = i % kSide, y = i / kSide;
      planes[0][i] = static_cast<float>(1000 + 0.5 * x + 10 * Noise(i) + (x < 60 && y < 50 ? 400 : 0));
    }
    files::WriteAll(*writer, planes, kSide, kSide, 64);
    const auto picture = [&](const char* what) {
      options_.input = file, options_.output = In(name + what);
      const RenderResult result = Render(job_, options_);
      return std::pair(result, files::ReadAll(*files::ImageReader::Open(options_.output), 64)[0]);
    };
    options_.level = LevelMethod::Auto;
    options_.annotations.reset();
    const auto plain = picture("plain.png");
    EXPECT_TRUE(plain.first.boxes.empty());
    options_.annotations = Annotations();
    options_.gradient = CImgGradient::Options{.boxes = 8, .size = 13};
    const auto [result, drawn] = picture("boxes.png");
    options_.gradient.reset();
    ASSERT_EQ(result.boxes.size(), 64u);
    for (const CImgGradient::Box& box : result.boxes) {
      const bool isNebula = box.x < 60 && box.y < 50;
      EXPECT_FALSE(isNebula && box.isSky) << box.x << ' ' << box.y;
      const int y = overturned ? kSide - 1 - box.y : box.y;
      if (overturned && box.x < 110 && y > 150) continue;  // under the scale bar
      const auto at = [&, &drawn = drawn](int dx, int dy) { return drawn[(y + dy) * kSide + box.x + dx]; };
      EXPECT_EQ(at(-6, 1), 255) << "its left side: " << box.x << ' ' << box.y;
      EXPECT_EQ(at(6, 1), 255) << "its right side: " << box.x << ' ' << box.y;
      EXPECT_EQ(at(-3, -3) == 255 && at(3, -3) == 255 && at(0, 0) == 255, !box.isSky)
          << box.x << ' ' << box.y;
    }
    EXPECT_GT(std::count_if(result.boxes.begin(), result.boxes.end(),
                            [](const CImgGradient::Box& box) { return box.isSky; }),
              30);
    options_.gradient = CImgGradient::Options{.size = 100};
    EXPECT_THROW(picture("none.png"), files::FileError) << "boxes that are larger than the image";
    options_.gradient.reset();
  }
}

}  // namespace
}  // namespace korimg::session
