// Lines of equal brightness.
#include <algorithm>
#include <limits>
#include <vector>

#include "korimg/filters/CImgFilterMisc.h"
#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/Numbers.h"
#include "korimg/image/internal/Vectors.h"

using namespace korimg;

namespace {

enum Message : int { Contours = 6171 };

/// Samples lie along each axis from two thirds of a pixel before it on, a third apart.
constexpr int kSamples = 4;
constexpr double kFirst = -0.666666, kStep = 0.333333;

constexpr int kColumns = 256;  ///< at a time, so that samples stay in the first-level cache

/// Values at the samples of one axis, of the pixel before, this one and the next. Equal ones give themselves.
KORIMG_IN_LOOP inline double Sample(int i, double before, double here, double next) {
  if (i == 0) return before + (1 + kFirst) * (here - before);
  if (i == 1) return before + (1 + kFirst + kStep) * (here - before);
  return i == 2 ? here : here + kStep * (next - here);
}

/// The pixel before the first of a row or column: samples there go on as those behind it do.
KORIMG_IN_LOOP inline double BeforeFirst(double first, double second) {
  return 2 * first - second;
}

/// The edges between samples of unequal tones about the pixels of a line.
class ContourLine {
 public:
  /// Tones are brightness on the 0 to 255 scale of `levels` by `tones` / 255, limited unless they wrap.
  ContourLine(CVelImage& src, const CVelImage& levels, int tones, bool wrap)
      : src_(src),
        levels_(levels),
        scale_(tones / 255.0),
        low_(wrap ? -std::numeric_limits<double>::infinity() : 0),
        high_(wrap ? std::numeric_limits<double>::infinity() : tones) {}

  /// Counts the edges of each of the 9 cells of columns left to right - 1, at most kColumns; NaN for NaN.
  void Count(int left, int right, int y, float* counts) {
    const int columns = right - left;
    SampleRow(left, right, y, across_[1]);
    SampleRow(left, right, std::min(y + 1, src_.GetHeight() - 1), across_[2]);
    if (y > 0) SampleRow(left, right, y - 1, across_[0]);
    RunInLongVectors([=, this]() KORIMG_IN_LOOP {
      for (int k = 0; k < kSamples; ++k) {
        double* before = across_[0][k];
        const double *here = across_[1][k], *next = across_[2][k];
        for (int x = 0; y == 0 && x < columns; ++x) {
          before[x] = BeforeFirst(here[x], next[x]);
        }
        for (int i = 0; i < kSamples; ++i) {
          for (int x = 0; x < columns; ++x) {
            const double tone = Sample(i, before[x], here[x], next[x]) * scale_;
            tones_[i][k][x] = TruncateToInt(tone < low_ ? low_ : tone > high_ ? high_ : tone);
          }
        }
      }
      const double* pixel = across_[1][2];
      for (int x = 0; x < columns; ++x) {
        int count = 0;
        for (int i = 0; i < kSamples; ++i) {
          for (int k = 0; k < kSamples; ++k) {
            const int tone = tones_[i][k][x];
            // An edge inside the grid belongs to two cells.
            if (k + 1 < kSamples) count += (tone != tones_[i][k + 1][x]) << (i == 1 || i == 2);
            if (i + 1 < kSamples) count += (tone != tones_[i + 1][k][x]) << (k == 1 || k == 2);
          }
        }
        counts[x] =
            pixel[x] == pixel[x] ? static_cast<float>(count) : std::numeric_limits<float>::quiet_NaN();
      }
    });
  }

 private:
  using Samples = double[kSamples][kColumns];

  /// Brightness of a row at the samples of columns left to right - 1.
  void SampleRow(int left, int right, int y, Samples& samples) {
    const int width = src_.GetWidth(), first = std::max(left - 1, 0), end = std::min(right + 1, width);
    double* line = brightness_ + 1 - left;  // from column left - 1 to right
    const float* rows[3] = {};
    for (int p = 0; p < (HasColours(levels_) ? 3 : 1); ++p) {
      rows[p] = src_.GetLine(0, y, p);
    }
    const auto at = [&](int p, int x)
                        KORIMG_IN_LOOP { return levels_.To256(static_cast<double>(rows[p][x]), p); };
    for (int x = first; x < end; ++x) {
      line[x] = rows[1] ? CVelImage::CalcBright(at(0, x), at(1, x), at(2, x)) : at(0, x);
    }
    if (right == width) line[width] = line[width - 1];
    if (left == 0) line[-1] = BeforeFirst(line[0], line[1]);
    RunInLongVectors([=, &samples]() KORIMG_IN_LOOP {
      for (int k = 0; k < kSamples; ++k) {
        for (int x = left; x < right; ++x) {
          samples[k][x - left] = Sample(k, line[x - 1], line[x], line[x + 1]);
        }
      }
    });
  }

  CVelImage& src_;
  const CVelImage& levels_;
  double scale_, low_, high_;
  double brightness_[kColumns + 2];
  Samples across_[3];  ///< of the row above, this one and the one below
  int tones_[kSamples][kSamples][kColumns];
};

}  // namespace

void CImgFilterMisc::ContourFilter(int levels, int wrap, CVelImage* src, CRect* rect, int show) {
  if (!Fits(*src, *this)) return;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, Contours, window.IsEmpty() ? 0 : window.Height());
  if (window.IsEmpty()) return;
  ForLines(Team::All, window.top, window.bottom, [&](int y) {
    ContourLine line(*src, *this, std::max(levels, 2), wrap != 0);
    std::vector<float> counts(window.Width());
    for (int left = window.left; left < window.right; left += kColumns) {
      line.Count(left, std::min(left + kColumns, window.right), y, &counts[left - window.left]);
    }
    for (int p = 0; p < GetPlanes(); ++p) {
      constexpr double kCell = 0.11111111;
      const double min = GetLevelMin(p), white = kCell * GetLevelRange(p);
      float* out = GetWritableLine(window.left, y, p);
      for (int x = 0; x < window.Width(); ++x) {
        out[x] = static_cast<float>(counts[x] * white + min);
      }
    }
    ShowProgress(1);
  });
}
