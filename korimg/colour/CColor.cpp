#include "korimg/colour/CColor.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double kWhite = 5.6508;
constexpr double kThreshold = 0.008856;  // where the cube root gives way to a line
constexpr double kLineSlope = 7.78;
constexpr double kLineOrigin = 0.13793103448275862;  // 16 / 116
constexpr double kLSlope = 903.29;
constexpr double kLThreshold = 7.999536239999999;
constexpr double kThird = 0.3333333333333333;

/// Factor that raises the mean of a colour to the power exponent + 1.
double MeanFactor(double r, double g, double b, double exponent) {
  constexpr double kFloor = 1e-7;
  const double mean = (r + g + b) / 3;
  return mean < kFloor ? 1.0 : std::pow(mean, exponent);
}

double LabCurve(double t) {
  return t > kThreshold ? std::pow(t, kThird) : kLineSlope * t + kLineOrigin;
}

double InverseLabCurve(double f) {
  static const double edge = std::pow(kThreshold, kThird);
  return f > edge ? f * f * f : (f - kLineOrigin) / kLineSlope;
}

}  // namespace

void CColor::SetRgb(double r, double g, double b) {
  r_ = r, g_ = g, b_ = b;
}

void CColor::SetXyz(double x, double y, double z) {
  x_ = x, y_ = y, z_ = z;
}

void CColor::SetLab(double l, double a, double b) {
  labL_ = l, labA_ = a, labB_ = b;
}

void CColor::RgbToXyz(double r, double g, double b) {
  const double k = MeanFactor(r, g, b, 1.2000000000000002);
  SetRgb(k * r, k * g, k * b);
  SetXyz(2.7689 * r_ + 1.7517 * g_ + 1.1302 * b_, r_ + 4.5907 * g_ + 0.0601 * b_, 0.0565 * g_ + 5.5943 * b_);
}

void CColor::XyzToRgb(double x, double y, double z) {
  SetXyz(x, y, z);
  double b = ((x_ - 2.7689 * y_) * 0.0565 + 10.95948923 * z_) / 61.365124684103996;
  double g = (z_ - 5.5943 * b) / 0.0565;
  double r = y_ - 4.5907 * g - 0.0601 * b;
  r = std::max(r, 0.0), g = std::max(g, 0.0), b = std::max(b, 0.0);
  const double k = MeanFactor(r, g, b, -0.5454545454545454);
  SetRgb(r * k, g * k, b * k);
}

void CColor::RgbToLab(double r, double g, double b) {
  RgbToXyz(r, g, b);
  const double x = x_ / kWhite, y = y_ / kWhite, z = z_ / kWhite;
  const double l = y > kThreshold ? 116 * std::pow(y, kThird) - 16 : kLSlope * y;
  SetLab(l, 500 * (LabCurve(x) - LabCurve(y)), 200 * (LabCurve(y) - LabCurve(z)));
}

void CColor::LabToRgb(double l, double a, double b) {
  SetLab(l, a, b);
  const double t = (l + 16) / 116;
  const double y = l > kLThreshold ? t * t * t : l / kLSlope;
  const double fy = LabCurve(y);
  const double x = InverseLabCurve(a / 500 + fy), z = InverseLabCurve(fy - b / 200);
  XyzToRgb(kWhite * x, kWhite * y, kWhite * z);
}
