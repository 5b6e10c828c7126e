// The filters along circles about a centre.
#include <numbers>

#include <gtest/gtest.h>

#include "korimg/restoration/CImgRUsm.h"
#include "korimg/restoration/CImgRttnGrdnt.h"

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

/// Bilinear, or nothing outside. Beyond the last column and row, the last two are drawn on, or the last goes
/// on.
double Sample(CVelImage& image, double x, double y, int p, bool clamped) {
  const int w = image.GetWidth(), h = image.GetHeight();
  if (!(x >= 0 && x < w && y >= 0 && y < h)) return 0;
  if (clamped) {
    x = std::min<double>(x, w - 1);
    y = std::min<double>(y, h - 1);
  }
  const int ix = x < w - 1 ? static_cast<int>(x) : std::max(w - 2, 0);
  const int iy = y < h - 1 ? static_cast<int>(y) : std::max(h - 2, 0);
  const double fx = x - ix, fy = y - iy;
  const auto at = [&](int px, int py) {
    return static_cast<double>(image.GetPixelGrayRaw(std::min(px, w - 1), std::min(py, h - 1), p));
  };
  if (fx == 0 && fy == 0) return at(ix, iy);
  return (1 - fy) * (1 - fx) * at(ix, iy) + fy * (1 - fx) * at(ix, iy + 1) + (1 - fy) * fx * at(ix + 1, iy) +
         fx * fy * at(ix + 1, iy + 1);
}

/// A place on a circle about a centre, by angle and radius. Within rounding of the image's edge it is neither
/// in nor out: `onEdge` says so.
struct Polar {
  double x, y;
  bool onEdge;

  Polar(double x, double y, bool onEdge) : x(x), y(y), onEdge(onEdge) {}
  Polar(CVelImage& image, double cx, double cy, double theta, double r)
      : x(std::sin(theta) * r + cx), y(std::cos(theta) * r + cy) {
    const auto near = [](double v, double edge) { return std::abs(v - edge) < 1e-9; };
    onEdge = near(x, 0) || near(y, 0) || near(x, image.GetWidth()) || near(y, image.GetHeight());
  }
};

struct Band {
  int dark = 0, highlight = 0, brighter = 0;
  double from = 0, fromRange = 0, to = 0, toRange = 0, percent = 0, radiusMin = 0;

  /// What becomes of a pixel by the band of its source's levels.
  double Finish(CVelImage& src, int p, double s, double v, double r) const {
    if (r <= radiusMin) return s;
    const auto raw = [&](double t) { return t / 255 * src.GetLevelRange(p) + src.GetLevelMin(p); };
    if (brighter && s > v) v += (s - v) * std::clamp(percent, 0.0, 100.0) / 100;
    double t = 1;
    if (dark && s < raw(from))
      t = s < raw(from - fromRange) ? 0 : (s - raw(from - fromRange)) / (raw(from) - raw(from - fromRange));
    if (highlight && s > raw(to))
      t = s > raw(to + toRange) ? 0 : (raw(to + toRange) - s) / (raw(to + toRange) - raw(to));
    return t == 0 ? s : t == 1 ? v : (1 - t) * s + t * v;
  }
};

const std::vector<Band> kBands = {
    {},
    {.radiusMin = 6.5},
    {.dark = 1, .highlight = 1, .from = 60, .fromRange = 40, .to = 190, .toRange = 30},
    {.dark = 1, .brighter = 1, .from = 20, .fromRange = 0, .percent = 30},
    {.highlight = 1, .brighter = 1, .to = 120, .toRange = 200, .percent = 300}};

struct Centre {
  double x, y;
};
std::vector<Centre> Centres(int width, int height) {
  return {{width / 2.0, height / 3.0},
          {static_cast<double>(width / 2), static_cast<double>(height / 2)},
          {-7.3, height + 2.6}};
}

bool SameBits(const std::vector<float>& a, const std::vector<float>& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](float x, float y) { return x == y || (std::isnan(x) && std::isnan(y)); });
}

