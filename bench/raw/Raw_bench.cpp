// Development of a Bayer frame beside OpenCV's edge-aware one, which works on 16-bit numbers, and of a
// honeycomb beside Bayer's path by lines, by threads.
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include <HalideRuntime.h>
#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "korimg/raw/CImgBayerToRgb.h"
#include "korimg/raw/CImgHoneyCombToRgb.h"

#include "bench/Measure.h"

namespace {

constexpr int kWidth = 6000, kHeight = 4000;

/// The same random numbers as floats and as 16-bit ones, with room for the results.
struct Planes {
  std::vector<float> raw, red, green, blue;
  cv::Mat mosaic = cv::Mat(kHeight, kWidth, CV_16U), colours = cv::Mat(kHeight, kWidth, CV_16UC3);

  Planes() : raw(1LL * kWidth * kHeight), red(raw.size()), green(raw.size()), blue(raw.size()) {
    unsigned state = 1;
    auto* number = mosaic.ptr<unsigned short>();
    for (size_t i = 0; i < raw.size(); ++i) {
      state = state * 1664525u + 1013904223u;
      number[i] = static_cast<unsigned short>(state >> 16);
      raw[i] = number[i];
    }
  }
};

Planes& ThePlanes() {
  static Planes planes;
  return planes;
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
}

/// A pipeline by itself, found by its name.
void Pipeline(benchmark::State& state, const std::string& name, const std::vector<float*>& pixels) {
  std::vector<halide_buffer_t> buffers(pixels.size());
  halide_dimension_t dimensions[2] = {{0, kWidth, 1, 0}, {0, kHeight, kWidth, 0}};
  std::vector<void*> arguments;
  for (size_t i = 0; i < pixels.size(); ++i) {
    buffers[i].host = reinterpret_cast<std::uint8_t*>(pixels[i]);
    buffers[i].type = halide_type_t(halide_type_float, 32);
    buffers[i].dimensions = 2;
    buffers[i].dim = dimensions;
    arguments.push_back(&buffers[i]);
  }
  for (const korimg::PipelineEntry& entry : korimg::PipelineTable()) {
    if (entry.metadata()->name != name) continue;
    Measure(state, [&] {
      if (entry.call(arguments.data()) != 0) state.SkipWithError("the pipeline failed");
    });
  }
}

void Colour(benchmark::State& state) {
  Planes& p = ThePlanes();
  Pipeline(state, "bayer_to_rgb_RGGB_float", {p.raw.data(), p.red.data(), p.green.data(), p.blue.data()});
}
void Gray(benchmark::State& state) {
  Planes& p = ThePlanes();
  Pipeline(state, "bayer_to_gray_RGGB_float", {p.raw.data(), p.green.data()});
}
void EdgeAwareOpenCv(benchmark::State& state) {
  Measure(state, [&p = ThePlanes()] { cv::cvtColor(p.mosaic, p.colours, cv::COLOR_BayerRG2BGR_EA); });
}

/// A frame of numbers up to a white, developed in place. The copy that it starts from is not counted.
template <class Image, class Parameters>
void Develop(benchmark::State& state, const std::shared_ptr<CVmManager>& store, const Parameters& parameters,
             float white) {
  SetThreads(state);
  CVelImage source(store, CImage::Float, kWidth, kHeight, 1, 1.0, 0.0, 1, nullptr);
  for (int y = 0; y < kHeight; ++y) {
    float* line = source.GetWritableLine(0, y, 0);
    for (int x = 0; x < kWidth; ++x) {
      line[x] = std::floor(ThePlanes().raw[1LL * y * kWidth + x] / 65536 * (white + 1));
    }
  }
  Image image;
  for ([[maybe_unused]] auto _ : state) {
    state.PauseTiming();
    image.CopyImage(source, nullptr, nullptr);
    state.ResumeTiming();
    if (image.Do(parameters, 0) != 1) state.SkipWithError("refused");
  }
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}

/// To a frame for display: bits, gains with knee, colour and gamma.
template <class Parameters>
Parameters ForDisplay(Parameters parameters, int bits) {
  static double gains[8] = {2, 1, 1, 1.5, 2, 1, 1, 1.5};
  parameters.nSrcBits = bits, parameters.nDstBits = 16;
  parameters.bToneCurve = parameters.bKnee = parameters.bLevelCut = parameters.bGamma = 1;
  parameters.dGamma = 2.2;
  parameters.pGain = gains;
  return parameters;
}
tagBayerStruct Bayer() {
  tagBayerStruct bayer;
  bayer.nCFA = 1;
  bayer.nSrcBits = bayer.nDstBits = -32;
  return bayer;
}
tagHoneyCombStruct HoneyComb() {
  tagHoneyCombStruct honeyComb;
  honeyComb.nCFA = 11;
  honeyComb.nKind = 1;
  honeyComb.nSrcBits = honeyComb.nDstBits = -32;
  return honeyComb;
}
void DevelopContiguous(benchmark::State& state) {
  Develop<CImgBayerToRgb>(state, korimg::CreateContiguousManager(), ForDisplay(Bayer(), 14), 16383);
}
void DevelopPaged(benchmark::State& state) {
  Develop<CImgBayerToRgb>(state, korimg::CreatePagedManager(), ForDisplay(Bayer(), 14), 16383);
}
void DevelopHoneyComb(benchmark::State& state) {
  Develop<CImgHoneyCombToRgb>(state, korimg::CreateContiguousManager(), ForDisplay(HoneyComb(), 12), 4095);
}
// By lines both, and nothing but the interpolation.
void BayerByLines(benchmark::State& state) {
  Develop<CImgBayerToRgb>(state, korimg::CreatePagedManager(), Bayer(), 65535);
}
void HoneyCombByLines(benchmark::State& state) {
  Develop<CImgHoneyCombToRgb>(state, korimg::CreatePagedManager(), HoneyComb(), 65535);
}

/// One number of threads after the other: the pipelines' pool does not shrink.
void Register(int threads) {
  const auto add = [threads](const char* name, void (*run)(benchmark::State&)) {
    benchmark::RegisterBenchmark(name, run)
        ->UseRealTime()
        ->MeasureProcessCPUTime()
        ->Unit(benchmark::kMillisecond)
        ->ArgName("threads")
        ->Arg(threads);
  };
  add("BayerToRgb", Colour);
  add("BayerToRgb_OpenCvEdgeAware16", EdgeAwareOpenCv);
  add("BayerToGray", Gray);
  add("Develop", DevelopContiguous);
  add("Develop_Paged", DevelopPaged);
  add("Develop_HoneyComb", DevelopHoneyComb);
  add("BayerToRgb_Lines", BayerByLines);
  add("HoneyCombToRgb_Lines", HoneyCombByLines);
}

}  // namespace

int main(int argc, char** argv) {
  Register(1);
  Register(2);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
