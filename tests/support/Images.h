// Builders of test images, comparers of pixels, and the stores that every operation is run on.
#pragma once

#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "korimg/image/CVelImage.h"
#include "korimg/platform/CKorSys.h"
#include "korimg/platform/CParallel.h"

namespace korimg::test {

/// A store that operations are tried on.
struct StoreCase {
  std::string name;
  std::function<std::shared_ptr<CVmManager>()> make;
  friend void PrintTo(const StoreCase& store, std::ostream* out) { *out << store.name; }
};

/// Contiguous in memory, contiguous in a mapped file, and a pool of four blocks of a few lines.
inline const std::vector<StoreCase>& Stores() {
  static const std::vector<StoreCase> stores = {
      {"memory", [] { return CreateContiguousManager(); }},
      {"mapped", [] { return CreateContiguousManager({.budget = 1}); }},
      {"paged", [] { return CreatePagedManager({.budget = 4 * 4096, .blockSize = 4096}); }},
  };
  return stores;
}

inline std::shared_ptr<CVmManager> MemoryStore() {
  return Stores()[0].make();
}
inline std::shared_ptr<CVmManager> TinyPool() {
  return Stores()[2].make();
}

/// A repeatable random number from 0 to 1 for each number.
inline double Noise(std::uint64_t n) {
  n += 0x9E3779B97F4A7C15ULL;
  n = (n ^ (n >> 30)) * 0xBF58476D1CE4E5B9ULL;
  n = (n ^ (n >> 27)) * 0x94D049BB133111EBULL;
  return static_cast<double>((n ^ (n >> 31)) >> 11) / 9007199254740992.0;
}

using PixelRule = std::function<double(int plane, int x, int y)>;

/// Fills an image by a rule.
inline void Paint(CVelImage& image, const PixelRule& rule) {
  for (int p = 0; p < image.GetPlanes(); ++p) {
    for (int y = 0; y < image.GetHeight(); ++y) {
      float* line = image.GetWritableLine(0, y, p);
      for (int x = 0; x < image.GetWidth(); ++x) {
        line[x] = static_cast<float>(rule(p, x, y));
      }
    }
  }
}

/// Random pixels from low to high.
inline PixelRule Random(double low, double high, int seed = 1) {
  return [=](int p, int x, int y) {
    return low + (high - low) *
                     Noise((static_cast<std::uint64_t>(seed) << 56) + (static_cast<std::uint64_t>(p) << 48) +
                           (static_cast<std::uint64_t>(y) << 24) + x);
  };
}

/// The same with a NaN, both infinities and the levels' ends strewn in.
inline PixelRule Wild(double low, double high, int seed = 1) {
  return [=, plain = Random(low, high, seed)](int p, int x, int y) -> double {
    switch ((x * 7 + y * 13 + p * 3 + seed) % 41) {
      case 0:
        return std::nan("");
      case 1:
        return INFINITY;
      case 2:
        return -INFINITY;
      case 3:
        return low;
      case 4:
        return high;
      default:
        return plain(p, x, y);
    }
  };
}

/// An operation or plain image on a store, painted by a rule, with levels that differ by plane: 100 to 900 of
/// a plain image, and other ones of an operation, which is a target. It keeps its store alive.
template <class Image = CVelImage>
std::shared_ptr<Image> Make(const std::shared_ptr<CVmManager>& store, int width, int height, int planes,
                            const PixelRule& rule) {
  const CVelImage shape(store, CImage::Float, width, height, planes, 1.0, 0.0, 1, nullptr);
  struct Both {
    std::shared_ptr<CVmManager> store;
    Image image;
  };
  const auto both = std::make_shared<Both>();
  both->store = store;
  const std::shared_ptr<Image> image(both, &both->image);
  if (!image->Create(shape, nullptr)) throw std::runtime_error("no room for a test's image");
  for (int p = 0; p < planes; ++p) {
    if constexpr (std::is_same_v<Image, CVelImage>) {
      image->SetLevel(p, 100 + 10 * p, 900 + 25 * p);
    } else {
      image->SetLevel(p, 130 + 7 * p, 1070 + 40 * p);
    }
  }
  Paint(*image, rule);
  return image;
}

/// All pixels, plane by plane.
inline std::vector<float> Pixels(CVelImage& image) {
  std::vector<float> pixels;
  for (int p = 0; p < image.GetPlanes(); ++p) {
    for (int y = 0; y < image.GetHeight(); ++y) {
      const float* line = image.GetLine(0, y, p);
      pixels.insert(pixels.end(), line, line + image.GetWidth());
    }
  }
  return pixels;
}

/// Empty when two images agree, else where they first differ and by what. NaN agrees with NaN. `tolerance` is
/// relative to the larger of 1 and the expected value.
inline std::string Difference(CVelImage& image, const PixelRule& expected, double tolerance) {
  for (int p = 0; p < image.GetPlanes(); ++p) {
    for (int y = 0; y < image.GetHeight(); ++y) {
      const float* line = image.GetLine(0, y, p);
      for (int x = 0; x < image.GetWidth(); ++x) {
        const double want = expected(p, x, y), got = line[x];
        if ((std::isnan(want) && std::isnan(got)) || want == got) continue;
        if (std::abs(got - want) <= tolerance * std::max(1.0, std::abs(want))) continue;
        return "plane " + std::to_string(p) + " (" + std::to_string(x) + ", " + std::to_string(y) +
               "): expected " + std::to_string(want) + ", got " + std::to_string(got);
      }
    }
  }
  return "";
}

inline std::string Difference(CVelImage& image, CVelImage& expected, double tolerance = 0) {
  return Difference(
      image, [&](int p, int x, int y) { return expected.GetPixelGrayRaw(x, y, p); }, tolerance);
}

/// True when `action` throws a pointer to Exception, as the platform does. It is deleted.
template <class Exception, class F>
bool ThrowsPointer(F&& action) {
  try {
    action();
  } catch (Exception* error) {
    error->Delete();
    return true;
  }
  return false;
}

/// Sets the processor's features for a scope: 0 runs the plain line loops.
class WithFeatures {
 public:
  explicit WithFeatures(unsigned features) { CKorSys::OverrideSIMD(features); }
  ~WithFeatures() { CKorSys::OverrideSIMD(std::nullopt); }
};

/// Sets the size of the worker team for a scope.
class WithThreads {
 public:
  explicit WithThreads(int threads) : before_(CParallel::GetMaxThreads()) {
    CParallel::SetMaxThreads(threads);
  }
  ~WithThreads() { CParallel::SetMaxThreads(before_); }

