#include "korimg/levels/CImgAutoLevel.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>

#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/Numbers.h"
#include "korimg/levels/internal/Brightness.h"
#include "korimg/raw/internal/HoneycombLattice.h"

using namespace korimg;

namespace {

constexpr int kBins = 5000;
constexpr int kMessage = 6168;
constexpr int kSamples = 50000;  ///< of a median
constexpr std::array<int, 3> kColour = {0, 1, 2};

// What is measured: each opens a line from a column on, and gives a function from places on it to numbers.

auto PlaneValues(CVelImage& image, int plane) {
  return [&image, plane](int x, int y) {
    return [line = image.GetLine(x, y, plane)](int i) -> double { return line[i]; };
  };
}

auto RawBrightness(CVelImage& image) {
  return [&image](int x, int y) { return [line = ColourLine(image, x, y)](int i) { return line.Raw(i); }; };
}

auto Brightness(CVelImage& image, const std::array<int, 3>& planes = kColour) {
  return [&image, planes, brightness = Brightness256(image, planes)](int x, int y) {
    return [brightness, line = ColourLine(image, x, y, planes)](int i) { return brightness(line, i); };
  };
}

struct Sum {
  long long count = 0;
  double sum = 0;

  double Mean() const { return sum / static_cast<double>(count); }
  double MeanOrZero() const { return count ? Mean() : 0; }
};

/// By the bits: a branch on pixels would be guessed wrong half of the time.
double KeptOrZero(double number, bool keep) {
  return std::bit_cast<double>(std::bit_cast<std::uint64_t>(number) & -std::uint64_t{keep});
}

/// Adds up term(value) of the values in the window that are from lo to hi, by lanes and then by lines: the
/// same sum for any number of threads. NaN is in no range.
template <class Values, class Term>
Sum AddUp(const Window& window, Values&& open, Term&& term,
          double lo = -std::numeric_limits<double>::infinity(),
          double hi = std::numeric_limits<double>::infinity()) {
  constexpr int kLanes = 8;
  Sum total;
  if (window.IsEmpty()) return total;
  const auto lines = MapLines(window.top, window.bottom, [&](int y) {
    const auto value = open(window.left, y);
    double sums[kLanes] = {};
    long long counts[kLanes] = {};
    const auto add = [&](int x, int lanes) {
      double terms[kLanes];  // apart from their sums, which makes vectors
      for (int lane = 0; lane < lanes; ++lane) {
        const double v = value(x + lane);
        const bool inside = (v >= lo) & (v <= hi);
        terms[lane] = KeptOrZero(term(v), inside);
        counts[lane] += inside;
      }
      for (int lane = 0; lane < lanes; ++lane) {
        sums[lane] += terms[lane];
      }
    };
    int x = 0;
    for (; x + kLanes <= window.Width(); x += kLanes) {
      add(x, kLanes);
    }
    add(x, window.Width() - x);
    Sum line;
    for (int lane = 0; lane < kLanes; ++lane) {
      line.sum += sums[lane];
      line.count += counts[lane];
    }
    return line;
  });
  for (const Sum& line : lines) {
    total.sum += line.sum;
    total.count += line.count;
  }
  return total;
}

template <class Values>
double RootMeanSquareFrom(double centre, const Window& window, Values&& values) {
  return std::sqrt(AddUp(window, values, [centre](double v) { return (v - centre) * (v - centre); }).Mean());
}

/// A middle and a spread about it.
struct Spread {
  double middle;
  double deviation;
};

template <class Values>
Spread MeanAndDeviation(const Window& window, Values&& values) {
  const double mean = AddUp(window, values, [](double v) { return v; }).Mean();
  return {mean, RootMeanSquareFrom(mean, window, values)};
}

/// The same of the 256 scale, raw by plane 0.
Spread RawByPlane0(const CVelImage& image, const Spread& s) {
  return {image.ToRaw(s.middle, 0), s.deviation / 255.0 * image.GetLevelRange(0)};
}

/// Mean and deviation of brightness, raw by plane 0.
Spread BrightnessMean(CVelImage& image, const Window& window) {
  // On contiguous stores plane 0 stands for all three: owners' parameters are tuned to that.
  const std::array<int, 3> planes = IsContiguous(image) ? std::array{0, 0, 0} : kColour;
  return RawByPlane0(image, MeanAndDeviation(window, Brightness(image, planes)));
}

/// Of a colour image brightness is measured when asked for; of a mono one its only plane, which -1 means too.
struct Subject {
  bool ofBrightness;
  int plane;

