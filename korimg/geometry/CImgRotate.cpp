#include "korimg/geometry/CImgRotate.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <tuple>

#include <xmmintrin.h>

#include "korimg/geometry/CInterp.h"
#include "korimg/geometry/internal/LockedLine.h"
#include "korimg/geometry/internal/Resized.h"
#include "korimg/image/internal/Numbers.h"

using namespace korimg;

namespace {

constexpr int kRotating = 6112;

using Pipeline = int (*)(halide_buffer_t*, float, float, float, float, float, float, float, halide_buffer_t*);
constexpr Pipeline kPipelines[] = {rotate_bilinear_float, rotate_bicubic_float, rotate_lanczos2_float,
                                   rotate_lanczos3_float, rotate_nearest_float};

/// The canvas that holds the turned corners of an image, counted from the middle.
std::tuple<int, int> TurnedSize(int width, int height, double sine, double cosine) {
  const double left = -(width / 2), right = width - width / 2 - 1;
  const double top = height / 2, bottom = height / 2 - height + 1;
  double minX = 0, maxX = 0, minY = 0, maxY = 0;
  for (const auto& [x, y] :
       {std::pair(left, top), std::pair(right, top), std::pair(left, bottom), std::pair(right, bottom)}) {
    const double u = std::ceil(x * cosine - y * sine), v = std::ceil(x * sine + y * cosine);
    minX = std::min(minX, u), maxX = std::max(maxX, u);
    minY = std::min(minY, v), maxY = std::max(maxY, v);
  }
  return {TruncateToInt(maxX - minX), TruncateToInt(maxY - minY)};
}

/// The default centre of an image while it is turned.
class CentreScope {
 public:
  explicit CentreScope(CVelImage& image) : image_(image), before_(image.GetStdCtr()) {
    image.SetDefaultCenter();
  }
  ~CentreScope() { image_.SetStdCtr(before_); }
  CentreScope(const CentreScope&) = delete;
  CentreScope& operator=(const CentreScope&) = delete;

 private:
  CVelImage& image_;
  CfPoint before_;
};

constexpr int kSide = 4;

/// Writes four pixels of four lines as four pixels of each of four others.
void Transpose(const float* const in[kSide], int at, float* out0, float* out1, float* out2, float* out3) {
  __m128 a = _mm_loadu_ps(in[0] + at), b = _mm_loadu_ps(in[1] + at), c = _mm_loadu_ps(in[2] + at),
         d = _mm_loadu_ps(in[3] + at);
  _MM_TRANSPOSE4_PS(a, b, c, d);
  _mm_store_ps(out0, a);
  _mm_store_ps(out1, b);
  _mm_store_ps(out2, c);
  _mm_store_ps(out3, d);
}

/// Calls line(plane, y) for all lines of a target that fits the source.
template <class F>
void CopyLines(CImgRotate& target, CVelImage& src, int show, F&& line) {
  if (!Fits(src, target)) return;
  const ProgressScope progress(target, show, kRotating, target.GetPlanes() * target.GetHeight());
  ForPlaneLines(target, Window(target, nullptr), Team::All, line);
}

}  // namespace

float CImgRotate::OutsideValue(unsigned long colour, const CVelImage& src) const {
  const auto r = static_cast<float>(colour & 255), g = static_cast<float>(colour >> 8 & 255),
             b = static_cast<float>(colour >> 16 & 255);
  const float value = src.IsColor() ? r : std::trunc(0.299f * r + 0.587f * g + 0.114f * b);
  return ToRaw(value, 0);
}

int CImgRotate::Do(double degrees, unsigned long colour, CVelImage* src, int expand, int method,
                   int progress) {
  if (!Fits(*src, *this)) return 0;
  if (degrees == 0.0) {
    Do0(src, progress);
    return 1;
  }
  const float outside = OutsideValue(colour, *src);
  InitStdPtCtr();
  SetStdCtr(GetWidth() / 2, GetHeight() / 2);
  const double radians = degrees * M_PI / 180, sine = std::sin(radians), cosine = std::cos(radians);
  const bool isMethod = method >= 0 && method < static_cast<int>(std::size(kPipelines));
  if (expand) {
    const auto [width, height] = TurnedSize(src->GetWidth(), src->GetHeight(), sine, cosine);
    const auto contents = isMethod ? Contents::Undefined : Contents::Zero;
    if (!Resized(*this, *src, width, height, progress, contents)) return 0;
  }
  if (!isMethod) return 1;
  const ProgressScope scope(*this, progress, kRotating, GetPlanes() * GetHeight());
  (this->*(MayRunPipelines(*this, *src) ? &CImgRotate::DoPipelines : &CImgRotate::DoLines))(src, sine, cosine,
                                                                                            outside, method);
  return 1;
}

