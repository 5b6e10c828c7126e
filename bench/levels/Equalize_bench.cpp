// Equalisation of a sky and of noise over the whole range; bench/filters/peers.py ranks the same by NumPy.
#include <memory>

#include <benchmark/benchmark.h>

#include "korimg/levels/CImgHstEql.h"

#include "bench/Measure.h"
#include "tests/support/Images.h"

namespace {

constexpr int kWidth = 6000, kHeight = 4000;

using korimg::test::Random;

/// A sum of twelve uniform numbers is nearly normal: a sky of 1000 with a deviation of 20.
double Sky(int p, int x, int y) {
  double sum = 0;
  for (int i = 0; i < 12; ++i) {
    sum += Random(0, 1, i + 1)(p, x, y);
  }
  return 1000 + 20 * (sum - 6);
}

double Whole(int, int x, int y) {
  return static_cast<double>(static_cast<int>(65536 * Random(0, 1)(0, x, y)));  // 16 bits, many equal
}

template <double (*pixel)(int, int, int), bool paged>
void Equalize(benchmark::State& state) {
  static const auto store = paged ? korimg::CreatePagedManager() : korimg::CreateContiguousManager();
  static const auto source = korimg::test::Make(store, kWidth, kHeight, 1, pixel);
  static const auto target =
      korimg::test::Make<CImgHstEql>(store, kWidth, kHeight, 1, [](int, int, int) { return 0.0; });
  korimg::bench::Run(state, static_cast<int>(state.range(0)), [] { target->Do(source.get()); });
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}

}  // namespace

int main(int argc, char** argv) {
  for (const int threads : {1, 2}) {
    const auto add = [threads](const char* name, void (*run)(benchmark::State&)) {
      korimg::bench::Add(name, run, threads);
    };
    add("EqualizeSky", Equalize<Sky, false>);
    add("EqualizeSkyPaged", Equalize<Sky, true>);
    add("EqualizeWhole", Equalize<Whole, false>);
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
