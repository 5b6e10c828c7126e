#include "korimg/raw/CImgBayerToRgb.h"

#include <algorithm>
#include <array>
#include <vector>

#include "korimg/image/internal/Frame.h"
#include "korimg/levels/CImgAutoLevel.h"
#include "korimg/platform/CParallel.h"
#include "korimg/raw/internal/Colours.h"
#include "korimg/raw/internal/RawFrame.h"

using namespace korimg;

namespace {

/// Column and row of red in the 2 x 2 cell; blue lies diagonally opposite.
struct RedSite {
  int x, y;

  explicit RedSite(int cfa) : x(cfa == 2 || cfa == 3), y(cfa == 3 || cfa == 4) {}
  /// Parity of the columns of red or blue in a row.
  int ColouredColumns(int row) const { return (x + y + row) & 1; }
};

}  // namespace

/// Eight lines of a frame around a pair of rows, in several planes. Line 0 is an even row of the frame. From
/// pair to pair the strip slides down by two lines, and keeps what was made of the other six.
struct CImgBayerToRgb::Strip {
  static constexpr int kLines = 8, kPlanes = 7;
  static constexpr int kBrightness = 3, kRaw = 4, kRedAndBlue = 5, kSynthesis = 6;  // after the colours

  explicit Strip(int width) : width(width), pixels(static_cast<size_t>(width) * kLines * kPlanes) {}
  float* Line(int plane, int line) {
    return &pixels[static_cast<size_t>(plane * kLines + (top + line) % kLines) * width];
  }
  void Restart() { top = kept = 0; }
  void SlideDown() {
    top = (top + 2) % kLines;
    kept = kLines - 2;
  }
  /// The first of the lines from `margin` on whose surroundings of as many lines are new.
  int FirstNew(int margin) const { return std::max(margin, kept - margin); }

  int width;
  int top = 0;   ///< where line 0 lies in the ring of lines
  int kept = 0;  ///< lines that are there from the pair before
  std::vector<float> pixels;
};

int CImgBayerToRgb::Do(tagBayerStruct bayer, CVelImage* pSrc, int nProgress) {
  const int copied = CopyImage(*pSrc, nullptr, nullptr);
  return copied ? Do(bayer, nProgress) : copied;
}

int CImgBayerToRgb::Do(tagBayerStruct bayer, int nProgress) {
  if (bayer.bRoundUp == 1) return DoRoundUp(bayer, nProgress);
  if (!ArgCheck(bayer)) return 0;
  const int width = GetWidth(), height = GetHeight(), step = height / 100;
  const int gammaSteps = bayer.bGamma ? 3 * (height - bayer.nTrimBottom - bayer.nTrimTop) : 0;
  const ProgressScope progress(*this, nProgress, bayer.bMono ? 6145 : 6178,
                               height - 7 + 10 * step + gammaSteps);
  if (bayer.bSubtract) SubtractFromRaw(*this, bayer.fSubtract);
  ShowProgress(step);

  const std::unique_ptr<CImage> frame = MakeRawFrame(*this, bayer.bToneCurve ? 2 : 1);
  ShowProgress(step);
  CopySrcToBayer(*frame);
  ShowProgress(step);
  ChangeBitImage(*frame, bayer.nSrcBits, bayer.nDstBits, bayer.bAutoRange != 0);
  ShowProgress(step);

  if (!ChangeSize(width - bayer.nTrimLeft - bayer.nTrimRight, height - bayer.nTrimTop - bayer.nTrimBottom,
                  nullptr)) {
    return 0;
  }
  ShowProgress(step);
  if (!bayer.bMono && !MakeColour(*this)) return 0;
  ShowProgress(step);

  RawRange range{0, WhiteOf(bayer.nDstBits)};
  if (bayer.bAutoRange) {
    frame->GetMinMax(0, &range.min, &range.max);
  } else if (bayer.nSrcBits == Float) {
    range = {frame->GetLevelMin(0), frame->GetLevelMax(0)};
  }
  ShowProgress(step);
  if (bayer.bToneCurve) ToneCurveCorrect(*frame, bayer, range);
  const int plane = bayer.bToneCurve ? 1 : 0;
  const bool byLines = !CanHalide(*frame, *this, bayer.nCFA);
  if (byLines) {
    DevelopByLines(*frame, plane, bayer, range);
  } else {
    DevelopByPipelines(*frame, plane, bayer, range);
  }
  if (bayer.bGamma) GammaCorrect(bayer.nDstBits, bayer.dGamma);
  if (byLines) ShowProgressRest();
  SetBayerImage(false);
  return 1;
}

