#include "korimg/colour/CImgColorCorrect.h"

#include <algorithm>
#include <array>
#include <cfloat>
#include <limits>

#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/Vectors.h"

using namespace korimg;

namespace {

constexpr int kMessage = 6179;

enum Mode { kFromZero, kFromSmallest, kFromOrigin };

/// The levels of three planes.
struct Levels {
  double min[3], range[3];

  /// Raw values, counted from an origin.
  explicit Levels(double origin) : min{origin, origin, origin}, range{1, 1, 1} {}
  explicit Levels(const CVelImage& image) {
    for (int p = 0; p < 3; ++p) {
      min[p] = image.GetLevelMin(p);
      range[p] = image.GetLevelRange(p);
    }
  }
};

/// result = strength (matrix pixel + offset) + (1 - strength) pixel
struct Correction {
  double matrix[3][3];
  double offset[3];
  double strength;
  bool hasZeros = false;

  /// Distances from `from`, in units of its ranges, become distances from `to` in its units.
  Correction(const tagMATRIX& m, double strength, const Levels& from, const Levels& to)
      : matrix{{m.a11, m.a12, m.a13}, {m.a21, m.a22, m.a23}, {m.a31, m.a32, m.a33}},
        strength(std::min(strength, 1.0)) {
    for (int i = 0; i < 3; ++i) {
      offset[i] = to.min[i];
      for (int j = 0; j < 3; ++j) {
        if (matrix[i][j] == 0) {
          hasZeros = true;
          continue;
        }
        matrix[i][j] = matrix[i][j] * to.range[i] / from.range[j];
        offset[i] -= matrix[i][j] * from.min[j];
      }
    }
  }
};

template <bool positive, class T>
KORIMG_IN_LOOP inline T Limited(T v) {
  if (!positive) return v;
  const T raised = v < FLT_MIN ? FLT_MIN : v;
  return raised > FLT_MAX ? FLT_MAX : raised;
}

/// `positive` limits what the matrix gives to the positive floats. `general` takes matrices with zeros, which
/// leave values out, NaN and infinities too, and strengths below 1.
template <bool positive, bool general>
void CorrectRow(const Correction& correction, const std::array<const float*, 3>& in,
                const std::array<float*, 3>& out, int columns) {
  RunInLongVectors([=]() KORIMG_IN_LOOP {
#pragma omp simd
    for (int x = 0; x < columns; ++x) {
      const double s[3] = {in[0][x], in[1][x], in[2][x]};
      for (int i = 0; i < 3; ++i) {
        double v = correction.offset[i];
        for (int j = 0; j < 3; ++j) {
          const double factor = correction.matrix[i][j], term = factor * s[j];
          v += general && factor == 0 ? 0 : term;
        }
        if constexpr (general) {
          const double strength = correction.strength, rest = (1 - strength) * s[i];
          v = strength * Limited<positive>(v) + (strength == 1 ? 0 : rest);
          out[i][x] = static_cast<float>(v);
        } else {
          out[i][x] = Limited<positive>(static_cast<float>(v));  // of floats: half as many vectors
        }
      }
    }
  });
}

template <bool positive>
void CorrectRow(const Correction& correction, const std::array<const float*, 3>& in,
                const std::array<float*, 3>& out, int columns) {
  const bool general = correction.hasZeros || correction.strength < 1;
  (general ? CorrectRow<positive, true> : CorrectRow<positive, false>)(correction, in, out, columns);
}

/// The smallest finite pixel of three planes; 0 when there is none.
float SmallestPixel(CVelImage& image) {
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  const int width = image.GetWidth();
  const auto smallest = MapLines(0, image.GetHeight(), [&](int y) {
    float least = kInfinity;
    for (int p = 0; p < 3; ++p) {
      const float* line = image.GetLine(0, y, p);
#pragma omp simd reduction(min : least)
      for (int x = 0; x < width; ++x) {
        least = line[x] < least && line[x] > -kInfinity ? line[x] : least;
      }
    }
    image.ShowProgress(1);
    return least;
  });
  const float least = *std::min_element(smallest.begin(), smallest.end());
  return least < kInfinity ? least : 0;
}

bool IsPossible(const CVelImage& image, const tagMATRIX* matrix, int mode) {
  return !image.IsEmpty() && image.GetPlanes() >= 3 && matrix && mode >= kFromZero && mode <= kFromOrigin;
}

}  // namespace

int CImgColorCorrect::Do(tagMATRIX* matrix, double strength, int mode, float origin, int, int show) {
  if (!IsPossible(*this, matrix, mode)) return 0;
  if (!(strength > 0)) return 1;
  double o = mode == kFromOrigin ? origin : 0;
  if (mode == kFromSmallest) {
    const ProgressScope progress(*this, show, kMessage, GetHeight());
    o = SmallestPixel(*this);
  }
  const Correction correction(*matrix, strength, Levels(o), Levels(o));
  const ProgressScope progress(*this, show, kMessage, GetHeight());
  ForLines(Team::All, 0, GetHeight(), [&](int y) {
    float *r = GetWritableLine(0, y, 0), *g = GetWritableLine(0, y, 1), *b = GetWritableLine(0, y, 2);
    CorrectRow<true>(correction, {r, g, b}, {r, g, b}, GetWidth());
    ShowProgress(1);
  });
  return 1;
}

int CImgColorCorrect::Do(tagMATRIX* matrix, double strength, int mode, float, int, CVelImage* src,
                         CRect* rect, int show) {
  if (!IsPossible(*this, matrix, mode) || !Fits(*src, *this)) return 0;
  if (!(strength > 0)) {
    Paste(src, rect);
    return 1;
  }
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, kMessage, window.Height());
  const Levels from(*src), to(*this);
  const tagMATRIX& a = *matrix;
  if (!MayRunPipelines(*this, *src)) {
    const Correction correction(a, strength, from, to);
    ForLines(Team::All, window.top, window.bottom, [&](int y) {
      std::array<const float*, 3> in;
      std::array<float*, 3> out;
      for (int p = 0; p < 3; ++p) {
        in[p] = src->GetLine(window.left, y, p);
        out[p] = GetWritableLine(window.left, y, p);
      }
      CorrectRow<false>(correction, in, out, window.Width());
      ShowProgress(1);
    });
    return 1;
  }
  PlaneBuffer r(*src, 0), g(*src, 1), b(*src, 2);
  const auto run = [&](halide_buffer_t* red, halide_buffer_t* green, halide_buffer_t* blue) {
    const auto call = [&](auto pipeline, auto... strength) {
      return pipeline(r, g, b, a.a11, a.a12, a.a13, a.a21, a.a22, a.a23, a.a31, a.a32, a.a33, strength...,
                      from.min[0], from.range[0], from.min[1], from.range[1], from.min[2], from.range[2],
                      to.min[0], to.range[0], to.min[1], to.range[1], to.min[2], to.range[2], red, green,
                      blue);
    };
    return strength < 1 ? call(color_correct_float, strength) : call(color_correct1_float);
  };
  // Each plane of a source that is the target is read after the first one is written.
  const bool direct = src != this;
  const auto into = [&](int plane, auto&& write) {
    return RunIntoWindow(*this, plane, window, write, direct);
  };
  return into(0, [&](halide_buffer_t* red) {
           return into(1, [&](halide_buffer_t* green) {
             return into(2, [&](halide_buffer_t* blue) { return run(red, green, blue); });
           });
         }) == 0;
}
