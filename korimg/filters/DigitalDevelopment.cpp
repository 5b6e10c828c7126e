// The digital development of CImgFilterSpecial.
#include <algorithm>
#include <limits>
#include <vector>

#include "korimg/filters/CFilterMatrix.h"
#include "korimg/filters/CFilterProc.h"
#include "korimg/filters/CImgFilterSpecial.h"
#include "korimg/filters/internal/FilterLines.h"
#include "korimg/image/Loan.h"
#include "korimg/image/internal/Vectors.h"
#include "korimg/levels/CImgAutoLevel.h"
#include "korimg/platform/Debug.h"

using namespace korimg;

namespace {

constexpr int kMessage = 6116;
constexpr int kMeanOfAll = 3;  ///< in place of the plane whose blur divides

/// Writes f(x) for x from 0 to columns - 1; f is marked KORIMG_IN_LOOP.
template <class F>
void FillLine(float* line, int columns, const F& f) {
  RunInLongVectors([=]() KORIMG_IN_LOOP {
#pragma omp simd
    for (int x = 0; x < columns; ++x) {
      line[x] = f(x);
    }
  });
}

/// The levels of a plane, and the scale of 0 to 255 between them.
struct Scale {
  double min, range;
  float black, k;

  Scale(const CVelImage& image, int p)
      : min(image.GetLevelMin(p)),
        range(image.GetLevelRange(p)),
        black(static_cast<float>(min)),
        k(static_cast<float>(255.0 / range)) {}
  KORIMG_IN_LOOP float To255(float raw) const { return (raw - black) * k; }
  KORIMG_IN_LOOP double ToRaw(double v) const { return v * (range / 255.0) + min; }
};

/// The gamma curve, in place.
struct GammaCurve {
  float power, min, range;

  GammaCurve(double gamma, float min, float range)
      : power(static_cast<float>(1.0 / gamma)), min(min), range(range) {}
  bool IsNone() const { return power == 1.0f || !(range > 0); }
  void Apply(float* line, int columns) const {
    if (IsNone()) return;
    FillLine(line, columns, [=, *this](int x) KORIMG_IN_LOOP {
      constexpr float kMost = std::numeric_limits<float>::max();
      const double d = line[x] - min;
      const auto y = static_cast<float>(PositivePower(d / range, power) * range + min);
      return d > 0 && d <= kMost ? y : line[x];  // infinity and NaN stay
    });
  }
  float operator()(float x) const {
    Apply(&x, 1);
    return x;
  }
};

/// Turns blurs on the 0 to 255 scale into divisors: after the curve, and with `a` added.
void MakeDivisors(const Scale& scale, const GammaCurve& curve, float a, float* line, int columns) {
  if (curve.IsNone()) {
    // To raw and back: black and k are rounded.
    const auto slope = static_cast<float>(scale.range / 255.0 * scale.k);
    const auto offset = static_cast<float>((scale.min - scale.black) * scale.k + a);
    FillLine(line, columns, [=](int x) KORIMG_IN_LOOP { return line[x] * slope + offset; });
    return;
  }
  FillLine(line, columns, [=](int x) KORIMG_IN_LOOP { return static_cast<float>(scale.ToRaw(line[x])); });
  curve.Apply(line, columns);
  FillLine(line, columns, [=](int x) KORIMG_IN_LOOP { return scale.To255(line[x]) + a; });
}

/// For each plane the one whose blur divides it.
std::vector<int> DrivingPlanes(const CVelImage& target, const int planeOf[]) {
  const int planes = target.GetPlanes();
  std::vector<int> driving(planes);
  for (int p = 0; p < planes; ++p) {
    const int q = planeOf[p];
    const bool ofAll = q >= kMeanOfAll && planes >= 3;
    driving[p] = ofAll ? kMeanOfAll : q < 0 || q >= planes ? p : q;
  }
  return driving;
}

/// The blurs of a line, on the 0 to 255 scale: of the planes that are wanted, and their mean.
class LineBlurs {
 public:
  LineBlurs(CVelImage& target, const std::vector<int>& driving, const Window& window, int y)
      : columns_(window.Width()) {
    const auto isWanted = [&](int q) {
      return std::find(driving.begin(), driving.end(), q) != driving.end();
    };
    for (int q = 0; q < target.GetPlanes(); ++q) {
      if (!isWanted(q) && !isWanted(kMeanOfAll)) continue;
      float* line = Take(q);
      target.FilterProcSlots().CalcLine(window.left, window.right, y, q, line);
      const Scale scale(target, q);
      FillLine(line, columns_, [=](int x) KORIMG_IN_LOOP { return scale.To255(line[x]); });
    }
    if (!isWanted(kMeanOfAll)) return;
    const float *r = Of(0), *g = Of(1), *b = Of(2);
    FillLine(Take(kMeanOfAll), columns_, [=](int x) KORIMG_IN_LOOP { return (g[x] + r[x] + b[x]) / 3.0f; });
  }
  const float* Of(int q) const { return lines_[q].data(); }