bool CImgBayerToRgb::ArgCheck(const tagBayerStruct& bayer) const {
  const bool knowsBits = bayer.nSrcBits == 12 || bayer.nSrcBits == 14
                             ? bayer.nDstBits == 16
                             : bayer.nSrcBits == Float && bayer.nDstBits == Float;
  return !IsEmpty() && bayer.nCFA >= 1 && bayer.nCFA <= 4 && GetWidth() >= 6 && GetHeight() >= 6 &&
         knowsBits && TrimsLeavePixels(bayer, *this) && (!bayer.bToneCurve || bayer.pGain);
}

void CImgBayerToRgb::CopySrcToBayer(CImage& frame) {
  CopyRaw(*this, frame);
}

void CImgBayerToRgb::ChangeBitImage(CImage& frame, int srcBits, int dstBits, bool autoRange) {
  if (srcBits == Float) return;
  RawRange range{0, WhiteOf(srcBits)};
  if (autoRange) frame.GetMinMax(0, &range.min, &range.max);
  WidenBits(frame, range, dstBits);
}

int CImgBayerToRgb::GetGain(int nCFA, double* pGain) {
  return GetGain(nCFA, pGain, *this);
}

int CImgBayerToRgb::GetGain(int nCFA, double* pGain, CImage& image) {
  if (nCFA < 1 || nCFA > 4) return 0;
  float medians[4] = {1, 1, 1, 1};
  // Lent for the measurement, which an exception may leave.
  struct Loan {
    CImage& owner;
    CImgAutoLevel borrower;
    explicit Loan(CImage& image) : owner(image) { owner.Swap(borrower); }
    ~Loan() { owner.Swap(borrower); }
  } loan(image);
  loan.borrower.GetMedianBayer(medians, 1);
  const bool greenFirst = nCFA == 2 || nCFA == 4;
  const int green[2] = {greenFirst ? 0 : 1, greenFirst ? 3 : 2};
  const auto mean = static_cast<float>(0.5 * (medians[green[0]] + medians[green[1]]));
  for (int i = 0; i < 4; ++i) {
    const bool reference = i == green[0] || i == green[1] || !(medians[i] >= 1);
    pGain[i] = reference ? 1.0 : static_cast<double>(mean) / medians[i];
  }
  return 1;
}

bool CImgBayerToRgb::CanHalide(const CImage& frame, const CImage& image, int nCFA) {
  return MayRunPipelines(frame, image) && nCFA < 5;
}