TEST(CImgRttnGrdnt, EachPixelAgainstItsNeighboursOnTheCircle) {
  for (const auto& [width, height] : Sizes()) {
    for (const Centre& centre : Centres(width, height)) {
      for (const auto& [angle, k] : {std::pair(7.0, 0.0), {-25.0, 1.5}, {85.0, -3.0}, {0.0, 2.0}}) {
        for (size_t b = 0; b <= kBands.size(); ++b) {
          std::vector<float> first;
          for (const StoreCase& store : Stores()) {
            const WithThreads team(b == 1 && &store == &Stores()[2] ? 8 : 1);
            const auto src = Make(store.make(), width, height, 3, Wild(80, 1000));
            const auto target = Make<CImgRttnGrdnt>(src->VmManager(), width, height, 3, Random(0, 1, 7));
            OptionalRect rect;
            if (width == 71 && b % 3 == 0) rect = CRect(3, 2, 60, 100);
            const Band band = b ? kBands[b - 1] : Band{.radiusMin = -1};
            if (b) {
              target->Do(angle, k, centre.x, centre.y, band.radiusMin, band.dark, band.from, band.fromRange,
                         band.highlight, band.to, band.toRange, band.brighter, band.percent, 0, src.get(),
                         Address(rect), 0);
            } else {
              target->Do(angle, k, centre.x, centre.y, src.get(), Address(rect), 0);
            }
            const auto pixels = Pixels(*target);
            if (!first.empty()) {
              ASSERT_TRUE(SameBits(pixels, first)) << store.name;
              continue;
            }
            first = pixels;
            const auto want = [&, angle = angle, k = k](int p, int x, int y) -> double {
              if (!IsInside(rect, x, y)) return static_cast<float>(Random(0, 1, 7)(p, x, y));
              const double s = src->GetPixelGrayRaw(x, y, p), dx = x - centre.x, dy = y - centre.y;
              const double r = std::sqrt(dx * dx + dy * dy), theta = std::atan2(dx, dy);
              const double a = angle * std::numbers::pi / 180;
              Polar q1(*src, centre.x, centre.y, theta + a, r), q2(*src, centre.x, centre.y, theta - a, r);
              if (angle == 0) {
                for (Polar* q : {&q1, &q2}) {
                  *q = {static_cast<double>(x), static_cast<double>(y), false};
                }
              }
              if (q1.onEdge || q2.onEdge) return target->GetPixelGrayRaw(x, y, p);
              double v =
                  s * (k + 2) - Sample(*src, q1.x, q1.y, p, false) - Sample(*src, q2.x, q2.y, p, false);
              if (k != 0) v /= k;
              if (b && std::isinf(s)) return s;
              return b ? band.Finish(*src, p, s, v, r) : v;
            };
            ASSERT_EQ(Difference(*target, want, 1e-4), "")
                << width << "x" << height << " angle " << angle << " centre " << centre.x << " band " << b;
          }
        }
      }
    }
  }
}

TEST(CImgRttnGrdnt, NoTurnAndTheCentreGiveThePixelBack) {
  const auto src = Make(MemoryStore(), 31, 27, 1, Random(80, 1000));
  const auto target = Make<CImgRttnGrdnt>(MemoryStore(), 31, 27, 1, Random(0, 1));
  target->Do(0, 2, 10, 9, src.get(), nullptr, 0);
  EXPECT_EQ(Difference(*target, *src, 1e-6), "") << "at the edges too";
  target->Do(50, 3, 10, 9, src.get(), nullptr, 0);
  EXPECT_NEAR(target->GetPixelGrayRaw(10, 9, 0), src->GetPixelGrayRaw(10, 9, 0), 1e-3);
  EXPECT_GT(target->GetPixelGrayRaw(30, 26, 0), src->GetPixelGrayRaw(30, 26, 0)) << "outside is 0";
}

/// The mean along an arc, window by window.
double MeanOfArc(CVelImage& src, int p, const Centre& c, double theta, double r, double a, int segments,
                 double s, bool* onEdge) {
  const Polar q1(src, c.x, c.y, theta + a, r), q2(src, c.x, c.y, theta - a, r);
  *onEdge = q1.onEdge || q2.onEdge;
  if (!(Sample(src, q1.x, q1.y, p, true) > 0) || !(Sample(src, q2.x, q2.y, p, true) > 0)) return s;
  const double chord = std::hypot(q1.x - q2.x, q1.y - q2.y);
  *onEdge |= std::abs(chord - 1.5) < 1e-9 || std::abs(chord + 0.5 - std::round(chord + 0.5)) < 1e-9;
  if (chord < 1.5) return s;
  std::vector<float> samples;
  for (int i = 0; i < static_cast<int>(chord + 0.5); ++i) {
    const Polar at(src, c.x, c.y, theta - a + i * (a + a) / chord, r);
    *onEdge |= at.onEdge;
    if (at.x >= 0 && at.x < src.GetWidth() && at.y >= 0 && at.y < src.GetHeight()) {
      samples.push_back(static_cast<float>(Sample(src, at.x, at.y, p, true)));
    }
  }
  const int m = static_cast<int>(samples.size()), k = std::min(m / 2, segments);
  if (k < 1) return s;
  const double half = m * 0.5;
  double sum = 0;
  int windows = 0;
  for (double from = 0; from < half - 0.5; from += half / k, ++windows) {
    double window = 0;
    for (int i = 0; i < m / 2; ++i) {
      window += samples[static_cast<int>(from) + i];
    }
    sum += window / (m / 2);
  }
  return sum / windows;
}

