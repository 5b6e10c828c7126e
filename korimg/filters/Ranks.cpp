// Two ways to one value, or to several at once. A few cells: a network that selects the rank, the same
// exchanges for many pixels side by side. Many cells: all pixels of a tile are numbered in their order, and a
// window that slides over the tile keeps the set of its numbers, one bit each, with a pointer at the rank.
#include "korimg/filters/internal/Ranks.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <numeric>

#include "korimg/image/internal/Numbers.h"
#include "korimg/image/internal/RadixSort.h"
#include "korimg/image/internal/SortingNetwork.h"

namespace korimg {
namespace {

/// A window of results and the pixels about it, those beyond the edges included.
struct Tile {
  Window results;
  int r;
  int width, height;  ///< with the margin
  int imageWidth, imageHeight;
  std::vector<float> pixels;
  bool hasNan = false;

  Tile(CVelImage& src, int plane, const Window& window, const RankQuery& query)
      : results(window),
        r(query.cells.r),
        width(window.Width() + 2 * r),
        height(window.Height() + 2 * r),
        imageWidth(src.GetWidth()),
        imageHeight(src.GetHeight()),
        pixels(static_cast<size_t>(width) * height) {
    // The columns of the tile that are columns of the image.
    const int first = std::max(r - window.left, 0);
    const int last = std::max(std::min(imageWidth - window.left + r, width), first);
    for (int v = 0; v < height; ++v) {
      const int y = window.top - r + v;
      const bool inside = y >= 0 && y < imageHeight;
      if (!inside && !query.row) continue;
      const float* from = src.GetLine(0, inside ? y : query.row(y, imageHeight), plane);
      float* to = pixels.data() + static_cast<size_t>(v) * width;
      std::copy(from + window.left - r + first, from + window.left - r + last, to + first);
      if (query.column) {
        const auto edge = [&](int u) { to[u] = from[query.column(window.left - r + u, imageWidth)]; };
        for (int u = 0; u < first; ++u) {
          edge(u);
        }
        for (int u = last; u < width; ++u) {
          edge(u);
        }
      }
    }
    for (const float pixel : pixels) {
      hasNan |= pixel != pixel;
    }
  }

  size_t Index(int u, int v) const { return static_cast<size_t>(v) * width + u; }
  bool IsInImage(int u, int v) const {
    const int x = results.left - r + u, y = results.top - r + v;
    return x >= 0 && x < imageWidth && y >= 0 && y < imageHeight;
  }
};

/// Calls cell(dx, dy) for each cell.
template <class F>
void ForCells(const Neighbourhood& cells, F&& cell) {
  for (int dy = -cells.r; dy <= cells.r; ++dy) {
    const int half = cells.halfWidth[cells.r + dy];
    for (int dx = -half; dx <= half; ++dx) {
      cell(dx, dy);
    }
  }
}

/// The rank that is asked for among so many cells, and then the further ones.
std::vector<int> RanksAmong(const RankQuery& query, int count) {
  std::vector<int> ranks{query.rank.value_or(count / 2)};
  ranks.insert(ranks.end(), query.also.begin(), query.also.end());
  return ranks;
}

/// Selects by a network: for few cells.
class NetworkSelector {
 public:
  explicit NetworkSelector(const RankQuery& query)
      : query_(query), count_(query.cells.Count()), ranks_(RanksAmong(query, count_)) {
    // From the end of a network that sorts, only what leads to the ranks is kept.
    const Network network = MakeNetwork(count_);
    std::vector<bool> wanted(count_);
    for (const int rank : ranks_) {
      wanted[rank] = true;
    }
    for (auto step = network.rbegin(); step != network.rend(); ++step) {
      const auto [i, j] = *step;
      if (!wanted[i] && !wanted[j]) continue;
      steps_.push_back({i, j, wanted[i], wanted[j]});
      wanted[i] = wanted[j] = true;
    }
    std::reverse(steps_.begin(), steps_.end());
  }

