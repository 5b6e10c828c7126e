#include "korimg/measurement/CStarFinder.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <tuple>
#include <utility>

#include "korimg/image/internal/Lines.h"
#include "korimg/image/internal/Numbers.h"
#include "korimg/measurement/internal/PointGrid.h"
#include "korimg/measurement/internal/StarSeeds.h"

using namespace korimg;

namespace {

/// A Gaussian's full width at half maximum in standard deviations: sqrt(8 ln 2).
constexpr double kFwhmOfSigma = 2.354820045829508;
/// What pixels add to a star's variance by integrating it: the variance of an even square of side 1.
constexpr double kPixelVariance = 1.0 / 12;
/// Pixels of the widest apertures. Chosen.
constexpr double kWidest = 40;
/// Variance below which a star is so narrow that its pixels have to be counted with (FWHM 2.5): sums over
/// pixels put the 400 Gaussians of docs/performance.md off by 0.0002 pixels at a FWHM of 3.
constexpr double kNarrowStar = 1.2;
/// Variance of the widest window that shapes are measured through. Chosen: stars of a FWHM of 13.
constexpr double kWidestWindow = 30;

/// The pixels around a star, less their sky, as far as the image reaches. What is not finite is NaN.
class Stamp {
 public:
  Stamp(CVelImage& image, const SkyMesh& sky, double x, double y, double reach) {
    // In this order of arguments a position that is no number becomes 0.
    const auto limited = [](double v, int size) {
      return static_cast<int>(std::min(std::max(0.0, v), size * 1.0));
    };
    left_ = limited(std::floor(x - reach), image.GetWidth() - 1);
    top_ = limited(std::floor(y - reach), image.GetHeight() - 1);
    right_ = limited(std::ceil(x + reach) + 1, image.GetWidth());
    bottom_ = limited(std::ceil(y + reach) + 1, image.GetHeight());
    const int width = right_ - left_;
    pixels_.resize(static_cast<size_t>(width) * (bottom_ - top_));
    std::vector<float> level(width);
    for (int j = top_; j < bottom_; ++j) {
      float* row = pixels_.data() + static_cast<size_t>(j - top_) * width;
      ReadLight(image, left_, j, width, row);
      sky.Levels(left_, j, width, level.data());
      for (int i = 0; i < width; ++i) {
        row[i] = row[i] - row[i] == 0 ? row[i] - level[i] : std::numeric_limits<float>::quiet_NaN();
      }
    }
  }

  bool Has(int x, int y) const { return x >= left_ && y >= top_ && x < right_ && y < bottom_; }
  float At(int x, int y) const {
    return pixels_[static_cast<size_t>(y - top_) * (right_ - left_) + x - left_];
  }

  /// Calls pixel(x, y, value) for the finite pixels of a square.
  template <class F>
  void ForPixels(double x, double y, double reach, F&& pixel) const {
    const int x0 = std::max(static_cast<int>(std::ceil(x - reach)), left_),
              x1 = std::min(static_cast<int>(std::floor(x + reach)), right_ - 1),
              y0 = std::max(static_cast<int>(std::ceil(y - reach)), top_),
              y1 = std::min(static_cast<int>(std::floor(y + reach)), bottom_ - 1);
    for (int j = y0; j <= y1; ++j) {
      for (int i = x0; i <= x1; ++i) {
        const float v = At(i, j);
        if (v == v) pixel(i, j, static_cast<double>(v));
      }
    }
  }

  /// Sum of a circle whose rim takes parts of pixels.
  double Circle(double x, double y, double radius) const {
    double sum = 0;
    ForPixels(x, y, radius + 1, [&](int i, int j, double v) {
      sum += v * std::clamp(radius + 0.5 - Length(i - x, j - y), 0.0, 1.0);
    });
    return sum;
  }

