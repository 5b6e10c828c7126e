// Hits of cosmic rays among stars.
#include "korimg/filters/CImgCosmicRays.h"

#include <algorithm>
#include <set>

#include <gtest/gtest.h>

#include "tests/support/Images.h"

using namespace korimg::test;

namespace {

constexpr double kGain = 2, kReadNoise = 6, kSky = 500;

/// A sky with stars of a FWHM of 2.6 pixels, sharp streaks and blank pixels.
PixelRule Sky(int width, int height) {
  return [=](int p, int x, int y) -> double {
    if (y == height / 2 && x % 9 < 2) return NAN;
    if (y == height / 3 && x > width / 2) return INFINITY;
    double light = kSky + 40.0 * x / width;
    for (int i = 0; i < 12; ++i) {
      const double dx = x - width * Noise(100 + i + 50 * p), dy = y - height * Noise(200 + i);
      light += 300 * std::pow(2.0, i) * std::exp(-(dx * dx + dy * dy) / (2 * 1.1 * 1.1));
    }
    double noise = 0;
    for (int i = 0; i < 6; ++i) {
      noise += Noise((p * 7919 + y) * 100003ULL + x * 11 + i) - 0.5;
    }
    light += noise * std::sqrt(2 * (light / kGain + kReadNoise * kReadNoise / kGain / kGain));
    for (int i = 0; i < 9; ++i) {
      const int hx = static_cast<int>(width * Noise(300 + i)), hy = static_cast<int>(height * Noise(400 + i));
      const int along = x - hx;
      if (along >= 0 && along <= i % 4 && y == hy + along / 2) light += 90 * (i + 1) * (i + 1);
    }
    return light;
  };
}

struct Mended {
  std::vector<double> pixels;
  std::vector<bool> isHit;
};

/// The method as the paper has it: with an image of twice the size, and medians of all pixels.
Mended Reference(CVelImage& image, int plane, const CImgCosmicRays::Options& o) {
  const int w = image.GetWidth(), h = image.GetHeight();
  std::vector<double> light;
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      light.push_back(image.GetPixelGrayRaw(x, y, plane));
    }
  }
  const std::vector<double> given = light;
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      for (int d = 0; d < w && !std::isfinite(light[y * w + x]); ++d) {
        for (const int i : {x - d, x + d}) {
          if (i >= 0 && i < w && std::isfinite(given[y * w + i]) && !std::isfinite(light[y * w + x]))
            light[y * w + x] = given[y * w + i];
        }
      }
    }
  }
  for (int y = 0; y < h; ++y) {
    if (std::isfinite(light[y * w])) continue;
    int like = y;
    while (like >= 0 && !std::isfinite(light[like * w]))
      --like;
    if (like < 0) {
      for (like = y; like < h && !std::isfinite(light[like * w]);)
        ++like;
    }
    for (int x = 0; x < w; ++x) {
      light[y * w + x] = like < h ? light[like * w + x] : 0;
    }
  }
  std::vector<bool> isHit(light.size());
  for (int round = 0; round < o.iterations; ++round) {
    // With more about it than the tests of a pixel see.
    constexpr int kMargin = 6;
    const int wide = w + 2 * kMargin, high = h + 2 * kMargin;
    const auto at = [=](const std::vector<double>& v, int x, int y) {
      return v[std::clamp(y, 0, high - 1) * wide + std::clamp(x, 0, wide - 1)];
    };
    const auto median = [&](int r, const std::vector<double>& v) {
      std::vector<double> out;
      for (int y = 0; y < high; ++y) {
        for (int x = 0; x < wide; ++x) {
          std::vector<double> values;
          for (int j = -r; j <= r; ++j) {
            for (int i = -r; i <= r; ++i) {
              values.push_back(at(v, x + i, y + j));
            }
          }
          std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
          out.push_back(values[values.size() / 2]);
        }
      }
      return out;
    };
    std::vector<double> sky, edges;
    for (int y = 0; y < high; ++y) {
      for (int x = 0; x < wide; ++x) {
        sky.push_back(light[std::clamp(y - kMargin, 0, h - 1) * w + std::clamp(x - kMargin, 0, w - 1)]);
      }
    }
    const auto fine = [&](int x, int y) { return at(sky, x >> 1, y >> 1); };
    for (int y = 0; y < high; ++y) {
      for (int x = 0; x < wide; ++x) {
        double sum = 0;
        for (int b = 2 * y; b < 2 * y + 2; ++b) {
          for (int a = 2 * x; a < 2 * x + 2; ++a) {
            sum += std::max(
                4 * fine(a, b) - fine(a - 1, b) - fine(a + 1, b) - fine(a, b - 1) - fine(a, b + 1), 0.0);
          }
        }
        edges.push_back(sum / 4);
      }
    }
    const auto m5 = median(2, sky), m3 = median(1, sky), m37 = median(3, m3);
    std::vector<double> noise, s;
    for (size_t i = 0; i < sky.size(); ++i) {
      noise.push_back(std::sqrt(std::max(m5[i], 0.0) / o.gain + std::pow(o.readNoise / o.gain, 2)));
      s.push_back(edges[i] / (2 * noise[i]));
    }
    const auto smooth = median(2, s);
    std::vector<double> contrast;
    std::vector<bool> found;
    for (int y = 0; y < h; ++y) {
      for (int x = 0; x < w; ++x) {
        const int i = (y + kMargin) * wide + x + kMargin;
        const double structure = std::max((m3[i] - m37[i]) / noise[i], 0.01);
        contrast.push_back(s[i] - smooth[i]);
        found.push_back(contrast.back() > o.sigClip && contrast.back() / structure > o.objLim);
      }
    }
    for (const double limit : {o.sigClip, o.sigClip * o.sigFrac}) {
      const auto before = found;
      for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
          for (int j = std::max(y - 1, 0); j <= std::min(y + 1, h - 1); ++j) {
            for (int i = std::max(x - 1, 0); i <= std::min(x + 1, w - 1); ++i) {
              if (before[j * w + i] && contrast[y * w + x] > limit) found[y * w + x] = true;
            }
          }
        }
      }
    }
    for (size_t i = 0; i < light.size(); ++i) {
      isHit[i] = isHit[i] || found[i];
    }
    const auto before = light;
    for (int y = 0; y < h; ++y) {
      for (int x = 0; x < w; ++x) {
        if (!found[y * w + x]) continue;
        std::vector<double> good;
        for (int r = 2; good.empty() && r < w + h; ++r) {
          for (int j = std::max(y - r, 0); j <= std::min(y + r, h - 1); ++j) {
            for (int i = std::max(x - r, 0); i <= std::min(x + r, w - 1); ++i) {
              if (!isHit[j * w + i] && std::isfinite(given[j * w + i])) good.push_back(before[j * w + i]);
            }
          }
        }
        std::sort(good.begin(), good.end());
        if (!good.empty()) light[y * w + x] = good[good.size() / 2];
      }
    }
  }
  for (size_t i = 0; i < light.size(); ++i) {
    if (!isHit[i]) light[i] = given[i];
  }
  return {light, isHit};
}

