// Stretches by midtones and by generalised hyperbolic curves.
#include <algorithm>

#include <gtest/gtest.h>

#include "korimg/image/internal/Numbers.h"
#include "korimg/levels/CImgHyperbolic.h"
#include "korimg/levels/CImgMidtones.h"

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

using Midtones = CImgMidtones::Parameters;

double TransferOf(double x, double m) {
  return (m - 1) * x / ((2 * m - 1) * x - m);
}

TEST(CImgMidtones, TransferIsExactAtItsPoints) {
  for (const double m : {1e-6, 0.003, 0.1, 1 / 3.0, 0.5, 0.7, 0.999}) {
    EXPECT_EQ(CImgMidtones::Transfer(0.0, m), 0);
    EXPECT_EQ(CImgMidtones::Transfer(m, m), 0.5);
    EXPECT_EQ(CImgMidtones::Transfer(1.0, m), 1);
    const auto f = static_cast<float>(m);
    EXPECT_EQ(CImgMidtones::Transfer(f, f), 0.5f);
    EXPECT_EQ(CImgMidtones::Transfer(1.0f, f), 1.0f);
    for (double x = 0.001, last = 0; x < 1; x += 0.001) {
      const double y = CImgMidtones::Transfer(x, m);
      EXPECT_GT(y, last);
      EXPECT_NEAR(y, TransferOf(x, m), 1e-12 * y);
      EXPECT_NEAR(CImgMidtones::Transfer(y, 1 - m), x, 1e-9 * x);
      const auto xf = static_cast<float>(x);
      EXPECT_NEAR(CImgMidtones::Transfer(xf, f), TransferOf(xf, f), 4e-7 * y);
      last = y;
    }
  }
}

/// Of the finite pixels of a plane, as shares of its levels: the median and the spread.
std::pair<double, double> MiddleOf(CVelImage& image, int plane) {
  std::vector<double> values;
  for (int y = 0; y < image.GetHeight(); ++y) {
    for (int x = 0; x < image.GetWidth(); ++x) {
      const float v = image.GetPixelGrayRaw(x, y, plane);
      if (std::isfinite(v)) values.push_back((v - image.GetLevelMin(plane)) / image.GetLevelRange(plane));
    }
  }
  std::sort(values.begin(), values.end());
  const double median = values[values.size() / 2];
  for (double& v : values) {
    v = std::abs(v - median);
  }
  std::sort(values.begin(), values.end());
  const double distance = values[values.size() / 2];
  return {median, distance > 0 ? distance * 1.4826022 : values[values.size() * 9 / 10] * 0.6079568};
}

Midtones MidtonesOf(double median, double spread) {
  if (spread == 0) return {};
  const double distance = 2.8 * spread;
  if (median > 0.5) {
    const double beyond = std::max(0.0, median + distance - 1);
    return {0, 1 - TransferOf(distance / (1 + beyond), 0.25), median + distance};
  }
  const double beyond = std::max(0.0, distance - median);
  return {median - distance, TransferOf(distance / (1 + beyond), 0.25), 1};
}

void ExpectNear(const Midtones& got, const Midtones& want, const std::string& what) {
  EXPECT_NEAR(got.shadow, want.shadow, 1e-7) << what;
  EXPECT_NEAR(got.midtone, want.midtone, 1e-6) << what;
  EXPECT_NEAR(got.highlight, want.highlight, 1e-7) << what;
}

struct Scene {
  const char* name;
  PixelRule rule;
};

/// The levels of Make go from 100 to 900, and on in other planes.
std::vector<Scene> Scenes() {
  const auto noise = [](double level, double spread) {
    return [=](int p, int x, int y) {
      double sum = 0;
      for (int seed = 1; seed <= 4; ++seed) {
        sum += Random(-0.5, 0.5, seed)(p, x, y);
      }
      const double v = level + 10 * p + spread * (p + 1) * sum;
      return (x * 31 + y * 17 + p) % 97 == 0 ? v + 400 : v;
    };
  };
  const auto rounded = [=](int p, int x, int y) { return std::round(noise(150, 3)(p, x, y)); };
  return {{"sky", noise(160, 12)},
          {"near black", noise(102, 9)},
          {"negative", noise(800, 9)},
          {"whole numbers", rounded},
          {"wild", Wild(110, 700)},
          {"most alike", [=](int p, int x, int y) { return std::round(noise(150, 0.3)(p, x, y)); }},
          // What the sample looks at is black, and all else is not.
          {"misleading", [](int p, int x, int y) {
             for (long long n = 131072LL * y / 500; n < 131072LL * (y + 1) / 500; ++n) {
               if (static_cast<int>(korimg::Scrambled(n) % 700) == x) return 101.0;
             }
             return 300 + Random(0, 20)(p, x, y);
           }}};
}

