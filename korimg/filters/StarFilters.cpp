// The star filters of CImgFilterSpecial.
#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <vector>

#include "korimg/filters/CFilterMatrix.h"
#include "korimg/filters/CImgFilterSpecial.h"
#include "korimg/filters/internal/Edges.h"
#include "korimg/filters/internal/FilterLines.h"
#include "korimg/filters/internal/FilteredRows.h"
#include "korimg/filters/internal/Ranks.h"
#include "korimg/platform/CParallel.h"

using namespace korimg;

namespace {

enum Message : int { Sharp = 6165, Enhance = 6173, Nebula = 6174, Mask = 6196 };

float RawThreshold(const CVelImage& src, int p, double threshold) {
  const double min = src.GetLevelMin(p);
  return static_cast<float>(threshold * 256.0 / 255.0 * src.GetLevelRange(p) + min - min);
}

/// The weights of a Gaussian along an axis, cut off at `most` pixels to either side.
std::vector<float> GaussianWeights(double sigma, int most = std::numeric_limits<int>::max()) {
  CFilterMatrix matrix;
  matrix.MakeGaussian(sigma);
  const std::vector<float> row = matrix.GetMiddleRow(1);
  const int cut = std::max(matrix.GetR() - most, 0);
  return {row.begin() + cut, row.end() - cut};
}

/// The high pass of rows that come one after the other. The ends of rows are repeated.
class HighPass {
 public:
  explicit HighPass(int width) : width_(width) {
    for (std::vector<float>& row : rows_) {
      row.resize(width + 2);
    }
  }

  /// Takes the next row; true once there are three.
  bool Push(const float* row) {
    rows_[0].swap(rows_[1]);
    rows_[1].swap(rows_[2]);
    rows_[2].front() = row[0];
    std::copy_n(row, width_, rows_[2].begin() + 1);
    rows_[2].back() = row[width_ - 1];
    pushed_ = std::min(pushed_ + 1, 3);
    return pushed_ == 3;
  }
  /// The row in the middle of the last three.
  const float* Middle() const { return rows_[1].data() + 1; }
  /// Writes the size of its high pass, what is below the threshold as 0.
  void Calc(float threshold, float* line) const {
    const float *above = rows_[0].data(), *middle = rows_[1].data(), *below = rows_[2].data();
    RunInLongVectors([=, columns = width_]() KORIMG_IN_LOOP {
#pragma omp simd
      for (int x = 0; x < columns; ++x) {
        const float sum = -above[x] - above[x + 1] - above[x + 2] - middle[x] + 8.0f * middle[x + 1] -
                          middle[x + 2] - below[x] - below[x + 1] - below[x + 2];
        const float size = std::abs(sum);
        line[x] = size < threshold ? 0.0f : size;
      }
    });
  }

 private:
  int width_;
  std::vector<float> rows_[3];
  int pushed_ = 0;
};

/// Splits the window's lines among the workers, for filters that keep rows from line to line.
template <class F>
void ForRuns(const Window& window, F&& run) {
  if (window.IsEmpty()) return;
  const int workers = std::max(CParallel::GetMaxThreads(), 1);
  const auto start = [&](long long w) {
    return window.top + static_cast<int>(window.Height() * w / workers);
  };
  ForLines(Team::All, 0, workers, [&](int w) {
    if (start(w) < start(w + 1)) run(start(w), start(w + 1));
  });
}

/// How a map of the stars is made: pixels are limited, smoothed, passed through the high pass, cut off below
/// a threshold, and smoothed again.
struct StarMap {
  float least, most;
  std::vector<float> first;  ///< weights along an axis
  float threshold;
  std::vector<float> last;

