#include "korimg/raw/CImgHoneyCombToRgb.h"

#include <algorithm>
#include <array>
#include <limits>
#include <memory>
#include <new>

#include "korimg/image/Loan.h"
#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/Vectors.h"
#include "korimg/levels/CImgAutoLevel.h"
#include "korimg/raw/internal/CameraText.h"
#include "korimg/raw/internal/HoneycombLattice.h"
#include "korimg/raw/internal/RawFrame.h"

using namespace korimg;

namespace {

constexpr int kSmallest = 10;                            ///< pixels of a side
constexpr float kRedWeight = 0.3f, kBlueWeight = 0.11f;  ///< of brightness; green has the rest

/// The row or column that is read for number i of n, beyond the edges too, and lies alike in the lattice.
int Inside(int i, int n) {
  constexpr int kLast = HoneycombLattice::kPeriod - 1;
  return i < 0 ? i & kLast : i < n ? i : n - HoneycombLattice::kPeriod + ((i - n) & kLast);
}

/// Minimum and maximum, NaN passed over.
RawRange Both(const RawRange& a, const RawRange& b) {
  return {std::min(a.min, b.min), std::max(a.max, b.max)};
}
constexpr RawRange kNothing{std::numeric_limits<double>::infinity(),
                            -std::numeric_limits<double>::infinity()};

/// Extremes of every second pixel of a window's rows, from firstColumn(row) on, -1 to leave the row out.
template <class F>
RawRange ExtremesOf(CImage& frame, int plane, const Window& window, F&& firstColumn) {
  RawRange all = kNothing;
  for (const RawRange& row : MapLines(window.top, window.bottom, [&](int y) {
         const int first = firstColumn(y);
         const float* line = ReadFrameLine(frame, y, plane);
         float min = std::numeric_limits<float>::infinity(), max = -min;
         for (int x = first; first >= 0 && x < window.right; x += 2) {
           min = line[x] < min ? line[x] : min;
           max = line[x] > max ? line[x] : max;
         }
         return RawRange{min, max};
       })) {
    all = Both(all, row);
  }
  return all;
}

}  // namespace

/// Fourteen lines of a frame in several planes, for six rows of the result: those lines, and four above and
/// below that decide about them. Each line goes on beyond the frame's edges.
struct CImgHoneyCombToRgb::Strip {
  static constexpr int kLines = 14, kPlanes = 9, kAbove = 4, kRows = kLines - 2 * kAbove;
  // After the colours. The weights' two lines are those of the colour of a pixel's cell for cells of rows
  // that begin with red, and with blue.
  static constexpr int kBrightness = 3, kRaw = 4, kRedSites = 5, kBlueSites = 6, kWeights = 7,
                       kColumnSums = 8;
  static constexpr int kBeyond = 4;  ///< columns that lines go on beyond the edges

  explicit Strip(int width)
      : width(width),
        pitch((static_cast<size_t>(width) + 2 * kFloats + kFloats - 1) / kFloats * kFloats),
        pixels(new (std::align_val_t(kAlignment)) float[pitch * kLines * kPlanes]) {}

  /// Column 0 of a line.
  float* Line(int plane, int line) { return &pixels[(plane * kLines + line) * pitch + kFloats]; }

  static constexpr size_t kAlignment = 64, kFloats = kAlignment / sizeof(float);
  struct Free {
    void operator()(float* p) const { ::operator delete[](p, std::align_val_t(kAlignment)); }
  };
  int width;
  size_t pitch;
  std::unique_ptr<float[], Free> pixels;
};

int CImgHoneyCombToRgb::GetCFAParam(int nCFA, int* x, int* y) {
  const auto lattice = HoneycombLattice::Of(nCFA);
  if (!lattice) return 0;
  *x = lattice->x;
  *y = lattice->y;
  return 1;
}

int CImgHoneyCombToRgb::GetGain(int, double* pGain) {
  Loan<CImgAutoLevel>(*this).borrower.GetMedianHoneyComb(pGain, 1);
  return 1;
}

void CImgHoneyCombToRgb::GetMinMax(CImage* frame, int plane, double* min, double* max) {
  Window window(0, 0, frame->GetWidth(), frame->GetHeight());
  if (Contains(LowerCase(GetHeader()->GetCameraModel()), L"finepixs2pro")) {
    window = Window(49, 30, window.right - 48, window.bottom - 30);
  }
  RawRange range = kNothing;
  if (!window.IsEmpty()) {
    range = ExtremesOf(*frame, plane, window, [&](int y) { return y % 2 == 0 ? window.left | 1 : -1; });
    if (!(range.min < range.max)) {
      range = ExtremesOf(*frame, plane, window, [&](int y) { return window.left + ((window.left + y) & 1); });
    }
  }
  *min = range.min > range.max ? 0 : range.min;
  *max = range.min > range.max ? 0 : range.max;
}

