#include <gtest/gtest.h>

#include "korimg/levels/CImgToneCurve.h"

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

using Table = std::vector<float>;

/// A table of `count` values of a curve from 0 to 1.
Table Sampled(int count, const std::function<double(double)>& curve) {
  Table table;
  for (int i = 0; i < count; ++i) {
    table.push_back(static_cast<float>(curve(static_cast<double>(i) / (count - 1))));
  }
  return table;
}

/// A table's result on the 256 scale, by its definition.
double Look(const Table& table, double x) {
  const int n = static_cast<int>(table.size()) - 1;
  if (x >= 0 && x <= 255) return table[static_cast<size_t>(x * (n / 255.0))] * 255.0;
  if (std::isnan(x)) return x;
  if (x < 0) return 0;
  const double end = table[n] * 255.0, rise = table[n] - table[n - 1];
  return rise > 0 ? end + rise * n * (x - end) : end;
}

/// Empty when the image holds curve(plane, t) of the source's pixels t on the 256 scale, found in floats: a
/// pixel within rounding of a step of the table may take either side of it.
std::string CurveDifference(CVelImage& image, CVelImage& src,
                            const std::function<double(int, double)>& curve) {
  return Difference(
      image,
      [&](int p, int x, int y) {
        const double min = image.GetLevelMin(p), k = 255 / image.GetLevelRange(p);
        const double t = (static_cast<double>(src.GetPixelGrayRaw(x, y, p)) - min) * k;
        const double got = image.GetPixelGrayRaw(x, y, p);
        double best = curve(p, t) / k + min;
        for (const double near :
             {t * (1 - 1e-6), t * (1 + 1e-6), t - 2e-4, t + 2e-4, std::abs(t - 255) < 1e-3 ? 255 : t}) {
          const double side = curve(p, near) / k + min;
          if (std::abs(side - got) < std::abs(best - got)) best = side;
        }
        return best;
      },
      1e-5);
}

struct Curves {
  const char* name;
  Table master, planes[3];
};

std::vector<Curves> Cases() {
  const auto line = [](double v) { return v; };
  const auto root = [](double v) { return std::sqrt(v); };
  const auto dim = [](double v) { return 0.4 * v; };
  const auto fall = [](double v) { return 1 - 0.5 * v; };
  const auto flat = [](double v) { return v < 0.5 ? v : 0.5; };
  return {
      {"two values", Sampled(2, line), {Sampled(2, dim), Sampled(2, fall), Sampled(2, flat)}},
      {"identity", Sampled(256, line), {Sampled(256, line), Sampled(256, line), Sampled(256, line)}},
      {"ends below 1", Sampled(256, root), {Sampled(256, dim), Sampled(256, flat), Sampled(256, root)}},
      {"falling, long", Sampled(4097, fall), {Sampled(4097, root), Sampled(4097, fall), Sampled(4097, dim)}}};
}

TEST(CImgToneCurve, TablesHoldInsideAndBeyondTheirEnds) {
  std::vector<Curves> cases = Cases();
  for (Curves& c : cases) {
    const int count = static_cast<int>(c.master.size());
    float* curves[] = {c.master.data(), c.planes[0].data(), c.planes[1].data(), c.planes[2].data()};
    for (const int planes : {1, 3}) {
      OnEveryPath([&](const StoreCase& store) {
        for (const auto& [width, height] : {std::pair(71, 67), {1, 3}}) {
          // From well below black to well above white, with the ends of the scale themselves.
          const auto src = Make(store.make(), width, height, planes, Wild(-300, 1600));
          const auto target = Make<CImgToneCurve>(store.make(), width, height, planes, Random(0, 1));
          Paint(*src, [&](int p, int x, int y) -> double {
            if ((x + y) % 11 == 5) return src->GetLevelMin(p);
            if ((x + y) % 11 == 7) return src->GetLevelMax(p);
            return Wild(-300, 1600)(p, x, y);
          });
          target->Do(curves, count, src.get(), nullptr, 0, 0);
          const auto curve = [&](int p, double t) {
            return Look(c.master, planes == 3 ? Look(c.planes[p], t) : t);
          };
          ASSERT_EQ(CurveDifference(*target, *src, curve), "")
              << c.name << ' ' << store.name << ' ' << planes;
        }
      });
    }
  }
}

