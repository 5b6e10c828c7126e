// Filters along circles, beside the unsharp mask as it is defined: sines for each place, and each window
// summed up by itself, one pixel after the other on one thread. That one runs over a few lines, whose time is
// scaled.
#include <algorithm>
#include <cmath>
#include <memory>
#include <numbers>
#include <vector>

#include <benchmark/benchmark.h>

#include "korimg/restoration/CImgRUsm.h"
#include "korimg/restoration/CImgRttnGrdnt.h"

#include "bench/Measure.h"
#include "tests/support/Images.h"

namespace {

constexpr int kWidth = 3000, kHeight = 2000, kSegments = 200, kLines = 4;
constexpr double kAngle = 10, kCentreX = 1500, kCentreY = 1000;

template <class Target>
struct Images {
  std::shared_ptr<CVmManager> store = korimg::CreateContiguousManager();
  std::shared_ptr<CVelImage> source =
      korimg::test::Make(store, kWidth, kHeight, 1, korimg::test::Random(100, 900));
  std::shared_ptr<Target> target =
      korimg::test::Make<Target>(store, kWidth, kHeight, 1, [](int, int, int) { return 0.0; });
};

void Unsharp(benchmark::State& state) {
  static const Images<CImgRUsm> images;
  const int mean = 0;
  korimg::bench::Run(state, static_cast<int>(state.range(0)), [&] {
    images.target->Do(kAngle, 1, kSegments, 0, kCentreX, kCentreY, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, mean,
                      images.source.get(), nullptr, 0);
  });
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}

void Gradient(benchmark::State& state) {
  static const Images<CImgRttnGrdnt> images;
  korimg::bench::Run(state, static_cast<int>(state.range(0)), [&] {
    images.target->Do(kAngle, 1, kCentreX, kCentreY, images.source.get(), nullptr, 0);
  });
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}

float Read(const float* pixels, double x, double y) {
  x = std::min(x, kWidth - 1.0);
  y = std::min(y, kHeight - 1.0);
  const int ix = std::min(static_cast<int>(x), kWidth - 2), iy = std::min(static_cast<int>(y), kHeight - 2);
  const double a = x - ix, b = y - iy;
  const float* p = pixels + 1LL * iy * kWidth + ix;
  return static_cast<float>((1 - b) * ((1 - a) * p[0] + a * p[1]) +
                            b * ((1 - a) * p[kWidth] + a * p[kWidth + 1]));
}

float OnePixel(const float* pixels, int px, int py, std::vector<float>& samples) {
  const double angle = kAngle * std::numbers::pi / 180, dx = px - kCentreX, dy = py - kCentreY;
  const double r = std::sqrt(dx * dx + dy * dy), theta = std::atan2(dx, dy),
               s = pixels[1LL * py * kWidth + px];
  const auto inside = [](double x, double y) { return x >= 0 && x < kWidth && y >= 0 && y < kHeight; };
  const double x1 = std::sin(theta + angle) * r + kCentreX, y1 = std::cos(theta + angle) * r + kCentreY;
  const double x2 = std::sin(theta - angle) * r + kCentreX, y2 = std::cos(theta - angle) * r + kCentreY;
  if (!inside(x1, y1) || !inside(x2, y2)) return static_cast<float>(s);
  if (!(Read(pixels, x1, y1) > 0 && Read(pixels, x2, y2) > 0)) return static_cast<float>(s);
  const double chord = std::sqrt((x1 - x2) * (x1 - x2) + (y1 - y2) * (y1 - y2));
  if (chord < 1.5) return static_cast<float>(s);
  samples.clear();
  for (int i = 0; i < static_cast<int>(chord + 0.5); ++i) {
    const double t = theta - angle + i * 2 * angle / chord;
    const double x = std::sin(t) * r + kCentreX, y = std::cos(t) * r + kCentreY;
    if (inside(x, y)) samples.push_back(Read(pixels, x, y));
  }
  const int length = static_cast<int>(samples.size()) / 2;
  if (length == 0) return static_cast<float>(s);
  const double half = static_cast<double>(samples.size()) * 0.5, step = half / std::min(length, kSegments);
  double sum = 0;
  int windows = 0;
  for (double p = 0; p < half - 0.5; p += step, ++windows) {
    float window = 0;
    for (int i = static_cast<int>(p); i < static_cast<int>(p) + length; ++i) {
      window += samples[i];
    }
    sum += window / static_cast<float>(length);
  }
  return static_cast<float>((s - sum / windows) * 2.1 + s);
}

void PixelByPixel(benchmark::State& state) {
  static const Images<CVelImage> images;
  const float* pixels = images.source->GetLine(0, 0, 0);
  float* out = images.target->GetWritableLine(0, 0, 0);
  korimg::bench::SetThreads(1);
  std::vector<float> samples;
  for ([[maybe_unused]] auto _ : state) {
    for (int line = 0; line < kLines; ++line) {
      const int y = (2 * line + 1) * kHeight / (2 * kLines);
      for (int x = 0; x < kWidth; ++x) {
        out[1LL * y * kWidth + x] = OnePixel(pixels, x, y, samples);
      }
    }
  }
  state.SetItemsProcessed(state.iterations() * kWidth * kLines);
}

}  // namespace

int main(int argc, char** argv) {
  korimg::bench::Add("PixelByPixel", PixelByPixel, 1);
  for (const int threads : {1, 2}) {
    korimg::bench::Add("RotationalUnsharp", Unsharp, threads);
    korimg::bench::Add("RotationalGradient", Gradient, threads);
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