int CImgHoneyCombToRgb::Do(tagHoneyCombStruct honeyComb, CVelImage* pSrc, int nProgress) {
  const int copied = CopyImage(*pSrc, nullptr, nullptr);
  return copied ? Do(honeyComb, nProgress) : copied;
}

int CImgHoneyCombToRgb::Do(tagHoneyCombStruct honeyComb, int nProgress) {
  HoneycombLattice lattice;
  if (!ArgCheck(honeyComb) || !GetCFAParam(honeyComb.nCFA, &lattice.x, &lattice.y)) return 0;
  const int width = GetWidth() - honeyComb.nTrimLeft - honeyComb.nTrimRight,
            height = GetHeight() - honeyComb.nTrimTop - honeyComb.nTrimBottom;
  const int planes = honeyComb.bMono ? 1 : 3;
  const ProgressScope progress(*this, nProgress, honeyComb.bMono ? 6145 : 6178,
                               height * (honeyComb.bGamma ? 1 + planes : 1));
  if (honeyComb.bSubtract) SubtractFromRaw(*this, honeyComb.fSubtract);
  const std::unique_ptr<CImage> frame = MakeRawFrame(*this, honeyComb.bToneCurve ? 2 : 1);
  CopySrcToDstImage(*frame);
  if (!ChangeSize(width, height, nullptr)) return 0;
  if (!honeyComb.bMono && !MakeColour(*this)) return 0;

  RawRange range{frame->GetLevelMin(0), frame->GetLevelMax(0)};
  if (honeyComb.nSrcBits != Float) range = {0, WhiteOf(honeyComb.nSrcBits)};
  if (honeyComb.bAutoRange) GetMinMax(frame.get(), 0, &range.min, &range.max);
  if (honeyComb.nSrcBits != Float) {
    ChangeBitImage(*frame, range, honeyComb.nDstBits);
    range = {0, WhiteOf(honeyComb.nDstBits)};
  }
  if (honeyComb.bToneCurve) ToneCurveCorrect(*frame, honeyComb, range);

  Strip strip(frame->GetWidth());
  for (int x = -1; x <= strip.width; ++x) {
    const bool first = lattice.IsOfRed(x, lattice.y);
    strip.Line(Strip::kWeights, 0)[x] = first ? kRedWeight : kBlueWeight;
    strip.Line(Strip::kWeights, 1)[x] = first ? kBlueWeight : kRedWeight;
  }
  const int top = honeyComb.nTrimTop;
  for (int y = top; y < top + height; y += Strip::kRows) {
    CImageToMem(*frame, y, honeyComb.bToneCurve ? 1 : 0, strip);
    MakeYImage(lattice, y, strip);
    if (!honeyComb.bMono) MakeRGBImage(lattice, y, strip);
    SynthImage(honeyComb, range, y, strip);
    ShowProgress(std::min(Strip::kRows, top + height - y));
  }
  if (honeyComb.bGamma) GammaCorrect(honeyComb.nDstBits, honeyComb.dGamma);
  SetHoneyCombImage(false);
  return 1;
}

bool CImgHoneyCombToRgb::ArgCheck(const tagHoneyCombStruct& honeyComb) const {
  const bool knowsBits = (honeyComb.nSrcBits == 12 && honeyComb.nDstBits == 16) ||
                         (honeyComb.nSrcBits == Float && honeyComb.nDstBits == Float);
  return !IsEmpty() && honeyComb.nCFA >= 1 && honeyComb.nCFA <= 14 && GetWidth() >= kSmallest &&
         GetHeight() >= kSmallest && honeyComb.nKind >= 1 && honeyComb.nKind <= 3 && knowsBits &&
         TrimsLeavePixels(honeyComb, *this) && (!honeyComb.bToneCurve || honeyComb.pGain);
}

void CImgHoneyCombToRgb::CopySrcToDstImage(CImage& frame) {
  CopyRaw(*this, frame);
}

void CImgHoneyCombToRgb::ChangeBitImage(CImage& frame, const RawRange& range, int dstBits) {
  WidenBits(frame, range, dstBits);
}

