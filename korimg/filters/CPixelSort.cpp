#include "korimg/filters/CPixelSort.h"

#include <algorithm>
#include <cstdint>
#include <tuple>

#include "korimg/image/internal/Numbers.h"

namespace {

/// A number from 0 to 1 that looks random, of a place.
float Shuffled(int x, int y) {
  constexpr int kMantissa = 24;
  const std::uint64_t n = korimg::Scrambled(
      (static_cast<std::uint64_t>(static_cast<std::uint32_t>(y)) << 32) + static_cast<std::uint32_t>(x));
  return static_cast<float>(n >> (64 - kMantissa)) / static_cast<float>(1 << kMantissa);
}

}  // namespace

void CPixelSort::SetSize(int n) {
  pixels_.assign(std::max(n, 0), Pixel());
  count_ = 0;
}

void CPixelSort::Add(int x, int y, float value) {
  if (count_ < static_cast<int>(pixels_.size())) pixels_[count_++] = {x, y, value, Shuffled(x, y)};
}

int CPixelSort::Get(int i, int* x, int* y, float* value) const {
  if (i < 0 || i >= static_cast<int>(pixels_.size())) return 0;
  *x = pixels_[i].x;
  *y = pixels_[i].y;
  *value = pixels_[i].value;
  return 1;
}

void CPixelSort::Sort() {
  std::sort(pixels_.begin(), pixels_.begin() + count_, [](const Pixel& a, const Pixel& b) {
    if (korimg::NanLast(a.value, b.value)) return true;
    if (korimg::NanLast(b.value, a.value)) return false;
    return std::tie(a.random, a.y, a.x) < std::tie(b.random, b.y, b.x);
  });
}
