// Composites of two planes: by whole shifts beside a copy of as many bytes, turned beside the turning alone.

#include <benchmark/benchmark.h>

#include "korimg/composite/CImgComposit.h"
#include "korimg/geometry/CImgRotate.h"

#include "bench/Measure.h"
#include "tests/support/Images.h"

namespace {

constexpr int kWidth = 6000, kHeight = 4000;
constexpr double kPlane = 4.0 * kWidth * kHeight;
enum Mode : int { kAverage = 0, kAdd = 1, kBrighter = 7 };

template <class Image = CVelImage>
std::shared_ptr<Image> New(int seed) {
  static const auto store = korimg::test::MemoryStore();
  return korimg::test::Make<Image>(store, kWidth, kHeight, 1, korimg::test::Random(0, 1000, seed));
}

struct Images {
  std::shared_ptr<CVelImage> a = New(1), b = New(2);
  std::shared_ptr<CImgComposit> target = New<CImgComposit>(3);
  std::shared_ptr<CImgRotate> turned = New<CImgRotate>(4);
};

Images& All() {
  static Images images;
  return images;
}

template <class F>
void Measure(benchmark::State& state, double bytes, F&& run) {
  korimg::bench::Run(state, static_cast<int>(state.range(0)), run);
  state.SetBytesProcessed(static_cast<std::int64_t>(static_cast<double>(state.iterations()) * bytes));
}

void Copy(benchmark::State& state) {
  const float* from = All().a->GetLine(0, 0, 0);
  float* to = All().target->GetWritableLine(0, 0, 0);
  Measure(state, 2 * kPlane, [&] { korimg::bench::CopyByLines(from, to, kWidth, kHeight); });
}

void Composite(benchmark::State& state, double shift, double degrees, int mode, int level) {
  constexpr int kBicubic = 1;
  Measure(state, 3 * kPlane, [=] {
    All().target->Do(All().a.get(), All().b.get(), shift, -shift, degrees, 0, mode, kBicubic, level);
  });
}

void Turn(benchmark::State& state) {
  constexpr int kBicubic = 1;
  Measure(state, 2 * kPlane, [] { All().turned->Do(10, 0, All().b.get(), 0, kBicubic, 0); });
}

/// One thread first: the pool of the pipelines never shrinks.
const bool kRegistered = [] {
  for (const int threads : {1, 2}) {
    const auto add = [&](const char* name, auto&& function, auto... arguments) {
      benchmark::RegisterBenchmark(name, function, arguments...)
          ->ArgName("threads")
          ->Arg(threads)
          ->UseRealTime()
          ->Unit(benchmark::kMillisecond);
    };
    add("Copy", Copy);
    add("WholeShift/average", Composite, 7.0, 0.0, kAverage, 0);
    add("WholeShift/brighter", Composite, 7.0, 0.0, kBrighter, 0);
    add("WholeShift/add_on_levels", Composite, 7.0, 0.0, kAdd, 1);
    add("FloatShift/bicubic_average", Composite, 7.4, 0.0, kAverage, 0);
    add("Turn/bicubic", Turn);
    add("Turned/bicubic_average", Composite, 7.4, 10.0, kAverage, 0);
    add("Turned/bicubic_average_on_levels", Composite, 7.4, 10.0, kAverage, 1);
  }
  return true;
}();

}  // namespace

BENCHMARK_MAIN();
