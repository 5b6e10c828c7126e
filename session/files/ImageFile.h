// Image files of the tool: FITS, TIFF, PNG and camera raw, read and written by bands of rows.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "korimg/image/View.h"

#include "session/Export.h"
#include "session/job/Errors.h"

namespace korimg::files {

/// Whatever goes wrong with a file. The text is one line, "<path>: <what is wrong and what to do>".
class KORIMG_SESSION_API FileError : public session::Error {
 public:
  FileError(const std::filesystem::path& path, std::string_view what);

  /// Tells what is wrong and what to do, without the path.
  std::string Reason() const { return std::string(what()).substr(pathLength_); }

 private:
  size_t pathLength_;
};

/// A file that ends too early, but was written to within the last minute: a camera or a copy is still at it.
class KORIMG_SESSION_API UnfinishedError : public FileError {
 public:
  UnfinishedError(const std::filesystem::path& path, std::string_view what);
};

/// Holds the cards of a FITS header in their order, kept as they were read: duplicates, HIERARCH, CONTINUE,
/// COMMENT and HISTORY included. Names longer than 8 characters mean HIERARCH cards ("ESO DET DIT").
struct KORIMG_SESSION_API Header {
  std::vector<std::string> cards;  ///< 80 characters each, without END
  /// The rows of its FITS file are stored from the lowest up. Pixels are read and written upright: what cards
  /// say of places (world coordinates, the phase of a mosaic) is brought along, ROWORDER stays as stated.
  bool turned = false;

  /// Answers the value of the first card of that name. Strings come without quotes and trailing blanks, long
  /// ones joined over their CONTINUE cards; other values as written. None: no such card, or a card without a
  /// value.
  std::optional<std::string> GetString(std::string_view key) const;
  /// Answers the value as a number; a number written as a string ('060.00') counts, other text does not.
  std::optional<double> GetDouble(std::string_view key) const;
  /// Answers the value as a whole number; "40." and '40' count, 40.5 does not.
  std::optional<std::int64_t> GetInt(std::string_view key) const;

  /// Gives the first card of that name a new value and comment in its place, or appends a card; later cards
  /// of the same name go. Characters that FITS does not allow become '?'. An empty comment keeps none.
  void Set(std::string_view key, std::string_view value, std::string_view comment = {});
  void Set(std::string_view key, const char* value, std::string_view comment = {});
  void Set(std::string_view key, double value, std::string_view comment = {});
  void Set(std::string_view key, std::int64_t value, std::string_view comment = {});
  void Set(std::string_view key, int value, std::string_view comment = {});
  /// Removes all cards of that name with their continuations.
  void Remove(std::string_view key);
  /// Appends text as HISTORY, 72 characters a card, broken at blanks where there are any.
  void AddHistory(std::string_view text);

  /// Answers the cards that belong into a file made from this one: without those that describe the layout,
  /// scaling, compression, checksums and extremes of the source's pixels; SWMODIFY and DATE set. Everything
  /// else is verbatim.
  std::vector<std::string> CardsForOutput() const;
};

/// Holds what a camera raw file says of its sensor. Four values go by position in the 2 x 2 cell of the
/// mosaic, row by row; three of them by plane where there is no mosaic.
struct CameraRaw {
  std::string maker, model;                 ///< in the form of the library's lists
  double white = 0;                         ///< raw value of saturation
  std::array<double, 4> black{};            ///< raw value of no light
  bool hasGains = false;                    ///< the camera's white balance is known
  std::array<double, 4> gains{1, 1, 1, 1};  ///< of its white balance, green 1
};

/// Tells how stored numbers stand for raw values: raw value = zero + step * stored number.
struct KORIMG_SESSION_API Scale {
  double step = 1, zero = 0;
  bool hasBlank = false;  ///< 0 is stored for pixels that are no numbers, and for no others