void CImgRotate::DoPipelines(CVelImage* src, double sine, double cosine, float outside, int method) {
  const auto half = [](int size) { return static_cast<float>(size) * 0.5f; };
  for (int p = 0; p < GetPlanes(); ++p) {
    kPipelines[method](PlaneBuffer(*src, p), -half(GetWidth() - src->GetWidth()),
                       -half(GetHeight() - src->GetHeight()), half(src->GetWidth()), half(src->GetHeight()),
                       static_cast<float>(cosine), static_cast<float>(sine), outside,
                       PlaneBuffer(*this, p, false));
  }
}

void CImgRotate::DoLines(CVelImage* src, double sine, double cosine, float outside, int method) {
  const CentreScope centre(*src);
  const double left = -(GetWidth() - src->GetWidth()) * 0.5, top = -(GetHeight() - src->GetHeight()) * 0.5;
  std::vector<CInterp> planes;
  for (int p = 0; p < GetPlanes(); ++p) {
    CInterp& interp = planes.emplace_back(method);
    interp.SetBParam(CInterp::Rotate, src, left, left + GetWidth(), 0, outside, p, sine, cosine, 1.0, 1);
    interp.SetLineCapacity(GetWidth());
  }
  ForPlaneLines(*this, Window(*this, nullptr), Team::All, [&](int p, int y) {
    const LockedLine out(*this, y, p);
    planes[p].GetBLine(y + top, &out[0]);
  });
}

void CImgRotate::Do0(CVelImage* src, int progress) {
  InitStdPtCtr();
  CopyLines(*this, *src, progress, [&](int p, int y) {
    std::memcpy(GetWritableLine(0, y, p), src->GetLine(0, y, p), sizeof(float) * GetWidth());
  });
}

void CImgRotate::Do180(CVelImage* src, int progress) {
  InitStdPtCtr();
  CopyLines(*this, *src, progress, [&](int p, int y) {
    const float* in = src->GetLine(0, GetHeight() - 1 - y, p);
    std::reverse_copy(in, in + GetWidth(), GetWritableLine(0, y, p));
  });
}

int CImgRotate::Do90(int direction, CVelImage* src, int progress) {
  InitStdPtCtr();
  if (!Fits(*src, *this) || !Resized(*this, *src, src->GetHeight(), src->GetWidth(), progress)) return 0;
  const int width = GetWidth(), height = GetHeight();
  const ProgressScope scope(*this, progress, kRotating, GetPlanes() * height);
  // Tiles through a buffer of their size, so that no more than a few lines of either image are in use at a
  // time. Their rows are runs that memory takes well.
  constexpr int kTileRows = 32, kTileColumns = 256;
  for (int p = 0; p < GetPlanes(); ++p) {
    SetLevel(p, src->GetLevelMin(p), src->GetLevelMax(p));
    ForLines(Team::All, 0, (height + kTileRows - 1) / kTileRows, [&](int band) {
      const int top = band * kTileRows, rows = std::min(kTileRows, height - top);
      // Target rows are source columns, from the right end on in a counter-clockwise turn.
      const int sourceLeft = direction == 0 ? height - top - rows : top;
      alignas(16) float tile[kTileRows][kTileColumns];
      for (int left = 0; left < width; left += kTileColumns) {
        const int columns = std::min(kTileColumns, width - left);
        for (int x = 0; x < columns; x += kSide) {
          const float* in[kSide];
          for (int i = 0; i < kSide; ++i) {
            const int column = left + std::min(x + i, columns - 1);
            in[i] = src->GetLine(sourceLeft, direction == 0 ? column : width - 1 - column, p);
          }
          const auto out = [&](int y) { return &tile[direction == 0 ? rows - 1 - y : y][x]; };
          int y = 0;
          for (; y + kSide <= rows; y += kSide) {
            Transpose(in, y, out(y), out(y + 1), out(y + 2), out(y + 3));
          }
          for (; y < rows; ++y) {
            for (int i = 0; i < kSide; ++i) {
              out(y)[i] = in[i][y];
            }
          }
        }
        for (int y = 0; y < rows; ++y) {
          std::memcpy(GetWritableLine(left, top + y, p), tile[y], sizeof(float) * columns);
        }
      }
      ShowProgress(rows);
    });
  }
  return 1;
}
