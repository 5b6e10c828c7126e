// Deconvolution, beside four transforms of the size of the filter; deconvolution_peers.py measures SciPy and
// scikit-image on the same sizes.
#include <cmath>

#include "korimg/geometry/fourier/CFftd.h"
#include "korimg/restoration/CImgLucy.h"
#include "korimg/restoration/CImgMem.h"
#include "korimg/restoration/CImgWiener.h"

#include "bench/Measure.h"
#include "tests/support/Images.h"

namespace {

constexpr double kSigma = 2, kGain = 1.5, kReadNoise = 8, kDeviation = 15;

/// Stars on a sky, blurred, with noise.
template <class Image>
std::shared_ptr<Image> Field(int side, int planes = 1) {
  using korimg::test::Noise;
  const auto image = korimg::test::Make<Image>(korimg::test::MemoryStore(), side, side, planes,
                                               korimg::test::Random(300 - 26, 300 + 26));
  for (int p = 0; p < planes; ++p) {
    float* pixels = image->GetWritableLine(0, 0, p);
    for (int i = 0; i < side; ++i) {
      const int cx = 16 + static_cast<int>(Noise(3 * i) * (side - 32)),
                cy = 16 + static_cast<int>(Noise(3 * i + 1) * (side - 32));
      const double peak = 30 * std::pow(100, Noise(3 * i + 2));
      for (int y = cy - 12; y <= cy + 12; ++y) {
        for (int x = cx - 12; x <= cx + 12; ++x) {
          const double r2 = (x - cx) * (x - cx) + (y - cy) * (y - cy);
          pixels[1LL * y * side + x] += static_cast<float>(peak * std::exp(-r2 / (2 * kSigma * kSigma)));
        }
      }
    }
  }
  return image;
}

/// Restores a copy each time.
template <class Image, class F>
void Restore(benchmark::State& state, int side, int planes, F&& run) {
  korimg::bench::SetThreads(static_cast<int>(state.range(0)));
  const auto field = Field<Image>(side, planes);
  Image copy;
  for ([[maybe_unused]] auto _ : state) {
    state.PauseTiming();
    copy.CopyImage(*field, nullptr, nullptr);
    state.ResumeTiming();
    run(copy);
  }
}

/// Twenty iterations: so little noise is never explained.
void Lucy(benchmark::State& state) {
  Restore<CImgLucy>(state, 2048, 1,
                    [](CImgLucy& image) { image.Do(kSigma, 1e3 * kGain, kReadNoise, 20, nullptr, 0); });
}

void Mem(benchmark::State& state) {
  Restore<CImgMem>(state, 2048, 1,
                   [](CImgMem& image) { image.Do(kSigma, 1e-3 * kDeviation, 20, nullptr, 0); });
}

template <int planes>
void Wiener(benchmark::State& state) {
  Restore<CImgWiener>(state, 4096, planes, [](CImgWiener& image) { image.Do(kSigma, 0.01, nullptr, 0); });
}

void FourTransforms(benchmark::State& state) {
  CFftd fft;
  fft.Create(4096, 4096);
  korimg::bench::Run(state, static_cast<int>(state.range(0)), [&] {
    for (const int direction : {0, 1, 0, 1}) {
      fft.Do(direction, 0);
    }
  });
}

[[maybe_unused]] const bool g_registered = [] {
  using korimg::bench::Add;
  for (const int threads : {1, 2}) {
    Add("Richardson-Lucy_20_2048", Lucy, threads);
    Add("maximum-entropy_20_2048", Mem, threads);
    Add("wiener_4096", Wiener<1>, threads);
    Add("wiener_4096_three_planes", Wiener<3>, threads);
    Add("four_transforms_4096", FourTransforms, threads);
  }
  return true;
}();

}  // namespace

BENCHMARK_MAIN();
