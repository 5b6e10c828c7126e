#include <gtest/gtest.h>

#include "korimg/filters/CImgFilterSpecial.h"
#include "korimg/platform/Debug.h"

#include "tests/filters/Reference.h"

using namespace korimg::test;

namespace {

/// Halves, so that differences from the ends of the curve are exact. Plane 2 lies below black, where divisors
/// are not above 0.
PixelRule Halves() {
  return [bright = Random(0, 1200), dark = Random(-900, -400)](int p, int x, int y) {
    return std::round(p == 2 ? dark(p, x, y) : bright(p, x, y)) + 0.5;
  };
}

/// What a preparation is given, and what it gives.
struct Prepared {
  double background[3] = {300, 0, 0}, sigma[3] = {1.3, 0.6, 1.0}, gamma[3] = {2.2, 1.0, 0.5};
  float min[3], range[3], a[3], b[3];

  void Run(CImgFilterSpecial& target, CVelImage& src, int levelMode, int gammaAfter) {
    src.CalcMinMax();
    target.ClearFilterProc();
    target.DigitalDvlp1(background, 0, sigma, 1, gamma, levelMode, &src, min, range, a, b, gammaAfter);
  }
};

double Curve(double x, double gamma, double min, double range) {
  return x <= min || range <= 0 ? x : std::pow((x - min) / range, 1 / gamma) * range + min;
}

double To255(const CVelImage& image, int p, double raw) {
  return (raw - image.GetLevelMin(p)) / image.GetLevelRange(p) * 255;
}
double ToRaw(const CVelImage& image, int p, double v) {
  return v / 255 * image.GetLevelRange(p) + image.GetLevelMin(p);
}

/// The blurs of all planes on the 0 to 255 scale of the target.
class Blurs {
 public:
  Blurs(const CVelImage& target, CVelImage& src, const double sigma[], bool mirrored)
      : width_(src.GetWidth()), height_(src.GetHeight()) {
    for (int p = 0; p < src.GetPlanes(); ++p) {
      for (int y = 0; y < height_; ++y) {
        for (int x = 0; x < width_; ++x) {
          values_.push_back(
              To255(target, p,
                    Separable(src, GaussianRow(sigma[p]), p, x, y, mirrored ? Interior : BottomRepeated,
                              mirrored ? Interior : Nearest)));
        }
      }
    }
  }
  double operator()(int p, int x, int y) const {
    if (p < 3) return values_[(static_cast<size_t>(p) * height_ + y) * width_ + x];
    return ((*this)(0, x, y) + (*this)(1, x, y) + (*this)(2, x, y)) / 3;
  }

