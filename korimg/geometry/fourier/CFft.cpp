#include "korimg/geometry/fourier/CFft.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <numbers>
#include <vector>

#include "korimg/geometry/fourier/internal/Rows.h"
#include "korimg/platform/Debug.h"

CFft::CFft() : ComplexPlanes(false) {}

int CFft::GetCeilPowerOf2(int n) {
  const unsigned power = n < 1 ? 0 : std::bit_ceil(static_cast<unsigned>(n));
  return power > static_cast<unsigned>(std::numeric_limits<int>::max()) ? 0 : static_cast<int>(power);
}

int CFft::GetFloorPowerOf2(int n) {
  return n < 1 ? 0 : static_cast<int>(std::bit_floor(static_cast<unsigned>(n)));
}

int CFft::Do(int direction, int plane) {
  const auto unitary = [](int n) { return static_cast<float>(1 / std::sqrt(static_cast<double>(n))); };
  Transform(plane, direction == 0 ? -1 : 1, unitary(width_), unitary(height_));
  return 0;
}

void CFft::Windowing(int plane) {
  complex* c = GetArray(plane);
  if (!c) return;
  for (int y = 0; y < height_; ++y) {
    for (int x = 0; x < width_; ++x, ++c) {
      const double d = std::hypot(x - width_ / 2, y - height_ / 2);
      const auto factor = static_cast<float>(0.5 + 0.5 * std::cos(std::numbers::pi * d / (width_ * 0.5)));
      *c = {c->re * factor, c->im * factor};
    }
  }
}

void CFft::CalcPOC() {
  if (ampPhase_[0] != ampPhase_[1]) {
    OutputDebugStringW(ampPhase_[0] ? L"CFft::CalcPOC(): FFT array A is amplitude."
                                    : L"CFft::CalcPOC(): FFT array B is amplitude.");
    return;
  }
  for (int p = 0; p < 2 && ampPhase_[p]; ++p) {
    ToReIm(p);
  }
  complex* a = GetArray(0);
  const complex* b = GetArray(1);
  for (size_t i = 0; i < static_cast<size_t>(width_) * height_; ++i) {
    a[i] = CrossPower(a[i], b[i]);
  }
}

void CFft::PeakOfPOC(double& x, double& y) {
  x = y = 0;
  if (!GetArray(0)) return;
  Swap(0);
  const complex* data = GetArray(0);
  const auto real = [&](int column, int row) { return data[static_cast<size_t>(row) * width_ + column].re; };
  int px = -1, py = -1;
  float peak = 0;
  for (int row = 0; row < height_; ++row) {
    for (int column = 0; column < width_; ++column) {
      if (real(column, row) > peak) peak = real(px = column, py = row);
    }
  }
  if (px < 0) return;
  constexpr int kReach = 11;
  const int left = std::max(px - kReach, 0), right = std::min(px + kReach, width_);
  const int top = std::max(py - kReach, 0), bottom = std::min(py + kReach, height_);
  const auto forWindow = [&](auto&& f) {
    for (int row = top; row < bottom; ++row) {
      for (int column = left; column < right; ++column) {
        f(column, row);
      }
    }
  };
  float floor = real(0, 0);
  forWindow([&](int column, int row) { floor = std::min(floor, real(column, row)); });
  double sum = 0, sumX = 0, sumY = 0;
  forWindow([&](int column, int row) {
    const double weight = static_cast<double>(real(column, row)) - floor;
    sum += weight;
    sumX += weight * column;
    sumY += weight * row;
  });
  const bool flat = !(sum > 0);  // a single element is its own floor
  x = (flat ? px : sumX / sum) - width_ / 2;
  y = (flat ? py : sumY / sum) - height_ / 2;
}

