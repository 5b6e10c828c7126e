#include "korimg/image/CHeader.h"

#include <algorithm>

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
  if (shutterSpeed_.IsEmpty()) return 0;
  text = shutterSpeed_;
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