  /// What rings around a circle hold, each by the median of its pixels, which single bright ones and other
  /// stars do not change.
  double Halo(double x, double y, double from, double to) const {
    const int rings = std::max(static_cast<int>(std::lround(to - from)), 1);
    const double step = (to - from) / rings;
    std::vector<std::vector<double>> pixels(rings);
    ForPixels(x, y, to, [&](int i, int j, double v) {
      const double ring = (Length(i - x, j - y) - from) / step;
      if (ring >= 0 && ring < rings) pixels[static_cast<int>(ring)].push_back(v);
    });
    double sum = 0;
    for (int k = 0; k < rings; ++k) {
      const double inner = from + k * step, outer = inner + step;
      sum += UpperMedian(pixels[k]) * std::numbers::pi * (outer * outer - inner * inner);
    }
    return sum;
  }

  /// Keeps of each pixel what the one opposite to it has too: a star without its neighbour.
  void MakeSymmetric(double x, double y) {
    const std::vector<float> before = pixels_;
    const int twiceX = static_cast<int>(std::lround(2 * x)), twiceY = static_cast<int>(std::lround(2 * y));
    const int width = right_ - left_;
    for (int j = top_; j < bottom_; ++j) {
      for (int i = left_; i < right_; ++i) {
        if (!Has(twiceX - i, twiceY - j)) continue;
        const float opposite = before[static_cast<size_t>(twiceY - j - top_) * width + twiceX - i - left_];
        float& v = pixels_[static_cast<size_t>(j - top_) * width + i - left_];
        v = opposite < v ? opposite : v;
      }
    }
  }

  /// The circle lies on the image, and all its pixels are finite.
  bool IsWhole(double x, double y, double radius) const {
    if (!Has(static_cast<int>(std::floor(x - radius)), static_cast<int>(std::floor(y - radius))) ||
        !Has(static_cast<int>(std::ceil(x + radius)), static_cast<int>(std::ceil(y + radius)))) {
      return false;
    }
    const auto r = static_cast<int>(std::ceil(radius));
    const int cx = static_cast<int>(std::lround(x)), cy = static_cast<int>(std::lround(y));
    for (int j = cy - r; j <= cy + r; ++j) {
      for (int i = cx - r; i <= cx + r; ++i) {
        if (Has(i, j) && Length(i - x, j - y) <= radius && At(i, j) != At(i, j)) return false;
      }
    }
    return true;
  }

 private:
  int left_, top_, right_, bottom_;
  std::vector<float> pixels_;
};

/// A symmetric 2 x 2 matrix.
struct Symmetric {
  double xx = 0, xy = 0, yy = 0;

  double Determinant() const { return xx * yy - xy * xy; }
  Symmetric Inverse() const {
    const double d = Determinant();
    return {yy / d, -xy / d, xx / d};
  }
  double Of(double x, double y) const { return xx * x * x + 2 * xy * x * y + yy * y * y; }
};

/// Where a star is and how far its light spreads: variances along its axes, and their matrix.
struct Shape {
  double x = 0, y = 0;
  double longer = 0, shorter = 0;
  Symmetric spread;

  /// By the inverse of the matrix.
  void SetInverse(const Symmetric& sharp) {
    constexpr double kLongest = 400;  // chosen: what is longer than windows reach is not known any more
    const double middle = (sharp.xx + sharp.yy) / 2, half = std::hypot((sharp.xx - sharp.yy) / 2, sharp.xy);
    longer = 1 / std::max(middle - half, 1 / kLongest);
    shorter = 1 / std::max(middle + half, 1 / kLongest);
    spread = sharp.Inverse();
  }