void CImgBayerToRgb::ToneCurveCorrect(CImage& frame, const tagBayerStruct& bayer, const RawRange& range) {
  const ToneCorrection tone(bayer, 4, range);
  if (MayRunPipelines(frame)) {
    // By levelcut and knee.
    static constexpr std::array kPlain = {tone_curve_correct_float, tone_curve_correct_maker_float,
                                          tone_curve_correct_levelcut_float,
                                          tone_curve_correct_levelcut_maker_float};
    static constexpr std::array kByPower = {
        tone_curve_correct_curve_power_float, tone_curve_correct_curve_power_maker_float,
        tone_curve_correct_curve_power_levelcut_float, tone_curve_correct_curve_power_levelcut_maker_float};
    const int form = (bayer.bLevelCut ? 2 : 0) + (bayer.bKnee ? 1 : 0);
    const auto four = [&](double Knee::*number, int i) { return static_cast<float>(tone.knees[i].*number); };
    const auto run = [&](auto* pipeline, auto... exponent) {
      pipeline(PlaneBuffer(frame, 0), static_cast<float>(range.min), static_cast<float>(range.max),
               four(&Knee::gain, 0), four(&Knee::gain, 1), four(&Knee::gain, 2), four(&Knee::gain, 3),
               four(&Knee::pointX, 0), four(&Knee::pointX, 1), four(&Knee::pointX, 2), four(&Knee::pointX, 3),
               four(&Knee::pointY, 0), four(&Knee::pointY, 1), four(&Knee::pointY, 2), four(&Knee::pointY, 3),
               four(&Knee::ratio, 0), four(&Knee::ratio, 1), four(&Knee::ratio, 2), four(&Knee::ratio, 3),
               exponent..., PlaneBuffer(frame, 1, false));
    };
    if (bayer.bCurvePower) {
      run(kByPower[form], static_cast<float>(bayer.dCurvePower));
    } else {
      run(kPlain[form]);
    }
    return;
  }
  ForLines(Team::All, 0, frame.GetHeight(), [&](int y) {
    const int left = 2 * (y & 1), right = left + 1;
    tone.Line(ReadFrameLine(frame, y, 0), FrameLine(frame, y, 1), frame.GetWidth(),
              {left, right, left, right});
  });
}

void CImgBayerToRgb::DevelopByPipelines(CImage& frame, int plane, const tagBayerStruct& bayer,
                                        const RawRange& range) {
  // By the number of the colour filter array.
  static constexpr std::array kColour = {bayer_to_rgb_RGGB_float, bayer_to_rgb_GRBG_float,
                                         bayer_to_rgb_BGGR_float, bayer_to_rgb_GBRG_float};
  static constexpr std::array kColourCut = {
      bayer_to_rgb_level_cut_RGGB_float, bayer_to_rgb_level_cut_GRBG_float, bayer_to_rgb_level_cut_BGGR_float,
      bayer_to_rgb_level_cut_GBRG_float};
  static constexpr std::array kGray = {bayer_to_gray_RGGB_float, bayer_to_gray_GRBG_float,
                                       bayer_to_gray_BGGR_float, bayer_to_gray_GBRG_float};
  static constexpr std::array kGrayCut = {
      bayer_to_gray_level_cut_RGGB_float, bayer_to_gray_level_cut_GRBG_float,
      bayer_to_gray_level_cut_BGGR_float, bayer_to_gray_level_cut_GBRG_float};
  const auto low = static_cast<float>(range.min), high = static_cast<float>(range.max);
  const int cfa = bayer.nCFA - 1;
  PlaneBuffer in(frame, plane);
  std::vector<PlaneBuffer> out;
  for (int p = 0; p < (bayer.bMono ? 1 : 3); ++p) {
    out.emplace_back(*this, p, false).SetMin(bayer.nTrimLeft, bayer.nTrimTop);
  }
  if (bayer.bMono) {
    bayer.bLevelCut ? kGrayCut[cfa](in, low, high, out[0]) : kGray[cfa](in, out[0]);
  } else {
    bayer.bLevelCut ? kColourCut[cfa](in, low, high, out[0], out[1], out[2])
                    : kColour[cfa](in, out[0], out[1], out[2]);
  }
}

void CImgBayerToRgb::DevelopByLines(CImage& frame, int plane, const tagBayerStruct& bayer,
                                    const RawRange& range) {
  const int height = frame.GetHeight();
  ShowProgress(height / 100);
  const int first = std::max(3, bayer.nTrimTop / 2 * 2 + 1);
  const int last = std::min(height - 5, (height - bayer.nTrimBottom) / 2 * 2 - 1);
  if (height - 4 <= 3 || last < first) return;
  std::vector<Strip> strips(CParallel::GetMaxThreads(), Strip(frame.GetWidth()));
  constexpr int kRun = 64;  // rows that one thread makes from top to bottom
  ForLines(Team::All, 0, (last - first) / kRun + 1, [&](int run) {
    Strip& strip = strips[CParallel::GetThreadNum()];
    strip.Restart();
    const int begin = first + run * kRun;
    for (int y = begin; y <= std::min(begin + kRun - 2, last); y += 2, strip.SlideDown()) {
      CopyOrgToDisp(frame, plane, y, strip);
      MakeYImage(bayer.nCFA, strip);
      if (!bayer.bMono) MakeRGBImage(bayer.nCFA, strip);
      SynthImage(bayer, range, y, strip);
      ShowProgress(2);
    }
  });
}