  void Run(const Tile& tile, const RankSink& sink) const {
    const Window& w = tile.results;
    // NaN sorts as infinity does, and is told from it in the few pixels where it may be the result.
    std::vector<float> numbers;
    if (tile.hasNan) {
      numbers = tile.pixels;
      for (float& number : numbers) {
        if (number != number) number = std::numeric_limits<float>::infinity();
      }
    }
    const float* pixels = tile.hasNan ? numbers.data() : tile.pixels.data();
    const int chunk = std::min(ChunkColumns(), w.Width());
    std::vector<float> values(static_cast<size_t>(count_) * chunk), lines(ranks_.size() * w.Width());
    for (int y = 0; y < w.Height(); ++y) {
      for (int left = 0; left < w.Width(); left += chunk) {
        const int columns = std::min(chunk, w.Width() - left);
        float* to = values.data();
        ForCells(query_.cells, [&](int dx, int dy) {
          std::copy_n(pixels + tile.Index(left + tile.r + dx, y + tile.r + dy), columns, to);
          to += chunk;
        });
        Sort(values.data(), chunk, columns);
        for (size_t i = 0; i < ranks_.size(); ++i) {
          std::copy_n(values.data() + static_cast<size_t>(ranks_[i]) * chunk, columns,
                      lines.data() + i * w.Width() + left);
        }
      }
      for (size_t i = 0; i < ranks_.size(); ++i) {
        Repair(tile, y, i, lines.data() + i * w.Width());
      }
      sink(w.left, w.top + y, lines.data(), w.Width());
    }
  }

 private:
  struct Step {
    int i, j;
    bool low, high;  ///< which of the two is used afterwards
  };

  /// As many as stay in the first-level cache, 24 of its 32 KiB.
  int ChunkColumns() const {
    constexpr int kCached = 6144, kLeast = 32, kMost = 512;
    return std::clamp(kCached / count_ / 16 * 16, kLeast, kMost);
  }

  void Sort(float* values, int chunk, int columns) const {
    RunInLongVectors([=, this]() KORIMG_IN_LOOP {
      for (const auto& [i, j, low, high] : steps_) {
        float* __restrict a = values + static_cast<size_t>(i) * chunk;
        float* __restrict b = values + static_cast<size_t>(j) * chunk;
        if (low && high) {
          Exchange(a, b, columns);
        } else if (low) {
          for (int x = 0; x < columns; ++x) {
            a[x] = a[x] < b[x] ? a[x] : b[x];
          }
        } else {
          for (int x = 0; x < columns; ++x) {
            b[x] = a[x] < b[x] ? b[x] : a[x];
          }
        }
      }
    });
  }

  /// Selects anew where cells lie beyond the edges and are left out, and where NaN may be the result.
  void Repair(const Tile& tile, int y, size_t i, float* line) const {
    const Window& w = tile.results;
    const int r = tile.r;
    if (!query_.row) {
      const bool wholeRow = w.top + y < r || w.top + y + r >= tile.imageHeight;
      const int inner = std::clamp(r - w.left, 0, w.Width());
      const int outer = std::clamp(tile.imageWidth - r - w.left, inner, w.Width());
      for (int x = 0; x < w.Width(); ++x) {
        if (x == inner && !wholeRow) x = outer;
        if (x < w.Width()) line[x] = Select(tile, x, y, i);
      }
    }
    if (!tile.hasNan) return;
    for (int x = 0; x < w.Width(); ++x) {
      if (line[x] == std::numeric_limits<float>::infinity()) line[x] = Select(tile, x, y, i);
    }
  }

  /// Number i of the ranks.
  float Select(const Tile& tile, int x, int y, size_t i) const {
    std::vector<float> values;
    values.reserve(count_);
    ForCells(query_.cells, [&](int dx, int dy) {
      const int u = x + tile.r + dx, v = y + tile.r + dy;
      if (query_.row || tile.IsInImage(u, v)) values.push_back(tile.pixels[tile.Index(u, v)]);
    });
    const auto nth = values.begin() + RanksAmong(query_, static_cast<int>(values.size()))[i];
    std::nth_element(values.begin(), nth, values.end(), NanLast);
    return *nth;
  }