  double Variance() const { return std::sqrt(longer * shorter); }
  double GaussianFwhm() const { return kFwhmOfSigma * std::sqrt(Variance()); }
};

/// What a Gaussian window sees of a star along one axis: mean and variance of the product.
struct Seen {
  double mean = 0, variance = 0;
};

/// The same of a Gaussian that pixels integrate, its middle `offset` from the window's.
Seen SeenOfPixels(double middle, double window, double reach, double offset, double variance) {
  const double scale = 1 / std::sqrt(2 * std::max(variance, 1e-4));
  const auto below = [&](double edge) { return std::erf((edge - offset) * scale); };
  const int first = static_cast<int>(std::ceil(middle - reach)),
            last = static_cast<int>(std::floor(middle + reach));
  double sum = 0, sumX = 0, squares = 0, before = below(first - 0.5 - middle);
  for (int i = first; i <= last; ++i) {
    const double x = i - middle, up = below(x + 0.5);
    const double w = (up - before) * std::exp(-0.5 * x * x / window);
    before = up;
    sum += w;
    sumX += w * x;
    squares += w * x * x;
  }
  if (!(sum > 0)) return {};
  const double mean = sumX / sum;
  return {mean, squares / sum - mean * mean};
}

/// Pixels see too little of a narrow star for sums over them to be integrals: its middle comes out as much as
/// 0.1 pixels off, and its width by a third. Finds the Gaussian of which pixels would show what was seen.
void CorrectForPixels(double middle, double window, double reach, const Seen& seen, double& offset,
                      double& variance) {
  // Chosen: variances and pixels of narrow stars, and a step that no longer counts.
  constexpr int kRounds = 12;
  constexpr double kNarrowest = 1e-3, kWidest = 3, kFarthest = 1, kStill = 1e-5;
  offset = std::clamp(offset, -kFarthest, kFarthest);
  double inner = std::clamp(variance - kPixelVariance, kNarrowest, kWidest);
  for (int round = 0; round < kRounds; ++round) {
    const Seen now = SeenOfPixels(middle, window, reach, offset, inner);
    const double gain = (inner + kPixelVariance + window) / window;
    const double step = gain * (seen.mean - now.mean);
    offset = std::clamp(offset + step, -kFarthest, kFarthest);
    inner = std::clamp(inner + gain * gain * (seen.variance - now.variance), kNarrowest, kWidest);
    if (std::abs(step) + std::abs(seen.variance - now.variance) < kStill) break;
  }
  variance = inner + kPixelVariance;
}

/// Through a Gaussian window that grows or shrinks to the star's width and moves to its middle. False for
/// what has no width, or moves away.
bool MeasureShape(const Stamp& stamp, const StarSeed& seed, double widest, Shape& shape) {
  // Chosen: pixels that a star may move by, the least variance, a step that no longer counts; the window's
  // reach in its deviations, and the pixels of the widest one's.
  constexpr int kRounds = 12;
  constexpr double kFarthest = 1.5, kNarrowest = 0.4, kStill = 1e-4;
  constexpr double kWindowReach = 3, kWidestReach = 17;
  static_assert(kWindowReach * kWindowReach * kWidestWindow < kWidestReach * kWidestReach);
  widest = std::clamp(widest, kNarrowest, kWidestWindow);
  double x = seed.x, y = seed.y, window = 1.5, used = window;
  Seen seenX, seenY;
  Point middle;
  for (int round = 0; round < kRounds; ++round) {
    double sum = 0, sumX = 0, sumY = 0;
    Symmetric c;
    const double scale = -0.5 / window;
    double weightsX[static_cast<int>(2 * kWidestReach) + 1];
    const double reach = kWindowReach * std::sqrt(window);
    const int first = static_cast<int>(std::ceil(x - reach)),
              count = static_cast<int>(std::floor(x + reach)) - first + 1;
    for (int i = 0; i < count; ++i) {
      weightsX[i] = std::exp(scale * (first + i - x) * (first + i - x));
    }
    int line = std::numeric_limits<int>::min();
    double weightY = 0;
    stamp.ForPixels(x, y, reach, [&](int i, int j, double v) {
      const double dx = i - x, dy = j - y;
      if (j != line) weightY = std::exp(scale * dy * dy);
      line = j;
      const double w = v * weightsX[i - first] * weightY;
      sum += w;
      sumX += w * dx;
      sumY += w * dy;
      c = {c.xx + w * dx * dx, c.xy + w * dx * dy, c.yy + w * dy * dy};
    });
    if (!(sum > 0)) return false;
    const double mx = sumX / sum, my = sumY / sum;
    c = {c.xx / sum - mx * mx, c.xy / sum - mx * my, c.yy / sum - my * my};
    if (!(c.xx > 0 && c.yy > 0 && c.Determinant() > 0)) return false;
    // The window's own width taken out again: of what is left the axes.
    Symmetric sharp = c.Inverse();
    sharp.xx -= 1 / window;
    sharp.yy -= 1 / window;
    shape.SetInverse(sharp);
    seenX = {mx, c.xx};
    seenY = {my, c.yy};
    middle = {x, y};
    // A window as wide as the star sees half of its own displacement.
    const double gain = 1 + shape.Variance() / window;
    const double stepX = mx * std::min(gain, 2.0), stepY = my * std::min(gain, 2.0);
    x += stepX;
    y += stepY;
    if (!(std::abs(x - seed.x) <= kFarthest && std::abs(y - seed.y) <= kFarthest)) return false;
    used = std::exchange(window, std::clamp(shape.Variance(), kNarrowest, widest));
    if (std::abs(stepX) + std::abs(stepY) < kStill && std::abs(window - used) < 0.01 * used) break;
  }
  if (shape.Variance() < kNarrowStar) {
    const double reach = kWindowReach * std::sqrt(used);
    double offsetX = x - middle.x, offsetY = y - middle.y, xx = shape.spread.xx, yy = shape.spread.yy;
    CorrectForPixels(middle.x, used, reach, seenX, offsetX, xx);
    CorrectForPixels(middle.y, used, reach, seenY, offsetY, yy);
    x = middle.x + offsetX;
    y = middle.y + offsetY;
    // The directions of the axes stay.
    const double turned = shape.spread.xy / std::sqrt(shape.spread.xx * shape.spread.yy);
    shape.SetInverse(Symmetric{xx, turned * std::sqrt(xx * yy), yy}.Inverse());
  }
  shape.x = x;
  shape.y = y;
  return true;
}

/// The brightest pixel within one of a position; NaN counts as nothing.
double PeakNear(const Stamp& stamp, double x, double y, int& peakX, int& peakY) {
  double peak = -std::numeric_limits<double>::infinity();
  stamp.ForPixels(std::round(x), std::round(y), 1, [&](int i, int j, double v) {
    if (v <= peak) return;
    peak = v;
    peakX = i;
    peakY = j;
  });
  return peak;
}

/// The n-th brightest of the pixels around one, which has rank 0 among them.
double Ranked(const Stamp& stamp, int x, int y, int n) {
  std::vector<double> values;
  stamp.ForPixels(x, y, 1, [&](int, int, double v) { values.push_back(v); });
  if (static_cast<int>(values.size()) <= n) return -std::numeric_limits<double>::infinity();
  std::nth_element(values.begin(), values.begin() + n, values.end(), std::greater<>());
  return values[n];
}

/// A single bright pixel: at most one of its neighbours has a share of its light.
bool IsHotPixel(const Stamp& stamp, const StarSeed& seed) {
  constexpr double kShare = 0.2;  // chosen: a star of a FWHM of 1.2 gives two neighbours more
  int x = 0, y = 0;
  const double peak = PeakNear(stamp, seed.x, seed.y, x, y);
  return !(Ranked(stamp, x, y, 2) > kShare * peak);
}

/// FWHM of a star's profile: where a parabola through the logarithm of the brighter part, over the square of
/// the distance along ellipses, has fallen to a half. What an added variance did to it is taken out to first
/// order. 0 when there is none. `forPixels` calls its argument with the pixels within a distance.
template <class F>
double ProfileFwhm(const Shape& shape, double peak, double added, F&& forPixels) {
  constexpr double kLeast = 0.15, kReach = 1.3;  // chosen: of the peak, and FWHM
  const Symmetric sharp = shape.spread.Inverse();
  const double scale = shape.Variance();
  // Normal equations of ln v = a0 + a1 u + a2 u^2, weighted by v^2.
  double s[5] = {}, t[3] = {};
  forPixels(kReach * shape.GaussianFwhm(), [&](int i, int j, double v) {
    if (!(v > kLeast * peak)) return;
    const double u = sharp.Of(i - shape.x, j - shape.y) * scale, logarithm = std::log(v);
    double w = v * v;
    for (int k = 0; k < 5; ++k, w *= u) {
      s[k] += w;
      if (k < 3) t[k] += w * logarithm;
    }
  });
  const auto determinant = [](const double(&a)[3], const double(&b)[3], const double(&c)[3]) {
    return a[0] * (b[1] * c[2] - b[2] * c[1]) - b[0] * (a[1] * c[2] - a[2] * c[1]) +
           c[0] * (a[1] * b[2] - a[2] * b[1]);
  };
  const double one[3] = {s[0], s[1], s[2]}, two[3] = {s[1], s[2], s[3]}, three[3] = {s[2], s[3], s[4]};
  const double all = determinant(one, two, three), slope = -determinant(one, t, three) / all,
               bend = determinant(one, two, t) / all;
  const double root = slope * slope - 4 * bend * std::numbers::ln2;
  if (!(slope > 0 && root > 0)) return 0;
  const double half = 2 * std::numbers::ln2 / (slope + std::sqrt(root));
  // The profile before was f - added / 2 laplacian(f): higher at its top, and narrower.
  const double fall = slope - 2 * bend * half;
  const double before = half - 2 * added * (slope - fall + half * (fall * fall + 2 * bend)) / fall;
  return before > 0 ? 2 * std::sqrt(before) : 0;
}

double ProfileFwhm(const Stamp& stamp, const Shape& shape, double peak, double added) {
  return ProfileFwhm(shape, peak, added,
                     [&](double reach, auto&& pixel) { stamp.ForPixels(shape.x, shape.y, reach, pixel); });
}

/// The same of a Gaussian with that middle and that width along x and y, that pixels integrate.
double ProfileFwhmOfPixels(const Shape& shape, double added) {
  const double cx = std::round(shape.x), cy = std::round(shape.y);
  const auto share = [&](double pixel, double middle, double variance) {
    const double scale = 1 / std::sqrt(2 * std::max(variance - kPixelVariance, 1e-4));
    return std::erf((pixel + 0.5 - middle) * scale) - std::erf((pixel - 0.5 - middle) * scale);
  };
  const auto value = [&](double x, double y) {
    return share(x, shape.x, shape.spread.xx) * share(y, shape.y, shape.spread.yy);
  };
  return ProfileFwhm(shape, value(cx, cy), added, [&](double reach, auto&& pixel) {
    for (int j = static_cast<int>(std::ceil(shape.y - reach)); j <= shape.y + reach; ++j) {
      for (int i = static_cast<int>(std::ceil(shape.x - reach)); i <= shape.x + reach; ++i) {
        pixel(i, j, value(i, j));
      }
    }
  });
}

/// What the shapes of a frame's stars have in common.
class UsualShape {
 public:
  /// `spread` is the variance that a single pixel of the sensor has.
  UsualShape(const std::vector<Shape>& shapes, double spread) {
    std::vector<double> shorter, sizes;
    for (const Shape& shape : shapes) {
      if (!(shape.shorter > spread + kNarrow)) continue;
      shorter.push_back(shape.shorter);
      sizes.push_back(shape.Variance());
    }
    size_ = UpperMedian(sizes);
    least_ = spread + std::max(kNarrow, kNarrowShare * (UpperMedian(shorter) - spread));
  }

