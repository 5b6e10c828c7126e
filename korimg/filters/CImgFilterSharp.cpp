#include "korimg/filters/CImgFilterSharp.h"

#include <array>
#include <cmath>
#include <vector>

#include "korimg/filters/CFilterBlock.h"
#include "korimg/filters/CFilterMatrix.h"
#include "korimg/filters/CFilterProc.h"
#include "korimg/filters/internal/FilterLines.h"

using namespace korimg;

namespace {

enum Message : int { Sharp = 6121, UnSharp = 6122, SubBands = 6147 };

/// A band of levels, and how much of what was darkened comes back there.
struct Confinement {
  BandLimits band;
  const int* brighter;
  const double* percent;

  DarkeningLimit Limit(int p) const { return {brighter[p], percent[p]}; }
};

/// Writes filter(plane, y, line), which fills the window's columns of a line, as far as it is confined.
template <class F>
void SharpenLines(CVelImage& target, CVelImage& src, const Window& window, const Confinement* confined,
                  F&& filter) {
  FilterLines(target, src, window, confined ? &confined->band : nullptr, [&](int p, int y, float* line) {
    filter(p, y, line);
    if (!confined) return;
    const DarkeningLimit limit = confined->Limit(p);
    const float* s = src.GetLine(window.left, y, p);
    for (int x = 0; x < window.Width(); ++x) {
      line[x] = limit(s[x], line[x]);
    }
  });
}

void Sharpen(CVelImage& target, const double r[], const double strength[], const Confinement* confined,
             CVelImage& src, CRect* rect, int show) {
  if (!Fits(src, target)) return;
  const Window window(target, rect);
  const ProgressScope progress(target, show, Sharp, window.Lines(target));
  std::vector<CFilterMatrix> kernels(target.GetPlanes());
  for (int p = 0; p < target.GetPlanes(); ++p) {
    kernels[p].MakeSharp(TruncatedRadius(r[p]), strength[p]);
  }
  SharpenLines(target, src, window, confined, [&](int p, int y, float* line) {
    const CFilterBlock block(&src, kernels[p].GetR(), 0, y, p, CImage::Locked);
    block.ConvolveLine(&kernels[p], window.left, window.right, line);
  });
}

void SharpenEdges(CVelImage& target, const double r[], const double strength[], const Confinement* confined,
                  CVelImage& src, CRect* rect, int show) {
  if (!Fits(src, target)) return;
  const Window window(target, rect);
  const ProgressScope progress(target, show, Sharp, window.Lines(target));
  std::vector<CFilterMatrix> kernels(target.GetPlanes()), laplacians(target.GetPlanes());
  for (int p = 0; p < target.GetPlanes(); ++p) {
    kernels[p].MakeSharp(r[p], strength[p]);
    laplacians[p].MakeLaplacian(TruncatedRadius(r[p]), r[p]);
  }
  SharpenLines(target, src, window, confined, [&](int p, int y, float* line) {
    const int columns = window.Width();
    std::vector<float> edge(columns);
    const CFilterBlock block(&src, kernels[p].GetR(), 0, y, p, CImage::Locked);
    block.ConvolveLine(&kernels[p], window.left, window.right, line);
    block.ConvolveLine(&laplacians[p], window.left, window.right, edge.data());
    const double range = target.GetLevelRange(p);
    const float* s = src.GetLine(window.left, y, p);
    for (int x = 0; x < columns; ++x) {
      const float w = EdgeShare(edge[x], range);
      line[x] = (1.0f - w) * s[x] + w * line[x];
    }
  });
}

/// Calls line(plane, columns, source, Gaussian, result) for the window's lines, with a Gaussian of
/// sigma[plane].
template <class F>
void AgainstGaussian(CVelImage& target, const double sigma[], CVelImage& src, CRect* rect, int show,
                     F&& line) {
  if (!Fits(src, target)) return;
  const Window window(target, rect);
  const ProgressScope progress(target, show, UnSharp, window.Lines(target));
  for (int p = 0; p < target.GetPlanes(); ++p) {
    CFilterMatrix matrix;
    matrix.MakeGaussian(sigma[p]);
    target.MakeFilterProc(&src, &matrix, p, 1);
  }
  ForPlaneLines(target, window, Team::All, [&](int p, int y) {
    std::vector<float> gaussian(window.Width());
    target.FilterProcSlots().CalcLine(window.left, window.right, y, p, gaussian.data());
    const float* s = src.GetLine(window.left, y, p);
    line(p, window.Width(), s, gaussian.data(), target.GetWritableLine(window.left, y, p));
  });
}

/// The strength inside a band: shoulders scale it.
float StrengthInBand(const LevelBand& band, float strength, float s) {
  if (s < band.dark) strength = strength * (s - band.darkMin) / band.darkWidth;
  if (s > band.highlight) strength = strength * (band.highlightMax - s) / band.highlightWidth;
  return strength;
}

constexpr int kBands = 6;

/// The strengths of the sub-bands of a plane, and whether their Gaussians are needed.
struct SubBandWeights {
  std::array<float, kBands> w;