  Subject(const CVelImage& image, int brightness, int plane)
      : ofBrightness(brightness && HasColours(image)),
        plane(HasColours(image) ? plane : std::max(plane, 0)) {}
};

struct Range {
  double min = 0;
  double max = 0;

  double Size() const { return max - min; }
};

/// NaN passed over; 0 and 0 when there is nothing else.
template <class Values>
Range ExtremesOf(const Window& window, Values&& values) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  Range all{kInfinity, -kInfinity};
  if (window.IsEmpty()) return {};
  for (const Range& line : MapLines(window.top, window.bottom, [&](int y) {
         const auto value = values(window.left, y);
         Range extremes{kInfinity, -kInfinity};
         for (int x = 0; x < window.Width(); ++x) {
           const double v = value(x);
           extremes.min = v < extremes.min ? v : extremes.min;
           extremes.max = v > extremes.max ? v : extremes.max;
         }
         return extremes;
       })) {
    all.min = std::min(all.min, line.min);
    all.max = std::max(all.max, line.max);
  }
  return all.min > all.max ? Range{} : all;
}

/// Extremes of brightness, taken on the 256 scale and made raw by plane 0.
Range BrightnessRange(CVelImage& image, const Window& window) {
  const Range range = ExtremesOf(window, Brightness(image));
  return {image.ToRaw(range.min, 0), image.ToRaw(range.max, 0)};
}

/// Raw brightness and that of the 256 scale are one scale, by plane 0's levels.
bool HasOneLevel(const CVelImage& image) {
  const auto like0 = [&](int p) {
    return image.GetLevelMin(p) == image.GetLevelMin(0) && image.GetLevelMax(p) == image.GetLevelMax(0);
  };
  return like0(1) && like0(2);
}

/// Extremes of raw brightness.
Range RawBrightnessRange(CVelImage& image, const Window& window) {
  ScalarResult<float> min, max;
  if (!window.IsEmpty()) {
    getminmax_brightness_float(PlaneBuffer(image, 0), PlaneBuffer(image, 1), PlaneBuffer(image, 2),
                               window.left, window.top, window.Width(), window.Height(), min, max);
  }
  return min.Value() > max.Value() ? Range{} : Range{min.Value(), max.Value()};
}

Range PlaneRange(CVelImage& image, int plane) {
  const auto [min, max] = image.GetMinMax(plane);
  return {min, max};
}

/// A histogram of 5000 bins, in which each counts one more: empty bins keep a slope.
class Shares {
 public:
  Shares(CVelImage& image, int plane, const Range& range, CRect* rect, int show)
      : hist_(kBins), range_(range), total_(Window(image, rect).Pixels() + kBins) {
    image.GetHistogram(hist_.data(), kBins, range.min, range.max, plane, 0, 1, 0, rect, show,
                       show ? kMessage : 0);
  }

  /// Where the share of the pixels below passes `rate`; beyond shares, that far from minimum to maximum.
  double Black(double rate) const {
    if (!(rate > 0 && rate < 1)) return range_.Size() * rate + range_.min;
    const double limit = std::trunc(static_cast<double>(total_) * rate);
    int bin = 0;
    for (long long sum = 0; bin < kBins; ++bin) {
      sum += hist_[bin] + 1;
      if (static_cast<double>(sum) > limit) break;
    }
    return Edge(bin);
  }

  double White(double rate) const {
    if (!(rate > 0 && rate < 1)) return range_.Size() * rate + range_.min;
    const double limit = std::trunc((1 - rate) * static_cast<double>(total_));
    int bin = kBins - 1;
    for (long long sum = 0; bin >= 0; --bin) {
      sum += hist_[bin] + 1;
      if (static_cast<double>(sum) > limit) break;
    }
    return Edge(bin + 1);
  }

  /// Share of the pixels below a level, and its place in proportion when it is not among them.
  double RateOfBlack(double level) const {
    if (!(level > range_.min && level < range_.max)) return (level - range_.min) / range_.Size();
    long long before = 0;
    for (int bin = 0; bin < kBins; ++bin) {
      const long long after = before + hist_[bin] + 1;
      if (Edge(bin) > level) return Middle(before, after);
      before = after;
    }
    return 0;
  }