TEST(CImgRUsm, EachPixelAgainstTheMeanOfItsArc) {
  const struct {
    double angle, strength;
    int segments, showMask;
  } cases[] = {{20, 1, 200, 0}, {-35, 2.5, 3, 0}, {100, 0, 1, 1},
               {12, 3.1, 7, 0}, {3, 0, 0, 0},     {15, 1, -2, 1}};
  for (const auto& [width, height] : Sizes()) {
    for (const Centre& centre : Centres(width, height)) {
      for (const auto& c : cases) {
        for (const Band& band : kBands) {
          if (width != 71 && &band != &kBands[1]) continue;
          std::vector<float> first;
          for (const StoreCase& store : Stores()) {
            for (const int threads : {1, 8}) {
              if (threads == 8 && &band != &kBands[1]) continue;  // the bits are the same
              const WithThreads team(threads);
              const WithFeatures simd(threads == 1 ? 0u : CKorSys::SIMD());
              const auto src = Make(store.make(), width, height, 3, [](int p, int x, int y) {
                if (p == 1 && x % 37 == 3 && y % 29 == 5) return std::nan("");
                if (p == 2 && x % 23 == 3 && y % 19 == 5) return -50.0;
                return Random(80, 1000)(p, x, y);
              });
              const auto target = Make<CImgRUsm>(src->VmManager(), width, height, 3, Random(0, 1, 7));
              OptionalRect rect;
              if (width == 71 && &band == &kBands[2]) rect = CRect(3, 2, 60, 100);
              target->Do(c.angle, c.strength, c.segments, 0, centre.x, centre.y, band.radiusMin, band.dark,
                         band.from, band.fromRange, band.highlight, band.to, band.toRange, band.brighter,
                         band.percent, 0, c.showMask, src.get(), Address(rect), 0);
              const auto pixels = Pixels(*target);
              if (!first.empty()) {
                ASSERT_TRUE(SameBits(pixels, first)) << store.name << " " << threads;
                continue;
              }
              first = pixels;
              const auto want = [&](int p, int x, int y) -> double {
                if (!IsInside(rect, x, y)) return static_cast<float>(Random(0, 1, 7)(p, x, y));
                const double s = src->GetPixelGrayRaw(x, y, p), dx = x - centre.x, dy = y - centre.y;
                if (std::isnan(s)) return s;
                const double r = std::sqrt(dx * dx + dy * dy), a = c.angle * std::numbers::pi / 180;
                bool onEdge = false;
                const double mean = r > band.radiusMin ? MeanOfArc(*src, p, centre, std::atan2(dx, dy), r, a,
                                                                   c.segments, s, &onEdge)
                                                       : s;
                if (onEdge) return target->GetPixelGrayRaw(x, y, p);
                return band.Finish(*src, p, s, c.showMask ? mean : (s - mean) * (3.1 - c.strength) + s, r);
              };
              ASSERT_EQ(Difference(*target, want, 5e-5), "")
                  << width << "x" << height << " angle " << c.angle << " segments " << c.segments
                  << " centre " << centre.x << " band " << &band - kBands.data();
            }
          }
        }
      }
    }
  }
}

TEST(CImgRUsm, ArcsAcrossManyPlacesKeepTheirPhase) {
  // A spoke pattern, whose mean over whole turns of it is its middle.
  const auto src = Make(MemoryStore(), 1200, 40, 1, [](int, int x, int y) {
    return 500 + 200 * std::cos(36 * std::atan2(x + 300.0, y - 20.0));
  });
  const auto target = Make<CImgRUsm>(MemoryStore(), 1200, 40, 1, Random(0, 1));
  target->Do(0.6, 0, 500, 0, -300, 20, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, src.get(), nullptr, 0);
  bool onEdge;
  for (const int x : {400, 777, 1199}) {
    const double s = src->GetPixelGrayRaw(x, 20, 0);
    const double want = MeanOfArc(*src, 0, {-300, 20}, std::atan2(x + 300.0, 0), x + 300.0,
                                  0.6 * std::numbers::pi / 180, 500, s, &onEdge);
    EXPECT_NEAR(target->GetPixelGrayRaw(x, 20, 0), want, 1e-3);
    EXPECT_GT(std::abs(want - s), 0.1);
  }
}

