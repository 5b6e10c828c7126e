#include "korimg/geometry/fourier/CFftd.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <numeric>

#include "korimg/geometry/fourier/internal/LineTransform.h"
#include "korimg/geometry/fourier/internal/Rows.h"
#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/Vectors.h"

using namespace korimg;

namespace {

/// A plane as the pipelines see it: real and imaginary part, column, row.
Halide::Runtime::Buffer<float, 3> Elements(complex* data, int width, int height) {
  return Halide::Runtime::Buffer<float, 3>(&data->re, 2, width, height);
}

/// 0.5 + 0.5 cos(pi sqrt(s)) for s from 0 to 1: the square of cos(pi / 2 sqrt(s)), a series in s without a
/// root.
KORIMG_IN_LOOP inline float RaisedCosine(float s) {
  constexpr int kTerms = 8;
  constexpr auto kSeries = [] {
    std::array<float, kTerms> series{};
    double term = 1;
    for (int i = 0; i < kTerms; ++i) {
      series[i] = static_cast<float>(term);
      term *= -std::numbers::pi * std::numbers::pi / 4 / ((2 * i + 1) * (2 * i + 2));
    }
    return series;
  }();
  float cosine = 0;
  for (int i = kTerms - 1; i >= 0; --i) {
    cosine = cosine * s + kSeries[i];
  }
  return cosine * cosine;
}

}  // namespace

CFftd::CFftd() : ComplexPlanes(true) {}

int CFftd::Do(int direction, int plane) {
  if (direction == 0) {
    Transform(plane, 1, 1.0f, 1.0f);
  } else {
    Transform(plane, -1, 1.0f / static_cast<float>(width_), 1.0f / static_cast<float>(height_));
  }
  return 0;
}

int CFftd::Do1D(int direction, int plane) {
  complex* data = GetArray(plane);
  if (!data) return 0;
  const LineTransform transform(width_);
  const LineTransform::Work work(width_);
  std::vector<complex> line(width_);
  const size_t elements = static_cast<size_t>(width_) * height_;
  for (int y = 0; y < height_; ++y) {
    complex* row = data + static_cast<size_t>(y) * width_;
    transform.Run({row, 1, width_, 1}, direction == 0 ? 1 : -1,
                  direction == 0 ? 1.0f : 1.0f / static_cast<float>(width_), work);
    std::copy(row, row + width_, line.begin());
    size_t place = y;
    for (int k = 0; k < width_ && place < elements; ++k, place += height_ + 1) {
      data[place] = line[k];
    }
    if (progress_) progress_->ShowProgress(1);
  }
  return 0;
}

void CFftd::Windowing(int plane) {
  complex* data = GetArray(plane);
  if (!data) return;
  const double radius = std::min(width_, height_) / 2;
  ForRows([&](int y) {
    std::vector<float> factors(width_);
    float* factor = factors.data();
    float* row = &data[static_cast<size_t>(y) * width_].re;
    const auto dy = static_cast<float>(y - height_ / 2), unit = static_cast<float>(1 / (radius * radius));
    const int width = width_, middle = width_ / 2;
    RunInLongVectors([=]() KORIMG_IN_LOOP {
      for (int x = 0; x < width; ++x) {
        const auto dx = static_cast<float>(x - middle);
        const float s = (dx * dx + dy * dy) * unit;
        factor[x] = s < 1 ? RaisedCosine(s) : 0.0f;
      }
      for (int x = 0; x < width; ++x) {
        row[2 * x] *= factor[x];
        row[2 * x + 1] *= factor[x];
      }
    });
  });
}

void CFftd::CalcPOC(bool limitRows) {
  complex* a = GetArray(0);
  if (!a) return;
  const complex* b = GetArray(1);
  ForRows([&](int y) {
    complex* rowA = a + static_cast<size_t>(y) * width_;
    const complex* rowB = b + static_cast<size_t>(y) * width_;
    const bool beyond = limitRows && !Band(height_).Has(y);
    const int left = beyond ? 0 : Band(width_).end, right = beyond ? width_ : Band(width_).start;
    RunInLongVectors([=, this]() KORIMG_IN_LOOP {
      for (int x = 0; x < left; ++x) {
        rowA[x] = CrossPower(rowA[x], rowB[x]);
      }
      for (int x = right; x < width_; ++x) {
        rowA[x] = CrossPower(rowA[x], rowB[x]);
      }
    });
    std::fill(rowA + left, rowA + right, complex{});
  });
}

void CFftd::CalcPOC() {
  CalcPOC(true);
}

void CFftd::CalcPOC1D() {
  CalcPOC(false);
}