  /// Neither a hot pixel or a cosmic ray nor a trail nor a cloud.
  bool Fits(const Shape& shape) const {
    return shape.shorter > least_ && shape.longer < kTrail * shape.shorter &&
           shape.Variance() < kWide * size_;
  }
  double Variance() const { return size_; }

 private:
  /// In variances, chosen: a trail is four times as long as wide, a cloud 2.4 times as wide as stars.
  static constexpr double kNarrow = 0.2, kNarrowShare = 0.35, kTrail = 16, kWide = 6;

  double size_, least_;
};

/// The shapes of those seeds that are stars.
std::vector<Shape> MeasureShapes(CVelImage& image, const SkyMesh& sky, const std::vector<StarSeed>& seeds) {
  constexpr double kReach = 18, kNarrowed = 1.5;  // pixels, by the widest window; chosen
  // Most stars are small: a stamp of a quarter of the pixels holds their windows.
  constexpr double kSmallReach = 9, kSmallWindow = 5;
  enum State { Nothing, Measured, Failed };
  struct Candidate {
    State state = Nothing;
    Shape shape;
  };
  const int count = static_cast<int>(seeds.size());
  auto candidates = MapLines(0, count, [&](int i) {
    Candidate c;
    const Stamp small(image, sky, seeds[i].x, seeds[i].y, kSmallReach);
    if (IsHotPixel(small, seeds[i])) return c;
    c.state = Measured;
    if (MeasureShape(small, seeds[i], kSmallWindow, c.shape) && c.shape.Variance() < kSmallWindow) return c;
    const Stamp stamp(image, sky, seeds[i].x, seeds[i].y, kReach);
    if (!MeasureShape(stamp, seeds[i], kWidestWindow, c.shape)) c.state = Failed;
    return c;
  });
  std::vector<Shape> shapes;
  for (const Candidate& c : candidates) {
    if (c.state == Measured) shapes.push_back(c.shape);
  }
  const UsualShape usual(shapes, LightSpread(image));
  const double widest = kNarrowed * usual.Variance();
  // What widens or draws away a free window, a cloud or a brighter star, may leave a narrower one alone.
  ForLines(Team::All, 0, count, [&](int i) {
    Candidate& c = candidates[i];
    if (c.state == Nothing || (c.state == Measured && usual.Fits(c.shape))) return;
    Stamp stamp(image, sky, seeds[i].x, seeds[i].y, kReach);
    const auto measure = [&] {
      return MeasureShape(stamp, seeds[i], widest, c.shape) && usual.Fits(c.shape);
    };
    c.state = Measured;
    if (measure()) return;
    stamp.MakeSymmetric(seeds[i].x, seeds[i].y);
    if (!measure()) c.state = Nothing;
  });
  shapes.clear();
  for (const Candidate& c : candidates) {
    if (c.state == Measured) shapes.push_back(c.shape);
  }
  return shapes;
}

/// The finder's work once it knows where stars are and how wide.
class Photometry {
 public:
  Photometry(CVelImage& image, const SkyMesh& sky, double grain, const std::vector<Shape>& shapes)
      : image_(image), sky_(sky), grain_(grain), shapes_(shapes), grid_(PointsOf(shapes)) {
    std::vector<double> widths;
    for (const Shape& shape : shapes) {
      widths.push_back(shape.GaussianFwhm());
    }
    width_ = UpperMedian(widths);
    aperture_ = std::clamp(1.5 * width_, 2.0, kWidest / 2);
    wide_ = std::clamp(3.5 * width_, 4.0, kWidest);
  }

