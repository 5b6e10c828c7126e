#include "korimg/measurement/internal/SkyMesh.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>

#include "korimg/image/internal/Lines.h"
#include "korimg/image/internal/Vectors.h"

namespace korimg {
namespace {

/// Pixels of a cell's side, and deviations of the kappa-sigma clipping: those of Bertin and Arnouts (1996).
constexpr int kCell = 64, kLanes = 32;
constexpr float kClip = 3;

/// What is known of a cell; a sigma of 0 stands for nothing.
struct Sky {
  float level = 0, sigma = 0;
};

struct Moments {
  double count = 0, sum = 0, squares = 0;
};

/// Of the pixels between two limits, less a pivot. Their number is a multiple of kLanes.
Moments Between(const std::vector<float>& pixels, float low, float high, float pivot) {
  alignas(64) float counts[kLanes] = {}, sums[kLanes] = {};
  alignas(64) double squares[kLanes] = {};
  RunInLongVectors([&]() KORIMG_IN_LOOP {
    for (size_t i = 0; i < pixels.size(); i += kLanes) {
      for (int k = 0; k < kLanes; ++k) {
        const float v = pixels[i + k];
        const bool in = (v > low) & (v < high);
        const float d = in ? v - pivot : 0.0f;
        counts[k] += in ? 1.0f : 0.0f;
        sums[k] += d;
        squares[k] += static_cast<double>(d) * d;
      }
    }
  });
  Moments all;
  for (int k = 0; k < kLanes; ++k) {
    all.count += counts[k];
    all.sum += sums[k];
    all.squares += squares[k];
  }
  return all;
}

/// Numbers of pixels in equal steps of value, summed up: any range of them is one difference.
class Histogram {
 public:
  Histogram(const std::vector<float>& pixels, float low, float high)
      : low_(low), step_((high - low) / kBins) {
    std::array<int, kBins> bins{};
    const float scale = kBins / (high - low);
    for (const float v : pixels) {
      if (v > low && v < high) ++bins[static_cast<int>(std::min((v - low) * scale, kBins - 1.0f))];
    }
    for (int i = 0; i < kBins; ++i) {
      const double place = i + 0.5, n = bins[i];
      counts_[i + 1] = counts_[i] + n;
      places_[i + 1] = places_[i] + n * place;
      squares_[i + 1] = squares_[i] + n * place * place;
    }
  }

  /// The mean of the middle half, and the deviation below it, clipped about themselves.
  Sky Clipped() const {
    double first = 0, last = kBins, middle = 0, sigma = 0;
    for (int round = 0; round < 3; ++round) {
      const int from = static_cast<int>(std::max(first, 0.0)),
                to = static_cast<int>(std::min<double>(last, kBins));
      middle = MiddleMean(from, to);
      const int end = std::clamp(static_cast<int>(std::ceil(middle)), from, to);
      const double count = counts_[end] - counts_[from], places = places_[end] - places_[from],
                   squares = squares_[end] - squares_[from];
      const double square = count > 0 ? (squares - 2 * middle * places) / count + middle * middle : 0;
      sigma = std::sqrt(std::max(square, 0.0));
      first = middle - kClip * sigma;
      last = middle + kClip * sigma + 1;
    }
    return {static_cast<float>(low_ + middle * step_), static_cast<float>(sigma * step_)};
  }

 private:
  static constexpr int kBins = 512;  ///< chosen: 85 in a deviation, of ranges clipped at 3

  /// In bins, of the middle half of what bins from .. to - 1 hold.
  double MiddleMean(int from, int to) const {
    const double total = counts_[to] - counts_[from];
    if (!(total > 0)) return 0.5 * (from + to);
    return (PlacesOf(counts_[from] + 0.75 * total) - PlacesOf(counts_[from] + 0.25 * total)) / (0.5 * total);
  }

  /// The sum of the places of so many of the lowest pixels.
  double PlacesOf(double count) const {
    const auto whole = std::upper_bound(counts_.begin() + 1, counts_.end() - 1, count) - counts_.begin() - 1;
    return places_[whole] + (count - counts_[whole]) * (static_cast<double>(whole) + 0.5);
  }