void CImgBayerToRgb::CopyOrgToDisp(CImage& frame, int plane, int y, Strip& strip) {
  for (int line = strip.FirstNew(0); line < Strip::kLines; ++line) {
    std::copy_n(ReadFrameLine(frame, y - 3 + line, plane), strip.width, strip.Line(Strip::kRaw, line));
  }
}

// The sums below are added in the pipelines' order, for the same bits. Both kinds of site are computed in
// each column, which makes vectors of the loops.

void CImgBayerToRgb::MakeYImage(int nCFA, Strip& strip) {
  const int last = strip.width - 1;
  for (int k = strip.FirstNew(1); k <= 6; ++k) {
    const float *above = strip.Line(Strip::kRaw, k - 1), *here = strip.Line(Strip::kRaw, k),
                *below = strip.Line(Strip::kRaw, k + 1);
    float* sum = strip.Line(Strip::kRedAndBlue, k);
#pragma omp simd
    for (int x = 1; x < last; ++x) {
      sum[x] = here[x] + 0.25f * ((above[x - 1] + below[x - 1]) + (above[x + 1] + below[x + 1]));
    }
    // The raw number stands for all colours there.
    sum[0] = here[0] + here[0];
    sum[last] = here[last] + here[last];
  }
  for (int k = strip.FirstNew(2); k <= 5; ++k) {
    const int coloured = RedSite(nCFA).ColouredColumns(k);
    const float *above = strip.Line(Strip::kRaw, k - 1), *here = strip.Line(Strip::kRaw, k),
                *below = strip.Line(Strip::kRaw, k + 1);
    const float *sumAbove = strip.Line(Strip::kRedAndBlue, k - 1), *sum = strip.Line(Strip::kRedAndBlue, k),
                *sumBelow = strip.Line(Strip::kRedAndBlue, k + 1);
    float* bright = strip.Line(Strip::kBrightness, k);
#pragma omp simd
    for (int x = 1; x < last; ++x) {
      const float atColour = sum[x] + 0.25f * ((above[x] + below[x]) + (here[x - 1] + here[x + 1]));
      const float atGreen = here[x] + 0.25f * ((sumAbove[x] + sumBelow[x]) + (sum[x - 1] + sum[x + 1]));
      bright[x] = ((x & 1) == coloured ? atColour : atGreen) * (1.0f / 3);
    }
    bright[0] = here[0];
    bright[last] = here[last];
  }
}

void CImgBayerToRgb::MakeRGBImage(int nCFA, Strip& strip) {
  const int last = strip.width - 1;
  const RedSite red(nCFA);
  for (int k = strip.FirstNew(2); k <= 5; ++k) {
    const int coloured = red.ColouredColumns(k);
    const bool isRedRow = (k & 1) == red.y;
    const float *above = strip.Line(Strip::kRaw, k - 1), *here = strip.Line(Strip::kRaw, k),
                *below = strip.Line(Strip::kRaw, k + 1);
    float *own = strip.Line(isRedRow ? kRed : kBlue, k), *other = strip.Line(isRedRow ? kBlue : kRed, k),
          *green = strip.Line(kGreen, k);
#pragma omp simd
    for (int x = 1; x < last; ++x) {
      const bool isColoured = (x & 1) == coloured;
      const float stacked = above[x] + below[x], beside = here[x - 1] + here[x + 1];
      const float corners = (above[x - 1] + below[x - 1]) + (above[x + 1] + below[x + 1]);
      own[x] = isColoured ? here[x] : 0.5f * beside;
      green[x] = isColoured ? 0.25f * (stacked + beside) : here[x];
      other[x] = isColoured ? 0.25f * corners : 0.5f * stacked;
    }
    for (float* colour : {own, green, other}) {
      colour[0] = here[0];
      colour[last] = here[last];
    }
  }
}

