// Tone curves over three planes beside a plain copy of the same bytes.
#include <memory>

#include <benchmark/benchmark.h>

#include "korimg/levels/CImgToneCurve.h"

#include "bench/Measure.h"
#include "tests/support/Images.h"

namespace {

constexpr int kWidth = 6000, kHeight = 4000, kPlanes = 3;
constexpr double kBytes = 2.0 * kPlanes * 4 * kWidth * kHeight;

struct Images {
  std::shared_ptr<CVelImage> source = Make<CVelImage>();
  std::shared_ptr<CImgToneCurve> curved = Make<CImgToneCurve>();

  template <class Image>
  static std::shared_ptr<Image> Make() {
    // Noise over the whole scale: neighbours lie far apart in the table.
    return korimg::test::Make<Image>(korimg::test::MemoryStore(), kWidth, kHeight, kPlanes,
                                     korimg::test::Random(80, 920));
  }
};

Images& Frames() {
  static Images images;
  return images;
}

template <class F>
void Measure(benchmark::State& state, F&& run) {
  korimg::bench::Run(state, static_cast<int>(state.range(0)), run);
  state.SetBytesProcessed(static_cast<std::int64_t>(static_cast<double>(state.iterations()) * kBytes));
}

void Copy(benchmark::State& state) {
  Measure(state, [] {
    for (int p = 0; p < kPlanes; ++p) {
      const float* from = Frames().source->GetLine(0, 0, p);
      float* to = Frames().curved->GetWritableLine(0, 0, p);
      korimg::bench::CopyByLines(from, to, kWidth, kHeight);
    }
  });
}

void Curve(benchmark::State& state) {
  std::vector<float> table;
  const auto count = static_cast<int>(state.range(1));
  for (int i = 0; i < count; ++i) {
    table.push_back(std::sqrt(static_cast<float>(i) / static_cast<float>(count - 1)));
  }
  float* curves[] = {table.data(), table.data(), table.data(), table.data()};
  Measure(state, [&] { Frames().curved->Do(curves, count, Frames().source.get(), nullptr, 0, 0); });
}

}  // namespace

BENCHMARK(Copy)->UseRealTime()->Unit(benchmark::kMillisecond)->ArgName("threads")->Arg(1)->Arg(2);
BENCHMARK(Curve)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->ArgNames({"threads", "entries"})
    ->Args({1, 256})
    ->Args({1, 65536})
    ->Args({2, 256})
    ->Args({2, 65536});
BENCHMARK_MAIN();
