#include "viewer/image/Source.h"

#include <algorithm>

#include "session/develop/Develop.h"
#include "session/files/Geometry.h"
#include "session/picture/Image.h"

namespace korimg::viewer {
std::shared_ptr<const Source> Upright(const files::ImageInfo& info, const files::Mosaic& mosaic,
                                      const session::Shape& shape,
                                      std::function<void(const Band<float>&)> read,
                                      std::optional<bool> isOverturned) {
  auto source = std::make_shared<Source>();
  if (mosaic.cfa > 0) source->mosaic = mosaic.name;
  source->shape = shape;
  source->info = info;
  source->isOverturned = isOverturned.value_or(files::IsPictureOverturned(info.header));
  if (!source->isOverturned) {
    source->read = std::move(read);
    return source;
  }
  source->read = [height = shape.height, read = std::move(read)](const Band<float>& to) {
    read(to.At(height - to.Bottom()));
    for (int p = 0; p < to.Planes(); ++p) {
      for (int upper = 0, lower = to.Rows() - 1; upper < lower; ++upper, --lower) {
        std::ranges::swap_ranges(to.Plane(p)[upper], to.Plane(p)[lower]);
      }
    }
  };
  return source;
}

std::shared_ptr<const Source> OpenSource(const std::filesystem::path& path) {
  const std::shared_ptr<files::ImageReader> reader = files::ImageReader::Open(path);
  const files::ImageInfo& info = reader->Info();
  return Upright(info, session::MosaicOf(info, {}), {info.width, info.height, info.planes},
                 [reader](const Band<float>& to) { reader->ReadRows(to); });
}

std::shared_ptr<const Source> OpenDeveloped(session::Job& job, const std::filesystem::path& path) {
  const std::shared_ptr<files::ImageReader> reader = files::ImageReader::Open(path, {.lessBlack = true});
  const files::Mosaic mosaic = session::RequireMosaic(reader->Info(), {});
  BandBuffer first;
  reader->ReadRows(first.Get(1, reader->Info().width, 0, 1));  // black is known once a row was read
  files::ImageInfo info = reader->Info();
  session::Levels levels;
  std::fill(levels.max, levels.max + 3, info.camera ? info.camera->white : 65535);
  // Gains by medians would want the whole image; the stretch finds a grey sky without them.
  const auto balance =
      session::ChooseWhiteBalance(nullptr, info, mosaic,
                                  {info.camera && info.camera->hasGains ? session::WhiteBalanceChoice::Camera
                                                                        : session::WhiteBalanceChoice::None});
  const auto development =
      std::make_shared<session::Development>(session::MosaicSource(*reader, levels, job.MakeStore()), info,
                                             mosaic, balance, session::DevelopOptions{});
  const session::Shape shape = development->Size();
  return Upright(info, mosaic, shape, [reader, development](const Band<float>& to) {
    const auto rows = development->Rows(to.Top(), to.Bottom());
    CopyPixels(session::Image::RowsOf(*rows, 0, to.Rows(), true), to);
  });
}

}  // namespace korimg::viewer
