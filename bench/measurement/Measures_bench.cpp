// Focus of a frame of 24 megapixels beside the two Gaussians that it is made of, the guide error of one of 6
// megapixels, and the search of a place beside OpenCV's.
#include <cmath>
#include <functional>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "korimg/filters/CImgFilterBlur.h"
#include "korimg/measurement/CImgEvaluateFocus.h"
#include "korimg/measurement/CImgEvaluateGuideError.h"
#include "korimg/measurement/CImgMatching.h"

#include "bench/Measure.h"

namespace {

using korimg::bench::Add;
using korimg::bench::Run;

double Random(std::uint64_t& state) {
  state = state * 6364136223846793005ull + 1442695040888963407ull;
  return (static_cast<double>(state >> 11) + 0.5) * 0x1p-53;
}

/// An image on a store of its own, by light(x, y) and noise of a deviation.
template <class Image>
struct Scene {
  std::shared_ptr<CVmManager> store;
  Image image;

  Scene(std::shared_ptr<CVmManager> manager, int width, int height, double noise, int seed,
        const std::function<double(int x, int y)>& light)
      : store(std::move(manager)) {
    image.Create(CVelImage(store, CImage::Float, width, height, 1, 1.0, 0.0, 1, nullptr), nullptr);
    image.SetLevel(0, 0, 60000);
    std::uint64_t state = seed;
    for (int y = 0; y < height; ++y) {
      float* line = image.GetWritableLine(0, y, 0);
      for (int x = 0; x < width; ++x) {
        const double deviate =
            std::sqrt(-2 * std::log(Random(state))) * std::cos(6.283185307 * Random(state));
        line[x] = static_cast<float>(light(x, y) + noise * deviate);
      }
    }
  }
};

template <bool paged>
CImgEvaluateFocus& FocusScene() {
  static Scene<CImgEvaluateFocus> scene(
      paged ? korimg::CreatePagedManager() : korimg::CreateContiguousManager(), 6000, 4000, 30, 1,
      [](int, int) { return 1000; });
  return scene.image;
}

template <bool paged>
void Focus(benchmark::State& state) {
  Run(state, static_cast<int>(state.range(0)), [] { benchmark::DoNotOptimize(FocusScene<paged>().Do(0)); });
}

void TwoGaussians(benchmark::State& state) {
  static CImgFilterBlur blurred;
  CVelImage& source = FocusScene<false>();
  if (blurred.IsEmpty()) blurred.Create(source, nullptr);
  Run(state, static_cast<int>(state.range(0)), [&] {
    for (const double sigma : {1.0, 10.0}) {
      blurred.GaussianFilter(sigma, &source, nullptr, 0);
    }
  });
}

void GuideError(benchmark::State& state) {
  static std::vector<float> stars;
  constexpr int kWidth = 3008, kHeight = 2008, kCount = 2400, kReach = 8;
  if (stars.empty()) {
    stars.resize(static_cast<size_t>(kWidth) * kHeight);
    std::uint64_t seed = 5;
    for (int i = 0; i < kCount; ++i) {
      const double cx = 10 + (kWidth - 20) * Random(seed), cy = 10 + (kHeight - 20) * Random(seed);
      const double peak = std::min(60 * std::pow(Random(seed), -1.25), 60000.0);
      const int x0 = static_cast<int>(cx), y0 = static_cast<int>(cy);
      for (int y = y0 - kReach; y <= y0 + kReach; ++y) {
        for (int x = x0 - kReach; x <= x0 + kReach; ++x) {
          const double r2 = (x - cx) * (x - cx) + (y - cy) * (y - cy);
          stars[static_cast<size_t>(y) * kWidth + x] += static_cast<float>(peak * std::exp(-r2 / 3.2));
        }
      }
    }
  }
  static Scene<CVelImage> scene(korimg::CreateContiguousManager(), kWidth, kHeight, 35, 1, [](int x, int y) {
    return 1500 + stars[static_cast<size_t>(y) * kWidth + x];
  });
  Run(state, static_cast<int>(state.range(0)),
      [&] { benchmark::DoNotOptimize(CImgEvaluateGuideError().Do(&scene.image, nullptr, nullptr)); });
}

constexpr int kSide = 1024, kRange = 64;
constexpr double kShiftX = 11, kShiftY = -17;

/// What is searched for: a disc with bands, a field of stars, and a faint smooth cloud.
double Planet(double x, double y) {
  const double u = (x - 500) / 150, v = (y - 540) / 150, r2 = u * u + v * v;
  return 500 + (r2 < 1 ? 9000 * std::sqrt(1 - r2) * (1 + 0.2 * std::sin(9 * v)) : 0);
}
double Stars(double x, double y) {
  const double u = std::remainder(x + 13 * std::floor(y / 61), 67), v = std::remainder(y, 61);
  return 500 + 4000 * std::exp(-(u * u + v * v) / 6);
}
double Cloud(double x, double y) {
  return 500 + 10 * std::exp(-((x - 480) * (x - 480) + (y - 560) * (y - 560)) / 30000);
}

template <double (*light)(double, double)>
struct Pair {
  std::shared_ptr<CVmManager> store = korimg::CreateContiguousManager();
  Scene<CImgMatching> first{store, kSide, kSide, 20, 1, [](int x, int y) { return light(x, y); }};
  Scene<CVelImage> second{store, kSide, kSide,
                          20,    2,     [](int x, int y) { return light(x + kShiftX, y + kShiftY); }};
};

template <double (*light)(double, double)>
void Matching(benchmark::State& state) {
  static Pair<light> pair;
  double x = 0, y = 0;
  Run(state, static_cast<int>(state.range(0)), [&] {
    x = y = 0;
    pair.first.image.Do(&pair.second.image, &x, &y, kRange, 0, 0);
  });
  state.counters["x"] = x;
  state.counters["y"] = y;
}

/// The middle of the second image, which stays on the first in all places.
template <double (*light)(double, double)>
void MatchTemplate(benchmark::State& state) {
  static Pair<light> pair;
  const auto matrix = [](CVelImage& image) {
    return cv::Mat(kSide, kSide, CV_32F, image.GetWritableLine(0, 0, 0));
  };
  const int inner = kSide - kRange;
  const cv::Mat first = matrix(pair.first.image),
                second = matrix(pair.second.image)(cv::Rect(kRange / 2, kRange / 2, inner, inner));
  cv::Mat differences;
  cv::Point best;
  Run(state, static_cast<int>(state.range(0)), [&] {
    cv::matchTemplate(first, second, differences, cv::TM_SQDIFF);
    cv::minMaxLoc(differences, nullptr, nullptr, &best);
  });
  state.counters["x"] = best.x - kRange / 2;
  state.counters["y"] = best.y - kRange / 2;
}

}  // namespace

int main(int argc, char** argv) {
  for (const int threads : {1, 2}) {
    Add("two Gaussians", TwoGaussians, threads);
    Add("focus", Focus<false>, threads);
    Add("focus, paged", Focus<true>, threads);
    Add("guide error", GuideError, threads);
    Add("planet, OpenCV", MatchTemplate<Planet>, threads);
    Add("planet", Matching<Planet>, threads);
    Add("stars, OpenCV", MatchTemplate<Stars>, threads);
    Add("stars", Matching<Stars>, threads);
    Add("cloud, OpenCV", MatchTemplate<Cloud>, threads);
    Add("cloud", Matching<Cloud>, threads);
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
