#include "korimg/raw/CImgHoneyCombToRgb.h"

#include <map>

#include <gtest/gtest.h>

#include "korimg/levels/CImgAutoLevel.h"
#include "korimg/raw/internal/HoneycombLattice.h"
#include "korimg/raw/internal/RawFrame.h"

#include "tests/raw/Mosaics.h"

using namespace korimg;
using namespace korimg::test;

namespace {

/// Opens the steps that are tested by themselves.
struct HoneyComb : CImgHoneyCombToRgb {
  using CImgHoneyCombToRgb::ToneCurveCorrect;
};

/// 'R', 'G', 'B', or '.' between the sites.
char SiteOf(int cfa, int x, int y) {
  static constexpr const char* kCell[] = {"R.B.", ".G.G", "B.R.", ".G.G"};
  static constexpr int kOrigin[][2] = {{0, 0}, {2, 0}, {1, 1}, {3, 1}};
  return kCell[(y - kOrigin[cfa - 11][1] + 8) % 4][(x - kOrigin[cfa - 11][0] + 8) % 4];
}

/// The development by its rules, pixel by pixel in double.
class Reference {
 public:
  Reference(PixelRule mosaic, int width, int height, int cfa)
      : mosaic_(std::move(mosaic)), width_(width), height_(height), cfa_(cfa) {}

  double Colour(char c, int x, int y) const { return ColourOf(*this, c, x, y); }
  /// The weights of the colours, each shared out over the sites that carry it.
  double Brightness(int x, int y) const {
    using Offsets = std::vector<std::pair<int, int>>;
    static const std::map<char, Offsets> carriers = {
        {'.', {{0, -1}, {-1, 0}, {1, 0}, {0, 1}}},
        {'G', {{0, 0}, {-1, -1}, {1, -1}, {-1, 1}, {1, 1}}},
        {'R', {{0, 0}, {-1, -1}, {1, 1}, {-2, 0}, {2, 0}}},
        {'B', {{0, 0}, {1, -1}, {-1, 1}, {0, -2}, {0, 2}}},
    };
    std::map<char, std::pair<double, int>> sums;
    for (const auto& [dx, dy] : carriers.at(Site(x, y))) {
      auto& [sum, count] = sums[Site(x + dx, y + dy)];
      sum += At(x + dx, y + dy);
      ++count;
    }
    return 0.3 * sums['R'].first / sums['R'].second + 0.59 * sums['G'].first / sums['G'].second +
           0.11 * sums['B'].first / sums['B'].second;
  }

  /// What a colour is by the neighbours that have it.
  double Plain(char c, int x, int y) const {
    const char site = Site(x, y);
    const bool isGreenRow = IsGreenRow(x, y);
    if (site == c) return At(x, y);
    if (site == '.' && isGreenRow == (c == 'G')) return 0.5 * (Plain(c, x - 1, y) + Plain(c, x + 1, y));
    if (site == '.') return 0.5 * (Plain(c, x, y - 1) + Plain(c, x, y + 1));
    const int d = site == 'G' || c == 'G' ? 1 : 2;
    return d == 1 ? 0.25 * (Plain(c, x - 1, y - 1) + Plain(c, x + 1, y - 1) + Plain(c, x - 1, y + 1) +
                            Plain(c, x + 1, y + 1))
                  : 0.25 * (At(x - 2, y) + At(x + 2, y) + At(x, y - 2) + At(x, y + 2));
  }

 private:
  static int Inside(int i, int size) {
    while (i < 0)
      i += 4;
    while (i >= size)
      i -= 4;
    return i;
  }
  double At(int x, int y) const {
    return static_cast<float>(mosaic_(0, Inside(x, width_), Inside(y, height_)));
  }
  char Site(int x, int y) const { return SiteOf(cfa_, x + 8, y + 8); }
  bool IsGreenRow(int x, int y) const { return Site(x, y) == 'G' || Site(x + 1, y) == 'G'; }