void CImgBayerToRgb::SynthImage(const tagBayerStruct& bayer, const RawRange& range, int y, Strip& strip) {
  const auto low = static_cast<float>(range.min), high = static_cast<float>(range.max);
  const int border = bayer.bMono ? 0 : 1;
  const int left = std::max(bayer.nTrimLeft, border),
            right = std::min(bayer.nTrimLeft + GetWidth(), strip.width - border);
  float *columnSum = strip.Line(Strip::kSynthesis, 0), *colour = strip.Line(Strip::kSynthesis, 1);
  for (int k = 3; k <= 4; ++k) {
    const int row = y + k - 3 - bayer.nTrimTop;
    if (row < 0 || row >= GetHeight()) continue;
    const float* bright = strip.Line(Strip::kBrightness, k);
    const float *brightAbove = strip.Line(Strip::kBrightness, k - 1),
                *brightBelow = strip.Line(Strip::kBrightness, k + 1);
    for (int p = 0; p < (bayer.bMono ? 1 : 3); ++p) {
      const float *above = strip.Line(p, k - 1), *here = strip.Line(p, k), *below = strip.Line(p, k + 1);
      const float* made = bright;
      if (!bayer.bMono) {
#pragma omp simd
        for (int x = left - 1; x <= right; ++x) {
          columnSum[x] = (here[x] - bright[x]) + ((above[x] - brightAbove[x]) + (below[x] - brightBelow[x]));
        }
#pragma omp simd
        for (int x = left; x < right; ++x) {
          colour[x] = bright[x] + ((columnSum[x - 1] + columnSum[x]) + columnSum[x + 1]) * (1.0f / 9);
        }
        made = colour;
      }
      float* out = GetWritableLine(0, row, p);
      for (int x = left; x < right; ++x) {
        out[x - bayer.nTrimLeft] = bayer.bLevelCut ? Limited(made[x], low, high) : made[x];
      }
    }
  }
}

void CImgBayerToRgb::GammaCorrect(int dstBits, double gamma) {
  CorrectGamma(*this, dstBits, gamma);
}

int CImgBayerToRgb::DoRoundUp(const tagBayerStruct& bayer, int nProgress) {
  const int width = GetWidth() / 2, height = GetHeight() / 2, way = bayer.nRoundUpGreen;
  if (way < 0 || way > 4 || IsEmpty() || width < 1 || height < 1) return 0;
  CImage mosaic;
  if (!mosaic.CopyImage(*this, nullptr)) return 0;
  const ProgressScope progress(*this, nProgress, 6178, height);
  if (!ChangeSize(width, height, nullptr) || !MakeColour(*this)) return 0;
  const RedSite red(bayer.nCFA);
  const int upperGreen = 1 - red.ColouredColumns(0);
  ForLines(Team::All, 0, height, [&](int y) {
    const float* rows[] = {ReadFrameLine(mosaic, 2 * y, 0), ReadFrameLine(mosaic, 2 * y + 1, 0)};
    float* out[] = {GetWritableLine(0, y, kRed), GetWritableLine(0, y, kGreen), GetWritableLine(0, y, kBlue)};
    for (int x = 0; x < width; ++x) {
      const float upper = rows[0][2 * x + upperGreen], lower = rows[1][2 * x + 1 - upperGreen];
      out[kRed][x] = rows[red.y][2 * x + red.x];
      out[kBlue][x] = rows[1 - red.y][2 * x + 1 - red.x];
      out[kGreen][x] = way == 0   ? upper
                       : way == 1 ? lower
                       : way == 2 ? (upper + lower) * 0.5f
                       : way == 3 ? std::min(upper, lower)
                                  : std::max(upper, lower);
    }
    ShowProgress(1);
  });
  SetBayerImage(false);
  return 1;
}
