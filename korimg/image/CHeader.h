#pragma once

#include <array>
#include <optional>

#include "korimg/platform/CString.h"
#include "korimg/platform/Export.h"

/// Holds what is known of the camera and the exposure of an image.
class KORIMG_API CHeader {
 public:
  unsigned short GetISO() const { return iso_; }
  void SetISO(unsigned short iso) { iso_ = iso; }
  const CString& GetLightSource() const { return lightSource_; }
  void SetLightSource(const CString& source) { lightSource_ = source; }
  const CString& GetCameraMaker() const { return cameraMaker_; }
  void SetCameraMaker(const CString& maker) { cameraMaker_ = maker; }
  const CString& GetCameraModel() const { return cameraModel_; }
  void SetCameraModel(const CString& model) { cameraModel_ = model; }

  /// Non-zero when the white balance gains of the shot are known.
  int IsWBShootingGain() const { return hasShootingGain_; }
  void SetWBShootingGain(int known) { hasShootingGain_ = known; }

  /// Answer the white balance gains of a Bayer mosaic: 4 values, by index or as a whole.
  double GetWBShootingGainBayer(int i) const { return gainBayer_[i]; }
  void GetWBShootingGainBayer(double* gains) const;
  void SetWBShootingGainBayer(int i, double gain) { gainBayer_[i] = gain; }
  void SetWBShootingGainBayer(const double* gains);

  /// Answer the white balance gains of a honeycomb mosaic: 8 values, by index or as a whole.
  double GetWBShootingGainHoneyComb(int i) const { return gainHoneyComb_[i]; }
  void GetWBShootingGainHoneyComb(double* gains) const;
  void SetWBShootingGainHoneyComb(int i, double gain) { gainHoneyComb_[i] = gain; }
  void SetWBShootingGainHoneyComb(const double* gains);

  /// Answers the colour filter array: 0 unknown, 1 RGGB, 2 GRBG, 3 BGGR, 4 GBRG, 11 to 14 honeycomb.
  int GetCFAPattern() const { return cfaPattern_; }
  void SetCFAPattern(int pattern) { cfaPattern_ = pattern; }

  /// The getters below answer non-zero when the value is present, and leave the argument alone otherwise.
  int GetExposureTime(double* seconds) const;
  void SetExposureTime(double seconds) { exposureTime_ = seconds; }
  /// Answers the exposure as the file has it in words, as in "1/250".
  int GetExposureShutterSpeed(CString& text) const;
  void SetExposureShutterSpeed(const CString& text) { shutterSpeed_ = text; }
  int GetDetector(CString& name) const;
  void SetDetector(const CString& name) { detector_ = name; }
  int GetCoolingTemperature(double* celsius) const;
  void SetCoolingTemperature(double celsius) { coolingTemperature_ = celsius; }

 private:
  unsigned short iso_ = 0;
  CString lightSource_;
  CString cameraMaker_;
  CString cameraModel_;
  int hasShootingGain_ = 0;
  std::array<double, 4> gainBayer_{};
  std::array<double, 8> gainHoneyComb_{};
  int cfaPattern_ = 0;
  std::optional<double> exposureTime_;
  CString shutterSpeed_;
  CString detector_;
  std::optional<double> coolingTemperature_;
};
