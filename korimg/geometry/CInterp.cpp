#include "korimg/geometry/CInterp.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <cwctype>
#include <numbers>

#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/Numbers.h"
#include "korimg/image/internal/Vectors.h"

using namespace korimg;

namespace {

constexpr int kMostTaps = 6;

struct MethodNames {
  const wchar_t *english, *display;
};
constexpr MethodNames kNames[] = {{L"Bilinear", L"バイリニア"},
                                  {L"Bicubic", L"バイキュービック"},
                                  {L"Lanczos2", L"ランチョス2(4x4)"},
                                  {L"Lanczos3", L"ランチョス3(6x6)"},
                                  {L"NearestNeighbor", L"ニアレストネイバー"}};
constexpr int kMethods = std::size(kNames);

constexpr int TapsOf(int method) {
  constexpr int kTaps[] = {2, 4, 4, 6, 1};
  return kTaps[method];
}

/// 0 <= v <= last; false for NaN.
bool Within(double v, double last) {
  return v >= 0 && v <= last;
}

int FloorToInt(double v) {
  return TruncateToInt(std::floor(v));
}

bool IsWhole(double v) {
  return v == std::floor(v);
}

// Many samples of a plane in one block, at positions whose taps all lie inside.

constexpr int kChunk = 64;  // chosen: weights and taps of so many stay in the first-level cache

/// Pixels left and above of positions, and how far these lie beyond, from 0 to 1.
struct Cells {
  int x[kChunk], y[kChunk];
  double fx[kChunk], fy[kChunk];
};

KORIMG_IN_LOOP inline void FindCells(const double* u, const double* v, int count, Cells& cells) {
  for (int i = 0; i < count; ++i) {
    cells.x[i] = static_cast<int>(u[i]), cells.y[i] = static_cast<int>(v[i]);
    cells.fx[i] = u[i] - cells.x[i], cells.fy[i] = v[i] - cells.y[i];
  }
}

/// sin(pi x) for x from 0 to 1/2, by its series, to 1e-11 of it.
KORIMG_IN_LOOP inline double SinPi(double x) {
  const double z = std::numbers::pi * x, q = z * z;
  double sum = 1;
#pragma GCC unroll 7
  for (int n = 14; n > 0; n -= 2) {
    sum = 1 - sum * q * (1.0 / (n * (n + 1)));
  }
  return z * sum;
}

/// Weights of the taps about positions that lie f beyond a pixel, as the kernels of CInterp have them: of tap
/// t of position i at t stride + i.
template <int kMethod, int stride>
KORIMG_IN_LOOP inline void WeighTaps(const double* fractions, int count, double* weights) {
#pragma omp simd
  for (int i = 0; i < count; ++i) {
    const double f = fractions[i];
    if constexpr (kMethod == CInterp::MethodBicubic) {
      constexpr double a = -0.5;
      const auto inner = [](double t) KORIMG_IN_LOOP { return 1 - (a + 3) * t * t + (a + 2) * t * t * t; };
      const auto outer = [](double t) KORIMG_IN_LOOP { return a * (t * t * t - 5 * t * t + 8 * t - 4); };
      weights[i] = outer(f + 1), weights[stride + i] = inner(f), weights[2 * stride + i] = inner(1 - f);
      weights[3 * stride + i] = outer(2 - f);
    } else {
      constexpr int n = kMethod == CInterp::MethodLanczos2 ? 2 : 3;
      constexpr double kRoot = 0.8660254037844386;
      constexpr double kCosines[] = {1, n == 2 ? 0 : 0.5, n == 2 ? -1 : -0.5, -1};  // of pi k / n
      constexpr double kSines[] = {0, n == 2 ? 1 : kRoot, n == 2 ? 0 : kRoot, 0};
      const double one = SinPi(f < 0.5 ? f : 1 - f), sine = SinPi(f * (1.0 / n)),
                   cosine = SinPi(0.5 - f * (1.0 / n));
      const double next = -SinPi((1 - f) * (1.0 / n));  // a difference of the two would lose it near 0
#pragma GCC unroll 6
      for (int tap = 0; tap < 2 * n; ++tap) {
        const int k = tap + 1 - n, away = k < 0 ? -k : k;
        const double t = f - k, p = std::numbers::pi * t;
        const double ofN =
            k == 1 ? next : sine * kCosines[away] - cosine * (k < 0 ? -kSines[away] : kSines[away]);
        const double value = ofN * (k % 2 == 0 ? one : -one) * n / (p * p);
        weights[tap * stride + i] = t * t < 1e-30 ? 1 : value;
      }
    }
  }
}

using Four = double __attribute__((vector_size(32)));
using Two = double __attribute__((vector_size(16)));

/// Adds four neighbouring pixels, or two, with a weight.
KORIMG_IN_LOOP inline void Add(const float* pixels, double weight, Four& sums) {
  float __attribute__((vector_size(16))) values;
  std::memcpy(&values, pixels, sizeof values);
  sums += __builtin_convertvector(values, Four) * weight;
}
KORIMG_IN_LOOP inline void Add(const float* pixels, double weight, Two& sums) {
  sums += Two{pixels[0], pixels[1]} * weight;
}

template <int kMethod>
void SampleCells(const float* plane, std::ptrdiff_t stride, const double* u, const double* v, int count,
                 float* out) {
  RunInLongVectors([=]() KORIMG_IN_LOOP {
    Cells c;
    FindCells(u, v, count, c);
    if constexpr (kMethod == CInterp::MethodBilinear) {
      for (int i = 0; i < count; ++i) {
        const double fx = c.fx[i], fy = c.fy[i], both = fy * fx;
        const float* upper = plane + c.y[i] * stride + c.x[i];
        const float* lower = fy == 0 ? upper : upper + stride;
        const int right = fx == 0 ? 0 : 1;
        const double sum = lower[0] * (fy - both) + upper[0] * ((1 - fy) * (1 - fx)) +
                           upper[right] * (fx - both) + lower[right] * both;
        out[i] = fx == 0 && fy == 0 ? upper[0] : static_cast<float>(sum);
      }
    } else {
      constexpr int kTaps = TapsOf(kMethod), kFirst = 1 - kTaps / 2;
      constexpr int kMore = kTaps - 4;  // beside the first four
      double across[kTaps][kChunk], down[kTaps][kChunk], columns[kChunk][kTaps];
      WeighTaps<kMethod, kChunk>(c.fx, count, across[0]);
      WeighTaps<kMethod, kChunk>(c.fy, count, down[0]);
      for (int i = 0; i < count; ++i) {
        const float* taps = plane + (c.y[i] + kFirst) * stride + c.x[i] + kFirst;
        Four four = {};
        [[maybe_unused]] Two more = {};
        for (int y = 0; y < kTaps; ++y, taps += stride) {
          Add(taps, down[y][i], four);
          if constexpr (kMore > 0) Add(taps + 4, down[y][i], more);
        }
        std::memcpy(columns[i], &four, sizeof four);
        if constexpr (kMore > 0) std::memcpy(columns[i] + 4, &more, sizeof more);
      }
      for (int i = 0; i < count; ++i) {
        double sum = 0;
        for (int x = 0; x < kTaps; ++x) {
          sum += columns[i][x] * across[x][i];
        }
        out[i] = static_cast<float>(sum);
      }
    }
  });
}

}  // namespace

