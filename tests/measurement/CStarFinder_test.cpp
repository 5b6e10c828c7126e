#include "korimg/measurement/CStarFinder.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include <gtest/gtest.h>

#include "korimg/measurement/CStarMatcher.h"

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

struct Light {
  double x, y, flux;
};

/// A sky of stars: Moffat profiles of beta 3, whose integral is known, summed over 5 x 5 points of each
/// pixel.
class Scene {
 public:
  Scene(int width, int height, double fwhm)
      : width(width), height(height), fwhm_(fwhm), pixels_(width * height) {}

  double& At(int x, int y) { return pixels_[y * width + x]; }

  /// Elongated along x by `ratio`.
  void Add(const Light& star, double ratio = 1) {
    const double w2 = std::pow(fwhm_ / 2, 2) / (std::cbrt(2.0) - 1), reach = 12 * fwhm_;
    for (int y = std::max(0, static_cast<int>(star.y - reach)); y < std::min<double>(height, star.y + reach);
         ++y) {
      for (int x = std::max(0, static_cast<int>(star.x - reach)); x < std::min<double>(width, star.x + reach);
           ++x) {
        for (int k = 0; k < 25; ++k) {
          const double dx = (x + (k % 5 - 2) / 5.0 - star.x) / ratio, dy = y + (k / 5 - 2) / 5.0 - star.y;
          const double t = 1 + (dx * dx + dy * dy) / w2;
          At(x, y) += star.flux * 2 / (std::numbers::pi * w2 * ratio) / (t * t * t) / 25;
        }
      }
    }
    stars.push_back(star);
  }

  /// Random stars that keep a distance; fluxes from `faintest` on, fewer with brightness.
  void Scatter(int count, double apart, double faintest, int seed) {
    for (std::uint64_t n = 1000 * seed; static_cast<int>(stars.size()) < count; ++n) {
      const Light star{10 + (width - 20) * Noise(3 * n), 10 + (height - 20) * Noise(3 * n + 1),
                       faintest * std::pow(Noise(3 * n + 2), -0.9)};
      const bool alone = std::none_of(stars.begin(), stars.end(), [&](const Light& other) {
        return std::hypot(other.x - star.x, other.y - star.y) < apart;
      });
      if (alone) Add(star);
    }
  }

  /// With normal noise on a sloping sky.
  PixelRule Rule(double noise) const {
    return [this, noise](int p, int x, int y) {
      const std::uint64_t n = 4ull * (1ull * p * width * height + y * width + x);
      const double normal =
          std::sqrt(-2 * std::log(Noise(n) + 1e-12)) * std::cos(2 * std::numbers::pi * Noise(n + 1));
      return 1000 + 0.2 * x - 0.1 * y + pixels_[y * width + x] + noise * normal;
    };
  }

  int width, height;
  std::vector<Light> stars;

 private:
  double fwhm_;
  std::vector<double> pixels_;
};

const CStar* FindNear(const std::vector<CStar>& found, double x, double y, double within = 1.5) {
  const CStar* best = nullptr;
  for (const CStar& star : found) {
    const double d = std::hypot(star.x - x, star.y - y);
    if (d < within) {
      within = d;
      best = &star;
    }
  }
  return best;
}

std::vector<CStar> Find(CVelImage& image, double sigmas = 5) {
  CStarFinder finder(&image);
  finder.SetThreshold(sigmas);
  const int count = finder.Find();
  EXPECT_EQ(count, static_cast<int>(finder.GetStars().size()));
  return finder.GetStars();
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.at(values.size() / 2);
}

