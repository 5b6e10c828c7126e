// Rows of a session's lights, calibrated, and developed.
#pragma once

#include <memory>

#include "session/calibrate/internal/Session.h"
#include "session/files/internal/ConstantBorder.h"

namespace korimg::session {

/// Reads a light's calibrated pixels by rows, without holding more of it than these; mosaics stay.
class CalibratedRows {
 public:
  CalibratedRows(const Session& session, const Light& light,
                 std::shared_ptr<const files::ConstantBorder> border);

  files::ImageReader& Reader() const { return *reader_; }
  /// Fills a band, hot and cold pixels mended. The quality of the same rows is filled as far as it is asked
  /// for.
  void Read(const Band<float>& to, const QualityRows& quality = {});
  /// Answers the share of the pixels read so far that were limited at 0.
  double Clipped() const;

 private:
  long long Calibrate(const Band<float>& rows, const QualityRows& quality);

  const Session& session_;
  const Light& light_;
  std::unique_ptr<files::ImageReader> reader_;
  BandBuffer dense_, above_, below_;
  QualityBuffer aboveQuality_, belowQuality_;
  long long clipped_ = 0, seen_ = 0;
};

/// Reads a light's calibrated and developed pixels, by rows, without holding more of it than these.
class LightRows {
 public:
  /// What of the light's edges holds one value throughout is NaN. Who reads a light again gives what Border
  /// answered the first time, since finding that may take reading all of it.
  /// @throws FileError when the file has changed since the session was planned.
  LightRows(const Session& session, const Light& light,
            std::shared_ptr<const files::ConstantBorder> border = nullptr);

  /// Answers the size of the developed image.
  Shape Size() const { return shape_; }
  /// Tells what the file says, and what was done to it.
  const files::ImageInfo& Info() const { return info_; }
  const std::shared_ptr<const files::ConstantBorder>& Border() const { return rows_.Reader().Border(); }
  /// Fills a band of the developed image, and the quality of the same rows as far as it is asked for.
  void Read(const Band<float>& to, const QualityRows& quality = {});
  /// Fills a band of the mosaic that it is developed from, with the developed image's white balance.
  void ReadSites(const Band<float>& to);
  double Clipped() const { return rows_.Clipped(); }

 private:
  void ReadBand(const Band<float>& to, const QualityRows& quality);
  void ReadCalibrated(const Band<float>& to);

  const Session& session_;
  const Light& light_;
  CalibratedRows rows_;
  files::ImageInfo info_;
  std::unique_ptr<Development> development_;
  QualityRows wanted_, mosaic_;  ///< of the rows that are developed, and of the mosaic's that were read
  QualityBuffer mosaicRows_;
  Shape shape_;
};

/// Loads all of a light, calibrated and developed. The image keeps its store, which must be contiguous.
std::shared_ptr<CVelImage> LoadWhole(LightRows& rows, const std::shared_ptr<CVmManager>& store);

}  // namespace korimg::session