  bool IsPlain() const { return step == 1 && zero == 0 && !hasBlank; }
  /// Writes it as TIFF and PNG files hold it beside their pixels, and reads it; none for another text.
  std::string Text() const;
  static std::optional<Scale> Parse(std::string_view text);
};

/// Finds the scale on which 16 bits hold an image: whole numbers from 0 to 65535 stay as they are, others
/// take the image's own range. Where pixels are no numbers these get 0, and the others what is above it.
class KORIMG_SESSION_API RangeOf16Bits {
 public:
  /// Takes pixels. Those that are no finite numbers are passed over.
  void Add(const Band<const float>& pixels);
  Scale Get() const;

 private:
  float min_ = std::numeric_limits<float>::infinity(), max_ = -min_;
  bool whole_ = true, hasBlank_ = false;
};

/// Holds what a file says about its image.
struct ImageInfo {
  std::filesystem::path path;
  std::string format;         ///< "FITS", "TIFF", "PNG" or "camera raw"
  int width = 0, height = 0;  ///< pixels
  int planes = 1;             ///< 1, or 3 for red, green, blue
  std::string type;           ///< of the stored pixels: uint8 int16 uint16 int32 uint32 int64 float32 float64
  double bscale = 1, bzero = 0;     ///< raw value = bzero + bscale * stored value; FITS, and 16 bits of ours
  bool hasBlank = false;            ///< 16 bits of ours: 0 is stored for pixels that are no numbers
  int hdu = 0;                      ///< FITS: number of the header-data unit, 0 = primary
  std::string hduName;              ///< FITS: EXTNAME, if any
  Header header;                    ///< FITS; camera raw: exposure, mosaic and the like as cards
  std::optional<CameraRaw> camera;  ///< camera raw only
  std::string noData;               ///< for people: what is left out by ReadOptions::lessBorder, if anything
};

class ConstantBorder;

struct ReadOptions {
  std::string hdu;          ///< FITS: number (0 = primary) or EXTNAME; empty: the first image that has pixels
  bool lessBlack = false;   ///< camera raw: take the black level off; pixels may be negative then
  bool manyOpen = false;    ///< camera raw: keep the unpacked pixels in a temporary file
  bool lessBorder = false;  ///< what ConstantBorder finds is NaN
  std::shared_ptr<const ConstantBorder> border;  ///< found before, in place of finding it
};

/// Largest width and height that readers and writers accept; checked before any arithmetic with them.
constexpr int kMaxSide = 1'000'000;

/// Reads an image. Memory use is a few rows, whatever the size of the image; exceptions are the
/// strips or tiles of a compressed TIFF or FITS file, interlaced PNG, and camera raw. Readers of different
/// files may work in different threads.
class KORIMG_SESSION_API ImageReader {
 public:
  /// Opens a file by its content, not by its name. FITS may be packed by gzip (it is unpacked to a temporary
  /// file) or tile-compressed; TIFF and PNG may be gray or colour, further channels are left out. Camera raw
  /// gives the undeveloped pixels of the sensor's active area; what is known of black once rows were read.
  /// @throws FileError if the file is unreadable, damaged, shorter than its header says, or of an unsupported
  /// kind; UnfinishedError if it ends too early and has just been written.
  static std::unique_ptr<ImageReader> Open(const std::filesystem::path& path,
                                           const ReadOptions& options = {});
  virtual ~ImageReader() = default;

  const ImageInfo& Info() const { return info_; }
  /// Tells what rows are read without; null when all of them were wanted.
  const std::shared_ptr<const ConstantBorder>& Border() const { return border_; }

  /// Fills a band, of the image's width and planes and any pitch, with physical values. Rows count as they
  /// are stored, but from the upper one where ROWORDER tells that they are stored from the lowest up. Blank
  /// pixels are NaN. Bands may come in any order; upwards is fastest.
  /// @throws FileError on damaged data, std::out_of_range if the band is not one of the image.
  void ReadRows(const Band<float>& to);