TEST(CosmicRays, AreWhatThePaperSays) {
  int hits = 0;
  for (const auto& [width, height] : {std::pair(1, 1), {1, 40}, {40, 1}, {9, 7}, {71, 43}, {733, 17}}) {
    for (const CImgCosmicRays::Options& o : {CImgCosmicRays::Options{.gain = kGain, .readNoise = kReadNoise},
                                             {3, 0.5, 2, kGain, kReadNoise, 1},
                                             {6, 0.2, 8, 0.7, 0, 3}}) {
      const PixelRule sky = Sky(width, height);
      const auto src = Make(MemoryStore(), width, height, 2, sky);
      const Mended wanted[] = {Reference(*src, 0, o), Reference(*src, 1, o)};
      long long count = 0;
      for (const Mended& plane : wanted) {
        count += std::count(plane.isHit.begin(), plane.isHit.end(), true);
      }
      hits += static_cast<int>(count);
      OnEveryPath([&, width = width, height = height](const StoreCase& store) {
        const auto image = Make(store.make(), width, height, 2, sky);
        for (const auto result : {CImgCosmicRays::Cleaned, CImgCosmicRays::Mask}) {
          CImgCosmicRays::Options options = o;
          options.result = result;
          const auto target = Make<CImgCosmicRays>(store.make(), width, height, 2, Random(-9, 9));
          ASSERT_EQ(target->Do(options, image.get(), nullptr, 0), count) << width << " x " << height;
          EXPECT_EQ(Difference(
                        *target,
                        [&](int p, int x, int y) -> double {
                          const size_t i = static_cast<size_t>(y) * width + x;
                          return result == CImgCosmicRays::Mask ? wanted[p].isHit[i] : wanted[p].pixels[i];
                        },
                        0),
                    "")
              << width << " x " << height << " on " << store.name;
        }
      });
      if (HasFatalFailure()) return;
    }
  }
  EXPECT_GT(hits, 300);
}