  float low_, step_;
  std::array<double, kBins + 1> counts_{}, places_{}, squares_{};  ///< of the bins before each
};

Sky SkyOf(const std::vector<float>& pixels, double least) {
  constexpr float kHuge = 1e18f;  // what is beyond is no sky
  const auto start = std::find_if(pixels.begin(), pixels.end(), [](float v) { return std::abs(v) < kHuge; });
  if (start == pixels.end()) return {};
  constexpr double kSettled = 0.99999;  // chosen: of the pixels, which another round would hardly change
  float low = -kHuge, high = kHuge, pivot = *start;
  double count = -1, mean = 0, sigma = 0;
  for (int round = 0; round < 5; ++round) {
    const Moments m = Between(pixels, low, high, pivot);
    if (m.count < least || (count > 0 && m.count > kSettled * count)) break;
    count = m.count;
    const double offset = m.sum / m.count;
    mean = pivot + offset;
    sigma = std::sqrt(std::max(m.squares / m.count - offset * offset, 0.0));
    low = static_cast<float>(mean - kClip * sigma);
    high = static_cast<float>(mean + kClip * sigma);
    pivot = static_cast<float>(mean);
  }
  const auto level = static_cast<float>(mean);
  if (count < 0 || !(high > level && low < level)) return {level, 0};
  return Histogram(pixels, low, high).Clipped();
}

/// Gives cells of which nothing is known the mean of their neighbours', as often as it takes.
void FillUnknown(std::vector<Sky>& cells, int columns, int rows) {
  const auto known = [](const Sky& sky) { return sky.sigma > 0; };
  if (std::none_of(cells.begin(), cells.end(), known)) return;
  while (!std::all_of(cells.begin(), cells.end(), known)) {
    const std::vector<Sky> before = cells;
    for (int y = 0; y < rows; ++y) {
      for (int x = 0; x < columns; ++x) {
        Sky& sky = cells[y * columns + x];
        if (known(sky)) continue;
        Sky sum;
        int count = 0;
        for (int j = std::max(y - 1, 0); j <= std::min(y + 1, rows - 1); ++j) {
          for (int i = std::max(x - 1, 0); i <= std::min(x + 1, columns - 1); ++i) {
            const Sky& near = before[j * columns + i];
            if (!known(near)) continue;
            sum = {sum.level + near.level, sum.sigma + near.sigma};
            ++count;
          }
        }
        if (count > 0) sky = {sum.level / count, sum.sigma / count};
      }
    }
  }
}

float MedianOf(std::vector<float>& values) {
  const auto middle = values.begin() + (values.size() - 1) / 2;
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

/// Medians of 3 x 3 cells of a part of them.
template <class F>
std::vector<float> Smoothed(const std::vector<Sky>& cells, int columns, int rows, F&& part) {
  std::vector<float> result(cells.size()), near;
  for (int y = 0; y < rows; ++y) {
    for (int x = 0; x < columns; ++x) {
      near.clear();
      for (int j = std::max(y - 1, 0); j <= std::min(y + 1, rows - 1); ++j) {
        for (int i = std::max(x - 1, 0); i <= std::min(x + 1, columns - 1); ++i) {
          near.push_back(part(cells[j * columns + i]));
        }
      }
      result[y * columns + x] = MedianOf(near);
    }
  }
  return result;
}

}  // namespace

namespace {

/// The mean of the 3 x 3 pixels around each, weighted 1 2 1 both ways: every colour of a mosaic has the same
/// share of it wherever it stands. Edges are mirrored in their last pixels, which keeps the colours in step.
void ReadMosaic(CVelImage& image, int x, int y, int count, float* out) {
  const int width = image.GetWidth(), height = image.GetHeight();
  const auto inside = [](int i, int size) {
    return std::clamp(i < 0 ? -i : i >= size ? 2 * size - 2 - i : i, 0, size - 1);
  };
  const float *up = image.GetLine(0, inside(y - 1, height), 0), *row = image.GetLine(0, y, 0),
              *down = image.GetLine(0, inside(y + 1, height), 0);
  std::vector<float> columns(count + 2);
  for (int i = -1; i <= count; ++i) {
    const int at = inside(x + i, width);
    columns[i + 1] = up[at] + 2 * row[at] + down[at];
  }
  for (int i = 0; i < count; ++i) {
    out[i] = (columns[i] + 2 * columns[i + 1] + columns[i + 2]) * (1.0f / 16);
  }
}

}  // namespace

void ReadLight(CVelImage& image, int x, int y, int count, float* out) {
  if (image.IsBayerImage()) {
    ReadMosaic(image, x, y, count, out);
  } else if (!image.IsColor() || image.GetPlanes() < 3) {
    std::memcpy(out, image.GetLine(x, y, 0), count * sizeof(float));
  } else {
    const float *r = image.GetLine(x, y, 0), *g = image.GetLine(x, y, 1), *b = image.GetLine(x, y, 2);
    RunInLongVectors([=]() KORIMG_IN_LOOP {
      for (int i = 0; i < count; ++i) {
        out[i] = 0.299f * r[i] + 0.587f * g[i] + 0.114f * b[i];
      }
    });
  }
}

double LightSpread(const CVelImage& image) {
  return image.IsBayerImage() ? 0.5 : 0;
}

SkyMesh::SkyMesh(CVelImage& image)
    : columns_((image.GetWidth() + kCell - 1) / kCell),
      rows_((image.GetHeight() + kCell - 1) / kCell),
      stepX_(static_cast<double>(image.GetWidth()) / columns_),
      stepY_(static_cast<double>(image.GetHeight()) / rows_) {
  constexpr double kLeastShare = 0.25;  // chosen: of the pixels of a cell
  constexpr size_t kMany = 1000;        // chosen: cells, of a frame of 4 megapixels
  std::vector<Sky> cells(static_cast<size_t>(columns_) * rows_);
  const auto border = [](int i, int count, int size) { return static_cast<int>(1LL * i * size / count); };
  ForLines(Team::All, 0, rows_, [&](int row) {
    const int top = border(row, rows_, image.GetHeight()), bottom = border(row + 1, rows_, image.GetHeight());
    std::vector<float> pixels;
    for (int column = 0; column < columns_; ++column) {
      const int left = border(column, columns_, image.GetWidth()),
                width = border(column + 1, columns_, image.GetWidth()) - left;
      // A thousand pixels of a cell tell enough where there are many cells.
      const int step = cells.size() > kMany ? 4 : 1, lines = (bottom - top + step - 1) / step,
                count = width * lines;
      pixels.assign((count + kLanes - 1) / kLanes * kLanes, std::numeric_limits<float>::quiet_NaN());
      for (int line = 0; line < lines; ++line) {
        ReadLight(image, left, top + line * step, width, pixels.data() + line * width);
      }
      cells[row * columns_ + column] = SkyOf(pixels, kLeastShare * count);
    }
  });
  FillUnknown(cells, columns_, rows_);
  levels_ = Smoothed(cells, columns_, rows_, [](const Sky& sky) { return sky.level; });
  weights_ = Smoothed(cells, columns_, rows_, [](const Sky& sky) { return sky.sigma; });
  for (size_t i = 0; i < cells.size(); ++i) {
    // A sky without noise still has that of rounding, here a hundred times that of a float.
    constexpr float kRounding = 1e-5f, kTiny = 1e-30f;
    weights_[i] = 1 / std::max({weights_[i], kRounding * std::abs(levels_[i]), kTiny});
  }
}

void SkyMesh::Interpolate(const std::vector<float>& cells, int x, int y, int count, float* out) const {
  const double down = std::clamp((y + 0.5) / stepY_ - 0.5, 0.0, rows_ - 1.0);
  const int row = std::min(static_cast<int>(down), std::max(rows_ - 2, 0));
  const double v = down - row;
  const float *upper = cells.data() + row * columns_, *lower = rows_ > 1 ? upper + columns_ : upper;
  const auto column = [&](int i) { return upper[i] * (1 - v) + lower[i] * v; };
  // Straight pieces between the middles of cells.
  for (int done = 0; done < count;) {
    const double across = (x + done + 0.5) / stepX_ - 0.5;
    const int i = std::clamp(static_cast<int>(std::floor(across)), -1, columns_ - 1);
    const double middle = (i + 1.5) * stepX_ - 0.5;
    const int end = i == columns_ - 1
                        ? count
                        : std::min(count, std::max(static_cast<int>(std::ceil(middle)) - x, done + 1));
    const double a = column(std::max(i, 0)), b = column(std::min(i + 1, columns_ - 1));
    const auto slope = static_cast<float>((b - a) / stepX_);
    const auto start = static_cast<float>(a + (b - a) * (across - i));
    float* piece = out + done;
    RunInLongVectors([=, n = end - done]() KORIMG_IN_LOOP {
      for (int k = 0; k < n; ++k) {
        piece[k] = start + slope * static_cast<float>(k);
      }
    });
    done = end;
  }
}

double SkyMesh::Level(int x, int y) const {
  float level;
  Levels(x, y, 1, &level);
  return level;
}

double SkyMesh::Sigma(int x, int y) const {
  float weight;
  Weights(x, y, 1, &weight);
  return 1.0 / weight;
}

double SkyMesh::MedianLevel() const {
  std::vector<float> values = levels_;
  return MedianOf(values);
}

double SkyMesh::MedianSigma() const {
  std::vector<float> values = weights_;
  return 1.0 / MedianOf(values);
}

}  // namespace korimg
