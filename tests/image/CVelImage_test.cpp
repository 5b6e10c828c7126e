#include <gtest/gtest.h>

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

TEST(CVelImage, Scales) {
  const auto image = Make(MemoryStore(), 4, 1, 3, [](int p, int x, int) { return 50.0 + 400 * x + p; });
  for (int p = 0; p < 3; ++p) {
    for (int x = 0; x < 4; ++x) {
      const double raw = 50.0 + 400 * x + p, min = 100 + 10 * p, range = 800 + 15 * p;
      const double on256 = (raw - min) / range * 255;
      EXPECT_FLOAT_EQ(image->GetPixelGrayRaw(x, 0, p), raw);
      EXPECT_FLOAT_EQ(image->GetPixelGray(x, 0, p), raw - min);
      EXPECT_FLOAT_EQ(image->GetPixelGray256f(x, 0, p), on256);
      EXPECT_EQ(image->GetPixelGray256(x, 0, p), std::min(std::max(static_cast<int>(on256), 0), 255));
      EXPECT_NEAR(image->ToRaw(image->To256(raw, p), p), raw, 1e-9);
    }
  }
  float low = 100, high = 900, bad = std::nanf("");
  EXPECT_EQ(image->GetPixelGray256(&low, 0), 0);
  EXPECT_EQ(image->GetPixelGray256(&high, 0), 255);
  EXPECT_EQ(image->GetPixelGray256(&bad, 0), 0);
  EXPECT_EQ(image->GetPixelGray256(&bad, 100.0f, 900.0f, 255.0f / 800), 0);
  const double bright = 0.299 * image->GetPixelGray256f(1, 0, 0) + 0.587 * image->GetPixelGray256f(1, 0, 1) +
                        0.114 * image->GetPixelGray256f(1, 0, 2);
  EXPECT_FLOAT_EQ(image->GetPixelBright256f(1, 0), bright);
  EXPECT_FLOAT_EQ(image->GetPixelBrightRaw(1, 0), bright / 255 * 800 + 100);
  image->SetPixelGray(2, 0, 5, 1);
  EXPECT_EQ(image->GetPixelGrayRaw(2, 0, 1), 115);
  image->SetPixelGray256f(2, 0, 255, 1);
  EXPECT_EQ(image->GetPixelGrayRaw(2, 0, 1), 925);
}

TEST(CVelImage, BrightnessOfEqualLightness) {
  EXPECT_NEAR(CVelImage::CalcBrightL(128, 128, 128), 128, 0.1);
  EXPECT_NEAR(CVelImage::CalcBrightL(0, 0, 0), 0, 1e-6);
  EXPECT_GT(CVelImage::CalcBrightL(0, 255, 0), CVelImage::CalcBrightL(0, 0, 255))
      << "green is lighter than blue";
  EXPECT_EQ(CVelImage::CalcBrightL(1e9, 1e9, 1e9), CVelImage::CalcBrightL(5000, 5000, 5000));
}

TEST(CVelImage, LevelsOfAColourImageMoveInProportion) {
  const auto image = Make(MemoryStore(), 1, 1, 3, Random(0, 1));
  image->SetLevel(-1, 180, 980);  // both ends up by a tenth of plane 0's range of 800
  for (int p = 0; p < 3; ++p) {
    EXPECT_NEAR(image->GetLevelMin(p), 100 + 10 * p + (800 + 15 * p) * 0.1, 1e-9);
    EXPECT_NEAR(image->GetLevelMax(p), 900 + 25 * p + (800 + 15 * p) * 0.1, 1e-9);
  }
  image->SetLevel(0, 5, 5);
  image->SetLevel(-1, 1, 2);
  EXPECT_EQ(image->GetLevelMax(2), 2) << "no proportion to a range of 0";
  const auto mono = Make(MemoryStore(), 1, 1, 1, Random(0, 1));
  EXPECT_TRUE(mono->SetLevel(-1, 3, 4));
  EXPECT_EQ(mono->GetLevelMin(0), 3);
  EXPECT_FALSE(mono->SetLevel(1, 3, 4));
}

