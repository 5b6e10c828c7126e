// From a mosaic of colour filters to a colour image.
#pragma once

#include <array>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "session/Export.h"
#include "session/files/Mosaic.h"
#include "session/picture/AutoPicture.h"
#include "session/picture/Images.h"

namespace korimg::session {

/// Tells where the gains of colours come from. Auto is the camera's where the file has them, else the medians
/// of the image.
struct WhiteBalanceChoice {
  enum Source { Auto, Camera, None, Gains };

  Source source = Auto;
  std::array<double, 4> gains{1, 1, 1, 1};  ///< positive, as WhiteBalance holds them
};

/// Reads "auto", "camera", "none" or four positive numbers, as in "1.9,1,1,1.5".
/// @throws UsageError for anything else.
KORIMG_SESSION_API WhiteBalanceChoice WhiteBalanceFrom(const std::string& text);
KORIMG_SESSION_API std::string TextOf(const WhiteBalanceChoice& choice);

struct DevelopOptions {
  files::MosaicOptions mosaic;
  WhiteBalanceChoice whiteBalance;
  bool mono = false;      ///< brightness in place of colour
  bool half = false;      ///< half the size: each pixel from one cell of a Bayer mosaic
  bool levelCut = false;  ///< results are limited to black and white
  double gamma = 1;
  double scale = 1;  ///< that the raw values are multiplied by
};

/// Holds gains by position in the 2 x 2 cell, by rows; for red, green, green and blue of a honeycomb; by
/// plane of a colour image. And where they come from.
struct WhiteBalance {
  std::array<double, 4> gains{1, 1, 1, 1};
  std::string text;
};

/// @throws UsageError for gains that are not positive numbers.
KORIMG_SESSION_API void CheckWhiteBalance(const WhiteBalanceChoice& wanted);

/// True when the colours of a mosaic show in the rows of a file: cells of 2 x 2 whose places have medians
/// that differ by half of their pixels' noise and more, but those of one diagonal much less.
KORIMG_SESSION_API bool PhasesDiffer(files::ImageReader& reader);

/// Finds the mosaic of an image; when the file says nothing else, by its camera's name, if its colours show.
KORIMG_SESSION_API files::Mosaic MosaicOf(const files::ImageInfo& info, const files::MosaicOptions& options);

/// Finds the mosaic of an image, also by its camera's name when the file says nothing else.
/// @throws FileError when there is none, or one that cannot be developed.
KORIMG_SESSION_API files::Mosaic RequireMosaic(const files::ImageInfo& info,
                                               const files::MosaicOptions& options);

/// Answers the white balance as wanted. Where it is by medians, the image must be free of its offset; it is
/// not looked at otherwise, and may be null then.
/// @throws FileError when the camera's gains are wanted and not known, UsageError as CheckWhiteBalance does.
KORIMG_SESSION_API WhiteBalance ChooseWhiteBalance(CVelImage* image, const files::ImageInfo& info,
                                                   const files::Mosaic& mosaic,
                                                   const WhiteBalanceChoice& wanted);

/// True when ChooseWhiteBalance wants to see the image.
KORIMG_SESSION_API bool NeedsMedians(const files::ImageInfo& info, const WhiteBalanceChoice& wanted);

/// Tells where the pixels to be developed come from: an image, or a file that is open.
struct KORIMG_SESSION_API MosaicSource {
  Shape shape;
  Levels levels;  ///< black is 0
  std::shared_ptr<CVmManager> store;
  std::function<void(const Band<float>& to)> read;  ///< of its rows

  explicit MosaicSource(CVelImage& image);
  MosaicSource(files::ImageReader& reader, const Levels& levels, std::shared_ptr<CVmManager> store);
};

/// Develops a mosaic by bands of rows: the colour image is never held as a whole. Pixels that have
/// colours already only get their white balance.
class KORIMG_SESSION_API Development {
 public:
  /// Takes note of what will be done in the header, which loses the keywords of the mosaic.
  /// @throws FileError when the image is too small, or of no use for the options.
  Development(MosaicSource source, files::ImageInfo& info, const files::Mosaic& mosaic,
              const WhiteBalance& balance, const DevelopOptions& options);

  Shape Size() const;
  /// Answers levels that make a good picture of the result, from a sample of the mosaic as large as a
  /// preview.
  Levels PictureLevels(int side, LevelMethod method);
  /// Develops rows y0 to y1 - 1 of the result. Throws FileError when there is no room.
  std::unique_ptr<CVelImage> Rows(int y0, int y1);
  /// Calls visit(band) with the result's rows in order; from the lowest band up when it is asked for.
  /// @throws FileError when there is no room.
  void ForBands(Job& job, const std::string& title,
                const std::function<void(std::unique_ptr<CVelImage>)>& visit, bool fromLowest = false);

 private:
  /// Answer columns and rows that the mosaic repeats after, and the smallest side that can be developed.
  int Period() const;
  int Smallest() const;
  std::unique_ptr<CVelImage> NewImage(int width, int height) const;
  void DevelopBand(CVelImage& band, int trimTop, int trimBottom);

  MosaicSource source_;
  std::filesystem::path path_;
  int cfa_;
  std::array<double, 4> gains_;
  DevelopOptions options_;
};

/// Writes what development gives into an image file, and a small picture where one is wanted. `change` works
/// on each band before, and `quality` fills what is to be saved of its rows beside it. A band is written
/// while the next one is developed.
KORIMG_SESSION_API void SaveDeveloped(Job& job, Development& development, const files::Header& header,
                                      const Levels& levels, const Levels& pictureLevels,
                                      const std::filesystem::path& output, const SaveOptions& save,
                                      const std::optional<std::filesystem::path>& preview, int side,
                                      const std::function<void(CVelImage&)>& change,
                                      const std::function<void(const QualityRows&)>& quality = {});

}  // namespace korimg::session
