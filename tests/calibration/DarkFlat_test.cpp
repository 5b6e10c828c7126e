#include <gtest/gtest.h>

#include "korimg/calibration/CImgDark.h"

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

/// Gives access to the gamma curve of flats.
struct Curve : CVelImage {
  using CVelImage::FlatGamma;
};

/// The statistics of a flat that DarkFlat takes, from its pixels.
struct FlatStatistics {
  float minima[3], maxima[3], averages[3];
  explicit FlatStatistics(CVelImage& flat) {
    for (int p = 0; p < flat.GetPlanes(); ++p) {
      const auto [min, max, average] = flat.GetMinMaxAvr(p);
      minima[p] = static_cast<float>(min), maxima[p] = static_cast<float>(max);
      averages[p] = static_cast<float>(average);
    }
  }
};

/// One flat division in double.
double Divided(double pixel, double flat, double average, double offset) {
  const double divisor = flat + average * offset;
  return divisor > 0 ? average * pixel / divisor : pixel;
}

double Gamma(double v, double min, double max, double gamma) {
  const double origin = max - 2 * (max - min);
  return std::pow((v - origin) / (max - origin), gamma) * (max - origin) + origin;
}

const PixelRule kFlat = Random(8000, 12000, 3);

TEST(FlatGamma, KeepsTheMaximumAndTheOrigin) {
  EXPECT_FLOAT_EQ(Curve::FlatGamma(12000, 12000, 4000, 0.7), 12000);
  EXPECT_FLOAT_EQ(Curve::FlatGamma(4000, 12000, 4000, 0.7), 4000);
  EXPECT_FLOAT_EQ(Curve::FlatGamma(8000, 12000, 4000, 2), 6000);  // half of the scale, squared
}

TEST(DarkClbrtn, SubtractsAndLimitsAtZero) {
  OnEveryPath([](const StoreCase& store) {
    for (const auto& [width, height] : Sizes()) {
      for (const int planes : {1, 3}) {
        const auto image = Make(store.make(), width, height, 3, Wild(0, 1000));
        const auto before = Make(MemoryStore(), width, height, 3, Wild(0, 1000));
        const auto dark = Make(image->VmManager(), width, height, planes, Wild(0, 900, 2));
        image->DarkClbrtn(dark.get(), 0);
        const auto expected = [&](int p, int x, int y) -> double {
          const double d =
              before->GetPixelGrayRaw(x, y, p) - dark->GetPixelGrayRaw(x, y, planes == 3 ? p : 0);
          return d < 0 ? 0 : d;
        };
        ASSERT_EQ(Difference(*image, expected, 1e-6), "") << store.name << " " << width << "x" << height;
      }
    }
  });
}

TEST(FlatClbrtn, GammaFormDividesByTheCurvedFlat) {
  const WithThreads team(4);
  for (const StoreCase& store : Stores()) {
    for (const int planes : {1, 3}) {
      for (const double gamma : {0.5, 1.0, 1.7}) {
        const auto image = Make(store.make(), 71, 133, 3, Random(0, 1000));
        const auto flat = Make(image->VmManager(), 71, 133, planes, kFlat);
        const FlatStatistics s(*flat);
        image->FlatClbrtn(flat.get(), 0.25f, gamma, 0);
        const auto expected = [&](int p, int x, int y) {
          const int q = planes == 3 ? p : 0;
          const auto curved = [&](double v) { return Gamma(v, s.minima[q], s.maxima[q], gamma); };
          return Divided(Random(0, 1000)(p, x, y), curved(flat->GetPixelGrayRaw(x, y, q)),
                         curved(s.averages[q]), 0.25);
        };
        ASSERT_EQ(Difference(*image, expected, 2e-4), "") << store.name << " gamma " << gamma;
      }
    }
  }
}

TEST(FlatClbrtn, WithoutAGammaOrAFlatChangesNothing) {
  const auto image = Make(MemoryStore(), 8, 8, 1, Random(0, 1000));
  const auto before = Make(MemoryStore(), 8, 8, 1, Random(0, 1000));
  const auto flat = Make(image->VmManager(), 8, 8, 1, kFlat);
  image->FlatClbrtn(nullptr, 0.0f, 1.0, 0);
  image->FlatClbrtn(flat.get(), 0.0f, 0.0, 0);
  image->FlatClbrtn(flat.get(), 0.0f, std::nan(""), 0);
  EXPECT_EQ(Difference(*image, *before), "");
}

TEST(FlatClbrtn, AConstantPlaneOfTheFlatEndsItsUse) {
  // Plane 1 is constant: plane 0 is divided, planes 1 and 2 are not, on both paths.
  for (const StoreCase& store : Stores()) {
    const auto image = Make(store.make(), 16, 16, 3, Random(100, 1000));
    const auto flat = Make(image->VmManager(), 16, 16, 3,
                           [](int p, int x, int y) { return p == 1 ? 5000 : kFlat(p, x, y); });
    image->FlatClbrtn(flat.get(), 0.0f, 1.0, 0);
    EXPECT_NE(image->GetPixelGrayRaw(3, 3, 0), static_cast<float>(Random(100, 1000)(0, 3, 3)));
    for (const int p : {1, 2}) {
      EXPECT_EQ(image->GetPixelGrayRaw(3, 3, p), static_cast<float>(Random(100, 1000)(p, 3, 3)))
          << store.name;
    }
  }
}

