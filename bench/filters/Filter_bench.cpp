// Filters of a plane beside the same of OpenCV with the same border, by threads; ranks by themselves, since
// OpenCV has none of floats over discs.
#include <memory>
#include <vector>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "korimg/filters/CFilterMatrix.h"
#include "korimg/filters/CImgFilterBlur.h"
#include "korimg/filters/CImgFilterMisc.h"

#include "bench/Measure.h"

namespace {

constexpr int kWidth = 6000, kHeight = 4000;

/// A plane of noise, and targets, on one store.
struct Images {
  std::shared_ptr<CVmManager> store;
  CVelImage source;
  CImgFilterBlur blur;
  CImgFilterMisc misc;

  explicit Images(std::shared_ptr<CVmManager> manager) : store(std::move(manager)) {
    const CVelImage shape(store, CImage::Float, kWidth, kHeight, 1, 1.0, 0.0, 1, nullptr);
    for (CVelImage* image : {&source, static_cast<CVelImage*>(&blur), static_cast<CVelImage*>(&misc)}) {
      image->Create(shape, nullptr);
      image->SetLevel(0, 0, 60000);
    }
    unsigned state = 1;
    for (int y = 0; y < kHeight; ++y) {
      float* line = source.GetWritableLine(0, y, 0);
      for (int x = 0; x < kWidth; ++x) {
        state = state * 1664525u + 1013904223u;
        line[x] = static_cast<float>(state >> 8) / 256;
      }
    }
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

/// Runs with the threads of the case, its second number.
template <class F>
void Measure(benchmark::State& state, F&& run) {
  korimg::bench::Run(state, static_cast<int>(state.range(1)), run);
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}

cv::Mat Matrix(CVelImage& image) {
  return {kHeight, kWidth, CV_32F, image.GetWritableLine(0, 0, 0)};
}

template <Images& (*images)()>
void Gaussian(benchmark::State& state) {
  const auto sigma = static_cast<double>(state.range(0));
  Measure(state, [&] {
    images().blur.ClearFilterProc();
    images().blur.GaussianFilter(sigma, &images().source, nullptr, 0);
  });
}

void GaussianOfOpenCv(benchmark::State& state) {
  const auto sigma = static_cast<double>(state.range(0));
  const int side = 2 * CFilterMatrix::GetGaussian_nR(sigma) + 1;
  const cv::Mat source = Matrix(Contiguous().source);
  cv::Mat target = Matrix(Contiguous().blur);
  Measure(state, [&] {
    cv::GaussianBlur(source, target, {side, side}, sigma, sigma, cv::BORDER_REFLECT_101);
  });
}

void Minimum(benchmark::State& state) {
  auto r = static_cast<double>(state.range(0));
  int rank = 0;
  Measure(state, [&] { Contiguous().misc.MinMaxFilter(&r, &rank, &Contiguous().source, nullptr, 0); });
}

void MinimumOfOpenCv(benchmark::State& state) {
  const int r = static_cast<int>(state.range(0));
  cv::Mat disc(2 * r + 1, 2 * r + 1, CV_8U, cv::Scalar(0));
  for (int dy = -r; dy <= r; ++dy) {
    for (int dx = -r; dx <= r; ++dx) {
      disc.at<unsigned char>(r + dy, r + dx) = dx * dx + dy * dy <= r * r;
    }
  }
  const cv::Mat source = Matrix(Contiguous().source);
  cv::Mat target = Matrix(Contiguous().misc);
  Measure(state, [&] { cv::erode(source, target, disc, {-1, -1}, 1, cv::BORDER_REFLECT_101); });
}

void Median(benchmark::State& state) {
  const auto r = static_cast<double>(state.range(0));
  Measure(state, [&] { Contiguous().blur.MedianFilter(r, &Contiguous().source, nullptr, 0); });
}

void MiddleRank(benchmark::State& state) {
  auto r = static_cast<double>(state.range(0));
  int rank = Contiguous().misc.GetMinMaxFilterNmax(r) / 2;
  Measure(state, [&] { Contiguous().misc.MinMaxFilter(&r, &rank, &Contiguous().source, nullptr, 0); });
}

void MeanOfADisc(benchmark::State& state) {
  const auto r = static_cast<double>(state.range(0));
  Measure(state,
          [&] { Contiguous().blur.MeanFilter(r, 1.0, 0, 0, 0, 0, 0, 0, &Contiguous().source, nullptr, 0); });
}

}  // namespace

int main(int argc, char** argv) {
  // One thread before two: the pipelines' pool never shrinks.
  for (const int threads : {1, 2}) {
    const auto add = [threads](const char* name, void (*run)(benchmark::State&), const char* number,
                               const std::vector<std::int64_t>& numbers) {
      benchmark::RegisterBenchmark(name, run)
          ->ArgNames({number, "threads"})
          ->ArgsProduct({numbers, {threads}})
          ->Unit(benchmark::kMillisecond)
          ->UseRealTime();
    };
    const std::vector<std::int64_t> sigmas{1, 2, 5, 10, 30}, radii{1, 2, 3, 4, 5, 10};
    add("Gaussian", Gaussian<Contiguous>, "sigma", sigmas);
    add("GaussianOfOpenCv", GaussianOfOpenCv, "sigma", sigmas);
    add("GaussianPaged", Gaussian<Paged>, "sigma", sigmas);
    add("Minimum", Minimum, "r", radii);
    add("MinimumOfOpenCv", MinimumOfOpenCv, "r", radii);
    add("Median", Median, "r", radii);
    add("MiddleRank", MiddleRank, "r", radii);
    add("MeanOfADisc", MeanOfADisc, "r", {1, 3});
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
