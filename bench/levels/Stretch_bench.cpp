// Stretches of a linear sky beside a copy of its planes and OpenCV's powers, logarithms and exponentials, by
// threads. OpenCV's do not thread by themselves.
#include <memory>
#include <vector>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>

#include "korimg/calibration/CImgSkySelect.h"
#include "korimg/calibration/CImgSplineInterpolation.h"
#include "korimg/levels/CImgAutoStretch.h"
#include "korimg/levels/CImgHyperbolic.h"
#include "korimg/levels/CImgMidtones.h"

#include "bench/Measure.h"
#include "tests/support/Images.h"

namespace {

constexpr int kWidth = 6000, kHeight = 4000;

using korimg::test::Random;

/// A sky of 3000 with a noise of 60, and a star here and there.
double Sky(int p, int x, int y) {
  double sum = 0;
  for (int i = 0; i < 4; ++i) {
    sum += Random(-0.5, 0.5, i + 1)(p, x, y);
  }
  const double star = Random(0, 1, 9)(p, x / 5, y / 5) > 0.995 ? 20000 * Random(0, 1, 9)(p, x, y) : 0;
  return 3000 + 100 * sum * (p + 1) + star;
}

/// One image for each number of planes, and a target.
template <class Operation, int planes>
struct Scene {
  std::shared_ptr<CVmManager> store = korimg::CreateContiguousManager();
  std::shared_ptr<CVelImage> source = korimg::test::Make(store, kWidth, kHeight, planes, Sky);
  std::shared_ptr<Operation> target =
      korimg::test::Make<Operation>(store, kWidth, kHeight, planes, [](int, int, int) { return 0.0; });

  Scene() {
    for (int p = 0; p < planes; ++p) {
      source->SetLevel(p, 0, 65535);
      target->SetLevel(p, 0, 65535);
    }
  }
  static Scene& Get() {
    static Scene scene;
    return scene;
  }
};

template <int planes, class F>
void Measure(benchmark::State& state, F&& run) {
  korimg::bench::Run(state, static_cast<int>(state.range(0)), run);
  state.SetBytesProcessed(state.iterations() * 2LL * planes * kWidth * kHeight * sizeof(float));
}

template <int planes>
void Copy(benchmark::State& state) {
  auto& scene = Scene<CImgAutoStretch, planes>::Get();
  Measure<planes>(state, [&] {
    for (int p = 0; p < planes; ++p) {
      korimg::bench::CopyByLines(scene.source->GetLine(0, 0, p), scene.target->GetWritableLine(0, 0, p),
                                 kWidth, kHeight);
    }
  });
}

void Planes(benchmark::State& state) {
  auto& [store, source, target] = Scene<CImgAutoStretch, 3>::Get();
  double scale[] = {1, 1.1, 0.9}, background[] = {3000, 2900, 3100}, spread[] = {40, 30, 50},
         bias[] = {0, 0, 0};
  Measure<3>(state, [&, &target = target, &source = source] {
    target->DoStretch(source.get(), 1, scale, background, spread, bias, nullptr);
  });
}

void MeasuredPlanes(benchmark::State& state) {
  auto& [store, source, target] = Scene<CImgAutoStretch, 3>::Get();
  double filter[] = {1, 1.1, 0.9}, bias[] = {0, 0, 0}, scale[3], background[3], spread[3];
  Measure<3>(state, [&, &target = target, &source = source] {
    CImgAutoStretch::CalcAutoStretchParam(source.get(), 0, 1, CRect(), filter, scale, background, spread, 0);
    target->DoStretch(source.get(), 1, scale, background, spread, bias, nullptr);
  });
}

void CleanSky(benchmark::State& state) {
  auto& [store, source, target] = Scene<CImgSkySelect, 3>::Get();
  CRect found;
  Measure<3>(state, [&, &target = target, &source = source] {
    target->Swap(source.get());
    target->AutoSelect(&found, 0);
    target->Swap(source.get());
  });
}

template <bool inverse>
void Midtones(benchmark::State& state) {
  auto& [store, source, target] = Scene<CImgMidtones, 1>::Get();
  const CImgMidtones::Parameters parameters{0.04, 0.02, 1};
  Measure<1>(state, [&, &target = target, &source = source] {
    target->Do(&parameters, inverse, source.get(), nullptr, 0);
  });
}

void MidtonesMeasured(benchmark::State& state) {
  auto& [store, source, target] = Scene<CImgMidtones, 1>::Get();
  Measure<1>(state, [&source = source] { benchmark::DoNotOptimize(CImgMidtones::Measure(*source, true)); });
}

/// `tenths` is ten times the shape: 10 a power, 0 an exponential, -10 a logarithm.
template <int tenths, bool inverse>
void Hyperbolic(benchmark::State& state) {
  auto& [store, source, target] = Scene<CImgHyperbolic, 1>::Get();
  const CImgHyperbolic::Parameters parameters{5, tenths / 10.0, 0.05, 0.02, 0.9};
  Measure<1>(state, [&, &target = target, &source = source] {
    target->Do(&parameters, inverse, source.get(), nullptr, 0);
  });
}

template <void (*function)(cv::InputArray, cv::OutputArray)>
void OpenCv(benchmark::State& state) {
  auto& [store, source, target] = Scene<CImgMidtones, 1>::Get();
  const cv::Mat in(kHeight, kWidth, CV_32F, source->GetWritableLine(0, 0, 0));
  cv::Mat out(kHeight, kWidth, CV_32F, target->GetWritableLine(0, 0, 0));
  Measure<1>(state, [&] { function(in, out); });
}
void Power(cv::InputArray in, cv::OutputArray out) {
  cv::pow(in, 0.3, out);
}

template <int planes>
void Spline(benchmark::State& state) {
  auto& [store, source, target] = Scene<CImgSplineInterpolation, planes>::Get();
  CSpline::Points curves[4];
  for (CSpline::Points& curve : curves) {
    curve.Add({0, 0, 1});
    if (planes == 1 || &curve != curves) curve.Add({0.2, 0.4, 1});
    if (planes == 1 || &curve != curves) curve.Add({0.6, 0.7, 1});
    curve.Add({1, 1, 1});
  }
  target->CalcSplineParam(curves);
  Measure<planes>(state,
                  [&, &target = target, &source = source] { target->Do(curves, source.get(), nullptr, 0); });
}

}  // namespace

int main(int argc, char** argv) {
  for (const int threads : {1, 2}) {
    const auto add = [threads](const char* name, void (*run)(benchmark::State&)) {
      korimg::bench::Add(name, run, threads);
    };
    add("Copy_ThreePlanes", Copy<3>);
    add("AutoStretch_Planes", Planes);
    add("AutoStretch_MeasuredPlanes", MeasuredPlanes);
    add("SkySelect", CleanSky);
    add("Spline_ThreePlanes", Spline<3>);
    add("Copy", Copy<1>);
    add("Spline", Spline<1>);
    add("Midtones", Midtones<false>);
    add("Midtones_Inverse", Midtones<true>);
    add("Midtones_Measure", MidtonesMeasured);
    add("Hyperbolic_Power", Hyperbolic<10, false>);
    add("Hyperbolic_PowerInverse", Hyperbolic<10, true>);
    add("Hyperbolic_Exponential", Hyperbolic<0, false>);
    add("Hyperbolic_Logarithm", Hyperbolic<-10, false>);
    add("Power_OpenCv", OpenCv<Power>);
    add("Exponential_OpenCv", OpenCv<cv::exp>);
    add("Logarithm_OpenCv", OpenCv<cv::log>);
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