  const RankQuery& query_;
  int count_;
  std::vector<int> ranks_;
  std::vector<Step> steps_;
};

/// The numbers of a tile's pixels in the order of their values, from 0.
class Order {
 public:
  explicit Order(const std::vector<float>& pixels) : place_(pixels.size()), values_(pixels.size()) {
    // The pixel's index rides along with its key.
    std::vector<std::uint64_t> from(pixels.size()), spare;
    for (size_t i = 0; i < pixels.size(); ++i) {
      from[i] = static_cast<std::uint64_t>(SortKey(pixels[i])) << 32 | i;
    }
    SortByBits(from, 32, 64, spare);
    for (size_t i = 0; i < from.size(); ++i) {
      place_[static_cast<std::uint32_t>(from[i])] = static_cast<std::uint32_t>(i);
      values_[i] = FromSortKey(static_cast<std::uint32_t>(from[i] >> 32));
    }
  }

  std::uint32_t Place(size_t pixel) const { return place_[pixel]; }
  float Value(std::uint32_t place) const { return values_[place]; }

 private:
  std::vector<std::uint32_t> place_;
  std::vector<float> values_;
};

/// A set of places with N pointers, each of which is moved to one of its ranks.
template <size_t N>
class PlaceSet {
 public:
  explicit PlaceSet(size_t places) : words_(places / 64 + 1) {}

  void Insert(std::uint32_t place) {
    words_[place / 64] |= 1ULL << place % 64;
    for (Pointer& pointer : pointers_) {
      pointer.below += place < pointer.place;
    }
    ++count_;
  }
  void Erase(std::uint32_t place) {
    words_[place / 64] &= ~(1ULL << place % 64);
    for (Pointer& pointer : pointers_) {
      pointer.below -= place < pointer.place;
    }
    --count_;
  }
  int Count() const { return count_; }

  /// The place of a rank that the set has, found by pointer i.
  std::uint32_t Find(size_t i, int rank) {
    auto& [place, below] = pointers_[i];
    while (below > rank) {
      place = Before(place);
      --below;
    }
    for (place = From(place); below < rank; ++below) {
      place = From(place + 1);
    }
    return place;
  }

 private:
  struct Pointer {
    std::uint32_t place = 0;
    int below = 0;  ///< places of the set below it
  };

  std::uint32_t Before(std::uint32_t place) const {
    std::uint32_t i = place / 64;
    std::uint64_t word = words_[i] & ((1ULL << place % 64) - 1);
    while (!word) {
      word = words_[--i];
    }
    return i * 64 + 63 - std::countl_zero(word);
  }
  std::uint32_t From(std::uint32_t place) const {
    std::uint32_t i = place / 64;
    std::uint64_t word = words_[i] & (~0ULL << place % 64);
    while (!word) {
      word = words_[++i];
    }
    return i * 64 + std::countr_zero(word);
  }

