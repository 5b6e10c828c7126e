#include "korimg/measurement/CImgPixelInfo.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/LineSums.h"
#include "korimg/image/internal/Numbers.h"
#include "korimg/image/internal/Vectors.h"
#include "korimg/measurement/PSF.h"

using namespace korimg;

namespace {

/// The place of the largest number of sorted pixels, of which NaN are the last; 0 when there are only NaN.
int LastNumber(const std::vector<float>& sorted) {
  const auto end = std::partition_point(sorted.begin(), sorted.end(), [](float v) { return !std::isnan(v); });
  return std::max(0, static_cast<int>(end - sorted.begin()) - 1);
}

/// Sums of a window's lines from the whole team; look(line, pixels) sees the lines too.
template <class F, class G>
std::vector<double> SumsOf(CVelImage& image, const Window& window, int plane, const F& term, const G& look) {
  constexpr int kLines = 8;
  std::vector<double> sums(window.Height());
  ForLines(Team::All, 0, (window.Height() + kLines - 1) / kLines, [&](int group) {
    Window part = window;
    part.top += group * kLines;
    part.bottom = std::min(part.top + kLines, window.bottom);
    SumLines(image, part, plane, term, &sums[part.top - window.top]);
    for (int y = part.top; y < part.bottom; ++y) {
      look(y - window.top, image.GetLine(window.left, y, plane));
    }
  });
  return sums;
}

/// The smallest and the largest number of a line; infinities where there are only NaN.
std::pair<float, float> EndsOf(const float* line, int width) {
  constexpr int kLanes = 32;
  float min[kLanes], max[kLanes];
  std::fill_n(min, kLanes, std::numeric_limits<float>::infinity());
  std::fill_n(max, kLanes, -std::numeric_limits<float>::infinity());
  const int whole = width / kLanes * kLanes;
  RunInLongVectors([&min, &max, line, whole]() KORIMG_IN_LOOP {
    for (int i = 0; i < whole; i += kLanes) {
      for (int k = 0; k < kLanes; ++k) {
        min[k] = line[i + k] < min[k] ? line[i + k] : min[k];
        max[k] = line[i + k] > max[k] ? line[i + k] : max[k];
      }
    }
  });
  for (int i = whole; i < width; ++i) {
    min[0] = line[i] < min[0] ? line[i] : min[0];
    max[0] = line[i] > max[0] ? line[i] : max[0];
  }
  return {*std::min_element(min, min + kLanes), *std::max_element(max, max + kLanes)};
}

}  // namespace

/// Where the figures of a plane go.
struct CImgPixelInfo::Results {
  double *min, *max, *mean, *sd, *median;

  void Clear(int planes) const {
    for (double* result : {min, max, mean, sd, median}) {
      if (result) std::fill_n(result, planes, 0.0);
    }
  }

  /// The figures of what is kept of a plane's sorted pixels.
  void SetTrimmed(int plane, const std::vector<float>& sorted, double low, double high) const {
    const int n = static_cast<int>(sorted.size());
    if (n == 0) return;
    const int first = std::clamp(TruncateToInt(n * (1 - high) * 0.5), 0, n / 2);
    const int last = std::min(std::max(TruncateToInt(n * (low + 1) * 0.5), n / 2 + 1), n - 1);
    const int kept = last - first + 1;
    double sum = 0, squares = 0;
    for (int i = first; i <= last; ++i) {
      sum += sorted[i];
    }
    for (int i = first; i <= last; ++i) {
      const double d = sorted[i] - sum / kept;
      squares += d * d;
    }
    min[plane] = sorted[first];
    max[plane] = sorted[std::max(first, std::min(last, LastNumber(sorted)))];
    mean[plane] = sum / kept;
    sd[plane] = std::sqrt(squares / kept);
    if (median) median[plane] = sorted[first + kept / 2];
  }
};

std::vector<float> CImgPixelInfo::PixelsOf(CRect rect, int plane) {
  const Window window(*this, &rect);
  std::vector<float> pixels;
  for (int y = window.top; y < window.bottom && !window.IsEmpty(); ++y) {
    const float* line = GetLine(window.left, y, plane);
    pixels.insert(pixels.end(), line, line + window.Width());
  }
  std::sort(pixels.begin(), pixels.end(), NanLast);
  return pixels;
}

