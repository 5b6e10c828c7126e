#include "korimg/levels/CImgAutoStretch.h"

#include <algorithm>

#include "korimg/calibration/CImgSkySelect.h"
#include "korimg/image/Loan.h"
#include "korimg/image/internal/Frame.h"
#include "korimg/measurement/CImgPixelInfo.h"

using namespace korimg;

namespace {

constexpr int kPlanes = 3;

double LargestOf(const double* spread) {
  return *std::max_element(spread, spread + kPlanes);
}

}  // namespace

int CImgAutoStretch::CalcAutoStretchParam(CVelImage* image, int margin, int autoSky, CRect rect,
                                          double* const filter, double* const scale, double* const background,
                                          double* const spread, int show) {
  if (!image || image->IsEmpty() || (!autoSky && rect.IsRectEmpty())) return 0;
  CRect sky = rect;
  if (autoSky && !Loan<CImgSkySelect>(*image).borrower.AutoSelect(&sky, show)) return 0;
  const CRect frame(margin, margin, image->GetWidth() - margin, image->GetHeight() - margin);
  // The far edge counts where a margin leaves nothing.
  const auto limited = [](int v, int low, int high) { return std::min(std::max(v, low), high); };
  sky = CRect(limited(sky.left, frame.left, frame.right), limited(sky.top, frame.top, frame.bottom),
              limited(sky.right, frame.left, frame.right), limited(sky.bottom, frame.top, frame.bottom));
  if (sky.IsRectEmpty()) {
    std::fill_n(background, kPlanes, 0.0);
    std::fill_n(spread, kPlanes, 1.0);
    return 0;
  }
  double min[kPlanes], max[kPlanes], mean[kPlanes], deviation[kPlanes];
  Loan<CImgPixelInfo> info(*image);
  info.borrower.Calc(frame, min, max, mean, spread, nullptr);
  info.borrower.CalcSky(sky, 0.0, 1.0, min, max, background, deviation, nullptr);
  for (int p = info.borrower.GetPlanes(); p < kPlanes; ++p) {
    background[p] = background[0];
    spread[p] = spread[0];
  }
  std::copy_n(filter, kPlanes, scale);
  if (std::find(spread, spread + kPlanes, 0.0) != spread + kPlanes) {
    std::fill_n(spread, kPlanes, 1.0);
    std::fill_n(scale, kPlanes, 1.0);
  }
  return 1;
}

void CImgAutoStretch::DoStretch(CVelImage* src, int linkBackground, double* scale, double* background,
                                double* spread, double* bias, CRect* rect) {
  if (!Fits(*src, *this)) return;
  const Window window(*this, rect);
  const double largest = LargestOf(spread);
  for (int p = 0; p < GetPlanes(); ++p) {
    const double k = largest / spread[p] * scale[p], from = background[p];
    const double to = linkBackground ? background[0] : from;
    const auto added = static_cast<float>(bias[p]);
    if (MayRunPipelines(*src)) {
      WriteThroughPlane(*this, p, window, *src->VmManager(), [&](halide_buffer_t* out) {
        return stretch_float(PlaneBuffer(*src, p), static_cast<float>(from), static_cast<float>(k),
                             static_cast<float>(to), added, out);
      });
      continue;
    }
    ForLines(Team::All, window.top, window.IsEmpty() ? window.top : window.bottom, [&](int y) {
      const float* in = src->GetLine(window.left, y, p);
      float* out = GetWritableLine(window.left, y, p);
      for (int x = 0; x < window.Width(); ++x) {
        out[x] = static_cast<float>((in[x] - from) * k + added + to);
      }
    });
  }
}

int CImgAutoStretch::AutoStretchAdjustLevel(CVelImage* dst, CVelImage* src, double* const scale,
                                            double* const background, double* const spread) {
  if (!dst || !src) return 0;
  const double k = LargestOf(spread) / spread[0] * scale[0], from = background[0];
  for (int p = 0; p < dst->GetPlanes(); ++p) {
    dst->SetLevel(p, (src->GetLevelMin(0) - from) * k + from, (src->GetLevelMax(0) - from) * k + from);
  }
  return 1;
}
