#include "session/operations/Blend.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include <gtest/gtest.h>

#include "session/operations/internal/Polygon.h"
#include "session/picture/Images.h"
#include "tests/support/Folder.h"
#include "tests/support/Images.h"

namespace korimg::session {
namespace {

using namespace korimg::test;

class BlendTest : public files::FolderTest {
 protected:
  CImageSelection Polygon(const std::string& text, int width = 60, int height = 40) {
    files::WriteBytes(In("polygon.txt"), text);
    return ReadPolygon(In("polygon.txt"), width, height);
  }

  Job job_;
};

TEST_F(BlendTest, MaskSelectionAndRectangleInAllCombinations) {
  constexpr int kWidth = 71, kHeight = 97;                                 // higher than wide
  const auto share = [](int, int x, int y) { return -20 + 3.0 * x + y; };  // on levels of 100 to 200
  const auto maskImage = Make(MemoryStore(), kWidth, kHeight, 1, share);
  maskImage->SetLevel(0, 100, 200);
  SaveImage(job_, *maskImage, {}, In("mask.fits"));
  files::WriteBytes(In("polygon.txt"), "10 3\n60 3\n60 80\n10 80\n");
  for (int bits = 0; bits < 64; ++bits) {
    const bool masked = bits & 1, selects = bits & 2, partial = bits & 4;
    if (!masked && !selects) continue;
    BlendOptions options{.maskReverse = (bits & 8) != 0, .selectionReverse = (bits & 16) != 0};
    if (masked) options.mask = In("mask.fits");
    if (selects) options.selection = In("polygon.txt");
    CRect rect(13, 5, 50, 90);
    const auto changes = [&](int x, int y) { return !partial || (x >= 13 && x < 50 && y >= 5 && y < 90); };
    const PixelRule wild = Wild(100, 900), plain = Random(100, 900, 2), after = Random(100, 900, 3);
    const PixelRule before = [&](int p, int x, int y) { return (changes(x, y) ? plain : wild)(p, x, y); };
    const auto store = bits & 32 ? MemoryStore() : TinyPool();
    const auto image = Make(store, kWidth, kHeight, 3, before);
    Blend blend(job_, options, *image, {}, partial ? &rect : nullptr);
    Paint(*image, [&](int p, int x, int y) { return (changes(x, y) ? after : before)(p, x, y); });
    blend.Apply(*image);
    const auto expected = [&](int p, int x, int y) {
      const double o = before(p, x, y), m = std::clamp((share(0, x, y) - 100) / 100, 0.0, 1.0);
      const bool inside = x >= 10 && x <= 60 && y >= 3 && y <= 80;
      if (!changes(x, y) || (selects && inside == options.selectionReverse))
        return static_cast<double>(float(o));
      return o + (after(p, x, y) - o) * (masked ? options.maskReverse ? 1 - m : m : 1);
    };
    EXPECT_EQ(Difference(*image, expected, 1e-5), "") << options.Text() << " " << bits;
  }
}

TEST_F(BlendTest, MasksWithoutRangeAreRefused) {
  const auto image = Make(MemoryStore(), 8, 8, 1, Random(0, 1));
  files::Header header;
  SaveImage(job_, *image, header, In("mask.fits"));
  const auto level = [&](double low, double high) {
    image->SetLevel(0, low, high);
    job_.options.overwrite = true;
    SaveImage(job_, *image, header, In("mask.fits"));
    return files::ErrorOf([&] { Blend(job_, {.mask = In("mask.fits")}, *image, {}, nullptr); });
  };
  EXPECT_NE(level(1e9, 1e9 + 1).find("no range"), std::string::npos);
  EXPECT_EQ(level(1, 2), "");
}

TEST_F(BlendTest, PolygonsSelectThePixelsInsideAndOnTheOutline) {
  using Vertices = std::vector<std::pair<double, double>>;
  for (const Vertices& vertices :
       {Vertices{{10, 5}, {20, 5}, {20, 9}, {10, 9}}, Vertices{{0, 0}, {7.5, 0}, {0, 7.5}},
        Vertices{{-20.5, -9.25}, {30.1, 12.7}, {81, 33}, {11, 77}},
        Vertices{{3, 3}, {13, 8}, {3, 13}, {6, 8}}, Vertices{{10, 10}, {16, 13}, {10, 10.5}},
        Vertices{{1e6, 20}, {-1e6, 20}, {0, 20.5}},
        Vertices{{5, 5}, {10, 5}, {10, 10}, {20, 10}, {20, 20}, {5, 20}}}) {
    // Inside, a walk around the outline turns once about the pixel.
    const auto selected = [&](double x, double y) {
      double turns = 0;
      for (size_t i = 0; i < vertices.size(); ++i) {
        const auto [ax, ay] = vertices[i];
        const auto [bx, by] = vertices[(i + 1) % vertices.size()];
        const double cross = (ax - x) * (by - y) - (ay - y) * (bx - x);
        const double dot = (ax - x) * (bx - x) + (ay - y) * (by - y);
        if (std::abs(cross) < 1e-9 && dot <= 0) return true;
        turns += std::atan2(cross, dot);
      }
      return std::abs(turns) > std::numbers::pi;
    };
    std::string text = "# x y\r\n\n";
    for (const auto& [x, y] : vertices) {
      text += std::to_string(x) + "\t" + std::to_string(y) + " # vertex\r\n";
    }
    const CImageSelection selection = Polygon(text);
    for (int y = 0; y < 40; ++y) {
      for (int x = 0; x < 60; ++x) {
        EXPECT_EQ(selection.GetBool(y, x), selected(x, y)) << text << x << " " << y;
      }
    }
  }
}

TEST_F(BlendTest, PolygonsThatCantBeSelectedAreRefused) {
  struct Case {
    const char *text, *says;
  };
  for (const Case& c :
       {Case{"", "0 vertices"}, Case{"1 1\n5 5\n", "2 vertices"}, Case{"1 1\n5\n3 3", "line 2"},
        Case{"1 1\n5 5 5\n3 3", "line 2"}, Case{"1 1\n\n5 nan\n3 3", "line 3"},
        Case{"1 1\n5 1e7\n3 3", "line 2"}, Case{"1,1\n5,5\n3,3", "line 1"},
        Case{"60 0\n70 0\n70 9\n", "no pixel"}, Case{"1.2 1.2\n1.8 1.2\n1.5 1.8\n", "no pixel"},
        // A notch from below, up to row 7.
        Case{"5 5\n25 5\n25 20\n15 6.5\n5 20\n", "row 7 of the image would be selected in 2"}}) {
    const std::string error = files::ErrorOf([&] { Polygon(c.text); });
    EXPECT_NE(error.find(c.says), std::string::npos) << c.text << ": " << error;
  }
  // Beyond the image's edge a row may be in pieces.
  EXPECT_EQ(files::ErrorOf([&] { Polygon("5 5\n25 5\n25 20\n15 6.5\n5 20\n", 15); }), "");
  EXPECT_NE(files::ErrorOf([&] { ReadPolygon(In("none.txt"), 9, 9); }), "");
}

}  // namespace
}  // namespace korimg::session
