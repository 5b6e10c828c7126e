#include "korimg/filters/CImgFilterBlur.h"

#include <algorithm>
#include <optional>
#include <vector>

#include "korimg/filters/CFilterBlock.h"
#include "korimg/filters/CFilterMatrix.h"
#include "korimg/filters/CFilterProc.h"
#include "korimg/filters/internal/FilterLines.h"
#include "korimg/filters/internal/Ranks.h"

using namespace korimg;

namespace {

enum Message : int { Mean = 6119, Median = 6120, Gauss = 6131 };

/// Filters by the prepared filters of the target.
void FilterByProcs(CVelImage& target, CVelImage& src, const Window& window, const BandLimits* limits) {
  FilterLines(target, src, window, limits, [&](int p, int y, float* line) {
    target.FilterProcSlots().CalcLine(window.left, window.right, y, p, line);
  });
}

void RunGaussian(CVelImage& target, CVelImage& src, int p, const Window& window, const CFilterMatrix& matrix,
                 const std::optional<LevelBand>& band) {
  WeightBuffer weights(matrix);
  PlaneBuffer input(src, p);
  RunIntoWindow(target, p, window, [&](halide_buffer_t* out) {
    if (!band) return apply_filter_float(input, weights, weights.R(), out);
    return apply_filter_with_threshold_float(input, weights, weights.R(), band->dark, band->darkMin,
                                             band->highlight, band->highlightMax, out);
  });
}

void Gaussian(CVelImage& target, const double sigma[], const BandLimits* limits, CVelImage& src, CRect* rect,
              int show) {
  if (!Fits(src, target)) return;
  const Window window(target, rect);
  const ProgressScope progress(target, show, Gauss, window.Lines(target));
  const bool pipelines = MayRunPipelines(target, src);
  for (int p = 0; p < target.GetPlanes(); ++p) {
    CFilterMatrix matrix;
    matrix.MakeGaussian(sigma[p]);
    if (pipelines) {
      RunGaussian(target, src, p, window, matrix, BandOf(src, p, limits));
    } else {
      target.MakeFilterProc(&src, &matrix, p, 1);
    }
  }
  if (!pipelines) FilterByProcs(target, src, window, limits);
}

/// The square of the middle row.
void SquareMean(CVelImage& target, const double r[], const double weight[], CVelImage& src, CRect* rect,
                int show) {
  if (!Fits(src, target)) return;
  const Window window(target, rect);
  const ProgressScope progress(target, show, Mean, window.Lines(target));
  for (int p = 0; p < target.GetPlanes(); ++p) {
    CFilterMatrix matrix;
    // Twice the disc's radius: the outer half of the row is zeros.
    const int radius = TruncateToInt(2.0 * TruncateToInt(r[p]));
    matrix.MakeMean(std::max(radius, 1), r[p], weight[p]);
    target.MakeFilterProc(&src, &matrix, p, 1);
  }
  FilterByProcs(target, src, window, nullptr);
}

void DiscMean(CVelImage& target, const double r[], const double weight[], const BandLimits& limits,
              CVelImage& src, CRect* rect, int show) {
  if (!Fits(src, target)) return;
  const Window window(target, rect);
  const ProgressScope progress(target, show, Mean, window.Lines(target));
  std::vector<CFilterMatrix> matrices(target.GetPlanes());
  for (int p = 0; p < target.GetPlanes(); ++p) {
    matrices[p].MakeMean(TruncatedRadius(r[p]), r[p], weight[p]);
  }
  FilterLines(target, src, window, &limits, [&](int p, int y, float* line) {
    const CFilterBlock block(&src, matrices[p].GetR(), 0, y, p, CImage::Locked);
    block.ConvolveLine(&matrices[p], window.left, window.right, line);
  });
}

void MeanWithoutEdge(CVelImage& target, const double r[], const double weight[], const BandLimits* limits,
                     CVelImage& src, CRect* rect, int show) {
  constexpr int kLaplacian = 0;  // the set of prepared filters
  if (!Fits(src, target)) return;
  const Window window(target, rect);
  const ProgressScope progress(target, show, Mean, window.Lines(target));
  for (int p = 0; p < target.GetPlanes(); ++p) {
    CFilterMatrix matrix;
    matrix.MakeMean(TruncatedRadius(r[p]), r[p], weight[p]);
    target.MakeFilterProc(&src, &matrix, p, 1);
    matrix.MakeLaplacian(TruncatedRadius(r[p]), r[p]);
    target.MakeFilterProcEx(kLaplacian, &src, &matrix, p, 1);
  }
  FilterLines(target, src, window, limits, [&](int p, int y, float* line) {
    const int columns = window.Width();
    std::vector<float> edge(columns);
    target.FilterProcSlots().CalcLine(window.left, window.right, y, p, line);
    target.FilterProcSet(kLaplacian).CalcLine(window.left, window.right, y, p, edge.data());
    const double range = target.GetLevelRange(p);
    const float* s = src.GetLine(window.left, y, p);
    for (int x = 0; x < columns; ++x) {
      const float w = EdgeShare(edge[x], range);
      line[x] = (1.0f - w) * line[x] + w * s[x];
    }
  });
}

void DiscMedian(CVelImage& target, const double r[], const BandLimits* limits, CVelImage& src, CRect* rect,
                int show) {
  if (!Fits(src, target)) return;
  const Window window(target, rect);
  const ProgressScope progress(target, show, Median, window.Lines(target));
  for (int p = 0; p < target.GetPlanes(); ++p) {
    const auto band = BandOf(src, p, limits);
    const RankQuery query{.cells = Neighbourhood::Disc(TruncatedRadius(r[p]), r[p])};
    FindRanks(target, src, p, window, query, [&](int x, int y, const float* values, int columns) {
      WriteFiltered(target, src, p, x, y, band, values, columns);
    });
  }
}

}  // namespace

