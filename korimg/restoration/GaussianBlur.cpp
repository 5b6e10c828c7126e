#include "korimg/restoration/internal/GaussianBlur.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>
#include <vector>

#include "korimg/image/internal/Lines.h"
#include "korimg/image/internal/Vectors.h"
#include "korimg/platform/CParallel.h"

namespace korimg {

GaussianBlur::GaussianBlur(double sigma) : transform_(kLength) {
  constexpr int kWidest = 31;  // cells, a quarter of a stretch with both sides
  constexpr double kSeen = 6;  // sigma; the rest is 2e-9 of the whole
  reach_ = static_cast<int>(std::clamp(std::ceil(kSeen * sigma), 1.0, static_cast<double>(kWidest)));
  std::vector<double> cells;  // from the middle on
  double whole = 0;
  for (int x = 0; x <= reach_; ++x) {
    cells.push_back(std::exp(-0.5 * (x / sigma) * (x / sigma)));
    whole += x == 0 ? cells[x] : 2 * cells[x];
  }
  for (int k = 0; k < kLength; ++k) {
    double sum = cells[0];
    for (int x = 1; x <= reach_; ++x) {
      sum += 2 * cells[x] * std::cos(2 * std::numbers::pi * k * x / kLength);
    }
    response_[k] = static_cast<float>(sum / whole / kLength);
  }
}

template <class F>
void GaussianBlur::ForStretches(int lines, int cells, F&& stretch) const {
  const int inner = kLength - 2 * reach_, across = lines / kSides;
  const int stretches = (cells + inner - 1) / inner * across, workers = CParallel::GetMaxThreads();
  const auto share = [&](int worker) {
    return static_cast<int>(static_cast<long long>(stretches) * worker / workers);
  };
  ForLines(Team::All, 0, workers, [&](int worker) {
    const LineTransform::Work work(kLength), spectrum(kLength);
    std::vector<complex> room(static_cast<size_t>(kLength) * LineTransform::kLanes);
    for (int i = share(worker); i < share(worker + 1); ++i) {
      const int first = i / across * inner;
      stretch(i % across * kSides, first, std::min(inner, cells - first), room.data(),
              [&](int step, int pitch) {
                transform_.Filter({room.data(), step, pitch, LineTransform::kLanes}, response_.data(), work,
                                  spectrum);
              });
    }
  });
}

void GaussianBlur::Run(const float* from, float* between, float* to, int width, int height) const {
  constexpr int kLanes = LineTransform::kLanes;
  const size_t pitch = width;
  // Cells of a stretch that lie within the line.
  const auto begin = [this](int first) { return std::max(reach_ - first, 0); };
  const auto end = [this](int first, int cells) { return std::min(kLength, cells - first + reach_); };
  // Rows: the second half of the sixteen are imaginary parts.
  ForStretches(height, width, [&](int y, int x, int count, complex* room, auto&& filter) {
    std::fill_n(room, kLength * kLanes, complex{});
    for (int i = 0; i < kLanes; ++i) {
      const float* re = from + (y + i) * pitch;
      const float* im = re + kLanes * pitch;
      complex* line = room + static_cast<size_t>(i) * kLength;
      RunInLongVectors([=, k0 = begin(x), k1 = end(x, width), shift = x - reach_]() KORIMG_IN_LOOP {
        for (int k = k0; k < k1; ++k) {
          line[k] = {re[shift + k], im[shift + k]};
        }
      });
    }
    filter(1, kLength);
    for (int i = 0; i < kLanes; ++i) {
      float* re = between + (y + i) * pitch + x;
      float* im = re + kLanes * pitch;
      const complex* line = room + static_cast<size_t>(i) * kLength + reach_;
      RunInLongVectors([=]() KORIMG_IN_LOOP {
        for (int k = 0; k < count; ++k) {
          re[k] = line[k].re;
          im[k] = line[k].im;
        }
      });
    }
  });
  // Columns: neighbours are a complex number as they lie.
  ForStretches(width, height, [&](int x, int y, int count, complex* room, auto&& filter) {
    constexpr size_t kBytes = kSides * sizeof(float);
    constexpr int kAhead = 16;
    std::fill_n(room, kLength * kLanes, complex{});
    const int last = end(y, height);
    for (int k = begin(y); k < last; ++k) {
      // Each row lies in a page of its own, which no processor foresees.
      if (k + kAhead < last) __builtin_prefetch(between + (y - reach_ + k + kAhead) * pitch + x);
      std::memcpy(static_cast<void*>(room + static_cast<size_t>(k) * kLanes),
                  between + (y - reach_ + k) * pitch + x, kBytes);
    }
    filter(kLanes, 1);
    for (int k = 0; k < count; ++k) {
      if (k + kAhead < count) __builtin_prefetch(to + (y + k + kAhead) * pitch + x, 1);
      std::memcpy(to + (y + k) * pitch + x, room + static_cast<size_t>(k + reach_) * kLanes, kBytes);
    }
  });
}

}  // namespace korimg
