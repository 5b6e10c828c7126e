// Colours that are noise or a fringe.
#include <gtest/gtest.h>

#include "korimg/filters/CImgFilterMisc.h"

#include "tests/filters/Reference.h"

using namespace korimg::test;

namespace {

TEST(ColorNoiseCut, DarkColoursAreDrawnTowardsTheirGrey) {
  struct Case {
    double level, margin, strength;
  };
  for (const Case& c : {Case{40.0, 0.0, 1.0}, {90.0, 25.0, 0.3}, {0.0, 0.0, 0.5}}) {
    CheckFilter<CImgFilterMisc>(
        [&](CImgFilterMisc& target, CVelImage& src, CRect* rect) {
          target.ColorNoiseCut(c.level, c.margin, c.strength, &src, rect, 0);
        },
        [&](CVelImage& src, bool, int p, int x, int y) -> double {
          double v[3], grey = 0;
          bool dark = false;
          for (int i = 0; i < 3; ++i) {
            v[i] = (src.GetPixelGrayRaw(x, y, i) - TargetMin(i)) / TargetRange(i) * 255;
            grey += std::array{0.2989, 0.5866, 0.1145}[i] * v[i];
            dark |= v[i] < c.level + c.margin;
          }
          if (!dark) return src.GetPixelGrayRaw(x, y, p);
          return ((grey - v[p]) * c.strength + v[p]) / 255 * TargetRange(p) + TargetMin(p);
        },
        2e-4);
  }
  EXPECT_EQ(CImgFilterMisc::GetColorNoiseCut_nR(), 1);
}

TEST(ColorNoiseCut, GreyPixelsAndThoseThatAreNotFiniteStay) {
  for (const StoreCase& store : Stores()) {
    // Levels of 0 to 256, so that the scale and back is exact.
    const double pixels[][3] = {{30, 30, 30}, {30, NAN, 50}, {INFINITY, 30, 50}, {30, 31, 30}};
    const auto src = Make(store.make(), 4, 1, 3, [&](int p, int x, int) { return pixels[x][p]; });
    const auto target = Make<CImgFilterMisc>(src->VmManager(), 4, 1, 3, Random(0, 1, 7));
    for (int p = 0; p < 3; ++p) {
      target->SetLevel(p, 0, 256);
    }
    target->ColorNoiseCut(60, 0, 1, src.get(), nullptr, 0);
    EXPECT_EQ(Difference(
                  *target, [&](int p, int x, int) { return x == 3 ? 30.5866 : pixels[x][p]; }, 1e-6),
              "")
        << store.name;
  }
}

TEST(FalseColorCut, PixelsOfTheColourLoseWhatMakesIt) {
  struct Case {
    int colour[3];
    int wrong;  ///< the channel that is corrected
    double tolerance, strength;
  };
  for (const Case& c : {Case{{100, 110, 250}, 2, 0.6, 1},
                        {{250, 110, 100}, 0, 0.9, 0.3},
                        {{90, 180, 80}, 1, 0.5, 0.7},
                        {{200, 100, 200}, 2, 0.6, 1},
                        {{7, 7, 7}, 1, 0.5, 1},
                        {{0, 100, 250}, -1, 0.6, 1},
                        {{-4, 100, 250}, -1, 9, 1}}) {
    int touched = 0;
    CheckFilter<CImgFilterMisc>(
        [&](CImgFilterMisc& target, CVelImage& src, CRect* rect) {
          target.FalseColorCut(c.colour[0], c.colour[1], c.colour[2], c.tolerance, c.strength, &src, rect, 0);
        },
        [&](CVelImage& src, bool, int p, int x, int y) {
          const double pixel = src.GetPixelGrayRaw(x, y, p), red = src.GetPixelGrayRaw(x, y, 0);
          const auto within = [&](int i) {
            const double share = static_cast<double>(c.colour[i]) / c.colour[0];
            return std::abs(src.GetPixelGrayRaw(x, y, i) / red - share) <= c.tolerance * share;
          };
          if (p != c.wrong || red == 0 || !within(1) || !within(2)) return pixel;
          ++touched;
          double others = 0;
          for (int i = 0; i < 3; ++i) {
            if (i != p) others += src.GetPixelGrayRaw(x, y, i) / 2.0;
          }
          return (1 - c.strength) * pixel + c.strength * others;
        },
        1e-6);
    EXPECT_EQ(touched > 100, c.wrong >= 0) << "of colour " << c.colour[0];
  }
}

TEST(FalseColorCut, BandsIncludeTheirEndsAndBlackMatchesNothing) {
  for (const StoreCase& store : Stores()) {
    // The colour is 1 : 2 : 4 within a quarter.
    const double pixels[][3] = {{4, 8, 16},    {4, 10, 20}, {4, 6, 12}, {4, 10.01, 16},
                                {4, 8, 11.99}, {0, 8, 16},  {0, 0, 0},  {NAN, 8, 16}};
    const auto src = Make(store.make(), 8, 1, 3, [&](int p, int x, int) { return pixels[x][p]; });
    const auto target = Make<CImgFilterMisc>(src->VmManager(), 8, 1, 3, Random(0, 1, 7));
    target->FalseColorCut(10, 20, 40, 0.25, 1, src.get(), nullptr, 0);
    const double blue[] = {6, 7, 5, 16, 11.99, 16, 0, 16};
    EXPECT_EQ(Difference(
                  *target, [&](int p, int x, int) { return p == 2 ? blue[x] : pixels[x][p]; }, 1e-6),
              "")
        << store.name;
  }
}

TEST(ColourRepair, LeavesMonoImagesAlone) {
  const auto src = Make(MemoryStore(), 9, 7, 1, Random(5, 9));
  const auto target = Make<CImgFilterMisc>(src->VmManager(), 9, 7, 1, Random(0, 1, 7));
  const auto before = Pixels(*target);
  target->FalseColorCut(1, 1, 1, 9, 1, src.get(), nullptr, 0);
  target->ColorNoiseCut(255, 0, 1, src.get(), nullptr, 0);
  EXPECT_EQ(Pixels(*target), before);
}

}  // namespace