/// Bilinear value with the edges repeated, in double.
double Bilinear(CVelImage& image, double x, double y, int p) {
  x = std::min<double>(x, image.GetWidth() - 1), y = std::min<double>(y, image.GetHeight() - 1);
  const int ix = std::max(std::min(static_cast<int>(x), image.GetWidth() - 2), 0);
  const int iy = std::max(std::min(static_cast<int>(y), image.GetHeight() - 2), 0);
  const int jx = std::min(ix + 1, image.GetWidth() - 1), jy = std::min(iy + 1, image.GetHeight() - 1);
  const double a = x - ix, b = y - iy;
  return (1 - b) * ((1 - a) * image.GetPixelGrayRaw(ix, iy, p) + a * image.GetPixelGrayRaw(jx, iy, p)) +
         b * ((1 - a) * image.GetPixelGrayRaw(ix, jy, p) + a * image.GetPixelGrayRaw(jx, jy, p));
}

TEST(CVelImage, ReadsBetweenPixels) {
  for (const StoreCase& store : Stores()) {
    for (const auto& [width, height] : Sizes()) {
      const auto image = Make(store.make(), width, height, 3, Random(0, 1000));
      image->MakeDirectImage();
      for (int i = 0; i < 300; ++i) {
        const int p = i % 3;
        double x = Noise(i) * (width + 2), y = Noise(i + 1000) * (height + 2);
        if (i % 7 == 0) x = std::floor(x);
        if (i % 11 == 0) y = std::floor(y);
        const double expected = Bilinear(*image, x, y, p);
        ASSERT_NEAR(image->GetPixelGrayRaw(x, y, p), expected, 1e-3) << x << ", " << y;
        ASSERT_NEAR(image->GetPixelGray256f(x, y, p), image->To256(expected, p), 1e-3);
        ASSERT_NEAR(image->GetPixelDirectRaw(x, y, p), expected, 1e-3);
        image->GetPixelGrayRawBufInit();
        ASSERT_NEAR(image->GetPixelGrayRawBuf(x, y, p), expected, 1e-3);
      }
    }
  }
}

TEST(CVelImage, OddPositionsReadNothingOutside) {
  const auto image = Make(MemoryStore(), 5, 4, 1, Random(0, 1000));
  image->MakeDirectImage();
  for (const double odd :
       {-1e300, -7.5, -0.5, 5.0, 6.5, 1e300, static_cast<double>(NAN), static_cast<double>(INFINITY)}) {
    image->GetPixelGrayRaw(odd, 1.5, 0);
    image->GetPixelGrayRaw(1.5, odd, 0);
    image->GetPixelDirectRaw(odd, odd, 0);
    image->GetPixelGrayRaw(1, 1, odd, odd, 0.5, 0.5, 1.0, 0, -1, 1, nullptr, nullptr, nullptr);
    image->GetPixelGray256f(1, 1, odd, odd, 0.5, 0.5, 1.0, 0, -1, 1, nullptr, nullptr, nullptr);
  }
  EXPECT_EQ(image->GetPixelDirectRaw(-1, 2, 0), 0.0f);
  EXPECT_EQ(image->GetPixelDirectRaw(2, -1, 0), 0.0f);
  EXPECT_EQ(image->GetPixelDirectRaw(6, 0, 0), 0.0f);
  EXPECT_EQ(image->GetPixelDirectRaw(5, 4, 0), 0.0f) << "the far corner lies in the zeros behind the plane";
  EXPECT_EQ(image->GetPixelDirectRaw(5, 1, 0), image->GetPixelGrayRaw(0, 2, 0)) << "let through as it stands";
  image->DeleteDirectImage();
  EXPECT_EQ(image->GetPixelDirectRaw(1, 1, 0), 0.0f);
}

