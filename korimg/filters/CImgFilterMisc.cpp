#include "korimg/filters/CImgFilterMisc.h"

#include <algorithm>

#include "korimg/filters/internal/Edges.h"
#include "korimg/filters/internal/FilterLines.h"
#include "korimg/filters/internal/Ranks.h"

using namespace korimg;

namespace {

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
  const ProgressScope progress(*this, show, 6153, window.Lines(*this));
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