  double RateOfWhite(double level) const {
    if (!(level > range_.min && level < range_.max)) return (level - range_.min) / range_.Size();
    long long before = 0;
    for (int bin = kBins - 1; bin >= 0; --bin) {
      const long long after = before + hist_[bin] + 1;
      if (Edge(bin) < level) return 1 - Middle(before, after);
      before = after;
    }
    return 1;
  }

 private:
  double Edge(int bin) const { return bin * range_.Size() / kBins + range_.min; }
  double Middle(long long before, long long after) const {
    return static_cast<double>(before + after) * 0.5 / static_cast<double>(total_);
  }

  std::vector<int> hist_;
  Range range_;
  long long total_;
};

/// Levels that are no numbers would take the image from every display.
void SetFiniteLevel(CVelImage& image, int plane, double black, double white) {
  if (std::isfinite(black) && std::isfinite(white)) image.SetLevel(plane, black, white);
}

/// Side of the blocks that bring a number of pixels down to a median's samples.
int BlockSide(long long pixels, int across, int down) {
  const int side = static_cast<int>(std::sqrt(static_cast<double>(pixels / kSamples)) + 0.5);
  return std::min(std::max(side, 1), std::min(across, down));
}

/// Sums of `across` x `down` blocks of step x step pixels from a corner on.
template <class Values>
std::vector<double> BlockSums(int left, int top, int across, int down, int step, Values&& values) {
  std::vector<double> sums(static_cast<size_t>(across) * down);
  ForLines(Team::All, 0, down, [&](int j) {
    double* out = &sums[static_cast<size_t>(j) * across];
    for (int k = 0; k < step; ++k) {
      const auto value = values(left, top + j * step + k);
      for (int i = 0; i < across; ++i) {
        for (int m = 0; m < step; ++m) {
          out[i] += value(i * step + m);
        }
      }
    }
  });
  return sums;
}

/// The middle of the sorted numbers, of an even count the upper one, with NaN last.
double UpperMiddle(std::vector<double>& numbers) {
  const auto middle = numbers.begin() + static_cast<std::ptrdiff_t>(numbers.size() / 2);
  const auto end = std::partition(numbers.begin(), numbers.end(), [](double v) { return !std::isnan(v); });
  if (middle >= end) return std::numeric_limits<double>::quiet_NaN();
  std::nth_element(numbers.begin(), middle, end);
  return *middle;
}

/// Side of the blocks that bring a window down to a median's samples, if that is wanted.
int BlockSide(const Window& window, int sample) {
  return sample ? BlockSide(window.Pixels(), window.Width(), window.Height()) : 1;
}

/// The median of the means of step x step blocks, from their sums.
double MedianOfMeans(std::vector<double> sums, int step) {
  return UpperMiddle(sums) / (static_cast<double>(step) * step);
}

/// The same of the pixels at one place of square cells, by blocks of step x step cells. 0 without any.
double MedianOfPlace(CVelImage& image, const Window& cells, int side, int right, int below, int step) {
  if (image.IsEmpty() || cells.IsEmpty()) return 0;
  const auto place = [&](int, int y) {
    return
        [line = image.GetLine(right, side * y + below, 0), side](int i) -> double { return line[side * i]; };
  };
  return MedianOfMeans(BlockSums(0, 0, cells.Width() / step, cells.Height() / step, step, place), step);
}

/// Sums of the whole blocks of a window.
template <class Values>
std::vector<double> BlockSums(const Window& window, int step, Values&& values) {
  return BlockSums(window.left, window.top, window.Width() / step, window.Height() / step, step, values);
}

/// The upper middle of the pixels themselves, without a copy of them: counted by the upper halves of their
/// keys, and then by the lower halves of those that share the middle's upper one.
float UpperMiddleOfPixels(CVelImage& image, int plane, const Window& window) {
  constexpr int kHalf = 16, kStrips = 16;
  const auto count = [&](auto&& add) {
    std::vector<long long> counts(1 << kHalf);
    for (const auto& strip : MapLines(0, kStrips, [&](int i) {
           std::vector<int> table(1 << kHalf);
           const long long height = window.Height();
           for (auto y = height * i / kStrips; y < height * (i + 1) / kStrips; ++y) {
             const float* line = image.GetLine(window.left, window.top + static_cast<int>(y), plane);
             for (int x = 0; x < window.Width(); ++x) {
               add(table, SortKey(line[x]));
             }
           }
           return table;
         })) {
      std::transform(strip.begin(), strip.end(), counts.begin(), counts.begin(), std::plus<>());
    }
    return counts;
  };
  long long rank = window.Pixels() / 2;
  const auto find = [&rank](const std::vector<long long>& counts) {
    std::uint32_t half = 0;
    for (; rank >= counts[half]; ++half) {
      rank -= counts[half];
    }
    return half;
  };
  const std::uint32_t upper =
      find(count([](std::vector<int>& table, std::uint32_t key) { ++table[key >> kHalf]; }));
  const std::uint32_t lower = find(count([upper](std::vector<int>& table, std::uint32_t key) {
    if (key >> kHalf == upper) ++table[key & ((1u << kHalf) - 1)];
  }));
  return FromSortKey(upper << kHalf | lower);
}

