#include "korimg/composite/stacking/CImgMedianComposit.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <new>

#include "korimg/composite/stacking/internal/StackColumns.h"
#include "korimg/geometry/CInterp.h"

using namespace korimg;

namespace {

/// A pipeline's view of one plane of a band.
template <class T>
class BandPlane {
 public:
  BandPlane(T* first, int width, int rows, int planes)
      : shape_{{0, width, 1}, {0, rows, width * planes}}, buffer_(first, 2, shape_) {}
  operator halide_buffer_t*() { return buffer_.raw_buffer(); }  // NOLINT: an argument of a pipeline

 private:
  halide_dimension_t shape_[2];
  Halide::Runtime::Buffer<T, 2> buffer_;
};

/// A shift so near that its sum with any line of the target is a float: lines would be rounded each in their
/// own way otherwise, depending on where their band begins.
double WithoutRounding(double dy, int height) {
  constexpr int kBits = 23;
  const double reach = std::abs(dy) + height;
  if (!(reach < 1 << kBits)) return dy;
  const double step = std::ldexp(1.0, std::ilogb(reach) + 1 - kBits);
  return std::round(dy / step) * step;
}

/// The mean of the values within k deviations of the median; see CImgMedianComposit.
void ClippedMeans(Columns& sorted, double k, int mode, float* out) {
  const int frames = sorted.Frames(), columns = sorted.Size();
  std::vector<double> scratch(4LL * columns);
  double *mean = scratch.data(), *squares = mean + columns, *kept = squares + columns,
         *keptSum = kept + columns;
  const int* counts = sorted.Counts();
  for (int x = 0; x < columns; ++x) {
    mean[x] = sorted.Sums()[x] / std::max(counts[x], 1);
  }
  for (int i = 0; i < frames; ++i) {
    const float* row = sorted.Row(i);
    RunInLongVectors([=]() KORIMG_IN_LOOP {
      for (int x = 0; x < columns; ++x) {
        const double d = row[x] - mean[x];
        squares[x] += i < counts[x] ? d * d : 0.0;
      }
    });
  }
  std::vector<double> limits(2LL * columns);
  double *low = limits.data(), *high = low + columns;
  for (int x = 0; x < columns; ++x) {
    const double m = sorted.Median(x), width = k * std::sqrt(squares[x] / std::max(counts[x], 1));
    low[x] = m - width;
    high[x] = m + width;
  }
  for (int i = 0; i < frames; ++i) {
    const float* row = sorted.Row(i);
    RunInLongVectors([=]() KORIMG_IN_LOOP {
      for (int x = 0; x < columns; ++x) {
        const double v = row[x];
        const bool keeps = (i < counts[x]) & (v >= low[x]) & (v <= high[x]);
        kept[x] += keeps ? 1.0 : 0.0;
        keptSum[x] += keeps ? v : 0.0;
      }
    });
  }
  for (int x = 0; x < columns; ++x) {
    const int n = counts[x];
    const float median = sorted.Median(x);
    if (n <= 2) {
      out[x] = n == 2 && !(k >= 1.0) ? 0.0f : median;
      continue;
    }
    const double count = kept[x] > 0 ? kept[x] : 1, sum = kept[x] > 0 ? keptSum[x] : median;
    out[x] = static_cast<float>(mode == 0 ? (sum + (n - count) * median) / n : sum / count);
  }
}

}  // namespace

CImgMedianComposit::CImgMedianComposit(CVelImage* target, int kind) : target_(target) {
  progressId_ = kind == 1 ? 6186 : kind == 2 ? 6188 : kind == 3 ? 6189 : 6141;
  target_->ShowProgressMsg(progressId_);
}

int CImgMedianComposit::AllocateStoreBuffer(CVelImage* model, int frames, int rows) {
  const long long elements = (rows + 1LL) * model->GetWidth() * model->GetPlanes();
  if (rows < 0) return 0;
  try {
    while (static_cast<int>(store_.size()) < frames) {
      store_.push_back(std::make_unique<CLineData>(elements));
    }
    return 1;
  } catch (const std::bad_alloc&) {
    return 0;
  }
}

void CImgMedianComposit::DeallocateStoreBuffer() {
  store_.clear();
}

