#include <gtest/gtest.h>

#include "korimg/colour/CColor.h"
#include "korimg/colour/CImgLabColorEnhance.h"

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

using Planes = std::array<double, 3>;

/// L, a and b of a pixel by its image's levels. The scale of 0 to 255 is in single precision.
Planes LabOf(CVelImage& image, int x, int y, float limit) {
  const bool colour = image.GetPlanes() >= 3;
  double share[3];
  for (int p = 0; p < 3; ++p) {
    const int plane = colour ? p : 0;
    const float raw = image.GetPixelGrayRaw(x, y, plane);
    const double min = image.GetLevelMin(plane), range = image.GetLevelRange(plane);
    const float v = colour ? (raw - static_cast<float>(min)) * static_cast<float>(255 / range)
                           : static_cast<float>((raw - min) / range * 255);
    if (std::isnan(v)) return {NAN, NAN, NAN};
    share[p] = std::min(std::max(v, 0.0f), limit) / 255.0;
  }
  CColor color;
  color.RgbToLab(share[0], share[1], share[2]);
  return {color.GetL(), color.Geta(), color.Getb()};
}

/// From far below black to 5000 / 255 times white, most of them near black or white, and what lies beyond.
double Colours(int p, int x, int y) {
  const double wild = Wild(-1, 1, 3)(p, x, y);
  if (!std::isfinite(wild)) return wild;
  return 110 + 790 * std::pow(25 * std::abs(wild), 1 + (x + y) % 3) / 20 * (wild < -0.9 ? -1 : 1);
}

struct PlaneCase {
  const char* name;
  CVelImage* (*make)(CVelImage&);
  std::vector<int> planes;  ///< of L, a and b
  float limit;
};

const PlaneCase kPlaneCases[] = {
    {"Lab", [](CVelImage& i) { return i.MakeLabPlane(); }, {0, 1, 2}, 5000},
    {"L", [](CVelImage& i) { return i.MakeLPlane(); }, {0}, 5000},
    {"ab", [](CVelImage& i) { return i.MakeAbPlane(0); }, {1, 2}, 5000},
    {"ab, clipped", [](CVelImage& i) { return i.MakeAbPlane(1); }, {1, 2}, 255},
};

TEST(LabPlanes, AreThoseOfCColor) {
  OnEveryPath([](const StoreCase& store) {
    for (const auto& [width, height] : Sizes()) {
      for (const int count : {1, 2, 3}) {
        const auto src = Make(store.make(), width, height, count, Colours);
        src->SetStdPt(1, CfPoint(3, 4));
        for (const PlaneCase& c : kPlaneCases) {
          const std::unique_ptr<CVelImage> made(c.make(*src));
          ASSERT_TRUE(made);
          ASSERT_EQ(made->GetPlanes(), static_cast<int>(c.planes.size()));
          EXPECT_EQ(made->GetStdPt(1).y, 4);
          EXPECT_EQ(made->GetAllocationPolicy(), src->GetAllocationPolicy());
          const float limit = count < 3 ? 5000 : c.limit;
          const auto want = [&](int p, int x, int y) { return LabOf(*src, x, y, limit)[c.planes[p]]; };
          ASSERT_EQ(Difference(*made, want, 1e-7), "")
              << c.name << " " << store.name << " " << width << " of " << count;
        }
      }
    }
  });
}

TEST(LabPlanes, BlackWhiteAndGreyOfTheLevels) {
  const double shares[] = {0, -1, 1, 0.5};
  const auto src = Make(MemoryStore(), 4, 1, 3, [&](int p, int x, int) {
    return 100 + 10 * p + shares[x] * (800 + 15 * p);  // the levels that Make gives
  });
  const std::unique_ptr<CVelImage> lab(src->MakeLabPlane());
  const double lightness[] = {0, 0, 100, 116 * std::cbrt(std::pow(0.5, 2.2)) - 16};
  EXPECT_EQ(Difference(
                *lab, [&](int p, int x, int) { return p == 0 ? lightness[x] : 0; }, 1e-5),
            "");
}

TEST(LabPlanes, DarkColoursAboutTheFloorThereAndBack) {
  // The mean is raised to a power from 1e-7 of white on, and back from 1e-7 of its power on.
  constexpr double kMeans[] = {1e-9, 0.9e-7, 1.1e-7, 1e-5, 6e-4, 7e-4, 1e-3};
  const auto src =
      Make(MemoryStore(), 7, 3, 3, [&](int p, int x, int y) { return kMeans[x] * (1 + 0.2 * p - 0.1 * y); });
  const auto back = Make<CImgLabColorEnhance>(MemoryStore(), 7, 3, 3, Random(0, 1));
  for (int p = 0; p < 3; ++p) {
    src->SetLevel(p, 0, 1);
    back->SetLevel(p, 0, 1);
  }
  const std::unique_ptr<CVelImage> lab(src->MakeLabPlane());
  EXPECT_EQ(Difference(
                *lab, [&](int p, int x, int y) { return LabOf(*src, x, y, 5000)[p]; }, 1e-9),
            "");
  back->Do(lab.get(), 1, 1, nullptr, 0);
  const auto want = [&](int p, int x, int y) {
    CColor color;
    color.LabToRgb(lab->GetPixelGrayRaw(x, y, 0), lab->GetPixelGrayRaw(x, y, 1),
                   lab->GetPixelGrayRaw(x, y, 2));
    return std::array{color.GetR(), color.GetG(), color.GetB()}[p];
  };
  EXPECT_EQ(Difference(*back, want, 1e-10), "");
}