  /// Electrons of a raw value, or 0 where they are not known.
  std::vector<CStar> Measure(double saturation, double gain) const {
    const auto measured =
        MapLines(0, static_cast<int>(shapes_.size()), [&](int i) { return MeasureStar(i); });
    const double most = std::min(saturation, SharedTop(measured));
    std::vector<CStar> stars;
    for (const auto& [star, top] : measured) {
      stars.push_back(star);
      if (top >= most) stars.back().flags |= CStar::Saturated;
    }
    const Factors factors = FactorsOf(stars);
    for (size_t i = 0; i < stars.size(); ++i) {
      constexpr double kLeastFwhm = 0.5;  // chosen: pixels tell nothing of narrower ones
      stars[i].fwhm = std::max(factors.width * MomentFwhm(shapes_[i]), kLeastFwhm);
      if (gain > 0) {
        const double sky = SkyNoise(stars[i]);
        stars[i].snr = stars[i].flux / std::sqrt(sky * sky + std::max(stars[i].flux, 0.0) / gain);
      }
      stars[i].flux *= factors.flux;
    }
    return stars;
  }

 private:
  /// What widths by window moments and fluxes of the aperture have to be multiplied by.
  struct Factors {
    double width, flux;
  };

  static std::vector<Point> PointsOf(const std::vector<Shape>& shapes) {
    std::vector<Point> points;
    for (const Shape& shape : shapes) {
      points.push_back({shape.x, shape.y});
    }
    return points;
  }