TEST(CStarFinder, AgreesWithTheTruth) {
  for (const double fwhm : {2.0, 3.0, 5.0}) {
    constexpr double kNoise = 10;
    Scene scene(620, 590, fwhm);
    // The best possible sum of such a star has a signal to noise of 0.515 flux / (noise fwhm).
    const double flux10 = 10 * kNoise * fwhm / 0.515;
    scene.Scatter(static_cast<int>(1200 / (fwhm + 2) / fwhm), 6 * fwhm, flux10 * 1.05, 3);
    const std::vector<Light> stars = scene.stars;
    for (int i = 0; i < 30; ++i) {
      scene.At(19 * i % 620, 37 * i % 590) += 150 + 600 * i;  // hot pixels
    }
    for (int i = 0; i < 12; ++i) {
      for (int k = 0; k < 5; ++k) {
        scene.At(20 + 30 * i + k, 30 + 25 * i + (i % 3) * k / 2) += 2000;  // cosmic rays
      }
    }
    const auto image = Make(MemoryStore(), scene.width, scene.height, 1, scene.Rule(kNoise));
    CStarFinder finder(image.get());
    finder.Find();
    std::vector<double> offsets, widths, fluxes;
    int matched = 0;
    for (const Light& light : stars) {
      const CStar* star = FindNear(finder.GetStars(), light.x, light.y);
      matched += star != nullptr;
      if (!star || light.flux < 4 * flux10) continue;
      offsets.push_back(std::hypot(star->x - light.x, star->y - light.y));
      widths.push_back(star->fwhm);
      fluxes.push_back(star->flux / light.flux);
    }
    EXPECT_GE(matched, 0.95 * stars.size()) << fwhm;
    int spurious = 0;
    for (const CStar& star : finder.GetStars()) {
      spurious += std::none_of(stars.begin(), stars.end(), [&](const Light& light) {
        return std::hypot(star.x - light.x, star.y - light.y) < 1.5;
      });
    }
    EXPECT_LE(spurious, 2) << fwhm;
    ASSERT_GE(offsets.size(), 5u);
    EXPECT_LT(Median(offsets), 0.015 * fwhm) << fwhm;
    EXPECT_NEAR(Median(widths), fwhm, 0.03 * fwhm);
    EXPECT_NEAR(finder.GetFwhm(), fwhm, 0.04 * fwhm);
    EXPECT_NEAR(Median(fluxes), 1, 0.035) << fwhm;
    EXPECT_NEAR(finder.GetNoise(), kNoise, 0.08 * kNoise);
    EXPECT_NEAR(finder.GetSky(), 1000 + 62 - 29.5, 0.3 * kNoise);
    EXPECT_TRUE(std::is_sorted(finder.GetStars().begin(), finder.GetStars().end(),
                               [](const CStar& a, const CStar& b) { return a.flux > b.flux; }));
  }
}

/// Gaussian stars of one flux, integrated over pixels, on a grid with random parts of pixels; photons of a
/// gain and 3 of noise from elsewhere on a sky of 100.
struct GaussianGrid {
  int side, step;
  double fwhm, flux;
  std::vector<Light> stars;
  std::vector<double> pixels;

  GaussianGrid(int across, double fwhm, double flux, int seed)
      : step(static_cast<int>(std::max(24.0, 8 * fwhm))), fwhm(fwhm), flux(flux) {
    side = across * step;
    pixels.resize(static_cast<size_t>(side) * side);
    std::uint64_t n = 5000ull * seed;
    for (int i = 0; i < across * across; ++i) {
      const Light star{(i % across + 0.5) * step + Noise(n++) - 0.5,
                       (i / across + 0.5) * step + Noise(n++) - 0.5, flux};
      stars.push_back(star);
      const double scale = 2.354820045 / fwhm / std::sqrt(2.0);
      const auto share = [&](int pixel, double middle) {
        return 0.5 * (std::erf((pixel + 0.5 - middle) * scale) - std::erf((pixel - 0.5 - middle) * scale));
      };
      const int x0 = i % across * step, y0 = i / across * step;
      for (int y = y0; y < y0 + step; ++y) {
        for (int x = x0; x < x0 + step; ++x) {
          pixels[static_cast<size_t>(y) * side + x] = flux * share(x, star.x) * share(y, star.y);
        }
      }
    }
  }

