#include "korimg/raw/CImgBayerToRgb.h"

#include <gtest/gtest.h>

#include "korimg/pipelines/runtime/Runtime.h"
#include "korimg/raw/internal/RawFrame.h"

#include "tests/raw/Mosaics.h"

using namespace korimg;
using namespace korimg::test;

namespace {

/// Opens the steps that are tested by themselves.
struct Bayer : CImgBayerToRgb {
  using CImgBayerToRgb::ToneCurveCorrect;
};

constexpr const char* kCells[] = {"", "RGGB", "GRBG", "BGGR", "GBRG"};

/// 'R', 'G' or 'B'.
char SiteOf(int cfa, int x, int y) {
  return kCells[cfa][(y & 1) * 2 + (x & 1)];
}

/// The development by its formulas, pixel by pixel in double, with edges mirrored; by lines, the raw numbers
/// of the first and last column stand for all colours.
class Reference {
 public:
  Reference(PixelRule mosaic, int width, int height, int cfa, bool byLines = false)
      : mosaic_(std::move(mosaic)), width_(width), height_(height), cfa_(cfa), byLines_(byLines) {}

  double Colour(char c, int x, int y) const { return ColourOf(*this, c, x, y); }
  double Brightness(int x, int y) const {
    if (IsRaw(x)) return At(x, y);
    double sum = 0;
    for (const char c : {'R', 'G', 'B'}) {
      if (Site(x, y) == c) {
        sum += At(x, y);
      } else if (Site(x, y) != 'G') {
        sum += c == 'G' ? Cross(x, y) : Diagonal(x, y);
      } else {
        sum += 0.25 * (Filled(c, x - 1, y) + Filled(c, x + 1, y) + Filled(c, x, y - 1) + Filled(c, x, y + 1));
      }
    }
    return sum / 3;
  }

  /// What a colour is by the neighbours that have it.
  double Plain(char c, int x, int y) const {
    if (Site(x, y) == c || IsRaw(x)) return At(x, y);
    if (Site(x, y) != 'G') return c == 'G' ? Cross(x, y) : Diagonal(x, y);
    return Site(x + 1, y) == c ? 0.5 * (At(x - 1, y) + At(x + 1, y)) : 0.5 * (At(x, y - 1) + At(x, y + 1));
  }

 private:
  static int Mirror(int i, int size) {
    i = std::abs(i) % (2 * (size - 1));
    return i < size ? i : 2 * (size - 1) - i;
  }
  double At(int x, int y) const {
    return static_cast<float>(mosaic_(0, Mirror(x, width_), Mirror(y, height_)));
  }
  char Site(int x, int y) const { return SiteOf(cfa_, x, y); }
  double Diagonal(int x, int y) const {
    return 0.25 * (At(x - 1, y - 1) + At(x + 1, y - 1) + At(x - 1, y + 1) + At(x + 1, y + 1));
  }
  double Cross(int x, int y) const {
    return 0.25 * (At(x - 1, y) + At(x + 1, y) + At(x, y - 1) + At(x, y + 1));
  }
  bool IsRaw(int x) const { return byLines_ && (x <= 0 || x >= width_ - 1); }
  double Filled(char c, int x, int y) const {
    return Site(x, y) == c || IsRaw(x) ? At(x, y) : Diagonal(x, y);
  }

