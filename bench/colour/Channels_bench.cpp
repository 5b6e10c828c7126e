// Colour images of exposures through filters, three planes of 24 megapixels, beside a copy of their pixels
// and our own turn.
#include <memory>
#include <string>

#include <benchmark/benchmark.h>

#include "korimg/colour/CImgCmyComposit.h"
#include "korimg/colour/CImgLrgbCmpst.h"
#include "korimg/colour/CImgRgbCmpst.h"
#include "korimg/geometry/CImgRotate.h"
#include "korimg/geometry/CInterp.h"

#include "bench/Measure.h"

namespace {

using korimg::bench::Add;

constexpr int kWidth = 6000, kHeight = 4000;

template <class Image>
std::unique_ptr<Image> New(const std::shared_ptr<CVmManager>& store, int planes) {
  auto image = std::make_unique<Image>();
  image->Create(CVelImage(store, CImage::Float, kWidth, kHeight, planes, 1.0, 0.0, 1, nullptr), nullptr);
  for (int p = 0; p < planes; ++p) {
    image->SetLevel(p, 0, 1000);
    for (int y = 0; y < kHeight; ++y) {
      float* line = image->GetWritableLine(0, y, p);
      for (int x = 0; x < kWidth; ++x) {
        line[x] = static_cast<float>((x * 31 + y * 17) % 977);
      }
    }
  }
  return image;
}

struct Images {
  std::shared_ptr<CVmManager> store = korimg::CreateContiguousManager();
  std::unique_ptr<CVelImage> red = New<CVelImage>(store, 1), green = New<CVelImage>(store, 1),
                             blue = New<CVelImage>(store, 1);
  std::unique_ptr<CImgRgbCmpst> rgb = New<CImgRgbCmpst>(store, 3);
};

Images& All() {
  static Images images;
  return images;
}

void Copy(benchmark::State& state) {
  korimg::bench::Run(state, static_cast<int>(state.range(0)), [] {
    CVelImage* sources[] = {All().red.get(), All().green.get(), All().blue.get()};
    for (int p = 0; p < 3; ++p) {
      korimg::bench::CopyByLines(sources[p]->GetLine(0, 0, 0), All().rgb->GetWritableLine(0, 0, p), kWidth,
                                 kHeight);
    }
  });
}

void Compose(benchmark::State& state, double dx, double degrees, int method) {
  korimg::bench::Run(state, static_cast<int>(state.range(0)), [=] {
    All().rgb->Do(All().red.get(), 0, 0, 0, All().green.get(), dx, -dx, degrees, All().blue.get(), -dx, dx,
                  -degrees, 0, method, nullptr, nullptr, 0, CString());
  });
}

void WholeShifts(benchmark::State& state) {
  Compose(state, 3, 0, CInterp::MethodBilinear);
}
template <int method>
void Shifts(benchmark::State& state) {
  Compose(state, 3.4, 0, method);
}
template <int method>
void Turns(benchmark::State& state) {
  Compose(state, 3.4, 0.3, method);
}

/// Two planes, as the composites turn two of three.
template <int method>
void OwnTurns(benchmark::State& state) {
  static const auto turned = New<CImgRotate>(All().store, 1);
  korimg::bench::Run(state, static_cast<int>(state.range(0)), [&] {
    turned->Do(0.3, 0, All().green.get(), 0, method, 0);
    turned->Do(-0.3, 0, All().blue.get(), 0, method, 0);
  });
}

void Cmy(benchmark::State& state) {
  static const auto image = New<CImgCmyComposit>(All().store, 3);
  korimg::bench::Run(state, static_cast<int>(state.range(0)), [&] {
    image->Do(All().red.get(), 0, 0, 0, All().green.get(), 3, -3, 0, All().blue.get(), -3, 3, 0, 0, 0,
              nullptr, 0, 0);
  });
}

void Lrgb(benchmark::State& state) {
  static const auto image = New<CImgLrgbCmpst>(All().store, 3);
  korimg::bench::Run(state, static_cast<int>(state.range(0)), [&] {
    image->DoLrgb(All().red.get(), 0, 0, 0, All().rgb.get(), 0, 0, 0, 0, 1, nullptr, 0, 0, 0);
  });
}

[[maybe_unused]] const bool added = [] {
  for (const int threads : {1, 2}) {
    Add("copy", Copy, threads);
    Add("rgb/whole", WholeShifts, threads);
    Add("cmy/whole", Cmy, threads);
    Add("rgb/shift/bilinear", Shifts<CInterp::MethodBilinear>, threads);
    Add("rgb/shift/bicubic", Shifts<CInterp::MethodBicubic>, threads);
    Add("rgb/turn/bilinear", Turns<CInterp::MethodBilinear>, threads);
    Add("own/turn/bilinear", OwnTurns<CInterp::MethodBilinear>, threads);
    Add("rgb/turn/bicubic", Turns<CInterp::MethodBicubic>, threads);
    Add("own/turn/bicubic", OwnTurns<CInterp::MethodBicubic>, threads);
    Add("lrgb", Lrgb, threads);
  }
  return true;
}();

}  // namespace

BENCHMARK_MAIN();
