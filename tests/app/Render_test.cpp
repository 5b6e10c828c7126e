// korimg render, as a person calls it.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <jpeglib.h>

#include "tests/app/Tool.h"

namespace korimg::files {
namespace {

class Render : public ToolTest {};

/// Size and components of a JPEG file, and its pixels.
struct Jpeg {
  int width = 0, height = 0, components = 0;
  std::vector<unsigned char> pixels;

  explicit Jpeg(const std::filesystem::path& path) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    jpeg_decompress_struct jpeg{};
    jpeg_error_mgr errors{};
    jpeg.err = jpeg_std_error(&errors);
    jpeg_create_decompress(&jpeg);
    jpeg_stdio_src(&jpeg, file);
    jpeg_read_header(&jpeg, TRUE);
    jpeg_start_decompress(&jpeg);
    width = static_cast<int>(jpeg.output_width);
    height = static_cast<int>(jpeg.output_height);
    components = jpeg.output_components;
    pixels.resize(static_cast<size_t>(width) * height * components);
    while (jpeg.output_scanline < jpeg.output_height) {
      unsigned char* row = &pixels[static_cast<size_t>(jpeg.output_scanline) * width * components];
      jpeg_read_scanlines(&jpeg, &row, 1);
    }
    jpeg_finish_decompress(&jpeg);
    jpeg_destroy_decompress(&jpeg);
    std::fclose(file);
  }
};

TEST_F(Render, PicturesAreTheSameInEveryFormat) {
  const test::PixelRule smooth = [](int p, int x, int y) { return 100 + 6 * x + 4 * y + 50 * p; };
  for (const int planes : {1, 3}) {
    Save("a.fits", 61, 43, planes, smooth);
    for (const char* name : {"a.png", "a.tif", "a.jpg"}) {
      ASSERT_EQ(Shell(std::string("korimg render a.fits --level none --overwrite -o ") + name).code, 0)
          << name;
    }
    const Planes png = Read("a.png"), tiff = Read("a.tif");
    EXPECT_EQ(png, tiff);
    EXPECT_EQ(ImageReader::Open(In("a.tif"))->Info().type, "uint8");
    const Jpeg jpeg(In("a.jpg"));
    EXPECT_EQ(std::tuple(jpeg.width, jpeg.height, jpeg.components), std::tuple(61, 43, planes));
    for (int p = 0; p < planes; ++p) {
      for (int i = 0; i < 61 * 43; ++i) {
        const double shown = std::clamp((smooth(p, i % 61, i / 61) - 100) * 255 / 800, 0.0, 255.0);
        ASSERT_NEAR(png[p][i], std::floor(shown), 1) << planes << " " << p << " " << i;
        ASSERT_NEAR(jpeg.pixels[static_cast<size_t>(i) * planes + p], shown, 8)
            << planes << " " << p << " " << i;
      }
    }
  }
  const Result wrong = Shell("korimg apply invert a.fits -o b.jpg");
  EXPECT_EQ(wrong.code, 1);
  EXPECT_NE(wrong.err.find("cannot write float32 pixels to .jpg"), std::string::npos) << wrong.err;
  Frame("wide.fits", 65501, 1, smooth);
  EXPECT_EQ(Shell("korimg render wide.fits -o wide.jpg").code, 1);
  for (const std::string& name : Names()) {
    EXPECT_NE(name.substr(0, 5), "wide.j") << name;
  }
}

TEST_F(Render, PicturesLargerThanTheMemoryComeOutTheSame) {
  Save("a.fits", 1501, 1102, 3, test::Wild(100, 900));
  for (const std::string options : {"", " --scale 0.5"}) {
    ASSERT_EQ(Shell("korimg render a.fits -o whole.png --overwrite" + options).code, 0);
    ASSERT_EQ(Shell("korimg render a.fits -o bands.png --memory 1M --overwrite" + options).code, 0);
    const Planes whole = Read("whole.png"), bands = Read("bands.png");
    int differing = 0;
    for (int p = 0; p < 3; ++p) {
      for (size_t i = 0; i < whole[p].size(); ++i) {
        // One path is in double, the other in float: a value at a step's edge may fall to either side.
        ASSERT_NEAR(whole[p][i], bands[p][i], 1) << options << " " << p << " " << i;
        differing += whole[p][i] != bands[p][i];
      }
    }
    EXPECT_LT(differing, 1e-4 * 3 * static_cast<double>(whole[0].size())) << options;
  }
}

TEST_F(Render, SmallPicturesShowTheMeanOfWhatTheLevelsShow) {
  // A star far above white, a blank pixel, and pixels below black.
  Save("a.fits", 31, 21, 1, [](int, int x, int y) {
    return x == 10 && y == 10 ? 1e6 : x == 20 && y == 5 ? NAN : y == 0 ? -5000 : 500;
  });
  ASSERT_EQ(Shell("korimg render a.fits -o a.png --level none --scale 0.25").code, 0);
  const auto reader = ImageReader::Open(In("a.png"));
  EXPECT_EQ(std::pair(reader->Info().width, reader->Info().height), std::pair(7, 5));
  const Planes p = Read("a.png");
  const auto shown = [](double sum) { return std::floor(sum / 16 * 255 / 800); };
  EXPECT_EQ(p[0][3 * 7 + 3], shown(16 * 400));
  EXPECT_EQ(p[0][2 * 7 + 2], shown(15 * 400 + 800)) << "a star stays a point";
  EXPECT_EQ(p[0][1 * 7 + 5], shown(15 * 400)) << "a blank pixel is a black one";
  EXPECT_EQ(p[0][0], shown(12 * 400));
}

// Where only the sky tells that rows run up, pictures are turned, and circles are about the stars all the
// same.
TEST_F(Render, CirclesLieAboutStarsOfOverturnedImages) {
  constexpr int kWidth = 200, kHeight = 161;
  Save(
      "a.fits", kWidth, kHeight, 1,
      [](int, int x, int y) {
        return 200 + 600 * std::exp(-(std::pow(x - 60.0, 2) + std::pow(y - 30.0, 2)) / 5);
      },
      SkyFromBelow());
  WriteBytes(In("stars.txt"), "60 30 12\n");
  for (const int bin : {1, 2}) {
    const std::string scale = fmt::format(" --scale {} --level none --overwrite ", 1.0 / bin);
    ASSERT_EQ(Shell("korimg render a.fits -o plain.png" + scale).code, 0);
    ASSERT_EQ(Shell("korimg render a.fits -o ring.png --annotate --stars stars.txt" + scale).code, 0);
    const Planes plain = Read("plain.png"), ring = Read("ring.png");
    const int width = kWidth / bin;
    double sx = 0, sy = 0, changed = 0;
    for (size_t i = 0; i < plain[0].size(); ++i) {
      if (plain[0][i] == ring[0][i]) continue;
      ++changed, sx += static_cast<double>(i % width), sy += static_cast<double>(i / width);
    }
    const size_t peak = std::max_element(plain[0].begin(), plain[0].end()) - plain[0].begin();
    EXPECT_NEAR(static_cast<double>(peak / width), (kHeight - 1 - 30.0) / bin, 1);
    EXPECT_GT(changed, 20);
    EXPECT_NEAR(sx / changed, static_cast<double>(peak % width), 1);
    EXPECT_NEAR(sy / changed, static_cast<double>(peak / width), 1);
  }
}

TEST_F(Render, AnnotationsChangeOnlyWhatIsNearThem) {
  Header header;
  header.Set("FOCALLEN", 500.0);
  header.Set("XPIXSZ", 5.0);
  header.Set("OBJECT", "M 42");
  WriteBytes(In("stars.txt"), "# x y radius\n300 200 20  # one\n\n120.5 80.5\n9999 5\n");
  for (const int planes : {1, 3}) {
    Save(
        "a.fits", 400, 300, planes, [](int, int x, int y) { return 200 + x % 50 + y; }, header);
    const std::string before = ReadBytes(In("a.fits"));
    const auto render = [&](const std::string& options) {
      const Result r = Shell("korimg render a.fits -o a.png --level none --overwrite " + options);
      EXPECT_EQ(r.code, 0) << r.err;
      return Read("a.png");
    };
    const Planes plain = render(""), title = render("--annotate --title 'Orion 星雲'"),
                 bar = render("--annotate --scale-bar"), stars = render("--annotate --stars stars.txt"),
                 by = render("--annotate");
    // 2.06 seconds for a pixel; 30 % of the width are 247 seconds: a bar of two minutes has 58.2 pixels.
    struct Case {
      const Planes& picture;
      const char* name;
      std::function<bool(int, int)> near;
      int least;
    };
    const auto ring = [](int x, int y) {
      return std::abs(std::hypot(x - 300, y - 200) - 20) < 2 ||
             std::abs(std::hypot(x - 120.5, y - 80.5) - 6) < 2;
    };
    const auto corner = [](int x, int y) { return x < 70 && y > 260; };
    const auto top = [](int x, int y) { return x < 200 && y < 30; };
    for (const Case& c :
         {Case{title, "title", top, 100}, Case{bar, "bar", corner, 58}, Case{stars, "stars", ring, 120},
          Case{by, "both", [&](int x, int y) { return corner(x, y) || top(x, y); }, 100}}) {
      int changed = 0, brightest = 0;
      for (int i = 0; i < 400 * 300; ++i) {
        if (c.picture[0][i] == plain[0][i]) continue;
        ++changed;
        brightest = std::max(brightest, static_cast<int>(c.picture[0][i]));
        ASSERT_TRUE(c.near(i % 400, i / 400)) << c.name << " " << i % 400 << " " << i / 400;
      }
      EXPECT_GE(changed, c.least) << c.name;
      EXPECT_GE(brightest, 242) << c.name;  // text covers 95 %
    }
    // The bar itself: so many bright pixels in its row, which is at the margin of 6 from the bottom.
    EXPECT_EQ(std::count(&bar[0][293 * 400], &bar[0][294 * 400], 255.0f), 59);
    // At half the size a circle is half as large and at half the place.
    const Planes half = render("--annotate --stars stars.txt --scale 0.5");
    EXPECT_EQ(half[0][100 * 200 + 160], 255);
    EXPECT_EQ(ReadBytes(In("a.fits")), before);
  }
}

}  // namespace
}  // namespace korimg::files