  PixelRule mosaic_;
  int width_, height_, cfa_;
  bool byLines_;
};

tagBayerStruct Floats(int cfa) {
  tagBayerStruct bayer;
  bayer.nCFA = cfa;
  bayer.nSrcBits = bayer.nDstBits = -32;
  return bayer;
}

void Trim(tagBayerStruct& bayer, const std::array<int, 4>& trims) {
  bayer.nTrimLeft = trims[0], bayer.nTrimTop = trims[1], bayer.nTrimRight = trims[2],
  bayer.nTrimBottom = trims[3];
}

std::shared_ptr<CImgBayerToRgb> Mosaic(const std::shared_ptr<CVmManager>& store, int width, int height,
                                       const PixelRule& rule) {
  auto image = Make<CImgBayerToRgb>(store, width, height, 1, rule);
  image->SetBayerImage(true);
  return image;
}

bool IsPaged(const CVelImage& image) {
  return image.GetAllocationPolicy() == CVmManager::Paged;
}

struct Size {
  int width, height;
  std::array<int, 4> trims;
};
const std::vector<Size> kSizes = {{6, 6, {0, 0, 0, 0}},   {7, 9, {1, 0, 0, 0}},    {8, 7, {0, 0, 1, 0}},
                                  {33, 20, {0, 1, 0, 3}}, {71, 135, {3, 5, 2, 1}}, {71, 40, {2, 4, 1, 6}},
                                  {10, 50, {4, 9, 5, 40}}};

/// Frame rows that the line path develops, from and to.
std::pair<int, int> RowsByLines(const Size& s) {
  int from = 1 << 30, to = -1;
  for (int y = 3; y <= s.height - 5; y += 2) {
    if (y < 2 * (s.trims[1] / 2) + 1 || y > 2 * ((s.height - s.trims[3]) / 2) - 1) continue;
    from = std::min(from, y), to = y + 1;
  }
  return {from, to};
}

TEST(CImgBayerToRgb, FollowsTheFormulas) {
  const WithThreads team(4);
  for (const StoreCase& store : Stores()) {
    for (const Size& s : kSizes) {
      for (int form = 0; form < 16; ++form) {
        tagBayerStruct bayer = Floats(form % 4 + 1);
        bayer.bMono = form / 4 % 2;
        bayer.bLevelCut = form / 8;
        Trim(bayer, s.trims);
        const PixelRule rule = Random(1000, 2500, form);
        const auto image = Mosaic(store.make(), s.width, s.height, rule);
        image->SetLevel(0, 1400, 2000);
        ASSERT_EQ(image->Do(bayer, 0), 1);
        ASSERT_EQ(image->GetPlanes(), bayer.bMono ? 1 : 3);
        ASSERT_EQ(image->GetWidth(), s.width - s.trims[0] - s.trims[2]);
        ASSERT_EQ(image->GetHeight(), s.height - s.trims[1] - s.trims[3]);
        EXPECT_FALSE(image->IsBayerImage());

        const Reference reference(rule, s.width, s.height, bayer.nCFA, IsPaged(*image));
        const auto [from, to] = RowsByLines(s);
        const bool isTrimmed = s.trims != std::array{0, 0, 0, 0};
        const int untouched = bayer.bMono ? 0 : 1;
        const auto expected = [&, from = from, to = to](int p, int x, int y) -> double {
          x += s.trims[0], y += s.trims[1];
          if (IsPaged(*image)) {
            if (y < from || y > to || x < untouched || x >= s.width - untouched) {
              return isTrimmed || p > 0 ? 0 : static_cast<float>(rule(0, x, y));
            }
          }
          const double v = bayer.bMono ? reference.Brightness(x, y) : reference.Colour("RGB"[p], x, y);
          return bayer.bLevelCut ? std::min(2000.0, std::max(1400.0, v)) : v;
        };
        ASSERT_EQ(Difference(*image, expected, 6e-7), "")
            << store.name << " " << s.width << "x" << s.height << " form " << form;
      }
    }
  }
}

TEST(CImgBayerToRgb, PathsAgreeToTheBitInside) {
  for (const Size& s : kSizes) {
    for (int form = 0; form < 16; ++form) {
      tagBayerStruct bayer = Floats(form % 4 + 1);
      bayer.bMono = form / 4 % 2;
      bayer.bLevelCut = form / 8;
      Trim(bayer, s.trims);
      const PixelRule rule = Wild(-1e4, 7e4, form);
      const auto lines = Mosaic(TinyPool(), s.width, s.height, rule),
                 pipeline = Mosaic(MemoryStore(), s.width, s.height, rule);
      ASSERT_EQ(lines->Do(bayer, 0) + pipeline->Do(bayer, 0), 2);
      const auto [from, to] = RowsByLines(s);
      const int edge = bayer.bMono ? 2 : 3;
      const auto expected = [&, from = from, to = to](int p, int x, int y) {
        const int frameX = x + s.trims[0], frameY = y + s.trims[1];
        const bool isInside = frameX >= edge && frameX < s.width - edge && frameY >= from && frameY <= to;
        return (isInside ? pipeline : lines)->GetPixelGrayRaw(x, y, p);
      };
      ASSERT_EQ(Difference(*lines, expected, 0), "") << s.width << "x" << s.height << " form " << form;
    }
  }
}

TEST(CImgBayerToRgb, ThreadsDoNotMatter) {
  for (const auto& store : {Stores()[0], Stores()[2]}) {
    std::vector<float> first;
    for (const int threads : {1, 2, 7}) {
      const WithThreads team(threads);
      const auto image = Mosaic(store.make(), 97, 211, Random(0, 4095));
      tagBayerStruct bayer = Floats(2);
      double gains[4] = {1.7, 1, 1, 1.3};
      bayer.bToneCurve = bayer.bKnee = bayer.bGamma = 1;
      bayer.dGamma = 2.2;
      bayer.pGain = gains;
      SetPipelineThreads(threads);
      ASSERT_EQ(image->Do(bayer, 0), 1);
      if (first.empty()) first = Pixels(*image);
      EXPECT_EQ(Pixels(*image), first);
    }
  }
  SetPipelineThreads(0);
}

TEST(CImgBayerToRgb, AWhiteFrameHasNoColour) {
  for (int cfa = 1; cfa <= 4; ++cfa) {
    const auto image = Mosaic(MemoryStore(), 40, 31, [](int, int, int) { return 16383; });
    tagBayerStruct bayer = Floats(cfa);
    bayer.nSrcBits = 14, bayer.nDstBits = 16;
    ASSERT_EQ(image->Do(bayer, 0), 1);
    EXPECT_EQ(Difference(
                  *image, [](int, int, int) { return 65535; }, 0),
              "");
    EXPECT_EQ(image->GetOrgPlanes(), 3);
    for (int p = 0; p < 3; ++p) {
      EXPECT_EQ(image->GetLevelMin(p), 130);
      EXPECT_EQ(image->GetLevelMax(p), 1070);
    }
  }
}

TEST(CImgBayerToRgb, StarsKeepTheirPlaceAndColour) {
  for (int cfa = 1; cfa <= 4; ++cfa) {
    SCOPED_TRACE(kCells[cfa]);
    CheckStars(1.6, 0.01, [=](const PixelRule& scene, int side) {
      auto image = Mosaic(MemoryStore(), side, side, [=](int, int x, int y) {
        return scene(SiteOf(cfa, x, y) == 'R' ? 0 : SiteOf(cfa, x, y) == 'G' ? 1 : 2, x, y);
      });
      EXPECT_EQ(image->Do(Floats(cfa), 0), 1);
      return image;
    });
  }
}

TEST(CImgBayerToRgb, BitsAreWidenedAndTheSubtrahendTakenOff) {
  OnEveryPath([](const StoreCase& store) {
    for (const int bits : {12, 14}) {
      for (const int autoRange : {0, 1}) {
        const PixelRule rule = Random(0, 1.2 * (1 << bits));
        const auto image = Mosaic(store.make(), 20, 20, rule);
        tagBayerStruct bayer = Floats(1);
        bayer.nSrcBits = bits, bayer.nDstBits = 16;
        bayer.bAutoRange = autoRange;
        bayer.bSubtract = 1, bayer.fSubtract = 37.5f;
        ASSERT_EQ(image->Do(bayer, 0), 1);
        const auto less = [&](int x, int y) { return static_cast<float>(rule(0, x, y)) - 37.5f; };
        double min = 0, max = (1 << bits) - 1;
        if (autoRange) {
          min = max = less(0, 0);
          for (int i = 0; i < 400; ++i) {
            min = std::min<double>(min, less(i % 20, i / 20));
            max = std::max<double>(max, less(i % 20, i / 20));
          }
        }
        const Reference reference(
            [&](int, int x, int y) {
              return std::min(65535.0, std::max(0.0, (less(x, y) - min) * 65535 / (max - min)));
            },
            20, 20, 1);
        for (int p = 0; p < 3; ++p) {
          EXPECT_NEAR(image->GetPixelGrayRaw(9, 8, p), reference.Colour("RGB"[p], 9, 8), 0.05) << store.name;
        }
      }
    }
  });
}

TEST(CImgBayerToRgb, AConstantFrameHasNoRange) {
  for (const auto& store : Stores()) {
    for (const int bits : {12, -32}) {
      const auto image = Mosaic(store.make(), 20, 20, [](int, int, int) { return 300; });
      tagBayerStruct bayer = Floats(1);
      double gains[4] = {2, 1, 1, 3};
      bayer.nSrcBits = bits, bayer.nDstBits = bits == 12 ? 16 : -32;
      bayer.bAutoRange = bayer.bToneCurve = bayer.bKnee = bayer.bCurvePower = bayer.bLevelCut = 1;
      bayer.dCurvePower = 1.5;
      bayer.pGain = gains;
      ASSERT_EQ(image->Do(bayer, 0), 1);
      for (int p = 0; p < 3; ++p) {
        EXPECT_EQ(image->GetPixelGrayRaw(10, 10, p), bits == 12 ? 0 : 300) << store.name;
      }
    }
  }
}

TEST(CImgBayerToRgb, ToneCorrectionInAllItsForms) {
  OnEveryPath([](const StoreCase& store) {
    for (int form = 0; form < 8; ++form) {
      for (const auto& [black, white] :
           {std::pair(0.0, 4000.0), std::pair(150.0, 3000.0), std::pair(-300.0, 3000.0)}) {
        tagBayerStruct bayer = Floats(1);
        double gains[4] = {1.9, 1, 0.8, 2.6};
        bayer.pGain = gains;
        bayer.bKnee = form & 1, bayer.bLevelCut = form >> 1 & 1, bayer.bCurvePower = form >> 2;
        bayer.dCurvePower = 1.4;
        const auto frame = Make(store.make(), 37, 70, 2, Wild(-500, 5000, form));
        const auto before = Make(MemoryStore(), 37, 70, 2, Wild(-500, 5000, form));
        Bayer::ToneCurveCorrect(*frame, bayer, {black, white});
        const auto expected = [&, black = black, white = white](int p, int x, int y) -> double {
          const double v = before->GetPixelGrayRaw(x, y, 0), g = gains[2 * (y % 2) + x % 2],
                       range = white - black;
          if (p == 0) return v;
          const double pointX = range / (g + 1), pointY = g * pointX,
                       ratio = (range - pointY) / (range - pointX);
          const double d = v - black, bent = (v < pointX ? d * g : (d - pointX) * ratio + pointY) + black;
          double t = bayer.bKnee ? bent : v * g;
          if (bayer.bKnee && !bayer.bLevelCut && !(v > black && v < white)) t = v;
          if (bayer.bKnee && bayer.bLevelCut) t = v < black ? black : v > white ? white : t;
          if (!bayer.bKnee && bayer.bLevelCut) t = t < black ? black : t > white ? white : t;
          if (!bayer.bCurvePower || !(t > black && t < white && t >= 0)) return t;
          const double curved = std::pow(std::pow(white, 1.4) - std::pow(white - t, 1.4), 1 / 1.4);
          // Near black single precision, of numbers near white's power, is coarse.
          const double got = frame->GetPixelGrayRaw(x, y, 1);
          return std::abs(got - curved) < 1e-5 * white ? got : curved;
        };
        ASSERT_EQ(Difference(*frame, expected, 1e-5), "")
            << store.name << " form " << form << " from " << black;
      }
    }
  });
}

TEST(CImgBayerToRgb, AKneeOfGainOneIsNone) {
  for (const auto& store : Stores()) {
    const auto plain = Mosaic(store.make(), 30, 30, Random(0, 1000)),
               bent = Mosaic(store.make(), 30, 30, Random(0, 1000));
    tagBayerStruct bayer = Floats(3);
    double ones[4] = {1, 1, 1, 1};
    for (const auto& image : {plain, bent}) {
      image->SetLevel(0, 0, 1000);
      ASSERT_EQ(image->Do(bayer, 0), 1);
      bayer.bToneCurve = bayer.bKnee = 1;
      bayer.pGain = ones;
    }
    EXPECT_EQ(Difference(*bent, *plain, 1e-6), "") << store.name;
  }
}

TEST(CImgBayerToRgb, GammaBendsWhatIsAboveBlack) {
  OnEveryPath([](const StoreCase& store) {
    for (const double gamma : {1.0, 2.2, 0.45}) {
      const auto sky = [](int p, int x, int y) {
        return x == 20 && y == 21 ? INFINITY : Random(-300, 1500)(p, x, y);
      };
      const auto plain = Mosaic(store.make(), 37, 40, sky), bent = Mosaic(store.make(), 37, 40, sky);
      tagBayerStruct bayer = Floats(2);
      ASSERT_EQ(plain->Do(bayer, 0), 1);
      bayer.bGamma = 1, bayer.dGamma = gamma;
      ASSERT_EQ(bent->Do(bayer, 0), 1);
      const auto expected = [&](int p, int x, int y) -> double {
        const double v = plain->GetPixelGrayRaw(x, y, p);
        return v > 130 ? std::pow((v - 130) / 940, 1 / gamma) * 940 + 130 : v;
      };
      ASSERT_EQ(Difference(*bent, expected, 3e-6), "") << store.name << " gamma " << gamma;
    }
    const auto image = Mosaic(store.make(), 20, 20, Random(0, 1000));
    image->SetLevel(0, 5, 5);
    tagBayerStruct bayer = Floats(2);
    bayer.bGamma = 1, bayer.dGamma = 2;
    ASSERT_EQ(image->Do(bayer, 0), 1);
    EXPECT_NEAR(image->GetPixelGrayRaw(9, 9, 1), Reference(Random(0, 1000), 20, 20, 2).Colour('G', 9, 9),
                1e-3);
  });
}

TEST(CImgBayerToRgb, GainsBringColoursToGreen) {
  const double medians[4] = {500, 800, 900, 400};
  const PixelRule cells = [&](int, int x, int y) { return medians[(y & 1) * 2 + (x & 1)]; };
  for (const auto& store : Stores()) {
    const auto image = Mosaic(store.make(), 41, 30, cells);
    const std::vector<float> before = Pixels(*image);
    double gains[4];
    for (const int cfa : {1, 3}) {
      ASSERT_EQ(image->GetGain(cfa, gains), 1);
      EXPECT_EQ(std::vector(gains, gains + 4), (std::vector{1.7, 1.0, 1.0, 2.125}));
    }
    for (const int cfa : {2, 4}) {
      ASSERT_EQ(image->GetGain(cfa, gains), 1);
      EXPECT_EQ(std::vector(gains, gains + 4), (std::vector{1.0, 450.0 / 800, 0.5, 1.0}));
    }
    EXPECT_EQ(image->GetGain(0, gains), 0);
    EXPECT_EQ(image->GetGain(5, gains), 0);
    EXPECT_EQ(Pixels(*image), before);
    const auto black = Mosaic(store.make(), 41, 30, [](int, int, int) { return 0.5; });
    ASSERT_EQ(black->GetGain(1, gains), 1);
    EXPECT_EQ(std::vector(gains, gains + 4), std::vector(4, 1.0));
  }
}

TEST(CImgBayerToRgb, HalfTheSizeFromCells) {
  OnEveryPath([](const StoreCase& store) {
    for (int cfa = 1; cfa <= 4; ++cfa) {
      for (int green = 0; green <= 4; ++green) {
        const auto image = Mosaic(store.make(), 23, 15, Random(0, 1000));
        tagBayerStruct bayer;
        bayer.nCFA = cfa, bayer.bRoundUp = 1, bayer.nRoundUpGreen = green;
        ASSERT_EQ(image->Do(bayer, 0), 1);
        ASSERT_EQ(image->GetWidth(), 11);
        ASSERT_EQ(image->GetHeight(), 7);
        EXPECT_FALSE(image->IsBayerImage());
        EXPECT_EQ(image->GetOrgPlanes(), 3);
        EXPECT_EQ(image->GetLevelMax(2), 1070);
        const auto expected = [&](int p, int x, int y) -> double {
          std::vector<double> found;
          for (int i = 0; i < 4; ++i) {
            if (SiteOf(cfa, i % 2, i / 2) == "RGB"[p]) {
              found.push_back(static_cast<float>(Random(0, 1000)(0, 2 * x + i % 2, 2 * y + i / 2)));
            }
          }
          if (p != 1) return found[0];
          const double both[] = {found[0], found[1], (found[0] + found[1]) / 2, std::min(found[0], found[1]),
                                 std::max(found[0], found[1])};
          return both[green];
        };
        ASSERT_EQ(Difference(*image, expected, 1e-6), "") << store.name << " " << kCells[cfa] << green;
      }
    }
  });
}

TEST(CImgBayerToRgb, ASourceIsLeftAlone) {
  const auto mosaic = [] { return Mosaic(MemoryStore(), 20, 20, Random(0, 1000)); };
  CheckSourceStays(*mosaic(), *mosaic(), Floats(1));
}

TEST(CImgBayerToRgb, RefusesWithNothingChanged) {
  const std::vector<std::pair<const char*, std::function<void(tagBayerStruct&)>>> changes = {
      {"cfa 0", [](auto& b) { b.nCFA = 0; }},
      {"cfa 5", [](auto& b) { b.nCFA = 5; }},
      {"12 bits to floats", [](auto& b) { b.nSrcBits = 12; }},
      {"floats to 16 bits", [](auto& b) { b.nDstBits = 16; }},
      {"16 bits", [](auto& b) { b.nSrcBits = 16, b.nDstBits = 16; }},
      {"a negative trim", [](auto& b) { b.nTrimBottom = -1; }},
      {"no columns", [](auto& b) { b.nTrimLeft = 12, b.nTrimRight = 8; }},
      {"no rows, beyond int", [](auto& b) { b.nTrimTop = b.nTrimBottom = 2000000000; }},
      {"no gains", [](auto& b) { b.bToneCurve = 1; }},
      {"green -1", [](auto& b) { b.bRoundUp = 1, b.nRoundUpGreen = -1; }},
      {"green 5", [](auto& b) { b.bRoundUp = 1, b.nRoundUpGreen = 5; }},
  };
  for (const auto& store : Stores()) {
    const auto image = Mosaic(store.make(), 20, 18, Random(0, 1000));
    CheckRefusals(*image, Floats(1), changes);
    for (const auto& [width, height] : {std::pair(5, 6), std::pair(6, 5)}) {
      EXPECT_EQ(Mosaic(store.make(), width, height, Random(0, 9))->Do(Floats(1), 0), 0);
    }
    tagBayerStruct half = Floats(1);
    half.bRoundUp = 1;
    EXPECT_EQ(Mosaic(store.make(), 1, 6, Random(0, 9))->Do(half, 0), 0);
  }
  CImgBayerToRgb empty;
  EXPECT_EQ(empty.Do(Floats(1), 0), 0);
}

}  // namespace