  /// Of the light before pixels and what follows made it wider.
  double Added() const { return kPixelVariance + LightSpread(image_); }
  double MomentFwhm(const Shape& shape) const {
    return kFwhmOfSigma * std::sqrt(std::max(shape.Variance() - Added(), 0.0));
  }

  /// Of the sky in the aperture.
  double SkyNoise(const CStar& star) const {
    return star.noise * grain_ * std::sqrt(std::numbers::pi) * aperture_;
  }

  bool IsAlone(const Shape& shape, double radius) const {
    int stars = 0;
    grid_.ForNear({shape.x, shape.y}, radius, [&](int, double) { ++stars; });
    return stars == 1;
  }

  struct Measured {
    CStar star;
    double top;  ///< raw value of the brightest pixel
  };

  Measured MeasureStar(int i) const {
    const Shape& shape = shapes_[i];
    const Stamp stamp(image_, sky_, shape.x, shape.y, aperture_ + 2);
    const int column = std::clamp(static_cast<int>(std::lround(shape.x)), 0, image_.GetWidth() - 1),
              line = std::clamp(static_cast<int>(std::lround(shape.y)), 0, image_.GetHeight() - 1);
    CStar star;
    star.x = shape.x;
    star.y = shape.y;
    star.sky = sky_.Level(column, line);
    star.noise = sky_.Sigma(column, line);
    int peakX = column, peakY = line;
    star.peak = PeakNear(stamp, shape.x, shape.y, peakX, peakY);
    star.flux = stamp.Circle(shape.x, shape.y, aperture_);
    star.snr = star.flux / SkyNoise(star);
    star.elongation = std::sqrt(shape.longer / shape.shorter);
    const bool flat = star.peak > kBright * star.noise && IsFlatTop(stamp, peakX, peakY, star.peak);
    if (flat) star.flags |= CStar::Saturated;
    if (!stamp.IsWhole(shape.x, shape.y, aperture_)) star.flags |= CStar::Edge;
    if (!IsAlone(shape, aperture_ + width_)) star.flags |= CStar::Blended;
    return {star, star.peak + sky_.Level(peakX, peakY)};
  }

