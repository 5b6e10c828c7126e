#include "korimg/measurement/CDiscMatcher.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <numeric>
#include <vector>

#include "korimg/image/internal/Lines.h"
#include "korimg/image/internal/Numbers.h"
#include "korimg/measurement/internal/RigidFit.h"
#include "korimg/measurement/internal/SkyMesh.h"

using namespace korimg;

namespace {

/// Columns and rows from..to - 1.
struct Box {
  int left = 0, top = 0, right = 0, bottom = 0;

  int Width() const { return right - left; }
  int Height() const { return bottom - top; }
};

/// The light of a part of an image; what is no number is 0.
struct Part {
  Box box;
  std::vector<float> pixels;

  Part(CVelImage& image, const Box& of) : box(of), pixels(static_cast<size_t>(of.Width()) * of.Height()) {
    ForLines(Team::One, box.top, box.bottom, [&](int y) {
      float* row = pixels.data() + static_cast<size_t>(y - box.top) * box.Width();
      ReadLight(image, box.left, y, box.Width(), row);
      for (int x = 0; x < box.Width(); ++x) {
        if (!(row[x] - row[x] == 0)) row[x] = 0;
      }
    });
  }

  float At(int x, int y) const {
    return pixels[static_cast<size_t>(y - box.top) * box.Width() + x - box.left];
  }
};

/// Level of the sky, deviation from pixel to pixel, and the highest value that two neighbours have.
struct Background {
  double level = 0, noise = 0, highest = 0;
};

Background MeasureBackground(CVelImage& image) {
  constexpr int kLines = 128;  // chosen, as is the share of the pixels that are darker than the sky's level
  constexpr double kDark = 0.2, kSigmas = 1.4826 / 1.2247;  // of median distances to means of two: sqrt(1.5)
  const int width = image.GetWidth(), height = image.GetHeight(), lines = std::min(kLines, height);
  std::vector<float> row(width), values, distances;
  Background background;
  for (int i = 0; i < lines; ++i) {
    ReadLight(image, 0, static_cast<int>((i + 0.5) * height / lines), width, row.data());
    for (int x = 1; x + 1 < width; ++x) {
      const float distance = row[x] - 0.5f * (row[x - 1] + row[x + 1]);
      if (!(distance - distance == 0)) continue;
      values.push_back(row[x]);
      distances.push_back(std::abs(distance));
      background.highest =
          std::max<double>(background.highest, std::min(row[x], std::max(row[x - 1], row[x + 1])));
    }
  }
  if (values.empty()) return background;
  const auto dark = values.begin() + static_cast<long>(kDark * static_cast<double>(values.size()));
  std::nth_element(values.begin(), dark, values.end());
  background.level = *dark;
  background.noise = kSigmas * UpperMedian(distances);
  return background;
}

/// Pixels that touch each other, above a level.
struct Region {
  Box box;
  std::vector<float> light;
  long long others = 0;  ///< pixels above the level elsewhere
};

/// The largest one.
Region LargestRegion(CVelImage& image, double level) {
  const int width = image.GetWidth(), height = image.GetHeight();
  std::vector<std::uint8_t> mask(static_cast<size_t>(width) * height);
  ForLines(Team::All, 0, height, [&](int y) {
    std::vector<float> row(width);
    ReadLight(image, 0, y, width, row.data());
    std::uint8_t* marks = mask.data() + static_cast<size_t>(y) * width;
    for (int x = 0; x < width; ++x) {
      marks[x] = row[x] > level && row[x] - row[x] == 0;
    }
  });
  struct Pixel {
    int x, y;
  };
  long long all = 0;
  std::vector<Pixel> open, largest;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const auto take = [&](int i, int k) {
        if (i < 0 || k < 0 || i >= width || k >= height) return;
        std::uint8_t& mark = mask[static_cast<size_t>(k) * width + i];
        if (!mark) return;
        mark = 0;
        open.push_back({i, k});
      };
      open.clear();
      take(x, y);
      for (size_t next = 0; next < open.size(); ++next) {
        const auto [i, k] = open[next];
        take(i - 1, k);
        take(i + 1, k);
        take(i, k - 1);
        take(i, k + 1);
      }
      all += static_cast<long long>(open.size());
      if (open.size() > largest.size()) largest.swap(open);
    }
  }
  Region region;
  if (largest.empty()) return region;
  region.others = all - static_cast<long long>(largest.size());
  region.box = {width, height, 0, 0};
  for (const auto [x, y] : largest) {
    region.box = {std::min(region.box.left, x), std::min(region.box.top, y),
                  std::max(region.box.right, x + 1), std::max(region.box.bottom, y + 1)};
    float light;
    ReadLight(image, x, y, 1, &light);
    region.light.push_back(light);
  }
  return region;
}

