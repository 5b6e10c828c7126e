#pragma once

#include <memory>

#include "korimg/platform/Export.h"

class CVelImage;

/// A complex number of two floats; with amplitude and phase in their places while a plane is in that form.
struct complex {
  float re = 0;
  float im = 0;
};
using dcomplex = complex;

/// Holds two planes of complex numbers, A (number 0) and B (1), row by row without padding, whose sizes are
/// powers of two, each for itself. What is common to CFft and CFftd. Any other plane number does nothing.
class KORIMG_API ComplexPlanes {
 public:
  virtual ~ComplexPlanes();
  ComplexPlanes(const ComplexPlanes&) = delete;
  ComplexPlanes& operator=(const ComplexPlanes&) = delete;

  /// Rounds each size up to a power of two, and makes both planes, zeroed. 1, or 0 without room, and for
  /// sizes below 1: there are no planes then.
  int Create(int width, int height);
  /// Takes memory of somebody else's for plane A, which it zeroes, of sizes that are powers of two; there is
  /// no plane B then. It must stay for as long as this works on it.
  void Use(complex* plane, int width, int height);
  /// Zeroes the planes, which hold real and imaginary parts then.
  void Init();
  int GetWidth() const { return width_; }
  int GetHeight() const { return height_; }
  /// Answers width x height elements, null for any other plane.
  complex* GetArray(int plane);

  /// Real and imaginary parts become amplitude and phase, with the zero frequency in the middle.
  void ToAmpPhase(int plane);
  /// Brings them back, with the zero frequency in the corner.
  void ToReIm(int plane);

 protected:
  explicit ComplexPlanes(bool onTeam);

  /// Exchanges the quadrants: element (0, 0) comes to (width / 2, height / 2).
  void Swap(int plane);
  /// Lines below `end` and from `start` on: the low frequencies to either side of 0.
  struct Frequencies {
    int end, start;
    bool Has(int i) const { return i < end || i >= start; }
  };
  static constexpr Frequencies kAll{0, 0};
  /// Transforms rows and then columns in place, with the kernel exp(sign 2 pi i jk / n), and multiplies by
  /// `rowScale` and `columnScale`. Rows that are not among `rows` have to be zero; columns that are not among
  /// `columns` are left half done. False when there is no room to work in: nothing has changed then.
  bool Transform(int plane, int sign, float rowScale, float columnScale, const Frequencies& rows = kAll,
                 const Frequencies& columns = kAll);
  /// Calls f(y) for each row, on one thread or on the team, and counts it on the display.
  template <class F>
  void ForRows(F&& f);

  struct Release {
    Release() : Release(0, false) {}
    Release(size_t bytes, bool lent) : mapped(bytes), isLent(lent) {}
    size_t mapped;  ///< bytes; 0 for memory of the heap
    bool isLent;
    void operator()(complex* p) const;
  };

  int width_ = 0;
  int height_ = 0;
  std::unique_ptr<complex[], Release> arrays_[2];
  bool ampPhase_[2] = {};
  CVelImage* progress_ = nullptr;  ///< not owned

 private:
  bool onTeam_;
};