/// A run of samples of a plane: the rows and weights of the last sample serve the next one where they are the
/// same. On a paged store the rows are asked for together, and no more than a thread may hold unlocked.
struct CInterp::Run {
  struct Axis {
    double fraction = NAN;
    double weight[kMostTaps];
  };
  CVelImage* image;
  int plane;
  int top = INT_MIN;
  const float* rows[kMostTaps] = {};
  Axis x, y;

  const double* Weights(Axis& axis, int method, double f) const {
    if (axis.fraction == f) return axis.weight;
    if (method == MethodBicubic) WeighTaps<MethodBicubic, 1>(&f, 1, axis.weight);
    if (method == MethodLanczos2) WeighTaps<MethodLanczos2, 1>(&f, 1, axis.weight);
    if (method == MethodLanczos3) WeighTaps<MethodLanczos3, 1>(&f, 1, axis.weight);
    axis.fraction = f;
    return axis.weight;
  }
};

CInterp::Form CInterp::FormOf(double dx, double dy, double angle) {
  if (angle != 0) return Rotate;
  return IsWhole(dx) && IsWhole(dy) ? WholeShift : FloatShift;
}

CInterp::CInterp(int method, CVelImage* image, int) : method_(method), form_(FloatShift) {
  image_ = image;
  GetImageYaddress();
}