  SubBandWeights(const std::array<const double*, kBands>& weights, int p) {
    for (int n = 0; n < kBands; ++n) {
      w[n] = static_cast<float>(weights[n][p]);
    }
  }
  bool Uses(int n) const { return w[n] > 0; }
};

void RunSubBands(CVelImage& target, CVelImage& src, int p, const Window& window,
                 const SubBandWeights& weights, const LevelBand& band, const DarkeningLimit& limit) {
  // What is not used costs least as the pixel itself.
  const auto row = [&](int n) {
    return weights.Uses(n) ? WeightBuffer(target.FilterProcSet(n), p)
                           : WeightBuffer(std::vector<float>{1.0f});
  };
  WeightBuffer g0 = row(0), g1 = row(1), g2 = row(2), g3 = row(3), g4 = row(4), g5 = row(5);
  PlaneBuffer input(src, p);
  const auto& w = weights.w;
  RunIntoWindow(target, p, window, [&](halide_buffer_t* out) {
    return sub_band_unsharp_mask_float(input, g0, g1, g2, g3, g4, g5, w[0], w[1], w[2], w[3], w[4], w[5],
                                       g0.R(), g1.R(), g2.R(), g3.R(), g4.R(), g5.R(), band.dark,
                                       band.darkMin, band.darkWidth, band.highlight, band.highlightMax,
                                       band.highlightWidth, limit.on, limit.share, out);
  });
}

/// Writes the mean of the sub-bands' unsharp masks over a line. Each Gaussian reads rows of the source, after
/// which addresses of its lines are no good.
void MeanOfSubBands(CVelImage& target, CVelImage& src, const SubBandWeights& weights, int p, int y,
                    const Window& window, float* line) {
  const int columns = window.Width();
  std::vector<float> gaussian(columns);
  std::fill_n(line, columns, 0.0f);
  for (int n = 0; n < kBands; ++n) {
    if (!weights.Uses(n)) {
      const float* s = src.GetLine(window.left, y, p);
      for (int x = 0; x < columns; ++x) {
        line[x] += s[x];
      }
      continue;
    }
    target.FilterProcSet(n).CalcLine(window.left, window.right, y, p, gaussian.data());
    const float* s = src.GetLine(window.left, y, p);
    const float w = weights.w[n];
    for (int x = 0; x < columns; ++x) {
      line[x] += w * (s[x] - gaussian[x]) + s[x];
    }
  }
  for (int x = 0; x < columns; ++x) {
    line[x] /= kBands;
  }
}

void SharpenSubBands(CVelImage& target, const std::array<const double*, kBands>& sigmas,
                     const std::array<const double*, kBands>& strengths, const Confinement& confined,
                     CVelImage& src, CRect* rect, int show) {
  if (!Fits(src, target)) return;
  const Window window(target, rect);
  const ProgressScope progress(target, show, SubBands, window.Lines(target));
  std::vector<SubBandWeights> weights;
  for (int p = 0; p < target.GetPlanes(); ++p) {
    weights.emplace_back(strengths, p);
    for (int n = 0; n < kBands; ++n) {
      CFilterMatrix matrix;
      matrix.MakeGaussian(sigmas[n][p]);
      target.MakeFilterProcEx(n, &src, &matrix, p, 1);
    }
  }
  if (MayRunPipelines(target, src)) {
    for (int p = 0; p < target.GetPlanes(); ++p) {
      RunSubBands(target, src, p, window, weights[p], LevelBand(src, p, confined.band), confined.Limit(p));
    }
    return;
  }
  SharpenLines(target, src, window, &confined, [&](int p, int y, float* line) {
    MeanOfSubBands(target, src, weights[p], p, y, window, line);
  });
}

}  // namespace