/// Images of very different scales lose each other in rounding: brings them near to one another. False when
/// one has nothing to correlate.
bool CFftd::BalanceParts() {
  complex* data = GetArray(0);
  struct Power {
    double re = 0, im = 0;
  } power;
  for (const Power& row : MapLines(0, height_, [&](int y) {
         const complex* row = data + static_cast<size_t>(y) * width_;
         Power sum;
         RunInLongVectors([&sum, row, width = width_]() KORIMG_IN_LOOP {
           constexpr int kLanes = 8;
           double re[kLanes] = {}, im[kLanes] = {};
           for (int x = 0; x < width; x += kLanes) {
             for (int k = 0; k < std::min(kLanes, width - x); ++k) {
               re[k] += static_cast<double>(row[x + k].re) * row[x + k].re;
               im[k] += static_cast<double>(row[x + k].im) * row[x + k].im;
             }
           }
           sum = {std::accumulate(re, re + kLanes, 0.0), std::accumulate(im, im + kLanes, 0.0)};
         });
         return sum;
       })) {
    power.re += row.re;
    power.im += row.im;
  }
  const double ratio = std::sqrt(power.re / power.im);
  if (!(ratio > 0) || !std::isfinite(ratio)) return false;
  constexpr double kNear = 16;  // chosen: a float has 20 bits left of the weaker image
  if (ratio < kNear && ratio > 1 / kNear) return true;
  ForRows([&, factor = static_cast<float>(ratio)](int y) {
    complex* row = data + static_cast<size_t>(y) * width_;
    for (int x = 0; x < width_; ++x) {
      row[x].im *= factor;
    }
  });
  return true;
}

/// The cross-power spectrum of the images whose joint spectrum is Z: (Z(k) + conj Z(-k)) / 2 and (Z(k) - conj
/// Z(-k)) / 2i.
void CFftd::CalcPOCOfParts() {
  complex* data = GetArray(0);
  const int end = Band(width_).end, start = Band(width_).start;
  const auto isIn = [&](int y) { return Band(height_).Has(y); };
  // Row y from copies of it and of the row of the opposite frequency.
  const auto calculate = [&](int y, const std::vector<complex>& own, const std::vector<complex>& other) {
    complex* row = data + static_cast<size_t>(y) * width_;
    std::fill(row + (isIn(y) ? end : 0), row + (isIn(y) ? start : width_), complex{});
    if (!isIn(y)) return;
    complex const *z = own.data(), *opposite = other.data();
    const auto part = [=](int x, int opposed) KORIMG_IN_LOOP {
      const complex r{opposite[opposed].re, -opposite[opposed].im};
      return CrossPower({z[x].re + r.re, z[x].im + r.im}, {z[x].im - r.im, r.re - z[x].re});
    };
    if (end > 0 || start == 0) row[0] = part(0, 0);
    RunInLongVectors([=, width = width_]() KORIMG_IN_LOOP {
      for (int x = 1; x < end; ++x) {
        row[x] = part(x, width - x);
      }
      for (int x = std::max(start, 1); x < width; ++x) {
        row[x] = part(x, width - x);
      }
    });
  };
  ForLines(Team::All, 0, height_ / 2 + 1, [&](int y) {
    const int opposite = (height_ - y) % height_;
    const auto copy = [&](int line) {
      const complex* row = data + static_cast<size_t>(line) * width_;
      const bool isNeeded = isIn(y) || isIn(opposite);
      return std::vector<complex>(row, row + (isNeeded ? width_ : 0));
    };
    const std::vector<complex> one = copy(y), other = copy(opposite);
    calculate(y, one, other);
    if (opposite != y) calculate(opposite, other, one);
    if (progress_) progress_->ShowProgress(opposite != y ? 2 : 1);
  });
}

void CFftd::CorrelateParts() {
  complex* data = GetArray(0);
  if (!data) return;
  Windowing(0);
  if (!BalanceParts()) {
    return ForRows([&](int y) { std::fill_n(data + static_cast<size_t>(y) * width_, width_, complex{}); });
  }
  // Frequencies of the band need the opposite ones: one more column than CalcPOC keeps.
  const Frequencies rows = Band(height_), columns = Band(width_);
  Transform(0, 1, 1.0f, 1.0f, kAll, {columns.end + 1, columns.start});
  CalcPOCOfParts();
  Transform(0, -1, 1.0f / static_cast<float>(width_), 1.0f / static_cast<float>(height_), rows);
  Swap(0);
}

void CFftd::SwapX(int plane) {
  complex* data = GetArray(plane);
  if (!data) return;
  ForRows([&](int y) {
    complex* row = data + static_cast<size_t>(y) * width_;
    std::swap_ranges(row, row + width_ / 2, row + width_ / 2);
  });
}

