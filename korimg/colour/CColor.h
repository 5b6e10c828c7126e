#pragma once

#include "korimg/platform/Export.h"

/// Holds one colour in three models: RGB with gamma, scaled so that white is 1; CIE XYZ by the CIE RGB
/// primaries, with a white of equal energy at X = Y = Z = 5.6508; and the Lab of that white. A conversion
/// stores the input and what it computes.
class KORIMG_API CColor {
 public:
  CColor() = default;  // NOLINT: the values stay unset, colours are made by the thousand
  CColor(const CColor&) = default;
  CColor& operator=(const CColor&) = default;
  virtual ~CColor() = default;

  double GetR() const { return r_; }
  double GetG() const { return g_; }
  double GetB() const { return b_; }
  double GetX() const { return x_; }
  double GetY() const { return y_; }
  double GetZ() const { return z_; }
  double GetL() const { return labL_; }
  double Geta() const { return labA_; }
  double Getb() const { return labB_; }
  void SetRgb(double r, double g, double b);
  void SetXyz(double x, double y, double z);
  void SetLab(double l, double a, double b);

  /// R, G and B end up linear: the mean is raised to the power 2.2, the hue stays.
  void RgbToXyz(double r, double g, double b);
  void RgbToLab(double r, double g, double b);
  void XyzToRgb(double x, double y, double z);
  void LabToRgb(double l, double a, double b);

 private:
  double r_, g_, b_;
  double x_, y_, z_;
  double labL_, labA_, labB_;
};