  PixelRule Rule(double gain) const {
    return [this, gain](int, int x, int y) {
      const std::uint64_t n = 2ull * (y * side + x) + 90000000;
      const double light = 100 + pixels[static_cast<size_t>(y) * side + x],
                   noise = std::sqrt(light / gain + 9);
      return light + noise * std::sqrt(-2 * std::log(Noise(n) + 1e-12)) *
                         std::cos(2 * std::numbers::pi * Noise(n + 1));
    };
  }
};

TEST(CStarFinder, NarrowStarsKeepTheirPlaceAndWidth) {
  for (const double fwhm : {1.2, 1.5, 1.8, 2.2, 3.0, 6.0}) {
    const GaussianGrid grid(12, fwhm, 2e5, 1);
    const auto image = Make(MemoryStore(), grid.side, grid.side, 1, grid.Rule(1e9));
    CStarFinder finder(image.get());
    finder.Find();
    double squares = 0;
    std::vector<double> widths;
    for (const Light& light : grid.stars) {
      const CStar* star = FindNear(finder.GetStars(), light.x, light.y);
      ASSERT_NE(star, nullptr) << fwhm << ": " << light.x << ' ' << light.y;
      squares += std::pow(star->x - light.x, 2) + std::pow(star->y - light.y, 2);
      widths.push_back(star->fwhm);
    }
    EXPECT_LT(std::sqrt(squares / static_cast<double>(grid.stars.size())), 0.003) << fwhm;
    EXPECT_NEAR(finder.GetFwhm(), fwhm, 0.01 * fwhm);
    std::sort(widths.begin(), widths.end());
    EXPECT_NEAR(widths[widths.size() / 10], fwhm, 0.015 * fwhm);
    EXPECT_NEAR(widths[widths.size() * 9 / 10], fwhm, 0.015 * fwhm);
  }
}

// Of equal stars fluxes scatter by what signal to noise says.
TEST(CStarFinder, SignalToNoiseHoldsTheStarsOwnPhotons) {
  constexpr double kGain = 2.5;
  for (const double flux : {1.5e3, 2e4, 2e5}) {
    const GaussianGrid grid(16, 3, flux, 2);
    const auto image = Make(MemoryStore(), grid.side, grid.side, 1, grid.Rule(kGain));
    const auto snr = [&](double gain) {
      CStarFinder finder(image.get());
      finder.SetGain(gain);
      finder.Find();
      std::vector<double> ratios, fluxes;
      for (const CStar& star : finder.GetStars()) {
        ratios.push_back(star.snr);
        fluxes.push_back(star.flux);
      }
      double sum = 0, squares = 0;
      for (const double f : fluxes) {
        sum += f;
        squares += f * f;
      }
      const double n = static_cast<double>(fluxes.size()), mean = sum / n;
      EXPECT_NEAR(n, 256, 3);
      return std::pair(Median(ratios), mean / std::sqrt(squares / n - mean * mean));
    };
    const auto [told, measured] = snr(kGain);
    EXPECT_NEAR(told / measured, 1, 0.2) << flux;
    EXPECT_LT(told, std::sqrt(flux * kGain)) << flux;
    EXPECT_GT(snr(0).first, told) << flux;
  }
}

TEST(CStarFinder, TheSameOnEveryStoreForAnyNumberOfThreads) {
  Scene scene(200, 430, 3);
  scene.Scatter(50, 10, 1500, 5);
  for (const int planes : {1, 3}) {
    std::vector<CStar> first;
    OnEveryPath([&](const StoreCase& store) {
      const auto image = Make(store.make(), scene.width, scene.height, planes, scene.Rule(10));
      const auto stars = Find(*image);
      if (first.empty()) first = stars;
      ASSERT_GE(stars.size(), 45u);
      ASSERT_EQ(stars.size(), first.size());
      for (size_t i = 0; i < stars.size(); ++i) {
        EXPECT_EQ(stars[i].x, first[i].x);
        EXPECT_EQ(stars[i].y, first[i].y);
        EXPECT_EQ(stars[i].flux, first[i].flux);
        EXPECT_EQ(stars[i].fwhm, first[i].fwhm);
        EXPECT_EQ(stars[i].flags, first[i].flags);
      }
    });
  }
}

