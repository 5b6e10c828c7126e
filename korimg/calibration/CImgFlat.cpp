#include "korimg/calibration/CImgFlat.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/Vectors.h"

using namespace korimg;

namespace {

/// A plane's model: square (x^2 + y^2) + across x + down y + constant about an origin.
struct Model {
  double square = 0, across = 0, down = 0, constant = 0;
  double originX = 0, originY = 0;
  double level = 0;   ///< b
  double bottom = 0;  ///< of what K is made
  double added = 0;   ///< by subtraction
  double inDivisor = 0;

  /// The model of a row as a polynomial of x - originX.
  struct Row {
    double square, across, constant;
    double At(double dx) const { return (square * dx + across) * dx + constant; }
  };
  Row At(int y) const {
    const double dy = y - originY;
    return {square, across, square * dy * dy + down * dy + constant};
  }
};

enum Mode { kSubtract, kDivide };

/// Writes the window by the models that modelOf(plane) gives.
template <class F>
void Flatten(CVelImage& target, CVelImage& src, int mode, CRect* rect, int show, F&& modelOf) {
  if (!Fits(src, target)) return;
  constexpr int kFlattening = 6139;
  const Window window(target, rect);
  const ProgressScope progress(target, show, kFlattening, window.Lines(target));
  ForPlaneLines(target, window, Team::All, [&](int p, int y) {
    const float* in = src.GetLine(window.left, y, p);
    float* out = target.GetWritableLine(window.left, y, p);
    const int columns = window.Width();
    const Model model = modelOf(p);
    const Model::Row row = model.At(y);
    const double first = window.left - model.originX;
    const double least = -std::min<double>(model.bottom, src.GetMinPixel(p)), k = least == 0 ? 1 : least;
    const double numerator = model.level + k, inDivisor = model.inDivisor + k;
    if (mode == kSubtract) {
      RunInLongVectors([=]() KORIMG_IN_LOOP {
        for (int x = 0; x < columns; ++x) {
          const double dx = first + x;
          out[x] = static_cast<float>(in[x] - row.At(dx) + model.added);
        }
      });
    } else if (mode == kDivide) {
      RunInLongVectors([=]() KORIMG_IN_LOOP {
        for (int x = 0; x < columns; ++x) {
          const double dx = first + x, t = row.At(dx);
          out[x] = static_cast<float>(numerator / (t + inDivisor) * (in[x] + k) - k);
        }
      });
    } else {
      std::fill_n(out, columns, 0.0f);
    }
  });
}

struct Direction {
  double x, y;

  Direction(const CPoint& from, const CPoint& to) {
    const double dx = to.x - from.x, dy = to.y - from.y;
    if (dx == 0) {
      x = 0, y = dy > 0 ? 1.0 : -1.0;
      return;
    }
    const double slope = dy / dx;
    x = std::copysign(std::sqrt(1 / (slope * slope + 1)), dx);
    y = x * slope;
  }
};

}  // namespace

void CImgFlat::DoFlat(CVelImage* src, CPoint p1[], CPoint p2[], double slope[], double level[],
                      double bottom[], int mode, CRect* rect, int show) {
  Flatten(*this, *src, mode, rect, show, [&](int p) {
    const Direction direction(p1[p], p2[p]);
    const auto middle = static_cast<std::uint32_t>((static_cast<std::int64_t>(p1[p].y) + p2[p].y) / 2);
    return Model{.across = slope[p] * direction.x,
                 .down = slope[p] * direction.y,
                 .originX = static_cast<double>(static_cast<std::int16_t>(middle)),
                 .originY = static_cast<double>(static_cast<std::int16_t>(middle >> 16)),
                 .level = level[p],
                 .bottom = bottom[p],
                 .inDivisor = level[p]};
  });
}

void CImgFlat::DoFlatPoint(CVelImage* src, double a[], double b[], double level[], double bottom[], int mode,
                           CRect* rect, int show) {
  Flatten(*this, *src, mode, rect, show, [&](int p) {
    return Model{.across = a[p], .down = b[p], .level = level[p], .bottom = bottom[p], .inDivisor = level[p]};
  });
}

void CImgFlat::DoParabolic(CVelImage* src, CPoint centre[], double slope[], double level[], double bottom[],
                           int mode, CRect* rect, int show) {
  Flatten(*this, *src, mode, rect, show, [&](int p) {
    return Model{.square = slope[p],
                 .originX = static_cast<double>(centre[p].x),
                 .originY = static_cast<double>(centre[p].y),
                 .level = level[p],
                 .bottom = slope[p] >= 0 ? level[p] : bottom[p],
                 .inDivisor = level[p]};
  });
}

void CImgFlat::DoParabolicPoint(CVelImage* src, double A[], double B[], double C[], double D[],
                                double bottom[], int mode, CRect* rect, int show) {
  Flatten(*this, *src, mode, rect, show, [&](int p) {
    const double vertex = A[p] == 0 ? 0 : D[p] - (C[p] * C[p] + B[p] * B[p]) * 0.25 / A[p];
    return Model{.square = A[p],
                 .across = B[p],
                 .down = C[p],
                 .constant = D[p],
                 .level = vertex,
                 .bottom = A[p] >= 0 ? vertex : bottom[p],
                 .added = vertex};
  });
}
