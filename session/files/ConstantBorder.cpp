#include "session/files/internal/ConstantBorder.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <iterator>
#include <limits>
#include <optional>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "korimg/image/internal/Numbers.h"

#include "session/files/ImageFile.h"

namespace korimg::files {
namespace {

/// Of the planes of a pixel.
using Value = std::array<float, 3>;

/// Some rows of an image.
class Rows {
 public:
  Rows(ImageReader& reader, int top, int rows)
      : band_(buffer_.Get(reader.Info().planes, reader.Info().width, top, rows)) {
    reader.ReadRows(band_);
  }

  Value At(int x, int y) const {
    Value value{};
    for (int p = 0; p < band_.Planes(); ++p) {
      value[p] = band_.Row(p, y)[x];
    }
    return value;
  }
  bool Is(int x, int y, const Value& value) const {
    for (int p = 0; p < band_.Planes(); ++p) {
      if (band_.Row(p, y)[x] != value[p]) return false;
    }
    return true;
  }
  /// Pixels of that value from column x on, in steps of 1 or -1.
  int Run(int x, int y, int step, const Value& value) const {
    int length = 0;
    for (; x >= 0 && x < band_.Width() && Is(x, y, value); x += step) {
      ++length;
    }
    return length;
  }

 private:
  BandBuffer buffer_;
  Band<float> band_;
};

// What is not said otherwise was chosen, and separates the sixteen kinds of frames of the tests.
constexpr int kLeastRun = 8;  ///< pixels of a corner's row or column

/// A value that one of the corners has along its row or its column.
std::vector<Value> CornerValues(ImageReader& reader) {
  const int width = reader.Info().width, height = reader.Info().height;
  std::vector<Value> values;
  for (const int top : {0, height - kLeastRun}) {
    const Rows band(reader, top, kLeastRun);
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
  float lowest = std::numeric_limits<float>::infinity();  ///< of the first plane between the runs
  std::vector<float> beyond = {};  ///< pixels of the first plane at the ends of its runs

  /// Pixels of a run that is not made by chance; none is long enough of what is no border.
  int LeastRun(long long between, int height) {
    constexpr double kCommon = 0.3, kChance = 1e-3;
    constexpr int kNone = std::numeric_limits<int>::max();
    const double share = static_cast<double>(inside) / static_cast<double>(std::max(between, 1LL));
    if (share > kCommon || (isHighest && !IsSteep())) return kNone;
    return share > 0 ? static_cast<int>(std::ceil(std::log(kChance / height) / std::log(share))) : 1;
  }

 private:
  /// Beside saturated pixels there are bright ones, beside a border there is sky.
  bool IsSteep() {
    constexpr float kBright = 0.7F;
    if (beyond.empty()) return false;
    return UpperMedian(beyond) - lowest < kBright * (value[0] - lowest);
  }
};

/// The runs of one value that a row begins and ends with.
struct Row {
  struct Run {
    int length = 0;
    int candidate = 0;
    Value next{};  ///< of the pixel beyond it
  };
  Run sides[2];
  bool isOneValue = false;
  std::vector<float> some = {};  ///< pixels of the first plane, spread over it

  bool IsWhole() const { return isOneValue && sides[0].length > 0; }
};

/// The candidates' runs in all rows, and of some rows what lies between them: a number of pixels.
std::vector<Row> ReadRuns(ImageReader& reader, std::vector<Candidate>& candidates, long long& between) {
  constexpr int kSampled = 64, kBandRows = 64;
  const int width = reader.Info().width, height = reader.Info().height, planes = reader.Info().planes;
  std::vector<Row> found(height);
  between = 0;
  for (int y0 = 0; y0 < height; y0 += kBandRows) {
    const int rows = std::min(kBandRows, height - y0);
    const Rows band(reader, y0, rows);
    for (int y = y0; y < y0 + rows; ++y) {
      Row& row = found[y];
      for (const int side : {0, 1}) {
        const int edge = side == 0 ? 0 : width - 1, step = side == 0 ? 1 : -1;
        Row::Run& run = row.sides[side];
        for (int c = 0; c < static_cast<int>(candidates.size()); ++c) {
          const int length = band.Run(edge, y, step, candidates[c].value);
          if (length > run.length) run = {length, c};
        }
        run.next = band.At(edge + step * std::min(run.length, width - 1), y);
        if (run.length > 0 && run.length < width && std::isfinite(run.next[0])) {
          candidates[run.candidate].beyond.push_back(run.next[0]);
        }
      }
      row.isOneValue = band.Run(0, y, 1, band.At(0, y)) == width;
      constexpr int kSome = 16;
      for (int i = 0; i < kSome; ++i) {
        row.some.push_back(band.At((2 * i + 1) * width / (2 * kSome), y)[0]);
      }
      // Beside rows of a border lie rows of the sky.
      if (y > 0 && row.IsWhole() != found[y - 1].IsWhole()) {
        const Row &border = row.IsWhole() ? row : found[y - 1], &sky = row.IsWhole() ? found[y - 1] : row;
        std::copy_if(sky.some.begin(), sky.some.end(),
                     std::back_inserter(candidates[border.sides[0].candidate].beyond),
                     [](float v) { return std::isfinite(v); });
      }
      if (y % std::max(height / kSampled, 1) != 0) continue;
      for (int x = row.sides[0].length; x < width - row.sides[1].length; ++x) {
        const Value value = band.At(x, y);
        ++between;
        for (Candidate& c : candidates) {
          c.inside += value == c.value;
          c.lowest = std::min(c.lowest, value[0]);
          for (int p = 0; p < planes; ++p) {
            if (value[p] > c.value[p]) c.isHighest = false;
          }
        }
      }
    }
  }
  return found;
}

/// Most rows have one value each, as those of an image without noise may.
bool IsStriped(const std::vector<Row>& rows, int top, int bottom) {
  const auto count =
      std::count_if(rows.begin() + top, rows.begin() + bottom, [](const Row& row) { return row.isOneValue; });
  return 2 * count > bottom - top;
}

/// An image without noise ends in lines of one value, or in the value that the line before has: each of these
/// may look like a border of one pixel.
bool IsSmooth(const std::vector<Row>& rows, int top, int bottom) {
  constexpr double kMostRepeated = 0.9;
  if (top == bottom || rows[top].isOneValue || rows[bottom - 1].isOneValue) return true;
  long long repeated = 0;
  for (int y = top + 1; y < bottom; ++y) {
    for (const int side : {0, 1}) {
      repeated += rows[y].sides[side].next == rows[y - 1].sides[side].next;
    }
  }
  return static_cast<double>(repeated) > kMostRepeated * 2 * (bottom - top - 1);
}

/// What lies between the runs is bounded by a few straight lines on either side.
bool IsStraight(const std::vector<Row>& rows, int top, int bottom) {
  constexpr int kMostPieces = 3;
  for (const int side : {0, 1}) {
    std::vector<Point> chain;
    for (int y = top; y < bottom; ++y) {
      chain.push_back({1.0 * rows[y].sides[side].length, 1.0 * y});
    }
    // Pixels beside the border may have its value by chance.
    if (chain.size() > 1 && Pieces(Smoothed(chain), 0, chain.size() - 1) > kMostPieces) return false;
  }
  return true;
}

}  // namespace

std::shared_ptr<const ConstantBorder> ConstantBorder::Find(ImageReader& reader) {
  constexpr double kLeastShare = 0.1;
  constexpr double kMostLost = 0.1;  // of the rows; more than that have the value as their own
  constexpr long long kLeastPixels = 16;
  const auto none = std::make_shared<ConstantBorder>();
  const int width = reader.Info().width, height = reader.Info().height;
  if (std::min(width, height) < 2 * kLeastRun) return none;
  std::vector<Candidate> candidates;
  for (const Value& value : CornerValues(reader)) {
    candidates.push_back({value});
  }
  if (candidates.empty()) return none;

  long long between = 0;
  std::vector<Row> rows = ReadRuns(reader, candidates, between);
  std::vector<int> least;
  for (Candidate& c : candidates) {
    least.push_back(c.LeastRun(between, height));
  }
  for (Row& row : rows) {
    for (Row::Run& run : row.sides) {
      if (run.length < least[run.candidate]) run.length = 0;
    }
  }

  // Rows without data end the image at the top and the bottom; between them they are a sensor's lost lines.
  const auto isWhole = [&](int y) { return rows[y].sides[0].length == width; };
  int top = 0, bottom = height;
  while (top < bottom && isWhole(top))
    ++top;
  while (bottom > top && isWhole(bottom - 1))
    --bottom;
  auto border = std::make_shared<ConstantBorder>();
  border->rows_.assign(height, {0, 0});
  long long data = 0, lost = 0;
  bool isThin = top <= 1 && height - bottom <= 1;
  for (int y = top; y < bottom; ++y) {
    if (isWhole(y)) {
      rows[y].sides[0].length = rows[y].sides[1].length = 0;
      ++lost;
    }
    const auto& [left, right] = rows[y].sides;
    border->rows_[y] = {left.length, width - right.length};
    data += width - left.length - right.length;
    isThin = isThin && left.length <= 1 && right.length <= 1;
  }
  const long long all = 1LL * width * height;
  if (all - data < kLeastPixels || static_cast<double>(data) < kLeastShare * static_cast<double>(all) ||
      static_cast<double>(lost) > kMostLost * (bottom - top) || IsStriped(rows, top, bottom) ||
      (isThin && IsSmooth(rows, top, bottom)) || !IsStraight(rows, top, bottom)) {
    return none;
  }
  border->share_ = static_cast<double>(all - data) / static_cast<double>(all);
  for (size_t c = 0; c < candidates.size(); ++c) {
    const bool used = std::any_of(rows.begin(), rows.end(), [&](const Row& row) {
      return std::any_of(std::begin(row.sides), std::end(row.sides), [&](const Row::Run& run) {
        return run.length > 0 && run.candidate == static_cast<int>(c);
      });
    });
    if (!used) continue;
    border->values_ += fmt::format("{}{:g}", border->values_.empty() ? "" : " or ", candidates[c].value[0]);
  }
  return border;
}

std::string ConstantBorder::Text() const {
  if (IsEmpty()) return "";
  return fmt::format("{:.2g} % of its pixels, at the edges, are {} throughout: they count as no data",
                     100 * share_, values_);
}

void to_json(nlohmann::json& json, const ConstantBorder& border) {
  nlohmann::json rows = nlohmann::json::array();
  for (const ConstantBorder::Columns& data : border.rows_) {
    rows.push_back({data.from, data.to});
  }
  json = {{"share", border.share_}, {"values", border.values_}, {"rows", std::move(rows)}};
}

void from_json(const nlohmann::json& json, ConstantBorder& border) {
  border.share_ = json.at("share");
  border.values_ = json.at("values").get<std::string>();
  border.rows_.clear();
  for (const nlohmann::json& data : json.at("rows")) {
    border.rows_.push_back({data.at(0), data.at(1)});
  }
}

void ConstantBorder::Blank(const Band<float>& pixels) const {
  if (IsEmpty()) return;
  constexpr float kNone = std::numeric_limits<float>::quiet_NaN();
  for (int p = 0; p < pixels.Planes(); ++p) {
    for (int y = pixels.Top(); y < pixels.Bottom(); ++y) {
      const korimg::Row<float> row = pixels.Row(p, y);
      const Columns data = rows_[y];
      std::fill(row.begin(), row.begin() + data.from, kNone);
      std::fill(row.begin() + data.to, row.end(), kNone);
    }
  }
}

}  // namespace korimg::files