TEST(CStarFinder, NoStarsIsAnAnswer) {
  const Scene none(261, 201, 3);  // soft noise reads one beyond
  const auto isHot = [](int x, int y) { return (x * 31 + y * 17) % 97 == 0; };
  const std::vector<std::pair<const char*, PixelRule>> skies = {
      {"noise", none.Rule(10)},
      {"constant", [](int, int, int) { return 7; }},
      {"zero", [](int, int, int) { return 0; }},
      {"no numbers", [](int, int, int) { return std::nan(""); }},
      {"infinite", [](int, int, int) { return INFINITY; }},
      {"hot pixels only",
       [&](int p, int x, int y) {
         return none.Rule(10)(p, x, y) + (isHot(x, y) ? 300 + 50 * (x % 100) : 0);
       }},
      // Noise that neighbours share, as after resampling.
      {"soft noise",
       [&](int p, int x, int y) {
         const auto rule = none.Rule(20);
         return (rule(p, x, y) + rule(p, x + 1, y) + rule(p, x, y + 1) + rule(p, x + 1, y + 1)) / 4;
       }},
      {"stripes", [&](int p, int x, int y) { return none.Rule(10)(p, x, y) + 60 * std::sin(0.15 * y); }},
      {"an empty border", [&](int p, int x, int y) { return x + y < 150 ? 0 : none.Rule(10)(p, x, y); }},
  };
  for (const auto& [name, rule] : skies) {
    EXPECT_LE(Find(*Make(MemoryStore(), 260, 200, 1, rule)).size(), 1u) << name;
  }
  CVelImage empty;
  EXPECT_EQ(CStarFinder(&empty).Find(), 0);
  for (const auto& [width, height] : Sizes()) {
    for (const int planes : {1, 3}) {
      for (const auto& store : {MemoryStore(), TinyPool()}) {
        const auto image = Make(store, width, height, planes, Wild(-1e30, 1e30));
        for (const CStar& star : Find(*image, 1)) {
          EXPECT_TRUE(std::isfinite(star.flux) && std::isfinite(star.fwhm) && std::isfinite(star.snr));
        }
      }
    }
  }
}

TEST(CStarFinder, FlagsAndPairs) {
  Scene scene(300, 200, 3);
  scene.Scatter(25, 30, 4e3, 9);
  const Light saturated{150.3, 100.4, 2e6}, byEdge{2.4, 100, 2e4}, holed{250, 150, 2e4};
  const auto clear = [&](const Light& at) {
    return std::erase_if(scene.stars,
                         [&](const Light& s) { return std::hypot(s.x - at.x, s.y - at.y) < 40; });
  };
  Scene field(300, 200, 3);
  for (const Light& special : {saturated, byEdge, holed}) {
    clear(special);
  }
  for (const Light& star : scene.stars) {
    field.Add(star);
  }
  for (const Light& special : {saturated, byEdge, holed}) {
    field.Add(special);
  }
  const auto sky = field.Rule(10);
  const auto image = Make(MemoryStore(), 300, 200, 1, [&](int p, int x, int y) -> double {
    if (x == 253 && y == 152) return std::nan("");
    return std::min(sky(p, x, y), 60000.0);
  });
  const auto found = Find(*image);
  const auto flagsOf = [&](const Light& light) {
    const CStar* star = FindNear(found, light.x, light.y);
    return star ? star->flags : -1;
  };
  EXPECT_EQ(flagsOf(saturated), CStar::Saturated);
  EXPECT_EQ(flagsOf(byEdge), CStar::Edge);
  EXPECT_EQ(flagsOf(holed), CStar::Edge);
  for (const Light& star : scene.stars) {
    EXPECT_EQ(flagsOf(star) & CStar::Saturated, 0) << star.x << " " << star.y;
  }
  CStarFinder told(image.get());
  told.SetSaturation(1200);
  told.Find();
  EXPECT_NE(FindNear(told.GetStars(), holed.x, holed.y)->flags & CStar::Saturated, 0);

  // Narrow stars have no flat tops, but they stop at the same value.
  Scene narrow(300, 200, 1.6);
  narrow.Scatter(30, 20, 3e3, 2);
  const auto cut = Find(*Make(MemoryStore(), 300, 200, 1, [&](int p, int x, int y) {
    return std::min(narrow.Rule(2)(p, x, y), 4095.0);
  }));
  int tops = 0;
  for (const CStar& star : cut) {
    const bool full = star.sky + star.peak > 4050;
    tops += full;
    EXPECT_EQ((star.flags & CStar::Saturated) != 0, full) << star.peak;
  }
  EXPECT_GE(tops, 3);

  // Stars two and a half widths apart, the fainter one a quarter of the brighter, are two.
  Scene pairs(300, 200, 3);
  for (int i = 0; i < 8; ++i) {
    const double angle = 0.7 * i, x = 40 + 60.3 * (i % 4), y = 50 + 90.6 * (i / 4);
    pairs.Add({x, y, 1e5});
    pairs.Add({x + 7.5 * std::cos(angle), y + 7.5 * std::sin(angle), 2.5e4});
  }
  const auto both = Find(*Make(MemoryStore(), 300, 200, 1, pairs.Rule(5)));
  EXPECT_EQ(both.size(), 16u);
  for (const CStar& star : both) {
    EXPECT_NE(star.flags & CStar::Blended, 0);
  }
}

