// What operations show while they run: their text, and steps that add up to their total.
#include <gtest/gtest.h>

#include "korimg/calibration/CImgDark.h"
#include "korimg/calibration/CImgFlat.h"
#include "korimg/calibration/CImgSelfFlat.h"
#include "korimg/calibration/CImgSkySelect.h"
#include "korimg/calibration/CImgSplineInterpolation.h"
#include "korimg/colour/CImgCmyComposit.h"
#include "korimg/colour/CImgColorBalance.h"
#include "korimg/colour/CImgColorCorrect.h"
#include "korimg/colour/CImgFalseColor.h"
#include "korimg/colour/CImgLabColorEnhance.h"
#include "korimg/colour/CImgLrgbCmpst.h"
#include "korimg/colour/CImgRgbCmpst.h"
#include "korimg/colour/CImgSeparation.h"
#include "korimg/composite/CImgComposit.h"
#include "korimg/composite/stacking/CImgNormalize.h"
#include "korimg/filters/CImgCosmicRays.h"
#include "korimg/filters/CImgFilter.h"
#include "korimg/filters/CImgFilterBlur.h"
#include "korimg/filters/CImgFilterMisc.h"
#include "korimg/filters/CImgFilterSharp.h"
#include "korimg/filters/CImgFilterSpecial.h"
#include "korimg/geometry/CImgCrop.h"
#include "korimg/geometry/CImgExpansion.h"
#include "korimg/geometry/CImgFlip.h"
#include "korimg/geometry/CImgMosaic.h"
#include "korimg/geometry/CImgResize.h"
#include "korimg/geometry/CImgResolution.h"
#include "korimg/geometry/CImgRotate.h"
#include "korimg/geometry/CImgScroll.h"
#include "korimg/geometry/CImgSoftBinning.h"
#include "korimg/geometry/fourier/CImgFourier.h"
#include "korimg/image/CImageMask.h"
#include "korimg/image/CImageSelection.h"
#include "korimg/image/CImgBright.h"
#include "korimg/image/CImgCalculation.h"
#include "korimg/image/CImgCutOff.h"
#include "korimg/image/CImgInvert.h"
#include "korimg/image/Progress.h"
#include "korimg/levels/CImgCorrectCurve.h"
#include "korimg/levels/CImgHstEql.h"
#include "korimg/levels/CImgHyperbolic.h"
#include "korimg/levels/CImgMidtones.h"
#include "korimg/levels/CImgReduceTone.h"
#include "korimg/levels/CImgToneCurve.h"
#include "korimg/levels/CImgWindowing.h"
#include "korimg/measurement/CImgEvaluateFocus.h"
#include "korimg/measurement/CImgMatching.h"
#include "korimg/platform/StringTable.h"
#include "korimg/raw/CImgBayerToRgb.h"
#include "korimg/raw/CImgHoneyCombToRgb.h"
#include "korimg/restoration/CImgLucy.h"
#include "korimg/restoration/CImgMem.h"
#include "korimg/restoration/CImgRUsm.h"
#include "korimg/restoration/CImgRttnGrdnt.h"
#include "korimg/restoration/CImgWavelet.h"
#include "korimg/restoration/CImgWiener.h"

#include "tests/support/Images.h"

using namespace korimg;
using namespace korimg::test;

namespace {

constexpr int kWidth = 71, kHeight = 67, kLines = 3 * kHeight;

/// A window that notes the texts opened and closed, and the percentages.
struct Display {
  std::vector<std::wstring> opened;
  int closed = 0;
  std::vector<int> steps;
  HWND window = CreateMessageWindow([this](unsigned message, std::uintptr_t first, std::intptr_t second) {
    if (message != kProgressMessage) return 0;
    if (first == 0) opened.emplace_back(second ? reinterpret_cast<const wchar_t*>(second) : L"");
    if (first == 1) steps.push_back(static_cast<int>(second));
    if (first == 2) ++closed;
    return 0;
  });
  ~Display() { DestroyMessageWindow(window); }
};

struct Stage {
  std::shared_ptr<CVmManager> store;
  HWND window;
  std::shared_ptr<CVelImage> src = Make(store, kWidth, kHeight, 3, Random(100, 900));
  std::vector<std::shared_ptr<CVelImage>> kept = {};