void CInterp::SetImage(CVelImage* image, int useImageCentre) {
  image_ = image;
  width_ = image->GetWidth();
  height_ = image->GetHeight();
  colour_ = image->IsColor() ? -1 : 0;
  centre_ = useImageCentre ? image->GetStdCtr() : CfPoint(width_ * 0.5, height_ * 0.5);
}

void CInterp::SetBParam(int form, CVelImage* image, double left, double right, int scaled, float outside,
                        int plane, double sine, double cosine, double scale, int useImageCentre) {
  SetImage(image, useImageCentre);
  form_ = form;
  left_ = left, right_ = right;
  floorLeft_ = FloorToInt(left), floorRight_ = FloorToInt(right);
  scaled_ = scaled;
  outside_ = outside;
  plane_ = plane;
  sine_ = sine, cosine_ = cosine, scale_ = scale;
  for (int i = 0; i < 3 && !image->IsEmpty(); ++i) {
    const int p = PlaneOfImage(i);
    offsets_[i] = static_cast<float>(image->GetLevelMin(p));
    gains_[i] = static_cast<float>(255.0 / image->GetLevelRange(p));
  }
  GetImageYaddress();
}

void CInterp::SetBParam(CVelImage* image, double shiftX, double shiftY, double sine, double cosine,
                        double scale, int useImageCentre, int plane, float outside) {
  SetImage(image, useImageCentre);
  shiftX_ = shiftX, shiftY_ = shiftY;
  sine_ = sine, cosine_ = cosine, scale_ = scale;
  plane_ = plane;
  outside_ = outside;
  form_ = FormOf(shiftX, shiftY, cosine != 1.0);
}

void CInterp::GetImageYaddress() {
  rows_.clear();
  firstRows_.clear();
  rowsOf_ = image_;
  if (!image_ || image_->IsEmpty()) return;
  planes_ = image_->GetPlanes();
  if (!IsContiguous(*image_)) return;
  for (int p = 0; p < planes_; ++p) {
    firstRows_.push_back(static_cast<int>(rows_.size()));
    for (int y = 0; y < image_->GetHeight(); ++y) {
      rows_.push_back(image_->GetLine(0, y, p));
    }
  }
}

const float* CInterp::Row(CVelImage& image, int y, int plane) const {
  if (&image == rowsOf_ && !rows_.empty()) return rows_[firstRows_[plane] + y];
  return image.GetLine(0, y, plane);
}

float CInterp::GetPixData(int x, int y, int plane) {
  return Row(*image_, y, plane)[x];
}

/// The plane that serves for a plane of three: the only one of a mono image, the last one of two.
int CInterp::PlaneOfImage(int plane) const {
  return image_->IsColor() ? std::clamp(plane, 0, image_->GetPlanes() - 1) : 0;
}

// Points.

double CInterp::KernelBicubic(double x, double a) {
  const double t = std::abs(x);
  if (t <= 1) return 1 - (a + 3) * t * t + (a + 2) * t * t * t;
  if (t <= 2) return a * (t * t * t - 5 * t * t + 8 * t - 4);
  return 0;
}

double CInterp::KernelLanczos(double x, double n) {
  const double t = std::abs(x);
  if (t == 0) return 1;
  if (t > n) return 0;
  const double p = M_PI * t;
  return std::sin(p / n) * (std::sin(p) * n) / (p * p);
}

float CInterp::Calc(const double* yWeights, const float* taps, const double* xWeights, int n) {
  double sum = 0;
  for (int j = 0; j < n; ++j) {
    double column = 0;
    for (int i = 0; i < n; ++i) {
      column += taps[i * n + j] * yWeights[i];
    }
    sum += column * xWeights[j];
  }
  return static_cast<float>(sum);
}

