// Between files and the library's images, by bands of rows: a whole image is never held beside its store.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "korimg/image/CVelImage.h"
#include "korimg/image/View.h"

#include "session/Export.h"
#include "session/files/ImageFile.h"
#include "session/job/Job.h"
#include "session/picture/Quality.h"

namespace korimg::session {

/// Answers the bytes of an image in a store.
KORIMG_SESSION_API long long BytesOf(const files::ImageInfo& info);

/// Answers the rows of a band of about 4 MiB.
KORIMG_SESSION_API int BandRows(int width, int planes, int height);

/// Finds the smallest and the largest finite pixel of a plane; the smallest is above the largest when there
/// is none.
KORIMG_SESSION_API std::pair<double, double> FiniteExtremes(CVelImage& image, int plane);

/// Gives the pixels of a file the levels that Image::Open does; `lessBlack` as they were read.
KORIMG_SESSION_API void SetLevels(CVelImage& image, const files::ImageInfo& info, bool lessBlack);

/// Turns an image over, upside down.
KORIMG_SESSION_API void TurnOver(CVelImage& image);

/// Loads the image of a file, in the same store as another, of the same size and lying as it does. `user` is
/// what wants it. Throws FileError with both sizes.
KORIMG_SESSION_API std::unique_ptr<CVelImage> LoadSameSize(Job& job, const CVelImage& image,
                                                           const files::Header& header,
                                                           const std::filesystem::path& path,
                                                           const std::string& user);

/// Refuses an image of another size. Throws FileError with both sizes; `name` is what it is called.
KORIMG_SESSION_API void CheckSameSize(const CVelImage& other, const CVelImage& image,
                                      const std::filesystem::path& name, const std::string& user);

/// Reads what a file says of camera and exposure.
KORIMG_SESSION_API void ReadHeader(const files::ImageInfo& info, CHeader& camera);

enum class Calculation : int { Add = 0, Subtract = 1, Multiply = 2, Divide = 3 };

/// Calculates with all pixels of an image, in place.
KORIMG_SESSION_API void Calculate(CVelImage& image, Calculation operation, double value);

struct SaveOptions {
  bool integers = false;  ///< 16-bit values in place of floats, for FITS and TIFF
  /// On which those stand; SaveImage finds it by the image's own range.
  files::Scale scale = {};
  /// What is written beside the pixels, into FITS files.
  bool uncertainty = false, mask = false;
  Correlation correlation = kUncorrelated;
};

/// Tells what an image's pixels mean on a picture, by plane: raw values that are black and white, and the
/// share of the way from one to the other that becomes medium grey, by CImgMidtones::Transfer.
struct KORIMG_SESSION_API Levels {
  double min[3] = {}, max[3] = {}, midtone[3] = {0.5, 0.5, 0.5};

  Levels() = default;
  explicit Levels(const CVelImage& image);
};

/// Size of a picture or image to be written.
struct Shape {
  int width = 0, height = 0, planes = 1;
};

/// Gives a file its final name. Throws FileError when a pipeline has failed.
KORIMG_SESSION_API void CommitComputed(const Job& job, files::ImageWriter& writer);

KORIMG_SESSION_API bool IsFits(const std::filesystem::path& path);

/// True for PNG, which has 16 bits, whatever is asked for.
KORIMG_SESSION_API bool IsPng(const std::filesystem::path& path);

/// Writes an image with a header, its levels as keywords. PNG holds 16-bit values from black to white
/// by the levels, unless integers are asked for; FITS and TIFF hold raw values. What 16 bits stand for is
/// written into the file.
class KORIMG_SESSION_API ImageSaver {
 public:
  ImageSaver(Job& job, const std::filesystem::path& path, const Shape& shape, const Levels& levels,
             const files::Header& header, const SaveOptions& options = {});
  /// Writes the next rows, whatever they count from.
  void Write(const Band<const float>& rows);
  /// Writes the next rows of what the options want beside them.
  void WriteQuality(const Band<const float>& variance, const Band<const float>& mask);
  void Commit() { CommitComputed(*job_, *writer_); }

 private:
  const Job* job_;
  Shape shape_;
  Levels levels_;
  bool bringsToOne_ = false;  ///< each plane from its own levels to 0 to 65535
  bool uncertainty_, mask_;
  int next_ = 0, nextQuality_ = 0;
  BandBuffer scaled_, deviations_;
  std::unique_ptr<files::ImageWriter> writer_;
};

/// Writes an 8-bit picture by levels, made smaller by a whole number of pixels: each of its pixels is
/// the mean of what the levels show, so that a bright star stays a point. An overturned one has its last row
/// at the top, and is held in memory until it is complete.
class KORIMG_SESSION_API PictureSaver {
 public:
  PictureSaver(Job& job, const std::filesystem::path& path, const Shape& shape, const Levels& levels,
               int shrink, bool overturned = false);
  /// Writes the same as a JPEG in memory, which must outlive this object.
  PictureSaver(std::string& jpeg, const Shape& shape, const Levels& levels, int shrink);
  /// Takes the next rows, whatever they count from.
  void Write(const Band<const float>& rows);
  void Commit();

 private:
  PictureSaver(const Shape& shape, const Levels& levels, int shrink);
  void WriteLine(int line, const float* pixels);
  files::WriteOptions Format() const;

  const Job* job_ = nullptr;  ///< none: in memory
  Shape shape_, picture_;
  Levels levels_;
  int shrink_, rowsOfPixel_;
  int next_ = 0;
  bool overturned_ = false;
  std::vector<float> sums_, line_, overturnedLines_;
  std::unique_ptr<files::ImageWriter> writer_;
};

/// Writes an image. PNG holds the image's own range where nobody chose its levels. TIFF and PNG are upright
/// by the header's sky; FITS files lie as the image does. What is known of its quality is written too.
/// @throws FileError for a quality and another format than FITS.
KORIMG_SESSION_API void SaveImage(Job& job, CVelImage& image, const files::Header& header,
                                  const std::filesystem::path& path, const SaveOptions& options = {},
                                  const Quality& quality = {});
KORIMG_SESSION_API void SavePicture(Job& job, CVelImage& image, const Levels& levels,
                                    const std::filesystem::path& path, int shrink, bool overturned = false);
/// Makes a JPEG of an image in memory.
KORIMG_SESSION_API std::string JpegOf(Job& job, CVelImage& image, const Levels& levels, int shrink);

/// Brings pixels to what levels show of them, on their own scale: what lies beyond black and white comes to
/// these, blank ones become black.
KORIMG_SESSION_API void ShowByLevels(CVelImage& image, const Levels& levels);

/// Answers the whole number that brings a picture to at most `side` pixels.
KORIMG_SESSION_API int ShrinkTo(const Shape& shape, int side);

}  // namespace korimg::session