void CImgHoneyCombToRgb::ToneCurveCorrect(CImage& frame, const tagHoneyCombStruct& honeyComb,
                                          const RawRange& range) {
  const ToneCorrection tone(honeyComb, HoneycombLattice::kPositions, range);
  ForLines(Team::All, 0, frame.GetHeight(), [&](int y) {
    std::array<int, 4> positions;
    for (int x = 0; x < 4; ++x) {
      positions[x] = HoneycombLattice::PositionOf(x, y);
    }
    tone.Line(ReadFrameLine(frame, y, 0), FrameLine(frame, y, 1), frame.GetWidth(), positions);
  });
}

void CImgHoneyCombToRgb::GammaCorrect(int dstBits, double gamma) {
  CorrectGamma(*this, dstBits, gamma);
}

void CImgHoneyCombToRgb::CImageToMem(CImage& frame, int y, int plane, Strip& strip) {
  for (int k = 0; k < Strip::kLines; ++k) {
    const float* in = ReadFrameLine(frame, Inside(y - Strip::kAbove + k, frame.GetHeight()), plane);
    float* line = strip.Line(Strip::kRaw, k);
    std::copy_n(in, strip.width, line);
    for (int i = 1; i <= Strip::kBeyond; ++i) {
      line[-i] = in[Inside(-i, strip.width)];
      line[strip.width + i - 1] = in[Inside(strip.width + i - 1, strip.width)];
    }
  }
}

// Both kinds of square are computed in each column, and the right one is chosen, which makes vectors of the
// loops. The colour of a pixel's cell is the nearer one: that of the site with which the cell begins.

void CImgHoneyCombToRgb::MakeYImage(const HoneycombLattice& lattice, int y, Strip& strip) {
  const int end = strip.width + 1, sites = lattice.x & 1;
  for (int k = Strip::kAbove - 1; k <= Strip::kLines - Strip::kAbove; ++k) {
    const int row = y - Strip::kAbove + k - lattice.y;
    const float *above2 = strip.Line(Strip::kRaw, k - 2), *above = strip.Line(Strip::kRaw, k - 1),
                *here = strip.Line(Strip::kRaw, k), *below = strip.Line(Strip::kRaw, k + 1),
                *below2 = strip.Line(Strip::kRaw, k + 2);
    const float *nearWeight = strip.Line(Strip::kWeights, row >> 1 & 1),
                *farWeight = strip.Line(Strip::kWeights, 1 - (row >> 1 & 1));
    float* bright = strip.Line(Strip::kBrightness, k);
    // The weights add up to 1, and without a product for green they do so exactly.
    const auto weighted = [=](int x, float near, float green, float far) KORIMG_IN_LOOP {
      return green + (nearWeight[x] * (near - green) + farWeight[x] * (far - green));
    };
    const auto falling = [=](int x) KORIMG_IN_LOOP { return 0.5f * (above[x - 1] + below[x + 1]); };
    const auto rising = [=](int x) KORIMG_IN_LOOP { return 0.5f * (above[x + 1] + below[x - 1]); };
    if (lattice.IsGreenRow(row + lattice.y)) {
      RunInLongVectors([=]() KORIMG_IN_LOOP {
#pragma omp simd
        for (int x = -1; x < end; ++x) {
          const bool isEmpty = (x & 1) == sites;
          const float near = isEmpty ? above[x] : falling(x), far = isEmpty ? below[x] : rising(x);
          bright[x] = weighted(x, near, isEmpty ? 0.5f * (here[x - 1] + here[x + 1]) : here[x], far);
        }
      });
    } else {
      const int phase = (row & 2) - lattice.x;
      RunInLongVectors([=]() KORIMG_IN_LOOP {
#pragma omp simd
        for (int x = -1; x < end; ++x) {
          const bool isSite = (x & 1) == sites, isRed = ((x + phase) & 2) == 0;
          const float across = isRed ? 0.5f * (here[x - 2] + here[x + 2]) : 0.5f * (above2[x] + below2[x]);
          const float diagonal = isRed ? falling(x) : rising(x);
          bright[x] =
              weighted(x, isSite ? here[x] : here[x - 1], isSite ? diagonal : 0.5f * (above[x] + below[x]),
                       isSite ? across : here[x + 1]);
        }
      });
    }
  }
}

