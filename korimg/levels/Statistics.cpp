// What the image object measures: histograms, extremes, means, and the search for bright pixels.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numeric>

#include "korimg/image/CVelImage.h"
#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/Numbers.h"
#include "korimg/image/internal/Vectors.h"
#include "korimg/levels/internal/Brightness.h"

using namespace korimg;

namespace {

/// Bins from min to max on the line loops. Pixels beyond the ends are not counted, and none is when the ends
/// meet.
class Binning {
 public:
  Binning(int bins, double min, double max)
      : bins_(bins),
        min_(min),
        max_(max),
        scale_(bins / (max - min)),
        counts_(bins > 0 && std::isfinite(scale_)) {}

  double Scale() const { return scale_; }
  void Count(int* hist, double value) const {
    if (counts_ && value >= min_ && value <= max_) {
      ++hist[std::clamp(TruncateToInt((value - min_) * scale_), 0, bins_ - 1)];
    }
  }

 private:
  int bins_;
  double min_, max_, scale_;
  bool counts_;
};

/// The columns and rows that a histogram looks at, when the image has a sample grid that leaves some out.
struct SampleGrid {
  const std::vector<int>* columns = nullptr;
  const std::vector<int>* rows = nullptr;

  SampleGrid(CVelImage& image, int useCull) {
    const auto counts = useCull ? image.GetHistogramCull() : std::nullopt;
    if (!counts || *counts == std::tuple(image.GetWidth(), image.GetHeight())) return;
    columns = &image.GetHistogramCullXRef();
    rows = &image.GetHistogramCullYRef();
  }
  explicit operator bool() const { return columns != nullptr; }

  /// Factor from the sampled counts to those of a full image.
  double Factor(const CVelImage& image) const {
    return static_cast<double>(image.GetWidth()) * image.GetHeight() /
           (static_cast<double>(columns->size()) * static_cast<double>(rows->size()));
  }
};

/// Calls open(y) for the lines to look at and count(line, x), x from the window's left, for their pixels. On
/// this thread, which the bins belong to.
template <class Open, class Count>
void ForSamples(CVelImage& image, const Window& window, const SampleGrid& grid, Open&& open, Count&& count) {
  if (window.IsEmpty()) return;
  if (!grid) {
    ForLines(Team::One, window.top, window.bottom, [&](int y) {
      const auto line = open(y);
      for (int x = 0; x < window.Width(); ++x) {
        count(line, x);
      }
      image.ShowProgress(1);
    });
    return;
  }
  for (const int y : *grid.rows) {
    if (y < 0 || y >= image.GetHeight()) continue;
    const auto line = open(y);
    // The grid's columns count from the window's left.
    for (const int x : *grid.columns) {
      if (x >= 0 && x < image.GetWidth() - window.left) count(line, x);
    }
    image.ShowProgress(1);
  }
}

/// Counts to counts of a full image, and to logarithms; an empty bin's is the lowest int.
void Finish(const CVelImage& image, int* hist, int bins, const SampleGrid& grid, int logScale) {
  for (int i = 0; i < bins; ++i) {
    if (grid) hist[i] = TruncateToInt(hist[i] * grid.Factor(image));
    if (logScale) hist[i] = TruncateToInt(std::log10(hist[i]) * 10000.0);
  }
}

int HeightBySize(const CVelImage& image, int bins) {
  return TruncateToInt(2.0 * image.GetHeight() * image.GetWidth() / bins);
}

constexpr int kCountingMessage = 6166;

/// A number from -1 to 1. Each thread has a sequence of its own, and leaves the application's rand alone.
double RandomOffset() {
  thread_local std::uint32_t state = 2463534242u;
  state ^= state << 13;
  state ^= state >> 17;
  state ^= state << 5;
  return state * (2.0 / (1LL << 32)) - 1.0;
}

/// Bins narrower than this many units of the data show its steps as combs.
bool WantsDither(double scale) {
  return scale > 0 && scale <= 1;
}

/// In lanes that the compiler turns into vectors.
double SumOf(const float* pixels, int width) {
  constexpr int kLanes = 8;
  double lanes[kLanes] = {};
  int x = 0;
  for (; x + kLanes <= width; x += kLanes) {
    for (int k = 0; k < kLanes; ++k) {
      lanes[k] += pixels[x + k];
    }
  }
  for (; x < width; ++x) {
    lanes[0] += pixels[x];
  }
  return std::accumulate(lanes, lanes + kLanes, 0.0);
}

}  // namespace

double CVelImage::HstAntialias(double value, double scale) {
  return WantsDither(scale) ? value + RandomOffset() * 3.0 / scale : value;
}

void CVelImage::HstAntialias(double r, double g, double b, double& r2, double& g2, double& b2, double scale) {
  const double offset = WantsDither(scale) ? RandomOffset() * 3.0 / scale : 0.0;
  r2 = r + offset;
  g2 = g + offset;
  b2 = b + offset;
}