  PixelRule mosaic_;
  int width_, height_, cfa_;
};

tagHoneyCombStruct Floats(int cfa) {
  tagHoneyCombStruct honeyComb;
  honeyComb.nCFA = cfa;
  honeyComb.nKind = 1;
  honeyComb.nSrcBits = honeyComb.nDstBits = -32;
  return honeyComb;
}

/// Sites by a rule, and nothing that may be looked at between them.
std::shared_ptr<CImgHoneyCombToRgb> Mosaic(const std::shared_ptr<CVmManager>& store, int width, int height,
                                           const PixelRule& rule, double between = NAN) {
  auto image = Make<CImgHoneyCombToRgb>(store, width, height, 1, [&](int p, int x, int y) {
    return (x + y) % 2 == 0 ? rule(p, x, y) : between;
  });
  image->SetHoneyCombImage(true);
  return image;
}

/// Samples a scene of three planes through the lattice.
PixelRule Through(int cfa, const PixelRule& scene) {
  return [=](int, int x, int y) {
    const char site = SiteOf(cfa, x, y);
    return site == '.' ? 0 : scene(site == 'R' ? 0 : site == 'G' ? 1 : 2, x, y);
  };
}

TEST(CImgHoneyCombToRgb, FollowsTheRules) {
  struct Size {
    int width, height;
    std::array<int, 4> trims;  // left, top, right, bottom
  };
  OnEveryPath([](const StoreCase& store) {
    int form = 0;
    for (const Size& s : std::vector<Size>{{10, 10, {0, 0, 0, 0}},
                                           {11, 13, {1, 0, 0, 0}},
                                           {12, 11, {0, 0, 1, 3}},
                                           {13, 10, {0, 9, 0, 0}},
                                           {10, 35, {4, 5, 5, 2}},
                                           {731, 16, {3, 2, 2, 1}}}) {
      for (int cfa = 11; cfa <= 14; ++cfa, ++form) {
        tagHoneyCombStruct honeyComb = Floats(cfa);
        honeyComb.bMono = form / 2 % 2;
        honeyComb.bLevelCut = form % 3 == 0;
        honeyComb.nKind = static_cast<unsigned char>(form % 3 + 1);
        honeyComb.nTrimLeft = s.trims[0], honeyComb.nTrimTop = s.trims[1];
        honeyComb.nTrimRight = s.trims[2], honeyComb.nTrimBottom = s.trims[3];
        const PixelRule rule = Random(1000, 2500, form);
        const auto image = Mosaic(store.make(), s.width, s.height, rule);
        image->SetLevel(0, 1400, 2000);
        ASSERT_EQ(image->Do(honeyComb, 0), 1);
        EXPECT_EQ(image->GetWidth(), s.width - s.trims[0] - s.trims[2]);
        EXPECT_EQ(image->GetHeight(), s.height - s.trims[1] - s.trims[3]);
        EXPECT_EQ(image->GetPlanes(), honeyComb.bMono ? 1 : 3);
        EXPECT_FALSE(image->IsHoneyCombImage());
        const Reference reference(rule, s.width, s.height, cfa);
        const auto expected = [&](int p, int x, int y) {
          const int i = x + s.trims[0], j = y + s.trims[1];
          const double v = honeyComb.bMono ? reference.Brightness(i, j) : reference.Colour("RGB"[p], i, j);
          return honeyComb.bLevelCut ? std::clamp(v, 1400.0, 2000.0) : v;
        };
        ASSERT_EQ(Difference(*image, expected, 1e-6), "") << store.name << " " << s.width << " cfa " << cfa;
      }
    }
  });
}

TEST(CImgHoneyCombToRgb, AFrameOfOneValueStaysExactly) {
  for (const float value : {0.1f, 1234.567f, 65535.0f, -3.3f}) {
    for (const int mono : {0, 1}) {
      for (int cfa = 11; cfa <= 14; ++cfa) {
        const auto image = Mosaic(MemoryStore(), 43, 22, [=](int, int, int) { return value; });
        tagHoneyCombStruct honeyComb = Floats(cfa);
        honeyComb.bMono = mono;
        ASSERT_EQ(image->Do(honeyComb, 0), 1);
        ASSERT_EQ(Difference(
                      *image, [=](int, int, int) { return value; }, 0),
                  "");
        EXPECT_EQ(image->GetOrgPlanes() == 3, mono == 0);
        for (int p = 0; p < image->GetPlanes(); ++p) {
          EXPECT_EQ(image->GetLevelMin(p), 130);
          EXPECT_EQ(image->GetLevelMax(p), 1070);
        }
      }
    }
  }
}

TEST(CImgHoneyCombToRgb, LongVectorsGiveTheSameBits) {
  const auto develop = [](unsigned features) {
    const WithFeatures simd(features);
    const auto image = Mosaic(MemoryStore(), 101, 37, Wild(0, 4000));
    tagHoneyCombStruct honeyComb = Floats(12);
    EXPECT_EQ(image->Do(honeyComb, 0), 1);
    return image;
  };
  EXPECT_EQ(Difference(*develop(0), *develop(CKorSys::SIMD())), "");
}

TEST(CImgHoneyCombToRgb, ASceneComesBack) {
  constexpr int kWidth = 81, kHeight = 70;
  // Between the sites red and blue are each seen from one side, which costs up to 0.3 of a slope, evenly to
  // both sides. The edges repeat what lies four pixels away.
  const PixelRule ramps = [](int p, int x, int y) {
    return 1000 * p + 500 + (7 - 5 * p) * x + (3 * p - 2) * y;
  };
  const PixelRule waves = [](int p, int x, int y) {
    return 1000 + 300 * std::sin(0.25 * x + p) * std::cos(0.2 * y - 2 * p);
  };
  const struct {
    const char* name;
    PixelRule scene;
    int edge;
    double worst, mean;
  } cases[] = {{"ramps", ramps, 4, 0.31 * 7, 0.01},
               {"ramps at edges", ramps, 0, 35, 0.2},
               {"waves", waves, 4, 45, 0.1}};
  for (const auto& [name, scene, edge, mostOfOne, mostOfAll] : cases) {
    for (int cfa = 11; cfa <= 14; ++cfa) {
      const auto image = Mosaic(MemoryStore(), kWidth, kHeight, Through(cfa, scene));
      ASSERT_EQ(image->Do(Floats(cfa), 0), 1);
      double worst = 0;
      for (int p = 0; p < 3; ++p) {
        double sum = 0;
        for (int y = edge; y < kHeight - edge; ++y) {
          for (int x = edge; x < kWidth - edge; ++x) {
            const double error = image->GetPixelGrayRaw(x, y, p) - scene(p, x, y);
            worst = std::max(worst, std::abs(error));
            sum += error;
          }
        }
        EXPECT_NEAR(sum / (kWidth - 2 * edge) / (kHeight - 2 * edge), 0, mostOfAll) << name << " cfa " << cfa;
      }
      EXPECT_LT(worst, mostOfOne) << name << " cfa " << cfa;
    }
  }
}

TEST(CImgHoneyCombToRgb, StarsKeepTheirPlaceAndColour) {
  for (int cfa = 11; cfa <= 14; ++cfa) {
    SCOPED_TRACE(cfa);
    CheckStars(2, 0.02, [=](const PixelRule& scene, int side) {
      auto image = Mosaic(MemoryStore(), side, side, Through(cfa, scene));
      EXPECT_EQ(image->Do(Floats(cfa), 0), 1);
      return image;
    });
  }
}

TEST(CImgHoneyCombToRgb, BitsAreWidenedAndTheSubtrahendTakenOff) {
  OnEveryPath([](const StoreCase& store) {
    for (const bool fills : {false, true}) {  // the squares between the sites
      for (const int autoRange : {0, 1}) {
        const PixelRule rule = Random(100, 5000);
        const auto image = Mosaic(store.make(), 20, 20, rule, 0);
        if (fills) Paint(*image, rule);
        tagHoneyCombStruct honeyComb = Floats(13);
        honeyComb.nSrcBits = 12, honeyComb.nDstBits = 16;
        honeyComb.bAutoRange = autoRange;
        honeyComb.bSubtract = 1, honeyComb.fSubtract = 37.5f;
        honeyComb.bLevelCut = 1;
        ASSERT_EQ(image->Do(honeyComb, 0), 1);
        const auto less = [&](int x, int y) { return static_cast<float>(rule(0, x, y)) - 37.5f; };
        double min = 0, max = 4095;
        if (autoRange) {
          min = INFINITY, max = -INFINITY;
          for (int i = 0; i < 400; ++i) {
            const int x = i % 20, y = i / 20;
            if (fills ? x % 2 != 1 || y % 2 != 0 : (x + y) % 2 != 0) continue;
            min = std::min<double>(min, less(x, y));
            max = std::max<double>(max, less(x, y));
          }
        }
        const Reference reference(
            [&](int, int x, int y) {
              return std::clamp((less(x, y) - min) * 65535 / (max - min), 0.0, 65535.0);
            },
            20, 20, 13);
        const auto expected = [&](int p, int x, int y) {
          return std::clamp(reference.Colour("RGB"[p], x, y), 0.0, 65535.0);
        };
        ASSERT_EQ(Difference(*image, expected, 2e-6), "") << store.name << fills << autoRange;
      }
    }
  });
}

TEST(CImgHoneyCombToRgb, GainsGoByPositionInTheCell) {
  double gains[8] = {1.9, 0.5, 1, 1.25, 0.8, 2.6, 1.1, 3};
  const auto positionOf = [](int x, int y) { return y % 4 * 2 + x % 4 / 2; };
  OnEveryPath([&](const StoreCase& store) {
    for (int form = 0; form < 4; ++form) {
      tagHoneyCombStruct honeyComb = Floats(11);
      honeyComb.pGain = gains;
      honeyComb.bKnee = form & 1, honeyComb.bCurvePower = form >> 1;
      honeyComb.dCurvePower = 1.4;
      const double black = -300, white = 3000;
      const PixelRule rule = Wild(-500, 4000, form);
      const auto frame = Make(store.make(), 37, 30, 2, rule);
      HoneyComb::ToneCurveCorrect(*frame, honeyComb, {black, white});
      const auto before = Make(MemoryStore(), 37, 30, 1, rule);
      const auto expected = [&](int p, int x, int y) -> double {
        const double v = before->GetPixelGrayRaw(x, y, 0), g = gains[positionOf(x, y)];
        if (p == 0) return v;
        double t = v * g;
        if (honeyComb.bKnee) {
          const double range = white - black, turn = range / (g + 1), d = v - black;
          // From black with the gain as slope, and on to white.
          t = !(v > black && v < white) ? v
              : v < turn                ? black + d * g
                                        : black + turn * g + (d - turn) * (range - turn * g) / (range - turn);
        }
        if (!honeyComb.bCurvePower || !(t >= 0 && t < white)) return t;
        return std::pow(std::pow(white, 1.4) - std::pow(white - t, 1.4), 1 / 1.4);
      };
      ASSERT_EQ(Difference(*frame, expected, 1e-5), "") << store.name << " form " << form;
    }
    // Sites that each have lost their gain come back as one.
    const auto image =
        Mosaic(store.make(), 21, 15, [&](int, int x, int y) { return 1000 / gains[positionOf(x, y)]; });
    tagHoneyCombStruct honeyComb = Floats(14);
    honeyComb.bToneCurve = 1, honeyComb.pGain = gains;
    ASSERT_EQ(image->Do(honeyComb, 0), 1);
    EXPECT_EQ(Difference(
                  *image, [](int, int, int) { return 1000; }, 1e-6),
              "");
  });
}

TEST(CImgHoneyCombToRgb, GammaBendsTheResult) {
  for (const StoreCase& store : Stores()) {
    const auto image = Mosaic(store.make(), 20, 20, [](int, int, int) { return 512; });
    tagHoneyCombStruct honeyComb = Floats(11);
    honeyComb.nSrcBits = 12, honeyComb.nDstBits = 16;
    honeyComb.bGamma = 1, honeyComb.dGamma = 3;
    ASSERT_EQ(image->Do(honeyComb, 0), 1);
    const double expected = 65535 * std::cbrt(512 / 4095.0);
    EXPECT_EQ(Difference(
                  *image, [=](int, int, int) { return expected; }, 1e-6),
              "");
  }
}

TEST(CImgHoneyCombToRgb, TheFirstSiteGoesByTheNumber) {
  for (int cfa = 0; cfa <= 20; ++cfa) {
    int x = -1, y = -1;
    const int known = CImgHoneyCombToRgb::GetCFAParam(cfa, &x, &y);
    ASSERT_EQ(known, cfa >= 11 && cfa <= 14) << cfa;
    if (!known) {
      EXPECT_TRUE(x == -1 && y == -1);
      continue;
    }
    EXPECT_EQ(SiteOf(cfa, x, y), 'R');
    // The lattice seen from any pixel of its own has the number of what begins there.
    for (int shift = 0; shift < 64; ++shift) {
      const int dx = shift % 8 - 4, dy = shift / 8 - 4;
      const HoneycombLattice lattice{x - dx, y - dy};
      const int number = lattice.Number();
      EXPECT_EQ(number == 0, (dx + dy) % 2 != 0) << cfa << " " << dx << " " << dy;
      for (int i = 0; number > 0 && i < 16; ++i) {
        const char site = SiteOf(number, i % 4, i / 4);
        EXPECT_EQ(site, SiteOf(cfa, i % 4 + dx + 4, i / 4 + dy + 4));
        EXPECT_EQ(lattice.IsSite(i % 4, i / 4), site != '.');
        EXPECT_TRUE(site == '.' || "RGB"[lattice.ColourAt(i % 4, i / 4)] == site);
      }
    }
  }
}

TEST(CImgHoneyCombToRgb, GainsAreTheMediansOfThePositions) {
  const auto image = Mosaic(TinyPool(), 35, 26, [](int, int x, int y) {
    return 1000 * (y % 4 * 2 + x % 4 / 2) + (x * 7 + y * 3) % 5;
  });
  double gains[8] = {}, medians[8] = {};
  EXPECT_EQ(image->GetGain(11, gains), 1);
  auto same = Make<CImgAutoLevel>(MemoryStore(), 35, 26, 1,
                                  [&](int p, int x, int y) { return image->GetPixelGrayRaw(x, y, p); });
  same->GetMedianHoneyComb(medians, 1);
  for (int i = 0; i < 8; ++i) {
    EXPECT_NEAR(gains[i], 1000 * i + 2, 2);
    EXPECT_EQ(gains[i], medians[i]);
  }
  EXPECT_EQ(image->GetWidth(), 35);  // it was lent
}

TEST(CImgHoneyCombToRgb, ExtremesWithoutTheMaskedBorder) {
  const auto extremes = [](CImgHoneyCombToRgb& camera, CImage& frame, int plane = 0) {
    double min = NAN, max = NAN;
    camera.GetMinMax(&frame, plane, &min, &max);
    return std::pair(min, max);
  };
  for (const StoreCase& store : Stores()) {
    const int width = 730, height = 90;
    CImgHoneyCombToRgb plain, masked;
    const auto shape = Make(store.make(), width, height, 1, [](int, int, int) { return 0; });
    plain.Create(*shape, nullptr);
    masked.Create(*shape, nullptr);
    masked.GetHeader()->SetCameraModel(L"FinePixS2Pro");
    // The border is brighter and darker than all else; so is every second row and column beside those asked.
    const auto rule = [&](int p, int x, int y) -> double {
      const bool border = x < 49 || x >= width - 48 || y < 30 || y >= height - 30;
      const bool asked = x % 2 == 1 && y % 2 == 0;
      return (border ? 10000 : 1000) * ((x + y) % 4 == 1 ? 1 : -1) * (asked ? 1 : 3) + (x * 5 + y * 3) % 7 +
             p;
    };
    const auto frame = Make(store.make(), width, height, 2, rule);
    const auto [min, max] = extremes(plain, *frame, 1);
    EXPECT_TRUE(min == -10000 + 1 && max == 10000 + 6 + 1) << min << " " << max;
    const auto [innerMin, innerMax] = extremes(masked, *frame);
    EXPECT_TRUE(innerMin == -1000 && innerMax == 1000 + 6) << innerMin << " " << innerMax;

    // One pixel beyond each side of the border, and within.
    for (const auto& [x, y, inside] : {std::tuple(47, 40, false),
                                       {49, 40, true},
                                       {681, 40, true},
                                       {683, 40, false},
                                       {101, 28, false},
                                       {101, 30, true},
                                       {101, 58, true},
                                       {101, 60, false}}) {
      const auto one = Make(store.make(), width, height, 1, [x = x, y = y](int, int i, int j) {
        return i == x && j == y ? 5000 : (i + j) % 3;
      });
      EXPECT_EQ(extremes(masked, *one).second, inside ? 5000 : 2) << x << " " << y;
    }
    // Nothing between the sites.
    for (const double between : {0.0, static_cast<double>(NAN)}) {
      const auto sites = Make(store.make(), width, height, 1, [=](int, int x, int y) -> double {
        return (x + y) % 2 ? between : 100 + x + 2 * y;
      });
      EXPECT_EQ(extremes(plain, *sites), std::pair(100.0, 100.0 + 729 + 2 * 89));
      EXPECT_EQ(extremes(masked, *sites), std::pair(100.0 + 50 + 60, 100.0 + 681 + 2 * 59));
    }
    const auto nothing = Make(store.make(), 60, 60, 1, [](int, int, int) { return NAN; });
    EXPECT_EQ(extremes(plain, *nothing), std::pair(0.0, 0.0));
    EXPECT_EQ(extremes(masked, *nothing), std::pair(0.0, 0.0));
  }
}

TEST(CImgHoneyCombToRgb, ASourceIsLeftAlone) {
  const auto mosaic = [] { return Mosaic(MemoryStore(), 20, 20, Random(0, 1000), 3); };
  CheckSourceStays(*mosaic(), *mosaic(), Floats(12));
}

TEST(CImgHoneyCombToRgb, RefusesWithNothingChanged) {
  const std::vector<std::pair<const char*, std::function<void(tagHoneyCombStruct&)>>> changes = {
      {"cfa 0", [](auto& h) { h.nCFA = 0; }},
      {"cfa 3, which is Bayer's", [](auto& h) { h.nCFA = 3; }},
      {"cfa 10", [](auto& h) { h.nCFA = 10; }},
      {"cfa 15", [](auto& h) { h.nCFA = 15; }},
      {"kind 0", [](auto& h) { h.nKind = 0; }},
      {"kind 4", [](auto& h) { h.nKind = 4; }},
      {"14 bits", [](auto& h) { h.nSrcBits = 14, h.nDstBits = 16; }},
      {"12 bits to floats", [](auto& h) { h.nSrcBits = 12; }},
      {"floats to 16 bits", [](auto& h) { h.nDstBits = 16; }},
      {"a negative trim", [](auto& h) { h.nTrimLeft = -1; }},
      {"no columns", [](auto& h) { h.nTrimLeft = 12, h.nTrimRight = 8; }},
      {"no gains", [](auto& h) { h.bToneCurve = 1; }},
  };
  for (const auto& store : Stores()) {
    const auto image = Mosaic(store.make(), 20, 18, Random(0, 1000), 0);
    CheckRefusals(*image, Floats(11), changes);
    for (const auto& [width, height] : {std::pair(9, 10), std::pair(10, 9)}) {
      EXPECT_EQ(Mosaic(store.make(), width, height, Random(0, 9))->Do(Floats(11), 0), 0);
    }
  }
  CImgHoneyCombToRgb empty;
  EXPECT_EQ(empty.Do(Floats(11), 0), 0);
}

}  // namespace