double CFft::Interp(const complex* data, int width, int height, int imaginary, int method, double x,
                    double y) {
  const auto at = [&](int column, int row) -> double {
    const complex& c =
        data[static_cast<size_t>(std::clamp(row, 0, height - 1)) * width + std::clamp(column, 0, width - 1)];
    return imaginary ? c.im : c.re;
  };
  if (method == 0) return at(static_cast<int>(x + 0.5), static_cast<int>(y + 0.5));
  if (method != 1) return 0;
  const int column = static_cast<int>(std::floor(x)), row = static_cast<int>(std::floor(y));
  const double fx = x - column, fy = y - row;
  return (at(column, row) * (1 - fx) + at(column + 1, row) * fx) * (1 - fy) +
         (at(column, row + 1) * (1 - fx) + at(column + 1, row + 1) * fx) * fy;
}

void CFft::ToLogPolar(int r0, int mode, int degStart, int degEnd, int logTone, int plane) {
  complex* data = GetArray(plane);
  if (!data) return;
  std::vector<complex> from(data, data + static_cast<size_t>(width_) * height_);
  for (complex& c : from) {
    if (logTone) c.re = static_cast<float>(std::log(static_cast<double>(c.re)) + 1);
  }
  constexpr double kRadian = std::numbers::pi / 180;
  const double rMax = (mode == 0 ? width_ / std::numbers::sqrt2 : width_ * 0.5) - 0.5;
  const double rhoStart = std::log(r0 + 0.5), rhoStep = (std::log(rMax) - rhoStart) / height_;
  const double step = (degEnd - degStart) * kRadian / width_;
  for (int j = 0; j < height_; ++j) {
    const double rho = std::exp(rhoStart + j * rhoStep);
    for (int i = 0; i < width_; ++i) {
      const double theta = degStart * kRadian + i * step;
      const double x = std::cos(theta) * rho + width_ * 0.5 - 0.5,
                   y = std::sin(theta) * rho + height_ * 0.5 - 0.5;
      const bool inside = x > -0.5 && x < width_ - 0.5 && y > -0.5 && y < height_ - 0.5;
      data[static_cast<size_t>(j) * width_ + i] = {
          inside ? static_cast<float>(Interp(from.data(), width_, height_, 0, 1, x, y)) : 0.0f, 0.0f};
    }
  }
}

void CFft::GetMinMax(double* min, double* max) {
  *min = *max = 0;
  const complex* data = GetArray(0);
  if (!data) return;
  const auto squared = [](const complex& c) {
    return static_cast<double>(c.re) * c.re + static_cast<double>(c.im) * c.im;
  };
  *min = *max = squared(data[0]);
  for (size_t i = 1; i < static_cast<size_t>(width_) * height_; ++i) {
    *min = std::min(*min, squared(data[i]));
    *max = std::max(*max, squared(data[i]));
  }
}

void CFft::SetGauss(double sigma) {
  complex* c = GetArray(0);
  constexpr double kPeak = 1000.0 * 0.5 / 3.14159;
  for (int y = 0; y < height_; ++y) {
    for (int x = 0; x < width_; ++x, ++c) {
      const double dx = x > width_ / 2 ? x - width_ : x, dy = y > height_ / 2 ? y - height_ : y;
      const auto squared = static_cast<float>(dx * dx + dy * dy);
      const double value = squared == 0 ? 1 : std::exp(-squared * 0.5 / sigma / sigma);
      *c = {static_cast<float>(value * kPeak), 0.0f};
    }
  }
}

void CFft::Convolution(CFft* other, double eps) {
  complex* a = GetArray(0);
  const complex* b = other->GetArray(0);
  if (!a || !b || other->width_ != width_ || other->height_ != height_) return;
  const auto floor = static_cast<float>(eps);
  for (size_t i = 0; i < static_cast<size_t>(width_) * height_; ++i) {
    const float denominator = b[i].re * b[i].re + b[i].im * b[i].im + floor;
    a[i] = {(a[i].im * b[i].im + a[i].re * b[i].re) / denominator,
            (a[i].im * b[i].re - a[i].re * b[i].im) / denominator};
  }
}