 private:
  float* Take(int q) {
    lines_[q].resize(columns_);
    return lines_[q].data();
  }

  int columns_;
  std::vector<float> lines_[kMeanOfAll + 1];
};

/// Writes the window's lines: render(plane, scale, pixels, blurs, result) makes a line of so many columns,
/// and may overwrite the blurs. With `develop` 0 there are none.
template <class F>
void DevelopLines(CVelImage& target, CVelImage& src, int develop, const std::vector<int>& driving,
                  const Window& window, F&& render) {
  if (window.IsEmpty()) return;
  const int columns = window.Width();
  ForLines(Team::All, window.top, window.bottom, [&](int y) {
    const LineBlurs blurs(target, develop ? driving : std::vector<int>(), window, y);
    std::vector<float> own(columns);
    for (int p = 0; p < target.GetPlanes(); ++p) {
      if (develop) std::copy_n(blurs.Of(driving[p]), columns, own.data());
      const float* s = src.GetLine(window.left, y, p);
      render(p, Scale(target, p), s, own.data(), target.GetWritableLine(window.left, y, p));
      target.ShowProgress(1);
    }
  });
}

float MedianOfPlane0(CVelImage& image) {
  float median = 0;
  Loan<CImgAutoLevel>(image).borrower.GetMedian(&median, 1, 0, 0, nullptr);
  return median;
}

/// What a level mode that there is not goes by.
void SetEndsOfUnknownMode(const CVelImage& image, float min[], float max[]) {
  for (int p = 0; p < 3; ++p) {
    min[p] = 0;
    max[p] = static_cast<float>(image.GetLevelMax(p < image.GetPlanes() ? p : 0));
  }
}

}  // namespace

int CImgFilterSpecial::GetDigitalDvlp_Mean_nR(double r) {
  return std::max(TruncateToInt(2.0 * TruncateToInt(r)), 1);
}

void CImgFilterSpecial::DigitalDvlpGetMinMax(int levelMode, CVelImage* src, float min[], float max[],
                                             float range[]) {
  enum LevelMode { FromZero, OfPixels, ToWhite, FromBlack };
  if (levelMode >= FromZero && levelMode <= FromBlack) {
    const float smallest = src->GetMinPixel(0), largest = src->GetMaxPixel(0);
    for (int p = 0; p < 3; ++p) {
      // Plane 0's place on the 0 to 255 scale, in the levels of plane p.
      const auto carried = [&](float v) { return p > 0 && GetPlanes() == 3 ? ToRaw(To256(v, 0), p) : v; };
      const auto black = static_cast<float>(GetLevelMin(p < GetPlanes() ? p : 0));
      min[p] = levelMode == FromBlack ? black : carried(levelMode == FromZero ? 0.0f : smallest);
      max[p] = carried(levelMode == ToWhite ? static_cast<float>(src->GetLevelMax(0)) : largest);
    }
  }
  for (int p = 0; p < 3; ++p) {
    range[p] = max[p] - min[p];
  }
}

void CImgFilterSpecial::DigitalDvlp1(double background[], int filter, double r[], double weight,
                                     double gamma[], int levelMode, CVelImage* src, float min[],
                                     float range[], float a[], float b[], int gammaAfter) {
  enum Filter { Gaussian, Mean };
  OutputDebugStringW(L"CImgFilterSpecial::DigitalDvlp1\n");
  if (!Fits(*src, *this)) return;
  for (int p = 0; p < GetPlanes(); ++p) {
    CFilterMatrix matrix;
    if (filter == Gaussian) {
      matrix.MakeGaussian(r[p]);
    } else if (filter == Mean) {
      matrix.MakeMean(GetDigitalDvlp_Mean_nR(r[p]), r[p], weight);
    } else {
      return;
    }
    MakeFilterProc(src, &matrix, p, 1);
  }
  float max[3] = {};
  SetEndsOfUnknownMode(*this, min, max);
  DigitalDvlpGetMinMax(levelMode, src, min, max, range);
  const GammaCurve curve(gammaAfter ? 1.0 : gamma[0], min[0], range[0]);
  const double ground = curve(static_cast<float>(background[0])), median = curve(MedianOfPlane0(*src));
  const auto added = static_cast<float>(To256(ground, 0));
  std::fill_n(a, 3, added);
  std::fill_n(b, 3, static_cast<float>(To256(median, 0) + added));
}

