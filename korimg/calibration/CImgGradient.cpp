#include "korimg/calibration/CImgGradient.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <iterator>
#include <numeric>
#include <optional>
#include <utility>

#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/Numbers.h"
#include "korimg/image/internal/SmoothSurface.h"
#include "korimg/image/internal/Vectors.h"

using namespace korimg;

namespace {

using Box = CImgGradient::Box;
using Options = CImgGradient::Options;

/// The highest degree of the polynomial below a plate. Chosen: the plate follows what bends more.
constexpr int kMostBelowPlate = 3;

/// The median of a square's finite pixels in every step-th line, `rounds` times without what lies 3
/// deviations off; NaN when less than half of the pixels are finite.
double LevelOf(CVelImage& image, int plane, int left, int top, int size, int step, int rounds) {
  thread_local std::vector<float> pixels, distances;
  pixels.clear();
  int lines = 0;
  for (int y = top; y < top + size; y += step, ++lines) {
    const float* line = image.GetLine(left, y, plane);
    std::copy_if(line, line + size, std::back_inserter(pixels), [](float v) { return std::isfinite(v); });
  }
  if (2 * pixels.size() < static_cast<size_t>(size) * lines) return NAN;
  float level = UpperMedian(pixels);
  for (int round = 0; round < rounds; ++round) {
    distances.resize(pixels.size());
    std::transform(pixels.begin(), pixels.end(), distances.begin(),
                   [level](float v) { return std::abs(v - level); });
    const auto reach = static_cast<float>(3 * kSigmasOfMedianDistance) * UpperMedian(distances);
    std::erase_if(pixels, [=](float v) { return std::abs(v - level) > reach; });
    level = UpperMedian(pixels);
  }
  return level;
}

bool IsInRange(const Options& o) {
  constexpr int kLargest = 10000;  // chosen: pixels of a box
  return o.surface >= CImgGradient::Polynomial && o.surface <= CImgGradient::ThinPlate &&
         o.result >= CImgGradient::Subtracted && o.result <= CImgGradient::Model && o.degree >= 1 &&
         o.degree <= SmoothSurface::kMostDegree && o.smoothing >= 0 && o.smoothing <= 1 && o.boxes >= 4 &&
         o.boxes <= 40 && o.size >= 0 && o.size <= kLargest && o.tolerance > 0;
}

/// The deviation of the levels of boxes, by what planes through a box and its nearest neighbours leave: the
/// quarter of the places with the least of it, where there are neither edges nor stars. Seven boxes leave
/// four numbers beside the plane's; chosen.
double NoiseOf(const std::vector<Box>& boxes, const std::vector<double>& values) {
  constexpr size_t kNear = 7;
  if (boxes.size() < kNear) return 0;
  std::vector<double> deviations;
  std::vector<size_t> order(boxes.size());
  std::iota(order.begin(), order.end(), 0);
  for (const Box& box : boxes) {
    const auto distance = [&](size_t k) { return std::hypot(boxes[k].x - box.x, boxes[k].y - box.y); };
    std::partial_sort(order.begin(), order.begin() + kNear, order.end(), [&](size_t i, size_t j) {
      return std::pair(distance(i), i) < std::pair(distance(j), j);
    });
    std::vector<Box> near;
    std::vector<double> levels;
    for (size_t i = 0; i < kNear; ++i) {
      near.push_back(boxes[order[i]]);
      levels.push_back(values[order[i]]);
    }
    SmoothSurface plane(1, 2 * box.x, 2 * box.y);
    if (!plane.Fit(near, levels, std::vector<double>(kNear, 1.0))) continue;
    double squares = 0;
    for (size_t i = 0; i < kNear; ++i) {
      const double left = levels[i] - plane.At(near[i].x, near[i].y);
      squares += left * left;
    }
    deviations.push_back(std::sqrt(squares / (kNear - SmoothSurface::kPlaneNumbers)));
  }
  if (deviations.empty()) return 0;
  const auto quarter = deviations.begin() + static_cast<std::ptrdiff_t>(deviations.size() / 4);
  std::nth_element(deviations.begin(), quarter, deviations.end());
  return *quarter;
}

/// How far boxes lie above a surface that is fitted to the darker ones.
struct Darkest {
  std::vector<double> above;
  double spread = 0;  ///< of the darker side
};

/// Empty where boxes do not suffice. The spread is at least `noise`: it would shrink with each round.
std::optional<Darkest> FitDarkest(const std::vector<Box>& boxes, const std::vector<double>& values,
                                  SmoothSurface surface, double tolerance, double noise) {
  constexpr int kRounds = 30;  // chosen
  const size_t count = boxes.size();
  std::vector<double> weights(count, 1.0), below;
  Darkest fit{std::vector<double>(count)};
  for (int round = 0; round < kRounds; ++round) {
    if (!surface.Fit(boxes, values, weights)) return std::nullopt;
    below.clear();
    for (size_t k = 0; k < count; ++k) {
      fit.above[k] = values[k] - surface.At(boxes[k].x, boxes[k].y);
      if (fit.above[k] < 0) below.push_back(-fit.above[k]);
    }
    // Of the darker side alone: nebulae are on the other.
    fit.spread = std::max(below.empty() ? 0 : kSigmasOfMedianDistance * UpperMedian(below), noise);
    for (size_t k = 0; k < count; ++k) {
      const double r = std::max(fit.above[k] / (tolerance * fit.spread), 0.0);
      weights[k] = 1 / ((1 + r * r) * (1 + r * r));
    }
  }
  return fit;
}

/// The wings of a nebula reach further than what stands out of the noise: neighbours of two boxes or more
/// that are no sky are none either, unless that leaves less than half of the sky, or fewer than `wanted`.
void LeaveOutWings(std::vector<Box>& boxes, double distance, int wanted) {
  constexpr double kNeighbours = 1.7;  // each may have moved by a third
  constexpr int kFew = 2;              // chosen
  std::vector<Box> rest = boxes;
  for (Box& box : rest) {
    const auto isNear = [&](const Box& other) {
      return !other.isSky &&
             std::max(std::abs(other.x - box.x), std::abs(other.y - box.y)) <= kNeighbours * distance;
    };
    box.isSky = box.isSky && std::count_if(boxes.begin(), boxes.end(), isNear) < kFew;
  }
  if (2 * CImgGradient::CountSky(rest) >= CImgGradient::CountSky(boxes) &&
      CImgGradient::CountSky(rest) >= wanted)
    boxes = std::move(rest);
}

struct Sky {
  std::vector<Box> boxes;
  int degree = 1;  ///< of the polynomial that they were found about
};

/// Finds sky by the mean of the planes, about the polynomial that tells most of the boxes by the fewest
/// numbers: a box that it leaves out costs as much as one at the tolerance, a number as much as
/// kNumber log n (after Schwarz 1978).
Sky PartSky(std::vector<Box> boxes, int planes, int width, int height, const Options& options) {
  // Both measured on 24 lines, bowls and moons over nebulae, stars and noise.
  constexpr double kNumber = 5, kLeastNoise = 0.6;
  constexpr double kRounding = 1e-9;  // of fits to images without noise
  std::vector<double> values;
  double brightest = 0;
  for (const Box& box : boxes) {
    values.push_back(std::accumulate(box.levels, box.levels + planes, 0.0) / planes);
    brightest = std::max(brightest, std::abs(values.back()));
  }
  const double noise = std::max(kLeastNoise * NoiseOf(boxes, values), kRounding * brightest + 1e-30);
  const int most = options.surface == CImgGradient::Polynomial ? options.degree : kMostBelowPlate;
  std::vector<Darkest> fits;
  double least = INFINITY;
  for (int degree = 1; degree <= most && SmoothSurface::NumbersOf(degree) < static_cast<int>(boxes.size());
       ++degree) {
    auto fit = FitDarkest(boxes, values, SmoothSurface(degree, width, height), options.tolerance, noise);
    if (!fit) break;
    least = std::min(least, fit->spread);
    fits.push_back(std::move(*fit));
  }
  const auto cost = [&](const Darkest& fit) {
    const double square = options.tolerance * options.tolerance;
    return std::accumulate(fit.above.begin(), fit.above.end(), 0.0, [=](double sum, double above) {
      const double z = above / least;
      return sum + (z > 0 ? std::min(z * z, square) : z * z);
    });
  };
  Sky sky{std::move(boxes), 0};
  double lowest = INFINITY;
  for (int degree = 1; degree <= static_cast<int>(fits.size()); ++degree) {
    const double own = cost(fits[degree - 1]) + kNumber * SmoothSurface::NumbersOf(degree) *
                                                    std::log(static_cast<double>(sky.boxes.size()));
    if (own < lowest) lowest = own, sky.degree = degree;
  }
  if (sky.degree == 0) return {};
  const Darkest& fit = fits[sky.degree - 1];
  for (size_t k = 0; k < sky.boxes.size(); ++k) {
    sky.boxes[k].isSky = fit.above[k] <= options.tolerance * fit.spread;
  }
  return sky;
}

/// Sky among boxes on a grid; none where there are too few.
Sky FindSky(CVelImage& image, const Options& options) {
  const int width = image.GetWidth(), height = image.GetHeight(), planes = std::min(image.GetPlanes(), 3);
  const double distance = 1.0 * std::max(width, height) / options.boxes;
  const int size = options.size > 0 ? options.size : std::clamp(static_cast<int>(distance / 3), 8, 64);
  if (image.IsEmpty() || !IsInRange(options) || std::min(width, height) < 4 * size) return {};
  const int columns = std::max(2, static_cast<int>(std::lround(width / distance))),
            rows = std::max(2, static_cast<int>(std::lround(height / distance)));
  std::vector<Box> boxes(static_cast<size_t>(columns) * rows);
  ForLines(Team::All, 0, static_cast<int>(boxes.size()), [&](int i) {
    Box& best = boxes[i];
    best.isSky = false;
    double darkest = INFINITY;
    for (const int dy : {0, -1, 1}) {
      for (const int dx : {0, -1, 1}) {
        // Places of a third of the distance around the middle of the cell.
        const auto place = [size](double middle, int step, double cell, int end) {
          return std::clamp(static_cast<int>(middle + step * cell / 3 - size * 0.5), 0, end - size);
        };
        const int left = place((i % columns + 0.5) * width / columns, dx, 1.0 * width / columns, width),
                  top = place((i / columns + 0.5) * height / rows, dy, 1.0 * height / rows, height);
        double sum = 0;
        for (int p = 0; p < planes; ++p) {
          sum += LevelOf(image, p, left, top, size, 4, 0);
        }
        if (sum < darkest) darkest = sum, best = {left + size / 2, top + size / 2, size, {}, true};
      }
    }
    for (int p = 0; best.isSky && p < planes; ++p) {
      best.levels[p] = LevelOf(image, p, best.x - size / 2, best.y - size / 2, size, 1, 2);
    }
  });
  std::erase_if(boxes, [](const Box& box) { return !box.isSky; });
  Sky sky = PartSky(std::move(boxes), planes, width, height, options);
  const int degree = options.surface == CImgGradient::Polynomial ? options.degree : sky.degree;
  const int wanted = 2 * SmoothSurface::NumbersOf(degree);
  LeaveOutWings(sky.boxes, distance, wanted);
  return CImgGradient::CountSky(sky.boxes) < wanted ? Sky{} : sky;
}

}  // namespace