int CImgMedianComposit::EndOfBand(int y0, int y1) const {
  if (store_.empty() || target_->IsEmpty() || y0 < 0) return y0;
  const auto smallest =
      std::min_element(store_.begin(), store_.end(), [](auto& a, auto& b) { return a->Size() < b->Size(); });
  const long long rows = (*smallest)->Size() / (1LL * target_->GetWidth() * target_->GetPlanes());
  return static_cast<int>(std::min<long long>({y1 + 1LL, y0 + rows, target_->GetHeight()}));
}

int CImgMedianComposit::Store(int slot, CVelImage* frame, int yStart, int yEnd, double dx, double dy,
                              double radians, int useImageCentre, int addOffset, float* const offsets,
                              int method) {
  if (slot < 0 || slot >= static_cast<int>(store_.size()) || frame->IsEmpty()) return 0;
  CLineData& band = *store_[slot];
  const int rows = EndOfBand(yStart, yEnd) - yStart;
  if (rows <= 0) return 0;
  const long long row = 1LL * target_->GetWidth() * target_->GetPlanes();
  // Whole shifts have no kernel, and other shifts of contiguous frames have one of their own.
  const CInterp::Form form = CInterp::FormOf(dx, dy, radians);
  const bool sampled = form == CInterp::Rotate || (form == CInterp::FloatShift && !IsContiguous(*frame));
  if (sampled && CInterp::GetString(method).IsEmpty()) {
    std::fill_n(band.Valid(), rows * row, 0);
    return 0;
  }
  if (IsContiguous(*frame)) {
    StorePipelines(band, *frame, yStart, rows, dx, dy, radians, useImageCentre, method);
  } else {
    StoreLines(band, *frame, yStart, rows, dx, dy, radians, useImageCentre, method);
  }
  const int planes = target_->GetPlanes();
  for (long long i = 0; addOffset && i < rows * row; ++i) {
    band.Values()[i] += offsets[i % planes];
  }
  return 1;
}

void CImgMedianComposit::StoreLines(CLineData& band, CVelImage& frame, int yStart, int rows, double dx,
                                    double dy, double radians, int useImageCentre, int method) const {
  const int width = target_->GetWidth(), planes = target_->GetPlanes();
  CInterp interp(method);
  interp.SetBParam(CInterp::FormOf(dx, dy, radians), &frame, -dx, width - 1 - dx, 0, 0.0f,
                   std::min(planes, frame.GetPlanes()), std::sin(radians), std::cos(radians), 1.0,
                   useImageCentre);
  interp.SetLineCapacity(width);
  ForLines(Team::All, 0, rows, [&](int r) {
    const long long size = 1LL * width * planes;
    float* values = band.Values() + r * size;
    int* valid = band.Valid() + r * size;
    std::fill_n(values, size, 0.0f);
    std::fill_n(valid, size, 0);
    interp.GetBLineMed(yStart + r - dy, values, valid);
    for (int p = frame.GetPlanes(); p < planes; ++p) {
      std::copy_n(values, width, values + 1LL * p * width);
      std::copy_n(valid, width, valid + 1LL * p * width);
    }
  });
}

void CImgMedianComposit::StorePipelines(CLineData& band, CVelImage& frame, int yStart, int rows, double dx,
                                        double dy, double radians, int useImageCentre, int method) const {
  constexpr decltype(&rotate_bilinear_float) kRotate[] = {rotate_bilinear_float, rotate_bicubic_float,
                                                          rotate_lanczos2_float, rotate_lanczos3_float,
                                                          rotate_nearest_float};
  constexpr int kFar = 1 << 30;  // beyond it no shift meets a frame, and positions stay whole numbers
  const int width = target_->GetWidth(), planes = target_->GetPlanes();
  const CInterp::Form form = CInterp::FormOf(dx, dy, radians);
  if (form != CInterp::WholeShift) dy = WithoutRounding(dy, target_->GetHeight());
  const auto number = [](double v) { return static_cast<float>(v); };
  for (int p = 0; p < planes; ++p) {
    BandPlane<float> values(band.Values() + 1LL * p * width, width, rows, planes);
    BandPlane<int> valid(band.Valid() + 1LL * p * width, width, rows, planes);
    PlaneBuffer in(frame, p < frame.GetPlanes() ? p : 0);
    const int w = frame.GetWidth(), h = frame.GetHeight();
    if (form == CInterp::Rotate) {
      const CfPoint centre = useImageCentre ? frame.GetStdCtr() : CfPoint(w * 0.5, h * 0.5);
      const float cosine = number(std::cos(radians)), sine = number(std::sin(radians));
      const float x = number(-dx), y = number(yStart - dy), cx = number(centre.fx), cy = number(centre.fy);
      kRotate[method](in, x, y, cx, cy, cosine, sine, 0.0f, values);
      rotate_mask(w, h, x, y, cx, cy, cosine, sine, valid);
    } else if (form == CInterp::FloatShift) {
      const float x = number(dx), y = number(dy - yStart);
      translate_floatshift_bicubic_float(in, x, y, 0.0f, values);
      translate_floatshift_mask(w, h, x, y, valid);
    } else {
      const int x = std::clamp(TruncateToInt(dx), -kFar, kFar),
                y = std::clamp(TruncateToInt(dy), -kFar, kFar) - yStart;
      translate_intshift_float(in, x, y, 0.0f, values);
      translate_intshift_mask(w, h, x, y, valid);
    }
  }
}