void CImgFilterSharp::SharpFilter(double r, double strength, CVelImage* src, CRect* rect, int show) {
  SharpFilter(Same(*this, r), Same(*this, strength), src, rect, show);
}

void CImgFilterSharp::SharpFilter(double r[], double strength[], CVelImage* src, CRect* rect, int show) {
  Sharpen(*this, r, strength, nullptr, *src, rect, show);
}

void CImgFilterSharp::SharpFilter(double r, double strength, int useDark, double dark, double darkRange,
                                  int useHighlight, double highlight, double highlightRange, int brighter,
                                  double percent, CVelImage* src, CRect* rect, int show) {
  SharpFilter(Same(*this, r), Same(*this, strength), Same(*this, useDark), Same(*this, dark),
              Same(*this, darkRange), Same(*this, useHighlight), Same(*this, highlight),
              Same(*this, highlightRange), Same(*this, brighter), Same(*this, percent), src, rect, show);
}

void CImgFilterSharp::SharpFilter(double r[], double strength[], int useDark[], double dark[],
                                  double darkRange[], int useHighlight[], double highlight[],
                                  double highlightRange[], int brighter[], double percent[], CVelImage* src,
                                  CRect* rect, int show) {
  const Confinement confined{
      {useDark, dark, darkRange, useHighlight, highlight, highlightRange}, brighter, percent};
  Sharpen(*this, r, strength, &confined, *src, rect, show);
}

void CImgFilterSharp::SharpEdgeFilter(double r, double strength, CVelImage* src, CRect* rect, int show) {
  SharpEdgeFilter(Same(*this, r), Same(*this, strength), src, rect, show);
}

void CImgFilterSharp::SharpEdgeFilter(double r[], double strength[], CVelImage* src, CRect* rect, int show) {
  SharpenEdges(*this, r, strength, nullptr, *src, rect, show);
}

void CImgFilterSharp::SharpEdgeFilter(double r, double strength, int useDark, double dark, double darkRange,
                                      int useHighlight, double highlight, double highlightRange, int brighter,
                                      double percent, CVelImage* src, CRect* rect, int show) {
  SharpEdgeFilter(Same(*this, r), Same(*this, strength), Same(*this, useDark), Same(*this, dark),
                  Same(*this, darkRange), Same(*this, useHighlight), Same(*this, highlight),
                  Same(*this, highlightRange), Same(*this, brighter), Same(*this, percent), src, rect, show);
}

void CImgFilterSharp::SharpEdgeFilter(double r[], double strength[], int useDark[], double dark[],
                                      double darkRange[], int useHighlight[], double highlight[],
                                      double highlightRange[], int brighter[], double percent[],
                                      CVelImage* src, CRect* rect, int show) {
  const Confinement confined{
      {useDark, dark, darkRange, useHighlight, highlight, highlightRange}, brighter, percent};
  SharpenEdges(*this, r, strength, &confined, *src, rect, show);
}

void CImgFilterSharp::UnSharpMask(double sigma, double strength, double threshold, CVelImage* src,
                                  CRect* rect, int show) {
  UnSharpMask(Same(*this, sigma), Same(*this, strength), Same(*this, threshold), src, rect, show);
}