int CInterp::Sample(int method, Run& run, double x, double y, float* out) const {
  CVelImage& image = *run.image;
  if (image.IsEmpty() || run.plane < 0 || run.plane >= image.GetPlanes()) return 0;
  const int lastX = image.GetWidth() - 1, lastY = image.GetHeight() - 1;
  if (method == MethodNearest) {
    const int column = std::clamp(TruncateToInt(x + 0.5), 0, lastX);
    *out = Row(image, std::clamp(TruncateToInt(y + 0.5), 0, lastY), run.plane)[column];
    return 1;
  }
  if (!Within(x, lastX + 1) || !Within(y, lastY + 1)) return 0;

  const int taps = TapsOf(method), first = 1 - taps / 2;
  const int ix = static_cast<int>(x), iy = static_cast<int>(y);
  const double fx = x - ix, fy = y - iy;
  if (run.top != iy) {
    for (int i = 0; i < taps; ++i) {
      run.rows[i] = Row(image, std::clamp(iy + first + i, 0, lastY), run.plane);
    }
    run.top = iy;
  }
  if (method == MethodBilinear) {
    const int left = std::min(ix, lastX), right = fx == 0 ? left : std::min(ix + 1, lastX);
    const float *upper = run.rows[0], *lower = fy == 0 ? upper : run.rows[1];
    const double a = upper[left], b = upper[right], c = lower[left], d = lower[right];
    const double both = fy * fx;
    *out = fx == 0 && fy == 0
               ? upper[left]
               : static_cast<float>(c * (fy - both) + a * ((1 - fy) * (1 - fx)) + b * (fx - both) + d * both);
    return 1;
  }
  float pixels[kMostTaps * kMostTaps];
  for (int i = 0; i < taps; ++i) {
    for (int j = 0; j < taps; ++j) {
      pixels[i * taps + j] = run.rows[i][std::clamp(ix + first + j, 0, lastX)];
    }
  }
  *out = Calc(run.Weights(run.y, method, fy), pixels, run.Weights(run.x, method, fx), taps);
  return 1;
}

int CInterp::Bilinear(CVelImage* image, int plane, double x, double y, float* out) {
  Run run{image, plane};
  return Sample(MethodBilinear, run, x, y, out);
}
int CInterp::Bicubic(CVelImage* image, int plane, double x, double y, float* out) {
  Run run{image, plane};
  return Sample(MethodBicubic, run, x, y, out);
}
int CInterp::Lanczos2(CVelImage* image, int plane, double x, double y, float* out) {
  Run run{image, plane};
  return Sample(MethodLanczos2, run, x, y, out);
}
int CInterp::Lanczos3(CVelImage* image, int plane, double x, double y, float* out) {
  Run run{image, plane};
  return Sample(MethodLanczos3, run, x, y, out);
}
int CInterp::Nearest(CVelImage* image, int plane, double x, double y, float* out) {
  Run run{image, plane};
  return Sample(MethodNearest, run, x, y, out);
}

float CInterp::SampleOrZero(Run& run, double x, double y) const {
  float value = 0;
  if (method_ >= 0 && method_ < kMethods) Sample(method_, run, x, y, &value);
  return value;
}

float CInterp::Do(double x, double y, int plane) {
  Run run{image_, plane};
  return SampleOrZero(run, x, y);
}

void CInterp::DoRow(float step, double y, int plane, int columns, float* out) {
  Run run{image_, plane};
  for (int x = 0; x < columns; ++x) {
    out[x] = SampleOrZero(run, static_cast<float>(x) * step, y);
  }
}

// Lines. Each fills `columns` samples from floor(left) on; `valid` may be null.

namespace {

/// The samples of a line start as outside.
void FillOutside(float outside, float* out, int* valid, int columns) {
  std::fill_n(out, columns, outside);
  if (valid) std::fill_n(valid, columns, 0);
}

/// The columns i of a line for which first + i lies in 0 to last - 1.
struct ColumnRange {
  int begin, end;
  ColumnRange(int first, long long last, int columns)
      : begin(static_cast<int>(std::clamp<long long>(-1LL * first, 0, columns))),
        end(static_cast<int>(std::clamp<long long>(last - first, begin, columns))) {}
};

}  // namespace

/// Samples of a row, as many as it has room for.
int CInterp::Columns(long long samples) const {
  return static_cast<int>(std::clamp<long long>(samples, 0, capacity_ > 0 ? capacity_ : INT_MAX));
}

