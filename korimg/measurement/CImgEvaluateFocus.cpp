#include "korimg/measurement/CImgEvaluateFocus.h"

#include <algorithm>
#include <cmath>

#include "korimg/filters/CFilterMatrix.h"
#include "korimg/filters/CFilterProc.h"
#include "korimg/filters/internal/FilterLines.h"
#include "korimg/platform/CRegistry.h"

using namespace korimg;

namespace {

constexpr int kProgressText = 6182;
constexpr int kNarrow = 0, kWide = 1;  // sets of prepared filters

int SigmaSetting(const wchar_t* key, int usual) {
  int sigma = usual;
  CRegistry::Read(L"Eval", key, usual, &sigma);
  return std::max(sigma, 0);
}

/// A window without `margin` pixels at each side.
Window Shrunk(const Window& window, int margin) {
  return {window.left + margin, window.top + margin, window.right - margin, window.bottom - margin};
}

double PlaneFocus(CVelImage& image, int p, const Window& window) {
  WeightBuffer narrow(image.FilterProcSet(kNarrow), p), wide(image.FilterProcSet(kWide), p);
  ScalarResult<double> mean;
  evaluate_focus_float(PlaneBuffer(image, p), narrow.R(), narrow, wide.R(), wide, window.left, window.right,
                       window.top, window.bottom, mean);
  return mean.Value();
}

double LineFocus(CVelImage& image, int p, int y, const Window& window) {
  std::vector<float> narrow(window.Width()), wide(window.Width());
  image.FilterProcSet(kNarrow).CalcLine(window.left, window.right, y, p, narrow.data());
  image.FilterProcSet(kWide).CalcLine(window.left, window.right, y, p, wide.data());
  double sum = 0;
  for (int x = 0; x < window.Width(); ++x) {
    sum += std::abs(narrow[x] - wide[x]);
  }
  image.ShowProgress(1);
  return sum;
}

}  // namespace

double CImgEvaluateFocus::Do(CRect* rect, int show) {
  const int narrow = SigmaSetting(L"Min", 1), wide = GetMargin();
  const Window window = Shrunk({*this, rect}, std::min(wide, std::max(GetWidth(), GetHeight())));
  const ProgressScope progress(*this, show, kProgressText, window.Lines(*this));
  if (window.IsEmpty()) return 0;
  ClearFilterProc();
  for (int p = 0; p < GetPlanes(); ++p) {
    CFilterMatrix matrix;
    matrix.MakeGaussian(narrow);
    MakeFilterProcEx(kNarrow, this, &matrix, p, 1);
    matrix.MakeGaussian(wide);
    MakeFilterProcEx(kWide, this, &matrix, p, 1);
  }
  double sum = 0;
  for (int p = 0; p < GetPlanes(); ++p) {
    if (MayRunPipelines(*this)) {
      sum += PlaneFocus(*this, p, window) * static_cast<double>(window.Pixels());
      continue;
    }
    for (const double line :
         MapLines(window.top, window.bottom, [&](int y) { return LineFocus(*this, p, y, window); })) {
      sum += line;
    }
  }
  return sum / (static_cast<double>(window.Pixels()) * GetPlanes());
}

double CImgEvaluateFocus::Do(int show) {
  return Do(nullptr, show);
}

int CImgEvaluateFocus::GetMargin() {
  return SigmaSetting(L"Max", 10);
}