void CImgFilterSpecial::DigitalDvlp2(int develop, double gamma[], CVelImage* src, int planeOf[], float min[],
                                     float range[], float a[], float b[], CRect* rect, int show) {
  OutputDebugStringW(L"CImgFilterSpecial::DigitalDvlp2\n");
  if (!Fits(*src, *this)) return;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, kMessage, window.Lines(*this));
  const int columns = window.Width();
  DevelopLines(*this, *src, develop, DrivingPlanes(*this, planeOf), window,
               [&](int p, const Scale& scale, const float* s, float* divisor, float* out) {
                 const GammaCurve curve(gamma[p], min[p], range[p]);
                 std::copy_n(s, columns, out);
                 curve.Apply(out, columns);
                 if (!develop) return;
                 MakeDivisors(scale, curve, a[p], divisor, columns);
                 FillLine(out, columns, [=, k = b[p]](int x) KORIMG_IN_LOOP {
                   const float y = (out[x] - scale.black) / divisor[x] * k + scale.black;
                   return divisor[x] <= 0 ? out[x] : y;
                 });
               });
}

void CImgFilterSpecial::DigitalDvlpGmAftrDdp(int develop, double gamma[], CVelImage* src, int planeOf[],
                                             float[], float[], float a[], float b[], CRect* rect, int show) {
  OutputDebugStringW(L"CImgFilterSpecial::DigitalDvlpGmAftrDdp\n");
  if (!Fits(*src, *this)) return;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, kMessage, window.Lines(*this));
  const int columns = window.Width();
  const GammaCurve none(1, 0, 0);
  DevelopLines(*this, *src, develop, DrivingPlanes(*this, planeOf), window,
               [&](int p, const Scale& scale, const float* s, float* divisor, float* out) {
                 if (!develop) {
                   std::copy_n(s, columns, out);
                   return;
                 }
                 MakeDivisors(scale, none, a[p], divisor, columns);
                 FillLine(out, columns, [=, k = b[p]](int x) KORIMG_IN_LOOP {
                   const float v = scale.To255(s[x]), y = v / divisor[x] * k;
                   return divisor[x] <= 0 ? v : y;
                 });
                 GammaCurve(gamma[p], 0, 255).Apply(out, columns);
                 FillLine(out, columns,
                          [=](int x) KORIMG_IN_LOOP { return static_cast<float>(scale.ToRaw(out[x])); });
               });
}

void CImgFilterSpecial::DigitalDvlpOnly(int develop, CVelImage* src, double strength, int planeOf[], float[],
                                        float[], float a[], float b[], CRect* rect, int show) {
  if (!Fits(*src, *this)) return;
  const Window window(*this, rect);
  const ProgressScope progress(*this, show, kMessage, window.Lines(*this));
  const std::vector<int> driving = DrivingPlanes(*this, planeOf);
  bool byOwn = true;
  for (int p = 0; p < GetPlanes(); ++p) {
    byOwn &= driving[p] == p;
  }
  if (develop && byOwn && MayRunPipelines(*this, *src)) {
    for (int p = 0; p < GetPlanes(); ++p) {
      WeightBuffer weights(FilterProcSlots(), p);
      RunIntoWindow(*this, p, window, [&](halide_buffer_t* out) {
        return digital_developing_simple_float(PlaneBuffer(*src, p), weights, weights.R(), GetLevelMin(p),
                                               GetLevelRange(p), strength, a[p], b[p], out);
      });
    }
    return;
  }
  const int columns = window.Width();
  const auto share = static_cast<float>(strength), rest = static_cast<float>(1.0 - strength);
  const GammaCurve none(1, 0, 0);
  DevelopLines(*this, *src, develop, driving, window,
               [&](int p, const Scale& scale, const float* s, float* divisor, float* out) {
                 if (!develop) {
                   std::copy_n(s, columns, out);
                   return;
                 }
                 MakeDivisors(scale, none, a[p], divisor, columns);
                 FillLine(out, columns, [=, k = b[p]](int x) KORIMG_IN_LOOP {
                   const float y = (s[x] - scale.black) / divisor[x] * k + scale.black;
                   const float mixed = y * share + s[x] * rest;
                   return divisor[x] <= 0 ? s[x] : mixed;
                 });
               });
}

void CImgFilterSpecial::DigitalDvlpGetLevel(double gamma[], int levelMode, CVelImage* src, double low[],
                                            double high[]) {
  if (std::all_of(gamma, gamma + 3, [](double g) { return g == 1.0; })) return;
  float min[3] = {}, max[3] = {}, range[3] = {};
  SetEndsOfUnknownMode(*this, min, max);
  DigitalDvlpGetMinMax(levelMode, src, min, max, range);
  for (int p = 0; p < GetPlanes(); ++p) {
    const GammaCurve curve(gamma[p], min[p], range[p]);
    if (gamma[p] == 1.0 || max[p] < high[p]) continue;
    if (low[p] >= min[p]) low[p] = curve(static_cast<float>(low[p]));
    high[p] = curve(static_cast<float>(high[p]));
  }
}
