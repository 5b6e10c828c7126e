#include "korimg/geometry/fourier/ComplexPlanes.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <numbers>

#include <sys/mman.h>

#include "korimg/geometry/fourier/internal/LineTransform.h"
#include "korimg/geometry/fourier/internal/Rows.h"
#include "korimg/image/internal/Vectors.h"
#include "korimg/platform/CParallel.h"

using namespace korimg;

namespace {

/// The angle of a number as std::atan2 gives it, within a few units in the last place and without branches,
/// so that loops become vectors; 0 for 0. The polynomial is that of the Cephes library (Moshier 1989).
KORIMG_IN_LOOP inline float Phase(const complex& c) {
  constexpr double kPi = std::numbers::pi;  // a float's would turn all of the left half plane alike
  constexpr float kEighth = 0.41421356f;    // tan(pi / 8)
  const float x = std::abs(c.re), y = std::abs(c.im);
  const float low = y < x ? y : x, high = y < x ? x : y;
  const bool steep = low > kEighth * high;
  const float numerator = steep ? low - high : low, denominator = steep ? low + high : high;
  const float t = denominator > 0 ? numerator / denominator : numerator, z = t * t;
  const float series =
      ((8.05374449538e-2f * z - 1.38776856032e-1f) * z + 1.99777106478e-1f) * z - 3.33329491539e-1f;
  double angle = series * z * t + t;
  angle = steep ? angle + kPi / 4 : angle;
  angle = y < x ? angle : kPi / 2 - angle;
  angle = high > 0 ? angle : 0;
  angle = c.re < 0 ? kPi - angle : angle;
  return std::copysign(static_cast<float>(angle), c.im);
}

constexpr size_t kHugePage = 1 << 21;  ///< spares the column passes a search for each row

/// Zeroed memory in huge pages, which come when they are first used; null without room.
void* MapPages(size_t bytes) {
  const size_t all = bytes + kHugePage;
  void* map = mmap(nullptr, all, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (map == MAP_FAILED) return nullptr;
  auto* const first = static_cast<char*>(map);
  const size_t before = (kHugePage - reinterpret_cast<std::uintptr_t>(first) % kHugePage) % kHugePage;
  if (before > 0) munmap(first, before);
  munmap(first + before + bytes, kHugePage - before);
  madvise(first + before, bytes, MADV_HUGEPAGE);
  return first + before;
}

}  // namespace

ComplexPlanes::ComplexPlanes(bool onTeam) : onTeam_(onTeam) {}
ComplexPlanes::~ComplexPlanes() = default;

void ComplexPlanes::Release::operator()(complex* p) const {
  if (isLent) return;
  if (mapped > 0) {
    munmap(p, mapped);
  } else {
    std::free(p);
  }
}

int ComplexPlanes::Create(int width, int height) {
  width_ = height_ = 0;
  for (auto& array : arrays_) {
    array.reset();
  }
  constexpr int kLargest = std::numeric_limits<int>::max() / 2 + 1;
  if (width < 1 || height < 1 || width > kLargest || height > kLargest) return 0;
  const int w = static_cast<int>(std::bit_ceil(static_cast<unsigned>(width)));
  const int h = static_cast<int>(std::bit_ceil(static_cast<unsigned>(height)));
  const size_t bytes = sizeof(complex) * w * h;
  constexpr size_t kAlignment = 64;
  for (auto& array : arrays_) {
    const bool large = bytes >= kHugePage;
    void* const memory =
        large ? MapPages(bytes) : std::aligned_alloc(kAlignment, std::max(bytes, kAlignment));
    array = {static_cast<complex*>(memory), Release(large ? bytes : 0, false)};
    if (!array) {
      arrays_[0].reset();
      return 0;
    }
    if (!large) std::memset(memory, 0, bytes);
  }
  width_ = w;
  height_ = h;
  ampPhase_[0] = ampPhase_[1] = false;
  return 1;
}

void ComplexPlanes::Use(complex* plane, int width, int height) {
  arrays_[0] = {plane, Release(0, true)};
  arrays_[1].reset();
  width_ = width;
  height_ = height;
  ampPhase_[0] = ampPhase_[1] = false;
  Init();
}

void ComplexPlanes::Init() {
  for (int p = 0; p < 2; ++p) {
    ampPhase_[p] = false;
    if (!arrays_[p]) continue;
    ForLines(onTeam_ ? Team::All : Team::One, 0, height_, [&](int y) {
      std::memset(static_cast<void*>(arrays_[p].get() + static_cast<size_t>(y) * width_), 0,
                  sizeof(complex) * width_);
    });
  }
}

complex* ComplexPlanes::GetArray(int plane) {
  return plane == 0 || plane == 1 ? arrays_[plane].get() : nullptr;
}

void ComplexPlanes::Swap(int plane) {
  complex* data = GetArray(plane);
  if (!data) return;
  const auto exchange = [&](int y) {
    complex* row = data + static_cast<size_t>(y) * width_;
    std::swap_ranges(row, row + width_ / 2, row + width_ / 2);
    return row;
  };
  const int half = height_ / 2;
  ForRows([&](int y) {
    if (y >= half && half > 0) return;  // goes with its partner
    complex* row = exchange(y);
    if (half > 0) std::swap_ranges(row, row + width_, exchange(y + half));
  });
}

void ComplexPlanes::ToAmpPhase(int plane) {
  complex* data = GetArray(plane);
  if (!data) return;
  ForRows([&](int y) {
    complex* row = data + static_cast<size_t>(y) * width_;
    RunInLongVectors([row, width = width_]() KORIMG_IN_LOOP {
      for (int x = 0; x < width; ++x) {
        const complex c = row[x];
        row[x] = {std::sqrt(c.re * c.re + c.im * c.im), Phase(c)};
      }
    });
  });
  Swap(plane);
  ampPhase_[plane] = true;
}

void ComplexPlanes::ToReIm(int plane) {
  complex* data = GetArray(plane);
  if (!data) return;
  Swap(plane);
  ForRows([&](int y) {
    for (complex* c = data + static_cast<size_t>(y) * width_; c < data + static_cast<size_t>(y + 1) * width_;
         ++c) {
      *c = {c->re * std::cos(c->im), c->re * std::sin(c->im)};
    }
  });
  ampPhase_[plane] = false;
}

bool ComplexPlanes::Transform(int plane, int sign, float rowScale, float columnScale, const Frequencies& rows,
                              const Frequencies& columns) {
  complex* data = GetArray(plane);
  if (!data) return true;
  constexpr int kLanes = LineTransform::kLanes;
  const int workers = onTeam_ ? CParallel::GetMaxThreads() : 1;
  // Columns count as rows do, so that wide arrays have no more steps than their totals.
  const auto rowsUpTo = [this](int line, int count) {
    return static_cast<int>(1LL * line * height_ / count);
  };
  // Lines of elements at distance `step`, the first of each at distance `pitch`; of `count` those wanted.
  const auto pass = [&](const LineTransform& transform, const std::vector<LineTransform::Work>& work,
                        int count, int step, int pitch, float scale, const Frequencies& wanted) {
    std::vector<int> blocks;
    for (int first = 0; first < count; first += kLanes) {
      const int last = std::min(first + kLanes, count) - 1;
      if (wanted.Has(first) || wanted.Has(last)) blocks.push_back(first);
    }
    const auto share = [&](int w) { return blocks.size() * w / workers; };
    ForLines(onTeam_ ? Team::All : Team::One, 0, workers, [&](int worker) {
      for (size_t block = share(worker); block < share(worker + 1); ++block) {
        const int first = blocks[block], lines = std::min(kLanes, count - first);
        transform.Run({data + static_cast<size_t>(first) * pitch, step, pitch, lines}, sign, scale,
                      work[worker]);
        if (progress_) progress_->ShowProgress(rowsUpTo(first + lines, count) - rowsUpTo(first, count));
      }
    });
  };
  try {
    const LineTransform alongRows(width_);
    const LineTransform alongColumns(height_);
    std::vector<LineTransform::Work> work;
    for (int i = 0; i < workers; ++i) {
      work.emplace_back(std::max(width_, height_));
    }
    pass(alongRows, work, height_, 1, width_, rowScale, rows);
    pass(alongColumns, work, width_, width_, 1, columnScale, columns);
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}
