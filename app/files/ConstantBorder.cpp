#include "app/files/ConstantBorder.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <optional>

#include <fmt/format.h>

#include "app/files/ImageFile.h"

namespace korimg::files {
namespace {

/// Of the planes of a pixel.
using Value = std::array<float, 3>;

/// Some rows of an image.
class Band {
 public:
  Band(ImageReader& reader, int y0, int rows)
      : y0_(y0), width_(reader.Info().width), planes_(reader.Info().planes) {
    pixels_.resize(static_cast<size_t>(rows) * width_ * planes_);
    float* planes[3] = {};
    for (int p = 0; p < planes_; ++p) {
      planes[p] = pixels_.data() + static_cast<size_t>(p) * rows * width_;
      plane_[p] = planes[p];
    }
    reader.ReadRows(y0, rows, planes);
  }

  Value At(int x, int y) const {
    Value value{};
    for (int p = 0; p < planes_; ++p) {
      value[p] = plane_[p][static_cast<size_t>(y - y0_) * width_ + x];
    }
    return value;
  }
  bool Is(int x, int y, const Value& value) const {
    for (int p = 0; p < planes_; ++p) {
      if (plane_[p][static_cast<size_t>(y - y0_) * width_ + x] != value[p]) return false;
    }
    return true;
  }
  /// Pixels of that value from column x on, in steps of 1 or -1.
  int Run(int x, int y, int step, const Value& value) const {
    int length = 0;
    for (; x >= 0 && x < width_ && Is(x, y, value); x += step) {
      ++length;
    }
    return length;
  }

