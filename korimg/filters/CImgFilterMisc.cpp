#include "korimg/filters/CImgFilterMisc.h"

#include <algorithm>
#include <vector>

#include "korimg/filters/CFilterBlock.h"
#include "korimg/filters/CFilterProc.h"
#include "korimg/filters/internal/Edges.h"
#include "korimg/filters/internal/FilterLines.h"
#include "korimg/filters/internal/Ranks.h"

using namespace korimg;

namespace {

enum Message : int { SmoothSky = 6123, MinMax = 6153, UsersKernel = 6175, GuideError = 6192 };

constexpr int kLargestDisc = 10;  ///< of the pipelines

using DiscPipeline = int (*)(halide_buffer_t*, halide_buffer_t*);
constexpr DiscPipeline kMinimum[kLargestDisc] = {
    min_filter_3x3_float,   min_filter_5x5_float,   min_filter_7x7_float,   min_filter_9x9_float,
    min_filter_11x11_float, min_filter_13x13_float, min_filter_15x15_float, min_filter_17x17_float,
    min_filter_19x19_float, min_filter_21x21_float};
constexpr DiscPipeline kMaximum[kLargestDisc] = {
    max_filter_3x3_float,   max_filter_5x5_float,   max_filter_7x7_float,   max_filter_9x9_float,
    max_filter_11x11_float, max_filter_13x13_float, max_filter_15x15_float, max_filter_17x17_float,
    max_filter_19x19_float, max_filter_21x21_float};

}  // namespace

int CImgFilterMisc::GetMinMaxFilterNmax(double r) const {
  return Neighbourhood::Disc(WholeRadius(r), r).Count();
}

void CImgFilterMisc::MinMaxFilter(double r[], int rank[], CVelImage* src, CRect* rect, int show) {
  if (!Fits(*src, *this)) return;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, MinMax, window.Lines(*this));
  bool smallest = true, largest = true;
  for (int p = 0; p < GetPlanes(); ++p) {
    smallest = smallest && rank[p] == 0;
    largest = largest && rank[p] == GetMinMaxFilterNmax(r[p]) - 1;
  }
  const bool pipelines = (smallest || largest) && MayRunPipelines(*this, *src);
  for (int p = 0; p < GetPlanes(); ++p) {
    const int whole = WholeRadius(r[p]);
    if (!pipelines) {
      FindRanks(*this, *src, p, window,
                {.cells = Neighbourhood::Disc(whole, r[p]),
                 .rank = rank[p],
                 .row = MirroredRow,
                 .column = NearestColumn},
                [&](int x, int y, const float* values, int columns) {
                  std::copy_n(values, columns, GetWritableLine(x, y, p));
                });
    } else if (whole <= kLargestDisc) {
      const DiscPipeline run = (smallest ? kMinimum : kMaximum)[whole - 1];
      RunIntoWindow(*this, p, window, [&](halide_buffer_t* out) { return run(PlaneBuffer(*src, p), out); });
    }
  }
}

void CImgFilterMisc::GuideErrorCanceller(double length, double angle, double width, double strength,
                                         CVelImage* src, CRect* rect, int show) {
  if (!Fits(*src, *this)) return;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, GuideError, window.Lines(*this));
  CFilterMatrix kernel;
  kernel.MakeGuideErrorCanceller(WholeRadius(length), length, angle, width);
  const auto share = static_cast<float>(strength);
  FilterLines(*this, *src, window, nullptr, [&](int p, int y, float* line) {
    const CFilterBlock block(src, kernel.GetR(), 0, y, p, CImage::Locked);
    block.ConvolveLine(&kernel, window.left, window.right, line);
    const float* s = src->GetLine(window.left, y, p);
    for (int x = 0; x < window.Width(); ++x) {
      line[x] = (1.0f - share) * s[x] + share * line[x];
    }
  });
}

void CImgFilterMisc::BkgSmooth(double* level, double* width, int kind, double* radius, double, CVelImage* src,
                               CRect* rect, int show) {
  if ((kind != 0 && kind != 1) || !Fits(*src, *this)) return;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, SmoothSky, window.Lines(*this));
  for (int p = 0; p < GetPlanes(); ++p) {
    CFilterMatrix matrix;
    matrix.MakeGaussian(radius[p]);
    MakeFilterProc(src, &matrix, p, 1);
  }
  FilterLines(*this, *src, window, nullptr, [&](int p, int y, float* line) {
    FilterProcSlots().CalcLine(window.left, window.right, y, p, line);
    const auto high = static_cast<float>(level[p]);
    const auto fade = static_cast<float>(width[p] / 255.0 * GetLevelRange(p));
    const float low = high - fade;
    const float* s = src->GetLine(window.left, y, p);
    for (int x = 0; x < window.Width(); ++x) {
      const float sky = line[x] > high ? high : line[x], t = (s[x] - low) / fade;
      line[x] = s[x] > high ? s[x] : s[x] <= low ? sky : (1.0f - t) * sky + t * s[x];
    }
  });
}

void CImgFilterMisc::Custom(int r, double* kernel, CVelImage* src, CRect* rect, int show) {
  Custom(r, kernel, 0, 0, 0, 0, 0, 0, src, rect, show);
}

void CImgFilterMisc::Custom(int r, double* kernel, int useDark, double dark, int useHighlight,
                            double highlight, int brighter, double percent, CVelImage* src, CRect* rect,
                            int show) {
  Custom(Same(*this, r), Same(*this, kernel), Same(*this, useDark), Same(*this, dark),
         Same(*this, useHighlight), Same(*this, highlight), Same(*this, brighter), Same(*this, percent), src,
         rect, show);
}

void CImgFilterMisc::Custom(int r[], double* kernel[], int useDark[], double dark[], int useHighlight[],
                            double highlight[], int brighter[], double percent[], CVelImage* src, CRect* rect,
                            int show) {
  if (!Fits(*src, *this)) return;
  std::vector<CFilterMatrix> kernels(GetPlanes());
  for (int p = 0; p < GetPlanes(); ++p) {
    if (!kernels[p].SetMtx(r[p], kernel[p], 0)) return;
  }
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, UsersKernel, window.Lines(*this));
  Same noShoulder(*this, 0.0);
  const BandLimits limits{useDark, dark, noShoulder, useHighlight, highlight, noShoulder};
  FilterLines(*this, *src, window, &limits, [&](int p, int y, float* line) {
    const CFilterMatrix& matrix = kernels[p];
    if (matrix.GetR() > 0) {
      const CFilterBlock block(src, matrix.GetR(), 0, y, p, CImage::Locked);
      block.ConvolveLine(&matrix, window.left, window.right, line);
    }
    const DarkeningLimit limit(brighter[p], percent[p]);
    const float* s = src->GetLine(window.left, y, p);
    for (int x = 0; x < window.Width(); ++x) {
      const float f = matrix.GetR() > 0 ? line[x] : matrix.GetPrm(0) * s[x];
      // NaN stays where the kernel passes its own pixel over.
      line[x] = s[x] == s[x] ? limit(s[x], f) : s[x];
    }
  });
}
