// Images on their way to the screen beside a plain copy: of whole planes, and of what a full redraw moves.

#include <benchmark/benchmark.h>

#include "korimg/display/CMemoryDIB.h"
#include "korimg/display/CVmDIB.h"

#include "bench/Measure.h"
#include "tests/support/Images.h"

namespace {

using korimg::test::MemoryStore;

constexpr int kWidth = 6000, kHeight = 4000;
constexpr double kPixels = 1.0 * kWidth * kHeight;
CRect g_screen(2000, 1000, 2000 + 1920, 1000 + 1080);

struct Pictures {
  std::shared_ptr<CVelImage> colour = New(3), mono = New(1), target = New(1);
  CWnd screen{1920, 1080, 32}, screen24{1, 1, 24};
  std::shared_ptr<CVmManager> store = MemoryStore();
  CMemoryDIB dib, dib24;
  CVmDIB stored{store};

  Pictures() {
    dib.Create(&screen, kWidth, kHeight, 0);
    dib24.Create(&screen24, kWidth, kHeight, 0);
    stored.Create(store, &screen, kWidth, kHeight, 0);
  }
  static std::shared_ptr<CVelImage> New(int planes) {
    return korimg::test::Make(MemoryStore(), kWidth, kHeight, planes, korimg::test::Random(0, 1000));
  }
};

Pictures& All() {
  static Pictures pictures;
  return pictures;
}

template <class F>
void Measure(benchmark::State& state, double bytes, F&& run) {
  korimg::bench::Run(state, static_cast<int>(state.range(0)), run);
  state.SetBytesProcessed(static_cast<std::int64_t>(static_cast<double>(state.iterations()) * bytes));
}

void Copy(benchmark::State& state) {
  const float* from = All().mono->GetLine(0, 0, 0);
  float* to = All().target->GetWritableLine(0, 0, 0);
  Measure(state, 8 * kPixels, [&] { korimg::bench::CopyByLines(from, to, kWidth, kHeight); });
}

void Colour(benchmark::State& state) {
  Measure(state, 16 * kPixels, [] { All().colour->ToDIB(&All().dib, nullptr); });
}
void Mono(benchmark::State& state) {
  Measure(state, 8 * kPixels, [] { All().mono->ToDIB(&All().dib, nullptr); });
}
void ColourStored(benchmark::State& state) {
  Measure(state, 15 * kPixels, [] { All().colour->ToDIB(&All().stored, nullptr); });
}
void Mono24(benchmark::State& state) {
  Measure(state, 7 * kPixels, [] { All().mono->ToDIB(&All().dib24, nullptr); });
}
void Redraw(benchmark::State& state) {
  Measure(state, 16.0 * g_screen.Width() * g_screen.Height(),
          [] { All().colour->ToDIB(&All().dib, &g_screen); });
}
void RedrawAndBlit(benchmark::State& state) {
  Measure(state, 24.0 * g_screen.Width() * g_screen.Height(), [] {
    All().colour->ToDIB(&All().dib, &g_screen);
    CPaintDC dc(&All().screen);
    All().dib.BitBlt(&All().screen, &dc, 0, 0, g_screen.Width(), g_screen.Height(), g_screen.left,
                     g_screen.top, SRCCOPY);
  });
}
void Packed24(benchmark::State& state) {
  Measure(state, 15 * kPixels, [] { GlobalFree(All().colour->GetDib(24)); });
}
void Packed8(benchmark::State& state) {
  Measure(state, 13 * kPixels, [] { GlobalFree(All().colour->GetDib(8)); });
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
  add("ToDib_Colour32", Colour);
  add("ToDib_Mono32", Mono);
  add("ToDib_ColourIntoStore", ColourStored);
  add("ToDib_Mono24", Mono24);
  add("Redraw_1920x1080", Redraw);
  add("RedrawAndBlit_1920x1080", RedrawAndBlit);
  add("GetDib_24", Packed24);
  add("GetDib_8", Packed8);
}

}  // namespace

int main(int argc, char** argv) {
  // One number of threads after the other: the pipelines' pool does not shrink.
  Register(1);
  Register(2);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
