#include "korimg/composite/stacking/CImgDrizzle.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "korimg/platform/CArray.h"

#include "tests/support/Images.h"

using namespace korimg;
using namespace korimg::test;

namespace {

/// Pixels of some planes, side by side.
struct Picture {
  int planes, width, height;
  std::vector<float> values;

  Picture(int planes, int width, int height, float value = 0)
      : planes(planes), width(width), height(height), values(1UL * planes * width * height, value) {}
  Picture(int planes, int width, int height, const PixelRule& rule) : Picture(planes, width, height) {
    for (int p = 0; p < planes; ++p) {
      for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
          At(p, x, y) = static_cast<float>(rule(p, x, y));
        }
      }
    }
  }
  float& At(int p, int x, int y) { return values[(1UL * p * height + y) * width + x]; }
  Band<float> Rows() { return {values.data(), planes, width, 0, height}; }
  Band<const float> Read() { return Rows(); }
};

struct Frame {
  Picture values, weights;
  CFrameMap map;
};

struct Drizzled {
  Picture means, weights;

  explicit Drizzled(const CImgDrizzle& grid, int planes)
      : means(planes, grid.Width(), grid.Height()), weights(planes, grid.Width(), grid.Height()) {}
};

/// In bands of so many rows; each frame gives only the rows that a band takes.
Drizzled Drizzle(const CImgDrizzle::Options& options, int width, int height, int planes,
                 std::vector<Frame>& frames, int bandRows = 1 << 20,
                 const CImgDrizzle::SitePlanes* sites = nullptr) {
  CImgDrizzle grid(options, width, height, planes);
  Drizzled result(grid, planes);
  for (int y = 0; y < grid.Height(); y += bandRows) {
    const int rows = std::min(bandRows, grid.Height() - y);
    grid.Begin(y, rows);
    for (Frame& frame : frames) {
      const CImgDrizzle::Rows needed = grid.RowsOf(frame.map, frame.values.height, y, y + rows);
      const int count = needed.end - needed.first;
      grid.Add(frame.values.Read().Part(needed.first, count), frame.weights.Read().Part(needed.first, count),
               frame.map, sites);
    }
    grid.Take(result.means.Rows().Part(y, rows), result.weights.Rows().Part(y, rows));
  }
  return result;
}

using Polygon = std::vector<Point>;

/// The part of a polygon where a x + b y <= c (Sutherland and Hodgman).
Polygon Clipped(const Polygon& polygon, double a, double b, double c) {
  Polygon part;
  for (size_t i = 0; i < polygon.size(); ++i) {
    const Point p = polygon[(i + polygon.size() - 1) % polygon.size()], q = polygon[i];
    const double fp = a * p.x + b * p.y - c, fq = a * q.x + b * q.y - c;
    if ((fp <= 0) != (fq <= 0)) {
      const double t = fp / (fp - fq);
      part.push_back({p.x + t * (q.x - p.x), p.y + t * (q.y - p.y)});
    }
    if (fq <= 0) part.push_back(q);
  }
  return part;
}

double AreaOf(const Polygon& polygon) {
  double area = 0;
  for (size_t i = 0; i < polygon.size(); ++i) {
    const Point p = polygon[i], q = polygon[(i + 1) % polygon.size()];
    area += (p.x * q.y - q.x * p.y) / 2;
  }
  return area;
}

