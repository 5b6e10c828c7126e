#include <bit>

#include <gtest/gtest.h>

#include "korimg/filters/CFilterMatrix.h"
#include "korimg/filters/CImgFilterSpecial.h"

#include "tests/filters/Reference.h"

using namespace korimg::test;

namespace {

using Filter = std::function<void(CImgFilterSpecial&, CVelImage&, CRect*)>;
using Expected = std::function<PixelRule(CVelImage& src, bool paged)>;

/// Runs a filter over stores, threads, sizes and windows, and compares.
void Check(const PixelRule& pixels, const Filter& run, const Expected& expected, double tolerance) {
  OnEveryStore([&](const StoreCase& store) {
    for (const auto& [width, height] : {std::pair(1, 1), {3, 2}, {65, 1}, {1, 71}, {71, 83}}) {
      const auto src = Make(store.make(), width, height, 3, pixels);
      const PixelRule inside = expected(*src, store.name == "paged");
      for (OptionalRect rect : {OptionalRect(), OptionalRect(CRect(31, 22, width - 3, height - 1))}) {
        if (rect && width < 71) continue;
        const auto target = Make<CImgFilterSpecial>(src->VmManager(), width, height, 3, Random(0, 1, 7));
        run(*target, *src, Address(rect));
        const auto want = [&](int p, int x, int y) -> double {
          return IsInside(rect, x, y) ? inside(p, x, y) : static_cast<float>(Random(0, 1, 7)(p, x, y));
        };
        ASSERT_EQ(Difference(*target, want, tolerance), "") << store.name << " " << width << "x" << height;
      }
    }
  });
}

PixelRule Rounded(PixelRule rule) {
  return [rule = std::move(rule)](int p, int x, int y) { return std::round(rule(p, x, y)); };
}

double RawThreshold(const CVelImage& src, int p, double threshold) {
  return threshold * 256 / 255 * src.GetLevelRange(p);
}

TEST(StarSharpFilter, TakesAPlaceBetweenTheRanksOfADisc) {
  struct Case {
    double r[3], rank[3], threshold[3];
    int keepPeak;
  };
  for (const Case& c :
       {Case{{1, 1.5, 2}, {1.5, 8, 0}, {0, 0, 0}, 0}, Case{{1, 1.5, 2}, {1.5, 8, 0}, {0.237, 0.637, 0}, 1},
        Case{{3, 4, 0.3}, {14.5, 0.25, 3}, {0.437, 0, 0}, 1},
        Case{{5, 7, 1}, {40.75, 148, -3}, {0, 0.237, 0}, 1},
        Case{{6, 1, 1}, {1e9, 2.5, 4}, {0, 0, 0.237}, 0}}) {
    Check(
        Rounded(Wild(-3, 9)),
        [copy = c](CImgFilterSpecial& target, CVelImage& src, CRect* rect) mutable {
          target.StarSharpFilter(copy.r, copy.rank, copy.threshold, copy.keepPeak, &src, rect, 0);
        },
        [&](CVelImage& src, bool) -> PixelRule {
          return [&](int p, int x, int y) -> double {
            const auto v =
                Sorted(src, p, x, y, std::max<int>(std::ceil(c.r[p]), 1), Folded, Nearest, Disc(c.r[p]));
            const double s = src.GetPixelGrayRaw(x, y, p), last = static_cast<double>(v.size()) - 1;
            const double rank = std::clamp(c.rank[p], 0.0, last), below = std::floor(rank);
            const double low = v[static_cast<int>(below)], high = v[static_cast<int>(std::ceil(rank))];
            double result = low == high || std::isnan(low) ? low : (high - low) * (rank - below) + low;
            if (c.threshold[p] != 0 && c.threshold[p] > std::abs(result / v.back() - 1)) result = s;
            return std::isnan(s) || (c.keepPeak && v.back() == s) ? s : result;
          };
        },
        1e-6);
  }
  EXPECT_EQ(CImgFilterSpecial().GetStarSharpFilterNum(3), 29);
  EXPECT_EQ(CImgFilterSpecial().GetStarSharpFilterNum(1.5), 9);
}

/// The pixels of a plane and beyond its edges, through one stage after the other.
class Stage {
 public:
  static constexpr int kMargin = 20;

