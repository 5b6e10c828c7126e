// Unsharp masks beside the same of OpenCV: six at once beside six Gaussians, and one beside a Gaussian and a
// weighted sum. On a paged store all blocks are in memory.
#include <memory>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "korimg/filters/CFilterMatrix.h"
#include "korimg/filters/CImgFilterSharp.h"

#include "bench/Measure.h"
#include "tests/support/Images.h"

namespace {

constexpr int kWidth = 6000, kHeight = 4000;
constexpr double kSigmas[] = {1, 2, 4, 8, 16, 32};

struct Images {
  std::shared_ptr<CVmManager> store;
  std::shared_ptr<CVelImage> source =
      korimg::test::Make(store, kWidth, kHeight, 1, korimg::test::Random(80, 920));
  std::shared_ptr<CImgFilterSharp> sharp =
      korimg::test::Make<CImgFilterSharp>(store, kWidth, kHeight, 1, [](int, int, int) { return 0.0; });
};

Images& Contiguous() {
  static Images images{korimg::CreateContiguousManager()};
  return images;
}

Images& Paged() {
  static Images images{korimg::CreatePagedManager()};
  return images;
}

template <class F>
void Measure(benchmark::State& state, F&& run) {
  korimg::bench::Run(state, static_cast<int>(state.range(0)), run);
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}

template <Images& (*images)()>
void SubBands(benchmark::State& state) {
  const double* s = kSigmas;
  Measure(state, [&] {
    images().sharp->ClearFilterProc();
    images().sharp->SubBandUnSharpMask(s[0], 1, s[1], 1, s[2], 1, s[3], 1, s[4], 1, s[5], 1, 0, 0, 0, 0, 0, 0,
                                       0, 0, images().source.get(), nullptr, 0);
  });
}

template <Images& (*images)()>
void Unsharp(benchmark::State& state) {
  Measure(state, [] {
    images().sharp->ClearFilterProc();
    images().sharp->UnSharpMask(2, 1, 0, images().source.get(), nullptr, 0);
  });
}

cv::Mat Matrix(CVelImage& image) {
  return {kHeight, kWidth, CV_32F, image.GetWritableLine(0, 0, 0)};
}

void GaussianOfOpenCv(const cv::Mat& source, cv::Mat& target, double sigma) {
  const int side = 2 * CFilterMatrix::GetGaussian_nR(sigma) + 1;
  cv::GaussianBlur(source, target, {side, side}, sigma, sigma, cv::BORDER_REFLECT_101);
}

void SixGaussiansOfOpenCv(benchmark::State& state) {
  const cv::Mat source = Matrix(*Contiguous().source);
  cv::Mat target = Matrix(*Contiguous().sharp);
  Measure(state, [&] {
    for (const double sigma : kSigmas) {
      GaussianOfOpenCv(source, target, sigma);
    }
  });
}

void UnsharpOfOpenCv(benchmark::State& state) {
  const cv::Mat source = Matrix(*Contiguous().source);
  cv::Mat blurred, target = Matrix(*Contiguous().sharp);
  Measure(state, [&] {
    GaussianOfOpenCv(source, blurred, 2);
    cv::addWeighted(source, 2, blurred, -1, 0, target);
  });
}

}  // namespace

int main(int argc, char** argv) {
  // One thread before two: the pipelines' pool never shrinks.
  for (const int threads : {1, 2}) {
    const auto add = [threads](const char* name, void (*run)(benchmark::State&)) {
      korimg::bench::Add(name, run, threads);
    };
    add("SubBands", SubBands<Contiguous>);
    add("SubBandsPaged", SubBands<Paged>);
    add("SixGaussiansOfOpenCv", SixGaussiansOfOpenCv);
    add("Unsharp", Unsharp<Contiguous>);
    add("UnsharpPaged", Unsharp<Paged>);
    add("UnsharpOfOpenCv", UnsharpOfOpenCv);
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
