// The transform of lines of complex numbers, eight lines side by side in the lanes of vectors. Internal.
#pragma once

#include <memory>
#include <vector>

#include "korimg/geometry/fourier/ComplexPlanes.h"

namespace korimg {

/// Holds what the transform of lines of a power of two needs to know, computed once for a length.
///
/// Decimation in frequency by four, with a last step by two where the length asks for it. Steps over more
/// than what the nearest cache holds run over the whole line; below that, part by part.
class LineTransform {
 public:
  static constexpr int kLanes = 8;

  /// Elements of one index of eight lines.
  struct Row {
    float re[kLanes];
    float im[kLanes];
  };
  /// Room for the lines that are transformed together.
  class Work {
   public:
    explicit Work(int length);
    Row* Rows() const { return rows_.get(); }

   private:
    struct Release {
      void operator()(Row* p) const;
    };
    std::unique_ptr<Row[], Release> rows_;
  };
  /// Tells where lines lie: element k of line i at data[k * step + i * pitch].
  struct Lines {
    complex* data;
    int step;
    int pitch;
    int count;  ///< 1 to kLanes
  };

  explicit LineTransform(int length);

  /// Transforms lines in place with the kernel exp(sign 2 pi i jk / length) and multiplies by `scale`.
  void Run(const Lines& lines, int sign, float scale, const Work& work) const;
  /// Transforms lines in place, multiplies each frequency by that of `response`, and transforms back, all in
  /// the nearest cache where lines are short. The result is `length` times that of a scaled inverse.
  void Filter(const Lines& lines, const float* response, const Work& work, const Work& between) const;

 private:
  void Load(const Lines& lines, Row* rows) const;
  void Split(Row* rows) const;
  void Store(const Lines& lines, const Row* rows, int sign, float scale) const;
  const int* Places(int sign) const { return (sign < 0 ? places_ : reversed_).data(); }

  struct Step {
    int size;      ///< of the parts that it splits
    size_t roots;  ///< where its roots begin
  };

  int length_;
  std::vector<Step> steps_;    ///< by four, those with roots
  std::vector<float> roots_;   ///< real and imaginary parts of w^j, w^2j, w^3j
  int last_;                   ///< size of the parts that remain: 4, 2 or 1
  std::vector<int> places_;    ///< where element k of the result lies, for sign -1
  std::vector<int> reversed_;  ///< and for sign 1, whose result is the same in reverse
};

}  // namespace korimg