TEST(CosmicRays, OfARectangleAloneAreMended) {
  constexpr int kSide = 60;
  const auto src = Make(MemoryStore(), kSide, kSide, 1, Sky(kSide, kSide));
  const CImgCosmicRays::Options cleaned{.gain = kGain, .readNoise = kReadNoise};
  CImgCosmicRays::Options mask = cleaned;
  mask.result = CImgCosmicRays::Mask;
  const auto all = Make<CImgCosmicRays>(MemoryStore(), kSide, kSide, 1, Random(1, 2)),
             whole = Make<CImgCosmicRays>(MemoryStore(), kSide, kSide, 1, Random(1, 2));
  const long long hits = all->Do(cleaned, src.get(), nullptr, 0);
  whole->Do(mask, src.get(), nullptr, 0);
  EXPECT_EQ(whole->GetLevelMin(0), 0);
  EXPECT_EQ(whole->GetLevelMax(0), 1);
  CRect rect(kSide / 2, -3, kSide, kSide / 2);
  const auto inside = [&](int x, int y) { return x >= kSide / 2 && y < kSide / 2; };
  const auto part = Make<CImgCosmicRays>(MemoryStore(), kSide, kSide, 1, Random(1, 2)),
             marks = Make<CImgCosmicRays>(MemoryStore(), kSide, kSide, 1, Random(1, 2));
  const long long own = part->Do(cleaned, src.get(), &rect, 0);
  EXPECT_EQ(marks->Do(mask, src.get(), &rect, 0), own);
  EXPECT_GT(own, 0);
  EXPECT_LT(own, hits);
  EXPECT_EQ(Difference(
                *part,
                [&](int, int x, int y) -> double {
                  return inside(x, y) ? all->GetPixelGrayRaw(x, y, 0)
                                      : static_cast<float>(Random(1, 2)(0, x, y));
                },
                0),
            "");
  EXPECT_EQ(
      Difference(
          *marks,
          [&](int, int x, int y) -> double { return inside(x, y) ? whole->GetPixelGrayRaw(x, y, 0) : 0; }, 0),
      "");
}

TEST(CosmicRays, OptionsOutOfRangeChangeNothing) {
  using Options = CImgCosmicRays::Options;
  const auto src = Make(MemoryStore(), 20, 20, 1, Sky(20, 20));
  for (const Options& o :
       {Options{.sigClip = 0}, Options{.sigFrac = 1.1}, Options{.sigFrac = -0.1}, Options{.objLim = -1},
        Options{.gain = 0}, Options{.gain = NAN}, Options{.readNoise = -1}, Options{.iterations = 0},
        Options{.result = static_cast<CImgCosmicRays::Result>(2)}}) {
    const auto target = Make<CImgCosmicRays>(MemoryStore(), 20, 20, 1, Random(1, 2));
    EXPECT_EQ(target->Do(o, src.get(), nullptr, 0), -1);
    EXPECT_EQ(Difference(*target, *Make(MemoryStore(), 20, 20, 1, Random(1, 2))), "");
  }
  const auto other = Make<CImgCosmicRays>(MemoryStore(), 20, 21, 1, Random(1, 2));
  EXPECT_EQ(other->Do({}, src.get(), nullptr, 0), -1);
}

}  // namespace
