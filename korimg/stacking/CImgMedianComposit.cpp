#include "korimg/stacking/CImgMedianComposit.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <new>

#include "korimg/geometry/CInterp.h"
#include "korimg/image/Frame.h"
#include "korimg/image/Numbers.h"
#include "korimg/image/SortingNetwork.h"

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

/// How a frame's plane is brought to the reference.
struct Normaliser {
  double centre = 0, factor = 1, add = 0;
  bool constant = false;

  Normaliser() = default;
  Normaliser(double a, double b, double referenceA, double referenceB) {
    if (referenceB < 0 || b < 0) return;
    constant = referenceB == 0;
    add = referenceA;
    if (constant) return;
    if (b == 0) {
      add = 0;
      return;
    }
    centre = a;
    factor = referenceB / b;
  }
  KORIMG_IN_LOOP double operator()(float v) const { return constant ? add : (v - centre) * factor + add; }
};

/// Columns that are sorted together: as many as stay in the first-level cache.
int ColumnsAtOnce(int frames) {
  constexpr int kCached = 8192, kLeast = 64;
  return std::max(kCached / std::max(frames, 1) / 16 * 16, kLeast);
}

/// The values of some columns of all frames, as rows: of column x the first Count(x), in order, are real.
class Columns {
 public:
  Columns(int frames, Network const& network)
      : frames_(frames),
        most_(ColumnsAtOnce(frames)),
        network_(network),
        values_(1LL * frames * most_),
        counts_(most_),
        numbers_(most_),
        sums_(most_) {}

  int Most() const { return most_; }
  int const* Counts() const { return counts_.data(); }
  double const* Sums() const { return sums_.data(); }
  float* Row(int i) { return values_.data() + static_cast<size_t>(i) * most_; }
  float Median(int x) {
    const int n = counts_[x];
    if (n == 0) return 0;
    return n % 2 ? Row(n / 2)[x] : (Row(n / 2 - 1)[x] + Row(n / 2)[x]) * 0.5f;
  }

  void Start(int columns) {
    columns_ = columns;
    std::fill_n(counts_.begin(), columns, 0);
    std::fill_n(numbers_.begin(), columns, 0);
    std::fill_n(sums_.begin(), columns, 0.0);
  }

  /// Frame i's values. What is missing sorts to the end.
  void Add(int i, float const* values, int const* valid, Normaliser const& normalise) {
    float* row = Row(i);
    int *counts = counts_.data(), *numbers = numbers_.data();
    double* sums = sums_.data();
    RunInLongVectors([=, columns = columns_]() KORIMG_IN_LOOP {
      for (int x = 0; x < columns; ++x) {
        const double v = normalise(values[x]);
        const bool there = valid[x] != 0;
        row[x] = there ? static_cast<float>(v) : kMissing;
        counts[x] += there;
        numbers[x] += there && v == v;
        sums[x] += there ? v : 0.0;
      }
    });
  }

  void Sort() {
    // The network knows nothing of NaN.
    std::vector<std::pair<int, std::vector<float>>> aside;
    for (int x = 0; x < columns_; ++x) {
      if (numbers_[x] != counts_[x]) aside.emplace_back(x, TakeSorted(x));
    }
    for (const auto& [i, j] : network_) {
      float *a = Row(i), *b = Row(j);
      RunInLongVectors([=, columns = columns_]() KORIMG_IN_LOOP { Exchange(a, b, columns); });
    }
    for (const auto& [x, column] : aside) {
      for (int i = 0; i < frames_; ++i) {
        Row(i)[x] = column[i];
      }
    }
  }

 private:
  static constexpr float kMissing = std::numeric_limits<float>::infinity();

  /// A column with NaN, in order: numbers, NaN, what is missing. It is left without NaN.
  std::vector<float> TakeSorted(int x) {
    std::vector<float> column;
    for (int i = 0; i < frames_; ++i) {
      column.push_back(std::exchange(Row(i)[x], 0.0f));
    }
    std::sort(column.begin(), column.end(), NanLast);
    // What is missing stands among the infinities at the end of the numbers.
    const auto firstNan = std::find_if(column.begin(), column.end(), [](float v) { return v != v; });
    std::rotate(firstNan - (frames_ - counts_[x]), firstNan, column.end());
    return column;
  }

  int frames_;
  int most_;
  int columns_ = 0;
  Network const& network_;
  std::vector<float> values_;
  std::vector<int> counts_, numbers_;  ///< real values of each column, and those that are numbers
  std::vector<double> sums_;
};

