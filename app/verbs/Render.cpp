// korimg render: a picture of an image, by its levels.
#include <algorithm>
#include <cmath>

#include <fmt/format.h>

#include "korimg/display/CMemoryDIB.h"
#include "korimg/display/CVmDIB.h"
#include "korimg/geometry/CImgSoftBinning.h"

#include "app/tool/Tool.h"
#include "app/verbs/Verbs.h"
#include "session/files/Geometry.h"
#include "session/job/Json.h"
#include "session/picture/Annotate.h"
#include "session/picture/AutoPicture.h"
#include "session/picture/Image.h"
#include "session/picture/Images.h"

namespace korimg::tool {
namespace {

struct RenderOptions {
  std::filesystem::path input, output;
  std::string level = "histogram", hdu;
  double scale = 1;
  bool annotate = false;
  Annotations annotations;
};

/// Limits pixels to what the levels show; blank ones become black.
void LimitToLevels(CVelImage& image) {
  for (int p = 0; p < image.GetPlanes(); ++p) {
    const auto black = static_cast<float>(image.GetLevelMin(p)),
               white = static_cast<float>(image.GetLevelMax(p));
    for (int y = 0; y < image.GetHeight(); ++y) {
      float* line = image.GetWritableLine(0, y, p);
      for (int x = 0, width = image.GetWidth(); x < width; ++x) {
        const float v = line[x] > black ? line[x] : black;
        line[x] = v < white ? v : white;
      }
    }
  }
}

/// Makes an image smaller by cells, each the mean of what the levels show of it, so that a bright star stays
/// a point.
void Shrink(std::unique_ptr<CVelImage>& image, int binX, int binY) {
  LimitToLevels(*image);
  auto binned = std::make_unique<CImgSoftBinning>();
  if (!binned->Create(*image, nullptr) || !binned->Do(binX, binY, 0, 1, image.get(), 0)) {
    throw velora::CVmMemoryAllocationError("no room for the picture");
  }
  image = std::move(binned);
}

/// Renders an image into a bitmap, band by band, and writes it: blue, green, red in pixels of `step` bytes.
void WritePicture(Tool& tool, CVelImage& image, CBaseDIB& bitmap, int step,
                  const std::filesystem::path& path) {
  const int width = image.GetWidth(), height = image.GetHeight(), planes = image.GetPlanes() < 3 ? 1 : 3;
  if (!bitmap.Create(nullptr, width, height, 0)) {
    throw velora::CVmMemoryAllocationError("no room for the picture");
  }
  files::WriteOptions write{width, height, planes};
  write.type = "uint8";
  write.overwrite = tool.options.overwrite;
  const auto writer = files::ImageWriter::Create(path, write);
  const int band = BandRows(width, planes, height);
  std::vector<float> line(static_cast<size_t>(width) * planes);
  const float* rows[3] = {};
  for (int p = 0; p < planes; ++p) {
    rows[p] = line.data() + static_cast<size_t>(p) * width;
  }
  for (int top = 0; top < height; top += band) {
    tool.job.CheckCancelled();
    tool.job.Progress("writing " + path.filename().string(), top, height);
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
      writer->WriteRows(y, 1, rows);
    }
  }
  tool.job.EndProgress();
  CommitComputed(*writer);
}

void Render(Tool& tool, const RenderOptions& options) {
  tool.job.CheckOutput(options.output);
  if (tool.options.dryRun) {
    return tool.job.Tell(Dump({{"input", options.input.string()}, {"output", options.output.string()}}),
                         fmt::format("{} -> {}", options.input.string(), options.output.string()));
  }
  const auto store = tool.job.MakeStore();
  Image loaded = Image::Open(tool.job, store, options.input, {.hdu = options.hdu});
  auto& image = loaded.Pointer();
  const bool overturned = files::IsPictureOverturned(loaded.Header());
  const int fullHeight = image->GetHeight();
  if (overturned) TurnOver(*image);
  LevelForPicture(*image, options.level);
  const int shrink = std::max(static_cast<int>(std::lround(1 / options.scale)), 1);
  const int binX = std::min(shrink, image->GetWidth()), binY = std::min(shrink, image->GetHeight());
  if (shrink > 1) Shrink(image, binX, binY);
  if (options.annotate) {
    const Annotations& told = options.annotations;
    const bool asTold = !told.title.empty() || told.scaleBar || !told.stars.empty();
    Annotations annotations = asTold ? told : DefaultAnnotations(loaded.Header());
    if (overturned) annotations.overturnedHeight = fullHeight;
    if (annotations.title.empty() && !annotations.scaleBar && annotations.stars.empty()) {
      throw files::FileError(options.input,
                             "names no OBJECT and does not say its scale; give --title, --stars or both");
    }
    LimitToLevels(*image);
    Annotate(*image, annotations, options.input, loaded.Header(), binX, binY);
  }
  constexpr long long kBytesPerPixel = 4;
  if (kBytesPerPixel * image->GetWidth() * image->GetHeight() <= tool.job.Memory()) {
    CMemoryDIB bitmap;
    WritePicture(tool, *image, bitmap, 4, options.output);
  } else {
    CVmDIB bitmap(tool.job.MakeStore("paged"));
    WritePicture(tool, *image, bitmap, 3, options.output);
  }
  nlohmann::ordered_json json{{"input", options.input.string()},
                              {"output", options.output.string()},
                              {"width", image->GetWidth()},
                              {"height", image->GetHeight()}};
  for (int p = 0; p < image->GetPlanes(); ++p) {
    json["black"].push_back(image->GetLevelMin(p));
    json["white"].push_back(image->GetLevelMax(p));
  }
  tool.job.Tell(Dump(json), fmt::format("{} -> {}", options.input.string(), options.output.string()));
}

}  // namespace

void AddRender(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<RenderOptions>();
  CLI::App* verb = app.add_subcommand("render", "Make a picture of an image");
  verb->add_option("input", options->input, "FITS, TIFF or PNG")->required();
  verb->add_option("-o,--output", options->output,
                   "the picture of 8 bits: PNG, TIFF or JPEG, by its extension")
      ->required();
  verb->add_option("--level", options->level,
                   "how black and white are set; none takes the image's own levels")
      ->check(CLI::IsMember({"normal", "mean", "median", "histogram", "none"}));
  verb->add_option("--scale", options->scale,
                   "1, or a fraction such as 0.25, rounded to one over a whole number")
      ->check(CLI::Range(0.001, 1.0));
  auto* annotate = verb->add_flag("--annotate", options->annotate,
                                  "draw what the next options say; without any, the name of the OBJECT and, "
                                  "where the scale is known, a scale bar");
  verb->add_option("--title", options->annotations.title, "text in the upper left corner")->needs(annotate);
  verb->add_flag("--scale-bar", options->annotations.scaleBar,
                 "bar of a round angle, by the world coordinates, or by FOCALLEN and XPIXSZ")
      ->needs(annotate);
  verb->add_option(
          "--stars", options->annotations.stars,
          "text file of circles, 'x y [radius]' in pixels of the image on each line, from the centre of "
          "its first pixel; # begins a comment")
      ->needs(annotate);
  verb->add_option("--hdu", options->hdu, "number or name of the FITS extension to read");
  AddCommonOptions(*verb, tool);
  verb->callback([options, &tool] {
    tool.Begin();
    Render(tool, *options);
  });
}

}  // namespace korimg::tool