/// Median of brightness on the 256 scale, with the distance of all pixels from it, raw by plane 0.
Spread BrightnessMedian(CVelImage& image, const Window& window) {
  const int step = BlockSide(window, 1);
  const double median = MedianOfMeans(BlockSums(window, step, Brightness(image)), step);
  return RawByPlane0(image, {median, RootMeanSquareFrom(median, window, Brightness(image))});
}

/// Median of a plane, with the distance of all pixels from it.
Spread PlaneMedian(CImgAutoLevel& image, int plane, CRect* rect) {
  float median = 0;
  image.GetMedian(&median, 1, 0, plane, rect);
  return {median, RootMeanSquareFrom(median, Window(image, rect), PlaneValues(image, plane))};
}

}  // namespace

void CImgAutoLevel::DoByNormal(double lowRate, double highRate, int separate, CRect* rect) {
  if (Window(*this, rect).IsEmpty()) return;
  const auto set = [&](int plane, const Range& range, int show) {
    const Shares shares(*this, plane, range, rect, show);
    SetFiniteLevel(*this, plane, shares.Black(lowRate), shares.White(highRate));
  };
  if (HasColours(*this) && !separate) return set(-1, BrightnessRange(*this, Window(*this, rect)), 1);
  for (int p = 0; p < GetPlanes(); ++p) {
    set(p, PlaneRange(*this, p), 0);
  }
}

void CImgAutoLevel::GetByNormal(double& low, double& high, CRect* rect) {
  const Window window(*this, rect);
  const Range range =
      HasColours(*this) ? BrightnessRange(*this, window) : ExtremesOf(window, PlaneValues(*this, 0));
  const Shares shares(*this, -1, range, rect, 0);
  low = shares.RateOfBlack(GetLevelMin(0));
  high = shares.RateOfWhite(GetLevelMax(0));
}

void CImgAutoLevel::DoByMean(double low, double high, int separate, CRect* rect) {
  const Window window(*this, rect);
  const auto set = [&](int plane, const Spread& s) {
    SetFiniteLevel(*this, plane, s.middle - s.deviation * low, s.middle + s.deviation * high);
  };
  if (window.IsEmpty()) return;
  if (HasColours(*this) && !separate) return set(-1, BrightnessMean(*this, window));
  for (int p = 0; p < GetPlanes(); ++p) {
    set(p, MeanAndDeviation(window, PlaneValues(*this, p)));
  }
}

void CImgAutoLevel::GetByMean(double& low, double& high, CRect* rect) {
  const Window window(*this, rect);
  const Spread s =
      HasColours(*this) ? BrightnessMean(*this, window) : MeanAndDeviation(window, PlaneValues(*this, 0));
  low = (s.middle - GetLevelMin(0)) / s.deviation;
  high = (GetLevelMax(0) - s.middle) / s.deviation;
}

void CImgAutoLevel::DoByMedian(double low, double high, int separate, CRect* rect) {
  if (Window(*this, rect).IsEmpty()) return;
  const auto set = [&](int plane, const Spread& s) {
    SetFiniteLevel(*this, plane, s.middle - s.deviation * low, s.middle + s.deviation * high);
  };
  if (HasColours(*this) && !separate) return set(-1, BrightnessMedian(*this, Window(*this, rect)));
  for (int p = 0; p < GetPlanes(); ++p) {
    set(p, PlaneMedian(*this, p, rect));
  }
}

void CImgAutoLevel::GetByMedian(double& low, double& high, CRect* rect) {
  const Spread s =
      HasColours(*this) ? BrightnessMedian(*this, Window(*this, rect)) : PlaneMedian(*this, 0, rect);
  low = (s.middle - GetLevelMin(0)) / s.deviation;
  high = (GetLevelMax(0) - s.middle) / s.deviation;
}