/// The mean of the values within k deviations of the median; see CImgMedianComposit.
void ClippedMeans(Columns& sorted, int frames, int columns, double k, int mode, float* out) {
  std::vector<double> scratch(4LL * columns);
  double *mean = scratch.data(), *squares = mean + columns, *kept = squares + columns,
         *keptSum = kept + columns;
  int const* counts = sorted.Counts();
  for (int x = 0; x < columns; ++x) {
    mean[x] = sorted.Sums()[x] / std::max(counts[x], 1);
  }
  for (int i = 0; i < frames; ++i) {
    float const* row = sorted.Row(i);
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
    float const* row = sorted.Row(i);
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
  } catch (std::bad_alloc const&) {
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
  const bool whole = dx == std::floor(dx) && dy == std::floor(dy);
  CInterp interp(method);
  interp.SetBParam(radians != 0 ? CInterp::Rotate
                   : whole      ? CInterp::WholeShift
                                : CInterp::FloatShift,
                   &frame, -dx, width - 1 - dx, 0, 0.0f, std::min(planes, frame.GetPlanes()),
                   std::sin(radians), std::cos(radians), 1.0, useImageCentre);
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
  const bool whole = dx == std::floor(dx) && dy == std::floor(dy);
  const auto number = [](double v) { return static_cast<float>(v); };
  for (int p = 0; p < planes; ++p) {
    BandPlane<float> values(band.Values() + 1LL * p * width, width, rows, planes);
    BandPlane<int> valid(band.Valid() + 1LL * p * width, width, rows, planes);
    PlaneBuffer in(frame, p < frame.GetPlanes() ? p : 0);
    const int w = frame.GetWidth(), h = frame.GetHeight();
    if (radians != 0) {
      if (method < 0 || method >= static_cast<int>(std::size(kRotate))) continue;
      const CfPoint centre = useImageCentre ? frame.GetStdCtr() : CfPoint(w * 0.5, h * 0.5);
      const float cosine = number(std::cos(radians)), sine = number(std::sin(radians));
      const float x = number(-dx), y = number(yStart - dy), cx = number(centre.fx), cy = number(centre.fy);
      kRotate[method](in, x, y, cx, cy, cosine, sine, 0.0f, values);
      rotate_mask(w, h, x, y, cx, cy, cosine, sine, valid);
    } else if (!whole) {
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

/// Calls reduce(sorted columns, their number, where they go) for the columns of each row and plane.
template <class F>
void CImgMedianComposit::Reduce(int y0, int y1, bool threaded, bool normalised, F&& reduce) {
  const int frames = static_cast<int>(store_.size()), width = target_->GetWidth(),
            planes = target_->GetPlanes();
  std::vector<Normaliser> normalisers(3LL * frames);
  for (int i = 0; normalised && i < frames; ++i) {
    for (int p = 0; p < 3; ++p) {
      normalisers[3 * i + p] = {items_[i].a[p], items_[i].b[p], referenceA_[p], referenceB_[p]};
    }
  }
  const Network network = MakeNetwork(frames);
  const bool team = threaded && IsContiguous(*target_);
  ForLines(team ? Team::All : Team::One, y0, EndOfBand(y0, y1), [&](int y) {
    Columns columns(frames, network);
    for (int p = 0; p < planes; ++p) {
      const long long first = ((y - y0) * 1LL * planes + p) * width;
      for (int left = 0; left < width; left += columns.Most()) {
        const int count = std::min(columns.Most(), width - left);
        columns.Start(count);
        for (int i = 0; i < frames; ++i) {
          columns.Add(i, store_[i]->Values() + first + left, store_[i]->Valid() + first + left,
                      normalisers[3 * i + std::min(p, 2)]);
        }
        columns.Sort();
        reduce(columns, count, target_->GetWritableLine(left, y, p));
      }
    }
  });
  target_->ShowProgressMsg(progressId_);
  target_->ShowProgress(static_cast<int>(y1 * 100LL / std::max(target_->GetHeight(), 1)));
}

void CImgMedianComposit::Calc(int y0, int y1) {
  Reduce(y0, y1, false, false, [](Columns& sorted, int columns, float* out) {
    for (int x = 0; x < columns; ++x) {
      out[x] = sorted.Median(x);
    }
  });
}

void CImgMedianComposit::MedianCalc(int y0, int y1) {
  Reduce(y0, y1, true, false, [](Columns& sorted, int columns, float* out) {
    for (int x = 0; x < columns; ++x) {
      out[x] = sorted.Median(x);
    }
  });
}

void CImgMedianComposit::Calc(double k, int y0, int y1, int mode) {
  Reduce(y0, y1, false, false, [&](Columns& sorted, int columns, float* out) {
    ClippedMeans(sorted, static_cast<int>(store_.size()), columns, k, mode, out);
  });
}

void CImgMedianComposit::SigmaCalc(double k, int y0, int y1) {
  Reduce(y0, y1, true, true, [&](Columns& sorted, int columns, float* out) {
    ClippedMeans(sorted, static_cast<int>(store_.size()), columns, k, 0, out);
  });
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
        float const* values = frame->Values() + first;
        int const* valid = frame->Valid() + first;
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
  target_->ShowProgressMsg(progressId_);
  target_->ShowProgress(static_cast<int>(y1 * 100LL / std::max(target_->GetHeight(), 1)));
}

void CImgMedianComposit::CalcMax(int y0, int y1) {
  Extreme(y0, y1, std::numeric_limits<float>::min(), [](float v, float best) { return v > best; });
}

void CImgMedianComposit::CalcMin(int y0, int y1) {
  Extreme(y0, y1, std::numeric_limits<float>::max(), [](float v, float best) { return v < best; });
}
