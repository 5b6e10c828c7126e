#include "korimg/image/CImgInvert.h"

#include <gtest/gtest.h>

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

double Inverted(CVelImage& src, CVelImage& target, int p, double s) {
  const double t = (s - src.GetLevelMin(p)) / src.GetLevelRange(p);
  return (1 - t) * target.GetLevelRange(p) + target.GetLevelMin(p);
}

TEST(CImgInvert, WritesTheWindowAndNothingElse) {
  OnEveryPath([](const StoreCase& store) {
    for (const auto& [width, height] : Sizes()) {
      for (const int planes : {1, 3}) {
        const auto src = Make(store.make(), width, height, planes, Wild(0, 1000));
        for (OptionalRect rect : Windows(width, height)) {
          const auto target = Make<CImgInvert>(src->VmManager(), width, height, planes, Random(0, 1, 7));
          for (int p = 0; p < planes; ++p) {
            target->SetLevel(p, -3, 5 + p);
          }
          target->Do(src.get(), Address(rect), 0);
          const auto expected = [&, outside = Random(0, 1, 7)](int p, int x, int y) -> double {
            const bool inside =
                !rect || (x >= rect->left && x < rect->right && y >= rect->top && y < rect->bottom);
            if (!inside) return static_cast<float>(outside(p, x, y));
            return Inverted(*src, *target, p, src->GetPixelGrayRaw(x, y, p));
          };
          ASSERT_EQ(Difference(*target, expected, 1e-5), "")
              << store.name << " " << width << "x" << height << "x" << planes;
        }
      }
    }
  });
}

TEST(CImgInvert, AllFormsGiveTheSameValues) {
  const auto src = Make(MemoryStore(), 71, 133, 1, Random(-200, 3000));
  const auto pipeline = Make<CImgInvert>(src->VmManager(), 71, 133, 1, Random(0, 1));
  pipeline->Do(src.get(), nullptr, 0);
  for (const unsigned features : {0u, 2u}) {
    const WithFeatures simd(features);
    const auto loop = Make<CImgInvert>(TinyPool(), 71, 133, 1, Random(0, 1));
    loop->Do(src.get(), nullptr, 0);
    EXPECT_EQ(Difference(*loop, *pipeline), "") << features;
  }
}

TEST(CImgInvert, InPlaceAndTwiceIsTheSame) {
  for (const int width : {1, 3, 7, 65, 71}) {
    const auto image = Make<CImgInvert>(MemoryStore(), width, 9, 1, Random(0, 1000));
    image->Do(image.get(), nullptr, 0);
    image->Do(image.get(), nullptr, 0);
    EXPECT_EQ(Difference(
                  *image, [&](int p, int x, int y) { return Random(0, 1000)(p, x, y); }, 1e-3),
              "")
        << width;
  }
}

TEST(CImgInvert, LeavesFramesThatDoNotFitAlone) {
  const auto src = Make(MemoryStore(), 8, 8, 1, Random(0, 1000));
  for (const auto& [width, height, planes] :
       {std::tuple(9, 8, 1), std::tuple(8, 9, 1), std::tuple(8, 8, 3)}) {
    const auto target = Make<CImgInvert>(MemoryStore(), width, height, planes, Random(0, 1, 7));
    target->Do(src.get(), nullptr, 0);
    EXPECT_EQ(
        Difference(
            *target, [&](int p, int x, int y) { return static_cast<float>(Random(0, 1, 7)(p, x, y)); }, 0),
        "");
  }
}

}  // namespace