void CImgFilterSharp::UnSharpMask(double sigma[], double strength[], double threshold[], CVelImage* src,
                                  CRect* rect, int show) {
  AgainstGaussian(*this, sigma, *src, rect, show,
                  [=](int p, int columns, const float* s, const float* gaussian, float* out) {
                    const double k = strength[p], least = threshold[p];
                    for (int x = 0; x < columns; ++x) {
                      const double pixel = s[x], sharper = (pixel - gaussian[x]) * k + pixel;
                      const bool differs = std::abs(gaussian[x] / s[x] - 1.0) >= least;
                      out[x] = static_cast<float>(differs ? sharper : pixel);
                    }
                  });
}

void CImgFilterSharp::UnSharpMask(double sigma, double strength, int useDark, double dark, double darkRange,
                                  int useHighlight, double highlight, double highlightRange, int brighter,
                                  double percent, CVelImage* src, CRect* rect, int show) {
  UnSharpMask(Same(*this, sigma), Same(*this, strength), Same(*this, useDark), Same(*this, dark),
              Same(*this, darkRange), Same(*this, useHighlight), Same(*this, highlight),
              Same(*this, highlightRange), Same(*this, brighter), Same(*this, percent), src, rect, show);
}

void CImgFilterSharp::UnSharpMask(double sigma[], double strength[], int useDark[], double dark[],
                                  double darkRange[], int useHighlight[], double highlight[],
                                  double highlightRange[], int brighter[], double percent[], CVelImage* src,
                                  CRect* rect, int show) {
  const Confinement confined{
      {useDark, dark, darkRange, useHighlight, highlight, highlightRange}, brighter, percent};
  AgainstGaussian(*this, sigma, *src, rect, show,
                  [&](int p, int columns, const float* s, const float* gaussian, float* out) {
                    const LevelBand band(*src, p, confined.band);
                    const DarkeningLimit limit = confined.Limit(p);
                    const auto k = static_cast<float>(strength[p]);
                    for (int x = 0; x < columns; ++x) {
                      const float sharper = (s[x] - gaussian[x]) * StrengthInBand(band, k, s[x]) + s[x];
                      out[x] = band.Excludes(s[x]) ? s[x] : limit(s[x], sharper);
                    }
                  });
}

void CImgFilterSharp::SubBandUnSharpMask(double sigma0, double w0, double sigma1, double w1, double sigma2,
                                         double w2, double sigma3, double w3, double sigma4, double w4,
                                         double sigma5, double w5, int useDark, double dark, double darkRange,
                                         int useHighlight, double highlight, double highlightRange,
                                         int brighter, double percent, CVelImage* src, CRect* rect,
                                         int show) {
  SubBandUnSharpMask(Same(*this, sigma0), Same(*this, w0), Same(*this, sigma1), Same(*this, w1),
                     Same(*this, sigma2), Same(*this, w2), Same(*this, sigma3), Same(*this, w3),
                     Same(*this, sigma4), Same(*this, w4), Same(*this, sigma5), Same(*this, w5),
                     Same(*this, useDark), Same(*this, dark), Same(*this, darkRange),
                     Same(*this, useHighlight), Same(*this, highlight), Same(*this, highlightRange),
                     Same(*this, brighter), Same(*this, percent), src, rect, show);
}

void CImgFilterSharp::SubBandUnSharpMask(double sigma0[], double w0[], double sigma1[], double w1[],
                                         double sigma2[], double w2[], double sigma3[], double w3[],
                                         double sigma4[], double w4[], double sigma5[], double w5[],
                                         int useDark[], double dark[], double darkRange[], int useHighlight[],
                                         double highlight[], double highlightRange[], int brighter[],
                                         double percent[], CVelImage* src, CRect* rect, int show) {
  const Confinement confined{
      {useDark, dark, darkRange, useHighlight, highlight, highlightRange}, brighter, percent};
  SharpenSubBands(*this, {sigma0, sigma1, sigma2, sigma3, sigma4, sigma5}, {w0, w1, w2, w3, w4, w5}, confined,
                  *src, rect, show);
}