TEST(CImgRUsm, LuminanceIsWrittenToAllPlanesOnTheirScales) {
  const int showMask = 0;
  for (const StoreCase& store : Stores()) {
    const auto src = Make(store.make(), 71, 67, 3, Random(150, 800));
    const auto target = Make<CImgRUsm>(src->VmManager(), 71, 67, 3, Random(0, 1, 7));
    const auto grey = Make(src->VmManager(), 71, 67, 1, [&](int, int x, int y) {
      return src->ToRaw(static_cast<double>(src->GetPixelBright256f(x, y)), 0);
    });
    const auto one = Make<CImgRUsm>(src->VmManager(), 71, 67, 1, Random(0, 1));
    one->Do(20, 1, 50, 1, 30, 20, 3, 1, 40, 30, 0, 0, 0, 0, 0, 1, showMask, grey.get(), nullptr, 0);
    CRect rect(5, 6, 60, 50);
    target->Do(20, 1, 50, 1, 30, 20, 3, 1, 40, 30, 0, 0, 0, 0, 0, 1, showMask, src.get(), &rect, 0);
    EXPECT_EQ(Difference(
                  *target,
                  [&](int p, int x, int y) -> double {
                    if (x < 5 || x >= 60 || y < 6 || y >= 50)
                      return static_cast<float>(Random(0, 1, 7)(p, x, y));
                    return target->ToRaw(target->To256(static_cast<double>(one->GetPixelGrayRaw(x, y, 0)), 0),
                                         p);
                  },
                  1e-5),
              "")
        << store.name;
  }
}

TEST(CImgRUsm, EscapeEndsItAfterALine) {
  const WithThreads alone(1);
  HWND window = korimg::CreateMessageWindow([](unsigned, std::uintptr_t, std::intptr_t) { return 0; });
  const auto store = MemoryStore();
  const auto source = Make(store, 60, 200, 2, Random(100, 900));
  const auto target = Make<CImgRUsm>(store, 60, 200, 2, [](int, int, int) { return -1.0; });
  target->SetProgressHandle(window);
  PostMessageW(window, WM_KEYDOWN, VK_ESCAPE, 0);
  const int mean = 0;
  target->Do(10, 1, 20, 0, 30, 100, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, mean, source.get(), nullptr, 1);
  const auto pixels = Pixels(*target);
  EXPECT_EQ(std::count(pixels.begin(), pixels.end(), -1.0f), 60 * 399);
  korimg::DestroyMessageWindow(window);
}

TEST(RotationalFilters, MarkTheirCentre) {
  for (const StoreCase& store : Stores()) {
    for (const auto& [x, y, drawn] :
         {std::tuple(30.7, 20.2, true), {4.9, 20.0, false}, {30.0, 50.0, false}, {30.0, NAN, false}}) {
      const auto src = Make(store.make(), 71, 67, 3, Random(150, 800));
      const auto with = Make<CImgRttnGrdnt>(src->VmManager(), 71, 67, 3, Random(0, 1, 7)),
                 without = Make<CImgRttnGrdnt>(src->VmManager(), 71, 67, 3, Random(0, 1, 7));
      CRect rect(5, 6, 60, 50);
      for (const auto& [image, mark] : {std::pair(with, 1), {without, 0}}) {
        image->Do(20, 1, x, y, 3, 0, 0, 0, 0, 0, 0, 0, 0, mark, src.get(), &rect, 0);
      }
      const double black = with->GetLevelMin(0), white = black + with->GetLevelRange(0);
      EXPECT_EQ(Difference(
                    *with,
                    [&, drawn = drawn](int p, int px, int py) -> double {
                      const bool inside = px >= 5 && px < 60 && py >= 6 && py < 50 && p == 0 && drawn;
                      if (inside && py == 20) return px % 2 ? black : white;
                      if (inside && px == 30) return py % 2 ? black : white;
                      return without->GetPixelGrayRaw(px, py, p);
                    },
                    1e-6),
                "")
          << store.name << " " << x << " " << y;
    }
  }
}

}  // namespace