  int Reach() const { return static_cast<int>(first.size() / 2 + 1 + last.size() / 2); }
};

/// Calls write(y, map) with the window's columns of each line.
template <class F>
void MapStars(CVelImage& src, int p, const Window& window, const StarMap& map, F&& write) {
  const int reach = map.Reach();
  const int left = std::max(window.left - reach, 0), right = std::min(window.right + reach, src.GetWidth());
  const int width = right - left;
  ForRuns(window, [&](int top, int bottom) {
    FilteredRows<float> first(map.first, width), last(map.last, width);
    HighPass highPass(width);
    std::vector<float> row(width);
    for (int y = top - reach; y < bottom + reach; ++y) {
      const float* s = src.GetLine(left, MirroredRow(y, src.GetHeight()), p);
      for (int x = 0; x < width; ++x) {
        row[x] = s[x] > map.most ? map.most : s[x] < map.least ? map.least : s[x];
      }
      if (!first.Push(row.data())) continue;
      first.Sum(0, width, row.data());
      for (float& smoothed : row) {
        smoothed = std::abs(smoothed);
      }
      if (!highPass.Push(row.data())) continue;
      highPass.Calc(map.threshold, row.data());
      if (!last.Push(row.data())) continue;
      last.Sum(window.left - left, window.right - left, row.data());
      write(y - reach, row.data());
    }
  });
}

/// A Gaussian for the sums over pixels that are no stars.
std::vector<double> SkyWeights(double sigma, int r) {
  std::vector<double> weights;
  for (int d = -r; d <= r; ++d) {
    weights.push_back(d == 0 ? 1.0 : std::exp(static_cast<double>(d) * d / (sigma * -2.0 * sigma)));
  }
  return weights;
}

/// Writes how many columns away the nearest cell of 0 is.
void DistancesToZero(const double* cells, int width, int* distances) {
  constexpr int kFar = std::numeric_limits<int>::max() / 2;
  for (int x = 0, distance = kFar; x < width; ++x) {
    distance = cells[x] == 0 ? 0 : std::min(distance + 1, kFar);
    distances[x] = distance;
  }
  for (int x = width - 1, distance = kFar; x >= 0; --x) {
    distance = std::min(distance + 1, distances[x]);
    distances[x] = distance;
  }
}

/// Smooths a plane's sky: see CImgFilterSpecial::NebularSmootherFilter. Calls write(y, smoothed), with NaN
/// for the pixels that stay. The kernel is a product along both axes, of which the sums are made.
template <class F>
void SmoothSky(CVelImage& src, int p, const Window& window, double sigma, float threshold, double extent,
               F&& write) {
  constexpr float kStar = std::numeric_limits<float>::quiet_NaN();
  const int r = CFilterMatrix::GetGaussian_nR(sigma), whole = WholeRadius(extent);
  const Neighbourhood disc = Neighbourhood::Disc(whole, extent);
  const std::vector<double> weights = SkyWeights(sigma, r);
  // The outermost column has no neighbour for its high pass, unless it lies at the edge, and is not reached.
  const int reach = std::max(r, whole) + 1, rows = std::min(r, whole), height = src.GetHeight();
  const int left = std::max(window.left - reach, 0), right = std::min(window.right + reach, src.GetWidth());
  const int width = right - left, columns = window.Width(), offset = window.left - left;
  ForRuns(window, [&](int top, int bottom) {
    FilteredRows<double> sums(weights, width), skies(weights, width);
    HighPass highPass(width);
    std::vector<float> high(width), line(columns);
    std::vector<double> sky(width), pixels(width), sum(columns), total(columns);
    std::vector<std::vector<int>> distances(2 * static_cast<size_t>(r) + 1, std::vector<int>(width));
    const auto distancesOf = [&](int y) { return distances[(y - top + r) % distances.size()].data(); };
    int next = std::clamp(top - r, 0, height - 1) - 1, current = next;
    for (int y = top - r; y < bottom + r; ++y) {
      // Rows beyond the edges are those at the edges.
      const int row = std::clamp(y, 0, height - 1);
      for (; next <= row + 1; ++next) {
        highPass.Push(src.GetLine(left, MirroredRow(next, height), p));
      }
      if (row != current) {
        highPass.Calc(0, high.data());
        RunInLongVectors([=, s = highPass.Middle(), h = high.data(), one = sky.data(), v = pixels.data()]()
                             KORIMG_IN_LOOP {
#pragma omp simd
                               for (int x = 0; x < width; ++x) {
                                 const bool isSky = threshold > h[x];
                                 one[x] = isSky ? 1.0 : 0.0;
                                 v[x] = isSky ? s[x] : 0.0f;
                               }
                             });
        current = row;
      }
      DistancesToZero(sky.data(), width, distancesOf(y));
      skies.Push(sky.data());
      if (!sums.Push(pixels.data())) continue;
      sums.Sum(offset, offset + columns, sum.data());
      skies.Sum(offset, offset + columns, total.data());
      RunInLongVectors([=, s = sum.data(), t = total.data(), mean = line.data()]() KORIMG_IN_LOOP {
#pragma omp simd
        for (int x = 0; x < columns; ++x) {
          mean[x] = static_cast<float>(s[x] / t[x]);
        }
      });
      for (int dy = -rows; dy <= rows; ++dy) {
        RunInLongVectors([=, half = disc.halfWidth[whole + dy], mean = line.data(),
                          away = distancesOf(y - r + dy) + offset]() KORIMG_IN_LOOP {
#pragma omp simd
          for (int x = 0; x < columns; ++x) {
            mean[x] = away[x] <= half ? kStar : mean[x];
          }
        });
      }
      write(y - r, line.data());
    }
  });
}

/// Runs a pipeline into the window of a plane: run(input, output). Paged images go through temporary planes,
/// and their lines are counted.
template <class F>
void RunThroughPlanes(CVelImage& target, CVelImage& src, int p, const Window& window, F&& run) {
  const auto contiguous = ContiguousStore(target, src);
  StagedPlane input(src, p, *contiguous);
  const int status = WriteThroughPlane(target, p, window, *contiguous,
                                       [&](halide_buffer_t* out) { return run(input, out); });
  for (int y = window.top; y < window.bottom && status == 0 && !MayRunPipelines(target, src); ++y) {
    target.ShowProgress(1);
  }
}

}  // namespace