void CImgHoneyCombToRgb::MakeRGBImage(const HoneycombLattice& lattice, int y, Strip& strip) {
  const int end = strip.width + 1, sites = lattice.x & 1;
  const auto mean = [](float a, float b) KORIMG_IN_LOOP { return 0.5f * (a + b); };
  constexpr int kFirst = Strip::kAbove - 1, kLast = Strip::kLines - Strip::kAbove;
  // Along the rows that hold a colour's sites,
  for (int k = kFirst - 1; k <= kLast + 1; ++k) {
    const int row = y - Strip::kAbove + k;
    const float *above2 = strip.Line(Strip::kRaw, k - 2), *here = strip.Line(Strip::kRaw, k),
                *below2 = strip.Line(Strip::kRaw, k + 2);
    float *red = strip.Line(kRed, k), *green = strip.Line(kGreen, k), *blue = strip.Line(kBlue, k);
    if (lattice.IsGreenRow(row)) {
      RunInLongVectors([=]() KORIMG_IN_LOOP {
#pragma omp simd
        for (int x = -1; x < end; ++x) {
          green[x] = (x & 1) == sites ? mean(here[x - 1], here[x + 1]) : here[x];
        }
      });
      continue;
    }
    float *redSites = strip.Line(Strip::kRedSites, k), *blueSites = strip.Line(Strip::kBlueSites, k);
    const int phase = ((row - lattice.y) & 2) - lattice.x;
    RunInLongVectors([=]() KORIMG_IN_LOOP {
#pragma omp simd
      for (int x = -2; x <= end; ++x) {
        const bool isRed = ((x + phase) & 2) == 0;
        const float other = (above2[x] + below2[x]) * 0.25f + mean(here[x - 2], here[x + 2]) * 0.5f;
        redSites[x] = isRed ? here[x] : other;
        blueSites[x] = isRed ? other : here[x];
      }
#pragma omp simd
      for (int x = -1; x < end; ++x) {
        const bool isSite = (x & 1) == sites;
        red[x] = isSite ? redSites[x] : mean(redSites[x - 1], redSites[x + 1]);
        blue[x] = isSite ? blueSites[x] : mean(blueSites[x - 1], blueSites[x + 1]);
      }
    });
  }
  // and then between those rows.
  for (int k = kFirst; k <= kLast; ++k) {
    const bool isGreenRow = lattice.IsGreenRow(y - Strip::kAbove + k);
    for (const int colour : {kRed, kGreen, kBlue}) {
      if ((colour == kGreen) == isGreenRow) continue;
      const float *above = strip.Line(colour, k - 1), *below = strip.Line(colour, k + 1);
      float* made = strip.Line(colour, k);
      RunInLongVectors([=]() KORIMG_IN_LOOP {
#pragma omp simd
        for (int x = -1; x < end; ++x) {
          made[x] = mean(above[x], below[x]);
        }
      });
    }
  }
}

void CImgHoneyCombToRgb::SynthImage(const tagHoneyCombStruct& honeyComb, const RawRange& range, int y,
                                    Strip& strip) {
  const bool cuts = honeyComb.bLevelCut != 0;
  const auto low = cuts ? static_cast<float>(range.min) : -std::numeric_limits<float>::infinity(),
             high = cuts ? static_cast<float>(range.max) : std::numeric_limits<float>::infinity();
  const int left = honeyComb.nTrimLeft, width = GetWidth();
  const int rows = std::min(Strip::kRows, GetHeight() + honeyComb.nTrimTop - y);
  for (int k = Strip::kAbove; k < Strip::kAbove + rows; ++k) {
    const float *brightAbove = strip.Line(Strip::kBrightness, k - 1) + left,
                *bright = strip.Line(Strip::kBrightness, k) + left,
                *brightBelow = strip.Line(Strip::kBrightness, k + 1) + left;
    for (int p = 0; p < GetPlanes(); ++p) {
      const float *above = strip.Line(p, k - 1) + left, *here = strip.Line(p, k) + left,
                  *below = strip.Line(p, k + 1) + left;
      float *sums = strip.Line(Strip::kColumnSums, 0) + left,
            *out = GetWritableLine(0, y + k - Strip::kAbove - honeyComb.nTrimTop, p);
      if (honeyComb.bMono) {
        for (int x = 0; x < width; ++x) {
          out[x] = Limited(bright[x], low, high);
        }
        continue;
      }
      RunInLongVectors([=]() KORIMG_IN_LOOP {
#pragma omp simd
        for (int x = -1; x <= width; ++x) {
          sums[x] = (here[x] - bright[x]) + ((above[x] - brightAbove[x]) + (below[x] - brightBelow[x]));
        }
#pragma omp simd
        for (int x = 0; x < width; ++x) {
          const float made = bright[x] + ((sums[x - 1] + sums[x]) + sums[x + 1]) * (1.0f / 9);
          const float raised = made < low ? low : made;
          out[x] = raised > high ? high : raised;
        }
      });
    }
  }
}
