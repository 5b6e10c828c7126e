#include "korimg/filters/CImgFilterSharp.h"

#include <gtest/gtest.h>

#include "tests/filters/Reference.h"

using namespace korimg::test;

namespace {

/// What comes back of a darkening, by plane: half of it, nothing, all of it.
struct TestLimit {
  int brighter[3] = {1, 0, 1};
  double percent[3] = {50, 50, 130};

  double operator()(int p, double s, double f) const {
    const double share = brighter[p] ? std::min(percent[p] / 100, 1.0) : 0;
    return s > f ? f + (s - f) * share : f;
  }
};

/// Values of about a thousand are subtracted from one another, and what is left may be near 0.
constexpr double kRounding = 3e-4;

double PixelOf(CVelImage& src, int p, int x, int y) {
  return src.GetPixelGrayRaw(x, y, p);
}

/// A weight at each neighbour whose squared distance is at most `extent`, and a centre of their number.
double Star(CVelImage& src, int r, double extent, double weight, double centre, int p, int x, int y) {
  double sum = 0;
  int cells = 0;
  Around(src, p, x, y, r, Folded, Nearest, [&](int dx, int dy, double pixel) {
    const int squared = dx * dx + dy * dy;
    if (squared == 0 || squared > extent) return;
    sum += weight * pixel;
    ++cells;
  });
  return sum + (centre - cells * weight) * PixelOf(src, p, x, y);
}

double r[] = {1.0, 2.9, 0.4}, strength[] = {0.4, 0.7, -0.3};

double Sharp(CVelImage& src, int p, int x, int y) {
  const int whole = std::max<int>(r[p], 1);
  return Star(src, whole, whole, -strength[p], 1, p, x, y);
}

double SharpEdge(CVelImage& src, int p, int x, int y) {
  static const auto levels = Make<CImgFilterSharp>(MemoryStore(), 1, 1, 3, Random(0, 1));  // of all targets
  const int whole = std::max<int>(r[p], 1);
  const double edge = Star(src, whole, r[p], -1, 0, p, x, y) / levels->GetLevelRange(p);
  const double w = std::pow(std::clamp(edge, 0.0, 1.0), 2);
  return (1 - w) * PixelOf(src, p, x, y) + w * Star(src, whole, r[p], -strength[p], 1, p, x, y);
}

/// Checks the form without a band, and the one with: pixels, limited where darkened, inside the band.
template <class Plain, class Banded>
void CheckForms(Plain&& plain, Banded&& banded, double (*value)(CVelImage&, int, int, int)) {
  CheckFilter<CImgFilterSharp>([&](CImgFilterSharp& t, CVelImage& src, CRect* rect) { plain(t, &src, rect); },
                               [&](CVelImage& src, bool, int p, int x, int y) { return value(src, p, x, y); },
                               kRounding);
  CheckFilter<CImgFilterSharp>(
      [&](CImgFilterSharp& t, CVelImage& src, CRect* rect) {
        TestBand b;
        TestLimit limit;
        banded(t, b.useDark, b.dark, b.darkRange, b.useHighlight, b.highlight, b.highlightRange,
               limit.brighter, limit.percent, &src, rect, 0);
      },
      [&](CVelImage& src, bool, int p, int x, int y) {
        const double s = PixelOf(src, p, x, y);
        return TestBand()(src, p, s, TestLimit()(p, s, value(src, p, x, y)));
      },
      kRounding);
}

TEST(CImgFilterSharp, Kernel) {
  CheckForms([](auto& t, CVelImage* src, CRect* rect) { t.SharpFilter(r, strength, src, rect, 0); },
             [](auto& t, auto... rest) { t.SharpFilter(r, strength, rest...); }, Sharp);
}

TEST(CImgFilterSharp, KernelAtEdges) {
  CheckForms([](auto& t, CVelImage* src, CRect* rect) { t.SharpEdgeFilter(r, strength, src, rect, 0); },
             [](auto& t, auto... rest) { t.SharpEdgeFilter(r, strength, rest...); }, SharpEdge);
}

double sigma[] = {1.3, 0.0, 5.0}, threshold[] = {0.5, 0, 1.7};

double Gaussian(CVelImage& src, double s, int p, int x, int y) {
  return Separable(src, GaussianRow(s), p, x, y, BottomRepeated, Nearest);
}

TEST(CImgFilterSharp, UnsharpMaskOfWhatDiffersFromTheGaussian) {
  CheckFilter<CImgFilterSharp>([](CImgFilterSharp& t, CVelImage& src,
                                  CRect* rect) { t.UnSharpMask(sigma, strength, threshold, &src, rect, 0); },
                               [](CVelImage& src, bool, int p, int x, int y) {
                                 const double s = PixelOf(src, p, x, y), g = Gaussian(src, sigma[p], p, x, y);
                                 return std::abs(g / s - 1) >= threshold[p] ? s + (s - g) * strength[p] : s;
                               },
                               kRounding);
}

TEST(CImgFilterSharp, ShouldersOfABandScaleTheStrengthOfAnUnsharpMask) {
  // On plane 0 the shoulders cross: dark from 150 fades to 50, highlight from 100 to 180.
  double dark[] = {150, 60, 60}, darkRange[] = {100, 20, 20}, highlight[] = {100, 140, 140},
         highlightRange[] = {80, 40, 0};
  int use[] = {1, 1, 0};
  CheckFilter<CImgFilterSharp>(
      [&](CImgFilterSharp& t, CVelImage& src, CRect* rect) {
        TestLimit limit;
        t.UnSharpMask(sigma, strength, use, dark, darkRange, use, highlight, highlightRange, limit.brighter,
                      limit.percent, &src, rect, 0);
      },
      [&](CVelImage& src, bool, int p, int x, int y) {
        const double s = PixelOf(src, p, x, y), g = Gaussian(src, sigma[p], p, x, y);
        const double level = (s - src.GetLevelMin(p)) / src.GetLevelRange(p) * 255;
        double k = strength[p];
        if (use[p]) {
          const double below = (level - dark[p] + darkRange[p]) / darkRange[p];
          const double above = (highlight[p] + highlightRange[p] - level) / highlightRange[p];
          if (below < 0 || above < 0) return s;
          k *= std::min(below, 1.0) * std::min(above, 1.0);
        }
        return TestLimit()(p, s, s + (s - g) * k);
      },
      kRounding);
}

/// Six sigmas and weights for each plane; the second band counts nowhere, some others on some planes.
constexpr int kBands = 6;
const double kSigmas[kBands][3] = {{0.6, 0, 1}, {9, 9, 9}, {2, 1, 3.3},
                                   {4, 2, 1},   {7, 7, 7}, {2.5, 3.6, 1.2}};
const double kWeights[kBands][3] = {{1, 2, 0.5}, {0, -3, 0}, {0.5, 1, 3}, {-1, 0.3, 1}, {0, 2, 0}, {6, 1, 2}};

TEST(CImgFilterSharp, SixUnsharpMasksAtOnce) {
  CheckFilter<CImgFilterSharp>(
      [](CImgFilterSharp& t, CVelImage& src, CRect* rect) {
        double s[kBands][3], w[kBands][3];
        std::copy_n(&kSigmas[0][0], kBands * 3, &s[0][0]);
        std::copy_n(&kWeights[0][0], kBands * 3, &w[0][0]);
        TestBand b;
        TestLimit limit;
        t.SubBandUnSharpMask(s[0], w[0], s[1], w[1], s[2], w[2], s[3], w[3], s[4], w[4], s[5], w[5],
                             b.useDark, b.dark, b.darkRange, b.useHighlight, b.highlight, b.highlightRange,
                             limit.brighter, limit.percent, &src, rect, 0);
      },
      [](CVelImage& src, bool paged, int p, int x, int y) {
        const double s = PixelOf(src, p, x, y);
        double sum = 0;
        for (int n = 0; n < kBands; ++n) {
          sum += s;
          if (kWeights[n][p] <= 0) continue;
          const double g = Separable(src, GaussianRow(kSigmas[n][p]), p, x, y,
                                     paged ? BottomRepeated : Interior, paged ? Nearest : Interior);
          sum += kWeights[n][p] * (s - g);
        }
        return TestBand()(src, p, s, TestLimit()(p, s, sum / kBands));
      },
      kRounding);
}

TEST(CImgFilterSharp, OneBandOfSixIsAnUnsharpMaskAndNoneTheImage) {
  for (const StoreCase& store : Stores()) {
    const auto src = Make(store.make(), 71, 90, 1, Random(-100, 1200));
    const auto six = Make<CImgFilterSharp>(src->VmManager(), 71, 90, 1, Random(0, 1)),
               one = Make<CImgFilterSharp>(src->VmManager(), 71, 90, 1, Random(0, 1));
    six->SubBandUnSharpMask(2, 6, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, src.get(), nullptr,
                            0);
    one->UnSharpMask(2, 1, 0, src.get(), nullptr, 0);
    const auto inside = [&](int p, int x, int y) {  // edges differ between the stores
      const bool near = x < 7 || y < 7 || x > 63 || y > 82;
      return near ? six->GetPixelGrayRaw(x, y, p) : one->GetPixelGrayRaw(x, y, p);
    };
    EXPECT_EQ(Difference(*six, inside, kRounding), "") << store.name;
    six->ClearFilterProc();
    six->SubBandUnSharpMask(2, 0, 1, 0, 1, -1, 1, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, src.get(), nullptr,
                            0);
    EXPECT_EQ(Difference(*six, *src, 1e-6), "") << store.name;
  }
}

TEST(CImgFilterSharp, SixGaussiansReadMoreRowsThanAPoolHolds) {
  const auto sharpen = [](const std::shared_ptr<CVmManager>& store, int threads) {
    const WithThreads team(threads);
    const auto src = Make(store, 700, 90, 1, Random(-100, 1200));
    const auto target = Make<CImgFilterSharp>(src->VmManager(), 700, 90, 1, Random(0, 1));
    target->SubBandUnSharpMask(3, 1, 2, 1, 1, 0, 4, 2, 1, 1, 5, 1, 0, 0, 0, 0, 0, 0, 0, 0, src.get(), nullptr,
                               0);
    return target;
  };
  const auto contiguous = sharpen(MemoryStore(), 8), paged = sharpen(TinyPool(), 8);
  const auto inside = [&](int p, int x, int y) {  // edges differ between the stores
    const bool near = x < 15 || y < 15 || x >= 685 || y >= 75;
    return near ? paged->GetPixelGrayRaw(x, y, p) : contiguous->GetPixelGrayRaw(x, y, p);
  };
  EXPECT_EQ(Difference(*paged, inside, kRounding), "");
  EXPECT_EQ(Difference(*sharpen(TinyPool(), 1), *paged, 0), "");
}

TEST(CImgFilterSharp, AFlatImageAndASingleNan) {
  const PixelRule flat = [](int, int x, int y) { return x == 20 && y == 9 ? NAN : 512.25; };
  for (const StoreCase& store : Stores()) {
    const auto src = Make(store.make(), 40, 30, 1, flat);
    const std::pair<int, std::function<void(CImgFilterSharp&)>> cases[] = {
        {2, [&](CImgFilterSharp& t) { t.SharpFilter(2, 1, src.get(), nullptr, 0); }},
        {2, [&](CImgFilterSharp& t) { t.SharpEdgeFilter(2, 1, src.get(), nullptr, 0); }},
        {3, [&](CImgFilterSharp& t) { t.UnSharpMask(1, 1, 0, src.get(), nullptr, 0); }},
        {0, [&](CImgFilterSharp& t) { t.UnSharpMask(0, 1, 0, src.get(), nullptr, 0); }},
        {0,
         [&](CImgFilterSharp& t) {
           t.SubBandUnSharpMask(0, 6, 2, 0, 7, 0, 7, 0, 7, 0, 7, 0, 0, 0, 0, 0, 0, 0, 0, 0, src.get(),
                                nullptr, 0);
         }},
        {3,
         [&](CImgFilterSharp& t) {
           t.UnSharpMask(1, 1, 1, 100, 10, 1, 120, 10, 1, 50, src.get(), nullptr, 0);
         }},
        {6, [&](CImgFilterSharp& t) {
           t.SubBandUnSharpMask(1, 1, 2, 1, 7, 0, 7, 0, 7, 0, 7, 0, 0, 0, 0, 0, 0, 0, 0, 0, src.get(),
                                nullptr, 0);
         }}};
    for (const auto& [reach, run] : cases) {
      const auto target = Make<CImgFilterSharp>(src->VmManager(), 40, 30, 1, Random(0, 1));
      run(*target);
      EXPECT_TRUE(std::isnan(target->GetPixelGrayRaw(20, 9, 0)));
      const auto want = [&, reach = reach](int p, int x, int y) -> double {
        const bool near = std::abs(x - 20) <= reach && std::abs(y - 9) <= reach;
        return near ? target->GetPixelGrayRaw(x, y, p) : flat(p, x, y);
      };
      EXPECT_EQ(Difference(*target, want, 1e-6), "") << store.name << " reach " << reach;
    }
  }
}

}  // namespace
