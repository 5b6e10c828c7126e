#include "session/calibrate/internal/LightRows.h"

#include <algorithm>

#include "korimg/image/ForeignImage.h"
#include "korimg/image/internal/Lines.h"
#include "korimg/image/internal/Vectors.h"

namespace korimg::session {

namespace {

/// Rows as an image of their own, without a copy; they have nothing between them. Its results lie in `store`.
StoredImage ImageOver(const Band<float>& rows, const std::shared_ptr<CVmManager>& store) {
  return MakeImageOver({rows.Data(), rows.Data() + rows.Planes()}, rows.Width(), rows.Rows(), nullptr, store);
}

}  // namespace

CalibratedRows::CalibratedRows(const Session& session, const Light& light,
                               std::shared_ptr<const files::ConstantBorder> border)
    : session_(session),
      light_(light),
      reader_(files::ImageReader::Open(light.frame.path, {.lessBlack = !light.Offset(),
                                                          .manyOpen = true,
                                                          .lessBorder = true,
                                                          .border = std::move(border)})) {
  light.CheckUnchanged(reader_->Info());
}

/// Calibrates rows where they are to lie. What mends their hot and cold pixels lies above and below too.
void CalibratedRows::Read(const Band<float>& to, const QualityRows& quality) {
  seen_ += 1LL * to.Planes() * to.Width() * to.Rows();
  // One row after the other in all planes, as the masters are: parts of one plane have nothing between them.
  const auto rowsIn = [&](BandBuffer& buffer, int top, int bottom) {
    return buffer.Get(to.Planes(), to.Width(), top, bottom - top);
  };
  const Band<float> own = to.IsDense() ? to : rowsIn(dense_, to.Top(), to.Bottom());
  clipped_ += Calibrate(own, quality);
  if (const DefectMap* defects = session_.DefectsOf(light_)) {
    const Band<float> above = rowsIn(above_, std::max(to.Top() - DefectMap::kReach, 0), to.Top()),
                      below = rowsIn(below_, to.Bottom(),
                                     std::min(to.Bottom() + DefectMap::kReach, reader_->Info().height));
    const auto qualityOf = [&](QualityBuffer& buffer, const Band<float>& rows) {
      return buffer.Get(quality, to.Planes(), to.Width(), rows.Top(), rows.Rows());
    };
    const QualityRows aboveQuality = qualityOf(aboveQuality_, above),
                      belowQuality = qualityOf(belowQuality_, below);
    Calibrate(above, aboveQuality);
    Calibrate(below, belowQuality);
    const auto rowOf = [&](int y) {
      return (y < own.Top() ? above : y < own.Bottom() ? own : below).Row(0, y).data();
    };
    const auto varianceOf = [&](int y) {
      const QualityRows& rows = y < own.Top() ? aboveQuality : y < own.Bottom() ? quality : belowQuality;
      return rows.variance.Row(0, y).data();
    };
    const auto maskOf = [&](int y) { return quality.mask.Row(0, y).data(); };
    using RowOf = DefectMap::RowOf;
    defects->Mend(rowOf, to.Top(), to.Bottom(), quality.variance.Planes() > 0 ? varianceOf : RowOf(),
                  quality.mask.Planes() > 0 ? maskOf : RowOf());
  }
  if (!to.IsDense()) CopyPixels(own, to);
}

/// By the rows of the masters where those lie. Answers how many pixels were limited at 0.
long long CalibratedRows::Calibrate(const Band<float>& rows, const QualityRows& quality) {
  constexpr int kAtOnce = 128;  // chosen, so that each step finds them in the caches
  long long clipped = 0;
  for (int top = rows.Top(); top < rows.Bottom(); top += kAtOnce) {
    const Band<float> part = rows.Part(top, std::min(kAtOnce, rows.Bottom() - top));
    reader_->ReadRows(part);
    if (quality.Any()) {
      session_.FillQuality(light_, reader_->Info(), part, quality.Part(top, part.Rows()));
    }
    const auto rowsOf = [&](const Group* group) {
      CVelImage* image = session_.ImageOf(group, light_);
      return image ? ImageOver(Image::RowsOf(*image, top, part.Rows(), true), session_.store_)
                   : StoredImage();
    };
    const StoredImage band = ImageOver(part, session_.store_), offset = rowsOf(light_.Offset()),
                      flat = rowsOf(light_.flat);
    clipped += session_.Apply(light_, *band.image, offset.image.get(), flat.image.get());
  }
  return clipped;
}

double CalibratedRows::Clipped() const {
  return seen_ > 0 ? static_cast<double>(clipped_) / static_cast<double>(seen_) : 0;
}

LightRows::LightRows(const Session& session, const Light& light,
                     std::shared_ptr<const files::ConstantBorder> border)
    : session_(session),
      light_(light),
      rows_(session, light, std::move(border)),
      info_(rows_.Reader().Info()) {
  shape_ = {info_.width, info_.height, info_.planes};
  if (light.mosaic.cfa == 0) return;
  MosaicSource source(rows_.Reader(), session.MosaicLevels(light), session.store_);
  source.read = [this](const Band<float>& to) { ReadCalibrated(to); };
  development_ = std::make_unique<Development>(session.Develop(std::move(source), light, info_));
  shape_ = development_->Size();
}

void LightRows::Read(const Band<float>& to, const QualityRows& quality) {
  if (!development_ && to.IsDense()) return rows_.Read(to, quality);
  // Chosen: little memory beside what the rows are for, and many rows beside the margins of development.
  constexpr int kAtOnce = 128;
  for (int top = to.Top(); top < to.Bottom(); top += kAtOnce) {
    const int rows = std::min(kAtOnce, to.Bottom() - top);
    ReadBand(to.Part(top, rows), quality.Part(top, rows));
  }
}

void LightRows::ReadBand(const Band<float>& to, const QualityRows& quality) {
  if (!development_) return rows_.Read(to, quality);
  wanted_ = quality;
  const auto band = development_->Rows(to.Top(), to.Bottom());
  if (quality.Any()) session_.NoiseOfDevelopment(light_)->Fill(mosaic_, quality);
  // Gains are for light alone: the pedestal comes back after them.
  if (session_.options_.KeptPedestal() > 0)
    Calculate(*band, Calculation::Add, session_.options_.KeptPedestal());
  CopyPixels(Image::RowsOf(*band, 0, to.Rows(), true), to);
}

void LightRows::ReadSites(const Band<float>& to) {
  ReadCalibrated(to);
  const int cfa = light_.mosaic.cfa;
  const auto& gains = session_.BalanceOf(light_).gains;
  const auto pedestal = static_cast<float>(session_.options_.KeptPedestal());
  // Those of a honeycomb are of red, green, green and blue.
  const auto gainOf = [&](int x, int y) {
    if (!files::IsHoneycomb(cfa)) return gains[(y & 1) * 2 + (x & 1)];
    return gains[files::ColourOfSite(cfa, x, y) == 2 ? 3 : std::max(files::ColourOfSite(cfa, x, y), 0)];
  };
  for (int y = to.Top(); y < to.Bottom(); ++y) {
    std::array<float, 4> own;
    for (int x = 0; x < 4; ++x) {
      own[x] = static_cast<float>(gainOf(x, y));
    }
    const Row<float> row = to.Row(0, y);
    for (int x = 0; x < to.Width(); ++x) {
      row[x] = row[x] * own[x & 3] + pedestal;
    }
  }
}

/// What is to be developed has no pedestal.
void LightRows::ReadCalibrated(const Band<float>& to) {
  mosaic_ = mosaicRows_.Get(wanted_, to.Planes(), to.Width(), to.Top(), to.Rows());
  rows_.Read(to, mosaic_);
  const auto pedestal = static_cast<float>(session_.options_.KeptPedestal());
  if (light_.mosaic.cfa == 0 || !(pedestal > 0)) return;
  for (int y = to.Top(); y < to.Bottom(); ++y) {
    for (float& v : to.Row(0, y)) {
      v -= pedestal;
    }
  }
}

std::shared_ptr<CVelImage> LoadWhole(LightRows& rows, const std::shared_ptr<CVmManager>& store) {
  const Shape shape = rows.Size();
  // The image does not keep its store alive.
  auto image = std::shared_ptr<CVelImage>(
      new CVelImage(store, CImage::Float, shape.width, shape.height, shape.planes, 1.0, 0.0, 1, nullptr),
      [store](CVelImage* p) { delete p; });
  rows.Read(Image::RowsOf(*image, 0, shape.height));
  return image;
}

}  // namespace korimg::session