TEST(CStarFinder, CrowdedFieldsAndShapes) {
  Scene crowd(600, 600, 2.5);
  for (int i = 0; i < 55 * 55; ++i) {
    crowd.Add({20 + 10.3 * (i % 55) + Noise(2 * i), 20 + 10.3 * (i / 55) + Noise(2 * i + 1),
               3000 + 20.0 * (i % 500)});
  }
  const auto many = Find(*Make(TinyPool(), 600, 600, 1, crowd.Rule(10)));
  EXPECT_NEAR(static_cast<double>(many.size()), 55 * 55, 10);

  Scene trailed(300, 300, 3);
  for (int i = 0; i < 25; ++i) {
    trailed.Add({40.2 + 55.1 * (i % 5), 40.7 + 55.3 * (i / 5), 3e4}, 1.6);
  }
  const auto image = Make(MemoryStore(), 300, 300, 1, trailed.Rule(5));
  CStarFinder shapes(image.get());
  EXPECT_EQ(shapes.Find(), 25);
  EXPECT_NEAR(shapes.GetElongation(), 1.55, 0.1);
}

TEST(CStarFinder, MosaicsShowNeitherTheirColoursNorWiderStars) {
  Scene scene(300, 300, 3);
  scene.Scatter(40, 20, 1e4, 4);
  const auto sky = scene.Rule(10);
  const auto image = Make(TinyPool(), 300, 300, 1, [&](int p, int x, int y) {
    return sky(p, x, y) * (x % 2 == y % 2 ? 1 : x % 2 ? 0.6 : 1.5);
  });
  image->SetBayerImage(true);
  CStarFinder finder(image.get());
  EXPECT_NEAR(finder.Find(), 40, 1);
  std::vector<double> offsets;
  for (const Light& light : scene.stars) {
    const CStar* star = FindNear(finder.GetStars(), light.x, light.y);
    if (star) offsets.push_back(std::hypot(star->x - light.x, star->y - light.y));
  }
  EXPECT_GE(offsets.size(), 39u);
  EXPECT_LT(Median(offsets), 0.15);
  EXPECT_NEAR(finder.GetFwhm(), 3, 0.2);
}

// A mean over a mosaic's colours spreads its hot pixels, which are no stars for that.
TEST(CStarFinder, HotPixelsOfAMosaicAreNoStars) {
  Scene scene(400, 400, 3);
  scene.Scatter(40, 20, 1e4, 4);
  const auto sky = scene.Rule(10);
  const auto image = Make(MemoryStore(), 400, 400, 1, [&](int p, int x, int y) {
    const bool isHot = (31 * x + 57 * y) % 401 == 7;
    return sky(p, x, y) + (isHot ? 500 + 30 * ((x + y) % 97) : 0);
  });
  image->SetBayerImage(true);
  CStarFinder finder(image.get());
  EXPECT_NEAR(finder.Find(), 40, 8);
  EXPECT_NEAR(finder.GetFwhm(), 3, 0.2);
}

