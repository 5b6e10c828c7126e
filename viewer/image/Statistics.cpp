#include "viewer/image/Statistics.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "session/job/Errors.h"

namespace korimg::viewer {
namespace {

constexpr long long kMost = 2'000'000;  // pixels of a plane: its median is known to 0.1 % of its deviation
constexpr double kSigmasOfDistance = 1.4826;  // a normal distribution's deviation in median distances

/// The middle one, or the mean of the two middle ones.
double MedianOf(std::vector<float>& values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  if (values.size() % 2 == 1) return *middle;
  return 0.5 * *middle + 0.5 * *std::max_element(values.begin(), middle);
}

PlaneStatistics MeasurePlane(std::vector<float> values, int bins, double low, double high) {
  PlaneStatistics found;
  const auto all = static_cast<long long>(values.size());
  std::erase_if(values, [](float v) { return !std::isfinite(v); });
  found.count = static_cast<long long>(values.size());
  found.blank = all - found.count;
  found.histogram.resize(bins);
  if (values.empty()) return found;
  const auto [least, most] = std::minmax_element(values.begin(), values.end());
  found.min = *least;
  found.max = *most;
  double sum = 0, squares = 0;
  for (const float v : values) {
    sum += v;
    const double place = (v - low) / (high - low) * bins;
    ++found.histogram[static_cast<int>(std::clamp(place, 0.0, bins - 1.0))];
  }
  const auto count = static_cast<double>(found.count);
  found.mean = sum / count;
  for (const float v : values) {
    squares += (v - found.mean) * (v - found.mean);
  }
  found.deviation = std::sqrt(squares / count);
  found.median = MedianOf(values);
  for (float& v : values) {
    v = static_cast<float>(std::abs(v - found.median));
  }
  found.spread = kSigmasOfDistance * MedianOf(values);
  return found;
}

}  // namespace

RectStatistics Measure(Pyramid& pyramid, CRect rect, int bins, double low, double high,
                       const std::function<bool()>& isGone) {
  const session::Shape shape = pyramid.At(0);
  RectStatistics result;
  result.rect = CRect(std::max<int>(rect.left, 0), std::max<int>(rect.top, 0),
                      std::min<int>(rect.right, shape.width), std::min<int>(rect.bottom, shape.height));
  const long long width = result.rect.right - result.rect.left, height = result.rect.bottom - result.rect.top;
  if (width <= 0 || height <= 0) throw session::UsageError("the rectangle lies beside the picture");
  while (((width + result.step - 1) / result.step) * ((height + result.step - 1) / result.step) > kMost) {
    ++result.step;
  }
  std::vector<std::vector<float>> values(shape.planes);
  BandBuffer buffer;
  // Small ones by bands, others by single rows: what lies between them is not read.
  const int rows = result.step > 1 ? 1 : Pyramid::kTile;
  for (int top = result.rect.top; top<result.rect.bottom; top += result.step> 1 ? result.step : rows) {
    if (isGone()) throw session::Cancelled();
    const Band<float> band =
        buffer.Get(shape.planes, shape.width, top, std::min<int>(rows, result.rect.bottom - top));
    pyramid.Read(band);
    for (int p = 0; p < shape.planes; ++p) {
      for (int y = 0; y < band.Rows(); ++y) {
        for (int x = result.rect.left; x < result.rect.right; x += result.step) {
          values[p].push_back(band.Plane(p)[y][x]);
        }
      }
    }
  }
  for (auto& plane : values) {
    result.planes.push_back(MeasurePlane(std::move(plane), bins, low, high));
  }
  return result;
}

std::vector<std::vector<float>> ProfileOf(Pyramid& pyramid, const CfPoint& from, const CfPoint& to, int count,
                                          const std::function<bool()>& isGone) {
  const session::Shape shape = pyramid.At(0);
  std::vector<std::vector<float>> planes(shape.planes,
                                         std::vector<float>(count, std::numeric_limits<float>::quiet_NaN()));
  BandBuffer buffer;
  Band<float> row;
  for (int i = 0; i < count; ++i) {
    const double share = count > 1 ? static_cast<double>(i) / (count - 1) : 0;
    const double x = std::floor(from.x + share * (to.x - from.x)),
                 y = std::floor(from.y + share * (to.y - from.y));
    if (x < 0 || y < 0 || x >= shape.width || y >= shape.height) continue;
    if (row.Rows() == 0 || row.Top() != static_cast<int>(y)) {
      if (isGone()) throw session::Cancelled();
      row = buffer.Get(shape.planes, shape.width, static_cast<int>(y), 1);
      pyramid.Read(row);
    }
    for (int p = 0; p < shape.planes; ++p) {
      planes[p][i] = row.Row(p, row.Top())[static_cast<int>(x)];
    }
  }
  return planes;
}

}  // namespace korimg::viewer
