// Point operations beside a plain copy of the same bytes: on whole planes, on lines of a paged store whose
// blocks are all in memory, and with and without fresh memory for the result.
#include <cstring>
#include <memory>

#include <benchmark/benchmark.h>
#include <xmmintrin.h>

#include "korimg/image/CImgBright.h"
#include "korimg/image/CImgCalculation.h"
#include "korimg/image/CImgInvert.h"

#include "bench/Measure.h"

namespace {

constexpr int kWidth = 6000, kHeight = 4000;
constexpr double kBytes = 4.0 * kWidth * kHeight;

/// A source and a target of each operation on one store.
struct Images {
  std::shared_ptr<CVmManager> store;
  CVelImage source, frame;
  CImgInvert invert;
  CImgBright bright;
  CImgCalculation calculation;

  explicit Images(std::shared_ptr<CVmManager> manager) : store(std::move(manager)) {
    const CVelImage shape(store, CImage::Float, kWidth, kHeight, 1, 1.0, 0.0, 1, nullptr);
    for (CVelImage* image : {&source, &frame, static_cast<CVelImage*>(&invert),
                             static_cast<CVelImage*>(&bright), static_cast<CVelImage*>(&calculation)}) {
      image->Create(shape, nullptr);
      image->SetLevel(0, 100, 60000);
    }
    source.Fill(0, 1000);
    frame.Fill(0, 3);
  }
};

Images& Contiguous() {
  static Images images(korimg::CreateContiguousManager());
  return images;
}

Images& Paged() {
  static Images images(korimg::CreatePagedManager());
  return images;
}

/// Runs with the threads of the case; planes is the number of planes that are read or written.
template <class F>
void Measure(benchmark::State& state, double planes, F&& run) {
  korimg::bench::Run(state, static_cast<int>(state.range(0)), run);
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
  state.SetBytesProcessed(
      static_cast<std::int64_t>(static_cast<double>(state.iterations()) * planes * kBytes));
}

void Copy(benchmark::State& state) {
  Images& i = Contiguous();
  Measure(state, 2, [&] {
    const float* from = i.source.GetLine(0, 0, 0);
    float* to = i.invert.GetWritableLine(0, 0, 0);
    korimg::bench::CopyByLines(from, to, kWidth, kHeight);
  });
}

/// As the pipelines write: a line of memory is read before it is overwritten, which memcpy's strings avoid.
void CopyByVectors(benchmark::State& state) {
  Images& i = Contiguous();
  Measure(state, 2, [&] {
    const float* from = i.source.GetLine(0, 0, 0);
    float* to = i.invert.GetWritableLine(0, 0, 0);
#pragma omp parallel for schedule(static)
    for (int y = 0; y < kHeight; ++y) {
      for (long long x = 1LL * y * kWidth; x < (y + 1LL) * kWidth; x += 4) {
        _mm_storeu_ps(to + x, _mm_loadu_ps(from + x));
      }
    }
  });
}

void CopyInOneCall(benchmark::State& state) {
  Images& i = Contiguous();
  Measure(state, 2, [&] {
    std::memcpy(i.invert.GetWritableLine(0, 0, 0), i.source.GetLine(0, 0, 0), static_cast<size_t>(kBytes));
  });
}

template <Images& (*images)()>
void Invert(benchmark::State& state) {
  Measure(state, 2, [] { images().invert.Do(&images().source, nullptr, 0); });
}
template <Images& (*images)()>
void Bright(benchmark::State& state) {
  float bright[] = {5}, contrast[] = {20};
  Measure(state, 2, [&] { images().bright.Do(bright, contrast, 120, &images().source, nullptr, 0); });
}
template <Images& (*images)()>
void Add(benchmark::State& state) {
  Measure(state, 2, [] { images().calculation.Do(7, 0, 0, &images().source, nullptr, 0); });
}
template <Images& (*images)()>
void Dark(benchmark::State& state) {
  Measure(state, 3, [] { images().source.DarkClbrtn(&images().frame, 0); });
}
template <Images& (*images)()>
void Flat(benchmark::State& state) {
  // Reads the flat once more for its mean.
  Measure(state, 4, [] { images().source.FlatClbrtn(&images().frame, static_cast<CRect*>(nullptr), 0); });
}

/// Into an image that is made anew each time: from freed memory of the store, or from fresh memory of the
/// system.
void InvertIntoNew(benchmark::State& state) {
  Images& i = Contiguous();
  Measure(state, 2, [&] {
    CImgInvert target;
    target.Create(i.source, nullptr);
    target.Do(&i.source, nullptr, 0);
  });
}
void InvertIntoFresh(benchmark::State& state) {
  Images& i = Contiguous();
  Measure(state, 2, [&] {
    const auto fresh = korimg::CreateContiguousManager();
    CImgInvert target;
    target.Create(CVelImage(fresh, CImage::Float, kWidth, kHeight, 1, 1.0, 0.0, 1, nullptr), nullptr);
    target.Do(&i.source, nullptr, 0);
  });
}

void Register(int threads) {
  const auto add = [threads](const char* name, void (*run)(benchmark::State&)) {
    benchmark::RegisterBenchmark(name, run)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond)
        ->ArgName("threads")
        ->Arg(threads);
  };
  add("Copy", Copy);
  add("Copy_ByVectors", CopyByVectors);
  add("Copy_OneCall", CopyInOneCall);
  add("Invert", Invert<Contiguous>);
  add("Bright", Bright<Contiguous>);
  add("Add", Add<Contiguous>);
  add("Dark", Dark<Contiguous>);
  add("Flat", Flat<Contiguous>);
  add("Invert_Paged", Invert<Paged>);
  add("Bright_Paged", Bright<Paged>);
  add("Add_Paged", Add<Paged>);
  add("Dark_Paged", Dark<Paged>);
  add("Flat_Paged", Flat<Paged>);
  add("Invert_IntoNewImage", InvertIntoNew);
  add("Invert_IntoFreshMemory", InvertIntoFresh);
}

}  // namespace

int main(int argc, char** argv) {
  // One number of threads after the other: the pipelines' pool does not shrink.
  Register(1);
  Register(2);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
