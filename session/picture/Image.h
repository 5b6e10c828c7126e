// An image with all that belongs to it, for every step and every host.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "korimg/image/CVelImage.h"
#include "korimg/image/ForeignImage.h"
#include "korimg/image/View.h"

#include "session/Export.h"
#include "session/files/ImageFile.h"
#include "session/job/Job.h"
#include "session/picture/Quality.h"

namespace korimg::session {

/// Holds pixels with their levels, the store that they live in, and what the file or the caller says of them.
/// Moved, never copied. Pixels are floats on the raw scale, 1 plane, 3 for red, green and blue,
/// or 2 for the colour axes a and b.
class KORIMG_SESSION_API Image {
 public:
  /// Takes pixels with what is known of them, and holds their store.
  explicit Image(std::unique_ptr<CVelImage> pixels, files::ImageInfo info = {});

  /// Reads a file into a store. Levels come from the keywords KORLMIN1..3 and KORLMAX1..3, else from what a
  /// camera raw file says, else from the type of integers, else from the extremes of the pixels.
  /// @throws FileError, Cancelled
  static Image Open(Job& job, const std::shared_ptr<CVmManager>& store, const std::filesystem::path& path,
                    const files::ReadOptions& options = {});
  /// Reads a file into the job's own store.
  static Image Open(Job& job, const std::filesystem::path& path, const files::ReadOptions& options = {});

  /// Makes an image over memory of somebody else, which `owner` keeps alive: without a copy where rows have
  /// nothing between them, else copied once. Operations that work in place change that memory; the levels are
  /// the extremes of the pixels, unless there are some to `set`, of each plane.
  /// @throws UsageError for bands of no pixels, and for levels whose white is not above black
  static Image Over(Job& job, const Band<float>& pixels, std::shared_ptr<const void> owner = nullptr,
                    const std::vector<std::pair<double, double>>& set = {}, ResultMemory result = {});
  /// Makes a copy of pixels, of any pitch.
  static Image CopyOf(Job& job, const Band<const float>& pixels);

  int Width() const { return pixels_->GetWidth(); }
  int Height() const { return pixels_->GetHeight(); }
  int Planes() const { return pixels_->GetPlanes(); }
  CVelImage& Pixels() const { return *pixels_; }
  /// Answers what operations replace by their results, in the same store.
  std::unique_ptr<CVelImage>& Pointer() { return pixels_; }
  files::ImageInfo& Info() { return info_; }
  const files::ImageInfo& Info() const { return info_; }
  files::Header& Header() { return info_.header; }
  const files::Header& Header() const { return info_.header; }
  /// Answers what is known of the pixels beside their values: nothing, unless who made them put it here.
  session::Quality& QualityOfPixels() { return quality_; }

  /// Copies the rows of a band out of the image, or into it.
  void ReadRows(const Band<float>& to) const;
  void WriteRows(const Band<const float>& from);
  /// Answers the pixels themselves, good until an operation replaces them. Contiguous stores only.
  Band<float> Rows(int top, int rows) const { return RowsOf(*pixels_, top, rows); }
  Band<float> Rows() const { return Rows(0, Height()); }

  /// Answers the pixels of an image's rows in its store, which must be contiguous.
  static Band<float> RowsOf(CVelImage& image, int top, int rows, bool readOnly = false);

 private:
  std::shared_ptr<CVmManager> store_;
  std::unique_ptr<CVelImage> pixels_;  ///< ends before its store
  session::Quality quality_;
  files::ImageInfo info_;
};

/// Makes an image of floats in a store.
KORIMG_SESSION_API std::unique_ptr<CVelImage> NewImage(const std::shared_ptr<CVmManager>& store, int width,
                                                       int height, int planes);

}  // namespace korimg::session