 private:
  int before_;
};

/// A rectangle that some cases have; .get() is null where it is not set.
using OptionalRect = std::optional<CRect>;
inline CRect* Address(OptionalRect& rect) {
  return rect ? &*rect : nullptr;
}
inline bool IsInside(const OptionalRect& rect, int x, int y) {
  return !rect || (x >= rect->left && x < rect->right && y >= rect->top && y < rect->bottom);
}

/// Sizes below a vector, odd, one pixel wide or high, and larger than a strip of lines.
inline const std::vector<std::pair<int, int>>& Sizes() {
  static const std::vector<std::pair<int, int>> sizes = {{1, 1}, {3, 2}, {7, 5}, {65, 1}, {1, 71}, {71, 133}};
  return sizes;
}

/// Windows of an image: the whole, corners, a single pixel, beyond the edges, outside, turned over.
inline std::vector<OptionalRect> Windows(int width, int height) {
  return {std::nullopt,
          CRect(0, 0, width, height),
          CRect(1, 1, width - 1, height - 1),
          CRect(width / 2, height / 2, width / 2 + 1, height / 2 + 1),
          CRect(13, 0, width, height),
          CRect(0, 13, width - 13, height),
          CRect(-5, -5, width + 5, 3),
          CRect(width + 1, 0, width + 5, height),
          CRect(5, 5, 2, 2)};
}

/// Runs a case on every store, on one thread and on eight, with and without the vector forms of the loops.
inline void OnEveryPath(const std::function<void(const StoreCase&)>& run) {
  for (const StoreCase& store : Stores()) {
    for (const int threads : {1, 8}) {
      for (const unsigned features : {0u, 2u}) {
        const WithThreads team(threads);
        const WithFeatures simd(features);
        run(store);
      }
    }
  }
}

}  // namespace korimg::test