/// The middle of what is brighter than two levels, by growing share between them, and its size.
struct Outline {
  Point middle;
  double area = 0, ellipse = 0;  ///< its own, and of the ellipse of the same moments
};

Outline MeasureOutline(const Part& part, double low, double high) {
  double sum = 0, x = 0, y = 0, xx = 0, xy = 0, yy = 0;
  for (int j = part.box.top; j < part.box.bottom; ++j) {
    for (int i = part.box.left; i < part.box.right; ++i) {
      const double w = std::clamp((part.At(i, j) - low) / (high - low), 0.0, 1.0), dx = i - part.box.left,
                   dy = j - part.box.top;
      sum += w;
      x += w * dx;
      y += w * dy;
      xx += w * dx * dx;
      xy += w * dx * dy;
      yy += w * dy * dy;
    }
  }
  x /= sum;
  y /= sum;
  const double vx = xx / sum - x * x, vxy = xy / sum - x * y, vy = yy / sum - y * y;
  return {{x + part.box.left, y + part.box.top},
          sum,
          4 * std::numbers::pi * std::sqrt(std::max(vx * vy - vxy * vxy, 0.0))};
}

}  // namespace

struct CDiscMatcher::Disc {
  Part part;
  Point middle, inner;  ///< of the whole, and of what is brighter
  double radius = 0;    ///< of a circle of its area

  struct Odd {
    std::vector<double> values;
    double share = 0;  ///< of their squares that slopes do not explain
  };
  /// What is odd about the middle of means of cells, of one half of the disc, without the slopes that a
  /// slightly wrong middle or a thin cloud makes.
  Odd OddPart(double reach, int cell) const;
};

std::unique_ptr<CDiscMatcher::Disc const> CDiscMatcher::Find(CVelImage& image) {
  // The height above the sky in its noise and in the highest light, the area in pixels, that of other regions
  // in it; the edge and the brightest part in the disc's median height, and its area in its ellipse's.
  // Chosen: with them all of 35 frames of simulated planets are registered, within 0.03 px.
  constexpr double kSigmas = 8, kLeastShare = 0.05, kLeastArea = 300, kMostOthers = 0.1;
  constexpr double kEdge = 0.35, kBrightest = 2, kFilled = 0.8;
  if (image.IsEmpty()) return nullptr;
  const Background sky = MeasureBackground(image);
  const double least = std::max(kSigmas * sky.noise, kLeastShare * (sky.highest - sky.level));
  if (!(least > 0)) return nullptr;
  Region region = LargestRegion(image, sky.level + least);
  if (static_cast<double>(region.light.size()) < kLeastArea) return nullptr;
  const double height = UpperMedian(region.light) - sky.level;
  region = LargestRegion(image, sky.level + kEdge * height);
  const auto pixels = static_cast<double>(region.light.size());
  if (pixels < kLeastArea || static_cast<double>(region.others) > kMostOthers * pixels) return nullptr;
  const auto bright = region.light.begin() + static_cast<long>(0.95 * pixels);
  std::nth_element(region.light.begin(), bright, region.light.end());
  if (*bright - sky.level > kBrightest * height)
    return nullptr;  // no disc, but a cloud that grows to its middle
  const int margin = 3 + static_cast<int>(0.05 * std::max(region.box.Width(), region.box.Height()));
  const Box box{region.box.left - margin, region.box.top - margin, region.box.right + margin,
                region.box.bottom + margin};
  if (region.box.left < 2 || region.box.top < 2 || region.box.right > image.GetWidth() - 2 ||
      region.box.bottom > image.GetHeight() - 2) {
    return nullptr;
  }
  Part part(image, {std::max(box.left, 0), std::max(box.top, 0), std::min(box.right, image.GetWidth()),
                    std::min(box.bottom, image.GetHeight())});
  const auto outline = [&](double low, double high) {
    return MeasureOutline(part, sky.level + low * height, sky.level + high * height);
  };
  const Outline whole = outline(0.2, 0.5), inner = outline(0.45, 0.75);
  if (!(whole.area > kFilled * whole.ellipse)) return nullptr;
  return std::unique_ptr<const Disc>(
      new Disc{std::move(part), whole.middle, inner.middle, std::sqrt(whole.area / std::numbers::pi)});
}

