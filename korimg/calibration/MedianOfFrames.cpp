// The median of many frames by a sorting network: the same exchanges for every column, so that they run on
// whole vectors of columns.
#include "korimg/calibration/MedianOfFrames.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "korimg/image/internal/Lines.h"
#include "korimg/image/internal/SortingNetwork.h"

namespace korimg {
namespace {

/// Columns that are sorted together, a column of every frame: as many as stay in the first-level cache, of
/// 32 KiB.
int ChunkColumns(int count) {
  constexpr int kCached = 8192, kLeast = 64;
  return std::max(kCached / count / 16 * 16, kLeast);
}

}  // namespace

void MedianOfFrames(std::span<const float* const> frames, int width, int rows, float* result) {
  const int count = static_cast<int>(frames.size());
  const Network network = MakeNetwork(count);
  const int chunk = std::min(ChunkColumns(std::max(count, 1)), width);
  ForLines(Team::All, 0, rows, [&](int y) {
    std::vector<float> values(static_cast<size_t>(count) * chunk);
    std::vector<int> valid(chunk);
    const auto row = [&](int i) { return values.data() + static_cast<size_t>(i) * chunk; };
    for (int left = 0; left < width; left += chunk) {
      const int columns = std::min(chunk, width - left);
      const size_t start = static_cast<size_t>(y) * width + left;
      std::fill(valid.begin(), valid.end(), 0);
      RunInLongVectors([=, &frames, &network, numbers = valid.data(),
                        sorted = values.data()]() KORIMG_IN_LOOP {
        for (int i = 0; i < count; ++i) {
          const float* from = frames[i] + start;
          float* to = sorted + static_cast<size_t>(i) * chunk;
          // NaN goes to the end of the order, where the count of valid values leaves it out.
          for (int x = 0; x < columns; ++x) {
            const bool number = from[x] == from[x];
            to[x] = number ? from[x] : std::numeric_limits<float>::infinity();
            numbers[x] += number;
          }
        }
        for (const auto& [i, j] : network) {
          Exchange(sorted + static_cast<size_t>(i) * chunk, sorted + static_cast<size_t>(j) * chunk, columns);
        }
      });
      if (std::all_of(valid.begin(), valid.begin() + columns, [count](int n) { return n == count; })) {
        // The common case, by vectors: the middle is in the same rows for all columns.
        float const *lower = row((count - 1) / 2), *upper = row(count / 2);
        for (int x = 0; x < columns; ++x) {
          result[start + x] = lower == upper ? upper[x] : 0.5f * lower[x] + 0.5f * upper[x];
        }
        continue;
      }
      for (int x = 0; x < columns; ++x) {
        const int n = valid[x];
        result[start + x] = n == 0       ? std::numeric_limits<float>::quiet_NaN()
                            : n % 2 == 1 ? row(n / 2)[x]
                                         : 0.5f * row(n / 2 - 1)[x] + 0.5f * row(n / 2)[x];
      }
    }
  });
}

}  // namespace korimg
