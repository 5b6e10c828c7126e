#include "korimg/colour/CColor.h"

#include <cmath>

#include <gtest/gtest.h>

namespace {

TEST(CColor, KnownColours) {
  CColor c;
  c.RgbToXyz(1, 1, 1);
  EXPECT_NEAR(c.GetX(), 5.6508, 1e-9);
  EXPECT_NEAR(c.GetY(), 5.6508, 1e-9);
  EXPECT_NEAR(c.GetZ(), 5.6508, 1e-9);
  c.RgbToLab(1, 1, 1);
  EXPECT_NEAR(c.GetL(), 100, 1e-9);
  EXPECT_NEAR(c.Geta(), 0, 1e-9);
  EXPECT_NEAR(c.Getb(), 0, 1e-9);
  c.RgbToLab(0.5, 0.5, 0.5);
  EXPECT_NEAR(c.GetL(), 116 * std::cbrt(std::pow(0.5, 2.2)) - 16, 1e-9);
  EXPECT_NEAR(c.GetR(), std::pow(0.5, 2.2), 1e-9) << "the fields hold linear values";
  c.RgbToLab(0, 0, 0);
  EXPECT_EQ(c.GetL(), 0);
}

TEST(CColor, GoesThereAndBack) {
  for (double r = 0.02; r < 1.6; r += 0.31) {
    for (double g = 0.02; g < 1.6; g += 0.31) {
      for (double b = 0.02; b < 1.6; b += 0.31) {
        CColor there, back;
        there.RgbToLab(r, g, b);
        back.LabToRgb(there.GetL(), there.Geta(), there.Getb());
        EXPECT_NEAR(back.GetR(), r, 2e-3);
        EXPECT_NEAR(back.GetG(), g, 2e-3);
        EXPECT_NEAR(back.GetB(), b, 2e-3);
      }
    }
  }
}

TEST(CColor, ImpossibleColoursAreLimitedBelow) {
  CColor c;
  c.LabToRgb(50, 0, 400);
  EXPECT_EQ(c.GetB(), 0);
  EXPECT_TRUE(std::isfinite(c.GetR()) && std::isfinite(c.GetG()));
}

}  // namespace