 private:
  int width_, height_;
  std::vector<double> values_;
};

enum Order { Only, CurveFirst, CurveLast };

struct Case {
  Order order;
  int planeOf[3];
  int driving[3];  ///< what planeOf stands for
  int develop = 1;
  double strength = 1;
};

void Render(const Case& c, CImgFilterSpecial& target, CVelImage& src, Prepared& k, CRect* rect) {
  Case copy = c;
  if (c.order == Only) {
    target.DigitalDvlpOnly(c.develop, &src, c.strength, copy.planeOf, k.min, k.range, k.a, k.b, rect, 0);
  } else if (c.order == CurveFirst) {
    target.DigitalDvlp2(c.develop, k.gamma, &src, copy.planeOf, k.min, k.range, k.a, k.b, rect, 0);
  } else {
    target.DigitalDvlpGmAftrDdp(c.develop, k.gamma, &src, copy.planeOf, k.min, k.range, k.a, k.b, rect, 0);
  }
}

double Expected(const Case& c, const CVelImage& target, const Prepared& k, int p, double s, double blur) {
  const bool first = c.order == CurveFirst;
  if (first) s = Curve(s, k.gamma[p], k.min[p], k.range[p]);
  if (!c.develop) return s;
  double ground = ToRaw(target, p, blur);
  if (first) ground = Curve(ground, k.gamma[p], k.min[p], k.range[p]);
  const double divisor = To255(target, p, ground) + k.a[p], v = To255(target, p, s);
  if (c.order == CurveLast) {
    return ToRaw(target, p, Curve(divisor > 0 ? v / divisor * k.b[p] : v, k.gamma[p], 0, 255));
  }
  if (divisor <= 0) return s;
  return ToRaw(target, p, v / divisor * k.b[p]) * c.strength + s * (1 - c.strength);
}

TEST(DigitalDevelopment, DividesByTheBlurAndABackground) {
  const std::vector<Case> cases = {
      {Only, {0, 1, 2}, {0, 1, 2}},          {Only, {0, 1, 2}, {0, 1, 2}, 1, 0.3},
      {Only, {3, 3, 3}, {3, 3, 3}, 1, 0.7},  {Only, {-1, 7, 1}, {0, 3, 1}},
      {Only, {0, 1, 2}, {0, 1, 2}, 0},       {CurveFirst, {0, 1, 2}, {0, 1, 2}},
      {CurveFirst, {3, 0, 1}, {3, 0, 1}},    {CurveFirst, {2, 2, 2}, {2, 2, 2}},
      {CurveFirst, {0, 1, 2}, {0, 1, 2}, 0}, {CurveLast, {0, 1, 2}, {0, 1, 2}},
      {CurveLast, {1, 9, -3}, {1, 3, 2}},    {CurveLast, {0, 1, 2}, {0, 1, 2}, 0},
  };
  OnEveryStore([&](const StoreCase& store) {
    for (const auto& [width, height] : {std::pair(1, 1), {3, 2}, {65, 1}, {1, 71}, {71, 45}}) {
      const auto src = Make(store.make(), width, height, 3, Halves());
      const auto target = Make<CImgFilterSpecial>(src->VmManager(), width, height, 3, Random(0, 1, 7));
      Prepared k;
      k.Run(*target, *src, 3, 0);
      const Blurs mirrored(*target, *src, k.sigma, true), repeated(*target, *src, k.sigma, false);
      for (const Case& c : cases) {
        const bool pipeline =
            c.order == Only && c.driving[0] == 0 && c.driving[1] == 1 && store.name != "paged";
        for (OptionalRect rect : {OptionalRect(), OptionalRect(CRect(5, 2, width - 3, height - 1))}) {
          if (rect && width < 71) continue;
          Paint(*target, Random(0, 1, 7));
          Render(c, *target, *src, k, Address(rect));
          const auto want = [&](int p, int x, int y) -> double {
            if (!IsInside(rect, x, y)) return static_cast<float>(Random(0, 1, 7)(p, x, y));
            return Expected(c, *target, k, p, src->GetPixelGrayRaw(x, y, p),
                            (pipeline ? mirrored : repeated)(c.driving[p], x, y));
          };
          ASSERT_EQ(Difference(*target, want, 4e-5), "")
              << store.name << " " << width << "x" << height << " case " << &c - cases.data();
        }
      }
    }
  });
}

TEST(DigitalDevelopment, AMonoImageIsDividedByItsOwnBlur) {
  for (const StoreCase& store : Stores()) {
    const auto src = Make(store.make(), 40, 30, 1, Halves());
    const auto target = Make<CImgFilterSpecial>(src->VmManager(), 40, 30, 1, Random(0, 1)),
               other = Make<CImgFilterSpecial>(src->VmManager(), 40, 30, 1, Random(0, 1));
    Prepared k;
    k.Run(*target, *src, 1, 0);
    k.Run(*other, *src, 1, 0);
    for (const Order order : {Only, CurveFirst, CurveLast}) {
      Render({order, {0}, {}}, *target, *src, k, nullptr);
      for (const int planeOf : {3, 2, -1}) {
        Render({order, {planeOf}, {}}, *other, *src, k, nullptr);
        EXPECT_EQ(Difference(*other, *target), "") << planeOf;
      }
    }
  }
}

TEST(DigitalDevelopment, PreparesTheConstantsByTheLevelMode) {
  for (const StoreCase& store : Stores()) {
    for (const int planes : {1, 3}) {
      const auto src = Make(store.make(), 37, 20, planes, Halves());
      std::vector<float> sorted = Pixels(*src);
      sorted.resize(37 * 20);
      std::sort(sorted.begin(), sorted.end());
      const double smallest = sorted.front(), largest = sorted.back(), median = sorted[sorted.size() / 2];
      const auto target = Make<CImgFilterSpecial>(src->VmManager(), 37, 20, planes, Random(0, 1));
      const double black = target->GetLevelMin(0), white = target->GetLevelMax(0);
      struct Ends {
        int mode;
        double low, high;
        bool carriesLow = true, carriesHigh = true;
      };
      for (const Ends& ends : {Ends{0, 0, largest},
                               {1, smallest, largest},
                               {2, smallest, src->GetLevelMax(0)},
                               {3, black, largest, false},
                               {8, 0, white, false, false}}) {
        for (const bool after : {false, true}) {
          Prepared k;
          k.Run(*target, *src, ends.mode, after);
          const double gamma = after ? 1 : k.gamma[0], range = ends.high - ends.low;
          const double a = To255(*target, 0, Curve(300, gamma, ends.low, range));
          const double b = To255(*target, 0, Curve(median, gamma, ends.low, range)) + a;
          for (int p = 0; p < 3; ++p) {
            const auto carried = [&](double v) {
              return planes == 3 ? ToRaw(*target, p, To255(*target, 0, v)) : v;
            };
            const double ownBlack = planes == 3 ? target->GetLevelMin(p) : black;
            const double ownWhite = planes == 3 ? target->GetLevelMax(p) : white;
            const double min = ends.carriesLow ? carried(ends.low) : ends.mode == 3 ? ownBlack : 0;
            const double max = ends.carriesHigh ? carried(ends.high) : ownWhite;
            EXPECT_NEAR(k.min[p], min, 1e-3) << ends.mode << " " << p;
            EXPECT_NEAR(k.range[p], max - min, 1e-3) << ends.mode << " " << p;
            EXPECT_NEAR(k.a[p], a, 1e-4) << ends.mode << " " << p;
            EXPECT_NEAR(k.b[p], b, 1e-4) << ends.mode << " " << p;
          }
        }
      }
    }
  }
}

TEST(DigitalDevelopment, AMeanIsTwiceAsWideAndAnyOtherFilterIsNone) {
  for (const auto& [r, radius] : {std::pair(0.4, 1), {1.0, 2}, {3.0, 6}, {2.9, 4}, {-5.0, 1}}) {
    EXPECT_EQ(CImgFilterSpecial::GetDigitalDvlp_Mean_nR(r), radius) << r;
  }
  const auto src = Make(MemoryStore(), 30, 20, 1, Random(200, 900));
  const auto target = Make<CImgFilterSpecial>(MemoryStore(), 30, 20, 1, Random(0, 1));
  src->CalcMinMax();
  double background[] = {200}, r[] = {2}, gamma[] = {1};
  float min[3] = {-7, -7, -7}, range[3] = {-7, -7, -7}, a[3] = {-7, -7, -7}, b[3] = {-7, -7, -7};
  target->DigitalDvlp1(background, 2, r, 0.5, gamma, 1, src.get(), min, range, a, b, 0);
  EXPECT_EQ(min[0] + range[1] + a[2] + b[0], -28);
  target->DigitalDvlp1(background, 1, r, 0.5, gamma, 1, src.get(), min, range, a, b, 0);
  int planes[] = {0};
  target->DigitalDvlpOnly(1, src.get(), 1, planes, min, range, a, b, nullptr, 0);
  const std::vector<double> row = {0, 0, 1 / 6.0, 1 / 6.0, 1 / 3.0, 1 / 6.0, 1 / 6.0, 0, 0};
  const double blur = To255(*target, 0, Separable(*src, row, 0, 11, 12, Interior, Interior));
  const double want =
      ToRaw(*target, 0, To255(*target, 0, src->GetPixelGrayRaw(11, 12, 0)) / (blur + a[0]) * b[0]);
  EXPECT_NEAR(target->GetPixelGrayRaw(11, 12, 0), want, 1e-2);
}

TEST(DigitalDevelopment, FlatGroundStaysAndStrength0IsTheSource) {
  for (const StoreCase& store : Stores()) {
    for (const Order order : {Only, CurveLast}) {
      const auto src = Make(store.make(), 30, 20, 3, [](int, int, int) { return 437.0; });
      const auto target = Make<CImgFilterSpecial>(src->VmManager(), 30, 20, 3, Random(0, 1));
      for (int p = 0; p < 3; ++p) {
        target->SetLevel(p, 100, 1000);
      }
      Prepared k;
      std::fill_n(k.gamma, 3, 1.0);
      k.Run(*target, *src, 1, 0);
      Render({order, {0, 1, 2}, {}}, *target, *src, k, nullptr);
      EXPECT_EQ(Difference(
                    *target, [](int, int, int) { return 437; }, 1e-6),
                "");
    }
    const auto src = Make(store.make(), 30, 20, 3, Halves());
    const auto target = Make<CImgFilterSpecial>(src->VmManager(), 30, 20, 3, Random(0, 1));
    Prepared k;
    k.Run(*target, *src, 1, 0);
    for (const Case& c : {Case{Only, {0, 1, 2}, {}, 1, 0}, {Only, {3, 3, 3}, {}, 1, 0}}) {
      Render(c, *target, *src, k, nullptr);
      EXPECT_EQ(Difference(*target, *src), "");
    }
  }
}

TEST(DigitalDevelopment, OneThreadAndEightGiveTheSameBits) {
  for (const StoreCase& store : Stores()) {
    for (const Order order : {Only, CurveFirst, CurveLast}) {
      std::shared_ptr<CImgFilterSpecial> results[2];
      for (const int i : {0, 1}) {
        const WithThreads team(i ? 8 : 1);
        const auto src = Make(store.make(), 71, 45, 3, Halves());
        results[i] = Make<CImgFilterSpecial>(src->VmManager(), 71, 45, 3, Random(0, 1));
        Prepared k;
        k.Run(*results[i], *src, 1, 0);
        Render({order, {0, 3, 2}, {}}, *results[i], *src, k, nullptr);
      }
      EXPECT_EQ(Difference(*results[1], *results[0]), "") << store.name;
    }
  }
}

TEST(DigitalDevelopment, NanAndInfinityStayAndSpoilNoMoreThanTheBlurReaches) {
  for (const StoreCase& store : Stores()) {
    for (const double odd : {static_cast<double>(NAN), static_cast<double>(INFINITY)}) {
      for (const Case& c : {Case{Only, {0, 1, 2}, {}},
                            {Only, {0, 1, 0}, {}},
                            {CurveFirst, {0, 1, 2}, {}},
                            {CurveFirst, {0, 1, 2}, {}, 0},
                            {CurveLast, {0, 1, 2}, {}}}) {
        const auto src = Make(store.make(), 40, 30, 3, [&](int p, int x, int y) {
          return x == 20 && y == 15 ? odd : 200 + Random(0, 500)(p, x, y);
        });
        const auto target = Make<CImgFilterSpecial>(src->VmManager(), 40, 30, 3, Random(0, 1));
        Prepared k;
        std::fill_n(k.sigma, 3, 1.0);  // 3 pixels wide
        k.gamma[0] = 20;               // whose root of the largest double is a small number
        k.Run(*target, *src, 3, 1);
        // The brightest pixel may be infinite: a curve from black to the brightest of the rest.
        for (float& range : k.range) {
          range = 800;
        }
        Render(c, *target, *src, k, nullptr);
        for (int y = 0; y < 30; ++y) {
          for (int x = 0; x < 40; ++x) {
            const bool near = std::abs(x - 20) <= 3 && std::abs(y - 15) <= 3;
            for (int p = 0; p < 3; ++p) {
              ASSERT_TRUE(near || std::isfinite(target->GetPixelGrayRaw(x, y, p))) << x << " " << y;
            }
          }
        }
        const float there = target->GetPixelGrayRaw(20, 15, 0);
        EXPECT_TRUE(std::isnan(there) || (std::isinf(odd) && (c.develop || there == INFINITY))) << there;
      }
    }
  }
}

TEST(DigitalDevelopment, LevelsGoThroughTheCurve) {
  const auto src = Make(MemoryStore(), 2, 1, 1, [](int, int x, int) { return x ? 900 : 100; });
  src->CalcMinMax();
  const auto target = Make<CImgFilterSpecial>(MemoryStore(), 2, 1, 1, Random(0, 1));
  struct Row {
    double gamma, low, high, newLow, newHigh;
  };
  // A curve of 1 / 2 from 100 to 900: 300 becomes sqrt(200 * 800) + 100.
  for (const Row& row : {Row{2, 300, 900, 500, 900},
                         {2, 100, 300, 100, 500},
                         {2, 50, 300, 50, 500},
                         {2, 300, 901, 300, 901},
                         {2, 50, 901, 50, 901},
                         {1, 300.1, 900, 300.1, 900}}) {
    double gamma[] = {row.gamma, 1, 2}, low[] = {row.low, 0, 0}, high[] = {row.high, 0, 0};
    target->DigitalDvlpGetLevel(gamma, 1, src.get(), low, high);
    EXPECT_NEAR(low[0], row.newLow, row.gamma == 1 ? 0 : 1e-4) << row.low << " " << row.high;
    EXPECT_NEAR(high[0], row.newHigh, 1e-4) << row.low << " " << row.high;
  }
}

TEST(DigitalDevelopment, ACurveWithoutARangeLeavesPixels) {
  const auto src = Make(MemoryStore(), 9, 9, 1, [](int, int x, int) { return x; });
  const auto target = Make<CImgFilterSpecial>(MemoryStore(), 9, 9, 1, Random(0, 1));
  double gamma[] = {2};
  float min[] = {0}, range[] = {0}, a[] = {1}, b[] = {1};
  int planes[] = {0};
  target->DigitalDvlp2(0, gamma, src.get(), planes, min, range, a, b, nullptr, 0);
  EXPECT_EQ(Difference(*target, *src), "");
}

TEST(DigitalDevelopment, TellsTheDebugSinkWhereItIs) {
  std::vector<std::wstring> lines;
  korimg::SetDebugSink([&](const std::wstring& line) { lines.push_back(line); });
  const auto src = Make(MemoryStore(), 5, 5, 3, Halves());
  const auto target = Make<CImgFilterSpecial>(MemoryStore(), 5, 5, 3, Random(0, 1));
  Prepared k;
  k.Run(*target, *src, 1, 0);
  Render({CurveFirst, {0, 1, 2}, {}}, *target, *src, k, nullptr);
  Render({CurveLast, {0, 1, 2}, {}}, *target, *src, k, nullptr);
  korimg::SetDebugSink(nullptr);
  EXPECT_EQ(lines, (std::vector<std::wstring>{L"CImgFilterSpecial::DigitalDvlp1\n",
                                              L"CImgFilterSpecial::DigitalDvlp2\n",
                                              L"CImgFilterSpecial::DigitalDvlpGmAftrDdp\n"}));
}

}  // namespace
