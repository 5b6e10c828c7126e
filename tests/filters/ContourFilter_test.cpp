// Lines of equal brightness.
#include <gtest/gtest.h>

#include "korimg/filters/CImgFilterMisc.h"

#include "tests/filters/Reference.h"

using namespace korimg::test;

namespace {

double Brightness(CVelImage& src, int planes, int x, int y) {
  double sum = 0;
  for (int p = 0; p < planes; ++p) {
    sum += (planes == 3 ? std::array{0.299, 0.587, 0.114}[p] : 1) *
           (src.GetPixelGrayRaw(x, y, p) - TargetMin(p)) / TargetRange(p) * 255;
  }
  return sum;
}

/// Bilinear. Before the first pixel it goes on as behind it; beyond the last one lies the last one.
double At(CVelImage& src, int planes, double x, double y) {
  const auto axis = [](double v, int n) {
    const double position = std::min(v, n - 1.0);
    const int index = std::max(static_cast<int>(std::floor(position)), 0);
    return std::tuple(index, std::min(index + 1, n - 1), position - index);
  };
  const auto [x0, x1, fx] = axis(x, src.GetWidth());
  const auto [y0, y1, fy] = axis(y, src.GetHeight());
  const auto pixel = [&](int i, int j) { return Brightness(src, planes, i, j); };
  return (1 - fy) * ((1 - fx) * pixel(x0, y0) + fx * pixel(x1, y0)) +
         fy * ((1 - fx) * pixel(x0, y1) + fx * pixel(x1, y1));
}

double Contour(CVelImage& src, int planes, int levels, bool wrap, int p, int x, int y) {
  const auto tone = [&](int i, int k) {
    const double v = At(src, planes, x - 0.666666 + 0.333333 * k, y - 0.666666 + 0.333333 * i) * levels / 255;
    return static_cast<int>(wrap ? v : std::clamp(v, 0.0, static_cast<double>(levels)));
  };
  int edges = 0;
  for (int i = 0; i < 3; ++i) {
    for (int k = 0; k < 3; ++k) {
      edges += tone(i, k) != tone(i, k + 1);
      edges += tone(i, k + 1) != tone(i + 1, k + 1);
      edges += tone(i + 1, k + 1) != tone(i + 1, k);
      edges += tone(i + 1, k) != tone(i, k);
    }
  }
  return edges * 255 * 0.11111111 * TargetRange(p) / 255 + TargetMin(p);
}

TEST(ContourFilter, CountsUnequalEdgesOfAGridOfSamples) {
  OnEveryStore([](const StoreCase& store) {
    for (const auto& [width, height] : {std::pair(1, 1), {3, 2}, {65, 1}, {1, 71}, {530, 9}}) {
      for (const int planes : {1, 3}) {
        // Hills, which leave the levels at both ends.
        const PixelRule hills = [&](int p, int x, int y) {
          return 600 + 700 * std::sin(0.21 * x + 0.3 * p) * std::cos(0.17 * y) + 10 * Random(-1, 1)(p, x, y);
        };
        const auto src = Make(store.make(), width, height, planes, hills);
        const auto same = Make(MemoryStore(), width, height, planes, hills);
        for (const auto& [levels, wrap] : {std::pair(1, 0), {5, 0}, {12, 1}}) {
          OptionalRect rect;
          if (width == 530 && wrap) rect = CRect(2, 1, 520, 8);
          const auto target = Make<CImgFilterMisc>(src->VmManager(), width, height, planes, Random(0, 1, 7));
          target->ContourFilter(levels, wrap, src.get(), Address(rect), 0);
          const auto want = [&, levels = levels, wrap = wrap](int p, int x, int y) -> double {
            return IsInside(rect, x, y) ? Contour(*same, planes, std::max(levels, 2), wrap, p, x, y)
                                        : static_cast<float>(Random(0, 1, 7)(p, x, y));
          };
          ASSERT_EQ(Difference(*target, want, 1e-6), "") << store.name << width << "x" << height << levels;
        }
      }
    }
  });
}

TEST(ContourFilter, FlatImagesAreBlackAndAStepHasALine) {
  for (const StoreCase& store : Stores()) {
    for (const double value : {0.0, 51.0, 127.5, 255.0, 33.3}) {
      const auto src = Make(store.make(), 9, 5, 3, [&](int, int, int) { return value; });
      const auto target = Make<CImgFilterMisc>(src->VmManager(), 9, 5, 3, Random(0, 1, 7));
      for (int p = 0; p < 3; ++p) {
        target->SetLevel(p, 0, 255);
      }
      target->ContourFilter(10, 0, src.get(), nullptr, 0);
      EXPECT_EQ(Difference(
                    *target, [](int, int, int) { return 0; }, 0),
                "")
          << value;
    }
    // Black up to column 3, white from column 4 on, NaN in a corner: of each of the 4 rows of samples, two
    // neighbours differ in column 4, and the inner rows count twice.
    const auto src = Make(store.make(), 9, 5, 1, [](int, int x, int y) {
      return x == 8 && y == 4 ? NAN : x < 4 ? 0 : 255;
    });
    const auto target = Make<CImgFilterMisc>(src->VmManager(), 9, 5, 1, Random(0, 1, 7));
    target->SetLevel(0, 0, 255);
    target->ContourFilter(2, 0, src.get(), nullptr, 0);
    const auto want = [](int, int x, int) { return x == 4 ? 12 * 255 * 0.11111111 : 0.0; };
    for (int x = 0; x < 7; ++x) {
      EXPECT_NEAR(target->GetPixelGrayRaw(x, 3, 0), want(0, x, 3), 1e-4) << x;
    }
    EXPECT_TRUE(std::isnan(target->GetPixelGrayRaw(8, 4, 0)));
    EXPECT_FALSE(std::isnan(target->GetPixelGrayRaw(7, 4, 0)));
  }
}

}  // namespace