TEST(CImgMidtones, MeasuresTheMiddle) {
  for (const auto& [width, height] : {std::pair(700, 500), {71, 133}, {1, 71}}) {
    for (const Scene& scene : Scenes()) {
      const auto image = Make(MemoryStore(), width, height, 3, scene.rule);
      Midtones want[3];
      double median = 0, spread = 0;
      for (int p = 0; p < 3; ++p) {
        const auto [middle, deviation] = MiddleOf(*image, p);
        want[p] = MidtonesOf(middle, deviation);
        median += middle / 3;
        spread += deviation / 3;
      }
      const auto separate = CImgMidtones::Measure(*image, false),
                 linked = CImgMidtones::Measure(*image, true);
      for (int p = 0; p < 3; ++p) {
        const std::string what =
            std::string(scene.name) + ", " + std::to_string(width) + " columns, plane " + std::to_string(p);
        ExpectNear(separate[p], want[p], what);
        ExpectNear(linked[p], MidtonesOf(median, spread), "linked, " + what);
      }
    }
  }
}

TEST(CImgMidtones, MeasuresTheSameOnAllStoresAndThreads) {
  std::vector<double> first;
  OnEveryPath([&](const StoreCase& store) {
    const auto image = Make(store.make(), 700, 500, 1, Scenes()[0].rule);
    const auto [shadow, midtone, highlight] = CImgMidtones::Measure(*image, true)[0];
    const std::vector<double> all = {shadow, midtone, highlight};
    if (first.empty()) first = all;
    EXPECT_EQ(all, first) << store.name;
  });
}

TEST(CImgMidtones, IsNeutralWhereNothingIsToBeMeasured) {
  for (const double value : {300.0, 0.0, static_cast<double>(NAN), static_cast<double>(INFINITY)}) {
    const auto image = Make(MemoryStore(), 9, 7, 3, [=](int, int, int) { return value; });
    for (const bool linked : {false, true}) {
      for (const auto& [shadow, midtone, highlight] : CImgMidtones::Measure(*image, linked)) {
        EXPECT_EQ(shadow, 0);
        EXPECT_EQ(midtone, 0.5);
        EXPECT_EQ(highlight, 1);
      }
    }
  }
  const auto flat = Make(MemoryStore(), 9, 7, 1, Random(0, 9));
  flat->SetLevel(0, 5, 5);
  EXPECT_EQ(CImgMidtones::Measure(*flat, false)[0].midtone, 0.5);
}

TEST(CImgMidtones, StretchesAndComesBack) {
  OnEveryPath([](const StoreCase& store) {
    for (const auto& [width, height] : Sizes()) {
      for (OptionalRect& rect : Windows(width, height)) {
        const Midtones parameters[] = {{0.1, 0.2, 1}, {-0.2, 0.7, 0.8}, {0, 0.02, 1.5}};
        const auto src = Make(store.make(), width, height, 3, Wild(60, 1300));
        const auto target = Make<CImgMidtones>(src->VmManager(), width, height, 3, Random(0, 1, 7));
        ASSERT_EQ(target->Do(parameters, 0, src.get(), Address(rect), 0), 1);
        const auto share = [&](CVelImage& image, int p, int x, int y) {
          return (image.GetPixelGrayRaw(x, y, p) - target->GetLevelMin(p)) / target->GetLevelRange(p);
        };
        const auto stretched = [&](int p, int x, int y) -> double {
          if (!IsInside(rect, x, y)) return static_cast<float>(Random(0, 1, 7)(p, x, y));
          const auto [c, m, h] = parameters[p];
          double t = (share(*src, p, x, y) - c) / (h - c);
          if (!std::isnan(t)) t = std::clamp(t, 0.0, 1.0);
          return TransferOf(t, m) * target->GetLevelRange(p) + target->GetLevelMin(p);
        };
        ASSERT_EQ(Difference(*target, stretched, 1e-7), "") << store.name << " " << width << "x" << height;

        const auto back = Make<CImgMidtones>(src->VmManager(), width, height, 3, Random(0, 1, 7));
        ASSERT_EQ(back->Do(parameters, 1, target.get(), Address(rect), 0), 1);
        const auto limited = [&](int p, int x, int y) -> double {
          if (!IsInside(rect, x, y)) return static_cast<float>(Random(0, 1, 7)(p, x, y));
          const auto [c, m, h] = parameters[p];
          double t = share(*src, p, x, y);
          if (!std::isnan(t)) t = std::clamp(t, c, h);
          return t * target->GetLevelRange(p) + target->GetLevelMin(p);
        };
        // The steepest inverse has a slope of 49 x 1.5.
        ASSERT_EQ(Difference(*back, limited, 1e-5), "") << store.name << " " << width << "x" << height;
      }
    }
  });
}

