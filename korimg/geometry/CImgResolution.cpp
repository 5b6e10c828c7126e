#include "korimg/geometry/CImgResolution.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "korimg/geometry/CInterp.h"
#include "korimg/geometry/internal/LockedLine.h"
#include "korimg/geometry/internal/Resized.h"

using namespace korimg;

namespace {

using Pipeline = int (*)(halide_buffer_t*, int, int, halide_buffer_t*);
constexpr Pipeline kPipelines[] = {resolution_bilinear_float, resolution_bicubic_float,
                                   resolution_lanczos2_float, resolution_lanczos3_float,
                                   resolution_nearest_float};

bool IsMethod(int method) {
  return method >= 0 && method < static_cast<int>(std::size(kPipelines));
}

/// Gives the target its size, and scales by the pipeline of a method or by lines().
template <class F>
int Scale(CVelImage& target, CVelImage* src, int width, int height, int method, int show, F&& lines) {
  target.InitStdPtCtr();
  const auto contents = IsMethod(method) ? CImage::Contents::Undefined : CImage::Contents::Zero;
  if (!Resized(target, *src, width, height, show, contents)) return 0;
  const ProgressScope progress(target, show, 6110, height * target.GetPlanes());
  if (!MayRunPipelines(target, *src)) {
    lines();
    return 1;
  }
  for (int p = 0; p < target.GetPlanes() && IsMethod(method); ++p) {
    kPipelines[method](PlaneBuffer(*src, p), width, height, PlaneBuffer(target, p, false));
  }
  return 1;
}

/// The two pixels of an axis that an output pixel lies between, or beyond the last of.
struct Pair {
  int first, second;
  float fraction;

  Pair(int n, int size, int newSize) {
    const float s = static_cast<float>(n) * (static_cast<float>(size) / static_cast<float>(newSize));
    first = std::min(static_cast<int>(s), size - 1);
    if (first >= size - 1 && size > 1 && s != static_cast<float>(first)) --first;
    fraction = s - static_cast<float>(first);
    second = fraction == 0 ? first : std::min(first + 1, size - 1);
  }
};

/// The four pixels of an axis and their weights, with the turn at the edges that the class tells of.
struct Four {
  int index[4];
  double weight[4];

  Four(int n, int size, int newSize) {
    const double s = n * (static_cast<double>(size) / newSize);
    const int last = size - 1;
    for (int i = 0; i < 4; ++i) {
      const int tap = static_cast<int>(s) - 1 + i;
      const double t = std::abs(tap - s);
      weight[i] = t < 1   ? 1 - 2.9 * t * t + 1.9 * t * t * t
                  : t < 2 ? 0.4 + t * (-0.8 + t * (0.5 - 0.1 * t))
                          : 0;
      index[i] = tap < -last || tap > last ? 0 : std::abs(tap);
    }
  }
};

template <class Taps>
std::vector<Taps> TapsOfColumns(int size, int newSize) {
  std::vector<Taps> taps;
  taps.reserve(newSize);
  for (int x = 0; x < newSize; ++x) {
    taps.emplace_back(x, size, newSize);
  }
  return taps;
}

}  // namespace

int CImgResolution::Do(CVelImage* src, int width, int height, int progress) {
  return Bilinear(src, width, height, progress);
}

int CImgResolution::Bilinear(CVelImage* src, int width, int height, int progress) {
  return Scale(*this, src, width, height, CInterp::MethodBilinear, progress, [&] { DoBilinear(src); });
}

int CImgResolution::Bicubic(CVelImage* src, int width, int height, int progress) {
  return Scale(*this, src, width, height, CInterp::MethodBicubic, progress, [&] { DoBicubic(src); });
}

int CImgResolution::DoChange(CVelImage* src, int width, int height, int method, int progress) {
  return Scale(*this, src, width, height, method, progress, [&] {
    if (!IsMethod(method)) return;
    CInterp interp(method, src, 0);
    const float rx = static_cast<float>(src->GetWidth()) / static_cast<float>(width);
    const float ry = static_cast<float>(src->GetHeight()) / static_cast<float>(height);
    ForPlaneLines(*this, Window(*this, nullptr), Team::All, [&](int p, int y) {
      const LockedLine out(*this, y, p);
      interp.DoRow(rx, static_cast<float>(y) * ry, p, width, &out[0]);
    });
  });
}

void CImgResolution::DoBilinear(CVelImage* src) {
  const auto columns = TapsOfColumns<Pair>(src->GetWidth(), GetWidth());
  ForPlaneLines(*this, Window(*this, nullptr), Team::All, [&](int p, int y) {
    const Pair row(y, src->GetHeight(), GetHeight());
    float const *upper = src->GetLine(0, row.first, p), *lower = src->GetLine(0, row.second, p);
    float* out = GetWritableLine(0, y, p);
    const float fy = row.fraction;
    for (int x = 0; x < GetWidth(); ++x) {
      const auto [left, right, fx] = columns[x];
      const float a = upper[left], b = upper[right], c = lower[left], d = lower[right];
      out[x] = fx == 0 && fy == 0
                   ? a
                   : (1 - fx) * (1 - fy) * a + (fx - fx * fy) * b + (fy - fx * fy) * c + fx * fy * d;
    }
  });
}

void CImgResolution::DoBicubic(CVelImage* src) {
  const auto columns = TapsOfColumns<Four>(src->GetWidth(), GetWidth());
  ForPlaneLines(*this, Window(*this, nullptr), Team::All, [&](int p, int y) {
    const Four row(y, src->GetHeight(), GetHeight());
    const float* lines[4];
    for (int i = 0; i < 4; ++i) {
      lines[i] = src->GetLine(0, row.index[i], p);
    }
    float* out = GetWritableLine(0, y, p);
    for (int x = 0; x < GetWidth(); ++x) {
      const Four& column = columns[x];
      double sum = 0, weights = 0;
      for (int i = 0; i < 4; ++i) {
        if (row.weight[i] == 0) continue;
        for (int j = 0; j < 4; ++j) {
          if (column.weight[j] == 0) continue;
          const double weight = row.weight[i] * column.weight[j];
          sum += weight * lines[i][column.index[j]];
          weights += weight;
        }
      }
      out[x] = static_cast<float>(sum) / static_cast<float>(weights);
    }
  });
}
