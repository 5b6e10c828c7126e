// korimg composite, as a person calls it.
#include <cmath>

#include <gtest/gtest.h>

#include "korimg/composite/CImgComposit.h"

#include "tests/app/Tool.h"

namespace korimg::files {
namespace {

class Composite : public ToolTest {
 protected:
  enum Place { kOff, kEdge, kOn };
  /// Where a pixel of the first image looks at a second one of 80 x 90, turned about its centre.
  static Place PlaceOnSecond(int x, int y, double dx, double dy, double degrees) {
    constexpr double kCentreX = 30, kCentreY = 20.5, kWide = 4;
    const double a = degrees * M_PI / 180, u = x - dx - kCentreX, v = y - dy - kCentreY;
    const double sx = std::cos(a) * u + std::sin(a) * v + kCentreX,
                 sy = -std::sin(a) * u + std::cos(a) * v + kCentreY;
    const double inside = std::min({sx, sy, 79 - sx, 89 - sy});
    return inside > kWide ? kOn : inside < -kWide ? kOff : kEdge;
  }
  std::string History(const std::string& name) {
    const auto reader = ImageReader::Open(In(name));
    std::string history;
    for (const std::string& card : reader->Info().header.cards) {
      if (card.starts_with("HISTORY ")) history += card.substr(8, card.find_last_not_of(' ') - 7) + " ";
    }
    return history;
  }
};

TEST_F(Composite, IsTheLibrarysInItsRectangleOnly) {
  const auto a = test::Random(100, 1000), b = test::Random(50, 800, 2);
  Header header;
  header.Set("OBJECT", "first");
  header.Set("CRPIX1", 7.5);
  Save("a.fits", 97, 71, 3, a, header);
  Save("b.fits", 80, 90, 3, b);
  const auto first = test::Make(test::MemoryStore(), 97, 71, 3, a),
             second = test::Make(test::MemoryStore(), 80, 90, 3, b);
  for (int p = 0; p < 3; ++p) {
    first->SetLevel(p, 100, 900);
    second->SetLevel(p, 100, 900);
  }
  second->SetStdCtr(30.0, 20.5);
  first->CalcMinMax();
  second->CalcMinMax();
  struct Case {
    const char* options;
    double dx, dy, angle;
    int mode, method;
    double weight;
    int level, cutMinus, radius;
  };
  for (const Case& c :
       {Case{"--dx 3 --dy -2", 3, -2, 0, 0, 0, 0.5, 0, 0, 1},
        Case{"--mode weight --weight 0.3 --dx 1.5 --kernel bicubic", 1.5, 0, 0, 2, 1, 0.3, 0, 0, 1},
        Case{"--mode subtract --cut-minus --angle 25 --centre 30,20.5", 0, 0, 25, 3, 0, 0.5, 0, 1, 1},
        Case{"--mode multiply --level --dy 4.25 --kernel lanczos3", 0, 4.25, 0, 4, 3, 0.5, 1, 0, 1},
        Case{"--mode darker --angle -90 --kernel nearest --centre 30,20.5", 0, 0, -90, 8, 4, 0.5, 0, 0, 1},
        Case{"--mode neighbour --weight 4 --radius 2 --threshold 0.8 --angle 3 --centre 30,20.5", 0, 0, 3, 9,
             0, 4, 0, 0, 2}}) {
    for (const std::string rect : {"", " --rect 20,30,31,42"}) {
      const auto expected = test::Make<CImgComposit>(test::MemoryStore(), 97, 71, 3, a);
      // Neighbours see the edges of the rectangle, within which all other modes are those of the whole image.
      CRect window(20, 30, 31, 42);
      expected->Do(first.get(), second.get(), c.dx, c.dy, c.angle, 1, c.mode, c.method, c.weight, c.level,
                   c.cutMinus, 0.8, c.radius, c.mode == 9 && !rect.empty() ? &window : nullptr, 0, -1);
      for (const std::string store : {"contiguous", "paged"}) {
        const Result r = Shell("korimg composite a.fits b.fits -o c.fits --overwrite --store " + store + " " +
                               c.options + rect);
        ASSERT_EQ(r.code, 0) << c.options << ": " << r.err;
        const Planes done = Read("c.fits");
        ASSERT_EQ(done.size(), 3u);
        for (int p = 0; p < 3; ++p) {
          for (int y = 0; y < 71; ++y) {
            for (int x = 0; x < 97; ++x) {
              const bool inside = rect.empty() || (x >= 20 && x < 31 && y >= 30 && y < 42);
              const int place = PlaceOnSecond(x, y, c.dx, c.dy, c.angle);
              // The kernels' edges fall to either side in single precision.
              if (inside && place == kEdge) continue;
              // So do the nearest pixels of a turn by a quarter.
              if (inside && place == kOn && store == "paged" && rect.empty() && c.angle != 0) continue;
              const float got = done[p][y * 97 + x];
              const double want = inside && (place == kOn || c.mode == 9) ? expected->GetPixelGrayRaw(x, y, p)
                                                                          : static_cast<float>(a(p, x, y));
              // Multiplied values are large; they are compared by their size.
              ASSERT_NEAR(got, want, 2e-4 * std::max(1000.0, std::abs(want)))
                  << c.options << " " << store << rect << " " << p << " " << x << " " << y;
            }
          }
        }
      }
    }
  }
  const auto reader = ImageReader::Open(In("c.fits"));
  EXPECT_EQ(reader->Info().header.GetString("OBJECT"), "first");
  EXPECT_EQ(reader->Info().header.GetDouble("CRPIX1"), 7.5);
  EXPECT_EQ(reader->Info().header.GetDouble("KORLMAX1"), 900);
  const std::string history = History("c.fits");
  for (const char* part : {"composite a.fits b.fits --mode neighbour", "--angle 3 ", "--centre 30,20.5",
                           "--weight 4", "--threshold 0.8 --radius 2", "--rect 20,30,31,42"}) {
    EXPECT_NE(history.find(part), std::string::npos) << history;
  }
}

TEST_F(Composite, MonoMeetsTheLuminanceOfColourOnBothStores) {
  const auto a = test::Random(100, 900), b = test::Random(100, 900, 2);
  Save("mono.fits", 40, 30, 1, a);
  Save("colour.fits", 40, 30, 3, b);
  for (const std::string store : {"contiguous", "paged"}) {
    ASSERT_EQ(
        Shell("korimg composite mono.fits colour.fits -o a.fits --overwrite --mode add --store " + store)
            .code,
        0);
    ASSERT_EQ(
        Shell("korimg composite colour.fits mono.fits -o b.fits --overwrite --mode add --store " + store)
            .code,
        0);
    const Planes mono = Read("a.fits"), colour = Read("b.fits");
    ASSERT_EQ(std::pair(mono.size(), colour.size()), std::pair(size_t{1}, size_t{3}));
    for (int i = 0; i < 1200; ++i) {
      const int x = i % 40, y = i / 40;
      EXPECT_NEAR(mono[0][i], a(0, x, y) + 0.299 * b(0, x, y) + 0.587 * b(1, x, y) + 0.114 * b(2, x, y),
                  0.01);
      EXPECT_NEAR(colour[2][i], b(2, x, y) + a(0, x, y), 0.01);
    }
  }
}

}  // namespace
}  // namespace korimg::files