  template <class F>
  Stage(int width, int height, F&& value) : width_(width), height_(height) {
    for (int y = -kMargin; y < height + kMargin; ++y) {
      for (int x = -kMargin; x < width + kMargin; ++x) {
        values_.push_back(value(x, y));
      }
    }
  }
  double operator()(int x, int y) const {
    const auto limit = [](int i, int n) { return std::clamp(i, -kMargin, n + kMargin - 1) + kMargin; };
    return values_[static_cast<size_t>(limit(y, height_)) * (width_ + 2 * kMargin) + limit(x, width_)];
  }
  /// Sums weights over both axes; columns beyond the edges are those at the edges, or what a stage made of
  /// them.
  Stage Filtered(const std::vector<double>& weights, bool nearest) const {
    const int r = static_cast<int>(weights.size()) / 2;
    return Stage(width_, height_, [&](int x, int y) {
      double sum = 0;
      for (int dy = -r; dy <= r; ++dy) {
        for (int dx = -r; dx <= r; ++dx) {
          sum +=
              weights[r + dx] * weights[r + dy] * (*this)(nearest ? Nearest(x + dx, width_) : x + dx, y + dy);
        }
      }
      return sum;
    });
  }
  template <class F>
  Stage Mapped(F&& f) const {
    return Stage(width_, height_, [&](int x, int y) { return f((*this)(x, y)); });
  }