int CImgFilterSpecial::GetStarSharpFilterNum(double r) const {
  return Neighbourhood::Disc(WholeRadius(r), r).Count();
}

void CImgFilterSpecial::StarSharpFilter(double r[], double rank[], double threshold[], int keepPeak,
                                        CVelImage* src, CRect* rect, int show) {
  if (!Fits(*src, *this)) return;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, Sharp, window.Lines(*this));
  for (int p = 0; p < GetPlanes(); ++p) {
    const int last = GetStarSharpFilterNum(r[p]) - 1;
    const double place = std::min(std::max(0.0, rank[p]), static_cast<double>(last));
    const int lower = TruncateToInt(place);
    const auto fraction = static_cast<float>(place - lower);
    const RankQuery query{.cells = Neighbourhood::Disc(WholeRadius(r[p]), r[p]),
                          .rank = lower,
                          .also = {std::min(lower + 1, last), last},
                          .row = MirroredRow,
                          .column = NearestColumn};
    FindRanks(*this, *src, p, window, query, [&](int x, int y, const float* values, int columns) {
      const float *low = values, *high = low + columns, *largest = high + columns;
      const float* s = src->GetLine(x, y, p);
      float* out = GetWritableLine(x, y, p);
      RunInLongVectors([=, least = threshold[p]]() KORIMG_IN_LOOP {
#pragma omp simd
        for (int i = 0; i < columns; ++i) {
          const float between = (high[i] - low[i]) * fraction + low[i];
          // Of two equal infinities there is none.
          const float ranked = fraction > 0 && low[i] != high[i] ? between : low[i];
          const bool isFlat = least != 0 && least > std::abs(ranked / largest[i] - 1.0);
          const bool isPeak = keepPeak && largest[i] == s[i];
          out[i] = isFlat || isPeak || s[i] != s[i] ? s[i] : ranked;
        }
      });
    });
  }
}

