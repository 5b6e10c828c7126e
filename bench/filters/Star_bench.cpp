// Digital development and star filters beside the Gaussian that they are made of, by threads; the smoothing
// of the sky beside a plain loop of the same sums. Items are pixels.
#include <cmath>
#include <limits>
#include <memory>
#include <vector>

#include <benchmark/benchmark.h>

#include "korimg/filters/CFilterMatrix.h"
#include "korimg/filters/CImgFilterBlur.h"
#include "korimg/filters/CImgFilterSpecial.h"

#include "bench/Measure.h"

namespace {

constexpr int kWidth = 6000, kHeight = 4000;

/// A plane of sky with noise and a star in every 50 x 50 pixels, and targets, on one store.
struct Images {
  std::shared_ptr<CVmManager> store;
  CVelImage source;
  CImgFilterBlur blur;
  CImgFilterSpecial special;

  explicit Images(std::shared_ptr<CVmManager> manager) : store(std::move(manager)) {
    const CVelImage shape(store, CImage::Float, kWidth, kHeight, 1, 1.0, 0.0, 1, nullptr);
    for (CVelImage* image : {&source, static_cast<CVelImage*>(&blur), static_cast<CVelImage*>(&special)}) {
      image->Create(shape, nullptr);
      image->SetLevel(0, 0, 60000);
    }
    unsigned state = 1;
    for (int y = 0; y < kHeight; ++y) {
      float* line = source.GetWritableLine(0, y, 0);
      for (int x = 0; x < kWidth; ++x) {
        state = state * 1664525u + 1013904223u;
        const int dx = x % 50 - 25, dy = y % 50 - 25;
        const double star = 30000 * std::exp(-(dx * dx + dy * dy) / 4.0);
        line[x] = static_cast<float>(3000 + star + (state >> 8) / 65536.0);
      }
    }
    source.CalcMinMax();
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

template <class F>
void Measure(benchmark::State& state, int lines, F&& run) {
  korimg::bench::Run(state, static_cast<int>(state.range(1)), run);
  state.SetItemsProcessed(state.iterations() * kWidth * lines);
}

template <Images& (*images)()>
void Gaussian(benchmark::State& state) {
  const auto sigma = static_cast<double>(state.range(0));
  Measure(state, kHeight, [&] {
    images().blur.ClearFilterProc();
    images().blur.GaussianFilter(sigma, &images().source, nullptr, 0);
  });
}

/// What the renderings of digital development are given, for the threads of the case.
struct Prepared {
  double gamma[3] = {2, 2, 2};
  int planes[3] = {0, 1, 2};
  float min[3], range[3], a[3], b[3];

  Prepared(Images& images, const benchmark::State& state) {
    korimg::bench::SetThreads(static_cast<int>(state.range(1)));
    const auto sigma = static_cast<double>(state.range(0));
    double background[3] = {3000}, r[3] = {sigma};
    images.special.ClearFilterProc();
    images.special.DigitalDvlp1(background, 0, r, 1, gamma, 1, &images.source, min, range, a, b, 0);
  }
};

template <Images& (*images)()>
void Development(benchmark::State& state) {
  Images& i = images();
  Prepared p(i, state);
  Measure(state, kHeight, [&] {
    i.special.DigitalDvlpOnly(1, &i.source, 1, p.planes, p.min, p.range, p.a, p.b, nullptr, 0);
  });
}

void DevelopmentAfterGamma(benchmark::State& state) {
  Images& i = Contiguous();
  Prepared p(i, state);
  Measure(state, kHeight, [&] {
    i.special.DigitalDvlp2(1, p.gamma, &i.source, p.planes, p.min, p.range, p.a, p.b, nullptr, 0);
  });
}

template <Images& (*images)()>
void StarSharp(benchmark::State& state) {
  auto r = static_cast<double>(state.range(0));
  double rank = 0.5 * images().special.GetStarSharpFilterNum(r), threshold = 0.1;
  Measure(state, kHeight,
          [&] { images().special.StarSharpFilter(&r, &rank, &threshold, 1, &images().source, nullptr, 0); });
}

template <Images& (*images)()>
void StarMask(benchmark::State& state) {
  const auto sigma = static_cast<double>(state.range(0));
  Measure(state, kHeight,
          [&] { images().special.StaryMask(sigma, 1, 0.1, 0, &images().source, nullptr, 0); });
}

template <Images& (*images)()>
void StarEnhance(benchmark::State& state) {
  auto sigma = static_cast<double>(state.range(0));
  double mag = 1, threshold = 0.1;
  Measure(state, kHeight, [&] {
    images().special.StarEnhanceFilter2(&sigma, &mag, &threshold, 0, &images().source, nullptr, 0);
  });
}

void StarEnhanceByLines(benchmark::State& state) {
  const auto sigma = static_cast<double>(state.range(0));
  Measure(state, kHeight, [&] {
    Contiguous().special.StarEnhanceFilter(sigma, 1, 0.1, 0, &Contiguous().source, nullptr, 0);
  });
}

template <Images& (*images)()>
void NebulaSmooth(benchmark::State& state) {
  auto sigma = static_cast<double>(state.range(0));
  double threshold = 0.1, r = 3;
  Measure(state, kHeight, [&] {
    images().special.NebularSmootherFilter(&sigma, &threshold, &r, 0, &images().source, nullptr, 0);
  });
}

/// The sums of NebularSmootherFilter, cell by cell, over a few lines.
void NebulaSmoothByCells(benchmark::State& state) {
  constexpr int kTop = 100, kLines = 50;
  const auto sigma = static_cast<double>(state.range(0));
  CFilterMatrix kernel;
  kernel.MakeGaussian(sigma);
  const int r = kernel.GetR();
  const float* pixels = Contiguous().source.GetLine(0, 0, 0);
  const auto at = [](int x, int y) { return static_cast<size_t>(y) * kWidth + x; };
  constexpr float kStar = std::numeric_limits<float>::max();
  std::vector<float> cells(pixels, pixels + at(0, kTop + kLines + r));
  for (int y = kTop - r; y < kTop + kLines + r; ++y) {
    for (int x = 1; x < kWidth - 1; ++x) {
      float high = 9 * pixels[at(x, y)];
      for (int dy = -1; dy <= 1; ++dy) {
        for (int dx = -1; dx <= 1; ++dx) {
          high -= pixels[at(x + dx, y + dy)];
        }
      }
      if (std::abs(high) >= 0.1f * 60000 * 256 / 255) cells[at(x, y)] = kStar;
    }
  }
  std::vector<float> line(kWidth);
  Measure(state, kLines, [&] {
#pragma omp parallel for schedule(static)
    for (int y = kTop; y < kTop + kLines; ++y) {
      for (int x = r; x < kWidth - r; ++x) {
        double sum = 0, weights = 0;
        const float* weight = kernel.GetMtxPtr(-r, -r);
        for (int dy = -r; dy <= r; ++dy) {
          for (int dx = -r; dx <= r; ++dx, ++weight) {
            const float cell = cells[at(x + dx, y + dy)];
            if (cell == kStar) continue;
            sum += static_cast<double>(*weight) * cell;
            weights += *weight;
          }
        }
        line[x] = weights == 0 ? pixels[at(x, y)] : static_cast<float>(sum / weights);
      }
      benchmark::DoNotOptimize(line.data());
    }
  });
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
    const std::vector<std::int64_t> sigmas{2, 5, 10};
    add("Gaussian", Gaussian<Contiguous>, "sigma", sigmas);
    add("GaussianPaged", Gaussian<Paged>, "sigma", sigmas);
    add("Development", Development<Contiguous>, "sigma", sigmas);
    add("DevelopmentPaged", Development<Paged>, "sigma", sigmas);
    add("DevelopmentAfterGamma", DevelopmentAfterGamma, "sigma", {5});
    add("StarSharp", StarSharp<Contiguous>, "r", {2, 3, 5});
    add("StarSharpPaged", StarSharp<Paged>, "r", {3});
    add("StarMask", StarMask<Contiguous>, "sigma", sigmas);
    add("StarMaskPaged", StarMask<Paged>, "sigma", sigmas);
    add("StarEnhance", StarEnhance<Contiguous>, "sigma", sigmas);
    add("StarEnhancePaged", StarEnhance<Paged>, "sigma", sigmas);
    add("StarEnhanceByLines", StarEnhanceByLines, "sigma", {5});
    add("NebulaSmooth", NebulaSmooth<Contiguous>, "sigma", {5});
    add("NebulaSmoothPaged", NebulaSmooth<Paged>, "sigma", {5});
    add("NebulaSmoothByCells", NebulaSmoothByCells, "sigma", {5});
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
