// Edges of an image that hold one value throughout, as frames do that were moved and padded, and overscan.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "korimg/image/View.h"

namespace korimg::files {

class ImageReader;

/// Finds pixels that hold no data: runs of one value from the left and the right edge of rows. Such runs are
/// also what whole rows at the top and the bottom are, and the wedges that turning leaves.
///
/// Sky that is honestly constant is kept. These are no borders: a value that more than 30 % of the other
/// pixels have too, as a sky of zeros has or a frame without noise; the highest value of the image where
/// bright pixels lie beside it, which is saturation; what would leave less than a tenth of the image; and
/// what is not bounded by straight lines, as the black sky around a planet is not.
class ConstantBorder {
 public:
  /// Reads a few rows at the top and the bottom; all of an image whose corners look like a border. Throws
  /// what reading throws.
  static std::shared_ptr<const ConstantBorder> Find(ImageReader& reader);

  bool IsEmpty() const { return share_ == 0; }
  /// Answers one line, without an end, for people; empty when there is none.
  std::string Text() const;
  /// Makes NaN of what lies on the rows of a band.
  void Blank(const Band<float>& pixels) const;

  /// Writes it as it is kept, to spare reading the image again.
  friend void to_json(nlohmann::json& json, const ConstantBorder& border);
  /// Reads it again. Throws what JSON throws for another object.
  friend void from_json(const nlohmann::json& json, ConstantBorder& border);

 private:
  /// Columns from..to - 1 hold data.
  struct Columns {
    int from, to;
  };

  double share_ = 0;    ///< of the image
  std::string values_;  ///< that it holds
  std::vector<Columns> rows_;
};

}  // namespace korimg::files
