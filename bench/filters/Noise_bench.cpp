// Repairs of a plane, or of three, beside the same of OpenCV where it has it, by threads and stores.
#include <memory>
#include <vector>

#include <benchmark/benchmark.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "korimg/filters/CImgFilterBlur.h"
#include "korimg/filters/CImgFilterMisc.h"

#include "bench/Measure.h"

namespace {

constexpr int kWidth = 6000, kHeight = 4000;

/// A noisy sky with hot pixels, and a target, on one store.
struct Images {
  std::shared_ptr<CVmManager> store;
  CVelImage source;
  CImgFilterMisc target;
  CImgFilterBlur blur;

  Images(std::shared_ptr<CVmManager> manager, int planes) : store(std::move(manager)) {
    const CVelImage shape(store, CImage::Float, kWidth, kHeight, planes, 1.0, 0.0, 1, nullptr);
    unsigned state = 1;
    for (CVelImage* image : {&source, static_cast<CVelImage*>(&target), static_cast<CVelImage*>(&blur)}) {
      image->Create(shape, nullptr);
      for (int p = 0; p < planes; ++p) {
        image->SetLevel(p, 0, 60000);
        for (int y = 0; y < kHeight; ++y) {
          float* line = image->GetWritableLine(0, y, p);
          for (int x = 0; x < kWidth; ++x) {
            state = state * 1664525u + 1013904223u;
            line[x] = 5000 + static_cast<float>(state >> 8) / 65536 + (state % 1021 == 0 ? 20000 : 0);
          }
        }
      }
    }
  }
};

template <int planes>
Images& Contiguous() {
  static Images images(korimg::CreateContiguousManager(), planes);
  return images;
}
template <int planes>
Images& Paged() {
  static Images images(korimg::CreatePagedManager(), planes);
  return images;
}

using Work = void (*)(Images&);

template <Images& (*images)(), Work work>
void Measure(benchmark::State& state) {
  Images& all = images();
  korimg::bench::Run(state, static_cast<int>(state.range(0)), [&] {
    all.target.ClearFilterProc();
    work(all);
  });
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}

template <int radius>
void HotCool(Images& i) {
  i.target.NoiseCut(radius, 1, 0.5, 1, 0.5, &i.source, nullptr, 0);
}
/// The line loop, for the form that pipelines do not have.
void Hot(Images& i) {
  i.target.NoiseCut(1, 0, 0.5, 1, 0.5, &i.source, nullptr, 0);
}
void Faint(Images& i) {
  i.target.NoiseCutWithBrightness(32, 2, 1, 0, &i.source, nullptr, 0);
}
template <int mode>
void Mosaic(Images& i) {
  i.target.CFANoiseCut(mode, 1, 2, 1, 0.5, &i.source, nullptr, 0);
}
void Honeycomb(Images& i) {
  i.target.CFANoiseCut(2, 11, 2, 1, 0.5, &i.source, nullptr, 0);
}
void ColourNoise(Images& i) {
  i.target.ColorNoiseCut(48, 0, 0.7, &i.source, nullptr, 0);
}
void Fringe(Images& i) {
  i.target.FalseColorCut(100, 100, 200, 0.3, 1, &i.source, nullptr, 0);
}
void GuideError(Images& i) {
  i.target.GuideErrorCanceller(3, 20, 1, 0.3, &i.source, nullptr, 0);
}
void Sky(Images& i) {
  double level = 48, width = 16, sigma = 2;
  i.target.BkgSmooth(&level, &width, 0, &sigma, 0, &i.source, nullptr, 0);
}
void Contours(Images& i) {
  i.target.ContourFilter(8, 0, &i.source, nullptr, 0);
}
void Kernel(Images& i) {
  double nine[] = {0, -1, 0, -1, 5, -1, 0, -1, 0};
  i.target.Custom(1, nine, &i.source, nullptr, 0);
}
void Gaussian(Images& i) {
  i.blur.GaussianFilter(2, &i.source, nullptr, 0);
}

void MedianOfOpenCv(Images& i) {
  const cv::Mat source(kHeight, kWidth, CV_32F, i.source.GetWritableLine(0, 0, 0));
  cv::Mat target(kHeight, kWidth, CV_32F, i.target.GetWritableLine(0, 0, 0));
  cv::medianBlur(source, target, 3);
}
void KernelOfOpenCv(Images& i) {
  const cv::Mat source(kHeight, kWidth, CV_32F, i.source.GetWritableLine(0, 0, 0));
  cv::Mat target(kHeight, kWidth, CV_32F, i.target.GetWritableLine(0, 0, 0));
  const cv::Mat nine = (cv::Mat_<float>(3, 3) << 0, -1, 0, -1, 5, -1, 0, -1, 0);
  cv::filter2D(source, target, -1, nine, {-1, -1}, 0, cv::BORDER_REPLICATE);
}

template <int planes, Work work>
void Add(const std::string& name, int threads) {
  korimg::bench::Add(name, Measure<Contiguous<planes>, work>, threads);
  korimg::bench::Add(name + "Paged", Measure<Paged<planes>, work>, threads);
}

}  // namespace

int main(int argc, char** argv) {
  // One thread before two: the pipelines' pool never shrinks.
  for (const int threads : {1, 2}) {
    korimg::bench::Add("MedianOfOpenCv", Measure<Contiguous<1>, MedianOfOpenCv>, threads);
    Add<1, HotCool<1>>("HotCool1", threads);
    Add<1, Hot>("Hot1", threads);
    Add<1, HotCool<2>>("HotCool2", threads);
    Add<1, Faint>("Faint", threads);
    Add<1, Mosaic<2>>("MosaicPixels", threads);
    Add<1, Mosaic<4>>("MosaicPairs", threads);
    Add<1, Honeycomb>("Honeycomb", threads);
    Add<3, ColourNoise>("ColourNoise", threads);
    Add<3, Fringe>("Fringe", threads);
    Add<1, GuideError>("GuideError", threads);
    Add<1, Sky>("Sky", threads);
    Add<1, Gaussian>("Gaussian", threads);
    Add<1, Contours>("Contours", threads);
    Add<1, Kernel>("Kernel", threads);
    korimg::bench::Add("KernelOfOpenCv", Measure<Contiguous<1>, KernelOfOpenCv>, threads);
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