int CImgGradient::CountSky(const std::vector<Box>& boxes) {
  return static_cast<int>(
      std::count_if(boxes.begin(), boxes.end(), [](const Box& box) { return box.isSky; }));
}

std::vector<Box> CImgGradient::FindBoxes(CVelImage& image, const Options& options) {
  return FindSky(image, options).boxes;
}

int CImgGradient::Do(const Options& options, CVelImage* src, int show, Findings* findings) {
  constexpr int kFlattening = 6139, kStep = 32;  // pixels between values of the surface, which are smooth
  if (!Fits(*src, *this) || GetPlanes() > 3) return 0;
  const auto [boxes, skyDegree] = FindSky(*src, options);
  if (boxes.empty()) return 0;
  const bool isPlate = options.surface == ThinPlate;
  if (findings) findings->boxes = boxes;
  std::vector<double> weights(boxes.size()), values(boxes.size());
  std::transform(boxes.begin(), boxes.end(), weights.begin(),
                 [](const Box& box) { return box.isSky ? 1.0 : 0.0; });
  const int width = GetWidth(), height = GetHeight();
  const int columns = (width - 1) / kStep + 2, rows = (height - 1) / kStep + 2;
  std::vector<std::vector<float>> meshes;
  for (int p = 0; p < GetPlanes(); ++p) {
    SmoothSurface surface(isPlate ? skyDegree : options.degree, width, height);
    std::transform(boxes.begin(), boxes.end(), values.begin(), [p](const Box& box) { return box.levels[p]; });
    if (!surface.Fit(boxes, values, weights)) return 0;
    if (isPlate && !surface.AddPlate(boxes, values, weights, options.smoothing)) return 0;
    std::vector<float>& mesh = meshes.emplace_back(static_cast<size_t>(columns) * rows);
    ForLines(Team::All, 0, rows, [&](int row) {
      for (int column = 0; column < columns; ++column) {
        mesh[static_cast<size_t>(row) * columns + column] =
            static_cast<float>(surface.At(column * kStep, row * kStep));
      }
    });
    if (options.result == Divided && *std::min_element(mesh.begin(), mesh.end()) <= 0) return 0;
  }
  const ProgressScope progress(*this, show, kFlattening, GetPlanes() * height);
  for (int p = 0; p < GetPlanes(); ++p) {
    const std::vector<float>& mesh = meshes[p];
    std::vector<float> inside;
    for (int row = 0; row * kStep < height; ++row) {
      const auto first = mesh.begin() + static_cast<std::ptrdiff_t>(row) * columns;
      inside.insert(inside.end(), first, first + (width + kStep - 1) / kStep);
    }
    if (findings) {
      const auto [low, high] = std::minmax_element(inside.begin(), inside.end());
      findings->low[p] = *low, findings->high[p] = *high;
    }
    const float middle = UpperMedian(inside);
    if (findings) findings->middle[p] = middle;
    ForLines(Team::All, 0, height, [&](int y) {
      thread_local std::vector<float> nodes, line;
      nodes.resize(columns);
      line.resize(static_cast<size_t>(columns) * kStep);
      const float* upper = &mesh[static_cast<size_t>(y / kStep) * columns];
      const float down = static_cast<float>(y % kStep) / kStep;
      for (int i = 0; i < columns; ++i) {
        nodes[i] = upper[i] + (upper[i + columns] - upper[i]) * down;
      }
      const float* in = src->GetLine(0, y, p);
      float* out = GetWritableLine(0, y, p);
      RunInLongVectors([=, from = nodes.data(), model = line.data()]() KORIMG_IN_LOOP {
        for (int i = 0; i + 1 < columns; ++i) {
          const float slope = (from[i + 1] - from[i]) / kStep;
          for (int k = 0; k < kStep; ++k) {
            model[i * kStep + k] = from[i] + slope * static_cast<float>(k);
          }
        }
        for (int x = 0; x < width; ++x) {
          const float v = in[x], t = model[x];
          out[x] = options.result == Model     ? t
                   : options.result == Divided ? v * (middle / t)
                                               : v - t + middle;
        }
      });
      ShowProgress(1);
    });
  }
  return 1;
}
