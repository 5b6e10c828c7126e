// Hot and cool pixels, and noise where an image is faint.
#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "korimg/filters/CFilterBlock.h"
#include "korimg/filters/CFilterProc.h"
#include "korimg/filters/CImgFilterMisc.h"
#include "korimg/filters/internal/Edges.h"
#include "korimg/filters/internal/FilterLines.h"
#include "korimg/filters/internal/Ranks.h"
#include "korimg/image/internal/Vectors.h"

using namespace korimg;

namespace {

enum Message : int { HotAndCool = 6164, Faint = 6202 };

/// Pixels whose median lies beyond a share of them become the median. NaN stays, and none becomes it.
struct OutlierCut {
  float coolAbove0, coolElse, hotAbove0, hotElse;  ///< factors of a pixel

  /// A share that is infinite is never reached.
  OutlierCut(double coolShare, double hotShare)
      : coolAbove0(static_cast<float>(1 + coolShare)),
        coolElse(static_cast<float>(1 - coolShare)),
        hotAbove0(static_cast<float>(1 - hotShare)),
        hotElse(static_cast<float>(1 + hotShare)) {}

  KORIMG_IN_LOOP float operator()(float pixel, float median) const {
    const bool positive = pixel > 0, cool = median > pixel;
    const float cooler = positive ? coolAbove0 : coolElse, hotter = positive ? hotAbove0 : hotElse;
    const float bound = pixel * (cool ? cooler : hotter);
    return ((cool & (median > bound)) | (!cool & (median < bound))) ? median : pixel;
  }
};

/// What of a pixel is its blur.
struct FaintBlend {
  double min, scale;            ///< to the 0 to 255 scale
  double threshold, fadeWidth;  ///< on it

  FaintBlend(const CVelImage& levels, int p, double threshold)
      : min(levels.GetLevelMin(p)),
        scale(255.0 / levels.GetLevelRange(p)),
        threshold(threshold),
        fadeWidth(std::min(255.0, 255.0 - threshold)) {}

  /// The share of the blur by one measure.
  KORIMG_IN_LOOP double Share(float measure) const {
    const double level = (measure - min) * scale;
    const double limited = level < 0.0 ? 0.0 : level > 255.0 ? 255.0 : level;
    const double excess = limited - threshold;
    return 1.0 - (excess < 0.0 ? 0.0 : excess) / fadeWidth;
  }
  KORIMG_IN_LOOP float operator()(float pixel, float blurred, float laplacian) const {
    const double product = Share(blurred) * Share(laplacian);
    const auto w = static_cast<float>(fadeWidth > 0 ? product : 1.0);
    return (1.0f - w) * pixel + w * blurred;
  }
};

}  // namespace

void CImgFilterMisc::NoiseCut(double radius, int cool, double coolShare, int hot, double hotShare,
                              CVelImage* src, CRect* rect, int show) {
  if (!Fits(*src, *this)) return;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, HotAndCool, window.Lines(*this));
  const bool pipelines = radius == 1.0 && cool && hot && MayRunPipelines(*this, *src);
  constexpr double kNever = std::numeric_limits<double>::infinity();
  const OutlierCut cut(cool ? coolShare : kNever, hot ? hotShare : kNever);
  RankQuery query{
      .cells = Neighbourhood::Disc(WholeRadius(radius), radius), .row = MirroredRow, .column = NearestColumn};
  query.rank = query.cells.Count() / 2;
  for (int p = 0; p < GetPlanes(); ++p) {
    if (pipelines) {
      RunIntoWindow(*this, p, window, [&](halide_buffer_t* out) {
        return noisecut_3x3_hotcool_float(PlaneBuffer(*src, p), hotShare, coolShare, out);
      });
      continue;
    }
    FindRanks(*this, *src, p, window, query, [&](int x, int y, const float* medians, int columns) {
      const float* in = src->GetLine(x, y, p);
      float* out = GetWritableLine(x, y, p);
      RunInLongVectors([=]() KORIMG_IN_LOOP {
        for (int i = 0; i < columns; ++i) {
          out[i] = cut(in[i], medians[i]);
        }
      });
    });
  }
}

void CImgFilterMisc::NoiseCutWithBrightness(double threshold, double radius, double flat, int, CVelImage* src,
                                            CRect* rect, int show) {
  if (!Fits(*src, *this)) return;
  const Window window(*this, rect);
  CFilterMatrix mean, laplacian;
  mean.MakeMean(TruncatedRadius(radius), radius, flat);
  const int wholeRadius = std::max(TruncateToInt(std::ceil(radius)), 0);
  laplacian.MakeLaplacian(wholeRadius, radius);
  if (MayRunPipelines(*this, *src)) {
    WeightBuffer weights(mean);
    for (int p = 0; p < GetPlanes(); ++p) {
      RunIntoWindow(*this, p, window, [&](halide_buffer_t* out) {
        return noisecut_with_brightness_float(PlaneBuffer(*src, p), weights, weights.R(), wholeRadius,
                                              threshold, GetLevelMin(p), GetLevelRange(p), out);
      });
    }
    return;
  }
  const ProgressScope progress(*this, show, Faint, window.Lines(*this));
  for (int p = 0; p < GetPlanes(); ++p) {
    MakeFilterProc(src, &mean, p, 1);
  }
  ForPlaneLines(*this, window, Team::All, [&](int p, int y) {
    const int columns = window.Width();
    std::vector<float> blurred(columns), edges(columns);
    FilterProcSlots().CalcLine(window.left, window.right, y, p, blurred.data());
    CFilterBlock(src, wholeRadius, 0, y, p, CImage::Locked)
        .ConvolveLine(&laplacian, window.left, window.right, edges.data());
    const FaintBlend blend(*this, p, threshold);
    const float *in = src->GetLine(window.left, y, p), *f = blurred.data(), *l = edges.data();
    float* out = GetWritableLine(window.left, y, p);
    RunInLongVectors([=]() KORIMG_IN_LOOP {
      for (int x = 0; x < columns; ++x) {
        out[x] = blend(in[x], f[x], l[x]);
      }
    });
  });
}

int CImgFilterMisc::GetNoiseCutWithBrightness_nR(double radius, int wholeRadius, int* blur, int* laplacian) {
  *blur = std::max(TruncateToInt(2.0 * TruncateToInt(radius)), 1);
  *laplacian = TruncateToInt(std::ceil(radius));
  return std::max({*blur, *laplacian, wholeRadius});
}
