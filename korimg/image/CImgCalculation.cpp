#include "korimg/image/CImgCalculation.h"

#include "korimg/image/internal/Frame.h"

using namespace korimg;

namespace {

enum Op { kAdd = 0, kSubtract = 1, kMultiply = 2, kDivide = 3 };

/// Smaller windows are not worth a pipeline.
constexpr int kLeastWidth = 64, kLeastHeight = 32;

Window ToWindow(const CRect& rect) {
  return {rect.left, rect.top, rect.right, rect.bottom};
}

}  // namespace

void CImgCalculation::Do(double value, int op, int cutMinus, CVelImage* src, CRect* rect, int show) {
  if (!Fits(*src, *this)) return;
  const Window window(*this, rect);
  const CRect area(window.left, window.top, window.right, window.bottom);
  const ProgressScope progress(*this, show, 6109, window.Lines(*this));
  const bool pipelines =
      IsContiguous(*this) && window.Width() >= kLeastWidth && window.Height() >= kLeastHeight;
  if (!pipelines && !HasVectors()) {
    DoCalculation(value, op, cutMinus, src, area);
    return;
  }
  if (op < kAdd || op > kDivide || (op == kDivide && value == 0.0)) return;
  // These paths divide by multiplying with the reciprocal.
  const auto v = static_cast<float>(op == kDivide ? 1 / value : value);
  if (!pipelines) {
    if (op == kAdd) DoCalculation_x_add(v, src, area);
    if (op == kSubtract) DoCalculation_x_sub(v, cutMinus, src, area);
    if (op == kMultiply || op == kDivide) DoCalculation_x_mul(v, src, area);
    return;
  }
  const auto pipeline = op == kAdd        ? add_scalar_float
                        : op != kSubtract ? mul_scalar_float
                        : cutMinus        ? sub0_scalar_float
                                          : sub_scalar_float;
  for (int p = 0; p < GetPlanes(); ++p) {
    // The target alone decides on this path, so the source may be paged.
    StagedPlane in(*src, p, *VmManager());
    RunIntoWindow(*this, p, window, [&](halide_buffer_t* out) { return pipeline(in, v, out); });
  }
}

void CImgCalculation::DoCalculation(double value, int op, int cutMinus, CVelImage* src, const CRect& window) {
  const auto v = static_cast<float>(value);
  if (op == kDivide && value == 0.0) op = -1;
  MapPixels(*this, *src, ToWindow(window), Team::One, [&](int) {
    return [=](float s) {
      switch (op) {
        case kAdd:
          return s + v;
        case kSubtract:
          return cutMinus ? NotNegative(s - v) : s - v;
        case kMultiply:
          return s * v;
        case kDivide:
          return s / v;
        default:
          return s;
      }
    };
  });
}

void CImgCalculation::DoCalculation_x_add(float value, CVelImage* src, const CRect& window) {
  MapPixels(*this, *src, ToWindow(window), Team::All,
            [=](int) { return [=](float s) { return s + value; }; });
}

void CImgCalculation::DoCalculation_x_sub(float value, int cutMinus, CVelImage* src, const CRect& window) {
  MapPixels(*this, *src, ToWindow(window), Team::All,
            [=](int) { return [=](float s) { return cutMinus ? NotNegative(s - value) : s - value; }; });
}

void CImgCalculation::DoCalculation_x_mul(float value, CVelImage* src, const CRect& window) {
  MapPixels(*this, *src, ToWindow(window), Team::All,
            [=](int) { return [=](float s) { return s * value; }; });
}
