#include "korimg/image/CHeader.h"

#include <algorithm>
#include <cmath>
#include <cwchar>

void CHeader::GetWBShootingGainBayer(double* gains) const {
  std::copy(gainBayer_.begin(), gainBayer_.end(), gains);
}

void CHeader::SetWBShootingGainBayer(const double* gains) {
  std::copy_n(gains, gainBayer_.size(), gainBayer_.begin());
}

void CHeader::GetWBShootingGainHoneyComb(double* gains) const {
  std::copy(gainHoneyComb_.begin(), gainHoneyComb_.end(), gains);
}

void CHeader::SetWBShootingGainHoneyComb(const double* gains) {
  std::copy_n(gains, gainHoneyComb_.size(), gainHoneyComb_.begin());
}

int CHeader::GetExposureTime(double* seconds) const {
  if (!exposureTime_) return 0;
  *seconds = *exposureTime_;
  return 1;
}

int CHeader::GetExposureShutterSpeed(CString& text) const {
  if (!exposureTime_) return 0;
  wchar_t buffer[64];
  const double t = *exposureTime_;
  if (t > 0 && t < 0.5) {
    std::swprintf(buffer, std::size(buffer), L"1/%.0f", 1 / t);
  } else {
    std::swprintf(buffer, std::size(buffer), L"%g", t);
  }
  text = buffer;
  return 1;
}

int CHeader::GetDetector(CString& name) const {
  if (detector_.IsEmpty()) return 0;
  name = detector_;
  return 1;
}

int CHeader::GetCoolingTemperature(double* celsius) const {
  if (!coolingTemperature_) return 0;
  *celsius = *coolingTemperature_;
  return 1;
}
