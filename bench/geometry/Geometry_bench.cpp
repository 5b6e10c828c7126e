// Flips, scrolls, crops and binning beside a plain copy of a plane; OpenCV's flip and area reduction as
// peers.

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "korimg/geometry/CImgCrop.h"
#include "korimg/geometry/CImgFlip.h"
#include "korimg/geometry/CImgScroll.h"
#include "korimg/geometry/CImgSoftBinning.h"

#include "bench/Measure.h"
#include "tests/support/Images.h"

namespace {

constexpr int kWidth = 6000, kHeight = 4000;
constexpr double kPlane = 4.0 * kWidth * kHeight;

template <class Image = CVelImage>
std::shared_ptr<Image> New(bool paged = false) {
  return korimg::test::Make<Image>(paged ? korimg::CreatePagedManager() : korimg::test::MemoryStore(), kWidth,
                                   kHeight, 1, korimg::test::Random(0, 1000));
}

CVelImage& Source() {
  static const auto source = New();
  return *source;
}
CVelImage& PagedSource() {
  static const auto source = New(true);
  return *source;
}

template <class F>
void Measure(benchmark::State& state, double bytes, F&& run) {
  korimg::bench::Run(state, static_cast<int>(state.range(0)), run);
  state.SetBytesProcessed(static_cast<std::int64_t>(static_cast<double>(state.iterations()) * bytes));
}

void Copy(benchmark::State& state) {
  static const auto target = New();
  const float* from = Source().GetLine(0, 0, 0);
  float* to = target->GetWritableLine(0, 0, 0);
  Measure(state, 2 * kPlane, [&] { korimg::bench::CopyByLines(from, to, kWidth, kHeight); });
}

template <int axis>
void Flip(benchmark::State& state) {
  static const auto target = New<CImgFlip>();
  Measure(state, 2 * kPlane, [] { target->Do(axis, &Source(), 0); });
}
void Scroll(benchmark::State& state) {
  static const auto target = New<CImgScroll>();
  Measure(state, 2 * kPlane, [] { target->Do(1234, 1, &Source(), 0); });
}
void Crop(benchmark::State& state) {
  static const auto target = New<CImgCrop>();
  Measure(state, 2.0 * 4 * (kWidth - 7) * (kHeight - 3),
          [] { target->Do(CRect(5, 2, kWidth - 2, kHeight - 1), &Source(), 0); });
}
/// The target keeps its size from one run to the next.
template <int bins, CVelImage& (*source)()>
void Binning(benchmark::State& state) {
  static const auto target = New<CImgSoftBinning>(source == PagedSource);
  Measure(state, kPlane * (1 + 1.0 / (bins * bins)), [] { target->Do(bins, bins, 0, 0, &source(), 0); });
}

cv::Mat Mat(CVelImage& image) {
  return {image.GetHeight(), image.GetWidth(), CV_32F, image.GetWritableLine(0, 0, 0)};
}
template <int axis>
void FlipOpenCv(benchmark::State& state) {
  cv::Mat from = Mat(Source()), to = from.clone();
  Measure(state, 2 * kPlane, [&] { cv::flip(from, to, axis); });
}
void ReduceOpenCv(benchmark::State& state) {
  cv::Mat from = Mat(Source()), to(kHeight / 2, kWidth / 2, CV_32F);
  Measure(state, 1.25 * kPlane, [&] { cv::resize(from, to, to.size(), 0, 0, cv::INTER_AREA); });
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
  add("Flip_TopBottom", Flip<0>);
  add("Flip_LeftRight", Flip<1>);
  add("OpenCv_Flip_LeftRight", FlipOpenCv<1>);
  add("Scroll", Scroll);
  add("Crop", Crop);
  add("Binning_2", Binning<2, Source>);
  add("OpenCv_AreaReduction_2", ReduceOpenCv);
  add("Binning_3", Binning<3, Source>);
  add("Binning_5", Binning<5, Source>);
  add("Binning_2_Paged", Binning<2, PagedSource>);
}

}  // namespace

int main(int argc, char** argv) {
  // One number of threads after the other: the pipelines' pool does not shrink.
  Register(1);
  Register(2);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
