#include "korimg/colour/CImgAutoColor.h"

#include <algorithm>
#include <cmath>

#include "korimg/image/Loan.h"
#include "korimg/levels/CImgAutoStretch.h"
#include "korimg/platform/CRegistry.h"

using namespace korimg;

CImgAutoColor::Settings CImgAutoColor::Settings::Read() {
  constexpr const wchar_t* kSection = L"Dialog\\AutoStretch";
  Settings settings;
  CRegistry::Read(kSection, L"FilterR", 1.0, &settings.scale[0]);
  CRegistry::Read(kSection, L"FilterG", 1.0, &settings.scale[1]);
  CRegistry::Read(kSection, L"FilterB", 1.0, &settings.scale[2]);
  CRegistry::Read(kSection, L"Offset", 0.0, &settings.offset);
  return settings;
}

int CImgAutoColor::Do(int show) {
  return Do(Settings::Read(), show);
}

int CImgAutoColor::Do(const Settings& settings, int show) {
  if (!IsColor()) return 0;
  double filter[3], scale[3], background[3], spread[3], bias[3];
  std::copy_n(settings.scale, 3, filter);
  if (!CImgAutoStretch::CalcAutoStretchParam(this, 0, 1, CRect(), filter, scale, background, spread, show)) {
    return 0;
  }
  if (!std::all_of(spread, spread + 3, [](double s) { return std::isfinite(s); })) return 0;
  std::fill_n(bias, 3, settings.offset * 2 * spread[0] / 100.0);
  Loan<CImgAutoStretch> image(*this);
  image.borrower.DoStretch(&image.borrower, 1, scale, background, spread, bias, nullptr);
  return 1;
}