  /// Opens an extension of that name that belongs to the image; null where the file has none.
  /// @throws FileError if it is of another size, and as Open does.
  virtual std::unique_ptr<ImageReader> OpenExtension(const std::string& /*name*/) const { return nullptr; }

 protected:
  virtual void Read(const Band<float>& to) = 0;
  /// Brings stored numbers that were read to info_'s scale.
  void ApplyScale(const Band<float>& rows) const;

  ImageInfo info_;

 private:
  std::shared_ptr<const ConstantBorder> border_;
};

/// Another image of the same shape that is stored beside one.
struct Extension {
  std::string name;                ///< EXTNAME
  std::string type;                ///< float32 or uint8
  std::vector<std::string> cards;  ///< of its header, beside those of its layout
};

struct WriteOptions {
  int width = 0, height = 0;  ///< pixels
  int planes = 1;             ///< 1 or 3; FITS: 2 too
  std::string type =
      "float32";           ///< FITS: float32 or uint16; TIFF: uint8 too; PNG: uint8 or uint16; JPEG: uint8
  Header header = {};      ///< FITS: cards to carry over (see Header::CardsForOutput)
  bool verbatim = false;   ///< FITS: write the header's cards as they are, all of them
  bool overwrite = false;  ///< replace an existing file
  Scale scale = {};        ///< of uint16: on which the pixels are stored; the file says so
  std::vector<Extension> extensions = {};  ///< FITS
};

/// Writes an image: to "<name>.part" beside the final name, which it takes in Commit(). Without
/// Commit() the destructor removes it.
class KORIMG_SESSION_API ImageWriter {
 public:
  /// Opens the file; its format follows its extension in any case: .fits .fit .fts .tif .tiff .png .jpg
  /// .jpeg.
  /// @throws FileError on another extension or type, an existing file without `overwrite`, a disk without
  /// space.
  static std::unique_ptr<ImageWriter> Create(const std::filesystem::path& path, const WriteOptions& options);
  virtual ~ImageWriter() = default;

  /// Writes a band, of the image's width and planes and any pitch. Integer types take the nearest whole
  /// number, clamped to their range, and 0 for NaN, which is read back where the scale has it so. All but
  /// FITS want the rows in order.
  /// @throws FileError when the disk is full, std::out_of_range if the band is not one of the image, or out
  /// of order.
  void WriteRows(const Band<const float>& from);
  /// Does the same for an extension, numbered from 0.
  void WriteExtension(size_t number, const Band<const float>& from);

  /// Answers the final name.
  const std::filesystem::path& Path() const { return path_; }

  /// Completes the file and gives it its final name.
  /// @throws FileError if rows are missing or the disk is full.
  void Commit();

 protected:
  explicit ImageWriter(const std::filesystem::path& path, const WriteOptions& options, bool anyOrder);
  /// True when rows are stored from the lowest up.
  virtual bool RunsUp() const { return false; }
  virtual void Write(const Band<const float>& from) = 0;
  /// Writes beside the image in formats that hold extensions.
  virtual void WriteBeside(size_t /*extension*/, const Band<const float>& /*from*/) {}
  virtual void Finish() = 0;

  std::filesystem::path path_;
  WriteOptions options_;

 private:
  Band<const float> Stored(const Band<const float>& from, const Scale& scale);

  bool anyOrder_;
  std::int64_t rowsWritten_ = 0;
  std::vector<std::int64_t> rowsOfExtensions_;
  BandBuffer stored_;
};

/// Answers a file name's extension in lower case, with its dot.
KORIMG_SESSION_API std::string LowerExtension(const std::filesystem::path& path);

/// True for a file name that cameras give to raw files. Many of these are TIFF files by their first bytes.
KORIMG_SESSION_API bool HasRawExtension(const std::filesystem::path& path);

/// Removes the unfinished files of all writers. Calls nothing but unlink(): made for handlers of SIGINT and
/// SIGTERM.
KORIMG_SESSION_API void RemovePartialFiles() noexcept;

}  // namespace korimg::files