  template <class Image>
  Image& Target(int planes = 3) {
    const auto image = Make<Image>(store, kWidth, kHeight, planes, Random(100, 900));
    image->SetProgressHandle(window);
    kept.push_back(image);
    return *image;
  }
};

/// What is shown on contiguous stores.
enum Planes { Silent, Opens, Steps };

/// Digital development with a gamma for all planes.
template <class F>
void Develop(Stage& s, double gamma, F&& render) {
  double background[] = {200, 0, 0}, r[] = {1, 1, 1}, gammas[] = {gamma, gamma, gamma};
  int planes[] = {0, 1, 2};
  float min[3], range[3], a[3], b[3];
  auto& target = s.Target<CImgFilterSpecial>();
  target.DigitalDvlp1(background, 0, r, 1, gammas, 3, s.src.get(), min, range, a, b, 0);
  render(target, gammas, planes, min, range, a, b);
}

void Match(Stage& s, int fine) {
  double x = 0, y = 0;
  s.Target<CImgMatching>().Do(s.src.get(), &x, &y, 16, fine, 1);
}

struct Operation {
  const char* name;
  int text;
  int total;      ///< on lines, in steps of one; -1: in steps of several, which end near all
  Planes planes;  ///< there are no steps where pipelines run
  std::function<void(Stage&)> run;
};

const std::vector<Operation>& Operations() {
  static double ones[3] = {1, 1, 1}, twos[3] = {2, 2, 2};
  static int zeros[3] = {0, 0, 0};
  static float floats[3] = {10, 10, 10};
  static float line[2] = {0, 1};
  static tagMATRIX matrix = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  static float* curves[4] = {line, line, line, line};
  static const std::vector<Operation> all = {
      {"invert", 6124, kLines, Opens, [](Stage& s) { s.Target<CImgInvert>().Do(s.src.get(), nullptr, 1); }},
      {"bright", 6115, kLines, Opens,
       [](Stage& s) { s.Target<CImgBright>().Do(floats, floats, 100, s.src.get(), nullptr, 1); }},
      {"calculation", 6109, kLines, Opens,
       [](Stage& s) { s.Target<CImgCalculation>().Do(5, 0, 0, s.src.get(), nullptr, 1); }},
      {"cut-off", 6198, kLines, Steps,
       [](Stage& s) { s.Target<CImgCutOff>().Do(s.src.get(), 0, 1, nullptr, 1); }},
      {"tone curve", 6114, kLines, Opens,
       [](Stage& s) { s.Target<CImgToneCurve>().Do(curves, 2, s.src.get(), nullptr, 1, 0); }},
      {"h-alpha", 6194, kLines, Opens,
       [](Stage& s) { s.Target<CImgToneCurve>().DoHAlpha(0.5, 0.5, s.src.get(), nullptr, 1); }},
      {"dark", 6106, kLines, Opens, [](Stage& s) { s.Target<CVelImage>().DarkClbrtn(s.src.get(), 1); }},
      {"flat with gamma", 6105, kLines, Silent,
       [](Stage& s) {
         s.src->CalcMinMax();
         s.Target<CVelImage>().FlatClbrtn(s.src.get(), 0, 1.5, 1);
       }},
      {"flat", 6105, kLines, Silent,
       [](Stage& s) { s.Target<CVelImage>().FlatClbrtn(s.src.get(), nullptr, 1); }},
      {"dark and flat", 6195, kLines, Steps,
       [](Stage& s) {
         s.Target<CVelImage>().DarkFlat(s.src.get(), s.src.get(), nullptr, nullptr, nullptr, nullptr, 0, 0,
                                        nullptr, 1);
       }},
      {"dark between two", 6183, kLines, Steps,
       [](Stage& s) { s.Target<CImgDark>().DoInterpolateByScore(s.src.get(), 1.5, 1, 2, 1); }},
      {"normalise", 6197, -1, Steps,
       [](Stage& s) { s.Target<CImgNormalize>().Do(s.src.get(), floats, floats, 1); }},
      {"gaussian", 6131, kLines, Opens,
       [](Stage& s) { s.Target<CImgFilterBlur>().GaussianFilter(ones, s.src.get(), nullptr, 1); }},
      {"mean", 6119, kLines, Steps,
       [](Stage& s) { s.Target<CImgFilterBlur>().MeanFilter(twos, ones, s.src.get(), nullptr, 1); }},
      {"mean without edges", 6119, kLines, Steps,
       [](Stage& s) {
         s.Target<CImgFilterBlur>().MeanWithoutEdgeFilter(twos, ones, s.src.get(), nullptr, 1);
       }},
      {"median", 6120, -1, Steps,
       [](Stage& s) { s.Target<CImgFilterBlur>().MedianFilter(twos, s.src.get(), nullptr, 1); }},
      {"minimum", 6153, -1, Opens,
       [](Stage& s) { s.Target<CImgFilterMisc>().MinMaxFilter(twos, zeros, s.src.get(), nullptr, 1); }},
      {"sharpening", 6121, kLines, Steps,
       [](Stage& s) { s.Target<CImgFilterSharp>().SharpFilter(1, 1, s.src.get(), nullptr, 1); }},
      {"sharpening of edges", 6121, kLines, Steps,
       [](Stage& s) {
         s.Target<CImgFilterSharp>().SharpEdgeFilter(1, 1, 0, 0, 0, 0, 0, 0, 1, 50, s.src.get(), nullptr, 1);
       }},
      {"unsharp mask", 6122, kLines, Steps,
       [](Stage& s) { s.Target<CImgFilterSharp>().UnSharpMask(1, 1, 0, s.src.get(), nullptr, 1); }},
      {"six unsharp masks", 6147, kLines, Opens,
       [](Stage& s) {
         s.Target<CImgFilterSharp>().SubBandUnSharpMask(1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0,
                                                        0, 0, s.src.get(), nullptr, 1);
       }},
      {"equalisation", 6177, 3 * 258, Steps, [](Stage& s) { s.Target<CImgHstEql>().Do(s.src.get()); }},
      {"posterisation", 6144, kLines, Steps,
       [](Stage& s) { s.Target<CImgReduceTone>().Do(9, s.src.get(), nullptr, 1); }},
      {"correction curve", 6203, kLines, Steps,
       [](Stage& s) { s.Target<CImgCorrectCurve>().Do(2, 0, 255, s.src.get(), nullptr, 1); }},
      {"midtones", 6114, kLines, Steps,
       [](Stage& s) {
         const CImgMidtones::Parameters parameters[3];
         s.Target<CImgMidtones>().Do(parameters, 0, s.src.get(), nullptr, 1);
       }},
      {"hyperbolic", 6114, kLines, Steps,
       [](Stage& s) {
         const CImgHyperbolic::Parameters parameters[3];
         s.Target<CImgHyperbolic>().Do(parameters, 0, s.src.get(), nullptr, 1);
       }},
      {"spline", 6201, kLines, Opens,
       [](Stage& s) {
         CSpline::Points curves[4];
         for (CSpline::Points& curve : curves) {
           curve.Add({0, 0});
           curve.Add({1, 1});
         }
         s.Target<CImgSplineInterpolation>().Do(curves, s.src.get(), nullptr, 1);
       }},
      {"ramp", 6139, kLines, Steps,
       [](Stage& s) {
         s.Target<CImgFlat>().DoFlatPoint(s.src.get(), ones, ones, ones, ones, 0, nullptr, 1);
       }},
      {"self-flat", 6205, 0, Opens,
       [](Stage& s) { s.Target<CImgSelfFlat>().Do(0.1, 1, s.src.get(), nullptr, 1); }},
      {"red, green, blue", 6108, kHeight, Steps,
       [](Stage& s) {
         CVelImage* src = s.src.get();
         s.Target<CImgRgbCmpst>().Do(src, 1, 0, 0, src, 0, 0, 3, src, 0.5, 0, 0, 0, 0, nullptr, nullptr, 1,
                                     CString());
       }},
      {"cyan, magenta, yellow", 6136, kHeight, Steps,
       [](Stage& s) {
         CVelImage* src = s.src.get();
         s.Target<CImgCmyComposit>().Do(src, 1, 0, 0, src, 0, 0, 3, src, 0.5, 0, 0, 0, 0, nullptr, 0, 1);
       }},
      {"luminance and colour", 6103, kHeight, Steps,
       [](Stage& s) {
         CVelImage* src = s.src.get();
         s.Target<CImgLrgbCmpst>().DoLrgb(src, 1, 0, 0, src, 0, 0, 3, 0, 1, nullptr, 0, 0, 1);
       }},
      {"sky of squares", 6199, 16, Steps,
       [](Stage& s) {
         double deviation, median;
         s.Target<CImgSkySelect>().CalcStddevMedian(8, nullptr, nullptr, &deviation, &median, 1);
       }},
      {"clean sky", 6200, 16, Steps,
       [](Stage& s) {
         CRect found;
         s.Target<CImgSkySelect>().Do(16, nullptr, nullptr, 0, 0, &found, 1);
       }},
      {"decomposition", 6181, -1, Steps,
       [](Stage& s) { s.Target<CImgWavelet>().DoMultiResSubbandDecomposition(s.src.get(), 2, 1); }},
      {"composition", 6180, -1, Steps,
       [](Stage& s) {
         CArray<float, float> gains;
         gains.SetSize(2);
         s.Target<CImgWavelet>().DoMultiResSubbandComposition(s.src.get(), 2, 1, &gains, &gains, &gains, 1);
       }},
      {"rotational gradient", 6176, kLines, Steps,
       [](Stage& s) { s.Target<CImgRttnGrdnt>().Do(10, 1, 30, 30, s.src.get(), nullptr, 1); }},
      {"rotational unsharp mask", 6204, kLines, Steps,
       [](Stage& s) {
         const int mean = 0;
         s.Target<CImgRUsm>().Do(10, 1, 9, 0, 30, 30, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, mean, s.src.get(),
                                 nullptr, 1);
       }},
      {"window", 6191, kLines, Steps, [](Stage& s) { s.Target<CImgWindowing>().Do(0, 30, s.src.get(), 1); }},
      {"hot and cool", 6164, -1, Opens,
       [](Stage& s) { s.Target<CImgFilterMisc>().NoiseCut(1, 1, 0.2, 1, 0.2, s.src.get(), nullptr, 1); }},
      {"cosmic rays", 6164, kLines, Steps,
       [](Stage& s) { s.Target<CImgCosmicRays>().Do({}, s.src.get(), nullptr, 1); }},
      {"hot", 6164, -1, Steps,
       [](Stage& s) { s.Target<CImgFilterMisc>().NoiseCut(1, 0, 0.2, 1, 0.2, s.src.get(), nullptr, 1); }},
      {"faint noise", 6202, kLines, Silent,
       [](Stage& s) {
         s.Target<CImgFilterMisc>().NoiseCutWithBrightness(60, 2, 1, 0, s.src.get(), nullptr, 1);
       }},
      {"colour noise", 6192, -1, Steps,
       [](Stage& s) { s.Target<CImgFilterMisc>().ColorNoiseCut(60, 0, 1, s.src.get(), nullptr, 1); }},
      {"fringe", 6193, -1, Steps,
       [](Stage& s) { s.Target<CImgFilterMisc>().FalseColorCut(1, 1, 2, 0.5, 1, s.src.get(), nullptr, 1); }},
      {"guide errors", 6192, kLines, Steps,
       [](Stage& s) {
         s.Target<CImgFilterMisc>().GuideErrorCanceller(3, 0, 1, 0.5, s.src.get(), nullptr, 1);
       }},
      {"sky", 6123, kLines, Steps,
       [](Stage& s) {
         s.Target<CImgFilterMisc>().BkgSmooth(ones, ones, 0, twos, 1, s.src.get(), nullptr, 1);
       }},
      {"contours", 6171, kHeight, Steps,
       [](Stage& s) { s.Target<CImgFilterMisc>().ContourFilter(8, 0, s.src.get(), nullptr, 1); }},
      {"kernel", 6175, kLines, Steps,
       [](Stage& s) { s.Target<CImgFilterMisc>().Custom(0, ones, s.src.get(), nullptr, 1); }},
      {"edges", 6143, kLines, Steps,
       [](Stage& s) { s.Target<CImgFilter>().LaplacianFilter(0, s.src.get(), nullptr, 1); }},
      {"median of neighbours", 6120, -1, Steps,
       [](Stage& s) { s.Target<CImgFilter>().MedianFilter(0, s.src.get(), nullptr, 1); }},
      {"rank of neighbours", 6153, -1, Steps,
       [](Stage& s) { s.Target<CImgFilter>().MinMaxFilter(0, 1, s.src.get(), nullptr, 1); }},
      {"work image", 6126, -1, Steps,
       [](Stage& s) { std::unique_ptr<CVelImage>(s.Target<CImgFilter>().MakeFilterWork(2, 1)); }},
      {"work image with brightness", 6125, -1, Steps,
       [](Stage& s) { std::unique_ptr<CVelImage>(s.Target<CImgFilter>().MakeDDWork(2, 1)); }},
      {"digital development", 6116, kLines, Opens,
       [](Stage& s) {
         Develop(s, 1, [&](CImgFilterSpecial& target, double*, auto... rest) {
           target.DigitalDvlpOnly(1, s.src.get(), 1, rest..., nullptr, 1);
         });
       }},
      {"digital development after a curve", 6116, kLines, Steps,
       [](Stage& s) {
         Develop(s, 2, [&](CImgFilterSpecial& target, double* gamma, auto... rest) {
           target.DigitalDvlp2(1, gamma, s.src.get(), rest..., nullptr, 1);
         });
       }},
      {"digital development before a curve", 6116, kLines, Steps,
       [](Stage& s) {
         Develop(s, 2, [&](CImgFilterSpecial& target, double* gamma, auto... rest) {
           target.DigitalDvlpGmAftrDdp(1, gamma, s.src.get(), rest..., nullptr, 1);
         });
       }},
      {"smaller stars", 6165, -1, Steps,
       [](Stage& s) {
         s.Target<CImgFilterSpecial>().StarSharpFilter(twos, ones, ones, 1, s.src.get(), nullptr, 1);
       }},
      {"stars enhanced", 6173, kLines, Steps,
       [](Stage& s) {
         s.Target<CImgFilterSpecial>().StarEnhanceFilter(1, 1, 0.1, 0, s.src.get(), nullptr, 1);
       }},
      {"stars enhanced by a wide map", 6173, kLines, Opens,
       [](Stage& s) {
         s.Target<CImgFilterSpecial>().StarEnhanceFilter2(ones, ones, ones, 0, s.src.get(), nullptr, 1);
       }},
      {"mask of stars", 6196, kLines, Opens,
       [](Stage& s) { s.Target<CImgFilterSpecial>().StaryMask(1, 1, 0.1, 0, s.src.get(), nullptr, 1); }},
      {"smooth sky", 6174, kLines, Steps,
       [](Stage& s) {
         s.Target<CImgFilterSpecial>().NebularSmootherFilter(ones, ones, twos, 0, s.src.get(), nullptr, 1);
       }},
      {"flip rows", 6127, kLines, Steps, [](Stage& s) { s.Target<CImgFlip>().Do(0, s.src.get(), 1); }},
      {"flip columns", 6128, kLines, Steps, [](Stage& s) { s.Target<CImgFlip>().Do(1, s.src.get(), 1); }},
      {"scroll", 6146, kLines, Steps, [](Stage& s) { s.Target<CImgScroll>().Do(5, 1, s.src.get(), 1); }},
      {"crop", 6172, 3 * 40, Silent,
       [](Stage& s) { s.Target<CImgCrop>().Do(CRect(3, 4, 60, 44), s.src.get(), 1); }},
      {"binning", 6132, 3 * 33, Silent,
       [](Stage& s) { s.Target<CImgSoftBinning>().Do(3, 2, 0, 0, s.src.get(), 1); }},
      {"resolution", 6110, 3 * 90, Opens,
       [](Stage& s) { s.Target<CImgResolution>().Do(s.src.get(), 80, 90, 1); }},
      {"turn", 6112, kLines, Opens, [](Stage& s) { s.Target<CImgRotate>().Do(10, 0, s.src.get(), 0, 0, 1); }},
      {"no turn", 6112, kLines, Steps, [](Stage& s) { s.Target<CImgRotate>().Do0(s.src.get(), 1); }},
      {"half turn", 6112, kLines, Steps, [](Stage& s) { s.Target<CImgRotate>().Do180(s.src.get(), 1); }},
      {"quarter turn", 6112, -1, Steps, [](Stage& s) { s.Target<CImgRotate>().Do90(0, s.src.get(), 1); }},
      {"canvas", 6111, -1, Steps,
       [](Stage& s) { s.Target<CImgResize>().Do(90, 80, 4, floats, s.src.get(), 1); }},
      {"mosaic", 6135, kHeight, Steps,
       [](Stage& s) {
         s.Target<CImgMosaic>().Do(s.src.get(), 0, 0, s.src.get(), 3.5, 2, 5, 0, floats, floats, 0, 0,
                                   nullptr, 1);
       }},
      {"expansion", 6140, kLines, Steps,
       [](Stage& s) { s.Target<CImgExpansion>().Do(s.src.get(), 35, 33, 20, 0, 0, 0, 0, nullptr, 1); }},
      {"composite", 6107, kHeight, Silent,
       [](Stage& s) {
         s.Target<CImgComposit>().Do(s.src.get(), s.src.get(), 1.5, 2, 0, 0, 0, 0, 0.5, 0, 0, 0.9, 0, nullptr,
                                     1, -1);
       }},
      {"composite of neighbours", 6188, kLines, Steps,
       [](Stage& s) {
         s.Target<CImgComposit>().Do(s.src.get(), s.src.get(), 1.5, 2, 0, 0, 9, 0, 0.5, 0, 0, 0.9, 1, nullptr,
                                     1, 6188);
       }},
      {"selection", 6187, kHeight, Steps,
       [](Stage& s) {
         CImageSelection selection;
         selection.SetHeight(kHeight);
         for (int y = 0; y < kHeight; ++y) {
           selection.SetInOut(y, 5, 20);
         }
         s.Target<CVelImage>().ApplyMask(nullptr, &selection, s.src.get(), nullptr, 1);
       }},
      {"mask", 6187, kHeight, Opens,
       [](Stage& s) {
         CImageMask mask(&s.Target<CVelImage>(1), 0, 1, 0, L"mask.fits", 0);
         s.Target<CVelImage>().ApplyMask(nullptr, nullptr, s.src.get(), &mask, 1);
       }},
      {"shift by phase", 6150, -1, Steps,
       [](Stage& s) {
         double dx, dy, peak;
         int w, h;
         s.Target<CImgFourier>().CalcShiftByPOC(s.src.get(), nullptr, 0, nullptr, dx, dy, peak, w, h, 1);
       }},
      {"angle by phase", 6151, -1, Steps,
       [](Stage& s) {
         double degrees;
         int w, h;
         s.Target<CImgFourier>().CalcRotByRIPOC(s.src.get(), nullptr, nullptr, nullptr, degrees, w, h, 1);
       }},
      {"angle by phase of a wide window", 6151, -1, Steps,
       [](Stage& s) {
         double degrees;
         int w, h;
         CRect wide(0, 0, 64, 16);
         s.Target<CImgFourier>().CalcRotByRIPOC(s.src.get(), nullptr, nullptr, &wide, degrees, w, h, 1);
       }},
      {"transform", 6190, -1, Steps,
       [](Stage& s) { s.Target<CImgFourier>().Do(0, 1, 0, nullptr, s.src.get(), nullptr, nullptr, 1); }},
      {"Lab", 6133, kHeight, Steps,
       [](Stage& s) { std::unique_ptr<CVelImage>(s.Target<CVelImage>().MakeLabPlane()); }},
      {"L", 6101, kHeight, Steps,
       [](Stage& s) { std::unique_ptr<CVelImage>(s.Target<CVelImage>().MakeLPlane()); }},
      {"a and b", 6102, kHeight, Steps,
       [](Stage& s) { std::unique_ptr<CVelImage>(s.Target<CVelImage>().MakeAbPlane(0)); }},
      {"colour balance", 6118, kLines, Opens,
       [](Stage& s) { s.Target<CImgColorBalance>().Do(1, 2, 3, s.src.get(), nullptr, 1); }},
      {"colour matrix", 6179, kHeight, Steps,
       [](Stage& s) { s.Target<CImgColorCorrect>().Do(&matrix, 1, 0, 0, 0, 1); }},
      {"colour matrix between levels", 6179, kHeight, Opens,
       [](Stage& s) { s.Target<CImgColorCorrect>().Do(&matrix, 1, 0, 0, 0, s.src.get(), nullptr, 1); }},
      {"colours of Lab", 6134, kHeight, Steps,
       [](Stage& s) { s.Target<CImgLabColorEnhance>().Do(s.src.get(), 1, 1, nullptr, 1); }},
      {"false colour", 6117, kHeight, Steps,
       [](Stage& s) { s.Target<CImgFalseColor>().Do(0, 900, 0, 0, s.src.get(), nullptr, 1); }},
      {"separation", 6137, kHeight, Steps,
       [](Stage& s) { s.Target<CImgSeparation>(1).Do(s.src.get(), 3, 1); }},
      {"development", 6178, -1, Opens,
       [](Stage& s) {
         tagBayerStruct bayer;
         bayer.nCFA = 1;
         bayer.nSrcBits = bayer.nDstBits = -32;
         s.Target<CImgBayerToRgb>(1).Do(bayer, 1);
       }},
      {"development to grey", 6145, -1, Opens,
       [](Stage& s) {
         tagBayerStruct bayer;
         bayer.nCFA = 1;
         bayer.nSrcBits = bayer.nDstBits = -32;
         bayer.bMono = bayer.bGamma = 1;
         bayer.dGamma = 2;
         s.Target<CImgBayerToRgb>(1).Do(bayer, 1);
       }},
      {"development of a honeycomb", 6178, -1, Steps,
       [](Stage& s) {
         tagHoneyCombStruct honeyComb;
         honeyComb.nCFA = 12;
         honeyComb.nKind = 2;
         honeyComb.nSrcBits = honeyComb.nDstBits = -32;
         s.Target<CImgHoneyCombToRgb>(1).Do(honeyComb, 1);
       }},
      {"spectrum", 6104, -1, Steps, [](Stage& s) { s.Target<CImgWiener>().Do(2, 0.1, nullptr, 1); }},
      {"Richardson-Lucy", 6154, -1, Steps,
       [](Stage& s) { s.Target<CImgLucy>().Do(2, 1, 5, 4, nullptr, 1); }},
      {"focus", 6182, 3 * (kHeight - 20), Opens, [](Stage& s) { s.Target<CImgEvaluateFocus>().Do(1); }},
      {"matching", 6152, 16 * 16 / 4 + 9, Steps, [](Stage& s) { Match(s, 0); }},
      {"matching between pixels", 6152, -1, Steps, [](Stage& s) { Match(s, 1); }},
      {"maximum entropy", 6158, -1, Steps, [](Stage& s) { s.Target<CImgMem>().Do(2, 5, 4, nullptr, 1); }},
  };
  return all;
}

TEST(OperationProgress, TextsTotalsAndStepsThatReachThem) {
  const WithThreads alone(1);
  for (const auto& store : {MemoryStore(), TinyPool()}) {
    const bool paged = store->GetAllocationPolicy() == CVmManager::Paged;
    for (const Operation& operation : Operations()) {
      Display display;
      Stage stage{store, display.window};
      operation.run(stage);
      ContinueAfterMessages();
      const std::string name = operation.name + std::string(paged ? " paged" : "");
      const bool silent = !paged && operation.planes == Silent;
      const auto& opened = display.opened;
      EXPECT_EQ(std::count(opened.begin(), opened.end(), LoadString(operation.text)) == 0, silent) << name;
      EXPECT_EQ(display.closed, static_cast<int>(opened.size())) << name;
      std::vector<int> expected;
      if (operation.total > 0) {
        // An event each time that a fiftieth has passed.
        for (int count = 1; count <= operation.total; count += std::max(operation.total / 50, 1)) {
          expected.push_back(static_cast<int>(100.0 * count / operation.total));
        }
      }
      if (!paged && operation.planes != Steps) {
        EXPECT_LE(display.steps.size(), 1u) << name;  // that of a change of size
      } else if (operation.total < 0) {
        ASSERT_FALSE(display.steps.empty()) << name;
        EXPECT_GE(display.steps.back(), 98) << name;
        EXPECT_LE(std::count(display.steps.begin(), display.steps.end(), 100), 2)
            << name << ": more steps than its total";
      } else {
        const size_t extra = display.steps.size() - std::min(display.steps.size(), expected.size());
        EXPECT_LE(extra, 1u) << name;
        display.steps.erase(display.steps.begin(),
                            display.steps.begin() + static_cast<std::ptrdiff_t>(extra));
        EXPECT_EQ(display.steps, expected) << name;
      }
    }
  }
}

}  // namespace