int CVelImage::GetHeightOfHistogram(int* hist, int bins) const {
  return *std::max_element(hist, hist + std::max(bins, 1));
}

int CVelImage::GetHistogram(int* const hist, int bins, double min, double max, int plane, int logScale,
                            int heightFromData, int useCull, CRect* rect, int show, int messageId) {
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, messageId ? messageId : kCountingMessage, window.Height());
  if (!HasColours(*this) && plane == -1) plane = 0;
  std::fill_n(hist, std::max(bins, 0), 0);
  const SampleGrid grid(*this, useCull);
  const bool ofBrightness = plane == -1;
  if (ofBrightness) {
    min = To256(min, 0);
    max = To256(max, 0);
  }
  if (!grid && MayRunPipelines(*this)) {
    if (!window.IsEmpty() && bins > 0) {
      Halide::Runtime::Buffer<int, 1> out(hist, bins);
      if (ofBrightness) {
        histogram_antialias_brightness_float(
            PlaneBuffer(*this, 0), PlaneBuffer(*this, 1), PlaneBuffer(*this, 2), window.left, window.top,
            window.Width(), window.Height(), GetLevelMin(0), GetLevelRange(0), GetLevelMin(1),
            GetLevelRange(1), GetLevelMin(2), GetLevelRange(2), min, max, bins, out);
      } else {
        histogram_antialias_float(PlaneBuffer(*this, plane), window.left, window.top, window.Width(),
                                  window.Height(), min, max, bins, out);
      }
    }
  } else {
    const Binning binning(bins, min, max);
    const auto count = [&](double value) { binning.Count(hist, HstAntialias(value, binning.Scale())); };
    if (ofBrightness) {
      const Brightness256 brightness(*this);
      ForSamples(
          *this, window, grid, [&](int y) { return ColourLine(*this, window.left, y); },
          [&](const ColourLine& line, int x) { count(brightness(line, x)); });
    } else {
      ForSamples(
          *this, window, grid, [&](int y) { return GetLine(window.left, y, plane); },
          [&](const float* line, int x) { count(line[x]); });
    }
  }
  Finish(*this, hist, bins, grid, logScale);
  return heightFromData ? GetHeightOfHistogram(hist, bins) : HeightBySize(*this, bins);
}

int CVelImage::GetHistogramRGB(int* const histR, int* const histG, int* const histB, int bins, double min,
                               double max, double* const, double* const, int logScale, int heightFromData,
                               int useCull, CRect* rect, int show, int messageId) {
  if (!HasColours(*this)) return -1;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, messageId ? messageId : kCountingMessage, window.Height());
  int* const hists[] = {histR, histG, histB};
  for (int* hist : hists) {
    std::fill_n(hist, std::max(bins, 0), 0);
  }
  const SampleGrid grid(*this, useCull);
  if (!grid && MayRunPipelines(*this)) {
    if (!window.IsEmpty() && bins > 0) {
      Halide::Runtime::Buffer<int, 1> outR(histR, bins), outG(histG, bins), outB(histB, bins);
      histogram_antialias_rgb_float(PlaneBuffer(*this, 0), PlaneBuffer(*this, 1), PlaneBuffer(*this, 2),
                                    window.left, window.top, window.Width(), window.Height(), min, max, bins,
                                    outR, outG, outB);
    }
  } else {
    const Binning binning(bins, min, max);
    ForSamples(
        *this, window, grid, [&](int y) { return ColourLine(*this, window.left, y); },
        [&](const ColourLine& line, int x) {
          double r, g, b;
          HstAntialias(line.channel[0][x], line.channel[1][x], line.channel[2][x], r, g, b, binning.Scale());
          binning.Count(histR, r);
          binning.Count(histG, g);
          binning.Count(histB, b);
        });
  }
  int height = HeightBySize(*this, bins);
  for (int* hist : hists) {
    Finish(*this, hist, bins, grid, logScale);
    if (!heightFromData) continue;
    const int own = GetHeightOfHistogram(hist, bins);
    height = hist == histR ? own : std::max(height, own);
  }
  return height;
}

