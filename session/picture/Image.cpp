#include "session/picture/Image.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

#include <fmt/format.h>

#include "korimg/platform/Debug.h"

#include "session/files/Mosaic.h"
#include "session/job/internal/Edge.h"
#include "session/picture/Images.h"
#include "session/picture/internal/Bands.h"

namespace korimg::session {
namespace {

CImage::SourceType SourceTypeOf(const files::ImageInfo& info) {
  const bool colour = info.planes > 1;
  if (info.type == "uint8") return colour ? CImage::Rgb24 : CImage::Gray8;
  if (info.type == "int16" || info.type == "uint16") return colour ? CImage::Rgb48 : CImage::Gray16;
  if (info.type == "float32") return CImage::Real32;
  if (info.type == "float64") return CImage::Real64;
  return CImage::Gray32;
}

/// What is said of pixels that no file tells of.
files::ImageInfo InfoOf(int width, int height, int planes) {
  files::ImageInfo info;
  info.width = width;
  info.height = height;
  info.planes = planes;
  info.type = "float32";
  return info;
}

void CheckShape(const Band<const float>& pixels) {
  if (pixels.Width() > 0 && pixels.Rows() > 0 && pixels.Planes() >= 1 && pixels.Planes() <= 3) return;
  throw UsageError("an image has pixels, in 1 to 3 planes");
}

void CheckLevels(const std::vector<std::pair<double, double>>& levels) {
  for (const auto& [black, white] : levels) {
    if (!(std::isfinite(black) && std::isfinite(white) && white > black)) {
      throw UsageError(fmt::format("the level of white, {}, must be above that of black, {}", white, black));
    }
  }
}

/// Gives an image levels: its planes in turn, the rest as the last one; its extremes where there are none.
void GiveLevels(Image& image, const std::vector<std::pair<double, double>>& levels) {
  if (levels.empty()) return SetLevels(image.Pixels(), image.Info(), false);
  for (int p = 0; p < image.Planes(); ++p) {
    const auto& [black, white] = levels[std::min(static_cast<size_t>(p), levels.size() - 1)];
    image.Pixels().SetLevel(p, black, white);
  }
}

Image Load(Job& job, const std::shared_ptr<CVmManager>& store, const std::filesystem::path& path,
           const files::ReadOptions& options) {
  const auto reader = files::ImageReader::Open(path, options);
  const files::ImageInfo& info = reader->Info();
  auto image = NewImage(store, info.width, info.height, info.planes);
  ForBands<Access::Write>(job, *image, "reading " + path.filename().string(),
                          [&](const Band<float>& band) { reader->ReadRows(band); });
  image->SetOrgFileName(Widen(path.string()));
  image->SetOrgFileFormat(Widen(info.format));
  image->SetOrgBitsPixel(SourceTypeOf(info));
  image->SetOrgPlanes(info.planes);
  image->SetOrgWidth(info.width);
  image->SetOrgHeight(info.height);
  const int cfa = files::FindMosaic(info).cfa;
  const bool honeycomb = files::IsHoneycomb(cfa), bayer = cfa > 0 && !honeycomb;
  image->SetBayerImage(bayer);
  image->SetOrgBayerImage(bayer);
  image->SetHoneyCombImage(honeycomb);
  image->SetOrgHoneyCombImage(honeycomb);
  image->GetHeader()->SetCFAPattern(cfa);
  ReadHeader(info, *image->GetHeader());
  SetLevels(*image, info, options.lessBlack);
  return Image(std::move(image), info);
}

}  // namespace

Image::Image(std::unique_ptr<CVelImage> pixels, files::ImageInfo info)
    : store_(pixels->VmManager()), pixels_(std::move(pixels)), info_(std::move(info)) {}

Image Image::Open(Job& job, const std::shared_ptr<CVmManager>& store, const std::filesystem::path& path,
                  const files::ReadOptions& options) {
  return AtEdge([&] { return Load(job, store, path, options); });
}

Image Image::Open(Job& job, const std::filesystem::path& path, const files::ReadOptions& options) {
  return AtEdge([&] { return Load(job, job.MakeStore(), path, options); });
}

Image Image::Over(Job& job, const Band<float>& pixels, std::shared_ptr<const void> owner,
                  const std::vector<std::pair<double, double>>& set, ResultMemory result) {
  return AtEdge([&] {
    CheckLevels(set);
    CheckShape(pixels);
    if (!pixels.IsDense()) {
      Image image = CopyOf(job, pixels);
      if (!set.empty()) GiveLevels(image, set);
      return image;
    }
    StoredImage made = MakeImageOver({pixels.Data(), pixels.Data() + pixels.Planes()}, pixels.Width(),
                                     pixels.Rows(), std::move(owner), job.MakeStore(), std::move(result));
    Image image(std::move(made.image), InfoOf(pixels.Width(), pixels.Rows(), pixels.Planes()));
    GiveLevels(image, set);
    return image;
  });
}

Image Image::CopyOf(Job& job, const Band<const float>& pixels) {
  return AtEdge([&] {
    CheckShape(pixels);
    const auto [width, height, planes] = std::array{pixels.Width(), pixels.Rows(), pixels.Planes()};
    Image image(NewImage(job.MakeStore(), width, height, planes), InfoOf(width, height, planes));
    image.WriteRows(pixels.At(0));
    SetLevels(image.Pixels(), image.Info(), false);
    return image;
  });
}

void Image::ReadRows(const Band<float>& to) const {
  CopyFromStore(*pixels_, to);
}

void Image::WriteRows(const Band<const float>& from) {
  CopyToStore(*pixels_, from);
}

Band<float> Image::RowsOf(CVelImage& image, int top, int rows, bool readOnly) {
  std::array<float*, Band<float>::kMostPlanes> planes{};
  for (int p = 0; p < image.GetPlanes(); ++p) {
    planes[p] = image.GetImageAdr(0, top, p, readOnly ? CImage::ReadOnly : CImage::ReadWrite, nullptr);
  }
  return {planes.data(), image.GetPlanes(), image.GetWidth(), top, rows};
}

std::unique_ptr<CVelImage> NewImage(const std::shared_ptr<CVmManager>& store, int width, int height,
                                    int planes) {
  return std::make_unique<CVelImage>(store, CImage::Float, width, height, planes, 1.0, 0.0, 1, nullptr);
}

void CopyFromStore(CVelImage& image, const Band<float>& to) {
  for (int p = 0; p < to.Planes(); ++p) {
    for (int y = 0; y < to.Rows(); ++y) {
      std::copy_n(image.GetLine(0, to.Top() + y, p), to.Width(), to.Plane(p)[y].data());
    }
  }
}

void CopyToStore(CVelImage& image, const Band<const float>& from) {
  for (int p = 0; p < from.Planes(); ++p) {
    for (int y = 0; y < from.Rows(); ++y) {
      std::copy_n(from.Plane(p)[y].data(), from.Width(), image.GetWritableLine(0, from.Top() + y, p));
    }
  }
}

}  // namespace korimg::session