/// What a frame's pixel drops on a pixel of the grid, as a share.
double ShareOf(const CImgDrizzle::Options& options, const CFrameMap& map, int x, int y, int gridX,
               int gridY) {
  const double half = options.pixfrac / 2, s = options.scale;
  Polygon drop;
  for (const auto& [dx, dy] : {std::pair(-half, -half), {half, -half}, {half, half}, {-half, half}}) {
    const auto place = map({x + dx, y + dy});
    if (!place) return 0;
    drop.push_back({(place->x + 0.5) * s, (place->y + 0.5) * s});
  }
  const double area = AreaOf(drop);
  if (options.kernel == CImgDrizzle::Square) {
    Polygon part = Clipped(Clipped(drop, -1, 0, -gridX), 1, 0, gridX + 1);
    part = Clipped(Clipped(part, 0, -1, -gridY), 0, 1, gridY + 1);
    return AreaOf(part) / area;
  }
  const Point middle{(drop[0].x + drop[1].x + drop[2].x + drop[3].x) / 4,
                     (drop[0].y + drop[1].y + drop[2].y + drop[3].y) / 4};
  if (options.kernel == CImgDrizzle::Point) {
    return std::floor(middle.x) == gridX && std::floor(middle.y) == gridY;
  }
  const double sigma = std::sqrt(area) / 2.35482;
  const auto weight = [&](int u, int v) {
    const double dx = u + 0.5 - middle.x, dy = v + 0.5 - middle.y;
    const bool isCut = std::max(std::abs(dx), std::abs(dy)) > std::max(2.5 * sigma, 0.5);
    return isCut ? 0 : std::exp(-(dx * dx + dy * dy) / (2 * sigma * sigma));
  };
  double all = 0;
  for (int v = static_cast<int>(middle.y) - 9; v < middle.y + 9; ++v) {
    for (int u = static_cast<int>(middle.x) - 9; u < middle.x + 9; ++u) {
      all += weight(u, v);
    }
  }
  return weight(gridX, gridY) / all;
}

constexpr int kWidth = 37, kHeight = 23;

CFrameMap Lens() {
  return CFrameMap({1.01, 0.03, -1.2, -0.02, 0.98, 1.7, 2e-5, -1e-5, 1},
                   CLensDistortion({18, 11}, 45, {0.02, -0.01}),
                   CLensDistortion({17, 12}, 45, {-0.03, 0.01}));
}

const struct {
  const char* name;
  CImgDrizzle::Options options;
  CFrameMap map;
} kCases[] = {
    {"as it lies", {1, 1}, CFrameMap()},
    {"shifted", {2, 0.7}, CFrameMap::FromPose(0.37, -1.21, 0, kWidth, kHeight)},
    {"in corners of pixels", {2, 0.5}, CFrameMap::FromPose(0.25, -0.75, 0, kWidth, kHeight)},
    {"turned a little", {2, 0.8}, CFrameMap::FromPose(1.3, 0.2, 0.3, kWidth, kHeight)},
    {"turned", {1.5, 0.9}, CFrameMap::FromPose(-2, 3, 33, kWidth, kHeight)},
    {"upside down", {3.3, 0.05}, CFrameMap::FromPose(0.1, 0.2, 180, kWidth, kHeight)},
    {"larger", {4, 1}, CFrameMap({1.4, -0.6, 3, 0.6, 1.4, -7, 0, 0, 1})},
    {"smaller", {1, 0.6}, CFrameMap({0.3, 0.1, 9, -0.1, 0.3, 9, 0, 0, 1})},
    {"by a lens", {2, 0.7}, Lens()},
    {"points", {2, 0.7, CImgDrizzle::Point}, CFrameMap::FromPose(0.37, -1.21, 3, kWidth, kHeight)},
    {"Gaussians", {2, 0.8, CImgDrizzle::Gaussian}, CFrameMap::FromPose(0.37, -1.21, 7, kWidth, kHeight)},
    {"narrow Gaussians",
     {1, 0.3, CImgDrizzle::Gaussian},
     CFrameMap::FromPose(0.37, -1.21, 7, kWidth, kHeight)},
    {"wide Gaussians", {4, 1, CImgDrizzle::Gaussian}, Lens()},
};

