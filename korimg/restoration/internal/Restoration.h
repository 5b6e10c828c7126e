// What restorations share: planes that change only when all of them are done, and the frame about a plane
// that an iteration works on. Internal.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cwchar>
#include <deque>
#include <limits>
#include <new>

#include "korimg/image/internal/Frame.h"
#include "korimg/image/internal/Vectors.h"
#include "korimg/platform/CException.h"
#include "korimg/platform/Debug.h"
#include "korimg/platform/StringTable.h"
#include "korimg/restoration/internal/GaussianBlur.h"

namespace korimg {

/// Answers a condition as a factor of 1 or 0: a choice may become a branch, which keeps loops from vectors.
KORIMG_IN_LOOP inline float Where(bool condition) {
  return condition ? 1.0f : 0.0f;
}

/// Answers a / b where b is above 0, else 0, for finite numbers.
KORIMG_IN_LOOP inline float RatioOrZero(float a, float b) {
  const float isAbove = Where(b > 0);
  return a * isAbove / (b * isAbove + (1 - isAbove));
}

/// Sends a line of diagnostics, as printf has it.
template <class... Values>
void Diagnose(const char* format, Values... values) {
  char line[200];
  std::snprintf(line, sizeof line, format, values...);
  DebugLine(line);
}

/// Replaces the text of an open display by that of the string table: of an image with several planes by the
/// one after it, which takes the number of the plane before `values`.
template <class... Values>
void ShowStage(CVelImage& image, int show, int text, int plane, Values... values) {
  if (!show) return;
  constexpr size_t kLength = 200;
  wchar_t line[kLength];
  if (image.GetPlanes() > 1) {
    std::swprintf(line, kLength, LoadString(text + 1).c_str(), plane + 1, values...);
  } else {
    std::swprintf(line, kLength, LoadString(text).c_str(), values...);
  }
  image.ShowProgressMsg(line);
}

/// Calls restore(plane, pixels, store) with a copy of each plane's window, which it works on and answers
/// false when it was cancelled. The image takes the copies over when all planes are done, except for what is
/// no finite number, which stays. Answers 1, else 0 after a debug line: cancelled, or no room.
template <class F>
int RestorePlanes(CVelImage& image, const Window& window, F&& restore) {
  enum Message : int { NoMemory = 6148, Cancelled = 6149 };
  const auto fail = [](Message message) {
    OutputDebugStringW(LoadString(message).c_str());
    return 0;
  };
  if (window.IsEmpty()) return 1;
  const size_t width = window.Width();
  try {
    const auto store = ContiguousStore(image);
    std::deque<TemporaryPlane> planes;
    for (int p = 0; p < image.GetPlanes(); ++p) {
      planes.emplace_back(*store, window.Width(), window.Height());
      float* pixels = planes.back().Pixels();
      ForLines(Team::All, 0, window.Height(), [&](int y) {
        std::memcpy(pixels + y * width, image.GetLine(window.left, window.top + y, p), width * sizeof(float));
      });
      if (!restore(p, pixels, *store)) return fail(Cancelled);
    }
    for (int p = 0; p < image.GetPlanes(); ++p) {
      const float* pixels = planes[p].Pixels();
      ForLines(Team::All, 0, window.Height(), [&](int y) {
        float* line = image.GetWritableLine(window.left, window.top + y, p);
        for (size_t x = 0; x < width; ++x) {
          line[x] = std::isfinite(line[x]) ? pixels[y * width + x] : line[x];
        }
      });
    }
    return 1;
  } catch (const velora::CVmMemoryAllocationError&) {
    return fail(NoMemory);
  } catch (const std::bad_alloc&) {
    return fail(NoMemory);
  } catch (CMemoryException* error) {
    error->Delete();
    return fail(NoMemory);
  }
}

/// A plane of data within a frame that is wider by what the point-spread function reaches: light from beyond
/// the edges is seen within them, and estimated with the rest (Bertero and Boccacci 2005). Cells without
/// data, those about the plane among them, are NaN and have no weight.
class BlurFrame {
 public:
  BlurFrame(int width, int height, double sigma, CVmManager& store)
      : blur_(sigma),
        store_(store),
        dataWidth_(width),
        dataHeight_(height),
        width_(RoundUp(width + 2 * blur_.Reach())),
        height_(RoundUp(height + 2 * blur_.Reach())) {}

