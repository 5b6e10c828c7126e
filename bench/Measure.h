// What the benchmarks share: threads, runs, and the copy that bandwidths are measured against.
#pragma once

#include <cstring>
#include <string>

#include <benchmark/benchmark.h>
#include <opencv2/core/utility.hpp>

#include "korimg/pipelines/runtime/Runtime.h"
#include "korimg/platform/CParallel.h"

namespace korimg::bench {

/// For this library's loops and pipelines and for OpenCV. The pipelines' pool never shrinks: one thread
/// first.
inline void SetThreads(int threads) {
  CParallel::SetMaxThreads(threads);
  SetPipelineThreads(threads);
  cv::setNumThreads(threads);
}

/// Times run(), which has run once before.
template <class F>
void Run(benchmark::State& state, int threads, F&& run) {
  SetThreads(threads);
  run();
  for ([[maybe_unused]] auto _ : state) {
    run();
  }
}

/// Registers a case for a number of threads, its first number, which its name tells too.
inline void Add(const std::string& name, void (*run)(benchmark::State&), int threads) {
  benchmark::RegisterBenchmark(name.c_str(), run)
      ->ArgName("threads")
      ->Arg(threads)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime();
}

inline void CopyByLines(const float* from, float* to, int width, int height) {
#pragma omp parallel for schedule(static)
  for (int y = 0; y < height; ++y) {
    std::memcpy(to + 1LL * y * width, from + 1LL * y * width, sizeof(float) * width);
  }
}

}  // namespace korimg::bench
