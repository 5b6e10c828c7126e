#include "session/picture/Render.h"

#include <algorithm>
#include <cmath>
#include <memory>
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

/// Renders an image into a bitmap, band by band, and writes it: blue, green, red in pixels of `step` bytes.
void WritePicture(Job& job, CVelImage& image, CBaseDIB& bitmap, int step, const fs::path& path) {
  const int width = image.GetWidth(), height = image.GetHeight(), planes = image.GetPlanes() < 3 ? 1 : 3;
  if (!bitmap.Create(nullptr, width, height, 0)) {
    throw velora::CVmMemoryAllocationError("no room for the picture");
  }
  files::WriteOptions write{width, height, planes};
  write.type = "uint8";
  write.overwrite = job.options.overwrite;
  const auto writer = files::ImageWriter::Create(path, write);
  const int band = BandRows(width, planes, height);
  std::vector<float> line(static_cast<size_t>(width) * planes);
  const float* rows[3] = {};
  for (int p = 0; p < planes; ++p) {
    rows[p] = line.data() + static_cast<size_t>(p) * width;
  }
  for (int top = 0; top < height; top += band) {
    job.CheckCancelled();
    job.Progress("writing " + path.filename().string(), top, height);
    CRect rect(0, top, width, std::min(top + band, height));
    image.ToDIB(&bitmap, &rect);
    for (int y = rect.top; y < rect.bottom; ++y) {
      const unsigned char* pixels = bitmap.GetImageAdr32(0, y);
      for (int p = 0; p < planes; ++p) {
        float* out = line.data() + static_cast<size_t>(p) * width;
        for (int x = 0; x < width; ++x) {
          out[x] = pixels[step * x + 2 - p];
        }
      }
      writer->WriteRows({rows, planes, width, y, 1});
    }
  }
  job.EndProgress();
  CommitComputed(*writer);
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

RenderResult Draw(Job& job, const RenderOptions& options) {
  job.CheckOutput(options.output);
  Image loaded = Image::Open(job, options.input, {.hdu = options.hdu});
  auto& image = loaded.Pointer();
  std::vector<CImgGradient::Box> boxes;
  if (options.annotations && options.gradient) {
    boxes = CImgGradient::FindBoxes(*image, *options.gradient);
    if (boxes.empty()) {
      throw files::FileError(options.input,
                             "has too few boxes of sky for its gradient; give more boxes of a smaller size");
    }
  }
  const bool overturned = files::IsPictureOverturned(loaded.Header());
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
  constexpr long long kBytesPerPixel = 4;
  if (kBytesPerPixel * image->GetWidth() * image->GetHeight() <= job.Memory()) {
    CMemoryDIB bitmap;
    WritePicture(job, *image, bitmap, 4, options.output);
  } else {
    CVmDIB bitmap(job.MakeStore("paged"));
    WritePicture(job, *image, bitmap, 3, options.output);
  }
  const RenderResult result{{image->GetWidth(), image->GetHeight(), image->GetPlanes()}, levels, boxes};
  Json json{{"width", result.shape.width}, {"height", result.shape.height}};
  for (int p = 0; p < result.shape.planes; ++p) {
    json["black"].push_back(result.levels.min[p]);
    json["white"].push_back(result.levels.max[p]);
    json["midtone"].push_back(result.levels.midtone[p]);
  }
  if (!boxes.empty()) {
    json["boxes"] = boxes.size();
    json["sky_boxes"] = CImgGradient::CountSky(boxes);
  }
  Tell(job, options, json);
  return result;
}

}  // namespace

RenderResult Render(Job& job, const RenderOptions& options) {
  return AtEdge([&] { return Draw(job, options); });
}

void PlanRender(Job& job, const RenderOptions& options) {
  AtEdge([&] {
    job.CheckOutput(options.output);
    Tell(job, options);
  });
}

}  // namespace korimg::session