 private:
  int width_, height_;
  std::vector<double> values_;
};

/// The map of the stars of each plane. By lines, columns repeat the edge in each stage; by pipelines all
/// mirrors.
std::function<double(int, int, int)> StarMaps(CVelImage& src, const std::vector<double>& first,
                                              const std::function<std::vector<double>(int)>& last,
                                              const double threshold[], bool limits, bool lines) {
  std::vector<Stage> maps;
  const int width = src.GetWidth(), height = src.GetHeight();
  for (int p = 0; p < src.GetPlanes(); ++p) {
    const double least = RawThreshold(src, p, threshold[p]);
    const Stage plane(width, height, [&](int x, int y) {
      const double s = lines ? src.GetPixelGrayRaw(Nearest(x, width), Folded(y, height), p)
                             : src.GetPixelGrayRaw(Interior(x, width), Interior(y, height), p);
      return limits ? std::clamp(s, src.GetLevelMin(p), src.GetLevelMax(p)) : s;
    });
    const Stage smoothed = plane.Filtered(first, lines).Mapped([](double v) { return std::abs(v); });
    const Stage box = smoothed.Filtered({1, 1, 1}, lines);
    const Stage stars(width, height, [&](int x, int y) {
      const double high = std::abs(9 * smoothed(lines ? Nearest(x, width) : x, y) - box(x, y));
      return high < least ? 0 : high;
    });
    maps.push_back(stars.Filtered(last(p), lines));
  }
  return [maps = std::move(maps)](int p, int x, int y) { return maps[p](x, y); };
}

/// Sky below black here and there, and pixels above white.
const PixelRule kField = Random(0, 1200);

TEST(StarEnhanceFilter, AddsTheMapOfACutOffGaussian) {
  for (const double sigma : {0.0, 0.2, 0.8, 2.5}) {
    for (const int showMask : {0, 1}) {
      const double threshold[] = {0.237, 0.237, 0.237};
      // Two pixels to either side of a row that was normalised as a whole.
      std::vector<double> first = GaussianRow(sigma), last = GaussianRow(1.0);
      const auto middle = first.begin() + static_cast<std::ptrdiff_t>(first.size() / 2);
      if (first.size() > 5) first = std::vector<double>(middle - 2, middle + 3);
      last = {last[2], last[3], last[4]};
      const double sum = last[0] + last[1] + last[2];
      for (double& w : last) {
        w /= sum;
      }
      Check(
          kField,
          [&](CImgFilterSpecial& target, CVelImage& src, CRect* rect) {
            target.StarEnhanceFilter(sigma, 1.5, 0.237, showMask, &src, rect, 0);
          },
          [&](CVelImage& src, bool) -> PixelRule {
            return
                [&, map = StarMaps(
                        src, first, [&](int) { return last; }, threshold, true, true)](int p, int x, int y) {
                  return (showMask ? src.GetLevelMin(p) : src.GetPixelGrayRaw(x, y, p)) + 1.5 * map(p, x, y);
                };
          },
          1e-5);
    }
  }
}

TEST(StarEnhanceFilter, AddsAWideMap) {
  double sigma[] = {1.3, 0.0, 3.0}, mag[] = {0.5, 1.25, 2}, threshold[] = {0.237, 0.137, 0};
  for (const int showMask : {0, 1}) {
    Check(
        kField,
        [&](CImgFilterSpecial& target, CVelImage& src, CRect* rect) {
          target.StarEnhanceFilter2(sigma, mag, threshold, showMask, &src, rect, 0);
        },
        [&](CVelImage& src, bool) -> PixelRule {
          return [&, map = StarMaps(
                         src, GaussianRow(1), [&](int p) { return GaussianRow(sigma[p]); }, threshold, false,
                         false)](int p, int x, int y) {
            return (showMask ? src.GetLevelMin(p) : src.GetPixelGrayRaw(x, y, p)) + mag[p] * map(p, x, y);
          };
        },
        1e-5);
  }
}

TEST(StaryMask, IsTheMapOrItsMeanWithTheImage) {
  for (const double sigma : {0.0, 1.3, 3.0}) {
    for (const int blend : {0, 1}) {
      const double threshold[] = {0.137, 0.137, 0.137};
      Check(
          kField,
          [&](CImgFilterSpecial& target, CVelImage& src, CRect* rect) {
            target.StaryMask(sigma, 1.7, 0.137, blend, &src, rect, 0);
          },
          [&](CVelImage& src, bool paged) -> PixelRule {
            return [&, map = StarMaps(
                           src, GaussianRow(1), [&](int) { return GaussianRow(sigma); }, threshold, true,
                           paged)](int p, int x, int y) {
              const double m = 1.7 * map(p, x, y);
              return (blend ? (m + src.GetPixelGrayRaw(x, y, p)) / 2 : m) + src.GetLevelMin(p);
            };
          },
          1e-5);
    }
  }
}

TEST(StarFilters, FlatSkyAndThresholdsAboveAllLeaveNoStars) {
  for (const StoreCase& store : Stores()) {
    const auto flat = Make(store.make(), 40, 30, 1, [](int, int, int) { return 437.5; });
    const auto field = Make(store.make(), 40, 30, 1, kField);
    const auto target = Make<CImgFilterSpecial>(flat->VmManager(), 40, 30, 1, Random(0, 1));
    double sigma = 3, mag = 2, none = 255, some = 0.05, zero = 0, r = 2;
    target->StaryMask(sigma, 1, some, 0, flat.get(), nullptr, 0);
    EXPECT_EQ(Difference(
                  *target, [](int, int, int) { return 100; }, 0),
              "")
        << "black";
    target->StarEnhanceFilter(sigma, mag, none, 0, field.get(), nullptr, 0);
    EXPECT_EQ(Difference(*target, *field), "");
    target->StarEnhanceFilter2(&sigma, &mag, &none, 0, field.get(), nullptr, 0);
    EXPECT_EQ(Difference(*target, *field), "");
    target->NebularSmootherFilter(&sigma, &some, &r, 0, flat.get(), nullptr, 0);
    EXPECT_EQ(Difference(*target, *flat), "") << "to the bit";
    target->NebularSmootherFilter(&sigma, &some, &r, 1, flat.get(), nullptr, 0);
    EXPECT_EQ(Difference(
                  *target, [](int, int, int) { return 900; }, 0),
              "")
        << "white";
    target->NebularSmootherFilter(&sigma, &zero, &r, 0, field.get(), nullptr, 0);
    EXPECT_EQ(Difference(*target, *field), "") << "all are stars";
  }
}

TEST(StarFilters, NanSpoilsNoMoreThanTheFiltersReach) {
  for (const StoreCase& store : Stores()) {
    const auto src = Make(store.make(), 60, 40, 1,
                          [](int, int x, int y) { return x == 30 && y == 20 ? NAN : kField(0, x, y); });
    const auto target = Make<CImgFilterSpecial>(src->VmManager(), 60, 40, 1, Random(0, 1));
    const auto check = [&](int reach, const char* what) {
      ASSERT_TRUE(std::isnan(target->GetPixelGrayRaw(30, 20, 0))) << what;
      for (int y = 0; y < 40; ++y) {
        for (int x = 0; x < 60; ++x) {
          const bool near = std::abs(x - 30) <= reach && std::abs(y - 20) <= reach;
          ASSERT_TRUE(near || std::isfinite(target->GetPixelGrayRaw(x, y, 0))) << what << x << " " << y;
        }
      }
    };
    double one = 1, zero = 0, some = 0.1, two = 2, middle = 6;
    target->StarEnhanceFilter(1, 1, 0.1, 0, src.get(), nullptr, 0);
    check(2 + 1 + 1, "lines");
    target->StarEnhanceFilter2(&one, &one, &some, 0, src.get(), nullptr, 0);
    check(3 + 1 + 3, "pipeline");
    target->StarEnhanceFilter2(&zero, &one, &some, 0, src.get(), nullptr, 0);
    check(3 + 1, "no last Gaussian");
    target->StaryMask(1, 1, 0.1, 0, src.get(), nullptr, 0);
    check(3 + 1 + 3, "mask");
    target->StaryMask(0, 1, 0.1, 0, src.get(), nullptr, 0);
    check(3 + 1, "mask without a last Gaussian");
    target->StarSharpFilter(&two, &middle, &zero, 1, src.get(), nullptr, 0);
    check(0, "ranks");
    target->NebularSmootherFilter(&two, &two, &two, 0, src.get(), nullptr, 0);
    check(0, "sky");
  }
}

/// Noise with a star here and there, in whole numbers: what is a star is not a matter of rounding.
PixelRule Sky() {
  return Rounded([noise = Random(0, 60), star = Random(0, 1, 3)](int p, int x, int y) {
    return 300 + noise(p, x, y) + (star(p, x, y) > 0.985 ? 700 : 0);
  });
}

TEST(NebularSmootherFilter, SmoothsWhatIsNoStar) {
  struct Case {
    double sigma[3], threshold[3], r[3];
  };
  // Of the second, discs reach more rows than the Gaussians' 2 and 1.
  for (const Case& c : {Case{{1.3, 3.0, 0.6}, {1.037, 1.037, 1.037}, {1.5, 2.0, 0.0}},
                        Case{{0.5, 0.0, 2.0}, {1.037, 0.537, 2.037}, {6.0, 3.5, 2.0}}}) {
    for (const PixelRule& pixels : {Sky(), Rounded(Wild(290, 340))}) {
      for (const int showMask : {0, 1}) {
        Check(
            pixels,
            [&, copy = c](CImgFilterSpecial& target, CVelImage& src, CRect* rect) mutable {
              target.NebularSmootherFilter(copy.sigma, copy.threshold, copy.r, showMask, &src, rect, 0);
            },
            [&](CVelImage& src, bool) -> PixelRule {
              const int width = src.GetWidth(), height = src.GetHeight();
              std::vector<std::vector<bool>> stars(3);
              for (int p = 0; p < 3; ++p) {
                for (int i = 0; i < width * height; ++i) {
                  double high = 9.0 * src.GetPixelGrayRaw(i % width, i / width, p);
                  Around(src, p, i % width, i / width, 1, Folded, Nearest,
                         [&](int, int, double pixel) { high -= pixel; });
                  stars[p].push_back(!(RawThreshold(src, p, c.threshold[p]) > std::abs(high)));
                }
              }
              return [&, width, height, stars](int p, int x, int y) -> double {
                const double s = src.GetPixelGrayRaw(x, y, p);
                const std::vector<double> row = GaussianRow(c.sigma[p]);
                const int r = static_cast<int>(row.size()) / 2, reach = std::max<int>(std::ceil(c.r[p]), 1);
                const double white = src.GetLevelMax(p), black = src.GetLevelMin(p);
                for (int dy = -std::min(r, reach); dy <= std::min(r, reach); ++dy) {
                  for (int dx = -reach; dx <= reach; ++dx) {
                    const int u = x + dx, v = y + dy;
                    const bool inside = u >= 0 && u < width && v >= 0 && v < height;
                    if (inside && Disc(c.r[p])(dx, dy) && stars[p][v * width + u])
                      return showMask ? white : s;
                  }
                }
                double sum = 0, weights = 0;
                for (int dy = -r; dy <= r; ++dy) {
                  for (int dx = -r; dx <= r; ++dx) {
                    const int u = Nearest(x + dx, width), v = Nearest(y + dy, height);
                    if (stars[p][v * width + u]) continue;
                    sum += row[r + dx] * row[r + dy] * src.GetPixelGrayRaw(u, v, p);
                    weights += row[r + dx] * row[r + dy];
                  }
                }
                const auto mean = static_cast<float>(sum / weights);
                return showMask ? (mean == s ? white : black) : mean;
              };
            },
            2e-7);
      }
    }
  }
}

TEST(NebularSmootherFilter, AgreesWithTheKernelsSumToAUnitInTheLastPlace) {
  // Without stars, over the cells of the kernel in floats.
  for (double sigma : {0.7, 2.0, 5.0}) {
    const auto src = Make(MemoryStore(), 90, 80, 1, Random(1, 60000));
    const auto target = Make<CImgFilterSpecial>(MemoryStore(), 90, 80, 1, Random(0, 1));
    double never = 1e9, r = 1;
    target->NebularSmootherFilter(&sigma, &never, &r, 0, src.get(), nullptr, 0);
    CFilterMatrix kernel;
    kernel.MakeGaussian(sigma);
    for (int y = 0; y < 80; ++y) {
      for (int x = 0; x < 90; ++x) {
        double sum = 0, weights = 0;
        Around(*src, 0, x, y, kernel.GetR(), Nearest, Nearest, [&](int dx, int dy, double pixel) {
          sum += static_cast<double>(kernel.GetPrm(dx, dy)) * pixel;
          weights += kernel.GetPrm(dx, dy);
        });
        const auto want = std::bit_cast<int>(static_cast<float>(sum / weights));
        const auto got = std::bit_cast<int>(target->GetPixelGrayRaw(x, y, 0));
        ASSERT_LE(std::abs(got - want), 1) << sigma << " " << x << " " << y;
      }
    }
  }
}

TEST(StarFilters, OneThreadAndEightGiveTheSameBits) {
  double sigma[] = {2, 3, 1}, mag[] = {1, 1, 1}, threshold[] = {0.1, 0.2, 0.5}, r[] = {2, 3, 5};
  double rank[] = {5.5, 14.5, 33};
  const std::vector<Filter> runs = {
      [&](auto& t, auto& s, CRect* rect) { t.StarSharpFilter(r, rank, threshold, 1, &s, rect, 0); },
      [&](auto& t, auto& s, CRect* rect) { t.StarEnhanceFilter(1, 1, 0.1, 0, &s, rect, 0); },
      [&](auto& t, auto& s, CRect* rect) { t.StarEnhanceFilter2(sigma, mag, threshold, 0, &s, rect, 0); },
      [&](auto& t, auto& s, CRect* rect) { t.StaryMask(2, 1, 0.1, 0, &s, rect, 0); },
      [&](auto& t, auto& s, CRect* rect) { t.NebularSmootherFilter(sigma, threshold, r, 0, &s, rect, 0); }};
  for (const StoreCase& store : Stores()) {
    const auto src = Make(store.make(), 131, 97, 3, kField);
    for (const Filter& run : runs) {
      std::shared_ptr<CImgFilterSpecial> results[3];
      CRect part(17, 23, 120, 90);
      for (const int i : {0, 1, 2}) {
        const WithThreads team(i == 1 ? 8 : 1);
        results[i] = Make<CImgFilterSpecial>(src->VmManager(), 131, 97, 3, Random(0, 1));
        run(*results[i], *src, i == 2 ? &part : nullptr);
      }
      EXPECT_EQ(Difference(*results[1], *results[0]), "") << store.name << " " << &run - runs.data();
      // A window is a part of the whole.
      for (int y = part.top; y < part.bottom; ++y) {
        for (int x = part.left; x < part.right; ++x) {
          ASSERT_EQ(results[2]->GetPixelGrayRaw(x, y, 1), results[0]->GetPixelGrayRaw(x, y, 1))
              << store.name << " " << &run - runs.data();
        }
      }
    }
  }
}

TEST(StarFilters, ImagesOnDifferentStoresAndOfOtherSizes) {
  double sigma[] = {2, 3, 1}, mag[] = {1, 1, 1}, threshold[] = {0.1, 0.2, 0.5};
  const auto src = Make(MemoryStore(), 71, 45, 3, kField), paged = Make(TinyPool(), 71, 45, 3, kField);
  const auto whole = Make<CImgFilterSpecial>(MemoryStore(), 71, 45, 3, Random(0, 1));
  whole->StarEnhanceFilter2(sigma, mag, threshold, 0, src.get(), nullptr, 0);
  for (const auto& [target, source] : {std::pair(MemoryStore(), paged), {TinyPool(), src}}) {
    const auto mixed = Make<CImgFilterSpecial>(target, 71, 45, 3, Random(0, 1));
    mixed->StarEnhanceFilter2(sigma, mag, threshold, 0, source.get(), nullptr, 0);
    EXPECT_EQ(Difference(*mixed, *whole), "");
  }
  const auto other = Make<CImgFilterSpecial>(MemoryStore(), 70, 45, 3, Random(0, 1, 7));
  other->StaryMask(1, 1, 0, 0, src.get(), nullptr, 0);
  other->NebularSmootherFilter(sigma, threshold, mag, 0, src.get(), nullptr, 0);
  EXPECT_EQ(Difference(
                *other, [](int p, int x, int y) { return static_cast<float>(Random(0, 1, 7)(p, x, y)); }, 0),
            "");
}

}  // namespace