TEST(CVelImage, BufferedLinesSurviveAPoolAndAChangeOfSize) {
  const auto image = Make(TinyPool(), 300, 200, 1, Random(0, 1000));
  const float before = image->GetPixelGrayRawBuf(10.5, 20.5, 0);
  for (int y = 40; y < 200; ++y) {
    image->GetPixelGrayRaw(0, y, 0);  // pushes everything out that may go
  }
  EXPECT_EQ(image->GetPixelGrayRawBuf(10.5, 20.5, 0), before);
  image->MakeDirectImage();  // goes through all lines too
  EXPECT_EQ(image->GetPixelGrayRawBuf(10.5, 20.5, 0), before);
  ASSERT_TRUE(image->ChangeSize(50, 60, nullptr));
  Paint(*image, Random(0, 1000, 3));
  EXPECT_EQ(image->GetPixelGrayRawBuf(10.5, 20.5, 0), image->GetPixelGrayRaw(10.5, 20.5, 0));
}

TEST(CVelImage, MapsPositions) {
  // A ramp tells the position that was read.
  const auto image = Make(MemoryStore(), 100, 80, 1, [](int, int x, int y) { return x + 1000 * y; });
  image->SetStdCtr(50.0, 40.0);
  const auto read = [&](int x, int y, double dx, double dy, double degrees, double scale, int nearest) {
    const double angle = degrees * 3.14159265358979 / 180;
    const double sin = degrees == 0 ? 0 : std::sin(angle), cos = degrees == 0 ? 1 : std::cos(angle);
    return image->GetPixelGrayRaw(x, y, dx, dy, sin, cos, scale, 0, -1, nearest, nullptr, nullptr, nullptr);
  };
  EXPECT_EQ(read(10, 20, 0, 0, 0, 1, 0), 10 + 20000);
  EXPECT_EQ(read(10, 20, 2, -3, 0, 1, 0), 8 + 23000);
  EXPECT_EQ(read(52, 44, 0, 0, 0, 0.5, 0), 51 + 42000) << "zoomed about the centre";
  EXPECT_EQ(read(52, 44, 4, -6, 0, 0.5, 0), 49 + 45000) << "zoomed and shifted";
  EXPECT_NEAR(read(60, 43, 2, -1, 90, 2, 0), 58 + 24000, 0.02) << "all at once";
  EXPECT_NEAR(read(60, 40, 0, 0, 90, 1, 0), 50 + 30000, 0.01) << "u = 10 turns up";
  EXPECT_EQ(read(10, 20, 0.6, 0, 0, 1, 1), 9 + 20000) << "9.4 rounds down";
  EXPECT_EQ(read(10, 20, 0.4, -0.7, 0, 1, 1), 10 + 21000) << "9.6 and 20.7 round up";
  EXPECT_EQ(image->GetPixelGray256f(10, 20, 0.4, -0.7, 0.0, 1.0, 1.0, 0, -1, 1, nullptr, nullptr, nullptr),
            image->GetPixelGray256f(10, 21, 0));
  EXPECT_EQ(read(10, 20, 11, 0, 0, 1, 0), -1);

  int outside = 7;
  double sx = 0, sy = 0, r = 0, g = 0, b = 0;
  image->GetPixelRgbRaw(3, 4, 10, 0, 0.0, 1.0, 1, 1.0, &r, &g, &b, -2, &outside, &sx, &sy);
  EXPECT_EQ(std::tuple(outside, sx, sy, r, g, b), std::tuple(1, -7, 4, -2, -2, -2));
  image->GetPixelRgb256f(3, 4, 1, 0, 0.0, 1.0, 0, 1.0, &r, &g, &b, -2, &outside, &sx, &sy);
  EXPECT_EQ(outside, 0);
  EXPECT_NEAR(b, image->To256(4002.0, 0), 1e-3);

  // Just under the far edge a nearest read rounds to the width: outside in raw, the last column on the 256
  // scale.
  EXPECT_EQ(read(99, 5, -0.7, 0, 0, 1, 1), -1);
  EXPECT_EQ(image->GetPixelGray256f(99, 5, -0.7, 0.0, 0.0, 1.0, 1.0, 0, -1, 1, nullptr, nullptr, nullptr),
            image->GetPixelGray256f(99, 5, 0));
  const auto colour = Make(MemoryStore(), 4, 4, 3, [](int p, int, int) { return 100 * (p + 1); });
  EXPECT_FLOAT_EQ(colour->GetPixelGrayRaw(1, 1, 0.0, 0.0, 0.0, 1.0, 1.0, -1, 0, 0, nullptr, nullptr, nullptr),
                  100 * 0.299 + 200 * 0.587 + 300 * 0.114);
}

