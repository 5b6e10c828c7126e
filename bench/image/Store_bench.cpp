// The paged store under threads: a whole operation with all blocks in memory and through a small pool, and
// the cost of asking for addresses, of one block and of many.
#include <benchmark/benchmark.h>
#include <omp.h>

#include "korimg/image/CImgInvert.h"

#include "bench/Measure.h"

namespace {

constexpr int kWidth = 6000, kHeight = 4000;

/// A source and a target on a paged store with this budget; 0 is the default one, which holds all.
struct Images {
  std::shared_ptr<CVmManager> store;
  CVelImage source;
  CImgInvert target;

  Images(long long budget, long long blockSize)
      : store(korimg::CreatePagedManager({.budget = budget, .blockSize = blockSize})) {
    const CVelImage shape(store, CImage::Float, kWidth, kHeight, 1, 1.0, 0.0, 1, nullptr);
    source.Create(shape, nullptr);
    target.Create(shape, nullptr);
    source.Fill(0, 1000);
    target.Fill(0, 1);
  }
};

constexpr long long kMiB = 1 << 20;

void Invert(benchmark::State& state, long long budget) {
  Images images(budget, kMiB);
  korimg::bench::Run(state, static_cast<int>(state.range(0)),
                     [&] { images.target.Do(&images.source, nullptr, 0); });
  state.SetBytesProcessed(state.iterations() * 2 * 4LL * kWidth * kHeight);
}

/// Single pixels in a fixed number of steps, shared out among the threads: neighbours, or each in another
/// block of 64 KiB than the last ones.
void Addresses(benchmark::State& state, bool far) {
  constexpr int kSteps = 4000000;
  Images images(0, 64 << 10);
  double sum = 0;
  korimg::bench::Run(state, static_cast<int>(state.range(0)), [&] {
#pragma omp parallel for schedule(static) reduction(+ : sum)
    for (int i = 0; i < kSteps; ++i) {
      const int y = far ? static_cast<int>(i * 2654435761U % kHeight) : i / (kSteps / kHeight);
      sum += images.source.GetPixelGrayRaw(i % kWidth, y, 0);
    }
  });
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(state.iterations() * kSteps);
}

}  // namespace

int main(int argc, char** argv) {
  for (const int threads : {1, 2, 8}) {
    const auto add = [threads](const char* name, auto run, auto argument) {
      benchmark::RegisterBenchmark(name, [=](benchmark::State& state) { run(state, argument); })
          ->UseRealTime()
          ->Unit(benchmark::kMillisecond)
          ->ArgName("threads")
          ->Arg(threads);
    };
    add("Invert_Resident", Invert, 0);
    add("Invert_PoolOf4MiB", Invert, 4 * kMiB);
    add("Invert_PoolOf40MiB", Invert, 40 * kMiB);
    add("Pixels_NextToEachOther", Addresses, false);
    add("Pixels_InManyBlocks", Addresses, true);
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
