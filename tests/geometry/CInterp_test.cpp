#include "korimg/geometry/CInterp.h"

#include <gtest/gtest.h>

#include "tests/geometry/Reference.h"

using namespace korimg::test;

namespace {

const PixelRule kNoise = Random(0, 1000);

struct Kernels : CInterp {
  using CInterp::Bilinear;
  using CInterp::Calc;
  using CInterp::CInterp;
  using CInterp::KernelBicubic;
  using CInterp::KernelLanczos;
};

TEST(CInterp, SamplesByEveryMethodAndAtAllBorders) {
  for (const StoreCase& store : Stores()) {
    for (const auto& [width, height] : {std::pair(1, 1), {1, 7}, {9, 1}, {9, 6}}) {
      const auto image = Make(store.make(), width, height, 2, kNoise);
      for (int method = 0; method < kMethodCount; ++method) {
        CInterp interp(method, image.get(), 0);
        for (double y = 0; y <= height; y += 0.25) {
          for (double x = 0; x <= width; x += 0.125) {
            ASSERT_NEAR(interp.Do(x, y, 1), SampleBySum(*image, 1, method, x, y), 2e-4)
                << store.name << " " << width << "x" << height << " method " << method << " at " << x << ", "
                << y;
          }
        }
      }
    }
  }
}

TEST(CInterp, SamplesHardBesidePixels) {
  const auto image = Make(MemoryStore(), 300, 16, 1, kNoise);
  for (int method = 0; method < kMethodCount - 1; ++method) {
    for (const double away : {1e-16, 1e-14, 1e-12, 1e-9, 1e-7, 1e-5, 1e-3}) {
      for (const double side : {-away, away}) {
        const double x = 8 + side, y = 7 - side;
        ASSERT_NEAR(CInterp(method, image.get(), 0).Do(x, y, 0), SampleBySum(*image, 0, method, x, y), 2e-4)
            << "method " << method << ", " << side;
        // Lines of whole chunks.
        CInterp line(method);
        line.SetBParam(CInterp::FloatShift, image.get(), x, 280 + x, 0, 0.0f, 0, 0, 1, 1, 0);
        std::vector<float> out(300);
        line.GetBLine(y, out.data());
        ASSERT_EQ(out[0], CInterp(method, image.get(), 0).Do(x, y, 0)) << "method " << method << ", " << side;
        ASSERT_NEAR(out[100], SampleBySum(*image, 0, method, x + 100, y), 2e-4)
            << "method " << method << ", " << side;
      }
    }
  }
}

TEST(CInterp, RefusesWhatLiesBeyond) {
  const auto image = Make(MemoryStore(), 6, 4, 1, kNoise);
  const double inf = INFINITY, huge = 1e300;
  for (const auto& [x, y] : {std::pair(6.1, 1.0),
                             {1.0, 4.1},
                             {-0.1, 1.0},
                             {1.0, -1e-9},
                             {NAN, 1.0},
                             {1.0, NAN},
                             {inf, 1.0},
                             {1.0, -inf},
                             {huge, huge}}) {
    for (int method = 0; method < 4; ++method) {
      EXPECT_EQ(CInterp(method, image.get(), 0).Do(x, y, 0), 0.0f) << method << " at " << x << ", " << y;
    }
  }
  CInterp nearest(CInterp::MethodNearest, image.get(), 0);
  EXPECT_EQ(nearest.Do(-huge, huge, 0), image->GetPixelGrayRaw(0, 3, 0));
  EXPECT_EQ(nearest.Do(inf, 1.4, 0), image->GetPixelGrayRaw(5, 1, 0));
  EXPECT_EQ(nearest.Do(NAN, 0, 0), image->GetPixelGrayRaw(0, 0, 0));
  EXPECT_EQ(CInterp(7, image.get(), 0).Do(1, 1, 0), 0.0f);
  EXPECT_EQ(CInterp(0, image.get(), 0).Do(1, 1, 3), 0.0f);
  CVelImage empty;
  EXPECT_EQ(CInterp(0, &empty, 0).Do(0, 0, 0), 0.0f);
}

TEST(CInterp, WholePositionsGiveThePixel) {
  const auto image = Make(MemoryStore(), 9, 9, 1, Random(0, 1000));
  image->SetPixelGrayRaw(5, 4, NAN, 0);
  image->SetPixelGrayRaw(4, 5, INFINITY, 0);
  CInterp bilinear(0, image.get(), 0);
  EXPECT_EQ(bilinear.Do(4, 4, 0), image->GetPixelGrayRaw(4, 4, 0)) << "neighbours have no say";
  EXPECT_FALSE(std::isfinite(bilinear.Do(4.5, 4, 0)));
  for (const int method : {1, 2, 3}) {
    EXPECT_NEAR(CInterp(method, image.get(), 0).Do(8, 0, 0), image->GetPixelGrayRaw(8, 0, 0), 1e-3);
  }
}

TEST(CInterp, OnlyLanczosWeighsAConstantUnevenly) {
  const auto image = Make(MemoryStore(), 9, 9, 1, [](int, int, int) { return 1000; });
  EXPECT_FLOAT_EQ(CInterp(0, image.get(), 0).Do(3.3, 4.7, 0), 1000);
  EXPECT_FLOAT_EQ(CInterp(1, image.get(), 0).Do(3.3, 4.7, 0), 1000);
  EXPECT_GT(std::abs(CInterp(2, image.get(), 0).Do(3.5, 4.5, 0) - 1000), 5);
  EXPECT_GT(std::abs(CInterp(3, image.get(), 0).Do(3.5, 4.5, 0) - 1000), 5);
  EXPECT_EQ(Kernels::KernelBicubic(2.5, -0.5), 0);
  EXPECT_EQ(Kernels::KernelLanczos(0, 3), 1);
  EXPECT_EQ(Kernels::KernelLanczos(-3.5, 3), 0);
}

/// A row of a line reader that is written to no further than it may.
struct GuardedRow {
  std::vector<float> values;
  explicit GuardedRow(int room) : values(room + 3, -77) {}
  float* Data() { return values.data(); }
  bool Untouched(int from) const {
    return std::all_of(values.begin() + from, values.end(), [](float v) { return v == -77; });
  }
};

TEST(Lines, ShiftAndTurnAsTheirFormulasSay) {
  constexpr int kWidth = 11, kHeight = 7, kRoom = 14;
  constexpr float kOutside = -5;
  const double sine = std::sin(0.3), cosine = std::cos(0.3);
  for (const StoreCase& store : Stores()) {
    const auto image = Make(store.make(), kWidth, kHeight, 3, kNoise);
    for (int form = 0; form < 3; ++form) {
      for (const double left : {-2.5, 0.0, 3.25, -1e-17, 1e9}) {
        for (const double y : {-0.5, 0.0, 2.5, 6.0, 6.5, 8.0}) {
          CInterp interp(1);
          interp.SetBParam(form, image.get(), left, left + 12, 0, kOutside, 2, sine, cosine, 1.0, 0);
          interp.SetLineCapacity(kRoom);
          GuardedRow row(kRoom);
          interp.GetBLine(y, row.Data());
          const double first = std::floor(left);
          const int samples = std::min(kRoom, static_cast<int>(std::floor(left + 12) - first));
          ASSERT_TRUE(row.Untouched(samples));
          double x = left < 0 ? left - first : left;
          for (int i = 0; i < samples; ++i) {
            double expected = kOutside;
            if (form == 2) {
              const double X = left + i - 5.5, Y = 3.5 - y;  // turning by steps is turning each
              const double dx = left - 5.5;
              const double u = cosine * dx - sine * Y + 5.5 + i * cosine, v = 3.5 - (sine * X + cosine * Y);
              if (u >= 0 && u <= kWidth - 1 && v >= 0 && v <= kHeight - 1) {
                expected = SampleBySum(*image, 2, 1, u, v);
              }
            } else if (first + i >= 0 && first + i < kWidth) {
              const int whole = static_cast<int>(y);
              if (form == 0 && whole >= 0 && whole < kHeight) {
                expected = image->GetPixelGrayRaw(static_cast<int>(first) + i, whole, 2);
              } else if (form == 1 && y >= 0 && y <= kHeight - 1) {
                expected = SampleBySum(*image, 2, 1, x++, y);
              }
            }
            ASSERT_NEAR(row.values[i], expected, 2e-3)
                << store.name << " form " << form << " left " << left << " y " << y << " sample " << i;
          }
        }
      }
    }
  }
}

TEST(Lines, PlanesAndScales) {
  const auto colour = Make(TinyPool(), 8, 5, 3, kNoise), two = Make(MemoryStore(), 8, 5, 2, kNoise),
             mono = Make(MemoryStore(), 8, 5, 1, kNoise);
  const auto read = [](CVelImage& image, int form, int scaled, int plane) {
    CInterp interp(0);
    interp.SetBParam(form, &image, 2.0, 9.0, scaled, -5, plane, 0, 1, 1.0, 0);
    std::vector<std::vector<float>> rows(3, std::vector<float>(7, -77));
    interp.GetBLine(3, rows[0].data(), rows[1].data(), rows[2].data());
    for (auto& row : rows) {
      EXPECT_TRUE(row.back() == -5 || row.back() == -77) << "outside is never converted";
    }
    return std::vector{rows[0][1], rows[1][1], rows[2][1]};
  };
  const auto pixel = [](CVelImage& image, int p, int scaled) {
    return scaled ? image.GetPixelGray256f(3, 3, p) : image.GetPixelGrayRaw(3, 3, p);
  };
  for (int form = 0; form < 3; ++form) {
    for (const int scaled : {0, 1}) {
      const auto all = read(*colour, form, scaled, -1), half = read(*two, form, scaled, -1),
                 same = read(*mono, form, scaled, -1), light = read(*colour, form, scaled, 1);
      for (int p = 0; p < 3; ++p) {
        EXPECT_NEAR(all[p], pixel(*colour, p, scaled), 1e-4);
        EXPECT_NEAR(half[p], pixel(*two, std::min(p, 1), scaled), 1e-4);
        EXPECT_NEAR(same[p], pixel(*mono, 0, scaled), 1e-4);
      }
      EXPECT_NEAR(light[0],
                  0.299 * pixel(*colour, 0, scaled) + 0.587 * pixel(*colour, 1, scaled) +
                      0.114 * pixel(*colour, 2, scaled),
                  1e-3);
      EXPECT_EQ(light[1], -77) << "the first row alone";
    }
  }
  CInterp interp(0);
  interp.SetBParam(0, colour.get(), 0, 8, 0, -5, -1, 0, 1, 1.0, 0);
  GuardedRow row(8);
  interp.GetBLine(1, row.Data());
  EXPECT_TRUE(row.Untouched(0)) << "one row cannot hold three planes";
}

TEST(Lines, MaskedFormsFlagWhatIsReal) {
  constexpr int kWidth = 8, kHeight = 5;
  const auto image = Make(TinyPool(), kWidth, kHeight, 2, kNoise);
  for (int form = 0; form < 3; ++form) {
    for (const double shift : {0.0, 2.5, -3.0}) {
      for (const double y : {-1.0, 0.0, 2.0, 4.5, 9.0}) {
        CInterp interp(0);
        interp.SetBParam(form, image.get(), -shift, kWidth - 1 - shift, 0, 0, 2, 0, 1, 1.0, 0);
        std::vector<float> data(2 * kWidth, -77);
        std::vector<int> valid(2 * kWidth, 9);
        interp.GetBLineMed(y, data.data(), valid.data());
        const bool offRow = y < 0 || y >= kHeight;
        for (int p = 0; p < 2; ++p) {
          for (int x = 0; x < kWidth; ++x) {
            const int i = p * kWidth + x;
            const double at = form == 0 ? std::floor(-shift) + x : x - shift;
            const bool real = !offRow && at >= 0 && (form == 2 ? at < kWidth : std::floor(at) < kWidth) &&
                              (form == 2 || std::floor(-shift) + x >= 0);
            const bool left = offRow && form != 2 && x == kWidth - 1;
            ASSERT_EQ(valid[i], left ? 9 : real) << "form " << form << " shift " << shift << " y " << y;
            const double expected = left   ? -77
                                    : real ? SampleBySum(*image, p, 0, at, form == 0 ? std::floor(y) : y)
                                           : 0;
            ASSERT_NEAR(data[i], expected, 1e-3) << "form " << form << " shift " << shift << " y " << y;
          }
        }
      }
    }
  }
}

TEST(Lines, MaskedFormsFillTheirSpanUnlessACapacityLimitsThem) {
  const auto image = Make(MemoryStore(), 8, 5, 1, kNoise);
  for (int form = 0; form < 3; ++form) {
    for (const int capacity : {0, 3, 20}) {
      CInterp interp(0);
      interp.SetBParam(form, image.get(), -4, 9, 0, -1, 1, 0, 1, 1.0,
                       0);  // 14 samples of an image of 8 columns
      if (capacity) interp.SetLineCapacity(capacity);
      std::vector<float> data(20, -77);
      std::vector<int> valid(20, 9);
      interp.GetBLineMed(2, data.data(), valid.data());
      for (int x = 0; x < 20; ++x) {
        const bool written = x < (capacity ? std::min(capacity, 14) : 14), real = written && x >= 4 && x < 12;
        ASSERT_EQ(valid[x], written ? real : 9) << form << " " << capacity << " " << x;
        ASSERT_EQ(data[x], real ? image->GetPixelGrayRaw(x - 4, 2, 0) : written ? -1 : -77);
      }
    }
  }
}

TEST(Lines, AreTheSameFromAPoolByEightThreads) {
  const auto paged = Make(TinyPool(), 200, 90, 1, kNoise), memory = Make(MemoryStore(), 200, 90, 1, kNoise);
  const auto turned = [](CVelImage& image, int method) {
    CInterp interp(method);
    interp.SetBParam(2, &image, 0, 200, 0, -5, 0, std::sin(0.7), std::cos(0.7), 1.0, 0);
    std::vector<float> all(200 * 90);
#pragma omp parallel for
    for (int y = 0; y < 90; ++y) {
      interp.GetBLine(y, &all[y * 200]);
    }
    return all;
  };
  const WithThreads team(8);
  for (int method = 0; method < kMethodCount; ++method) {
    EXPECT_EQ(turned(*paged, method), turned(*memory, method)) << method;
  }
}

TEST(Pixels, MapOutputPositionsToTheSource) {
  const auto image = Make(MemoryStore(), 30, 20, 3, kNoise);
  const double sine = std::sin(0.4), cosine = std::cos(0.4), cx = 15, cy = 10, dx = 1.5, dy = -2.25;
  struct Case {
    double sine, cosine, scale;
  };
  for (const Case& c : {Case{0, 1, 1}, Case{0, 1, 1.25}, Case{sine, cosine, 1}, Case{sine, cosine, 0.75}}) {
    CInterp interp(0);
    interp.SetBParam(image.get(), dx, dy, c.sine, c.cosine, c.scale, 0, -1, -5);
    for (int y = -3; y < 25; y += 2) {
      for (int x = -3; x < 35; x += 3) {
        // With the scale for planes of Lab, without it for grey pixels.
        for (const double scale : {c.scale, 1.0}) {
          const double X = x - cx - dx, Y = cy - y + dy;
          const double u = (c.cosine * X - c.sine * Y) * scale + cx,
                       v = cy - (c.sine * X + c.cosine * Y) * scale;
          const bool on = u >= 0 && u < 30 && v >= 0 && v < 20;
          const auto plane = [&](int p) {
            return on ? SampleBySum(*image, p, 0, std::min(u, 29.0), std::min(v, 19.0)) : -5;
          };
          if (scale == 1.0) {
            int off = 7;
            double sx = 0, sy = 0;
            const float raw = interp.GetBPixelGrayRaw(x, y, &off, &sx, &sy);
            ASSERT_EQ(off, on ? 0 : 1);
            ASSERT_NEAR(sx, u, 1e-9);
            ASSERT_NEAR(sy, v, 1e-9);
            ASSERT_NEAR(raw, on ? 0.299 * plane(0) + 0.587 * plane(1) + 0.114 * plane(2) : -5, 1e-3);
            const auto grey = [&](int p) { return image->To256(plane(p), p); };
            ASSERT_NEAR(interp.GetBPixelGray256f(x, y, nullptr, nullptr, nullptr),
                        on ? 0.299 * grey(0) + 0.587 * grey(1) + 0.114 * grey(2) : -5, 1e-3);
          }
          if (scale == c.scale) {
            double a = 0, b = 0;
            interp.GetPixelAb(x, y, &a, &b);
            ASSERT_NEAR(interp.GetPixelL(x, y), plane(0), 1e-3);
            ASSERT_NEAR(a, plane(0), 1e-3);
            ASSERT_NEAR(b, plane(1), 1e-3);
          }
        }
      }
    }
  }
  CInterp interp(3, image.get(), 0);
  EXPECT_NEAR(interp.GetBPixelGrayRaw(31.0, 25.0, 1), image->GetPixelGrayRaw(29, 19, 1), 1e-2);
  EXPECT_EQ(interp.GetBPixelGrayRaw(4.0, 5.0, 1), image->GetPixelGrayRaw(4, 5, 1));
  EXPECT_EQ(interp.GetBPixelGrayRaw(-4.0, 5.0, 1), 0);
  EXPECT_EQ(interp.GetBPixelGrayRaw(NAN, 5.0, 1), 0);
}

TEST(Names, GoBothWays) {
  for (int method = 0; method < kMethodCount; ++method) {
    EXPECT_EQ(CInterp::GetMethod(CInterp::GetEngString(method)), method);
    EXPECT_FALSE(CInterp::GetString(method).IsEmpty());
  }
  EXPECT_EQ(CInterp::GetMethod(L"lanczos3"), 3);
  EXPECT_EQ(CInterp::GetMethod(L"Lanczos"), -1);
  EXPECT_EQ(CInterp::GetMethod(L""), -1);
  EXPECT_EQ(CInterp::GetString(3), L"ランチョス3(6x6)");
  EXPECT_TRUE(CInterp::GetEngString(5).IsEmpty());
  EXPECT_TRUE(CInterp::GetString(-1).IsEmpty());
}

}  // namespace