TEST(CVelImage, ReferencePoints) {
  CVelImage image;
  EXPECT_FALSE(image.IsValidStdPt(0) || image.IsValidStdCtr() || image.IsValidStarPt() ||
               image.IsValidSkyPt() || image.IsValidPickupPt() || image.IsValidCenterPt());
  image.SetStdPt(0, CfPoint(3.7, 4.2));
  image.SetStdPt(1, CfPoint(1, 2));
  EXPECT_EQ(image.GetStdPtNum(), 2);
  EXPECT_EQ(image.GetStdCtr().fx, 3.7) << "point 0 is the centre as well";
  EXPECT_EQ(image.GetStdCtr().x, 3);
  image.ClearStdPt(1);
  EXPECT_TRUE(image.IsValidStdCtr());
  image.ClearStdPt(0);
  EXPECT_FALSE(image.IsValidStdCtr());
  image.SetStarPt({-1, 5});
  EXPECT_TRUE(image.IsValidStarPt()) << "one coordinate is enough";
  image.SetPickupPt({-1, 5});
  EXPECT_FALSE(image.IsValidPickupPt());
  image.SetSkyPt({5, 5}, 0);
  EXPECT_FALSE(image.IsValidSkyPt());
  for (int i = -1; i < 40; ++i) {
    image.SetBkgRect(i, CRect(0, 0, i + 2, 5));
  }
  EXPECT_EQ(image.GetBkgRectNum(), 2);
  EXPECT_TRUE(image.IsValidBkgRect(31));
  EXPECT_FALSE(image.IsValidBkgRect(32) || image.IsValidBkgRect(-1));
  image.ClearBkgRect(1);
  EXPECT_EQ(image.GetBkgRectNum(), 1);

  const auto src = Make(MemoryStore(), 2, 2, 1, Random(0, 1));
  src->SetStdPt(0, CfPoint(9, 9));
  src->SetStarPt({1, 1});
  EXPECT_EQ(src->Clone(nullptr)->GetStdPt(0).x, 9);
  EXPECT_EQ(src->Clone(nullptr)->GetStarPt(), CPoint(0, 0))
      << "picked points stay behind, and are 0 in a copy";
  EXPECT_EQ(src->CloneWithoutImage(nullptr)->GetStdPt(0).x, 9);
}

