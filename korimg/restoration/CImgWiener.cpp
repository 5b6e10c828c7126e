#include "korimg/restoration/CImgWiener.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <optional>
#include <vector>

#include "korimg/geometry/fourier/CFft.h"
#include "korimg/geometry/fourier/CFftd.h"
#include "korimg/restoration/internal/Restoration.h"

using namespace korimg;

namespace {

enum Message : int { Title = 6104 };

/// Of the total, 100 for each plane.
enum Steps : int { MadeGauss = 5, GaussTransformed = 10, Loaded = 5, Transformed = 25, Stored = 10 };

/// The Gaussian's spectrum, which is real, is the product of one along each axis.
std::vector<float> SpectrumOfLine(int length, double sigma) {
  CFft line;
  if (!line.Create(length, 1)) throw std::bad_alloc();
  line.SetGauss(sigma);
  line.Do(0, 0);
  std::vector<float> spectrum(length);
  for (int k = 0; k < length; ++k) {
    spectrum[k] = line.GetArray(0)[k].re;
  }
  return spectrum;
}

/// What each frequency of a plane is multiplied by.
struct Response {
  std::vector<float> alongX, alongY;
  float floor, gain;

  Response(int width, int height, double sigma, double noise, bool keepsFlux)
      : alongX(SpectrumOfLine(width, sigma)), alongY(SpectrumOfLine(height, sigma)) {
    if (width == 1) alongX.push_back(alongX[0]);  // the column beside it is another matter
    // Both lines have the Gaussian's peak.
    constexpr auto kPeak = static_cast<float>(1000.0 * 0.5 / 3.14159);
    for (float& v : alongY) {
      v /= kPeak;
    }
    const double largest = static_cast<double>(alongX[0]) * alongY[0];
    floor = static_cast<float>(largest * largest * noise);
    gain = keepsFlux ? static_cast<float>(largest * (1 + noise)) : 1.0f;
  }
};

/// Filters a plane whose even columns are the real parts, and odd ones the imaginary parts. With E and O
/// their spectra, the plane's is E + w O for the lower frequencies along x, and E - w O for those half the
/// width above.
class PackedFilter {
 public:
  PackedFilter(CFftd& fft, const Response& response)
      : fft_(fft), response_(response), roots_(fft.GetWidth()) {
    for (int k = 0; k < fft.GetWidth(); ++k) {
      const double angle = std::numbers::pi * k / fft.GetWidth();
      roots_[k] = {static_cast<float>(std::cos(angle)), static_cast<float>(std::sin(angle))};
    }
  }

  void Run() const {
    const int height = fft_.GetHeight();
    ForLines(Team::All, 0, height / 2 + 1, [&](int y) {
      const int opposite = (height - y) % height;
      const auto copy = [&](int line) {
        const complex* row = Row(line);
        return std::vector<complex>(row, row + fft_.GetWidth());
      };
      const std::vector<complex> one = copy(y), other = copy(opposite);
      FilterRow(y, one.data(), other.data());
      if (opposite != y) FilterRow(opposite, other.data(), one.data());
    });
  }

 private:
  complex* Row(int y) const { return fft_.GetArray(0) + static_cast<size_t>(y) * fft_.GetWidth(); }

  /// A row from copies of it and of the row of the opposite frequency.
  void FilterRow(int y, const complex* z, const complex* opposite) const {
    complex* row = Row(y);
    const int width = fft_.GetWidth();
    const auto element = [=, low = response_.alongX.data(), high = response_.alongX.data() + width,
                          b = response_.alongY[y], floor = response_.floor, gain = response_.gain,
                          root = roots_.data()](int x, int opposed) KORIMG_IN_LOOP {
      const auto factor = [=](float a) KORIMG_IN_LOOP {
        const float value = a * b, denominator = value * value + floor;
        return denominator > 0 ? value / denominator * gain : 0.0f;
      };
      const float first = factor(low[x]), second = factor(high[x]);
      const float sum = 0.25f * (first + second), difference = 0.25f * (first - second);
      const complex r{opposite[opposed].re, -opposite[opposed].im}, w = root[x];
      const complex even{z[x].re + r.re, z[x].im + r.im}, odd{z[x].im - r.im, r.re - z[x].re};
      const complex e{even.re * sum + (odd.re * w.re - odd.im * w.im) * difference,
                      even.im * sum + (odd.re * w.im + odd.im * w.re) * difference};
      const complex o{odd.re * sum + (even.re * w.re + even.im * w.im) * difference,
                      odd.im * sum + (even.im * w.re - even.re * w.im) * difference};
      return complex{e.re - o.im, e.im + o.re};
    };
    row[0] = element(0, 0);
    RunInLongVectors([=]() KORIMG_IN_LOOP {
      for (int x = 1; x < width; ++x) {
        row[x] = element(x, width - x);
      }
    });
  }

  CFftd& fft_;
  const Response& response_;
  std::vector<complex> roots_;
};

}  // namespace

int CImgWiener::Do(double fSigma, double fNoise, CRect* pRect, int nShowProgress) {
  return Filter(fSigma / 1.414213562, fNoise, false, pRect, nShowProgress);
}

int CImgWiener::DoKeepingFlux(double sigma, double noise, CRect* rect, int show) {
  return Filter(sigma, noise, true, rect, show);
}

int CImgWiener::Filter(double sigma, double noise, bool keepsFlux, CRect* rect, int show) {
  const Window window(*this, rect);
  if (!(sigma > 0) || !(noise >= 0)) return 0;
  const ProgressScope progress(*this, show, Title, GetPlanes() * 100);
  const size_t pitch = window.Width();
  const int width = CFft::GetCeilPowerOf2(window.Width()), height = CFft::GetCeilPowerOf2(window.Height());
  CFftd fft;
  std::optional<TemporaryPlane> room;  // of the image's store, and so within its budget
  std::optional<Response> response;
  std::optional<PackedFilter> filter;
  return RestorePlanes(*this, window, [&](int p, float* pixels, CVmManager& store) {
    if (p == 0) {
      const int columns = std::max(width / 2, 1);
      room.emplace(store, 2 * columns, height);
      fft.Use(reinterpret_cast<complex*>(room->Pixels()), columns, height);
      if (!ShowProgress(MadeGauss)) return false;
      response.emplace(width, height, sigma, noise, keepsFlux);
      filter.emplace(fft, *response);
      if (!ShowProgress(2 * GaussTransformed)) return false;
    } else {
      fft.Init();
    }
    const auto black = static_cast<float>(GetLevelMin(p));
    const auto forRows = [&](auto&& work) {
      ForLines(Team::All, 0, window.Height(), [&](int y) {
        float* row = &fft.GetArray(0)[static_cast<size_t>(y) * fft.GetWidth()].re;
        work(pixels + y * pitch, row);
      });
    };
    forRows([&](const float* line, float* row) {
      for (size_t x = 0; x < pitch; ++x) {
        row[x] = std::isfinite(line[x]) ? line[x] - black : 0.0f;
      }
    });
    if (!ShowProgress(Loaded)) return false;
    fft.Do(0, 0);
    if (!ShowProgress(Transformed)) return false;
    filter->Run();
    if (!ShowProgress(Transformed)) return false;
    fft.Do(1, 0);
    if (!ShowProgress(Transformed)) return false;
    forRows([&](float* line, const float* row) {
      for (size_t x = 0; x < pitch; ++x) {
        line[x] = row[x] + black;
      }
    });
    return ShowProgress(Stored) != 0;
  });
}