void CImgFilterSpecial::StarEnhanceFilter(double sigma, double mag, double threshold, int showMask,
                                          CVelImage* src, CRect* rect, int show) {
  constexpr int kCutOff = 2;  // pixels
  if (!Fits(*src, *this)) return;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, Enhance, window.Lines(*this));
  CFilterMatrix small;
  small.MakeGaussian(1, 1.0);
  for (int p = 0; p < GetPlanes(); ++p) {
    const auto black = static_cast<float>(src->GetLevelMin(p)), factor = static_cast<float>(mag);
    const StarMap map{black, static_cast<float>(src->GetLevelMax(p)), GaussianWeights(sigma, kCutOff),
                      RawThreshold(*src, p, threshold), small.GetMiddleRow(1)};
    MapStars(*src, p, window, map, [&](int y, const float* stars) {
      const float* s = src->GetLine(window.left, y, p);
      float* out = GetWritableLine(window.left, y, p);
      for (int x = 0; x < window.Width(); ++x) {
        out[x] = (showMask ? black : s[x]) + stars[x] * factor;
      }
      ShowProgress(1);
    });
  }
}

void CImgFilterSpecial::StarEnhanceFilter2(double sigma[], double mag[], double threshold[], int showMask,
                                           CVelImage* src, CRect* rect, int show) {
  if (!Fits(*src, *this)) return;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, Enhance, window.Lines(*this));
  WeightBuffer first(GaussianWeights(1.0));
  const auto run = showMask ? star_enhance_show_mask_float : star_enhance_float;
  for (int p = 0; p < GetPlanes(); ++p) {
    WeightBuffer last(GaussianWeights(sigma[p]));
    RunThroughPlanes(*this, *src, p, window, [&](halide_buffer_t* in, halide_buffer_t* out) {
      return run(in, first, first.R(), last, last.R(), static_cast<float>(mag[p]),
                 RawThreshold(*src, p, threshold[p]), static_cast<float>(src->GetLevelMin(p)), out);
    });
  }
}

void CImgFilterSpecial::StaryMask(double sigma, double strength, double threshold, int blend, CVelImage* src,
                                  CRect* rect, int show) {
  if (!Fits(*src, *this)) return;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, Mask, window.Lines(*this));
  const bool pipelines = MayRunPipelines(*this, *src);
  const auto run = blend ? stary_mask_blend_float : stary_mask_float;
  const auto factor = static_cast<float>(strength);
  for (int p = 0; p < GetPlanes(); ++p) {
    const auto black = static_cast<float>(src->GetLevelMin(p));
    const StarMap map{black, static_cast<float>(src->GetLevelMax(p)), GaussianWeights(1.0),
                      RawThreshold(*src, p, threshold), GaussianWeights(sigma)};
    if (pipelines) {
      WeightBuffer first(map.first), last(map.last);
      RunIntoWindow(*this, p, window, [&](halide_buffer_t* out) {
        return run(PlaneBuffer(*src, p), first, first.R(), map.least, map.most, map.threshold, last, last.R(),
                   factor, out);
      });
      continue;
    }
    MapStars(*src, p, window, map, [&](int y, const float* stars) {
      const float* s = src->GetLine(window.left, y, p);
      float* out = GetWritableLine(window.left, y, p);
      for (int x = 0; x < window.Width(); ++x) {
        const float mask = stars[x] * factor;
        out[x] = (blend ? (mask + s[x]) * 0.5f : mask) + black;
      }
      ShowProgress(1);
    });
  }
}

void CImgFilterSpecial::NebularSmootherFilter(double sigma[], double threshold[], double r[], int showMask,
                                              CVelImage* src, CRect* rect, int show) {
  if (!Fits(*src, *this)) return;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, Nebula, window.Lines(*this));
  for (int p = 0; p < GetPlanes(); ++p) {
    const double min = src->GetLevelMin(p);
    const auto black = static_cast<float>(min), white = static_cast<float>(min + src->GetLevelRange(p));
    SmoothSky(*src, p, window, sigma[p], RawThreshold(*src, p, threshold[p]), r[p],
              [&](int y, const float* smoothed) {
                const float* s = src->GetLine(window.left, y, p);
                float* out = GetWritableLine(window.left, y, p);
                for (int x = 0; x < window.Width(); ++x) {
                  const bool stays = std::isnan(smoothed[x]) || smoothed[x] == s[x];
                  const float result = stays ? s[x] : smoothed[x];
                  out[x] = showMask ? (stays ? white : black) : result;
                }
                ShowProgress(1);
              });
  }
}