  /// The highest top of all when three stars or more have it: no sensor shows more. Else infinite.
  static double SharedTop(const std::vector<Measured>& stars) {
    constexpr double kRounding = 1e-6;  // relative: what floats lose in a few sums
    double highest = 0, sharing = 0;
    for (const Measured& m : stars) {
      highest = std::max(highest, m.top);
    }
    const double least = highest - kRounding * highest;
    for (const Measured& m : stars) {
      if (m.top >= least) ++sharing;
    }
    return sharing >= 3 ? least : std::numeric_limits<double>::infinity();
  }

  /// Around the top of a star of the usual width the fifth brightest pixel is lower by 4 ln 2 / FWHM^2 at
  /// least.
  bool IsFlatTop(const Stamp& stamp, int x, int y, double peak) const {
    constexpr double kFlat = 0.4;  // chosen: a top that falls by less than this share of that is flat
    const double fall = std::min(4 * std::numbers::ln2 / (width_ * width_), 1.0);
    return Ranked(stamp, x, y, 4) > (1 - kFlat * fall) * peak;
  }

  Factors FactorsOf(const std::vector<CStar>& stars) const {
    constexpr size_t kMost = 200, kLeast = 5;  // stars for a median; chosen, as is the limit of their noise
    constexpr double kSnr = 30;
    std::vector<int> models;
    for (int i = 0; i < static_cast<int>(stars.size()); ++i) {
      if (stars[i].flags == 0 && stars[i].snr > kSnr) models.push_back(i);
    }
    std::sort(models.begin(), models.end(),
              [&](int a, int b) { return std::tuple(-stars[a].flux, a) < std::tuple(-stars[b].flux, b); });
    models.resize(std::min(models.size(), kMost));
    std::vector<double> widths, fluxes;
    for (const Factors& f : MapLines(0, static_cast<int>(models.size()), [&](int m) {
           const Shape& shape = shapes_[models[m]];
           const Stamp stamp(image_, sky_, shape.x, shape.y, wide_ + 2);
           const CStar& star = stars[models[m]];
           // What first order leaves of narrow stars it leaves of a Gaussian too.
           const double usual =
               shape.Variance() < kNarrowStar ? ProfileFwhmOfPixels(shape, Added()) : MomentFwhm(shape);
           return Factors{ProfileFwhm(stamp, shape, star.peak, Added()) / usual,
                          1 + stamp.Halo(shape.x, shape.y, aperture_, wide_) / star.flux};
         })) {
      if (f.width > 0 && std::isfinite(f.width)) widths.push_back(f.width);
      fluxes.push_back(f.flux);
    }
    return {widths.size() < kLeast ? 1 : UpperMedian(widths),
            fluxes.size() < kLeast ? 1 : UpperMedian(fluxes)};
  }

