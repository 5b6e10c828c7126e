// Panels of a mosaic in one stack.
#include <cmath>
#include <map>

#include <gtest/gtest.h>

#include "session/picture/Image.h"
#include "session/register/RegisterFiles.h"
#include "session/stack/StackFiles.h"
#include "tests/support/Folder.h"
#include "tests/support/StarFields.h"

namespace korimg::session {
namespace {

using korimg::test::Noise;
using namespace korimg::test::field;

constexpr int kSide = 260, kTall = 220;
constexpr double kNoise = 2;

class UnionTest : public files::FolderTest {
 protected:
  static void Write(const std::filesystem::path& path, int width, int height,
                    const std::vector<float>& pixels, const files::Header& header = {}) {
    const auto writer = files::ImageWriter::Create(
        path, {.width = width, .height = height, .type = "float32", .header = header});
    files::WriteAll(*writer, {pixels}, width, height, height);
  }

  struct Panel {
    double dx, dy, degrees, light, level, slopeX, slopeY;
  };
  inline static const std::vector<Panel> kPanels = {{0, 0, 0, 1, 500, 0, 0},
                                                    {210, 6.5, 0.6, 0.9, 600, 20, -15},
                                                    {-4.25, 180, -0.4, 0.95, 450, -12, 25},
                                                    {208, 182, 0.2, 1.05, 520, 15, 10}};

  static double Sky(double x, double y) {
    return 60 * std::exp(-((x - 230) * (x - 230) + (y - 190) * (y - 190)) / 12000);
  }
  static double Star(double x, double y) {
    double sum = 0;
    for (int i = 0; i < 500; ++i) {
      const double sx = 600 * Noise(3 * i) - 60, sy = 520 * Noise(3 * i + 1) - 60;
      const double r2 = (x - sx) * (x - sx) + (y - sy) * (y - sy);
      if (r2 < 100) sum += 40 / (0.02 + Noise(3 * i + 2)) * std::exp(-r2 / 4.5);
    }
    return sum;
  }

  /// Where pixel (x, y) of a panel lies on the first one.
  static Point PlaceOf(const Panel& panel, double x, double y) {
    return *CFrameMap::FromPose(panel.dx, panel.dy, panel.degrees, kSide, kTall)({x, y});
  }

  void WritePanels() {
    for (size_t i = 0; i < kPanels.size(); ++i) {
      const Panel& panel = kPanels[i];
      std::vector<float> pixels;
      for (int y = 0; y < kTall; ++y) {
        for (int x = 0; x < kSide; ++x) {
          const Point p = PlaceOf(panel, x, y);
          double noise = -6;
          for (int k = 0; k < 12; ++k) {
            noise += Noise(1000000 * i + 12 * (1000 * y + x) + k);
          }
          pixels.push_back(static_cast<float>(panel.light * (Sky(p.x, p.y) + Star(p.x, p.y)) + panel.level +
                                              panel.slopeX * x / kSide + panel.slopeY * y / kTall +
                                              kNoise * noise));
        }
      }
      files::Header header;
      header.Set("CRPIX1", 100.5);
      header.Set("CRPIX2", 80.25);
      header.Set("CTYPE1", "RA---TAN");
      header.Set("CTYPE2", "DEC--TAN");
      panels_.push_back(In("panel" + std::to_string(i) + ".fits"));
      Write(panels_.back(), kSide, kTall, pixels, header);
    }
  }