TEST(CVelImage, CopiesAndExchangesTakePointsTablesAndWindowAlong) {
  int here = 0;
  HWND window = reinterpret_cast<HWND>(&here);
  const auto marked = Make(MemoryStore(), 5, 4, 3, Random(10, 20)),
             plain = Make(MemoryStore(), 3, 2, 1, Random(0, 1));
  marked->SetStdPt(0, CfPoint(3, 2));
  marked->SetStdPt(1, CfPoint(1, 1));
  marked->SetStdCtr(2.5, 1.5);
  marked->SetProgressHandle(window);
  marked->CalcMinMax(0);
  const auto tells = [&](const CVelImage& image) {
    return image.GetStdPt(0).x == 3 && image.GetStdPt(1).y == 1 && image.GetStdCtr().fx == 2.5 &&
           image.GetMinPixel(2) >= 10 && image.GetMaxPixel(1) > image.GetAvrPixel(1) &&
           image.GetAvrPixel(1) > image.GetMinPixel(1) && image.GetProgressHandle() == window;
  };
  ASSERT_TRUE(tells(*marked));
  CVelImage assigned, copied, created;
  assigned = *marked;
  EXPECT_TRUE(tells(assigned));
  EXPECT_EQ(copied.CopyImage(*marked, nullptr, nullptr), 1);
  EXPECT_TRUE(tells(copied));
  EXPECT_TRUE(created.Create(*marked, nullptr));
  EXPECT_TRUE(tells(created));
  EXPECT_TRUE(tells(*marked->Clone(nullptr)));
  EXPECT_TRUE(tells(CVelImage(*marked, nullptr)));
  plain->Swap(marked.get());
  EXPECT_TRUE(tells(*plain));
  EXPECT_EQ(plain->GetPlanes(), 3);
  EXPECT_FALSE(marked->IsValidStdPt(0) || marked->IsValidStdCtr() || marked->GetProgressHandle());
  EXPECT_EQ(marked->GetMaxPixel(0), 0);
  EXPECT_EQ(marked->GetWidth(), 3);
}

TEST(CVelImage, RectanglesAreClippedSideBySide) {
  const auto image = Make(MemoryStore(), 10, 6, 1, Random(0, 1));
  struct Case {
    CRect rect, expected;
  };
  for (const Case& c : {Case{{-5, -5, 50, 50}, {0, 0, 10, 6}}, Case{{2, 3, 4, 5}, {2, 3, 4, 5}},
                        Case{{20, 1, 30, 2}, {10, 1, 10, 2}}, Case{{5, 5, 2, 2}, {5, 5, 2, 2}}}) {
    CRect rect = c.rect, got;
    image->NormalizeRect(&rect, got.left, got.top, got.right, got.bottom);
    EXPECT_EQ(got, c.expected);
  }
}

TEST(CVelImage, ToColourAndBack) {
  for (const StoreCase& from : Stores()) {
    for (const StoreCase& to : Stores()) {
      const auto mono = Make(from.make(), 71, 133, 1, Random(0, 1000));
      const auto colour = Make(from.make(), 71, 133, 3, Random(0, 1000, 4));
      for (CVelImage* src : {mono.get(), colour.get()}) {
        const auto target = Make(to.make(), 71, 133, 1, Random(0, 1));
        ASSERT_EQ(target->ToColor(src, 0), 1);
        EXPECT_EQ(target->GetLevelMax(2), 900) << "all planes get plane 0's levels";
        EXPECT_EQ(
            Difference(
                *target,
                [&](int p, int x, int y) { return src->GetPixelGrayRaw(x, y, src == mono.get() ? 0 : p); },
                0),
            "");
      }
      const auto grey = Make(to.make(), 71, 133, 3, Random(0, 1));
      grey->SetLevel(0, -50, 1200);
      ASSERT_EQ(grey->ToGray(colour.get(), 0), 1);
      ASSERT_EQ(grey->GetPlanes(), 1);
      // By the source's levels, to the target's.
      const auto brightness = [&](int, int x, int y) {
        return colour->GetPixelBright256f(x, y) / 255 * 1250 - 50;
      };
      EXPECT_EQ(Difference(*grey, brightness, 1e-5), "") << from.name << " to " << to.name;
      const auto wider = Make(to.make(), 72, 133, 1, Random(0, 1));
      EXPECT_EQ(wider->ToColor(colour.get(), 0), 0);
      EXPECT_EQ(wider->GetPlanes(), 1) << "nothing was changed";
      EXPECT_EQ(grey->ToGray(colour.get(), 0), 1) << "a mono image is done";
      const auto other = Make(to.make(), 71, 133, 3, Random(0, 1));
      EXPECT_EQ(other->ToGray(mono.get(), 0), 0);
      EXPECT_EQ(other->GetPlanes(), 3) << "nothing was changed";
    }
  }
}

}  // namespace