void CInterp::LineInt(int y, int plane, float* out, int* valid, int columns) const {
  const ColumnRange inside(floorLeft_, width_, columns);
  if (y < 0 || y >= height_ || inside.begin == inside.end) return FillOutside(outside_, out, valid, columns);
  FillOutside(outside_, out, valid, inside.begin);
  FillOutside(outside_, out + inside.end, valid ? valid + inside.end : nullptr, columns - inside.end);
  CImage::AddressHandle lock;
  const float* row =
      image_->GetImageAdr(0, y, plane, static_cast<CImage::Mode>(CImage::ReadOnly | CImage::Locked), &lock);
  std::memcpy(out + inside.begin, row + floorLeft_ + inside.begin,
              sizeof(float) * (inside.end - inside.begin));
  image_->Unlock(lock);
  if (valid) std::fill(valid + inside.begin, valid + inside.end, 1);
}

bool CInterp::HasAllTaps(double u, double v) const {
  const int half = TapsOf(method_) / 2;
  return u >= half - 1 && v >= half - 1 && u < width_ - half && v < height_ - half;
}

/// Samples from a position on, step by step, where inside(position) holds; others stay.
template <class Inside>
void CInterp::SampleLine(int plane, Steps at, int begin, int end, float* out, int* valid,
                         const Inside& inside) const {
  constexpr decltype(&SampleCells<MethodBilinear>) kSampleCells[] = {
      SampleCells<MethodBilinear>, SampleCells<MethodBicubic>, SampleCells<MethodLanczos2>,
      SampleCells<MethodLanczos3>};
  const bool isQuick = image_ == rowsOf_ && !rows_.empty() && method_ >= 0 && method_ <= MethodLanczos3;
  Run run{image_, plane};
  double u[kChunk], v[kChunk];
  for (int left = begin; left < end; left += kChunk) {
    const int count = std::min(kChunk, end - left);
    for (int i = 0; i < count; ++i, at.u += at.du, at.v += at.dv) {
      u[i] = at.u, v[i] = at.v;
    }
    // Positions between two that have all taps have them too.
    if (isQuick && HasAllTaps(u[0], v[0]) && HasAllTaps(u[count - 1], v[count - 1])) {
      kSampleCells[method_](rows_[firstRows_[plane]], width_, u, v, count, out + left);
      if (valid) std::fill_n(valid + left, count, 1);
      continue;
    }
    for (int i = 0; i < count; ++i) {
      if (!inside(u[i], v[i])) continue;
      out[left + i] = SampleOrZero(run, u[i], v[i]);
      if (valid) valid[left + i] = 1;
    }
  }
}

void CInterp::LineFloat(double y, int plane, float* out, int* valid, int columns) const {
  FillOutside(outside_, out, valid, columns);
  const ColumnRange inside(floorLeft_, width_, columns);
  const double x = left_ < 0 ? left_ - floorLeft_ : left_;
  SampleLine(plane, {x, y, 1.0, 0.0}, inside.begin, inside.end, out, valid,
             [](double, double) { return true; });
}

template <class Inside>
void CInterp::LineRotate(double y, int plane, float* out, int* valid, int columns, Inside&& inside) const {
  FillOutside(outside_, out, valid, columns);
  const double x = left_ - centre_.fx, up = centre_.fy - y;
  const double u = cosine_ * x - sine_ * up + centre_.fx, v = centre_.fy - (sine_ * x + cosine_ * up);
  SampleLine(plane, {u, v, cosine_, -sine_}, 0, columns, out, valid, inside);
}

/// A line of one plane in raw.
void CInterp::RawLine(int form, double y, int plane, float* out, int* valid) const {
  const int columns = Columns(1LL * floorRight_ - floorLeft_);
  if (image_->IsEmpty()) return FillOutside(outside_, out, valid, columns);
  if (form == WholeShift) return LineInt(TruncateToInt(y), plane, out, valid, columns);
  if (form == Rotate) {
    return LineRotate(y, plane, out, valid, columns,
                      [&](double u, double v) { return Within(u, width_ - 1) && Within(v, height_ - 1); });
  }
  if (!(y <= height_ - 1 && std::floor(y) >= 0) || (floorLeft_ < 0 && floorRight_ < 0)) {
    return FillOutside(outside_, out, valid, columns);
  }
  LineFloat(y, plane, out, valid, columns);
}

