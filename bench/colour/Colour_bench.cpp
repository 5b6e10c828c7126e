// Planes of Lab and back beside OpenCV's conversions, which interpolate tables; balance and the matrix beside
// a copy of the same planes. bench/colour/peers.py runs scikit-image on the same frame.
#include <memory>

#include <opencv2/imgproc.hpp>

#include "korimg/colour/CImgColorBalance.h"
#include "korimg/colour/CImgColorCorrect.h"
#include "korimg/colour/CImgFalseColor.h"
#include "korimg/colour/CImgLabColorEnhance.h"

#include "bench/Measure.h"
#include "tests/support/Images.h"

namespace {

using korimg::test::Make;
using korimg::test::Random;

constexpr int kWidth = 6000, kHeight = 4000, kPlanes = 3;
constexpr double kBytes = 4.0 * kWidth * kHeight;

std::shared_ptr<CVmManager> Store() {
  static const auto store = korimg::CreateContiguousManager();
  return store;
}

CVelImage& Source() {
  static const auto source = Make(Store(), kWidth, kHeight, kPlanes, Random(100, 900));
  return *source;
}

CVelImage& Lab() {
  static const std::unique_ptr<CVelImage> lab(Source().MakeLabPlane());
  return *lab;
}

template <class Image>
Image& Target() {
  static const auto target =
      Make<Image>(Store(), kWidth, kHeight, kPlanes, [](int, int, int) { return 0.0; });
  return *target;
}

/// Times run(), which reads or writes so many planes.
template <class F>
void Measure(benchmark::State& state, int planes, F&& run) {
  korimg::bench::Run(state, static_cast<int>(state.range(0)), run);
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
  state.SetBytesProcessed(
      static_cast<std::int64_t>(static_cast<double>(state.iterations()) * planes * kBytes));
}

/// All planes, as the pipelines do it: plane by plane.
void Copy(benchmark::State& state) {
  CVelImage& target = Target<CImgColorBalance>();
  Measure(state, 2 * kPlanes, [&] {
    for (int p = 0; p < kPlanes; ++p) {
      korimg::bench::CopyByLines(Source().GetLine(0, 0, p), target.GetWritableLine(0, 0, p), kWidth, kHeight);
    }
  });
}

void Balance(benchmark::State& state) {
  Measure(state, 2 * kPlanes, [] { Target<CImgColorBalance>().Do(1, 2, 3, &Source(), nullptr, 0); });
}

tagMATRIX matrix = {1.4, -0.3, -0.15, -0.2, 1.6, -0.4, 0.05, -0.55, 1.7};

void MatrixOfLevels(benchmark::State& state) {
  Measure(state, 2 * kPlanes,
          [] { Target<CImgColorCorrect>().Do(&matrix, 1, 0, 0, 0, &Source(), nullptr, 0); });
}
void MatrixOfLevelsAtHalf(benchmark::State& state) {
  Measure(state, 2 * kPlanes,
          [] { Target<CImgColorCorrect>().Do(&matrix, 0.5, 0, 0, 0, &Source(), nullptr, 0); });
}

/// In place; a matrix that keeps the pixels in their range, however often it runs.
void MatrixInPlace(benchmark::State& state) {
  tagMATRIX mixing = {0.8, 0.1, 0.1, 0.1, 0.8, 0.1, 0.1, 0.1, 0.8};
  CImgColorCorrect& target = Target<CImgColorCorrect>();
  target.CVelImage::Paste(&Source(), nullptr);
  Measure(state, 2 * kPlanes, [&] { target.Do(&mixing, 1, 2, 100, 0, 0); });
}

void ToLab(benchmark::State& state) {
  Measure(state, 2 * kPlanes, [] { std::unique_ptr<CVelImage>(Source().MakeLabPlane()); });
}
void ToL(benchmark::State& state) {
  Measure(state, kPlanes + 1, [] { std::unique_ptr<CVelImage>(Source().MakeLPlane()); });
}
void FromLab(benchmark::State& state) {
  Measure(state, 2 * kPlanes, [] { Target<CImgLabColorEnhance>().Do(&Lab(), 1.4, 1.2, nullptr, 0); });
}
void FalseColour(benchmark::State& state) {
  Measure(state, 2 * kPlanes, [] { Target<CImgFalseColor>().Do(100, 900, 3, 0, &Source(), nullptr, 0); });
}

/// OpenCV's pixels lie with their three values side by side.
cv::Mat Mixed() {
  std::vector<cv::Mat> planes;
  for (int p = 0; p < kPlanes; ++p) {
    planes.push_back(cv::Mat(kHeight, kWidth, CV_32F, Source().GetWritableLine(0, 0, p)) / 900);
  }
  cv::Mat mixed;
  cv::merge(planes, mixed);
  return mixed;
}
void OpenCvToLab(benchmark::State& state) {
  static const cv::Mat from = Mixed();
  static cv::Mat to;
  Measure(state, 2 * kPlanes, [] { cv::cvtColor(from, to, cv::COLOR_RGB2Lab); });
}
void OpenCvFromLab(benchmark::State& state) {
  static cv::Mat from, to;
  if (from.empty()) cv::cvtColor(Mixed(), from, cv::COLOR_RGB2Lab);
  Measure(state, 2 * kPlanes, [] { cv::cvtColor(from, to, cv::COLOR_Lab2RGB); });
}

}  // namespace

int main(int argc, char** argv) {
  for (const int threads : {1, 2}) {
    const auto add = [threads](const char* name, void (*run)(benchmark::State&)) {
      korimg::bench::Add(name, run, threads);
    };
    add("Copy", Copy);
    add("Balance", Balance);
    add("MatrixOfLevels", MatrixOfLevels);
    add("MatrixOfLevelsAtHalf", MatrixOfLevelsAtHalf);
    add("MatrixInPlace", MatrixInPlace);
    add("ToLab", ToLab);
    add("ToL", ToL);
    add("FromLab", FromLab);
    add("FalseColour", FalseColour);
    add("OpenCvToLab", OpenCvToLab);
    add("OpenCvFromLab", OpenCvFromLab);
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