TEST(CImgMidtones, RefusesWhatHasNoMeaning) {
  const auto src = Make(MemoryStore(), 8, 8, 1, Random(0, 9));
  const auto target = Make<CImgMidtones>(MemoryStore(), 8, 8, 1, Random(0, 1));
  for (const Midtones& wrong : std::vector<Midtones>{
           {0.5, 0.5, 0.5}, {0, 0, 1}, {0, 1, 1}, {0, NAN, 1}, {NAN, 0.5, 1}, {1, 0.5, 0}}) {
    EXPECT_EQ(target->Do(&wrong, 0, src.get(), nullptr, 0), 0);
  }
  const Midtones neutral;
  EXPECT_EQ(Make<CImgMidtones>(MemoryStore(), 9, 8, 1, Random(0, 1))->Do(&neutral, 0, src.get(), nullptr, 0),
            0);
  EXPECT_EQ(Difference(
                *target, [](int p, int x, int y) { return float(Random(0, 1)(p, x, y)); }, 0),
            "");
  target->SetLevel(0, 5, 5);
  EXPECT_EQ(target->Do(&neutral, 0, src.get(), nullptr, 0), 0);
}

using Hyperbolic = CImgHyperbolic::Parameters;

/// The curve of shares, by its formulas in long double.
class HyperbolicCurve {
 public:
  explicit HyperbolicCurve(const Hyperbolic& p)
      : d_(std::exp(static_cast<long double>(p.amount)) - 1), b_(p.shape), p_(p) {
    black_ = Raw(0);
    range_ = Raw(1) - black_;
  }
  long double operator()(long double x) const { return d_ == 0 ? x : (Raw(x) - black_) / range_; }

 private:
  long double T(long double x) const {
    if (b_ == 0) return 1 - std::exp(-d_ * x);
    if (b_ == -1) return std::log(1 + d_ * x);
    if (b_ > 0) return 1 - std::pow(1 + b_ * d_ * x, -1 / b_);
    return (1 - std::pow(1 - b_ * d_ * x, (b_ + 1) / b_)) / (d_ * (b_ + 1));
  }
  long double About(long double x) const {
    return x < p_.symmetry ? -T(p_.symmetry - x) : T(x - p_.symmetry);
  }
  /// By a quotient of differences, to one side so that no end is passed.
  long double Slope(long double x, long double step) const {
    return (4 * About(x + step) - About(x + 2 * step) - 3 * About(x)) / (2 * step);
  }
  long double Raw(long double x) const {
    constexpr long double kStep = 1e-8;
    if (x < p_.shadows) return About(p_.shadows) - (p_.shadows - x) * Slope(p_.shadows, kStep);
    if (x > p_.highlights) return About(p_.highlights) + (x - p_.highlights) * Slope(p_.highlights, -kStep);
    return About(x);
  }

  long double d_, b_, black_ = 0, range_ = 1;
  Hyperbolic p_;
};