CDiscMatcher::Disc::Odd CDiscMatcher::Disc::OddPart(double reach, int cell) const {
  const int cells = static_cast<int>(reach / cell);
  std::vector<Point> places;
  std::vector<double> odd;
  const auto mean = [&](double x, double y) {
    const int left = std::clamp(static_cast<int>(std::lround(x - 0.5 * (cell - 1))), part.box.left,
                                part.box.right - cell),
              top = std::clamp(static_cast<int>(std::lround(y - 0.5 * (cell - 1))), part.box.top,
                               part.box.bottom - cell);
    double sum = 0;
    for (int j = top; j < top + cell; ++j) {
      for (int i = left; i < left + cell; ++i) {
        sum += part.At(i, j);
      }
    }
    return sum / (cell * cell);
  };
  for (int j = 0; j <= cells; ++j) {
    for (int i = -cells; i <= cells; ++i) {
      const Point p{1.0 * i * cell, 1.0 * j * cell};
      if ((j == 0 && i <= 0) || Length(p.x, p.y) > reach) continue;
      places.push_back({p.x / reach, p.y / reach});
      odd.push_back(mean(middle.x + p.x, middle.y + p.y) - mean(middle.x - p.x, middle.y - p.y));
    }
  }
  // Slopes, and those of what grows dark toward the limb: x and y, times even powers of the radius. They are
  // taken out, one after the other made independent of those before.
  std::vector<std::vector<double>> slopes;
  for (const int power : {0, 2, 4}) {
    for (double Point::*along : {&Point::x, &Point::y}) {
      std::vector<double> slope;
      for (const Point& p : places) {
        slope.push_back(p.*along * std::pow(Length(p.x, p.y), power));
      }
      slopes.push_back(slope);
    }
  }
  const auto takeOut = [](std::vector<double>& from, const std::vector<double>& what) {
    double dot = 0, square = 0;
    for (size_t k = 0; k < from.size(); ++k) {
      dot += from[k] * what[k];
      square += what[k] * what[k];
    }
    for (size_t k = 0; square > 0 && k < from.size(); ++k) {
      from[k] -= dot / square * what[k];
    }
  };
  const auto squares = [&] { return std::inner_product(odd.begin(), odd.end(), odd.begin(), 0.0); };
  const double all = squares();
  for (size_t k = 0; k < slopes.size(); ++k) {
    for (size_t before = 0; before < k; ++before) {
      takeOut(slopes[k], slopes[before]);
    }
    takeOut(odd, slopes[k]);
  }
  const double share = all > 0 ? squares() / all : 0;
  return {std::move(odd), share};
}

CDiscMatcher::CDiscMatcher(CVelImage& reference) : disc_(Find(reference)) {}

CDiscMatcher::~CDiscMatcher() = default;

CStarMatch CDiscMatcher::Match(CVelImage& image) const {
  // By how much radii may differ, pixels between the middles of the whole and the inner outline, the part of
  // the radius that odd light is compared in; likeness, deviations and share of light that a half turn needs.
  // Chosen: with them 35 frames of simulated planets are registered, none of them turned over.
  constexpr double kSameSize = 0.15, kFarthest = 3, kInside = 0.8, kOpposite = 0.4, kSure = 6,
                   kLeastShare = 0.1;
  constexpr int kCells = 16;
  CStarMatch match;
  match.status = CStarMatch::NoMatch;
  const auto other = disc_ ? Find(image) : nullptr;
  if (!other || std::abs(other->radius / disc_->radius - 1) > kSameSize) return match;
  // The odd parts are alike, or opposite when one image is turned by 180 degrees.
  const double reach = kInside * std::min(disc_->radius, other->radius);
  const int cell = std::max(2, static_cast<int>(std::lround(reach / kCells)));
  const Disc::Odd ours = disc_->OddPart(reach, cell), theirs = other->OddPart(reach, cell);
  const auto dot = [](const std::vector<double>& a, const std::vector<double>& b) {
    return std::inner_product(a.begin(), a.end(), b.begin(), 0.0);
  };
  const double alike =
      dot(ours.values, theirs.values) /
      std::sqrt(std::max(dot(ours.values, ours.values) * dot(theirs.values, theirs.values), 1e-300));
  const bool isTurned = std::min(ours.share, theirs.share) > kLeastShare && alike < -kOpposite &&
                        -alike * std::sqrt(static_cast<double>(ours.values.size())) > kSure;
  const double sign = isTurned ? -1 : 1;
  const auto shift = [&](const Point& from, const Point& to) {
    return Point{to.x - sign * from.x, to.y - sign * from.y};
  };
  const Point whole = shift(other->middle, disc_->middle), inner = shift(other->inner, disc_->inner);
  match.residual = Distance(whole, inner);
  if (match.residual > kFarthest) return match;
  const Pose pose = PoseOf({sign, 0, whole.x, whole.y}, image.GetWidth(), image.GetHeight());
  match.dx = pose.dx;
  match.dy = pose.dy;
  match.degrees = pose.degrees;
  match.stars = 1;
  match.status = CStarMatch::Ok;
  return match;
}