void CImgMedianComposit::AddNormalizeParam(double* a, double* b) {
  SNormalizeItem item;
  std::copy_n(a, 3, item.a);
  std::copy_n(b, 3, item.b);
  items_.Add(item);
}

void CImgMedianComposit::SetRefNormalizeParam(double* a, double* b) {
  std::copy_n(a, 3, referenceA_);
  std::copy_n(b, 3, referenceB_);
}

double CImgMedianComposit::NormalizeFactor(int slot, int plane) const {
  if (NormalizeItems() == 0) return 1;
  const int p = std::min(plane, 2);
  const Normaliser normaliser(items_[slot].a[p], items_[slot].b[p], referenceA_[p], referenceB_[p]);
  return normaliser.constant ? 0 : normaliser.factor;
}

/// Calls reduce(sorted columns, where their result goes).
template <class F>
void CImgMedianComposit::Reduce(int y0, int y1, bool threaded, bool normalised, F&& reduce) {
  ForColumns(y0, y1, threaded && IsContiguous(*target_), normalised, false, {},
             [&](Columns& columns, const Part& part) {
               columns.Sort();
               reduce(columns, target_->GetWritableLine(part.x, part.y, part.plane));
             });
  ShowBand(y1);
}

void CImgMedianComposit::ShowBand(int y1) {
  target_->ShowProgressMsg(progressId_);
  target_->ShowProgress(static_cast<int>(y1 * 100LL / std::max(target_->GetHeight(), 1)));
}

void CImgMedianComposit::Calc(int y0, int y1) {
  Reduce(y0, y1, false, false, [](Columns& sorted, float* out) { sorted.Medians(out); });
}

void CImgMedianComposit::MedianCalc(int y0, int y1) {
  Reduce(y0, y1, true, false, [](Columns& sorted, float* out) { sorted.Medians(out); });
}

void CImgMedianComposit::Calc(double k, int y0, int y1, int mode) {
  Reduce(y0, y1, false, false, [&](Columns& sorted, float* out) { ClippedMeans(sorted, k, mode, out); });
}

void CImgMedianComposit::SigmaCalc(double k, int y0, int y1) {
  Reduce(y0, y1, true, true, [&](Columns& sorted, float* out) { ClippedMeans(sorted, k, 0, out); });
}

/// The best valid value of each pixel, by better(value, best so far).
template <class F>
void CImgMedianComposit::Extreme(int y0, int y1, float start, F&& better) {
  const int width = target_->GetWidth(), planes = target_->GetPlanes();
  std::vector<int> any(width);
  ForLines(Team::One, y0, EndOfBand(y0, y1), [&](int y) {
    for (int p = 0; p < planes; ++p) {
      const long long first = ((y - y0) * 1LL * planes + p) * width;
      float* out = target_->GetWritableLine(0, y, p);
      std::fill_n(out, width, start);
      std::fill(any.begin(), any.end(), 0);
      for (const auto& frame : store_) {
        const float* values = frame->Values() + first;
        const int* valid = frame->Valid() + first;
        for (int x = 0; x < width; ++x) {
          any[x] |= valid[x];
          out[x] = valid[x] && better(values[x], out[x]) ? values[x] : out[x];
        }
      }
      for (int x = 0; x < width; ++x) {
        if (!any[x]) out[x] = 0;
      }
    }
  });
  ShowBand(y1);
}

void CImgMedianComposit::CalcMax(int y0, int y1) {
  Extreme(y0, y1, std::numeric_limits<float>::min(), [](float v, float best) { return v > best; });
}

void CImgMedianComposit::CalcMin(int y0, int y1) {
  Extreme(y0, y1, std::numeric_limits<float>::max(), [](float v, float best) { return v < best; });
}