const std::vector<Hyperbolic>& Hyperbolics() {
  static const std::vector<Hyperbolic> all = {
      {0, 1, 0.3, 0, 1},         {0.01, 2, 0, 0, 1},      {3, 0, 0, 0, 1},        {2, -1, 0.1, 0.05, 0.9},
      {5, 1, 0, 0, 1},           {7, 5, 0.0123, 0, 0.95}, {4, -0.5, 0.2, 0, 1},   {5, -1.5, 0.02, 0.01, 1},
      {0.5, -15, 0.4, 0.1, 0.7}, {3, 15, 0.5, 0.5, 0.5},  {6, 0.05, 0.1, 0, 0.2}, {2.5, -0.01, 0, 0, 1}};
  return all;
}

TEST(CImgHyperbolic, FollowsItsFormulasAndComesBack) {
  constexpr double kMin = 130, kRange = 900;
  for (const Hyperbolic& parameters : Hyperbolics()) {
    const HyperbolicCurve curve(parameters);
    // Fine steps, finer ones near black, and beyond the levels.
    const auto src = Make(MemoryStore(), 3000, 2, 1, [&](int, int x, int y) {
      return kMin + kRange * (y ? std::exp(-x / 150.0) : x / 2000.0 - 0.25);
    });
    const auto target = Make<CImgHyperbolic>(MemoryStore(), 3000, 2, 1, Random(0, 1));
    const auto back = Make<CImgHyperbolic>(MemoryStore(), 3000, 2, 1, Random(0, 1));
    for (CVelImage* image : {target.get(), back.get()}) {
      image->SetLevel(0, kMin, kMin + kRange);
    }
    ASSERT_EQ(target->Do(&parameters, 0, src.get(), nullptr, 0), 1);
    ASSERT_EQ(back->Do(&parameters, 1, target.get(), nullptr, 0), 1);
    for (int y = 0; y < 2; ++y) {
      for (int x = 0; x < 3000; ++x) {
        const long double in = (src->GetPixelGrayRaw(x, y, 0) - kMin) / kRange, want = curve(in);
        const long double got = (target->GetPixelGrayRaw(x, y, 0) - kMin) / kRange;
        const long double again = (back->GetPixelGrayRaw(x, y, 0) - kMin) / kRange;
        const std::string what = "amount " + std::to_string(parameters.amount) + " shape " +
                                 std::to_string(parameters.shape) + " at " + std::to_string((double)in);
        ASSERT_NEAR(got, want, 3e-7 * std::max(1.0L, std::abs(want))) << what;
        if (y == 0 && x > 0) {
          ASSERT_GE(target->GetPixelGrayRaw(x, 0, 0), target->GetPixelGrayRaw(x - 1, 0, 0)) << what;
        }
        const long double slope = (curve(in + 1e-6L) - curve(in - 1e-6L)) / 2e-6L;
        ASSERT_NEAR(again, in, 6e-7 * std::max(1.0L, std::abs(in)) * (1 + 1 / slope)) << what;
      }
    }
  }
}

TEST(CImgHyperbolic, SmallTonesKeepTheirDigits) {
  for (const auto& [amount, shape] :
       {std::pair(5.0, 1.0), {3, 0}, {2, -1}, {4, -0.5}, {5, -1.5}, {0.3, -5}}) {
    const Hyperbolic parameters{amount, shape};
    const HyperbolicCurve curve(parameters);
    const auto src = Make(MemoryStore(), 4000, 1, 1, [](int, int x, int) { return std::exp(-x / 1000.0); });
    const auto target = Make<CImgHyperbolic>(MemoryStore(), 4000, 1, 1, Random(0, 1));
    target->SetLevel(0, 0, 1);
    ASSERT_EQ(target->Do(&parameters, 0, src.get(), nullptr, 0), 1);
    for (int x = 0; x < 4000; ++x) {
      const long double want = curve(src->GetPixelGrayRaw(x, 0, 0));
      ASSERT_NEAR(target->GetPixelGrayRaw(x, 0, 0), want, 4e-7 * want) << amount << " " << shape << " " << x;
    }
  }
}

