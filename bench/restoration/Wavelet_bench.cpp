// Decomposition and composition by wavelets; bench/restoration/peers.py does the same by PyWavelets.
#include <memory>

#include <benchmark/benchmark.h>

#include "korimg/restoration/CImgWavelet.h"

#include "bench/Measure.h"
#include "tests/support/Images.h"

namespace {

constexpr int kWidth = 6000, kHeight = 4000, kOrder = 4, kLevels = 4;

template <bool paged>
void Wavelet(benchmark::State& state) {
  static const auto store = paged ? korimg::CreatePagedManager() : korimg::CreateContiguousManager();
  static const auto buffer = korimg::test::Make(store, kWidth, kHeight, 1, korimg::test::Random(100, 900));
  CImgWavelet wavelet;
  wavelet.SetDaubechyParams(kOrder);
  CArray<float, float> ones;
  for (int level = 0; level < kLevels; ++level) {
    ones.Add(1);
  }
  korimg::bench::Run(state, static_cast<int>(state.range(0)), [&] {
    wavelet.DoMultiResSubbandDecomposition(buffer.get(), kLevels, 0);
    wavelet.DoMultiResSubbandComposition(buffer.get(), kLevels, 1, &ones, &ones, &ones, 0);
  });
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}

}  // namespace

int main(int argc, char** argv) {
  for (const int threads : {1, 2}) {
    korimg::bench::Add("Wavelet", Wavelet<false>, threads);
    korimg::bench::Add("WaveletPaged", Wavelet<true>, threads);
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