TEST(FlatClbrtn, RectangleFormKeepsItsTwoEdges) {
  const PixelRule flatRule = [](int p, int x, int y) {
    return (x + y) % 11 == 0 ? -1.0 * p : kFlat(p, x, y);
  };
  for (const StoreCase& store : Stores()) {
    for (OptionalRect rect : {OptionalRect(), OptionalRect(CRect(10, 5, 60, 100))}) {
      const auto image = Make(store.make(), 71, 133, 3, Random(0, 1000));
      const auto flat = Make(image->VmManager(), 71, 133, 3, flatRule);
      const double average = flat->GetAvrGrayRaw(0);
      const bool paged = image->GetAllocationPolicy() == 0;
      image->FlatClbrtn(flat.get(), Address(rect), 0);
      const auto expected = [&](int p, int x, int y) -> double {
        const auto s = static_cast<float>(Random(0, 1000)(p, x, y));
        const int left = !rect   ? 0
                         : paged ? 0
                                 : rect->left,
                  right = !rect   ? 71
                          : paged ? rect->Width()
                                  : rect->right;
        const bool inside = x >= left && x < right && (!rect || (y >= rect->top && y < rect->bottom));
        if (!inside) return s;
        return rect && !paged ? 0 : Divided(s, flat->GetPixelGrayRaw(x, y, p), average, 0);
      };
      ASSERT_EQ(Difference(*image, expected, 1e-6), "") << store.name;
    }
  }
}

TEST(DarkFlat, CalibratesFromASource) {
  OnEveryPath([](const StoreCase& store) {
    for (const auto& [width, height] : {std::pair(1, 9), std::pair(71, 133)}) {
      const auto source = Make(store.make(), width, height, 3, Wild(-10, 1000));
      for (const int planes : {1, 3}) {
        const auto dark = Make(source->VmManager(), width, height, planes, Wild(0, 400, 2));
        const auto flat = Make(source->VmManager(), width, height, planes, Wild(1000, 2000, 5));
        FlatStatistics s(*Make(MemoryStore(), width, height, planes, Random(1000, 2000, 5)));
        for (const double gamma : {0.0, 1.5}) {
          for (OptionalRect rect : Windows(width, height)) {
            const auto target = Make(source->VmManager(), width, height, 3, Random(-5, 5, 9));
            ASSERT_EQ(target->DarkFlat(source.get(), dark.get(), flat.get(), s.minima, s.maxima, s.averages,
                                       0.1f, gamma, Address(rect), 0),
                      1);
            const auto expected = [&](int p, int x, int y) -> double {
              const bool inside =
                  !rect || (x >= rect->left && x < rect->right && y >= rect->top && y < rect->bottom);
              if (!inside) return static_cast<float>(Random(-5, 5, 9)(p, x, y));
              const int q = planes == 3 ? p : 0;
              double v =
                  static_cast<double>(source->GetPixelGrayRaw(x, y, p)) - dark->GetPixelGrayRaw(x, y, q);
              if (v < 0) v = 0;
              const auto curved = [&](double f) {
                return gamma > 0 ? Gamma(f, s.minima[q], s.maxima[q], gamma) : f;
              };
              return Divided(v, curved(flat->GetPixelGrayRaw(x, y, q)), curved(s.averages[q]), 0.1);
            };
            ASSERT_EQ(Difference(*target, expected, 1e-4), "") << store.name << " gamma " << gamma;
          }
        }
      }
    }
  });
}

TEST(DarkFlat, AnswersForWhatItWasGiven) {
  const auto image = Make(MemoryStore(), 8, 8, 1, Random(0, 1000));
  const auto dark = Make(image->VmManager(), 8, 8, 1, [](int, int, int) { return 2000; });
  const auto constant = Make(image->VmManager(), 8, 8, 1, [](int, int, int) { return 7; });
  const auto other = Make(image->VmManager(), 9, 8, 1, kFlat);
  FlatStatistics s(*constant);
  const auto run = [&](CVelImage* source, CVelImage* k, CVelImage* f, float* minima) {
    return image->DarkFlat(source, k, f, minima, s.maxima, s.averages, 0, 0, nullptr, 0);
  };
  EXPECT_EQ(run(nullptr, dark.get(), nullptr, s.minima), 0);
  EXPECT_EQ(run(image.get(), nullptr, nullptr, s.minima), 0);
  EXPECT_EQ(run(image.get(), dark.get(), constant.get(), nullptr), 0);
  EXPECT_EQ(run(image.get(), other.get(), nullptr, nullptr), 0) << "sizes differ";
  EXPECT_EQ(Difference(*image, *Make(MemoryStore(), 8, 8, 1, Random(0, 1000))), "") << "nothing was changed";
  EXPECT_EQ(run(image.get(), nullptr, constant.get(), s.minima), -1) << "a constant flat is dropped";
  EXPECT_EQ(run(image.get(), dark.get(), constant.get(), s.minima), -1)
      << "and the dark subtracted all the same";
  EXPECT_EQ(image->GetPixelGrayRaw(4, 4, 0), 0.0f);
  CVelImage empty;
  EXPECT_EQ(empty.DarkFlat(&empty, &empty, nullptr, nullptr, nullptr, nullptr, 0, 0, nullptr, 0), 1);
}

