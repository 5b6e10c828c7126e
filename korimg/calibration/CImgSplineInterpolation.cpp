#include "korimg/calibration/CImgSplineInterpolation.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "korimg/image/internal/Frame.h"

using namespace korimg;

namespace {

using Points = CSpline::Points;

/// Segments of a curve as the pipeline takes them: where each begins, and its coefficients by the distance to
/// there.
class SegmentTable {
 public:
  SegmentTable() {
    for (auto& row : rows_) {
      row[0] = std::numeric_limits<double>::infinity();
    }
  }
  /// False when the curve does not fit: it has too many segments, does not reach from 0 to 1, or a kind of
  /// segment that jumps where it begins.
  bool Take(const Points& curve) {
    const auto n = curve.GetSize();
    if (n < 2 || n > kRows + 1 || curve[0].x > 0 || curve[n - 1].x < 1) return false;
    for (std::ptrdiff_t i = 0; i + 1 < n; ++i) {
      const tagSplinePoint &left = curve[i], &right = curve[i + 1];
      if (!(left.x < right.x)) return false;
      const double line = (right.y - left.y) / (right.x - left.x);
      const Row rows[] = {{left.x, left.y, line},
                          {left.x, left.y, left.first, right.quadratic, right.cubic},
                          {left.x, left.y}};
      const std::uint64_t type = n == 2 ? 0 : left.type;  // two points are a line whatever they say
      if (type >= std::size(rows)) return false;
      rows_[i] = rows[type];
    }
    return true;
  }
  halide_buffer_t* Buffer() { return buffer_; }

 private:
  static constexpr int kRows = 4, kColumns = 5;
  using Row = std::array<double, kColumns>;

  std::array<Row, kRows> rows_{};
  Halide::Runtime::Buffer<double, 2> buffer_{rows_.front().data(), kColumns, kRows};
};

/// It changes nothing from 0 to 1.
bool IsStraight(const Points& curve) {
  return curve.GetSize() == 2 && curve[0].x == 0 && curve[0].y == 0 && curve[1].x == 1 && curve[1].y == 1;
}

/// The levels, rounded as pixels are, and where white begins: a pixel at the maximum lies there to rounding.
struct Scale {
  double min, range, rounding = 0x1p-22 * (std::abs(min) + std::abs(range));

  Scale(const CVelImage& image, int plane)
      : min(static_cast<float>(image.GetLevelMin(plane))),
        range(static_cast<float>(image.GetLevelRange(plane))) {}
};

}  // namespace

int CImgSplineInterpolation::CalcSplineParam(Points* curves) {
  int solved = 1;
  for (int i = 0; i < (IsColor() ? 4 : 1); ++i) {
    solved |= CSpline::CalcSpline(&curves[i]);
  }
  return solved;
}

double CImgSplineInterpolation::GetSplineValue(double t, Points& curve) {
  if (t >= 1) return t;
  if (t <= 0) return 0;
  int status = 0;
  const double value = CSpline::GetValue(t, &curve, &status);
  return status == -1 ? t : std::clamp(value, 0.0, 1.0);
}

int CImgSplineInterpolation::Do(Points* curves, CVelImage* pSrc, CRect* rect, int nProgress) {
  if (!Fits(*pSrc, *this)) return 0;
  const Window window(*this, rect);
  const ProgressScope progress(*this, nProgress, 6201, window.Lines(*this));
  for (int p = 0; p < GetPlanes(); ++p) {
    Points &master = curves[0], *own = IsColor() ? &curves[p + 1] : nullptr;
    const Scale levels(*this, p);
    SegmentTable table;
    // Only one of them: between two, the pipeline would round to floats.
    const bool isOneCurve =
        own && (IsStraight(master) ? table.Take(*own) : IsStraight(*own) && table.Take(master));
    if (isOneCurve && MayRunPipelines(*this, *pSrc)) {
      RunIntoWindow(*this, p, window, [&](halide_buffer_t* out) {
        return spline_interpolation_4x5_float(PlaneBuffer(*pSrc, p), table.Buffer(), levels.min, levels.range,
                                              out);
      });
      continue;
    }
    const double scale = 1.0 / levels.range;
    ForLines(Team::All, window.top, window.IsEmpty() ? window.top : window.bottom, [&](int y) {
      const float* in = pSrc->GetLine(window.left, y, p);
      float* out = GetWritableLine(window.left, y, p);
      for (int x = 0; x < window.Width(); ++x) {
        const double value = in[x];
        const bool isWhite = value - levels.min - levels.range >= -levels.rounding;
        if (isWhite || std::isnan(in[x])) {
          out[x] = in[x];
          continue;
        }
        double t = (value - levels.min) * scale;
        if (own) t = GetSplineValue(t, *own);
        out[x] = static_cast<float>(GetSplineValue(t, master) / scale + levels.min);
      }
      ShowProgress(1);
    });
  }
  return 1;
}