void CImgFilterBlur::GaussianFilter(double sigma, CVelImage* src, CRect* rect, int show) {
  GaussianFilter(Same(*this, sigma), src, rect, show);
}

void CImgFilterBlur::GaussianFilter(double sigma[], CVelImage* src, CRect* rect, int show) {
  Gaussian(*this, sigma, nullptr, *src, rect, show);
}

void CImgFilterBlur::GaussianFilter(double sigma, int useDark, double dark, double darkRange,
                                    int useHighlight, double highlight, double highlightRange, CVelImage* src,
                                    CRect* rect, int show) {
  GaussianFilter(Same(*this, sigma), Same(*this, useDark), Same(*this, dark), Same(*this, darkRange),
                 Same(*this, useHighlight), Same(*this, highlight), Same(*this, highlightRange), src, rect,
                 show);
}

void CImgFilterBlur::GaussianFilter(double sigma[], int useDark[], double dark[], double darkRange[],
                                    int useHighlight[], double highlight[], double highlightRange[],
                                    CVelImage* src, CRect* rect, int show) {
  const BandLimits limits{useDark, dark, darkRange, useHighlight, highlight, highlightRange};
  Gaussian(*this, sigma, &limits, *src, rect, show);
}

void CImgFilterBlur::MeanFilter(double r, double weight, CVelImage* src, CRect* rect, int show) {
  MeanFilter(Same(*this, r), Same(*this, weight), src, rect, show);
}

void CImgFilterBlur::MeanFilter(double r[], double weight[], CVelImage* src, CRect* rect, int show) {
  SquareMean(*this, r, weight, *src, rect, show);
}

void CImgFilterBlur::MeanFilter(double r, double weight, int useDark, double dark, double darkRange,
                                int useHighlight, double highlight, double highlightRange, CVelImage* src,
                                CRect* rect, int show) {
  MeanFilter(Same(*this, r), Same(*this, weight), Same(*this, useDark), Same(*this, dark),
             Same(*this, darkRange), Same(*this, useHighlight), Same(*this, highlight),
             Same(*this, highlightRange), src, rect, show);
}

void CImgFilterBlur::MeanFilter(double r[], double weight[], int useDark[], double dark[], double darkRange[],
                                int useHighlight[], double highlight[], double highlightRange[],
                                CVelImage* src, CRect* rect, int show) {
  DiscMean(*this, r, weight, {useDark, dark, darkRange, useHighlight, highlight, highlightRange}, *src, rect,
           show);
}

void CImgFilterBlur::MeanWithoutEdgeFilter(double r, double weight, CVelImage* src, CRect* rect, int show) {
  MeanWithoutEdgeFilter(Same(*this, r), Same(*this, weight), src, rect, show);
}

void CImgFilterBlur::MeanWithoutEdgeFilter(double r[], double weight[], CVelImage* src, CRect* rect,
                                           int show) {
  MeanWithoutEdge(*this, r, weight, nullptr, *src, rect, show);
}

void CImgFilterBlur::MeanWithoutEdgeFilter(double r, double weight, int useDark, double dark,
                                           double darkRange, int useHighlight, double highlight,
                                           double highlightRange, CVelImage* src, CRect* rect, int show) {
  MeanWithoutEdgeFilter(Same(*this, r), Same(*this, weight), Same(*this, useDark), Same(*this, dark),
                        Same(*this, darkRange), Same(*this, useHighlight), Same(*this, highlight),
                        Same(*this, highlightRange), src, rect, show);
}

void CImgFilterBlur::MeanWithoutEdgeFilter(double r[], double weight[], int useDark[], double dark[],
                                           double darkRange[], int useHighlight[], double highlight[],
                                           double highlightRange[], CVelImage* src, CRect* rect, int show) {
  const BandLimits limits{useDark, dark, darkRange, useHighlight, highlight, highlightRange};
  MeanWithoutEdge(*this, r, weight, &limits, *src, rect, show);
}

void CImgFilterBlur::MedianFilter(double r, CVelImage* src, CRect* rect, int show) {
  MedianFilter(Same(*this, r), src, rect, show);
}

void CImgFilterBlur::MedianFilter(double r[], CVelImage* src, CRect* rect, int show) {
  DiscMedian(*this, r, nullptr, *src, rect, show);
}

void CImgFilterBlur::MedianFilter(double r, int useDark, double dark, double darkRange, int useHighlight,
                                  double highlight, double highlightRange, CVelImage* src, CRect* rect,
                                  int show) {
  MedianFilter(Same(*this, r), Same(*this, useDark), Same(*this, dark), Same(*this, darkRange),
               Same(*this, useHighlight), Same(*this, highlight), Same(*this, highlightRange), src, rect,
               show);
}

void CImgFilterBlur::MedianFilter(double r[], int useDark[], double dark[], double darkRange[],
                                  int useHighlight[], double highlight[], double highlightRange[],
                                  CVelImage* src, CRect* rect, int show) {
  const BandLimits limits{useDark, dark, darkRange, useHighlight, highlight, highlightRange};
  DiscMedian(*this, r, &limits, *src, rect, show);
}