TEST(CImgToneCurve, ALevelsMaximumLiesOnTheTable) {
  for (const StoreCase& store : Stores()) {
    // It ends at 102, in steps of 0.4, and goes on from 163.2.
    Table dim = Sampled(256, [](double v) { return 0.4 * v; });
    float* curves[] = {dim.data()};
    for (int i = 0; i < 400; ++i) {
      const double min = -2000 + 9000 * Noise(i), range = std::pow(10, 4 * Noise(1000 + i)) + 5;
      const auto src = Make(store.make(), 3, 1, 1, [&](int, int x, int) {
        return x == 0 ? min + range : x == 1 ? min + range * 1.001 : NAN;
      });
      const auto target = Make<CImgToneCurve>(store.make(), 3, 1, 1, Random(0, 1));
      target->SetLevel(0, min, min + range);
      target->Do(curves, 256, src.get(), nullptr, 0, 0);
      const auto result = [&](int x) { return (target->GetPixelGrayRaw(x, 0, 0) - min) / range * 255; };
      ASSERT_NEAR(result(0), 102, 0.5) << store.name << min << " " << range;
      ASSERT_NEAR(result(1), 163.302, 0.1) << store.name << min << " " << range;
      ASSERT_TRUE(std::isnan(result(2))) << store.name;
    }
  }
}

TEST(CImgToneCurve, ALineAboveTheTableMayLeadBackOntoTheMaster) {
  for (const StoreCase& store : Stores()) {
    const auto src = Make(store.make(), 2, 1, 3, [](int, int x, int) { return 256 + x; });
    const auto target = Make<CImgToneCurve>(store.make(), 2, 1, 3, Random(0, 1));
    for (int p = 0; p < 3; ++p) {
      target->SetLevel(p, 0, 255);
    }
    // Plane 0's table ends at 510 with a slope of 2: 256 leads to 2, and 257 to 4, of which the master makes
    // twice as much again.
    target->DoHAlpha(2, 4, src.get(), nullptr, 0);
    EXPECT_NEAR(target->GetPixelGrayRaw(0, 0, 0), 4, 1e-3) << store.name;
    EXPECT_NEAR(target->GetPixelGrayRaw(1, 0, 0), 8, 1e-3) << store.name;
  }
}

TEST(CImgToneCurve, KeepsTheRestOfAWindowAndIgnoresTablesOfOneValue) {
  OnEveryPath([&](const StoreCase& store) {
    for (OptionalRect window : Windows(40, 33)) {
      const auto src = Make(store.make(), 40, 33, 1, Random(100, 900));
      const auto whole = Make<CImgToneCurve>(store.make(), 40, 33, 1, Random(0, 1));
      const auto part = Make<CImgToneCurve>(store.make(), 40, 33, 1, Random(0, 1));
      Table table = Sampled(64, [](double v) { return v * v; });
      float* curves[] = {table.data()};
      whole->Do(curves, 64, src.get(), nullptr, 0, 0);
      part->Do(curves, 1, src.get(), nullptr, 0, 0);
      ASSERT_EQ(Difference(*part, Random(0, 1), 1e-6), "");
      part->Do(curves, 64, src.get(), Address(window), 0, 0);
      int left, top, right, bottom;
      part->NormalizeRect(Address(window), left, top, right, bottom);
      const auto expected = [&](int p, int x, int y) -> double {
        const bool inside = x >= left && x < right && y >= top && y < bottom;
        return inside ? whole->GetPixelGrayRaw(x, y, p) : Random(0, 1)(p, x, y);
      };
      ASSERT_EQ(Difference(*part, expected, 1e-6), "") << store.name;
    }
  });
}

TEST(CImgToneCurve, HAlphaBendsBelowTheKnee) {
  for (const double knee : {0.0, 0.25, 2.0, std::nan("")}) {
    const auto src = Make(MemoryStore(), 256, 1, 3,
                          [](int p, int x, int) { return 130 + 7 * p + x * 0.99 * (940 + 33 * p) / 255; });
    const auto target = Make<CImgToneCurve>(MemoryStore(), 256, 1, 3, Random(0, 1));
    target->DoHAlpha(knee, 0.5, src.get(), nullptr, 0);
    const double w = knee * 255;
    const auto bend = [&](int i) { return i < std::trunc(w) ? i / w * 0.5 * 255 : i; };
    const auto curve = [&](int p, double t) {
      const double u = p == 0 ? bend(static_cast<int>(t)) : static_cast<int>(t);
      return bend(static_cast<int>(static_cast<float>(u / 255) * 255.0));
    };
    EXPECT_EQ(CurveDifference(*target, *src, curve), "") << knee;
  }
  const auto src = Make(MemoryStore(), 9, 9, 3, Random(50, 60));
  const auto target = Make<CImgToneCurve>(MemoryStore(), 9, 9, 3, Random(0, 1));
  target->DoHAlphaLevel(1.5, src.get());
  src->CalcMinMax(0);
  for (int p = 0; p < 3; ++p) {
    EXPECT_EQ(target->GetLevelMin(p), src->GetMinPixel(0));
    EXPECT_EQ(target->GetLevelMax(p), src->GetMaxPixel(0) * 1.5);
  }
}

}  // namespace