void CFftd::PeakOfPOC(const int* x, const int* y, double& dx, double& dy, double& peak) {
  dx = dy = peak = 0;
  const complex* data = GetArray(0);
  if (!data) return;
  struct Place {
    int x = -1, y = -1;
    float value = 0;
  } found;
  const auto at = [&](int column, int row) {
    return Place{column, row, data[static_cast<size_t>(row) * width_ + column].re};
  };
  if (x && y) {
    found = at(std::clamp(*x, 0, width_ - 1), std::clamp(*y, 0, height_ - 1));
  } else {
    const auto largest = MapLines(0, height_, [&](int row) {
      Place best;
      for (int column = 0; column < width_; ++column) {
        if (at(column, row).value > best.value) best = at(column, row);
      }
      return best;
    });
    for (const Place& place : largest) {
      if (place.value > found.value) found = place;
    }
  }
  if (!(found.value > 0)) return;
  peak = found.value;
  SubPixPeakPEF(found.x, found.y, 1, dx, dy);
  dx -= width_ / 2;
  dy -= height_ / 2;
}

void CFftd::PeakOfPOC1D(int row, double& dx) {
  const complex* data = GetArray(0);
  if (!data || row < 0 || row >= height_) return;
  dx = 0;
  int px = -1;
  float peak = 0;
  for (int x = 0; x < width_; ++x) {
    const float value = data[static_cast<size_t>(row) * width_ + x].re;
    if (value > peak) {
      peak = value;
      px = x;
    }
  }
  if (px < 0) return;
  double unused = 0;
  SubPixPeakPEF(px, row, 0, dx, unused);
  dx -= width_ / 2;
}

void CFftd::PeakOfPOC1D(double& dx) {
  constexpr int kMargin = 20;
  complex* data = GetArray(0);
  if (!data || height_ <= 2 * kMargin) return;
  for (int x = 0; x < width_; ++x) {
    data[x].re = 0;
  }
  dx = 0;
}

void CFftd::SubPixPeakPEF(int px, int py, int both, double& dx, double& dy) {
  const complex* data = GetArray(0);
  // Where the fit along a line of values puts the peak, from samples about p and its larger neighbour q.
  const auto fit = [](int p, int q, int size, auto&& value) {
    const auto r = [&](int i) { return static_cast<double>(value(std::clamp(i, 0, size - 1))); };
    const auto c = [size](int i) { return static_cast<double>(std::clamp(i, 0, size - 1) - size / 2); };
    double products = 0, squares = 0;
    for (const int s : {p, q}) {
      for (int i = 1; i <= 3; ++i) {
        constexpr double kBand = 0.5;
        const double cosine = 2 * std::cos(std::numbers::pi * kBand * i);
        const double u = r(s - i) + r(s + i) - cosine * r(s);
        const double v = cosine * c(s) * r(s) - c(s - i) * r(s - i) - c(s + i) * r(s + i);
        products += u * v;
        squares += u * u;
      }
    }
    const double delta = squares > 0 ? products / squares : 0;
    return size / 2 - (std::isfinite(delta) ? delta : 0);
  };
  const auto inRow = [&](int x) { return data[static_cast<size_t>(py) * width_ + x].re; };
  const int left = std::max(px - 1, 0), right = std::min(px + 1, width_ - 1);
  dx = fit(px, inRow(left) > inRow(right) ? px - 1 : px + 1, width_, inRow);
  if (!both) return;
  const auto inColumn = [&](int y) { return data[static_cast<size_t>(y) * width_ + px].re; };
  const int above = std::min(std::abs(py - 1), height_ - 1);
  const int below = py + 1 < height_ ? py + 1 : height_ - (py + 1) % height_ - 1;
  dy = fit(py, inColumn(above) > inColumn(below) ? above : below, height_, inColumn);
}

void CFftd::ToLogPolar(int r0, int mode, int degStart, int degEnd, int logTone, int plane) {
  complex* data = GetArray(plane);
  if (!data) return;
  auto elements = Elements(data, width_, height_);
  if (logTone) {
    ScalarResult<float> smallest;
    remin_float(elements, smallest);
    log_tone_float(smallest.Value(), elements);
  }
  constexpr double kRadian = std::numbers::pi / 180;
  const int half =
      static_cast<int>((mode == 0 ? std::hypot(width_, height_) : std::min(width_, height_)) * 0.5);
  const double rhoStart = std::log(r0 + 1.0), rhoStep = (std::log(half - 0.5) - rhoStart) / height_;
  std::vector<complex> copy(data, data + static_cast<size_t>(width_) * height_);
  auto from = Elements(copy.data(), width_, height_);
  to_log_polar_float(from, static_cast<float>(rhoStart), static_cast<float>(rhoStep),
                     static_cast<float>(degStart * kRadian),
                     static_cast<float>((degEnd - degStart) * kRadian / width_), elements);
}