  static constexpr double kBright = 100;  ///< deviations of the sky; chosen

  CVelImage& image_;
  const SkyMesh& sky_;
  double grain_;
  const std::vector<Shape>& shapes_;
  PointGrid grid_;
  double width_ = 0;                ///< the usual FWHM
  double aperture_ = 0, wide_ = 0;  ///< radii
};

}  // namespace

int CStarFinder::Find() {
  stars_.clear();
  fwhm_ = elongation_ = sky_ = noise_ = 0;
  if (image_->IsEmpty()) return 0;
  const SkyMesh sky(*image_);
  sky_ = sky.MedianLevel();
  noise_ = sky.MedianSigma();
  const StarSeeds found = FindStarSeeds(*image_, sky, threshold_);
  const std::vector<Shape> shapes = MeasureShapes(*image_, sky, found.seeds);
  stars_ = Photometry(*image_, sky, found.grain, shapes).Measure(saturation_, gain_);
  std::erase_if(stars_, [](const CStar& star) { return !(star.flux > 0); });
  std::sort(stars_.begin(), stars_.end(), [](const CStar& a, const CStar& b) {
    return std::tuple(-a.flux, a.y, a.x) < std::tuple(-b.flux, b.y, b.x);
  });
  SetTypical();
  return static_cast<int>(stars_.size());
}

void CStarFinder::SetTypical() {
  const bool anyWhole =
      std::any_of(stars_.begin(), stars_.end(), [](const CStar& s) { return s.flags == 0; });
  std::vector<double> widths, elongations;
  for (const CStar& star : stars_) {
    if (anyWhole && star.flags != 0) continue;
    widths.push_back(star.fwhm);
    elongations.push_back(star.elongation);
  }
  // The fainter half is left to noise.
  const size_t brighter = (widths.size() + 1) / 2;
  widths.resize(brighter);
  elongations.resize(brighter);
  fwhm_ = UpperMedian(widths);
  elongation_ = UpperMedian(elongations);
}
