// Views of pixels that lie in somebody else's memory: rows, planes, and bands of rows of several planes.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>
#include <type_traits>
#include <vector>

#include "korimg/platform/Assert.h"

namespace korimg {

/// A row of pixels.
template <class T>
using Row = std::span<T>;

/// Rows of one plane. The pitch is what lies between the starts of two rows, in pixels, and at least the
/// width. T is float, or const float where pixels are only read.
template <class T>
class Plane {
 public:
  Plane() = default;
  Plane(T* pixels, int width, int rows, std::ptrdiff_t pitch)
      : pixels_(pixels), width_(width), rows_(rows), pitch_(pitch) {
    KORIMG_ASSERT(width >= 0 && rows >= 0 && pitch >= width);
  }
  Plane(T* pixels, int width, int rows) : Plane(pixels, width, rows, width) {}
  /// What may be written may be read.
  template <class U>
  requires(std::is_same_v<const U, T> && !std::is_same_v<U, T>) Plane(const Plane<U>& other)
      : Plane(other.Data(), other.Width(), other.Rows(), other.Pitch()) {}

  int Width() const { return width_; }
  int Rows() const { return rows_; }
  std::ptrdiff_t Pitch() const { return pitch_; }
  /// Answers the first pixel of the first row.
  T* Data() const { return pixels_; }
  /// True where one row follows the other with nothing in between.
  bool IsDense() const { return pitch_ == width_; }

  Row<T> operator[](int y) const {
    KORIMG_ASSERT(y >= 0 && y < rows_);
    return {pixels_ + y * pitch_, static_cast<std::size_t>(width_)};
  }

  /// Calls visit(pixels) for all pixels in their order, in pieces as long as memory has them: whole rows, or
  /// all rows at once where there is nothing in between.
  template <class Visit>
  void ForRuns(Visit&& visit) const {
    if (IsDense()) {
      visit(korimg::Row<T>(pixels_, static_cast<std::size_t>(width_) * rows_));
      return;
    }
    for (int y = 0; y < rows_; ++y) {
      visit((*this)[y]);
    }
  }

 private:
  T* pixels_ = nullptr;
  int width_ = 0, rows_ = 0;
  std::ptrdiff_t pitch_ = 0;
};

/// Rows Top() to Bottom() - 1 of an image, of each of its planes: 1, or 3 for red, green and blue. All planes
/// have one pitch.
template <class T>
class Band {
 public:
  static constexpr int kMostPlanes = 3;

  Band() = default;
  /// `pixels[p]` is the first pixel of row `top` of plane p.
  Band(T* const* pixels, int planes, int width, int top, int rows, std::ptrdiff_t pitch)
      : planes_(planes), width_(width), top_(top), rows_(rows), pitch_(pitch) {
    KORIMG_ASSERT(planes >= 0 && planes <= kMostPlanes && width >= 0 && rows >= 0 && pitch >= width);
    for (int p = 0; p < planes; ++p) {
      pixels_[p] = pixels[p];
    }
  }
  Band(T* const* pixels, int planes, int width, int top, int rows)
      : Band(pixels, planes, width, top, rows, width) {}
  /// The planes lie one behind the other from `pixels` on, with nothing between them or their rows.
  Band(T* pixels, int planes, int width, int top, int rows)
      : planes_(planes), width_(width), top_(top), rows_(rows), pitch_(width) {
    KORIMG_ASSERT(planes >= 0 && planes <= kMostPlanes && width >= 0 && rows >= 0);
    for (int p = 0; p < planes; ++p) {
      pixels_[p] = pixels + static_cast<std::size_t>(p) * rows * width;
    }
  }
  /// What may be written may be read.
  template <class U>
  requires(std::is_same_v<const U, T> && !std::is_same_v<U, T>) Band(const Band<U>& other)
      : Band(other.Data(), other.Planes(), other.Width(), other.Top(), other.Rows(), other.Pitch()) {}

  int Planes() const { return planes_; }
  int Width() const { return width_; }
  int Top() const { return top_; }
  int Bottom() const { return top_ + rows_; }
  int Rows() const { return rows_; }
  std::ptrdiff_t Pitch() const { return pitch_; }
  bool IsDense() const { return pitch_ == width_; }
  /// Answers the first pixels of the planes.
  T* const* Data() const { return pixels_.data(); }

  /// Answers the rows of a plane, counted from the band's first.
  korimg::Plane<T> Plane(int p) const {
    KORIMG_ASSERT(p >= 0 && p < planes_);
    return {pixels_[p], width_, rows_, pitch_};
  }
  /// Answers row y of the image, which lies in the band.
  korimg::Row<T> Row(int p, int y) const { return Plane(p)[y - top_]; }

  /// Answers the part of the band from row `top` of the image on.
  Band Part(int top, int rows) const {
    KORIMG_ASSERT(top >= top_ && rows >= 0 && top + rows <= Bottom());
    Band part = *this;
    part.top_ = top;
    part.rows_ = rows;
    for (int p = 0; p < planes_; ++p) {
      part.pixels_[p] += (top - top_) * pitch_;
    }
    return part;
  }
  /// Answers the same rows, counted from another one.
  Band At(int top) const {
    Band moved = *this;
    moved.top_ = top;
    return moved;
  }

 private:
  std::array<T*, kMostPlanes> pixels_{};
  int planes_ = 0, width_ = 0, top_ = 0, rows_ = 0;
  std::ptrdiff_t pitch_ = 0;
};

/// Copies the pixels of one band to another of the same shape, whatever rows they count from.
inline void CopyPixels(const Band<const float>& from, const Band<float>& to) {
  KORIMG_ASSERT(from.Planes() == to.Planes() && from.Width() == to.Width() && from.Rows() == to.Rows());
  for (int p = 0; p < to.Planes(); ++p) {
    for (int y = 0; y < to.Rows(); ++y) {
      std::copy_n(from.Plane(p)[y].data(), to.Width(), to.Plane(p)[y].data());
    }
  }
}

/// Keeps memory for a band, and holds it from one use to the next.
class BandBuffer {
 public:
  /// Gives room for some rows of an image; what they hold is left from before.
  Band<float> Get(int planes, int width, int top, int rows) {
    const auto size = static_cast<std::size_t>(planes) * rows * width;
    if (pixels_.size() < size) pixels_.resize(size);
    return {pixels_.data(), planes, width, top, rows};
  }

 private:
  std::vector<float> pixels_;
};

}  // namespace korimg