/// A line of one plane in the caller's scale, and which of its samples are real.
void CInterp::Line(int form, double y, int plane, float* out, std::vector<int>& valid) const {
  valid.resize(Columns(1LL * floorRight_ - floorLeft_));
  RawLine(form, y, plane, out, valid.data());
  if (!scaled_) return;
  const double min = image_->GetLevelMin(plane), range = image_->GetLevelRange(plane);
  const int level = std::min(plane, 2);
  for (size_t i = 0; i < valid.size(); ++i) {
    if (!valid[i]) continue;
    out[i] = form == WholeShift ? (out[i] - offsets_[level]) * gains_[level]
                                : static_cast<float>((out[i] - min) / range * 255.0);
  }
}

void CInterp::OnePlane(int form, double y, float* out) const {
  if (plane_ == -1 || image_->IsEmpty()) return;
  if (!scaled_) return RawLine(form, y, PlaneOfImage(plane_), out, nullptr);
  std::vector<int> valid;
  Line(form, y, PlaneOfImage(plane_), out, valid);
}

void CInterp::Lines(int form, double y, float* out0, float* out1, float* out2) const {
  if (image_->IsEmpty()) return;
  std::vector<int> valid;
  Line(form, y, PlaneOfImage(0), out0, valid);
  if (plane_ == -1) {
    for (int p = 1; p < 3; ++p) {
      float* out = p == 1 ? out1 : out2;
      if (!out) continue;
      if (colour_) {
        Line(form, y, PlaneOfImage(p), out, valid);
      } else {
        std::copy_n(out0, valid.size(), out);
      }
    }
  } else if (colour_) {
    std::vector<float> green(valid.size()), blue(valid.size());
    Line(form, y, PlaneOfImage(1), green.data(), valid);
    Line(form, y, PlaneOfImage(2), blue.data(), valid);
    for (size_t i = 0; i < valid.size(); ++i) {
      if (valid[i]) out0[i] = static_cast<float>(0.299 * out0[i] + 0.587 * green[i] + 0.114 * blue[i]);
    }
  }
}

void CInterp::GetBLine(double y, float* out) {
  OnePlane(form_, y, out);
}
void CInterp::GetBLine(double y, float* out0, float* out1, float* out2) {
  Lines(form_, y, out0, out1, out2);
}
void CInterp::GetBLine_int(int y, float* out) {
  OnePlane(WholeShift, y, out);
}
void CInterp::GetBLine_int(int y, float* out0, float* out1, float* out2) {
  Lines(WholeShift, y, out0, out1, out2);
}
void CInterp::GetBLine_float(double y, float* out) {
  OnePlane(FloatShift, y, out);
}
void CInterp::GetBLine_float(double y, float* out0, float* out1, float* out2) {
  Lines(FloatShift, y, out0, out1, out2);
}
void CInterp::GetBLine_rotate(double y, float* out) {
  OnePlane(Rotate, y, out);
}
void CInterp::GetBLine_rotate(double y, float* out0, float* out1, float* out2) {
  Lines(Rotate, y, out0, out1, out2);
}

/// Calls line(plane of the image, row, flags, columns) for each plane that is asked for.
template <class F>
void CInterp::Masked(bool shortRow, float* data, int* valid, F&& line) const {
  if (image_->IsEmpty()) return;
  const size_t stride = capacity_ > 0 ? capacity_ : width_;
  const int columns = Columns(1LL * floorRight_ - floorLeft_ + (shortRow ? 0 : 1));
  for (int p = 0; p < plane_; ++p) {
    line(PlaneOfImage(p), data + p * stride, valid + p * stride, columns);
  }
}

void CInterp::GetBLineMed(double y, float* data, int* valid) {
  if (form_ == WholeShift) return GetBLineMed_int(TruncateToInt(y), data, valid);
  if (form_ == FloatShift) return GetBLineMed_float(y, data, valid);
  GetBLineMed_rotate(y, data, valid);
}

void CInterp::GetBLineMed_int(int y, float* data, int* valid) {
  const bool off = y < 0 || y >= height_;
  Masked(off, data, valid,
         [&](int p, float* row, int* flags, int columns) { LineInt(y, p, row, flags, columns); });
}

void CInterp::GetBLineMed_float(double y, float* data, int* valid) {
  const bool off = !(y >= 0 && y < height_) || floorLeft_ >= width_ || floorRight_ < 0;
  Masked(off, data, valid, [&](int p, float* row, int* flags, int columns) {
    if (off) return FillOutside(outside_, row, flags, columns);
    LineFloat(y, p, row, flags, columns);
  });
}

