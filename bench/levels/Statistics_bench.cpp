// Measures of a plane beside the same of OpenCV and of the standard library, by threads.
#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "korimg/image/CVelImage.h"
#include "korimg/levels/CImgAutoLevel.h"

#include "bench/Measure.h"

namespace {

constexpr int kWidth = 6000, kHeight = 4000;
constexpr double kWhite = 65536;

/// A sky of 16-bit numbers: most pixels near the background, with noise, and a few anywhere above.
class Sky {
 public:
  Sky() {
    const CVelImage shape(store_, CImage::Float, kWidth, kHeight, 1, 1.0, 0.0, 1, nullptr);
    image_.CopyImage(shape, nullptr, nullptr);
    unsigned state = 1;
    const auto random = [&state] {
      state = state * 1664525u + 1013904223u;
      return (state >> 8) / 16777216.0;
    };
    for (int y = 0; y < kHeight; ++y) {
      float* line = image_.GetWritableLine(0, y, 0);
      for (int x = 0; x < kWidth; ++x) {
        const double noise = (random() + random() + random() + random() - 2) * 300;
        const double star = random() < 0.02 ? std::pow(random(), 4) * 60000 : 0;
        line[x] = static_cast<float>(std::floor(std::min(3000 + noise + star, kWhite - 1)));
      }
    }
  }
  CImgAutoLevel& Image() { return image_; }
  cv::Mat Matrix() { return {kHeight, kWidth, CV_32F, image_.GetWritableLine(0, 0, 0)}; }

 private:
  std::shared_ptr<CVmManager> store_ = korimg::CreateContiguousManager();
  CImgAutoLevel image_;
};

Sky& TheSky() {
  static Sky sky;
  return sky;
}

void SetThreads(const benchmark::State& state) {
  korimg::bench::SetThreads(static_cast<int>(state.range(0)));
}

template <class F>
void Measure(benchmark::State& state, F&& run) {
  SetThreads(state);
  run();
  for ([[maybe_unused]] auto _ : state) {
    run();
  }
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
  state.SetBytesProcessed(state.iterations() * kWidth * kHeight * sizeof(float));
}

void Extremes(benchmark::State& state) {
  Measure(state, [] { benchmark::DoNotOptimize(TheSky().Image().GetMinMaxAvr(0)); });
}
void ExtremesOpenCv(benchmark::State& state) {
  Measure(state, [matrix = TheSky().Matrix()] {
    double min, max;
    cv::minMaxIdx(matrix, &min, &max);
    benchmark::DoNotOptimize(min + max);
  });
}

void Mean(benchmark::State& state) {
  Measure(state, [] { benchmark::DoNotOptimize(TheSky().Image().GetAvrGrayRaw(0)); });
}
void MeanOpenCv(benchmark::State& state) {
  Measure(state, [matrix = TheSky().Matrix()] { benchmark::DoNotOptimize(cv::mean(matrix)); });
}
void MeanStdDevOpenCv(benchmark::State& state) {
  Measure(state, [matrix = TheSky().Matrix()] {
    cv::Scalar mean, deviation;
    cv::meanStdDev(matrix, mean, deviation);
    benchmark::DoNotOptimize(deviation);
  });
}

void Histogram(benchmark::State& state) {
  const int bins = static_cast<int>(state.range(1));
  std::vector<int> hist(bins);
  Measure(state, [&] {
    benchmark::DoNotOptimize(
        TheSky().Image().GetHistogram(hist.data(), bins, 0, kWhite, 0, 0, 1, 0, nullptr, 0, 0));
  });
}
void HistogramOpenCv(benchmark::State& state) {
  const int bins = static_cast<int>(state.range(1)), channel = 0;
  const float range[] = {0, kWhite};
  const float* ranges[] = {range};
  cv::Mat hist;
  Measure(state, [&, matrix = TheSky().Matrix()] {
    cv::calcHist(&matrix, 1, &channel, cv::Mat(), hist, 1, &bins, ranges);
  });
}

void Median(benchmark::State& state) {
  Measure(state, [] {
    float median = 0;
    TheSky().Image().GetMedian(&median, 1, 0, 0, nullptr);
    benchmark::DoNotOptimize(median);
  });
}
void MedianOfAll(benchmark::State& state) {
  Measure(state, [] {
    float median = 0;
    TheSky().Image().GetMedian(&median, 0, 0, 0, nullptr);
    benchmark::DoNotOptimize(median);
  });
}
void MedianByNthElement(benchmark::State& state) {
  std::vector<float> copy(1LL * kWidth * kHeight);
  Measure(state, [&] {
    const float* plane = TheSky().Image().GetLine(0, 0, 0);
    std::copy_n(plane, copy.size(), copy.begin());
    std::nth_element(copy.begin(), copy.begin() + copy.size() / 2, copy.end());
    benchmark::DoNotOptimize(copy[copy.size() / 2]);
  });
}

/// One number of threads after the other: the pipelines' pool does not shrink.
void Register(int threads) {
  const auto add = [threads](const char* name, void (*run)(benchmark::State&)) {
    return benchmark::RegisterBenchmark(name, run)->UseRealTime()->MeasureProcessCPUTime()->Unit(
        benchmark::kMillisecond);
  };
  const auto plain = [&](const char* name, void (*run)(benchmark::State&)) {
    add(name, run)->ArgName("threads")->Arg(threads);
  };
  const auto byBins = [&](const char* name, void (*run)(benchmark::State&)) {
    add(name, run)->ArgNames({"threads", "bins"})->Args({threads, 256})->Args({threads, 5000});
  };
  plain("GetMinMaxAvr", Extremes);
  plain("GetMinMaxAvr_OpenCvMinMaxIdx", ExtremesOpenCv);
  plain("GetAvrGrayRaw", Mean);
  plain("GetAvrGrayRaw_OpenCvMean", MeanOpenCv);
  plain("GetAvrGrayRaw_OpenCvMeanStdDev", MeanStdDevOpenCv);
  byBins("GetHistogram", Histogram);
  byBins("GetHistogram_OpenCvCalcHist", HistogramOpenCv);
  plain("GetMedian", Median);
  plain("GetMedian_OfAllPixels", MedianOfAll);
  plain("GetMedian_NthElement", MedianByNthElement);
}

}  // namespace

int main(int argc, char** argv) {
  Register(1);
  Register(2);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