// What is too high for floats over a sky without noise is a star all the same; squares of what is far from
// the first pixel are no floats.
TEST(CStarFinder, HugeValuesAreMeasuredLikeOthers) {
  constexpr double kX = 154.3, kY = 145.6;
  const auto star = Make(MemoryStore(), 300, 300, 1, [](int, int x, int y) {
    return 1e19 * std::exp(-((x - kX) * (x - kX) + (y - kY) * (y - kY)) / 4);
  });
  const auto found = Find(*star);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_NEAR(found[0].x, kX, 0.01);
  EXPECT_NEAR(found[0].y, kY, 0.01);
  EXPECT_NEAR(found[0].peak / 1e19, 0.95, 0.05);

  constexpr double kLevel = 9e17, kHalf = 2e15;
  const auto sky = Make(MemoryStore(), 64, 64, 1, [](int p, int x, int y) {
    return x + y == 0 ? -kLevel : Random(kLevel - kHalf, kLevel + kHalf)(p, x, y);
  });
  CStarFinder finder(sky.get());
  EXPECT_EQ(finder.Find(), 0);
  EXPECT_NEAR(finder.GetSky() / kLevel, 1, 1e-3);
  EXPECT_NEAR(finder.GetNoise(), kHalf / std::sqrt(3.0), 0.2 * kHalf);
}

// Small frames with pixels whose squares or sums are no floats, at corners above all.
TEST(CStarFinder, WildFramesGiveStarsInsideOrNone) {
  constexpr double kValues[] = {1e19, 3e38, -3e38, 1e30, -1e19, 1e-40, 1, 1e5, INFINITY, -INFINITY, NAN};
  int stars = 0;
  const int threads = CParallel::GetMaxThreads();
  CParallel::SetMaxThreads(1);  // small frames are done before a team has met
  for (int i = 0; i < 600; ++i) {
    const auto pick = [i](int n, int count) { return static_cast<int>(count * Noise(100 * i + n)); };
    const int width = i < 100 ? 10 : 1 + pick(0, 80), height = i < 100 ? 10 : 1 + pick(1, 80),
              planes = i % 3 ? 1 : 3, wild = 1 + pick(2, 6), spread = i % 2 ? 4 : std::max(width, height);
    const double noise = i % 4 < 2 ? 0 : 10;
    const auto image =
        Make(i % 5 ? MemoryStore() : TinyPool(), width, height, planes, [&](int p, int x, int y) {
          const double r2 = std::pow(x - width / 3, 2) + std::pow(y - height / 2, 2);
          return Random(-noise, noise, i)(p, x, y) + (i % 3 == 1 ? 5000 * std::exp(-r2 / 5) : 0);
        });
    for (int k = 0; k < wild; ++k) {
      const int x = std::min(pick(4 * k + 3, spread), width - 1),
                y = std::min(pick(4 * k + 4, spread), height - 1);
      image->GetWritableLine(0, y, pick(4 * k + 5, planes))[x] =
          static_cast<float>(kValues[pick(4 * k + 6, static_cast<int>(std::size(kValues)))]);
    }
    image->SetBayerImage(planes == 1 && i % 7 == 0);
    CStarFinder finder(image.get());
    stars += finder.Find();
    for (const CStar& s : finder.GetStars()) {
      ASSERT_TRUE(s.x > -2 && s.y > -2 && s.x < width + 1 && s.y < height + 1)
          << i << ": " << s.x << ' ' << s.y;
      for (const double v : {s.flux, s.sky, s.noise, s.snr, s.fwhm, s.elongation}) {
        ASSERT_TRUE(std::isfinite(v)) << i;
      }
    }
    CStarMatcher(finder.GetStars()).Match(finder.GetStars(), width, height);
  }
  CParallel::SetMaxThreads(threads);
  EXPECT_GT(stars, 10);
}

}  // namespace
