// Star detection and measurement of a frame of 6 megapixels beside SEP's background, extraction and
// apertures, and matching of two lists.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include <benchmark/benchmark.h>
extern "C" {
#include <sep.h>
}

#include "korimg/measurement/CStarMatcher.h"
#include "korimg/platform/CParallel.h"

namespace {

constexpr int kWidth = 3008, kHeight = 2008;

double Random(std::uint64_t& state) {
  state = state * 6364136223846793005ull + 1442695040888963407ull;
  return (static_cast<double>(state >> 11) + 0.5) * 0x1p-53;
}

/// A noisy sky with as many stars, FWHM 3 pixels.
std::vector<float> MakeFrame(int stars) {
  constexpr double kSigma = 3 / 2.3548;
  std::vector<float> pixels(static_cast<size_t>(kWidth) * kHeight);
  std::uint64_t state = 1;
  for (float& v : pixels) {
    v = static_cast<float>(1500 + 35 * std::sqrt(-2 * std::log(Random(state))) *
                                      std::cos(6.283185307 * Random(state)));
  }
  for (int i = 0; i < stars; ++i) {
    const double cx = 10 + (kWidth - 20) * Random(state), cy = 10 + (kHeight - 20) * Random(state);
    const double peak = 60 * std::pow(Random(state), -1.25);
    const auto x0 = static_cast<int>(cx), y0 = static_cast<int>(cy);
    for (int y = y0 - 8; y <= y0 + 8; ++y) {
      for (int x = x0 - 8; x <= x0 + 8; ++x) {
        const double r2 = (x - cx) * (x - cx) + (y - cy) * (y - cy);
        pixels[static_cast<size_t>(y) * kWidth + x] +=
            static_cast<float>(std::min(peak, 60000.0) * std::exp(-r2 / (2 * kSigma * kSigma)));
      }
    }
  }
  return pixels;
}

const std::vector<float>& FrameOf(int stars) {
  static const std::vector<float> few = MakeFrame(2400), many = MakeFrame(30000);
  return stars < 10000 ? few : many;
}

void Finder(benchmark::State& state) {
  CParallel::SetMaxThreads(static_cast<int>(state.range(1)));
  const auto store = korimg::CreateContiguousManager();
  CVelImage image(store, CImage::Float, kWidth, kHeight, 1, 1.0, 0.0, 1, nullptr);
  for (int y = 0; y < kHeight; ++y) {
    std::memcpy(image.GetWritableLine(0, y, 0),
                FrameOf(static_cast<int>(state.range(0))).data() + 1L * y * kWidth, kWidth * sizeof(float));
  }
  int found = 0;
  for ([[maybe_unused]] auto _ : state) {
    found = CStarFinder(&image).Find();
  }
  state.counters["found"] = found;
}

void Sep(benchmark::State& state) {
  const std::vector<float>& frame = FrameOf(static_cast<int>(state.range(0)));
  constexpr float kKernel[] = {1, 2, 1, 2, 4, 2, 1, 2, 1};
  int found = 0;
  std::vector<float> pixels;
  for ([[maybe_unused]] auto _ : state) {
    pixels = frame;  // the background is taken off in place
    sep_image image{};
    image.data = pixels.data();
    image.dtype = SEP_TFLOAT;
    image.w = kWidth;
    image.h = kHeight;
    image.gain = 1;
    sep_bkg* background = nullptr;
    sep_background(&image, 64, 64, 3, 3, 0.0, &background);
    sep_bkg_subarray(background, pixels.data(), SEP_TFLOAT);
    image.noiseval = background->globalrms;
    image.noise_type = SEP_NOISE_STDDEV;
    sep_catalog* catalog = nullptr;
    sep_extract(&image, 1.5F * background->globalrms, SEP_THRESH_ABS, 5, kKernel, 3, 3, SEP_FILTER_CONV, 32,
                0.005, 1, 1.0, &catalog);
    for (int i = 0; i < catalog->nobj; ++i) {
      double sum, error, area;
      short flag;
      sep_sum_circle(&image, catalog->x[i], catalog->y[i], 4.5, 0, 5, 0, &sum, &error, &area, &flag);
      benchmark::DoNotOptimize(sum);
    }
    found = static_cast<int>(catalog->nobj);
    sep_catalog_free(catalog);
    sep_bkg_free(background);
  }
  state.counters["found"] = found;
}

void Matcher(benchmark::State& state) {
  std::vector<CStar> reference(state.range(0)), frame(state.range(0));
  std::uint64_t seed = 7;
  for (size_t i = 0; i < reference.size(); ++i) {
    reference[i].x = kWidth * Random(seed);
    reference[i].y = kHeight * Random(seed);
    reference[i].flux = 1000 / Random(seed);
    frame[i] = reference[i];
    frame[i].x += 11.5 + 0.1 * Random(seed);
    frame[i].y -= 7.25;
  }
  for ([[maybe_unused]] auto _ : state) {
    benchmark::DoNotOptimize(CStarMatcher(reference).Match(frame, kWidth, kHeight).dx);
  }
}

BENCHMARK(Sep)
    ->Args({2400, 1})
    ->Args({30000, 1})
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();
BENCHMARK(Finder)
    ->Args({2400, 1})
    ->Args({30000, 1})
    ->Args({2400, 2})
    ->Args({30000, 2})
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();
BENCHMARK(Matcher)
    ->Arg(20)
    ->Arg(200)
    ->Arg(5000)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