void CImgAutoLevel::Get(double& low, double& high, int method, CRect* rect) {
  switch (method) {
    case 1:
      return GetByMean(low, high, rect);
    case 2:
      return GetByMedian(low, high, rect);
    default:
      return GetByNormal(low, high, rect);
  }
}

void CImgAutoLevel::DoByHistogram(double low, double high, int separate, int mode, CRect* rect) {
  if (mode < 0 || mode > 2 || Window(*this, rect).IsEmpty()) return;
  const auto place = static_cast<float>(low / (high + low) * 255.0);  // of the peak on the 256 scale
  const auto whiteFor = [place](double peak, double black) { return (peak - black) / place * 255.0 + black; };
  const int planes = GetPlanes();
  std::vector<float> peak(planes), lower(planes), upper(planes);
  const bool together = HasColours(*this) && !separate;
  for (int p = 0; p < planes; ++p) {
    GetMode(&peak[p], together ? nullptr : &lower[p], together ? nullptr : &upper[p], 0, p, rect);
  }
  std::vector<Range> levels(planes);  // all from those before any is set
  const double min0 = GetLevelMin(0), max0 = GetLevelMax(0);
  if (together) {
    float bright, foot;
    GetMode(&bright, &foot, nullptr, 1, -1, rect);
    const double black0 = static_cast<float>(bright - (bright - foot) * low);
    for (int p = 0; p < planes; ++p) {
      const double d = static_cast<double>(peak[0]) - peak[p], black = mode == 0 ? black0 - d : black0;
      levels[p] = mode == 2   ? Range{min0 - d, max0 - d}
                  : mode == 0 ? Range{black, whiteFor(peak[p], black) - d}
                              : Range{black, whiteFor(peak[p], black)};
    }
  } else {
    const auto brighter = [&](int p) {  // pixels from the peak up
      int count = 0;
      GetLevelRangeNum(peak[p], static_cast<float>(PlaneRange(*this, p).max), &count, p, rect);
      return static_cast<double>(count);
    };
    const double brighter0 = mode == 2 ? brighter(0) : 1;
    for (int p = 0; p < planes; ++p) {
      const double top = peak[p];
      if (mode == 2) {
        const double d = static_cast<double>(peak[0]) - top, share = brighter(p) / brighter0;
        levels[p] = {GetLevelMin(p) - d - (peak[0] - min0) * share,
                     GetLevelMax(p) - d - (peak[0] - max0) * share};
        continue;
      }
      const double black = mode == 0 ? top - (top - lower[p]) * low : top - (upper[p] - top) * low;
      levels[p] = {black, whiteFor(top, black)};
    }
  }
  for (int p = 0; p < planes; ++p) {
    SetFiniteLevel(*this, p, levels[p].min, levels[p].max);
  }
}

void CImgAutoLevel::GetMedian(float* result, int sample, int brightness, int plane, CRect* rect) {
  *result = 0;
  const Window window(*this, rect);
  if (window.IsEmpty()) return;
  const int step = BlockSide(window, sample);
  const Subject subject(*this, brightness, plane);
  std::vector<double> sums;
  if (subject.ofBrightness) {
    sums = BlockSums(window, step, RawBrightness(*this));
  } else if (step == 1) {
    *result = UpperMiddleOfPixels(*this, subject.plane, window);
    return;
  } else if (MayRunPipelines(*this)) {
    const int across = window.Width() / step, down = window.Height() / step;
    sums.resize(static_cast<size_t>(across) * down);
    PlaneBuffer from(*this, subject.plane);
    from.SetMin(-window.left, -window.top);  // the pipeline's blocks start at 0, 0
    binning_float(from, step, Halide::Runtime::Buffer<double, 2>(sums.data(), across, down));
  } else {
    sums = BlockSums(window, step, PlaneValues(*this, subject.plane));
  }
  *result = static_cast<float>(MedianOfMeans(std::move(sums), step));
}

void CImgAutoLevel::GetMedianBayer(float* result, int sample) {
  const Window cells(0, 0, GetWidth() / 2, GetHeight() / 2);
  const long long pixels = 1LL * GetWidth() * GetHeight() / 4;
  const int step = sample ? BlockSide(pixels, cells.Width(), cells.Height()) : 1;
  for (int i = 0; i < 4; ++i) {
    result[i] = static_cast<float>(MedianOfPlace(*this, cells, 2, i % 2, i / 2, step));
  }
}