TEST(LabPlanes, SameBitsInVectorsOfAllLengths) {
  const auto src = Make(MemoryStore(), 603, 7, 3, Colours);  // chunks, vectors and what is left of them
  const auto run = [&] {
    const std::unique_ptr<CVelImage> lab(src->MakeLabPlane());
    const auto back = Make<CImgLabColorEnhance>(MemoryStore(), 603, 7, 3, Random(0, 1));
    back->Do(lab.get(), 1.5, 0.5, nullptr, 0);
    auto bits = Pixels(*lab);
    const auto more = Pixels(*back);
    bits.insert(bits.end(), more.begin(), more.end());
    for (float& v : bits) {
      v = std::isnan(v) ? -1e9f : v;
    }
    return bits;
  };
  const auto longest = run();
  for (const unsigned features : {0u, 2u}) {
    const WithFeatures simd(features);
    EXPECT_EQ(run(), longest);
  }
  const WithThreads team(1);
  EXPECT_EQ(run(), longest);
}

TEST(LabPlanes, NoneWithoutPixels) {
  CVelImage none;
  for (const PlaneCase& c : kPlaneCases) {
    EXPECT_EQ(c.make(none), nullptr) << c.name;
  }
}

/// Lab with noise beyond all colours, the edges of the curve's line, and what is no number.
double AnyLab(int p, int x, int y) {
  const double wild = Wild(-1, 1, 5)(p, x, y);
  if (!std::isfinite(wild)) return NAN;
  if (p > 0) return 250 * wild * wild * wild;
  constexpr double kEdges[] = {0, 7.999536, 7.9995365, 7.99958, 7.99961, 100, 500, 1e-6};
  return x % 3 == 0 ? kEdges[(x / 3 + y) % 8] : 120 * wild;
}

TEST(CImgLabColorEnhance, MultipliesTheAxesOfColour) {
  OnEveryPath([](const StoreCase& store) {
    for (const auto& [width, height] : Sizes()) {
      for (OptionalRect rect : Windows(width, height)) {
        const auto lab = Make(store.make(), width, height, 3, AnyLab);
        const auto target = Make<CImgLabColorEnhance>(lab->VmManager(), width, height, 3, Random(0, 1, 7));
        target->Do(lab.get(), 1.5, 0.25, 0.75, 2, Address(rect), 0);
        const auto want = [&](int p, int x, int y) -> double {
          if (!IsInside(rect, x, y)) return static_cast<float>(Random(0, 1, 7)(p, x, y));
          const double l = lab->GetPixelGrayRaw(x, y, 0), a = lab->GetPixelGrayRaw(x, y, 1),
                       b = lab->GetPixelGrayRaw(x, y, 2);
          if (std::isnan(l + a + b)) return NAN;
          CColor color;
          color.LabToRgb(l, a >= 0 ? 1.5 * a : 0.25 * a, b >= 0 ? 0.75 * b : 2 * b);
          const double rgb[] = {color.GetR(), color.GetG(), color.GetB()};
          return rgb[p] * target->GetLevelRange(p) + target->GetLevelMin(p);
        };
        ASSERT_EQ(Difference(*target, want, 1e-7), "") << store.name << " " << width << "x" << height;
      }
    }
  });
}

TEST(CImgLabColorEnhance, OfFactorsOneBringsBackTheImage) {
  // Means below 6.6e-4 of white come back otherwise: the model's floor is in the way.
  const auto src = Make(MemoryStore(), 400, 90, 3, [](int p, int x, int y) {
    return 100 + 10 * p + (800 + 15 * p) * (0.001 + 1.2 * Random(0, 1)(p, x, y));
  });
  const std::unique_ptr<CVelImage> lab(src->MakeLabPlane());
  const auto back = Make<CImgLabColorEnhance>(src->VmManager(), 400, 90, 3, Random(0, 1));
  for (int p = 0; p < 3; ++p) {
    back->SetLevel(p, src->GetLevelMin(p), src->GetLevelMax(p));
  }
  back->Do(lab.get(), 1, 1, nullptr, 0);
  EXPECT_EQ(Difference(*back, *src, 2e-6), "");
  // Without colour all planes are one grey of their levels, whatever they were.
  back->Do(lab.get(), 0, 0, nullptr, 0);
  EXPECT_NEAR(back->To256(back->GetPixelGrayRaw(7, 7, 0), 0), back->To256(back->GetPixelGrayRaw(7, 7, 2), 2),
              1e-3);
}

TEST(CImgLabColorEnhance, LeavesAloneWhatDoesNotFit) {
  for (const auto& [width, planes] : {std::pair(9, 3), {8, 2}, {8, 1}}) {
    const auto lab = Make(MemoryStore(), width, 5, planes, Random(0, 50));
    for (const int own : {1, 3}) {
      const auto target = Make<CImgLabColorEnhance>(MemoryStore(), 8, 5, own, Random(0, 1));
      const auto before = Pixels(*target);
      target->Do(lab.get(), 2, 2, nullptr, 0);
      EXPECT_EQ(Pixels(*target), before);
    }
  }
}

}  // namespace