void CInterp::GetBLineMed_rotate(double y, float* data, int* valid) {
  Masked(false, data, valid, [&](int p, float* row, int* flags, int columns) {
    LineRotate(y, p, row, flags, columns,
               [&](double u, double v) { return u >= 0 && u < width_ && v >= 0 && v < height_; });
  });
}

// Pixels.

/// The source position of an output pixel; true when it is on the image.
bool CInterp::Map(int x, int y, double scale, double& sx, double& sy) const {
  const double cx = centre_.fx, cy = centre_.fy;
  if (cosine_ == 1.0 && sine_ == 0.0) {
    sx = scale == 1.0 ? x - shiftX_ : (x - cx - shiftX_) * scale + cx;
    sy = scale == 1.0 ? y - shiftY_ : (y - cy - shiftY_) * scale + cy;
  } else {
    const double right = x - cx - shiftX_, up = cy - y + shiftY_;
    sx = (cosine_ * right - sine_ * up) * scale + cx;
    sy = cy - (sine_ * right + cosine_ * up) * scale;
  }
  return sx >= 0 && sx < width_ && sy >= 0 && sy < height_;
}

/// The plane of read(plane), or the luminance of all three, where the pixel is on the image.
template <class Read>
float CInterp::MappedPixel(int x, int y, int* off, double* sx, double* sy, Read&& read) const {
  double u, v;
  const bool on = Map(x, y, 1.0, u, v);
  if (off) *off = on ? 0 : 1;
  if (sx) *sx = u;
  if (sy) *sy = v;
  if (!on) return outside_;
  if (!colour_ || plane_ != -1) return read(u, v, PlaneOfImage(plane_));
  return static_cast<float>(0.299 * read(u, v, PlaneOfImage(0)) + 0.587 * read(u, v, PlaneOfImage(1)) +
                            0.114 * read(u, v, PlaneOfImage(2)));
}

float CInterp::GetBPixelGrayRaw(int x, int y, int* off, double* sx, double* sy) {
  return MappedPixel(x, y, off, sx, sy,
                     [this](double u, double v, int p) { return GetBPixelGrayRaw(u, v, p); });
}

float CInterp::GetBPixelGray256f(int x, int y, int* off, double* sx, double* sy) {
  return MappedPixel(x, y, off, sx, sy,
                     [this](double u, double v, int p) { return GetBPixelGray256f(u, v, p); });
}

float CInterp::GetBPixelGrayRaw(double x, double y, int plane) {
  const int lastX = image_->GetWidth() - 1, lastY = image_->GetHeight() - 1;
  if (x >= lastX) x = lastX;
  if (y >= lastY) y = lastY;
  if (IsWhole(x) && IsWhole(y) && x >= 0 && x < lastX && y >= 0 && y < lastY) {
    return GetPixData(static_cast<int>(x), static_cast<int>(y), plane);
  }
  return Do(x, y, plane);
}

float CInterp::GetBPixelGray256f(double x, double y, int plane) {
  return image_->To256(GetBPixelGrayRaw(x, y, plane), plane);
}

float CInterp::GetPixelL(int x, int y) {
  double sx, sy;
  return Map(x, y, scale_, sx, sy) ? Do(sx, sy, 0) : outside_;
}

void CInterp::GetPixelAb(int x, int y, double* a, double* b) {
  double sx, sy;
  const bool on = Map(x, y, scale_, sx, sy);
  *a = on ? Do(sx, sy, 0) : outside_;
  *b = on ? Do(sx, sy, PlaneOfImage(1)) : outside_;
}

// Names.

CString CInterp::GetString(int method) {
  return method >= 0 && method < kMethods ? kNames[method].display : L"";
}

CString CInterp::GetEngString(int method) {
  return method >= 0 && method < kMethods ? kNames[method].english : L"";
}

int CInterp::GetMethod(const CString& name) {
  for (int i = 0; i < kMethods; ++i) {
    std::wstring_view text = static_cast<const wchar_t*>(name), known = kNames[i].english;
    if (std::equal(text.begin(), text.end(), known.begin(), known.end(),
                   [](wchar_t a, wchar_t b) { return std::towlower(a) == std::towlower(b); })) {
      return i;
    }
  }
  return -1;
}