void CVelImage::CalcMinMax() {
  if (IsEmpty()) return;
  for (int p = 0; p < std::min(GetPlanes(), 3); ++p) {
    if (IsContiguous(*this)) {
      auto [min, max, average] = GetMinMaxAvr(p);
      const auto toRaw = [&](double physical) { return static_cast<float>((physical - Bzero()) / Bscale()); };
      // A negative scale turns the extremes over.
      std::tie(minPixel_[p], maxPixel_[p]) = std::minmax({toRaw(min), toRaw(max)});
      avrPixel_[p] = toRaw(average);
      continue;
    }
    float min = GetPixelGrayRaw(0, 0, p), max = min, sum = 0;
    ForLines(Team::One, 0, GetHeight(), [&](int y) {
      const float* line = GetLine(0, y, p);
      for (int x = 0; x < GetWidth(); ++x) {
        if (line[x] < min || min != min) min = line[x];
        if (line[x] > max || max != max) max = line[x];
        sum += line[x];
      }
    });
    minPixel_[p] = min;
    maxPixel_[p] = max;
    // One column and row less than were added up: callers have come to expect this number.
    avrPixel_[p] = static_cast<float>(sum / (static_cast<double>(GetWidth() - 1) * (GetHeight() - 1)));
  }
}

void CVelImage::CalcMinMax(int margin) {
  if (IsEmpty()) return;
  margin = std::max(margin, 0);
  const Window window(std::min(GetWidth() - 1, margin), std::min(GetHeight() - 1, margin),
                      std::max(GetWidth() - margin, 0), std::max(GetHeight() - margin, 0));
  for (int p = 0; p < std::min(GetPlanes(), 3); ++p) {
    float min = window.IsEmpty() ? 0 : GetPixelGrayRaw(window.left, window.top, p), max = min, sum = 0;
    long long count = 0;
    ForLines(Team::One, window.top, window.IsEmpty() ? window.top : window.bottom, [&](int y) {
      const float* line = GetLine(window.left, y, p);
      for (int x = 0; x < window.Width(); ++x) {
        if (line[x] == 0) continue;
        min = std::min(min, line[x]);
        max = std::max(max, line[x]);
        sum += line[x];
        ++count;
      }
    });
    minPixel_[p] = min;
    maxPixel_[p] = max;
    avrPixel_[p] = sum / static_cast<float>(count);
  }
}

float CVelImage::GetAvrGrayRaw(int plane) {
  if (IsEmpty()) return 0;
  if (IsContiguous(*this)) {
    ScalarResult<double> average;
    average_float(PlaneBuffer(*this, plane), 0, GetWidth(), 0, GetHeight(), average);
    return static_cast<float>(average.Value());
  }
  double sum = 0;
  for (const double line :
       MapLines(0, GetHeight(), [&](int y) { return SumOf(GetLine(0, y, plane), GetWidth()); })) {
    sum += line;
  }
  return static_cast<float>(sum / GetWidth() / GetHeight());
}

float CVelImage::GetMaxPixel(int plane, CRect* rect, int& x, int& y) {
  x = y = -1;
  const Window window(*this, rect);
  if (window.IsEmpty()) return 0;
  const float first = GetPixelGrayRaw(window.left, window.top, plane);
  const auto largest = MapLines(window.top, window.bottom, [&](int line) {
    constexpr int kLanes = 32;
    float lanes[kLanes];
    std::fill_n(lanes, kLanes, first);
    const float* pixels = GetLine(window.left, line, plane);
    const int width = window.Width(), whole = width / kLanes * kLanes;
    RunInLongVectors([&lanes, pixels, whole]() KORIMG_IN_LOOP {
      for (int i = 0; i < whole; i += kLanes) {
        for (int k = 0; k < kLanes; ++k) {
          lanes[k] = pixels[i + k] > lanes[k] ? pixels[i + k] : lanes[k];
        }
      }
    });
    for (int i = whole; i < width; ++i) {
      lanes[0] = pixels[i] > lanes[0] ? pixels[i] : lanes[0];
    }
    return *std::max_element(lanes, lanes + kLanes);
  });
  float max = first;
  for (int i = 0; i < window.Height(); ++i) {
    if (!(largest[i] > max)) continue;
    max = largest[i];
    y = window.top + i;
  }
  if (y < 0) return max;
  const float* row = GetLine(window.left, y, plane);
  x = window.left + static_cast<int>(std::find(row, row + window.Width(), max) - row);
  return max;
}

float CVelImage::Get1stBrighterPixel(int plane, CRect* rect, double threshold, int& x, int& y) {
  x = y = -1;
  const Window window(*this, rect);
  if (window.IsEmpty()) return 0;
  const auto search = [&](auto&& open, auto&& value) {
    for (int j = window.top; j < window.bottom; ++j) {
      const auto line = open(j);
      for (int i = 0; i < window.Width(); ++i) {
        const double v = value(line, i);
        if (!(v > threshold)) continue;
        x = window.left + i;
        y = j;
        return static_cast<float>(v);
      }
    }
    return 0.0f;
  };
  if (HasColours(*this)) {
    return search([&](int j) { return ColourLine(*this, window.left, j); },
                  [](const ColourLine& line, int i) { return line.Raw(i); });
  }
  return search([&](int j) { return GetLine(window.left, j, plane); },
                [](const float* line, int i) { return line[i]; });
}
