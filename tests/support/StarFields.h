// Fields of stars as cameras show them, with known truth.
#pragma once

#include <algorithm>
#include <cmath>
#include <functional>
#include <numbers>
#include <vector>

#include "korimg/geometry/CFrameMap.h"
#include "korimg/measurement/CStarFinder.h"

#include "tests/support/Images.h"

namespace korimg::test::field {

inline constexpr int kWidth = 1000, kHeight = 700;
inline const double kHalf = Length(kWidth, kHeight) / 2;

using Way = std::function<Point(Point)>;

/// Where the lens shows what belongs at a place: a barrel by a share of the corner's distance. It is no
/// polynomial of what CLensDistortion knows, but the inverse of one.
inline Way Barrel(double share, Point off = {}) {
  return [=](Point p) {
    const double x = p.x - 499.5 - off.x, y = p.y - 349.5 - off.y, r2 = (x * x + y * y) / (kHalf * kHalf);
    return Point{499.5 + off.x + x * (1 - share * r2), 349.5 + off.y + y * (1 - share * r2)};
  };
}

inline Way Turned(double dx, double dy, double degrees, double scale = 1) {
  const double c = scale * std::cos(degrees * std::numbers::pi / 180),
               s = scale * std::sin(degrees * std::numbers::pi / 180);
  return [=](Point p) {
    const double x = p.x - 499.5, y = p.y - 349.5;
    return Point{499.5 + dx + c * x - s * y, 349.5 + dy + s * x + c * y};
  };
}

/// A camera that looks elsewhere: the gnomonic planes of two directions, 1000 pixels for 27 degrees.
inline Way Pointed(int frame) {
  const double f = 500 / std::tan(13.5 * std::numbers::pi / 180);
  const double a = 0.05 * (2 * Noise(frame) - 1), b = 0.03 * (2 * Noise(frame + 100) - 1);
  return [=](Point p) {
    const double x = (p.x - 499.5) / f, y = (p.y - 349.5) / f;
    const double z = std::cos(a) - x * std::sin(a), u = (x * std::cos(a) + std::sin(a)) / z, v = y / z;
    const double w = std::cos(b) - v * std::sin(b);
    return Point{499.5 + f * u / w, 349.5 + f * (v * std::cos(b) + std::sin(b)) / w};
  };
}

/// The stars that a frame shows of a sky so wide, each off by `error` pixels, some missing and others
/// strange.
inline std::vector<CStar> Stars(const Way& way, int count, double error, int seed, double width = 1600) {
  std::vector<CStar> stars;
  for (int i = 0; i < count; ++i) {
    const auto random = [&](int k) { return Noise(1000003LL * seed + 13 * i + k); };
    const auto normal = [&](int k) {
      return std::sqrt(-2 * std::log(1 - random(k))) * std::cos(2 * std::numbers::pi * random(k + 1));
    };
    const bool strange = random(0) < 0.1;
    const Point p = strange ? Point{1000 * random(1), 700 * random(2)}
                            : way({width * Noise(5 * i) - 300, 1200 * Noise(5 * i + 1) - 250});
    CStar star;
    star.x = p.x + error * normal(3);
    star.y = p.y + error * normal(5);
    star.flux = 1000 / (0.02 + Noise(5 * i + 2)) * (0.9 + 0.2 * random(7));
    star.fwhm = 3;
    star.snr = 1.5 / std::sqrt(std::max(error * error - 0.015 * 0.015, 1e-8));
    if (p.x >= 0 && p.y >= 0 && p.x < kWidth && p.y < kHeight && random(8) < 0.9) stars.push_back(star);
  }
  return stars;
}

/// Places of a sky so wide that two frames show.
inline std::vector<Point> Common(const Way& frame, const Way& reference, double width = 1600) {
  const auto isSeen = [](Point p) { return p.x >= 0 && p.y >= 0 && p.x < kWidth && p.y < kHeight; };
  std::vector<Point> common;
  for (double y = -250; y < 950; y += 20) {
    for (double x = -300; x < width - 300; x += 20) {
      if (isSeen(frame({x, y})) && isSeen(reference({x, y}))) common.push_back({x, y});
    }
  }
  return common;
}

/// Where map and truth differ most on what both frames show, in pixels.
inline double WorstOf(const CFrameMap& map, const Way& frame, const Way& reference) {
  double worst = 0;
  for (const Point& p : Common(frame, reference)) {
    const auto is = map(frame(p));
    worst = std::max(worst, is ? Distance(*is, reference(p)) : 1e9);
  }
  return worst;
}

}  // namespace korimg::test::field