  int Width() const { return width_; }
  /// Answers the cells about the data.
  int Margin() const { return blur_.Reach(); }

  /// Makes another plane of the frame for as long as the frame lives.
  float* NewPlane() { return planes_.emplace_back(store_, width_, height_).Pixels(); }

  /// Places data less a constant; what is not finite becomes NaN.
  void Place(const float* pixels, float* data, float less = 0) const {
    ForRows([&](int y) {
      float* row = data + Row(y);
      std::fill_n(row, width_, std::numeric_limits<float>::quiet_NaN());
      if (y < Margin() || y >= Margin() + dataHeight_) return;
      const float* in = pixels + static_cast<size_t>(y - Margin()) * dataWidth_;
      for (int x = 0; x < dataWidth_; ++x) {
        if (std::isfinite(in[x])) row[x + Margin()] = in[x] - less;
      }
    });
  }
  /// Takes what lies where the data do, and a constant more.
  void Take(const float* plane, float* pixels, float more = 0) const {
    ForLines(Team::All, 0, dataHeight_, [&](int y) {
      const float* in = plane + Row(y + Margin()) + Margin();
      float* out = pixels + static_cast<size_t>(y) * dataWidth_;
      for (int x = 0; x < dataWidth_; ++x) {
        out[x] = in[x] + more;
      }
    });
  }

  /// Calls work(x, y, cell) for the data, in order.
  template <class F>
  void ForData(const F& work) const {
    for (int y = 0; y < dataHeight_; ++y) {
      for (int x = 0; x < dataWidth_; ++x) {
        work(x, y, Row(y + Margin()) + Margin() + x);
      }
    }
  }

  void Blur(const float* from, float* to) {
    if (!between_) between_ = NewPlane();
    blur_.Run(from, between_, to, width_, height_);
  }

  size_t Row(int y) const { return static_cast<size_t>(y) * width_; }
  template <class F>
  void ForRows(F&& f) const {
    ForLines(Team::All, 0, height_, f);
  }
  /// Calls work(cell) for all cells, in vectors.
  template <class F>
  void ForCells(const F& work) const {
    ForRows([&](int y) {
      RunInLongVectors([&work, begin = Row(y), end = Row(y + 1)]() KORIMG_IN_LOOP {
        for (size_t i = begin; i < end; ++i) {
          work(i);
        }
      });
    });
  }
  /// Answers K sums over all cells, of the std::array<float, K> that term(cell) answers, in a fixed order:
  /// floats within a block, doubles over blocks. It runs in vectors.
  template <int K, class F>
  std::array<double, K> Sum(const F& term) const {
    std::array<double, K> whole{};
    for (const auto& row : MapLines(0, height_, [&](int y) {
           std::array<double, K> sums{};
           RunInLongVectors([&sums, &term, begin = Row(y), end = Row(y + 1)]() KORIMG_IN_LOOP {
             const F copy = term;  // which no store through a pointer can change
             constexpr size_t kLanes = 8, kBlock = 32 * kLanes;
             static_assert(GaussianBlur::kSides % kLanes == 0);
             for (size_t block = begin; block < end; block += kBlock) {
               const size_t count = std::min(kBlock, end - block);
               float terms[K][kBlock];
               for (size_t i = 0; i < count; ++i) {
                 const std::array<float, K> cell = copy(block + i);
                 for (int k = 0; k < K; ++k) {
                   terms[k][i] = cell[k];
                 }
               }
               for (int k = 0; k < K; ++k) {
                 float lanes[kLanes] = {};
                 for (size_t i = 0; i < count; i += kLanes) {
                   for (size_t lane = 0; lane < kLanes; ++lane) {
                     lanes[lane] += terms[k][i + lane];
                   }
                 }
                 for (const float lane : lanes) {
                   sums[k] += lane;
                 }
               }
             }
           });
           return sums;
         })) {
      for (int k = 0; k < K; ++k) {
        whole[k] += row[k];
      }
    }
    return whole;
  }

 private:
  static int RoundUp(int cells) { return (cells / GaussianBlur::kSides + 1) * GaussianBlur::kSides; }

  GaussianBlur blur_;
  CVmManager& store_;
  int dataWidth_, dataHeight_, width_, height_;
  std::deque<TemporaryPlane> planes_;
  float* between_ = nullptr;
};

}  // namespace korimg