  std::vector<std::filesystem::path> panels_;
};

TEST_F(UnionTest, PanelsMeetWithoutSeams) {
  WritePanels();
  Job job;
  const RegisterResult registered = RegisterFiles(job, {.files = panels_, .reference = panels_[0].string()});
  for (size_t i = 0; i < panels_.size(); ++i) {
    ASSERT_TRUE(registered.frames[i].IsGood()) << i << registered.frames[i].Text();
    EXPECT_NEAR(registered.frames[i].fluxRatio.value_or(0), kPanels[i].light, 0.2)
        << i << ", by a few faint stars";
  }
  WriteRegistrations(In("list"), registered.frames);
  StackFilesOptions options;
  options.frames = panels_;
  options.transforms = In("list");
  options.reference = panels_[0];
  options.output = In("mosaic.fits");
  options.frame = StackFrame::Union;
  const StackResult result = StackFiles(job, options);
  EXPECT_EQ(result.frames.size(), 4u);
  const Image mosaic = Image::Open(job, In("mosaic.fits"));
  const double left = mosaic.Header().GetDouble("CRPIX1").value() - 100.5,
               top = mosaic.Header().GetDouble("CRPIX2").value() - 80.25;
  EXPECT_NEAR(left, 5, 1.1) << "what the third panel adds to the left";
  EXPECT_NEAR(mosaic.Width(), 210 + kSide + left, 3);
  EXPECT_NEAR(mosaic.Height(), 182 + kTall + top, 3);

  // What is left of the truth, in squares, goes on from one to the next: a gradient that all panels share is
  // nothing that they tell.
  std::map<std::pair<int, int>, double> squares;
  for (int y = 10; y + 24 < mosaic.Height() - 10; y += 24) {
    for (int x = 10; x + 24 < mosaic.Width() - 10; x += 24) {
      std::vector<double> rest;
      for (int v = y; v < y + 24; ++v) {
        for (int u = x; u < x + 24; ++u) {
          const float value = mosaic.Pixels().GetPixelGrayRaw(u, v, 0);
          const double star = Star(u - left, v - top);
          if (std::isfinite(value) && star < 0.2) rest.push_back(value - Sky(u - left, v - top));
        }
      }
      if (rest.size() < 200) continue;
      std::nth_element(rest.begin(), rest.begin() + rest.size() / 2, rest.end());
      squares[{x / 24, y / 24}] = rest[rest.size() / 2];
    }
  }
  EXPECT_GT(squares.size(), 150u);
  for (const auto& [place, level] : squares) {
    EXPECT_NEAR(level, 500, 15) << "the reference's";
    for (const auto& [dx, dy] : {std::pair(1, 0), {0, 1}}) {
      const auto next = squares.find({place.first + dx, place.second + dy});
      if (next != squares.end()) {
        EXPECT_NEAR(next->second, level, 1.25 * kNoise) << place.first * 24 << ", " << place.second * 24;
      }
    }
  }
}

TEST_F(UnionTest, FramesOfOtherSizesAndPlacesAreToldOf) {
  Write(In("a.fits"), 40, 30, std::vector<float>(1200, 7));
  Write(In("b.fits"), 20, 50, std::vector<float>(1000, 9));
  files::WriteBytes(In("list"), R"({"file": "a.fits", "dx": 0, "dy": 0, "degrees": 0, "status": "ok"})"
                                "\n"
                                R"({"file": "b.fits", "dx": -15, "dy": 22, "degrees": 0, "status": "ok"})"
                                "\n");
  Job job;
  StackFilesOptions options;
  options.frames = {In("a.fits"), In("b.fits")};
  options.transforms = In("list");
  options.output = In("out.fits");
  EXPECT_THROW(StackFiles(job, options), files::FileError) << "of one size unless it is a union";
  options.frame = StackFrame::Union;
  options.normalise = Normalisation::None;
  options.weight = FrameWeights::None;
  options.feather = 0;
  StackFiles(job, options);
  const Image mosaic = Image::Open(job, In("out.fits"));
  ASSERT_EQ(std::pair(mosaic.Width(), mosaic.Height()), std::pair(55, 72));
  const auto at = [&](int x, int y) { return mosaic.Pixels().GetPixelGrayRaw(x, y, 0); };
  EXPECT_EQ(at(15, 0), 7);
  EXPECT_EQ(at(54, 29), 7);
  EXPECT_EQ(at(0, 22), 9);
  EXPECT_EQ(at(19, 71), 9);
  EXPECT_EQ(at(17, 25), 8) << "where both are";
  EXPECT_TRUE(std::isnan(at(0, 0)) && std::isnan(at(30, 40)) && std::isnan(at(54, 71)));
  files::WriteBytes(In("list"), R"({"file": "a.fits", "dx": 0, "dy": 0, "degrees": 0, "status": "ok"})"
                                "\n"
                                R"({"file": "b.fits", "dx": 90000, "dy": 22, "degrees": 0, "status": "ok"})"
                                "\n");
  job.options.overwrite = true;
  try {
    StackFiles(job, options);
    FAIL();
  } catch (const files::FileError& error) {
    EXPECT_NE(std::string(error.what()).find("b.fits: would make the mosaic more than 100 times as large"),
              std::string::npos)
        << error.what();
  }
}

}  // namespace
}  // namespace korimg::session