TEST(DarkFlat, AConstantPlaneOfTheFlatEndsItsUse) {
  for (const StoreCase& store : Stores()) {
    const auto source = Make(store.make(), 33, 21, 3, Random(100, 900)),
               target = Make(source->VmManager(), 33, 21, 3, Random(0, 1)),
               flat = Make(source->VmManager(), 33, 21, 3,
                           [](int p, int x, int y) { return p == 1 ? 9000 : kFlat(p, x, y); });
    FlatStatistics s(*flat);
    EXPECT_EQ(
        target->DarkFlat(source.get(), nullptr, flat.get(), s.minima, s.maxima, s.averages, 0, 0, nullptr, 0),
        -1);
    const auto expected = [&](int p, int x, int y) {
      const double pixel = source->GetPixelGrayRaw(x, y, p);
      return p > 0 ? pixel : Divided(pixel, flat->GetPixelGrayRaw(x, y, 0), s.averages[0], 0);
    };
    EXPECT_EQ(Difference(*target, expected, 1e-6), "") << store.name;
  }
}

TEST(DarkFlat, AFlatOfAConstantScaleUndoesVignetting) {
  const auto vignette = [](int x, int y) {
    const double r2 = (x - 35.0) * (x - 35.0) + (y - 66.0) * (y - 66.0);
    return 1 - 0.3 * r2 / (36 * 36 + 67 * 67);
  };
  const auto store = MemoryStore();
  const auto light = Make(store, 71, 133, 1, [&](int, int x, int y) { return 300 + 1000 * vignette(x, y); });
  const auto dark = Make(store, 71, 133, 1, [](int, int, int) { return 300; });
  const auto flat = Make(store, 71, 133, 1, [&](int, int x, int y) { return 20000 * vignette(x, y); });
  FlatStatistics s(*flat);
  light->DarkFlat(light.get(), dark.get(), flat.get(), s.minima, s.maxima, s.averages, 0, 0, nullptr, 0);
  const double level = 1000 * s.averages[0] / 20000;
  EXPECT_EQ(Difference(
                *light, [&](int, int, int) { return level; }, 1e-5),
            "");
}

TEST(CImgDark, InterpolatesBetweenTwoFrames) {
  const auto second = Make(TinyPool(), 71, 33, 3, Random(100, 2000, 2));
  const auto first = Make(MemoryStore(), 71, 33, 3, Random(50, 1000));
  struct Case {
    const char* name;
    std::function<void(CImgDark&)> run;
    std::function<double(double, double)> formula;
  };
  CVelImage* s2 = second.get();
  const std::vector<Case> cases = {
      {"proportion", [=](CImgDark& d) { d.DoInterpolateByProportion(s2, -10, 10, -5, 60, 300, 120, 0); },
       [](double d, double s) { return (s - d) * 0.25 + d + (s - d) * 0.25; }},
      {"proportion at this frame",
       [=](CImgDark& d) { d.DoInterpolateByProportion(s2, -10, 10, -10, 60, 300, 60, 0); },
       [](double d, double) { return d; }},
      {"power, nearer b1", [=](CImgDark& d) { d.DoInterpolateByPower(s2, 1, 2, 1.5, 10, 20, 12, 6, 0); },
       [](double d, double s) { return (s - d) * 0.5 + d + d * std::pow(2.0, 10 - 12.0 / 6); }},
      {"power, a tie goes to b2", [=](CImgDark& d) { d.DoInterpolateByPower(s2, 1, 2, 1, 4, 6, 5, 2, 0); },
       [](double d, double) { return d + d * std::pow(2.0, 6 - 2.5); }},
      {"score", [=](CImgDark& d) { d.DoInterpolateByScore(s2, 3, 1, 5, 0); },
       [](double d, double s) {
         const double r = (s - d) * 0.5 + d;
         return r > s ? s : d > r ? d : r;
       }},
      {"score of this frame", [=](CImgDark& d) { d.DoInterpolateByScore(s2, 1, 1, 5, 0); },
       [](double d, double s) { return d > s ? s : d; }},
  };
  for (const Case& c : cases) {
    for (const StoreCase& store : Stores()) {
      const auto dark = Make<CImgDark>(store.make(), 71, 33, 3, Random(50, 1000));
      c.run(*dark);
      const auto expected = [&](int p, int x, int y) {
        return c.formula(first->GetPixelGrayRaw(x, y, p), second->GetPixelGrayRaw(x, y, p));
      };
      EXPECT_EQ(Difference(*dark, expected, 1e-6), "") << c.name << " on " << store.name;
    }
  }
}

}  // namespace