 private:
  int y0_, width_, planes_;
  std::vector<float> pixels_;
  const float* plane_[3] = {};
};

constexpr int kLeastRun = 8;  ///< pixels of a corner's row or column

/// A value that one of the corners has along its row or its column.
std::vector<Value> CornerValues(ImageReader& reader) {
  const int width = reader.Info().width, height = reader.Info().height;
  std::vector<Value> values;
  for (const int top : {0, height - kLeastRun}) {
    const Band band(reader, top, kLeastRun);
    for (const int x : {0, width - 1}) {
      const int y = top == 0 ? 0 : height - 1;
      const Value value = band.At(x, y);
      bool column = true;
      for (int i = 0; i < kLeastRun; ++i) {
        column = column && band.Is(x, top + i, value);
      }
      if (!column && band.Run(x, y, x == 0 ? 1 : -1, value) < kLeastRun) continue;
      const bool finite = std::all_of(value.begin(), value.end(), [](float v) { return std::isfinite(v); });
      if (finite && std::find(values.begin(), values.end(), value) == values.end()) values.push_back(value);
    }
  }
  return values;
}

struct Point {
  double x, y;
};

/// Straight pieces of a chain of points that lie within a tolerance of it.
int Pieces(const std::vector<Point>& chain, size_t first, size_t last) {
  constexpr double kTolerance = 2;  // pixels
  const Point &a = chain[first], &b = chain[last];
  const double length = std::hypot(b.x - a.x, b.y - a.y);
  double farthest = kTolerance;
  size_t corner = 0;
  for (size_t i = first + 1; i < last; ++i) {
    const double off = std::abs((b.x - a.x) * (chain[i].y - a.y) - (b.y - a.y) * (chain[i].x - a.x)) / length;
    if (off > farthest) farthest = off, corner = i;
  }
  return corner == 0 ? 1 : Pieces(chain, first, corner) + Pieces(chain, corner, last);
}

/// The middle one of every five points in a row.
std::vector<Point> Smoothed(const std::vector<Point>& chain) {
  constexpr int kReach = 2;
  const int count = static_cast<int>(chain.size());
  std::vector<Point> smooth = chain;
  for (int i = 0; i < count; ++i) {
    std::vector<double> near;
    for (int k = std::max(i - kReach, 0); k <= std::min(i + kReach, count - 1); ++k) {
      near.push_back(chain[k].x);
    }
    std::nth_element(near.begin(), near.begin() + near.size() / 2, near.end());
    smooth[i].x = near[near.size() / 2];
  }
  return smooth;
}

/// What is known of a value that may be a border's.
struct Candidate {
  Value value;
  long long inside = 0;  ///< pixels that have it between the runs
  bool isHighest = true;
  int least = 1;  ///< pixels of a run that is not made by chance
};

}  // namespace

std::shared_ptr<const ConstantBorder> ConstantBorder::Find(ImageReader& reader) {
  constexpr int kSampled = 64, kBandRows = 64;
  constexpr double kCommon = 0.3, kChance = 1e-3, kLeastShare = 0.1;
  constexpr long long kLeastPixels = 16;
  auto border = std::make_shared<ConstantBorder>();
  const int width = reader.Info().width, height = reader.Info().height, planes = reader.Info().planes;
  if (std::min(width, height) < 2 * kLeastRun) return border;
  std::vector<Candidate> candidates;
  for (const Value& value : CornerValues(reader)) {
    candidates.push_back({value});
  }
  if (candidates.empty()) return border;

  // The runs of each row, and what the pixels between them are like.
  struct Run {
    int length = 0, candidate = 0;
    Value next{};  ///< of the pixel beyond it
  };
  std::vector<std::array<Run, 2>> runs(height);
  std::vector<char> isOneValue(height);
  long long between = 0;
  for (int y0 = 0; y0 < height; y0 += kBandRows) {
    const int rows = std::min(kBandRows, height - y0);
    const Band band(reader, y0, rows);
    for (int y = y0; y < y0 + rows; ++y) {
      for (int c = 0; c < static_cast<int>(candidates.size()); ++c) {
        for (const int side : {0, 1}) {
          const int length = band.Run(side == 0 ? 0 : width - 1, y, side == 0 ? 1 : -1, candidates[c].value);
          if (length > runs[y][side].length) runs[y][side] = {length, c};
        }
      }
      for (const int side : {0, 1}) {
        const int length = std::min(runs[y][side].length, width - 1);
        runs[y][side].next = band.At(side == 0 ? length : width - 1 - length, y);
      }
      isOneValue[y] = band.Run(0, y, 1, band.At(0, y)) == width;
      if (y % std::max(height / kSampled, 1) != 0) continue;
      for (int x = runs[y][0].length; x < width - runs[y][1].length; ++x) {
        const Value value = band.At(x, y);
        ++between;
        for (Candidate& c : candidates) {
          if (value == c.value) ++c.inside;
          for (int p = 0; p < planes; ++p) {
            if (value[p] > c.value[p]) c.isHighest = false;
          }
        }
      }
    }
  }
  for (Candidate& c : candidates) {
    const double share = static_cast<double>(c.inside) / static_cast<double>(std::max(between, 1LL));
    if (c.isHighest || share > kCommon)
      c.least = std::numeric_limits<int>::max();
    else if (share > 0)
      c.least = static_cast<int>(std::ceil(std::log(kChance / height) / std::log(share)));
  }
  for (auto& row : runs) {
    for (Run& run : row) {
      if (run.length < candidates[run.candidate].least) run.length = 0;
    }
  }

  // Rows without data end the image at the top and the bottom.
  const auto isWhole = [&](int y) { return runs[y][0].length == width; };
  int top = 0, bottom = height;
  while (top < bottom && isWhole(top))
    ++top;
  while (bottom > top && isWhole(bottom - 1))
    --bottom;
  border->width_ = width;
  border->rows_.assign(height, {0, 0});
  // Of an image without noise each line may be as constant as a border of one pixel.
  long long data = 0, repeated = 0;
  bool isThin = top <= 1 && height - bottom <= 1, isSmooth = false;
  std::vector<Point> chains[2];
  for (int y = top; y < bottom; ++y) {
    if (isWhole(y)) runs[y] = {};  // a lost line of the sensor
    border->rows_[y] = {runs[y][0].length, width - runs[y][1].length};
    data += border->rows_[y].to - border->rows_[y].from;
    for (const int side : {0, 1}) {
      chains[side].push_back({1.0 * runs[y][side].length, 1.0 * y});
      isThin = isThin && runs[y][side].length <= 1;
      if (y > top && runs[y][side].next == runs[y - 1][side].next) ++repeated;
    }
    // Such lines have one value, or the one beside it that the line before has.
    isSmooth = isSmooth || ((y == top || y == bottom - 1) && isOneValue[y]);
  }
  constexpr double kMostRepeated = 0.9;
  isSmooth = isSmooth || static_cast<double>(repeated) > kMostRepeated * 2 * (bottom - top - 1);
  const long long all = 1LL * width * height;
  if (all - data < kLeastPixels || static_cast<double>(data) < kLeastShare * static_cast<double>(all)) {
    return std::make_shared<ConstantBorder>();
  }
  if (isThin && isSmooth) return std::make_shared<ConstantBorder>();
  for (const auto& chain : chains) {
    // Pixels beside the border may have its value by chance.
    constexpr int kMostPieces = 3;
    if (chain.size() > 1 && Pieces(Smoothed(chain), 0, chain.size() - 1) > kMostPieces) {
      return std::make_shared<ConstantBorder>();
    }
  }
  border->share_ = static_cast<double>(all - data) / static_cast<double>(all);
  for (size_t c = 0; c < candidates.size(); ++c) {
    const bool used = candidates[c].least < std::numeric_limits<int>::max();
    if (used)
      border->values_ += fmt::format("{}{:g}", border->values_.empty() ? "" : " or ", candidates[c].value[0]);
  }
  return border;
}

std::string ConstantBorder::Text() const {
  if (IsEmpty()) return "";
  return fmt::format("{:.2g} % of its pixels, at the edges, are {} throughout: they count as no data",
                     100 * share_, values_);
}

void ConstantBorder::Blank(int y0, int rows, int planes, float* const* pixels) const {
  if (IsEmpty()) return;
  constexpr float kNone = std::numeric_limits<float>::quiet_NaN();
  for (int p = 0; p < planes; ++p) {
    for (int y = 0; y < rows; ++y) {
      float* row = pixels[p] + static_cast<size_t>(y) * width_;
      const Columns data = rows_[y0 + y];
      std::fill(row, row + data.from, kNone);
      std::fill(row + data.to, row + width_, kNone);
    }
  }
}

}  // namespace korimg::files
