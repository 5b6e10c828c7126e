// Scaling and turning beside OpenCV's, a plane of 24 megapixels.
#include <memory>

#include <benchmark/benchmark.h>
#include <opencv2/imgproc.hpp>

#include "korimg/geometry/CImgResolution.h"
#include "korimg/geometry/CImgRotate.h"
#include "korimg/geometry/CImgWarp.h"

#include "bench/Measure.h"

namespace {

constexpr int kWidth = 6000, kHeight = 4000;
constexpr double kDegrees = 10;

struct Images {
  std::shared_ptr<CVmManager> store = korimg::CreateContiguousManager();
  CVelImage source;
  CImgResolution scaled;
  CImgRotate turned;
  CImgWarp warped;

  Images() {
    const CVelImage shape(store, CImage::Float, kWidth, kHeight, 1, 1.0, 0.0, 1, nullptr);
    source.Create(shape, nullptr);
    scaled.Create(shape, nullptr);
    turned.Create(shape, nullptr);
    warped.Create(shape, nullptr);
    for (int y = 0; y < kHeight; ++y) {
      float* line = source.GetWritableLine(0, y, 0);
      for (int x = 0; x < kWidth; ++x) {
        line[x] = static_cast<float>((x * 31 + y * 17) % 977);
      }
    }
  }
  /// OpenCV's view of a plane.
  static cv::Mat Plane(CVelImage& image) {
    return {image.GetHeight(), image.GetWidth(), CV_32F, image.GetWritableLine(0, 0, 0)};
  }
};

Images& All() {
  static Images images;
  return images;
}

/// Runs with the threads of the case, beside OpenCV's with as many.
template <class F>
void Measure(benchmark::State& state, double pixels, F&& run) {
  korimg::bench::Run(state, static_cast<int>(state.range(0)), run);
  state.SetItemsProcessed(static_cast<std::int64_t>(static_cast<double>(state.iterations()) * pixels));
}

void Scale(benchmark::State& state, int method, double factor) {
  const int width = static_cast<int>(kWidth * factor), height = static_cast<int>(kHeight * factor);
  Measure(state, 1.0 * width * height,
          [=] { All().scaled.DoChange(&All().source, width, height, method, 0); });
}

void ScaleByOpenCV(benchmark::State& state, int method, double factor) {
  const int width = static_cast<int>(kWidth * factor), height = static_cast<int>(kHeight * factor);
  All().scaled.DoChange(&All().source, width, height, 4, 0);
  cv::Mat source = Images::Plane(All().source), target = Images::Plane(All().scaled);
  Measure(state, 1.0 * width * height, [&] { cv::resize(source, target, target.size(), 0, 0, method); });
}

void Turn(benchmark::State& state, int method) {
  Measure(state, 1.0 * kWidth * kHeight, [=] { All().turned.Do(kDegrees, 0, &All().source, 0, method, 0); });
}

/// The same turn, and a tilt between the distortions of a lens.
void Warp(benchmark::State& state, int method) {
  const CLensDistortion lens = CLensDistortion::Of(kWidth, kHeight, {0.03, 0.002});
  const CFrameMap turn = CFrameMap::FromPose(0, 0, kDegrees, kWidth, kHeight);
  CFrameMap::Matrix matrix = turn.GetMatrix();
  matrix[6] = 1e-7;
  const CFrameMap map(matrix, lens, lens);
  Measure(state, 1.0 * kWidth * kHeight, [=] { All().warped.Do(&All().source, map, method, 0, 0); });
}

void TurnByOpenCV(benchmark::State& state, int method) {
  cv::Mat source = Images::Plane(All().source), target = Images::Plane(All().turned);
  const cv::Mat turn = cv::getRotationMatrix2D(cv::Point2f(kWidth / 2.0f, kHeight / 2.0f), kDegrees, 1);
  Measure(state, 1.0 * kWidth * kHeight,
          [&] { cv::warpAffine(source, target, turn, target.size(), method, cv::BORDER_CONSTANT); });
}

void QuarterTurn(benchmark::State& state) {
  // A turn takes a target of the source's size, and gives it another.
  korimg::bench::SetThreads(static_cast<int>(state.range(0)));
  CImgRotate target;
  for ([[maybe_unused]] auto _ : state) {
    state.PauseTiming();
    target.Create(All().source, nullptr);
    state.ResumeTiming();
    target.Do90(1, &All().source, 0);
  }
}

// Into a target that is made by the turn, as ours is.
void QuarterTurnByOpenCV(benchmark::State& state) {
  korimg::bench::SetThreads(static_cast<int>(state.range(0)));
  const cv::Mat source = Images::Plane(All().source);
  for ([[maybe_unused]] auto _ : state) {
    cv::Mat turned;
    cv::rotate(source, turned, cv::ROTATE_90_CLOCKWISE);
    state.PauseTiming();
    turned.release();
    state.ResumeTiming();
  }
}

template <class... Arguments>
void Add(const std::string& name, void (*run)(benchmark::State&, Arguments...), int threads,
         Arguments... arguments) {
  benchmark::RegisterBenchmark(name.c_str(), run, arguments...)
      ->UseRealTime()
      ->Unit(benchmark::kMillisecond)
      ->ArgName("threads")
      ->Arg(threads);
}

void Register(int threads) {
  struct Method {
    const char* name;
    int number, opencv;
  };
  const Method methods[] = {{"Bilinear", 0, cv::INTER_LINEAR},
                            {"Bicubic", 1, cv::INTER_CUBIC},
                            {"Lanczos3", 3, cv::INTER_LANCZOS4},
                            {"Nearest", 4, cv::INTER_NEAREST}};
  for (const auto& [label, factor] : {std::pair("Half", 0.5), {"OneAndAHalf", 1.5}}) {
    for (const Method& m : methods) {
      const std::string name = std::string("Scale_") + label + "_" + m.name;
      Add(name, Scale, threads, m.number, factor);
      Add(name + "_OpenCV", ScaleByOpenCV, threads, m.opencv, factor);
    }
  }
  for (const Method& m : methods) {
    const std::string name = std::string("Turn_") + m.name;
    Add(name, Turn, threads, m.number);
    Add(std::string("Warp_") + m.name, Warp, threads, m.number);
    Add(name + "_OpenCV", TurnByOpenCV, threads, m.opencv);
  }
  Add("QuarterTurn", QuarterTurn, threads);
  Add("QuarterTurn_OpenCV", QuarterTurnByOpenCV, threads);
}

}  // namespace

int main(int argc, char** argv) {
  // One number of threads after the other: the pipelines' pool does not shrink.
  Register(1);
  Register(2);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
