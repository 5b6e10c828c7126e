#include "session/picture/Render.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include <fmt/format.h>

#include "korimg/display/CMemoryDIB.h"
#include "korimg/display/CVmDIB.h"
#include "korimg/geometry/CImgSoftBinning.h"

#include "session/files/Geometry.h"
#include "session/job/Json.h"
#include "session/job/internal/Edge.h"
#include "session/picture/Image.h"

namespace korimg::session {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

namespace {

/// Makes an image smaller by cells, each the mean of what the levels show of it, so that a bright star stays
/// a point.
void Shrink(std::unique_ptr<CVelImage>& image, int binX, int binY) {
  auto binned = std::make_unique<CImgSoftBinning>();
  if (!binned->Create(*image, nullptr) || !binned->Do(binX, binY, 0, 1, image.get(), 0)) {
    throw velora::CVmMemoryAllocationError("no room for the picture");
  }
  image = std::move(binned);
}

/// Calls visit(y, pixels, step) for the rows of a picture: blue, green and red in pixels of `step` bytes.
void ForRows(Job& job, CVelImage& image, const std::string& title,
             const std::function<void(int, const unsigned char*, int)>& visit) {
  constexpr long long kBytesPerPixel = 4;
  const int width = image.GetWidth(), height = image.GetHeight();
  const bool fits = kBytesPerPixel * width * height <= job.Memory();
  CMemoryDIB inMemory;
  std::optional<CVmDIB> paged;
  CBaseDIB& bitmap = fits ? static_cast<CBaseDIB&>(inMemory) : paged.emplace(job.MakeStore(true));
  if (!bitmap.Create(nullptr, width, height, 0)) {
    throw velora::CVmMemoryAllocationError("no room for the picture");
  }
  const int band = BandRows(width, image.GetPlanes() < 3 ? 1 : 3, height);
  for (int top = 0; top < height; top += band) {
    job.CheckCancelled();
    job.Progress(title, top, height);
    CRect rect(0, top, width, std::min(top + band, height));
    image.ToDIB(&bitmap, &rect);
    for (int y = rect.top; y < rect.bottom; ++y) {
      visit(y, bitmap.GetImageAdr32(0, y), fits ? 4 : 3);
    }
  }
  job.EndProgress();
}

void WritePicture(Job& job, CVelImage& image, const fs::path& path) {
  const int width = image.GetWidth(), planes = image.GetPlanes() < 3 ? 1 : 3;
  files::WriteOptions write{width, image.GetHeight(), planes};
  write.type = "uint8";
  write.overwrite = job.options.overwrite;
  const auto writer = files::ImageWriter::Create(path, write);
  std::vector<float> line(static_cast<size_t>(width) * planes);
  const float* rows[3] = {};
  for (int p = 0; p < planes; ++p) {
    rows[p] = line.data() + static_cast<size_t>(p) * width;
  }
  ForRows(job, image, "writing " + path.filename().string(),
          [&](int y, const unsigned char* pixels, int step) {
            for (int p = 0; p < planes; ++p) {
              float* out = line.data() + static_cast<size_t>(p) * width;
              for (int x = 0; x < width; ++x) {
                out[x] = pixels[step * x + 2 - p];
              }
            }
            writer->WriteRows({rows, planes, width, y, 1});
          });
  CommitComputed(job, *writer);
}

void DrawAnnotations(CVelImage& picture, const RenderOptions& options,
                     const std::vector<CImgGradient::Box>& boxes, const files::Header& header,
                     int overturnedHeight, int binX, int binY) {
  const auto isEmpty = [](const Annotations& told) {
    return told.title.empty() && !told.scaleBar && told.stars.empty() && told.boxes.empty();
  };
  Annotations annotations = isEmpty(*options.annotations) ? DefaultAnnotations(header) : *options.annotations;
  annotations.overturnedHeight = overturnedHeight;
  if (!boxes.empty()) annotations.boxes = boxes;
  if (isEmpty(annotations)) {
    throw files::FileError(options.input,
                           "names no OBJECT and does not say its scale; give --title, --stars or both");
  }
  Annotate(picture, annotations, options.input, header, binX, binY);
}

void Tell(Job& job, const RenderOptions& options, const Json& more = Json::object()) {
  Json json{{"input", options.input.string()}, {"output", options.output.string()}};
  json.update(more);
  job.Tell(Dump(json), fmt::format("{} -> {}", options.input.string(), options.output.string()));
}

/// Makes a picture of an image, in its own pixels: as it lies, or turned over.
RenderResult Draw(Image& loaded, bool overturned, const RenderOptions& options) {
  auto& image = loaded.Pointer();
  std::vector<CImgGradient::Box> boxes;
  if (options.annotations && options.gradient) {
    boxes = CImgGradient::FindBoxes(*image, *options.gradient);
    if (boxes.empty()) {
      throw files::FileError(options.input,
                             "has too few boxes of sky for its gradient; give more boxes of a smaller size");
    }
  }
  const int fullHeight = image->GetHeight();
  if (overturned) TurnOver(*image);
  const bool isPicture = options.level == LevelMethod::Auto && loaded.Info().type == "uint8";
  const Levels levels = LevelForPicture(*image, isPicture ? LevelMethod::None : options.level);
  ShowByLevels(*image, levels);  // before cells are summed
  const int shrink = std::max(static_cast<int>(std::lround(1 / options.scale)), 1);
  const int binX = std::min(shrink, image->GetWidth()), binY = std::min(shrink, image->GetHeight());
  if (shrink > 1) Shrink(image, binX, binY);
  if (options.annotations) {
    DrawAnnotations(*image, options, boxes, loaded.Header(), overturned ? fullHeight : 0, binX, binY);
  }
  return {{image->GetWidth(), image->GetHeight(), image->GetPlanes()}, levels, boxes};
}

RenderResult DrawFile(Job& job, const RenderOptions& options) {
  job.CheckOutput(options.output);
  Image image = Image::Open(job, options.input, {.hdu = options.hdu});
  RenderResult result = Draw(image, files::IsPictureOverturned(image.Header()), options);
  WritePicture(job, image.Pixels(), options.output);
  Json json{{"width", result.shape.width}, {"height", result.shape.height}};
  for (int p = 0; p < result.shape.planes; ++p) {
    json["black"].push_back(result.levels.min[p]);
    json["white"].push_back(result.levels.max[p]);
    json["midtone"].push_back(result.levels.midtone[p]);
  }
  if (!result.boxes.empty()) {
    json["boxes"] = result.boxes.size();
    json["sky_boxes"] = CImgGradient::CountSky(result.boxes);
  }
  Tell(job, options, json);
  return result;
}

}  // namespace

RenderResult Render(Job& job, const RenderOptions& options) {
  return AtEdge([&] { return DrawFile(job, options); });
}

Picture RenderImage(Job& job, Image image, const RenderOptions& options) {
  return AtEdge([&] {
    if (!(options.scale > 0 && options.scale <= 1)) {
      throw UsageError(fmt::format("a scale of {} is not above 0 and at most 1", options.scale));
    }
    Picture picture{Draw(image, false, options), {}};
    const Shape& shape = picture.result.shape;
    const int planes = shape.planes < 3 ? 1 : 3;
    picture.pixels.resize(static_cast<size_t>(planes) * shape.width * shape.height);
    unsigned char* out = picture.pixels.data();
    ForRows(job, image.Pixels(), "rendering", [&](int, const unsigned char* pixels, int step) {
      for (int x = 0; x < shape.width; ++x) {
        for (int p = 0; p < planes; ++p) {
          *out++ = pixels[step * x + 2 - p];
        }
      }
    });
    return picture;
  });
}

void PlanRender(Job& job, const RenderOptions& options) {
  AtEdge([&] {
    job.CheckOutput(options.output);
    Tell(job, options);
  });
}

}  // namespace korimg::session
