// What overhead.py times by Python, in C++: invert of 24 megapixels into memory that is there, the median
// call.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <sys/mman.h>

#include "session/operations/Operations.h"

namespace {

/// Memory as numpy takes it: in huge pages.
float* NewPixels(size_t count) {
  constexpr size_t kPage = 2 << 20;
  const size_t bytes = (count * sizeof(float) + kPage - 1) / kPage * kPage;
  void* const pixels = std::aligned_alloc(kPage, bytes);
  madvise(pixels, bytes, MADV_HUGEPAGE);
  return static_cast<float*>(pixels);
}

}  // namespace

int main() {
  using namespace korimg;
  using namespace korimg::session;
  constexpr int kWidth = 6000, kHeight = 4000;
  const size_t count = static_cast<size_t>(kWidth) * kHeight;
  float *const source = NewPixels(count), *const result = NewPixels(count);
  for (size_t i = 0; i < count; ++i) {
    source[i] = static_cast<float>(i % 997) / 997;
    result[i] = 0;
  }
  std::vector<double> calls;
  for (int call = 0; call < 15; ++call) {
    const auto start = std::chrono::steady_clock::now();
    Job job;
    Image image =
        Image::Over(job, Band<float>(source, 1, kWidth, 0, kHeight), nullptr, {{0, 1}}, {.planes = {result}});
    Step(FindOperation("invert")).Run(job, image, nullptr);
    calls.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  std::nth_element(calls.begin(), calls.begin() + 7, calls.end());
  std::printf("%.6f\n", calls[7]);
}