TEST(CImgDrizzle, SharesAreThoseOfClippedPolygons) {
  for (const auto& [name, options, map] : kCases) {
    std::vector<Frame> frames;
    frames.push_back({{1, kWidth, kHeight, Wild(-300, 500, 3)}, {1, kWidth, kHeight, Wild(-0.5, 2, 4)}, map});
    frames.push_back(
        {{1, kWidth, kHeight, Random(-300, 500, 5)},
         {1, kWidth, kHeight, [](int, int x, int y) { return x < kWidth / 2 ? 0.3 + x % 5 : 0.0 * y; }},
         CFrameMap::FromPose(0.613, 0.411, 0, kWidth, kHeight)});
    Drizzled got = Drizzle(options, kWidth, kHeight, 1, frames);
    std::vector<double> sums(got.means.values.size()), weights(sums.size());
    for (Frame& frame : frames) {
      for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
          const float v = frame.values.At(0, x, y), w = frame.weights.At(0, x, y);
          const auto place = frame.map({1.0 * x, 1.0 * y});
          if (!std::isfinite(v) || !std::isfinite(w) || !(w > 0) || !place) continue;
          const int left = static_cast<int>((place->x + 0.5) * options.scale),
                    top = static_cast<int>((place->y + 0.5) * options.scale), reach = 6;
          for (int j = std::max(top - reach, 0); j < std::min(top + reach, got.means.height); ++j) {
            for (int i = std::max(left - reach, 0); i < std::min(left + reach, got.means.width); ++i) {
              const double share = ShareOf(options, frame.map, x, y, i, j);
              sums[1UL * j * got.means.width + i] += share * w * v;
              weights[1UL * j * got.means.width + i] += share * w;
            }
          }
        }
      }
    }
    for (size_t i = 0; i < sums.size(); ++i) {
      const std::string at = std::string(name) + " at " + std::to_string(i % got.means.width) + ", " +
                             std::to_string(i / got.means.width);
      // Less than a millionth of a drop is rounding, and falls nowhere.
      ASSERT_NEAR(got.weights.values[i], weights[i], 1e-5) << at;
      ASSERT_EQ(got.weights.values[i] == 0, std::isnan(got.means.values[i])) << at;
      ASSERT_TRUE(got.weights.values[i] == 0 || weights[i] > 0) << at;
      if (weights[i] < 0.01) continue;
      ASSERT_NEAR(got.means.values[i], sums[i] / weights[i], 0.02 / std::min(weights[i], 1.0)) << at;
    }
  }
}

TEST(CImgDrizzle, ALonePixelFillsExactlyOne) {
  std::vector<Frame> frames;
  frames.push_back({{1, 9, 7, Random(0, 1)}, {1, 9, 7}, CFrameMap::FromPose(0.25, -0.25, 0, 9, 7)});
  frames[0].values.At(0, 5, 3) = 42.5f;
  frames[0].weights.At(0, 5, 3) = 0.75f;
  Drizzled got = Drizzle({2, 0.5}, 9, 7, 1, frames);
  for (int y = 0; y < 14; ++y) {
    for (int x = 0; x < 18; ++x) {
      const bool isIt = x == 11 && y == 6;
      EXPECT_EQ(got.weights.At(0, x, y), isIt ? 0.75f : 0) << x << ", " << y;
      if (isIt) {
        EXPECT_EQ(got.means.At(0, x, y), 42.5f);
      } else {
        EXPECT_TRUE(std::isnan(got.means.At(0, x, y)));
      }
    }
  }
}

TEST(CImgDrizzle, LightIsKeptAndAConstantSkyStays) {
  for (const CImgDrizzle::Kernel kernel : {CImgDrizzle::Square, CImgDrizzle::Point, CImgDrizzle::Gaussian}) {
    // Rows longer than what is worked out at once; the frame lies inside of the grid, edges and all.
    constexpr int kLong = 300, kRows = 40;
    std::vector<Frame> frames;
    frames.push_back({{1, kLong, kRows, Random(10, 500, 7)},
                      {1, kLong, kRows, Random(0.1, 2, 8)},
                      CFrameMap({0.9, 0.05, 20, -0.04, 0.8, 18, 1e-5, 0, 1})});
    Drizzled got = Drizzle({2, 0.7, kernel}, kLong + 30, kRows + 30, 1, frames);
    double in = 0, out = 0;
    for (size_t i = 0; i < frames[0].values.values.size(); ++i) {
      in += 1.0 * frames[0].values.values[i] * frames[0].weights.values[i];
    }
    for (size_t i = 0; i < got.means.values.size(); ++i) {
      if (got.weights.values[i] > 0) out += 1.0 * got.means.values[i] * got.weights.values[i];
    }
    EXPECT_NEAR(out / in, 1, 1e-5) << kernel;

    for (float& v : frames[0].values.values) {
      v = 123.4f;
    }
    Drizzled sky = Drizzle({2, 0.7, kernel}, kLong + 30, kRows + 30, 1, frames);
    for (const float v : sky.means.values) {
      ASSERT_TRUE(std::isnan(v) || v == 123.4f) << v;
    }
  }
}

