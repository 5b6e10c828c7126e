// What is known of an image's pixels beside their values: which are not to be trusted, and how far the others
// are off.
#pragma once

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "korimg/image/CVelImage.h"
#include "korimg/image/View.h"

#include "session/Export.h"
#include "session/files/ImageFile.h"

namespace korimg::session {

/// Names the bits of a mask. A pixel of which nothing is to be said has 0.
struct MaskBit {
  enum : int {
    NoData = 1,
    Saturated = 2,  ///< of what it is made of something reached the end of the camera's scale
    Hot = 4,        ///< a defect of the sensor: its value is that of its neighbours
    Cold = 8,
    RejectedLow = 32,  ///< of its values in a stack a third or more were rejected as too low
    RejectedHigh = 64
  };
};

/// Tells what is wanted of it, and what the noise is known by where files and frames do not tell.
struct QualityOptions {
  bool uncertainty = false, mask = false;
  std::optional<double> gain = {};       ///< electrons of a raw value
  std::optional<double> readNoise = {};  ///< electrons

  bool Any() const { return uncertainty || mask; }
};

/// Holds rows of both beside the same rows of an image. What is not wanted or not known has no planes.
struct QualityRows {
  Band<float> variance = {};  ///< in squared raw values; NaN where there is no data
  Band<float> mask = {};      ///< sums of bits

  bool Any() const { return variance.Planes() > 0 || mask.Planes() > 0; }
  QualityRows Part(int top, int rows) const {
    return {variance.Planes() > 0 ? variance.Part(top, rows) : Band<float>(),
            mask.Planes() > 0 ? mask.Part(top, rows) : Band<float>()};
  }
};

/// Keeps memory for such rows.
class QualityBuffer {
 public:
  /// Gives those that `wanted` has, of an image of so many planes and columns.
  QualityRows Get(const QualityRows& wanted, int planes, int width, int top, int rows) {
    return {wanted.variance.Planes() > 0 ? variance_.Get(planes, width, top, rows) : Band<float>(),
            wanted.mask.Planes() > 0 ? mask_.Get(planes, width, top, rows) : Band<float>()};
  }

 private:
  BandBuffer variance_, mask_;
};

/// Holds both for a whole image, of its shape; null where they are not known.
struct Quality {
  std::unique_ptr<CVelImage> variance, mask;

  bool Any() const { return variance || mask; }
  /// Answers rows of both, in a contiguous store.
  KORIMG_SESSION_API QualityRows Rows(int top, int rows) const;
};

/// Makes images for what is wanted, in a store.
KORIMG_SESSION_API Quality NewQuality(const std::shared_ptr<CVmManager>& store, const QualityOptions& wanted,
                                      int width, int height, int planes);

/// Tells by how much the covariance of pixels raises the variance of a value between them, by planes: those
/// of a developed mosaic are made of the same photosites.
using Correlation = std::array<double, Band<float>::kMostPlanes>;
constexpr Correlation kUncorrelated = {1, 1, 1};

/// Tells what both are written as beside an image: UNCERT, a standard deviation in floats, and MASK in bytes,
/// whose header names the bits. So CCDData of astropy reads them.
KORIMG_SESSION_API std::vector<files::Extension> QualityExtensions(
    bool uncertainty, bool mask, const Correlation& correlation = kUncorrelated);

/// Reads the quality of an image file's rows, as such extensions hold it.
class KORIMG_SESSION_API QualityReader {
 public:
  /// Opens those that are there. Throws FileError for an uncertainty that is no standard deviation.
  explicit QualityReader(const files::ImageReader& image);

  bool HasUncertainty() const { return uncertainty_ != nullptr; }
  bool HasMask() const { return mask_ != nullptr; }
  bool Any() const { return uncertainty_ || mask_; }
  Correlation CorrelationOfNoise() const;
  /// Fills what is asked for; a mask that is not there is 0.
  void ReadRows(const QualityRows& to);

 private:
  std::unique_ptr<files::ImageReader> uncertainty_, mask_;
};

}  // namespace korimg::session