void CImgAutoLevel::GetMedianHoneyComb(double* result, int sample) {
  using Lattice = HoneycombLattice;
  const Window cells(0, 0, GetWidth() / Lattice::kPeriod, GetHeight() / Lattice::kPeriod);
  const auto side =
      static_cast<int>(std::sqrt(static_cast<double>(cells.Pixels()) * Lattice::kPositions / kSamples));
  const int step = sample ? std::clamp(side, 1, std::max(std::min(cells.Width(), cells.Height()), 1)) : 1;
  for (int i = 0; i < Lattice::kPositions; ++i) {
    result[i] = MedianOfPlace(*this, cells, Lattice::kPeriod, Lattice::ColumnOf(i), Lattice::RowOf(i), step);
  }
}

void CImgAutoLevel::GetMode(float* mode, float* lower, float* upper, int brightness, int plane, CRect* rect) {
  constexpr double kFoot = 6.0;  // spreads from the peak
  constexpr int kRun = 10;       // of low bins that end a peak
  const Window window(*this, rect);
  const Subject subject(*this, brightness, plane);
  const bool ofBytes = GetOrgBitsPixel() == Gray8 || GetOrgBitsPixel() == Rgb24;
  const int bins = ofBytes ? 256 : kBins;
  Range range;
  if (!window.IsEmpty()) {
    range = !subject.ofBrightness                          ? PlaneRange(*this, subject.plane)
            : MayRunPipelines(*this) && HasOneLevel(*this) ? RawBrightnessRange(*this, window)
                                                           : BrightnessRange(*this, window);
  }
  std::vector<int> hist(bins);
  GetHistogram(hist.data(), bins, range.min, range.max, subject.ofBrightness ? -1 : subject.plane, 0, 1, 0,
               rect, subject.ofBrightness, subject.ofBrightness ? kMessage : 0);
  const auto peak = static_cast<int>(std::max_element(hist.begin(), hist.end()) - hist.begin());
  const double width = range.Size() / bins;
  *mode = static_cast<float>(peak * width + range.min);
  if (lower) {
    double spread = 0;
    if (subject.ofBrightness) {
      GetLevelDoubleRangeStd(0.0f, To256(*mode, 0), &spread, 1, -1, rect);
      spread *= GetLevelRange(0) / 255.0;
    } else {
      GetLevelDoubleRangeStd(0.0f, *mode, &spread, 0, subject.plane, rect);
    }
    *lower = static_cast<float>(*mode - spread * kFoot);
  }
  if (upper) {
    const long long low = window.Pixels() >= 1000000 ? window.Pixels() / 100000 : 10;
    int bin = peak;
    for (int run = 0; bin < bins; ++bin) {
      run = hist[bin] < low ? run + 1 : 0;
      if (run > kRun) break;
    }
    *upper = static_cast<float>((bin - peak) * width + *mode);
  }
}

void CImgAutoLevel::GetLevelRangeNum(float lo, float hi, int* count, int plane, CRect* rect) {
  const Sum all = AddUp(
      Window(*this, rect), PlaneValues(*this, plane), [](double) { return 0.0; }, lo, hi);
  *count = TruncateToInt(static_cast<double>(all.count));
}

void CImgAutoLevel::GetLevelRangeStd(float lo, float hi, double* std, int plane, CRect* rect) {
  const Window window(*this, rect);
  const double mean = AddUp(
                          window, PlaneValues(*this, plane), [](double v) { return v; }, lo, hi)
                          .MeanOrZero();
  const auto square = [mean](double v) { return (v - mean) * (v - mean); };
  *std = std::sqrt(AddUp(window, PlaneValues(*this, plane), square, lo, hi).MeanOrZero());
}

void CImgAutoLevel::GetLevelDoubleRangeStd(float lo, float hi, double* std, int brightness, int plane,
                                           CRect* rect) {
  const Window window(*this, rect);
  const double from = hi;
  const auto square = [from](double v) { return (v - from) * (v - from); };
  const Subject subject(*this, brightness, plane);
  const Sum sum = subject.ofBrightness ? AddUp(window, Brightness(*this), square, lo, hi)
                                       : AddUp(window, PlaneValues(*this, subject.plane), square, lo, hi);
  *std = std::sqrt(sum.MeanOrZero());
}