TEST(CImgDrizzle, BandsAndThreadsDoNotShow) {
  for (const CImgDrizzle::Kernel kernel : {CImgDrizzle::Square, CImgDrizzle::Point, CImgDrizzle::Gaussian}) {
    const CImgDrizzle::Options options{1.7, 0.9, kernel};
    for (const int width : {1, 5, 301}) {
      constexpr int kRows = 31;
      std::vector<Frame> frames;
      for (int i = 0; i < 4; ++i) {
        frames.push_back({{3, width, kRows, Wild(-1e4, 1e6, i)},
                          {3, width, kRows, Random(0, 2, i + 9)},
                          i == 3 ? Lens() : CFrameMap::FromPose(0.3 * i, -0.7 * i, 7 * i, width, kRows)});
      }
      const auto make = [&](int threads, int rows, unsigned features) {
        const WithThreads team(threads);
        const WithFeatures simd(features);
        return Drizzle(options, width, kRows, 3, frames, rows);
      };
      const Drizzled whole = make(1, 1000, 0);
      const auto isSame = [](float a, float b) { return a == b || (std::isnan(a) && std::isnan(b)); };
      for (const auto& [threads, rows] : {std::pair(8, 1000), {3, 1000}, {1, 7}, {8, 3}, {2, 20}}) {
        for (const unsigned features : {0u, 32u}) {
          const Drizzled got = make(threads, rows, features);
          EXPECT_TRUE(std::ranges::equal(got.means.values, whole.means.values, isSame) &&
                      got.weights.values == whole.weights.values)
              << width << " wide, " << threads << " threads, bands of " << rows << ", kernel " << kernel;
        }
      }
    }
  }
}

TEST(CImgDrizzle, SitesOfAMosaicFallOnThePlanesOfTheirColours) {
  // Of the last two bits of row and column; one has no plane.
  constexpr CImgDrizzle::SitePlanes kSites = {{{1, 2, 1, 2}, {0, 1, 0, 1}, {1, 2, -1, 2}, {0, 1, 0, 1}}};
  std::vector<Frame> frames;
  frames.push_back({{1, 10, 9, Random(0, 500)}, {1, 10, 9, 1.0f}, CFrameMap()});
  Drizzled got = Drizzle({1, 1}, 10, 9, 3, frames, 4, &kSites);
  for (int y = 0; y < 9; ++y) {
    for (int x = 0; x < 10; ++x) {
      for (int p = 0; p < 3; ++p) {
        const bool isIt = kSites[y & 3][x & 3] == p;
        EXPECT_EQ(got.weights.At(p, x, y), isIt) << x << ", " << y << ", plane " << p;
        if (isIt) {
          EXPECT_FLOAT_EQ(got.means.At(p, x, y), frames[0].values.At(0, x, y));
        }
      }
    }
  }
}

TEST(CImgDrizzle, OptionsHaveTheirRanges) {
  for (const CImgDrizzle::Options& wrong : {CImgDrizzle::Options{0.99, 0.5},
                                            {2, 0},
                                            {2, 1.01},
                                            {std::nan(""), 0.5},
                                            {2, std::nan("")},
                                            {2, 0.5, static_cast<CImgDrizzle::Kernel>(3)}}) {
    EXPECT_TRUE(ThrowsPointer<CInvalidArgException>([&] { CImgDrizzle(wrong, 9, 9, 1); }));
  }
  EXPECT_EQ(CImgDrizzle::SizeOf(101, 1.5), 152);
  EXPECT_EQ(CImgDrizzle::SizeOf(10, 1.1), 11);
}

}  // namespace
