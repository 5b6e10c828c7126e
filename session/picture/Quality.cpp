#include "session/picture/Quality.h"

#include <algorithm>
#include <bit>
#include <utility>

#include <fmt/format.h>

#include "session/picture/Image.h"

namespace korimg::session {
namespace {

constexpr const char *kUncertainty = "UNCERT", *kMask = "MASK", *kDeviation = "StdDevUncertainty";

std::string CorrelationKey(size_t plane) {
  return fmt::format("KORLCOR{}", plane + 1);
}

constexpr std::pair<int, const char*> kBits[] = {
    {MaskBit::NoData, "no data"},
    {MaskBit::Saturated, "saturated"},
    {MaskBit::Hot, "hot pixel, mended"},
    {MaskBit::Cold, "cold pixel, mended"},
    {MaskBit::RejectedLow, "a third or more rejected as too low"},
    {MaskBit::RejectedHigh, "a third or more rejected as too high"}};

}  // namespace

QualityRows Quality::Rows(int top, int rows) const {
  return {variance ? Image::RowsOf(*variance, top, rows) : Band<float>(),
          mask ? Image::RowsOf(*mask, top, rows) : Band<float>()};
}

Quality NewQuality(const std::shared_ptr<CVmManager>& store, const QualityOptions& wanted, int width,
                   int height, int planes) {
  Quality quality;
  if (wanted.uncertainty) quality.variance = NewImage(store, width, height, planes);
  if (wanted.mask) quality.mask = NewImage(store, width, height, planes);
  return quality;
}

std::vector<files::Extension> QualityExtensions(bool uncertainty, bool mask, const Correlation& correlation) {
  std::vector<files::Extension> extensions;
  if (uncertainty) {
    files::Header header;
    header.Set("UTYPE", kDeviation, "standard deviation of each pixel");
    header.Set("BUNIT", "adu");
    for (size_t p = 0; p < correlation.size() && correlation != kUncorrelated; ++p) {
      header.Set(CorrelationKey(p), correlation[p], "variance between pixels in that of independent ones");
    }
    extensions.push_back({kUncertainty, "float32", std::move(header.cards)});
  }
  if (mask) {
    files::Header header;
    for (const auto& [bit, text] : kBits) {
      header.Set(fmt::format("BIT{}", std::countr_zero(static_cast<unsigned>(bit))), bit, text);
    }
    extensions.push_back({kMask, "uint8", std::move(header.cards)});
  }
  return extensions;
}

QualityReader::QualityReader(const files::ImageReader& image)
    : uncertainty_(image.OpenExtension(kUncertainty)), mask_(image.OpenExtension(kMask)) {
  if (!uncertainty_) return;
  const std::string type = uncertainty_->Info().header.GetString("UTYPE").value_or(kDeviation);
  if (type != kDeviation) {
    throw files::FileError(image.Info().path,
                           fmt::format("its uncertainty is a {}; write it as {}", type, kDeviation));
  }
}

Correlation QualityReader::CorrelationOfNoise() const {
  Correlation correlation = kUncorrelated;
  for (size_t p = 0; uncertainty_ && p < correlation.size(); ++p) {
    const double told = uncertainty_->Info().header.GetDouble(CorrelationKey(p)).value_or(1);
    if (told > 0) correlation[p] = told;
  }
  return correlation;
}

void QualityReader::ReadRows(const QualityRows& to) {
  const auto clear = [](const Band<float>& rows) {
    for (int p = 0; p < rows.Planes(); ++p) {
      rows.Plane(p).ForRuns([](Row<float> run) { std::ranges::fill(run, 0.0f); });
    }
  };
  if (to.mask.Planes() > 0) mask_ ? mask_->ReadRows(to.mask) : clear(to.mask);
  if (to.variance.Planes() == 0 || !uncertainty_) return;
  uncertainty_->ReadRows(to.variance);
  for (int p = 0; p < to.variance.Planes(); ++p) {
    to.variance.Plane(p).ForRuns([](Row<float> run) {
      for (float& v : run) {
        v *= v;
      }
    });
  }
}

}  // namespace korimg::session