  std::vector<std::uint64_t> words_;
  std::array<Pointer, N> pointers_;
  int count_ = 0;
};

/// Selects N ranks in a window that slides over the tile, to the right and back in turn.
template <size_t N>
void SlideOver(const Tile& tile, const RankQuery& query, const RankSink& sink) {
  const Order order(tile.pixels);
  PlaceSet<N> set(tile.pixels.size());
  const Neighbourhood& cells = query.cells;
  const int r = tile.r;
  const bool all = query.row != nullptr;
  const auto insert = [&](int u, int v) {
    if (all || tile.IsInImage(u, v)) set.Insert(order.Place(tile.Index(u, v)));
  };
  const auto erase = [&](int u, int v) {
    if (all || tile.IsInImage(u, v)) set.Erase(order.Place(tile.Index(u, v)));
  };
  const int width = tile.results.Width();
  std::vector<float> lines(N * width);
  int u = r;
  ForCells(cells, [&](int dx, int dy) { insert(r + dx, r + dy); });
  for (int y = 0; y < tile.results.Height(); ++y) {
    const int v = r + y, step = y % 2 ? -1 : 1;
    for (int i = 0; i < width; ++i) {
      lines[u - r] = order.Value(set.Find(0, query.rank.value_or(set.Count() / 2)));
      for (size_t n = 1; n < N; ++n) {
        lines[n * width + u - r] = order.Value(set.Find(n, query.also[n - 1]));
      }
      if (i + 1 == width) break;
      for (int d = -r; d <= r; ++d) {
        const int half = cells.halfWidth[r + d];
        if (half < 0) continue;
        erase(u - step * half, v + d);
        insert(u + step * (half + 1), v + d);
      }
      u += step;
    }
    sink(tile.results.left, tile.results.top + y, lines.data(), width);
    if (y + 1 == tile.results.Height()) break;
    for (int d = -r; d <= r; ++d) {
      const int half = cells.halfWidth[r + d];
      if (half < 0) continue;
      erase(u + d, v - half);
      insert(u + d, v + half + 1);
    }
  }
}

}  // namespace

Neighbourhood Neighbourhood::Disc(int r, double extent) {
  Neighbourhood disc{r, std::vector<int>(2 * static_cast<size_t>(r) + 1, -1)};
  for (int dy = -r; dy <= r; ++dy) {
    int& half = disc.halfWidth[r + dy];
    while (half < r && extent * extent >= (half + 1.0) * (half + 1.0) + static_cast<double>(dy) * dy) {
      ++half;
    }
  }
  disc.halfWidth[r] = std::max(disc.halfWidth[r], 0);
  return disc;
}

int Neighbourhood::Count() const {
  return std::accumulate(halfWidth.begin(), halfWidth.end(), 0,
                         [](int sum, int half) { return half < 0 ? sum : sum + 2 * half + 1; });
}

void FindRanks(CVelImage& shown, CVelImage& src, int plane, const Window& window, const RankQuery& query,
               const RankSink& sink) {
  if (window.IsEmpty()) return;
  const int count = query.cells.Count(), r = query.cells.r;
  constexpr int kFew = 49;  // cells up to which networks are faster: docs/performance.md, "Filters"
  const bool few = count <= kFew;
  const bool beyond = query.rank && (*query.rank < 0 || *query.rank >= count);
  const auto network = few && !beyond ? std::make_unique<NetworkSelector>(query) : nullptr;
  using Slide = void (*)(const Tile&, const RankQuery&, const RankSink&);
  constexpr Slide kSlides[] = {SlideOver<1>, SlideOver<2>, SlideOver<3>};
  KORIMG_ASSERT(query.also.size() < std::size(kSlides));
  const Slide slide = kSlides[query.also.size()];
  const int tileHeight = few ? 64 : std::clamp(2 * r, 64, 256), tileWidth = few ? 512 : tileHeight;
  ForLines(Team::All, 0, (window.Height() + tileHeight - 1) / tileHeight, [&](int band) {
    const int top = window.top + band * tileHeight, bottom = std::min(top + tileHeight, window.bottom);
    for (int left = window.left; left < window.right; left += tileWidth) {
      const Window part(left, top, std::min(left + tileWidth, window.right), bottom);
      if (beyond) {
        const std::vector<float> zeros((query.also.size() + 1) * part.Width());
        for (int y = top; y < bottom; ++y) {
          sink(left, y, zeros.data(), part.Width());
        }
        continue;
      }
      const Tile tile(src, plane, part, query);
      if (network) {
        network->Run(tile, sink);
      } else {
        slide(tile, query, sink);
      }
    }
    for (int y = top; y < bottom; ++y) {
      shown.ShowProgress(1);
    }
  });
}

}  // namespace korimg
