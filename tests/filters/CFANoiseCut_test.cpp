// Hot and cold pixels of an undeveloped mosaic.
#include <gtest/gtest.h>

#include "korimg/filters/CFilterMatrix.h"
#include "korimg/filters/CImgFilterMisc.h"

#include "tests/filters/Reference.h"

using namespace korimg::test;

namespace {

constexpr int kArrays[] = {1, 2, 3, 4, 11, 12, 13, 14};

/// The colour of a pixel, 0 red, 1 green, 2 blue, or -1 between the sites, from the first rows written out.
int Colour(int cfa, int x, int y) {
  static const char* const kBayer[] = {"RGGB", "GRBG", "BGGR", "GBRG"};
  static const char* const kHoneycomb[] = {"R.B. .G.G B.R. .G.G", "B.R. .G.G R.B. .G.G",
                                           "G.G. .R.B G.G. .B.R", "G.G. .B.R G.G. .R.B"};
  const char letter = cfa < 11 ? kBayer[cfa - 1][y % 2 * 2 + x % 2] : kHoneycomb[cfa - 11][y % 4 * 5 + x % 4];
  return letter == 'R' ? 0 : letter == 'G' ? 1 : letter == 'B' ? 2 : -1;
}

/// Where number i of n is read, beyond the ends too, so that its colour stays.
int SameColour(int cfa, int i, int n) {
  if (cfa < 11) return Interior(i, n);
  while (i < 0 || i >= n) {
    i += i < 0 ? 4 : -4;
  }
  return i;
}

double PixelOf(CVelImage& src, int cfa, int x, int y) {
  const double v =
      src.GetPixelGrayRaw(SameColour(cfa, x, src.GetWidth()), SameColour(cfa, y, src.GetHeight()), 0);
  return std::isnan(v) ? INFINITY : v;
}

/// Pixels under a mask, ascending; in place of one that is the pixel itself, mirrored, the one across.
std::vector<double> Under(CVelImage& src, int cfa, int x, int y, const CFilterMatrix& mask,
                          bool notItself = false) {
  std::vector<double> values;
  for (int dy = -2; dy <= 2; ++dy) {
    for (int dx = -2; dx <= 2; ++dx) {
      const bool inside = std::abs(dx) <= mask.GetR() && std::abs(dy) <= mask.GetR();
      if (!inside || mask.GetPrm(dx, dy) == 0) continue;
      const bool isItself = notItself && SameColour(cfa, x + dx, src.GetWidth()) == x &&
                            SameColour(cfa, y + dy, src.GetHeight()) == y;
      const int side = isItself ? -1 : 1;
      values.push_back(PixelOf(src, cfa, x + side * dx, y + side * dy));
    }
  }
  std::sort(values.begin(), values.end());
  return values;
}

/// The surroundings of a pixel follow it.
bool Follows(CVelImage& src, int cfa, int rings, double ratio, int x, int y) {
  CFilterMatrix two;  // rows or columns away, on diagonals of a honeycomb: the mask of red, by chance or not
  two.MakeCFAMask(0, cfa < 11);
  const auto standing = [&](int u, int v, bool up) {
    const auto four = Under(src, cfa, u, v, two);
    return up ? PixelOf(src, cfa, u, v) - four[1] : four[2] - PixelOf(src, cfa, u, v);
  };
  const bool up = standing(x, y, true) > standing(x, y, false);
  for (int ring = 1; ring <= std::max(1, std::min(rings, 2)); ++ring) {
    int asked = 0, following = 0;
    for (int dy = -ring; dy <= ring; ++dy) {
      for (int dx = -ring; dx <= ring; ++dx) {
        if (std::abs(dx) != ring && std::abs(dy) != ring) continue;
        if (cfa >= 11 && (dx + dy) % 2 != 0) continue;
        ++asked;
        following += !(standing(x + dx, y + dy, up) < standing(x, y, up) / 16);
      }
    }
    if (following < (1 - ratio) * asked) return false;
  }
  return true;
}

double Expected(CVelImage& src, int mode, int cfa, double margin, int rings, double ratio, int x, int y) {
  const double pixel = src.GetPixelGrayRaw(x, y, 0);
  const int colour = Colour(cfa, x, y);
  if (colour < 0 || std::isnan(pixel)) return pixel;
  CFilterMatrix mask;
  mask.MakeCFAMask(colour, cfa < 11);
  const auto four = Under(src, cfa, x, y, mask, cfa < 11);
  const double highest = mode <= 2 ? four[3] : four[2], lowest = mode <= 2 ? four[0] : four[1];
  const bool hot = pixel > highest + margin, cold = pixel < lowest - margin;
  if (!hot && !cold) return pixel;
  const double cut = mode == 2 || mode == 4 ? (four[1] + four[2]) / 2 : hot ? highest : lowest;
  bool star = Follows(src, cfa, rings, ratio, x, y);
  for (int dy = -mask.GetR(); dy <= mask.GetR(); ++dy) {
    for (int dx = -mask.GetR(); dx <= mask.GetR(); ++dx) {
      const double other = PixelOf(src, cfa, x + dx, y + dy);
      if (mask.GetPrm(dx, dy) == 0 || !(hot ? other > highest + margin : other < lowest - margin)) continue;
      star = star || Follows(src, cfa, rings, ratio, x + dx, y + dy);
    }
  }
  return star || cut == INFINITY ? pixel : cut;
}

/// Whole numbers, so that sums are exact, with colours of unequal brightness and blank and hot pixels.
PixelRule Sky() {
  return [](int p, int x, int y) {
    const double v = std::round(Wild(200, 240, 3)(p, x, y)) + 60 * (x % 2) + 90 * (y % 2);
    return Random(0, 1, 5)(p, x, y) < 0.15 ? v + std::round(Random(-150, 150, 6)(p, x, y)) : v;
  };
}

TEST(CFANoiseCut, LonePixelsGoWhereverTheyLie) {
  for (const StoreCase& store : Stores()) {
    for (const int cfa : {1, 2, 3, 4}) {
      for (const double wild : {2500.0, 10.0}) {
        for (int place = 0; place < 14 * 12; ++place) {
          const auto src = Make(store.make(), 14, 12, 1, [&](int, int x, int y) {
            return x == place % 14 && y == place / 14 ? wild : 500.0;
          });
          const auto target = Make<CImgFilterMisc>(src->VmManager(), 14, 12, 1, Random(0, 1));
          target->CFANoiseCut(1 + place % 2, cfa, 2, 1, 0.5, src.get(), nullptr, 0);
          ASSERT_EQ(Difference(
                        *target, [](int, int, int) { return 500.0; }, 0),
                    "")
              << store.name << " array " << cfa << " place " << place % 14 << ", " << place / 14;
        }
      }
    }
  }
}

TEST(CFANoiseCut, EqualsItsRuleOnEveryArray) {
  OnEveryStore([](const StoreCase& store) {
    for (const auto& [width, height] : {std::pair(13, 9), {6, 71}, {71, 6}, {95, 70}}) {
      const auto src = Make(store.make(), width, height, 1, Sky());
      for (const int cfa : kArrays) {
        for (int mode = 1; mode <= 4; ++mode) {
          const int rings = mode - 1 - mode / 3;  // 0, 1, 1, 2
          const double margin = 5 * (cfa % 10), ratio = 0.25 * (mode % 3) + 0.125;
          OptionalRect rect;
          if (width == 95 && mode % 2) rect = CRect(3, 2, 90, 70);
          const auto target = Make<CImgFilterMisc>(src->VmManager(), width, height, 1, Random(0, 1, 7));
          target->CFANoiseCut(mode, cfa, margin / TargetRange(0) * 255, rings, ratio, src.get(),
                              Address(rect), 0);
          const auto want = [&](int p, int x, int y) -> double {
            return IsInside(rect, x, y) ? Expected(*src, mode, cfa, margin, rings, ratio, x, y)
                                        : static_cast<float>(Random(0, 1, 7)(p, x, y));
          };
          ASSERT_EQ(Difference(*target, want, 0), "")
              << store.name << " " << width << "x" << height << " array " << cfa << " mode " << mode;
        }
      }
    }
  });
}

TEST(CFANoiseCut, SmallFramesAreTheSameOnBothPaths) {
  for (int width = 1; width <= 6; ++width) {
    for (int height = 1; height <= 6; ++height) {
      for (const int cfa : kArrays) {
        std::vector<float> results[2];
        for (const bool paged : {false, true}) {
          const auto src = Make(paged ? TinyPool() : MemoryStore(), width, height, 1, Sky());
          const auto target = Make<CImgFilterMisc>(src->VmManager(), width, height, 1, Random(0, 1, 7));
          target->CFANoiseCut(3, cfa, 1, 2, 0.5, src.get(), nullptr, 0);
          results[paged] = Pixels(*target);
          for (float& pixel : results[paged]) {
            if (std::isnan(pixel)) pixel = -1;
          }
        }
        ASSERT_EQ(results[0], results[1]) << width << "x" << height << " array " << cfa;
      }
    }
  }
}

constexpr int kSide = 41, kMiddle = 20;

/// A flat sky behind a mosaic, whose colours differ, with noise, and something more.
PixelRule Night(int cfa, const std::function<double(int x, int y)>& more) {
  return [=](int p, int x, int y) {
    const int colour = Colour(cfa, x, y);
    return (colour < 0 ? 0 : 300 + 120 * colour) + 4 * Random(-1, 1)(p, x, y) + more(x, y);
  };
}

/// What becomes of a frame.
std::shared_ptr<CImgFilterMisc> Cut(const std::shared_ptr<CVelImage>& src, int mode, int cfa, int rings = 1) {
  const auto target = Make<CImgFilterMisc>(src->VmManager(), kSide, kSide, 1, Random(0, 1, 7));
  target->CFANoiseCut(mode, cfa, 10, rings, 0.5, src.get(), nullptr, 0);
  return target;
}

TEST(CFANoiseCut, LonePixelsGoAndStarsStay) {
  for (const auto& store : {MemoryStore(), TinyPool()}) {
    for (const int cfa : kArrays) {
      // All places of the array, and the corner of the frame.
      for (int place = 0; place < 17; ++place) {
        const int px = place < 16 ? kMiddle + place % 4 : 0, py = place < 16 ? kMiddle + place / 4 : 0;
        if (Colour(cfa, px, py) < 0) continue;
        for (int mode = 1; mode <= 4; ++mode) {
          for (const double height : {200.0, 5000.0, -200.0}) {
            const auto src = Make(store, kSide, kSide, 1,
                                  Night(cfa, [=](int x, int y) { return x == px && y == py ? height : 0; }));
            const auto target = Cut(src, mode, cfa);
            EXPECT_NEAR(target->GetPixelGrayRaw(px, py, 0), 300 + 120 * Colour(cfa, px, py), 4.1)
                << "array " << cfa << " mode " << mode << " at " << px << ", " << py << " of " << height;
            target->SetPixelGrayRaw(px, py, src->GetPixelGrayRaw(px, py, 0), 0);
            ASSERT_EQ(Difference(*target, *src), "") << "the rest is as it was";
          }
          if (place == 16 && cfa >= 11) continue;  // half of a star, with the sky a period away
          for (const double sites : {2.0, 3.0, 4.5, 8.0}) {
            const double fwhm = cfa < 11 ? sites : sites * std::sqrt(2.0);  // as far apart are a honeycomb's
            for (const double coloured : {0.0, 0.3}) {
              const auto src = Make(store, kSide, kSide, 1, Night(cfa, [=](int x, int y) {
                                      const double d2 = (x - px) * (x - px) + (y - py) * (y - py);
                                      return (Colour(cfa, x, y) == 0 ? 1 - coloured : 1) * 4000 *
                                             std::exp(-4 * std::log(2.0) * d2 / (fwhm * fwhm));
                                    }));
              ASSERT_EQ(Difference(*Cut(src, mode, cfa), *src), "")
                  << "array " << cfa << " mode " << mode << " FWHM " << fwhm << " at " << px << ", " << py;
              if (fwhm > 3 && place < 16) {
                ASSERT_EQ(Cut(src, mode, cfa, 2)->GetPixelGrayRaw(px, py, 0), src->GetPixelGrayRaw(px, py, 0))
                    << "array " << cfa << " mode " << mode << " FWHM " << fwhm;
              }
            }
          }
        }
      }
    }
  }
}

TEST(CFANoiseCut, PairsGoInTheStrongerModes) {
  for (const auto& store : {MemoryStore(), TinyPool()}) {
    for (const int cfa : kArrays) {
      for (int place = 0; place < 16; ++place) {
        const int px = kMiddle + place % 4, py = kMiddle + place / 4, colour = Colour(cfa, px, py);
        if (colour < 0) continue;
        CFilterMatrix mask;
        mask.MakeCFAMask(colour, cfa < 11);
        const int r = mask.GetR(), dx = mask.GetPrm(r, 0) != 0 ? r : r, dy = mask.GetPrm(r, 0) != 0 ? 0 : r;
        const auto src = Make(store, kSide, kSide, 1, Night(cfa, [=](int x, int y) {
                                const bool one = x == px && y == py, other = x == px + dx && y == py + dy;
                                return one ? 900 : other ? 905 : 0;
                              }));
        for (int mode = 1; mode <= 4; ++mode) {
          const auto target = Cut(src, mode, cfa);
          const double stays = mode <= 2 ? 900 : 0;
          EXPECT_NEAR(target->GetPixelGrayRaw(px, py, 0), 300 + 120 * colour + stays, 4.1)
              << "array " << cfa << " mode " << mode;
          EXPECT_NEAR(target->GetPixelGrayRaw(px + dx, py + dy, 0), 300 + 120 * colour + (stays ? 905 : 0),
                      4.1)
              << "array " << cfa << " mode " << mode;
        }
      }
    }
  }
}

TEST(CFANoiseCut, FlatFramesAndWhatIsNoMosaicStay) {
  for (const StoreCase& store : Stores()) {
    const auto flat = Make(store.make(), kSide, kSide, 1,
                           [](int, int x, int y) { return 300 + 50 * (x % 2) + 90 * (y % 2); });
    for (const int cfa : {1, 2, 3, 4, 11, 12, 13, 14, 0, 5, 10, 15}) {
      for (int mode = 0; mode <= 5; ++mode) {
        const auto target = Make<CImgFilterMisc>(flat->VmManager(), kSide, kSide, 1, Random(0, 1, 7));
        const auto before = Pixels(*target);
        target->CFANoiseCut(mode, cfa, 0, 2, 0, flat.get(), nullptr, 0);
        const bool runs = mode >= 1 && mode <= 4 && cfa != 0 && cfa != 5 && cfa != 10 && cfa != 15;
        EXPECT_EQ(Pixels(*target), runs ? Pixels(*flat) : before) << store.name << cfa << mode;
      }
    }
    const auto colour = Make(flat->VmManager(), kSide, kSide, 3, Random(5, 9));
    const auto target = Make<CImgFilterMisc>(flat->VmManager(), kSide, kSide, 3, Random(0, 1, 7));
    const auto before = Pixels(*target);
    target->CFANoiseCut(2, 1, 0, 1, 0.5, colour.get(), nullptr, 0);
    EXPECT_EQ(Pixels(*target), before);
  }
}

TEST(CompareArea, TellsAStarFromALonePixel) {
  for (const auto& store : {MemoryStore(), TinyPool()}) {
    for (const int cfa : {1, 11}) {
      const auto src =
          Make(store, kSide, kSide, 1, Night(cfa, [](int x, int y) {
                 const double d2 = (x - 10) * (x - 10) + (y - 10) * (y - 10);
                 const double e2 = (x - 30) * (x - 30) + (y - 10) * (y - 10);
                 return 4000 * std::exp(-d2 / 8) + 4000 * std::exp(-e2) + (x == 30 && y == 30 ? 4000 : 0);
               }));
      CImgFilterMisc misc;
      for (const int rings : {1, 2}) {
        EXPECT_EQ(misc.CompareArea(src.get(), src.get(), 10, 10, cfa, rings, 0.5), 1) << "a wide star";
        EXPECT_EQ(misc.CompareArea(src.get(), src.get(), 30, 10, cfa, rings, 0.5), rings == 1)
            << "a sharp one";
        EXPECT_EQ(misc.CompareArea(src.get(), src.get(), 30, 30, cfa, rings, 0.5), 0) << "no star";
        EXPECT_EQ(misc.CompareArea(src.get(), src.get(), 30, 30, cfa, rings, 1), 1) << "all may stray";
      }
      EXPECT_EQ(misc.CompareArea(src.get(), src.get(), -1, 3, cfa, 1, 1), 0);
      EXPECT_EQ(misc.CompareArea(src.get(), src.get(), 3, kSide, cfa, 1, 1), 0);
    }
  }
}

}  // namespace
