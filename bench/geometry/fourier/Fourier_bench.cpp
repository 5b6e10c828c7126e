// Transforms and registration beside OpenCV's; the counter `error` is the distance from the true shift in
// pixels. peers.py measures SciPy and scikit-image on the same sizes.
#include <cmath>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "korimg/geometry/fourier/CImgFourier.h"

#include "bench/Measure.h"
#include "tests/support/Images.h"

namespace {

constexpr int kTransform = 4096, kFrame = 2048;
constexpr double kDx = 12.37, kDy = -7.61, kTurn = 7.3;

void SetThreads(const benchmark::State& state) {
  korimg::bench::SetThreads(static_cast<int>(state.range(0)));
}

template <int direction>
void Transform(benchmark::State& state) {
  SetThreads(state);
  CFftd fft;
  fft.Create(kTransform, kTransform);
  for (int i = 0; i < kTransform * kTransform; ++i) {
    fft.GetArray(0)[i].re = static_cast<float>(korimg::test::Noise(i));
  }
  for ([[maybe_unused]] auto _ : state) {
    fft.Do(direction, 0);
    state.PauseTiming();
    fft.Do(1 - direction, 0);  // numbers stay as they are
    state.ResumeTiming();
  }
}

void OpenCvTransform(benchmark::State& state) {
  SetThreads(state);
  cv::Mat in(kTransform, kTransform, CV_32FC2), out;
  cv::randu(in, 0, 1);
  cv::dft(in, out);
  for ([[maybe_unused]] auto _ : state) {
    cv::dft(in, out);
  }
}

/// A field of stars, with noise to either side of 1000, turned clockwise about the middle and shifted.
std::shared_ptr<CImgFourier> Stars(double dx, double dy, double degrees, int seed, double noise = 5) {
  using korimg::test::Noise;
  auto image = korimg::test::Make<CImgFourier>(korimg::test::MemoryStore(), kFrame, kFrame, 1,
                                               korimg::test::Random(1000 - noise, 1000 + noise, seed));
  const double c = std::cos(degrees * 3.14159265358979 / 180), s = std::sin(degrees * 3.14159265358979 / 180);
  float* pixels = image->GetWritableLine(0, 0, 0);
  for (int i = 0; i < 2000; ++i) {
    const double u = (Noise(3 * i) - 0.5) * 1.5 * kFrame, v = (Noise(3 * i + 1) - 0.5) * 1.5 * kFrame;
    const double x = c * u - s * v + kFrame / 2 + dx, y = s * u + c * v + kFrame / 2 + dy;
    const double flux = 50 / (Noise(3 * i + 2) + 0.003);
    const int left = static_cast<int>(x), top = static_cast<int>(y);
    for (int row = std::max(top - 8, 0); row < std::min(top + 9, kFrame); ++row) {
      for (int column = std::max(left - 8, 0); column < std::min(left + 9, kFrame); ++column) {
        const double r2 = (column - x) * (column - x) + (row - y) * (row - y);
        pixels[row * kFrame + column] += static_cast<float>(flux * std::exp(-r2 / 2 / 1.6 / 1.6));
      }
    }
  }
  return image;
}

CImgFourier& First() {
  static const auto image = Stars(0, 0, 0, 1);
  return *image;
}
CImgFourier& Shifted() {
  static const auto image = Stars(kDx, kDy, 0, 2);
  return *image;
}
CImgFourier& NoisyFirst() {
  static const auto image = Stars(0, 0, 0, 1, 60);
  return *image;
}
CImgFourier& NoisyShifted() {
  static const auto image = Stars(kDx, kDy, 0, 2, 60);
  return *image;
}

template <CImgFourier& (*first)(), CImgFourier& (*second)()>
void Shift(benchmark::State& state) {
  SetThreads(state);
  double dx = 0, dy = 0, peak = 0;
  int w = 0, h = 0;
  first().CalcShiftByPOC(&second(), nullptr, 0, nullptr, dx, dy, peak, w, h, 0);
  for ([[maybe_unused]] auto _ : state) {
    first().CalcShiftByPOC(&second(), nullptr, 0, nullptr, dx, dy, peak, w, h, 0);
  }
  state.counters["error"] = std::hypot(dx - kDx, dy - kDy);
}

template <CImgFourier& (*first)(), CImgFourier& (*second)()>
void OpenCvShift(benchmark::State& state) {
  SetThreads(state);
  const cv::Mat a(kFrame, kFrame, CV_32F, first().GetWritableLine(0, 0, 0));
  const cv::Mat b(kFrame, kFrame, CV_32F, second().GetWritableLine(0, 0, 0));
  cv::Mat window;
  cv::createHanningWindow(window, a.size(), CV_32F);
  cv::Point2d shift;
  for ([[maybe_unused]] auto _ : state) {
    state.PauseTiming();
    const cv::Mat one = a.clone(), other = b.clone();  // which it multiplies by the window in place
    state.ResumeTiming();
    shift = cv::phaseCorrelate(one, other, window);
  }
  state.counters["error"] = std::hypot(shift.x - kDx, shift.y - kDy);
}

void Turn(benchmark::State& state) {
  SetThreads(state);
  static const auto turned = Stars(0, 0, kTurn, 3);
  double degrees = 0;
  int w = 0, h = 0;
  for ([[maybe_unused]] auto _ : state) {
    First().CalcRotByRIPOC(turned.get(), nullptr, nullptr, nullptr, degrees, w, h, 0);
  }
  state.counters["error"] = std::abs(degrees - kTurn);
}

[[maybe_unused]] const bool g_registered = [] {
  const auto add = [](const char* name, void (*run)(benchmark::State&), int threads) {
    benchmark::RegisterBenchmark((name + std::string("/threads")).c_str(), run)
        ->Arg(threads)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
  };
  for (const int threads : {1, 2}) {
    add("forward", Transform<0>, threads);
    add("inverse", Transform<1>, threads);
    add("forward_opencv", OpenCvTransform, threads);
    add("CalcShiftByPOC", Shift<First, Shifted>, threads);
    add("CalcShiftByPOC_opencv", OpenCvShift<First, Shifted>, threads);
    add("CalcShiftByPOC_noisy", Shift<NoisyFirst, NoisyShifted>, threads);
    add("CalcShiftByPOC_noisy_opencv", OpenCvShift<NoisyFirst, NoisyShifted>, threads);
    add("CalcRotByRIPOC", Turn, threads);
  }
  return true;
}();

}  // namespace

BENCHMARK_MAIN();
