// Pixels are counted and gathered by classes of their sort keys, finer ones than tones of a display, so that
// a class is sorted within the processor's caches; classes ascend, and so ranks go on from class to class.
#include "korimg/levels/CImgHstEql.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <new>
#include <vector>

#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/Numbers.h"
#include "korimg/image/internal/RadixSort.h"
#include "korimg/platform/CParallel.h"

using namespace korimg;

namespace {

constexpr int kSteps = 258;  ///< of the progress, for each plane
// What is left of a sort key, hash and place are 64 bits together.
constexpr int kClassBits = 14, kHashBits = 14;

/// A number that looks random, of a place.
std::uint64_t Hash(std::uint32_t place) {
  return Scrambled(place) >> (64 - kHashBits);
}

/// Classes of sort keys between two pixels, of 2^Bits() keys each; NaN has the last one to itself.
class Classes {
 public:
  Classes(float min, float max) : low_(SortKey(min)) {
    const int bits = static_cast<int>(std::bit_width(SortKey(max) - low_));
    bits_ = std::max(bits - kClassBits, 0);
    numbers_ = ((SortKey(max) - low_) >> bits_) + 1;
  }
  int Count() const { return static_cast<int>(numbers_) + 1; }
  int Bits() const { return bits_; }
  int Of(float pixel) const {
    if (std::isnan(pixel)) return static_cast<int>(numbers_);
    return static_cast<int>(std::min((std::max(SortKey(pixel), low_) - low_) >> bits_, numbers_ - 1));
  }
  /// The key within its class.
  std::uint32_t Rest(float pixel) const { return (SortKey(pixel) - low_) & ((1ULL << bits_) - 1); }

 private:
  std::uint32_t low_;
  int bits_;
  std::uint32_t numbers_;
};

/// The ranks of a plane's pixels by their places, y x width + x.
class PlaneRanks {
 public:
  PlaneRanks(CVelImage& src, int plane)
      : src_(src), plane_(plane), classes_(src.GetMinPixel(plane), src.GetMaxPixel(plane)) {
    const std::uint64_t pixels = static_cast<std::uint64_t>(src.GetWidth()) * src.GetHeight();
    if (pixels > std::numeric_limits<std::uint32_t>::max()) throw std::bad_alloc();
    pixels_ = pixels;
    keys_ = std::make_unique_for_overwrite<std::uint64_t[]>(pixels);
    ranks_ = std::make_unique_for_overwrite<std::uint32_t[]>(pixels);
    Gather();
  }

  /// Sorts the classes, on the whole team, and calls step() for each of kSteps parts of them.
  template <class F>
  void Sort(F&& step) {
    // Parts of about as many pixels.
    const auto firstClassOf = [&](int part) {
      const std::uint64_t pixels = pixels_ * part / kSteps;
      return std::lower_bound(starts_.begin(), starts_.end() - 1, pixels) - starts_.begin();
    };
    ForLines(Team::All, 0, kSteps, [&](int part) {
      std::vector<std::uint64_t> numbers, spare;
      for (auto c = firstClassOf(part); c < firstClassOf(part + 1); ++c) {
        numbers.assign(&keys_[starts_[c]], &keys_[starts_[c + 1]]);
        SortByBits(numbers, 32, 32 + kHashBits + classes_.Bits(), spare);
        std::uint32_t rank = starts_[c];
        for (const std::uint64_t number : numbers) {
          ranks_[static_cast<std::uint32_t>(number)] = rank++;
        }
      }
      step();
    });
  }

  const std::uint32_t* Row(int y) const { return &ranks_[static_cast<size_t>(y) * src_.GetWidth()]; }

 private:
  /// Calls pixel(strip, class, value, place) for all pixels, strips of rows side by side.
  template <class F>
  void ForPixels(int strips, F&& pixel) {
    const int width = src_.GetWidth(), height = src_.GetHeight();
    ForLines(Team::All, 0, strips, [&](int strip) {
      const auto row = [&](int i) { return static_cast<int>(1LL * height * i / strips); };
      for (int y = row(strip); y < row(strip + 1); ++y) {
        const float* line = src_.GetLine(0, y, plane_);
        auto place = static_cast<std::uint32_t>(1ULL * y * width);
        for (int x = 0; x < width; ++x, ++place) {
          pixel(strip, classes_.Of(line[x]), line[x], place);
        }
      }
    });
  }

  void Gather() {
    const int strips = std::max(CParallel::GetMaxThreads(), 1), classes = classes_.Count();
    std::vector<std::vector<std::uint32_t>> next(strips, std::vector<std::uint32_t>(classes));
    ForPixels(strips, [&](int strip, int c, float, std::uint32_t) { ++next[strip][c]; });
    std::uint32_t sum = 0;
    for (int c = 0; c < classes; ++c) {
      starts_.push_back(sum);
      for (auto& counts : next) {
        const std::uint32_t count = counts[c];
        counts[c] = sum;
        sum += count;
      }
    }
    starts_.push_back(sum);
    ForPixels(strips, [&](int strip, int c, float value, std::uint32_t place) {
      const std::uint64_t key = static_cast<std::uint64_t>(classes_.Rest(value)) << kHashBits | Hash(place);
      keys_[next[strip][c]++] = key << 32 | place;
    });
  }

  CVelImage& src_;
  int plane_;
  Classes classes_;
  std::uint64_t pixels_ = 0;
  std::unique_ptr<std::uint64_t[]> keys_;  ///< by classes; rest of the sort key, hash and place of each pixel
  std::vector<std::uint32_t> starts_;
  std::unique_ptr<std::uint32_t[]> ranks_;
};

}  // namespace

int CImgHstEql::Do(CVelImage* src) {
  if (!Fits(*src, *this)) return 0;
  const int planes = std::min(GetPlanes(), 3);
  const ProgressScope progress(*this, 1, 6177, planes * kSteps);
  src->CalcMinMax();
  const double pixels = static_cast<double>(GetWidth()) * GetHeight();
  for (int p = 0; p < planes; ++p) {
    const double min = src->GetMinPixel(p), range = src->GetMaxPixel(p) - min;
    src->SetLevel(p, min, src->GetMaxPixel(p));
    PlaneRanks ranks(*src, p);
    ranks.Sort([&] { ShowProgress(1); });
    ForLines(Team::All, 0, GetHeight(), [&](int y) {
      const float* in = src->GetLine(0, y, p);
      const std::uint32_t* rank = ranks.Row(y);
      float* out = GetWritableLine(0, y, p);
      for (int x = 0; x < GetWidth(); ++x) {
        out[x] = std::isnan(in[x]) ? in[x] : static_cast<float>(rank[x] * range / pixels + min);
      }
    });
  }
  return 1;
}
