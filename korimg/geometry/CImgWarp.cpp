#include "korimg/geometry/CImgWarp.h"

#include <array>

#include "korimg/geometry/CInterp.h"
#include "korimg/geometry/internal/LockedLine.h"
#include "korimg/geometry/internal/WarpRows.h"
#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/Lines.h"

using namespace korimg;

namespace {

using Pipeline = int (*)(halide_buffer_t*, halide_buffer_t*, float, float, float, halide_buffer_t*);
constexpr Pipeline kWarp[] = {warp_bilinear_float, warp_bicubic_float, warp_lanczos2_float,
                              warp_lanczos3_float, warp_nearest_float};
constexpr Pipeline kVariance[] = {warp_variance_bilinear_float, warp_variance_bicubic_float,
                                  warp_variance_lanczos2_float, warp_variance_lanczos3_float,
                                  warp_variance_nearest_float};

void RunPipelines(CVelImage& image, int plane, const MapRows& map, int method, float outside,
                  const GridRows& grid, TapWeights weights) {
  const halide_dimension_t shape[2] = {{0, grid.width, 1}, {0, grid.rows, static_cast<int32_t>(grid.pitch)}};
  MapRowsTable table(map, grid.rows);
  const auto middle = static_cast<float>(map.Middle()), scale = static_cast<float>(map.Scale());
  Halide::Runtime::Buffer<float, 2> out(grid.values, 2, shape);
  (weights == TapWeights::Plain ? kWarp : kVariance)[method](PlaneBuffer(image, plane), table, middle, scale,
                                                             outside, out.raw_buffer());
  if (!grid.valid) return;
  Halide::Runtime::Buffer<int, 2> mask(grid.valid, 2, shape);
  warp_mask(image.GetWidth(), image.GetHeight(), table, middle, scale, mask.raw_buffer());
}

/// One row, in double.
void RunLine(CVelImage& image, CInterp& interp, int plane, const MapRows& map, int row, float outside,
             int width, float* values, int* valid) {
  for (int x = 0; x < width; ++x) {
    const Point p = map.At(x, row);
    const bool inside = p.x >= 0 && p.y >= 0 && p.x < image.GetWidth() && p.y < image.GetHeight();
    values[x] = inside ? interp.Do(p.x, p.y, plane) : outside;
    if (valid) valid[x] = inside;
  }
}

}  // namespace

void korimg::WarpRows(CVelImage& image, int plane, const MapRows& map, int method, float outside,
                      const GridRows& grid, TapWeights weights) {
  if (IsContiguous(image)) return RunPipelines(image, plane, map, method, outside, grid, weights);
  KORIMG_ASSERT(weights == TapWeights::Plain);
  CInterp interp(method, &image, 0);
  ForLines(Team::All, 0, grid.rows, [&](int row) {
    RunLine(image, interp, plane, map, row, outside, grid.width, grid.values + row * grid.pitch,
            grid.valid ? grid.valid + row * grid.pitch : nullptr);
  });
}

int CImgWarp::Do(CVelImage* src, const CFrameMap& map, int method, float outside, int show) {
  if (IsEmpty() || src->IsEmpty() || src->GetPlanes() < GetPlanes() || CInterp::GetString(method).IsEmpty())
    return 0;
  InitStdPtCtr();
  const MapRows rows(map.Inverse(), GetWidth(), 0, GetHeight());
  constexpr int kRotating = 6112;
  const ProgressScope progress(*this, show, kRotating, GetPlanes() * GetHeight());
  CInterp interp(method, src, 0);
  for (int p = 0; p < GetPlanes(); ++p) {
    SetLevel(p, src->GetLevelMin(p), src->GetLevelMax(p));
    if (MayRunPipelines(*this, *src)) {
      float* pixels = reinterpret_cast<float*>(GetBlockOnMemory(p, false));
      WarpRows(*src, p, rows, method, outside, {pixels, nullptr, GetWidth(), GetHeight(), GetWidth()});
      continue;
    }
    ForLines(Team::All, 0, GetHeight(), [&](int y) {
      const LockedLine out(*this, y, p);
      RunLine(*src, interp, p, rows, y, outside, GetWidth(), &out[0], nullptr);
      ShowProgress(1);
    });
  }
  return 1;
}