std::vector<float> CImgPixelInfo::PixelsOf(int x, int y, int radius, int plane) {
  const auto limited = [](long long v, int size) {
    return static_cast<int>(std::clamp<long long>(v, 0, size));
  };
  const int right = limited(1LL * x + radius, GetWidth()), bottom = limited(1LL * y + radius, GetHeight());
  std::vector<float> pixels;
  for (int row = limited(1LL * y - radius + 1, GetHeight()); row < bottom; ++row) {
    const float* line = GetLine(0, row, plane);
    for (int column = limited(1LL * x - radius + 1, GetWidth()); column < right; ++column) {
      const long long dx = 1LL * column - x, dy = 1LL * row - y;
      if (dx * dx + dy * dy < 1LL * radius * radius) pixels.push_back(line[column]);
    }
  }
  std::sort(pixels.begin(), pixels.end(), NanLast);
  return pixels;
}

void CImgPixelInfo::Calc(CRect rect, double* min, double* max, double* mean, double* sd, double* median) {
  Results{min, max, mean, sd, median}.Clear(Planes());
  const Window window(*this, &rect);
  if (window.IsEmpty()) return;
  const double n = static_cast<double>(window.Pixels());
  for (int p = 0; p < Planes(); ++p) {
    std::vector<std::pair<float, float>> ends(window.Height());
    double sum = 0, squares = 0;
    for (const double line : SumsOf(
             *this, window, p, [](float v) { return static_cast<double>(v); },
             [&](int y, const float*in) { ends[y] = EndsOf(in, window.Width()); })) {
      sum += line;
    }
    min[p] = ends[0].first, max[p] = ends[0].second;
    for (const auto& [lowest, highest] : ends) {
      min[p] = std::min<double>(min[p], lowest);
      max[p] = std::max<double>(max[p], highest);
    }
    if (min[p] > max[p]) min[p] = max[p] = std::numeric_limits<double>::quiet_NaN();  // there are only NaN
    mean[p] = sum / n;
    for (const double line : SumsOf(
             *this, window, p, [m = mean[p]](float v) { return (v - m) * (v - m); },
             [](int, const float*) {})) {
      squares += line;
    }
    sd[p] = std::sqrt(squares / n);
    if (!median) continue;
    std::vector<float> pixels = PixelsOf(rect, p);
    median[p] = pixels[(pixels.size() - 1) / 2];
  }
}

void CImgPixelInfo::Calc(CPoint centre, int size, double* min, double* max, double* mean, double* sd,
                         double* median) {
  const int half = size / 2;
  Calc({centre.x - half, centre.y - half, centre.x + half + 1, centre.y + half + 1}, min, max, mean, sd,
       median);
}

void CImgPixelInfo::CalcFWHM(int x, int y, double* fwhm) {
  constexpr int kNear = 10;
  *fwhm = 0;
  CRect box(x - kNear, y - kNear, x + kNear, y + kNear);
  int peakX = -1, peakY = -1;
  GetMaxPixel(0, &box, peakX, peakY);
  PSF psf(this);
  if (peakX < 0 || peakY < 0 || !psf.Add({peakX, peakY})) return;
  psf.GetMeanFWHM(fwhm);
}

void CImgPixelInfo::CalcSky(CRect rect, double* min, double* max, double* mean, double* sd, double* median) {
  CalcSky(rect, 1, 1, min, max, mean, sd, median);
}

void CImgPixelInfo::CalcSky(CRect rect, double low, double high, double* min, double* max, double* mean,
                            double* sd, double* median) {
  const Results results{min, max, mean, sd, median};
  results.Clear(Planes());
  for (int p = 0; p < Planes(); ++p) {
    results.SetTrimmed(p, PixelsOf(rect, p), low, high);
  }
}

void CImgPixelInfo::CalcSky(int x, int y, int radius, double low, double high, double* min, double* max,
                            double* mean, double* sd, double* median) {
  const Results results{min, max, mean, sd, median};
  results.Clear(Planes());
  for (int p = 0; p < Planes(); ++p) {
    results.SetTrimmed(p, PixelsOf(x, y, radius, p), low, high);
  }
}

void CImgPixelInfo::CalcStar(int x, int y, int radius, double low, double high, double* min, double* max,
                             double* mean, double* sd, double* median, double* peak, double* fwhm) {
  double medians[3];
  const Results results{min, max, mean, sd, median ? median : medians};
  results.Clear(Planes());
  std::fill_n(peak, Planes(), 0.0);
  std::fill_n(fwhm, Planes(), 0.0);
  for (int p = 0; p < Planes(); ++p) {
    const std::vector<float> sorted = PixelsOf(x, y, radius, p);
    if (sorted.empty()) continue;
    results.SetTrimmed(p, sorted, low, high);
    peak[p] = sorted[LastNumber(sorted)];
    const double half = (results.median[p] + peak[p]) * 0.5;
    const auto above = std::count_if(sorted.begin(), sorted.end(), [half](float v) { return v > half; });
    fwhm[p] = 2 * std::sqrt(static_cast<double>(above) / std::numbers::pi);
  }
}