TEST(CImgHyperbolic, IsTheSameEverywhere) {
  std::vector<float> first[12];
  OnEveryPath([&](const StoreCase& store) {
    for (size_t i = 0; i < Hyperbolics().size(); i += 3) {
      for (const auto& [width, height] : Sizes()) {
        for (OptionalRect& rect : Windows(width, height)) {
          if (rect && i > 0) continue;
          const Hyperbolic parameters[] = {Hyperbolics()[i], Hyperbolics()[i + 1], Hyperbolics()[i + 2]};
          const auto src = Make(store.make(), width, height, 3, Wild(60, 1300));
          const auto target = Make<CImgHyperbolic>(src->VmManager(), width, height, 3, Random(0, 1, 7));
          ASSERT_EQ(target->Do(parameters, 0, src.get(), Address(rect), 0), 1);
          const HyperbolicCurve curves[] = {HyperbolicCurve(parameters[0]), HyperbolicCurve(parameters[1]),
                                            HyperbolicCurve(parameters[2])};
          const auto want = [&](int p, int x, int y) -> double {
            if (!IsInside(rect, x, y)) return static_cast<float>(Random(0, 1, 7)(p, x, y));
            const float v = src->GetPixelGrayRaw(x, y, p);
            if (!std::isfinite(v)) return v;
            const double min = target->GetLevelMin(p), range = target->GetLevelRange(p);
            const double exact = min + range * curves[p]((v - min) / range);
            const double got = target->GetPixelGrayRaw(x, y, p);
            return std::abs(got - exact) <= 3e-7 * std::max(range, std::abs(exact - min)) ? got : exact;
          };
          ASSERT_EQ(Difference(*target, want, 0), "") << store.name << " " << width << " " << i;
          if (width == 71 && !rect) {
            const auto pixels = Pixels(*target);
            if (first[i].empty()) first[i] = pixels;
            for (size_t n = 0; n < pixels.size(); ++n) {
              ASSERT_TRUE(pixels[n] == first[i][n] || std::isnan(pixels[n])) << store.name << " " << n;
            }
          }
        }
      }
    }
  });
}

TEST(CImgHyperbolic, SaturatedTonesStayFinite) {
  for (const auto& [amount, shape] : {std::pair(15.0, 0.0), {15, 0.01}, {15, 15}, {15, -15}, {15, -1}}) {
    const Hyperbolic parameters{amount, shape, 0.2, 0.1, 0.8};
    const auto src = Make(MemoryStore(), 1000, 1, 1, [](int, int x, int) { return x / 500.0 - 0.5; });
    for (const int inverse : {0, 1}) {
      const auto target = Make<CImgHyperbolic>(MemoryStore(), 1000, 1, 1, Random(0, 1));
      target->SetLevel(0, 0, 1);
      ASSERT_EQ(target->Do(&parameters, inverse, src.get(), nullptr, 0), 1);
      for (int x = 0; x < 1000; ++x) {
        ASSERT_TRUE(std::isfinite(target->GetPixelGrayRaw(x, 0, 0))) << amount << " " << shape << " " << x;
        if (x > 0) {
          ASSERT_GE(target->GetPixelGrayRaw(x, 0, 0), target->GetPixelGrayRaw(x - 1, 0, 0) - 2e-7f)
              << amount << " " << shape << " " << x << " " << inverse;
        }
      }
    }
  }
}

TEST(CImgHyperbolic, RefusesWhatHasNoMeaning) {
  const auto src = Make(MemoryStore(), 8, 8, 1, Random(0, 9));
  const auto target = Make<CImgHyperbolic>(MemoryStore(), 8, 8, 1, Random(0, 1));
  for (const Hyperbolic& wrong : std::vector<Hyperbolic>{{-1, 0, 0, 0, 1},
                                                         {16, 0, 0, 0, 1},
                                                         {NAN, 0, 0, 0, 1},
                                                         {1, NAN, 0, 0, 1},
                                                         {1, 16, 0, 0, 1},
                                                         {1, 0, 0.1, 0.2, 1},
                                                         {1, 0, 0.5, 0, 0.4},
                                                         {1, 0, 0.5, -0.1, 1},
                                                         {1, 0, 0.5, 0, 1.1}}) {
    EXPECT_EQ(target->Do(&wrong, 0, src.get(), nullptr, 0), 0);
  }
  const Hyperbolic line;
  EXPECT_EQ(Make<CImgHyperbolic>(MemoryStore(), 9, 8, 1, Random(0, 1))->Do(&line, 0, src.get(), nullptr, 0),
            0);
  EXPECT_EQ(Difference(
                *target, [](int p, int x, int y) { return float(Random(0, 1)(p, x, y)); }, 0),
            "");
}

}  // namespace
