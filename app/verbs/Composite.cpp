// korimg composite: two images become one, by shift, angle and mode.
#include <algorithm>
#include <cmath>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "korimg/composite/CImgComposit.h"
#include "korimg/pipelines/runtime/Runtime.h"

#include "app/tool/Tool.h"
#include "app/verbs/Verbs.h"
#include "session/files/Geometry.h"
#include "session/job/Json.h"
#include "session/operations/Kernels.h"
#include "session/operations/Operation.h"
#include "session/picture/Image.h"
#include "session/picture/Images.h"

namespace korimg::tool {
namespace {

const std::vector<std::string> kModes = {"average", "add",        "weight",   "subtract", "multiply",
                                         "divide",  "difference", "brighter", "darker",   "neighbour"};
constexpr int kNeighbour = 9;
constexpr double kFar = 1e6;  // pixels

struct CompositeOptions {
  std::string first, second, output;
  double dx = 0, dy = 0, angle = 0;
  std::string mode = "average", kernel = "bilinear", centre, rect;
  double weight = 0.5, threshold = 0.95;
  int radius = 1;
  bool level = false, cutMinus = false;
  std::string store = "contiguous", bits = "float", hdu;

  static int Number(const std::vector<std::string>& names, const std::string& name) {
    return static_cast<int>(std::find(names.begin(), names.end(), name) - names.begin());
  }
  int Mode() const { return Number(kModes, mode); }
  int Kernel() const { return ValueOf(kKernels, kernel); }

  /// As a call would be written with all that counts.
  std::string Text() const {
    std::string text = fmt::format("composite {} {} --mode {} --dx {} --dy {} --angle {} --kernel {}", first,
                                   second, mode, dx, dy, angle, kernel);
    if (!centre.empty()) text += " --centre " + centre;
    if (mode == "weight" || mode == "neighbour") text += fmt::format(" --weight {}", weight);
    if (mode == "neighbour") text += fmt::format(" --threshold {} --radius {}", threshold, radius);
    if (level) text += " --level";
    if (cutMinus) text += " --cut-minus";
    if (!rect.empty()) text += " --rect " + rect;
    return text;
  }
};

/// The point that the second image turns about: its middle, or the one that is told.
CfPoint CentreOf(const CVelImage& image, const std::string& text) {
  if (text.empty()) return CfPoint(image.GetWidth() * 0.5, image.GetHeight() * 0.5);
  const size_t comma = text.find(',');
  const auto x = ToNumber(text.substr(0, comma)),
             y = ToNumber(comma == std::string::npos ? "" : text.substr(comma + 1));
  // The negation refuses NaN too.
  if (!x || !y || !(std::abs(*x) <= kFar && std::abs(*y) <= kFar)) {
    throw UsageError(fmt::format("--centre {}: write X,Y in pixels", text));
  }
  return CfPoint(*x, *y);
}

/// The second image in the kind of the first: a mono one serves colour, a colour one becomes its luminance.
std::unique_ptr<CVelImage> AsKindOf(const CVelImage& first, std::unique_ptr<CVelImage> second) {
  if (first.IsColor() || !second->IsColor()) return second;
  auto grey = std::make_unique<CVelImage>();
  if (!grey->Create(*second, nullptr) || !grey->ToGray(second.get(), 0)) {
    throw velora::CVmMemoryAllocationError("no room for the luminance of the second image");
  }
  return grey;
}

/// Puts the first image back where the second does not reach: there the library combines it with a value
/// that stands for nothing, a black strip or a white one. What reaches is what the kernel finds of ones.
void RestoreUnreached(CVelImage& result, CVelImage& first, const CVelImage& second,
                      const CompositeOptions& options, CRect* window) {
  const auto plane = [](const CVelImage& like) {
    return CVelImage(like.VmManager(), CImage::Float, like.GetWidth(), like.GetHeight(), 1, 1.0, 0.0, 1,
                     nullptr);
  };
  CVelImage nothing = plane(first), ones = plane(second);
  ones.Fill(0, 1);
  ones.SetStdCtr(second.GetStdCtr());
  CImgComposit reach;
  if (!reach.Create(nothing, nullptr)) throw velora::CVmMemoryAllocationError("no room for the result");
  constexpr int kAdd = 1;
  reach.Do(&nothing, &ones, options.dx, options.dy, options.angle, 1, kAdd, options.Kernel(), 1, 0, 0, 1, 1,
           window, 0, -1);
  constexpr float kAll = 0.9f;  // the weights of some kernels add up to a little less than 1
  for (int p = 0; p < result.GetPlanes(); ++p) {
    for (int y = 0; y < result.GetHeight(); ++y) {
      const float *found = reach.GetLine(0, y, 0), *own = first.GetLine(0, y, p);
      float* out = result.GetWritableLine(0, y, p);
      for (int x = 0; x < result.GetWidth(); ++x) {
        if (!(found[x] > kAll)) out[x] = own[x];
      }
    }
  }
}

/// What the ranges of the options let through.
void Check(const CompositeOptions& options) {
  for (const double number : {options.dx, options.dy, options.angle, options.weight, options.threshold}) {
    if (std::isnan(number))
      throw UsageError("composite: write numbers for --dx, --dy, --angle and the others");
  }
  if (options.Mode() == kNeighbour && std::abs(options.angle) >= 90) {
    throw UsageError("--mode neighbour turns by less than 90 degrees");
  }
}

void Composite(Tool& tool, const CompositeOptions& options) {
  Check(options);
  CRect rect = options.rect.empty() ? CRect() : ParseRect(options.rect);
  CRect* window = options.rect.empty() ? nullptr : &rect;
  const nlohmann::ordered_json json{{"first", options.first},
                                    {"second", options.second},
                                    {"output", options.output},
                                    {"operation", options.Text()}};
  const std::string line = fmt::format("{} -> {}", options.Text(), options.output);
  if (tool.options.dryRun) return tool.job.Tell(Dump(json), line);
  tool.job.CheckOutput(options.output);
  const auto store = tool.job.MakeStore(options.store);
  Image loaded = Image::Open(tool.job, store, options.first, {.hdu = options.hdu});
  CVelImage& first = loaded.Pixels();
  Image other = Image::Open(tool.job, store, options.second, {.hdu = options.hdu});
  if (files::LiesOverturned(loaded.Header(), other.Header())) TurnOver(other.Pixels());
  const auto second = AsKindOf(first, std::move(other.Pointer()));
  // One centre for both paths, which would take the middle of an odd side differently.
  second->SetStdCtr(CentreOf(*second, options.centre));
  if (options.Mode() == kNeighbour) {
    first.CalcMinMax();
    second->CalcMinMax();
  }
  CImgComposit result;
  // Outside of a rectangle the target holds the first image: neighbours are looked at there.
  if (!(window ? result.CopyImage(first, nullptr, nullptr) : result.Create(first, nullptr))) {
    throw velora::CVmMemoryAllocationError("no room for the result");
  }
  result.SetProgressHandle(tool.job.OperationWindow("composite"));
  result.Do(&first, second.get(), options.dx, options.dy, options.angle, 1, options.Mode(), options.Kernel(),
            options.weight, options.level, options.cutMinus, options.threshold, options.radius, window, 1,
            -1);
  tool.job.EndProgress();
  if (options.Mode() != kNeighbour) RestoreUnreached(result, first, *second, options, window);
  // A small rectangle may have been widened: only what was asked for goes back into the image.
  if (window) first.Paste(&result, window);
  loaded.Header().AddHistory(fmt::format("korimg {} {}", Version(), options.Text()));
  SaveImage(tool.job, window ? first : result, loaded.Header(), options.output,
            {.integers = options.bits == "16"});
  tool.job.Tell(Dump(json), line);
}

}  // namespace

void AddComposite(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<CompositeOptions>();
  CLI::App* verb = app.add_subcommand("composite", "Combine two images into one");
  verb->add_option("first", options->first, "gives the size, header and levels of the result")->required();
  verb->add_option("second", options->second,
                   "of any size; mono serves colour, colour serves mono by its luminance")
      ->required();
  verb->add_option("-o,--output", options->output, "FITS, TIFF or PNG, by its extension")->required();
  verb->add_option("--dx", options->dx, "pixels by which the second is shifted to the right")
      ->check(CLI::Range(-kFar, kFar));
  verb->add_option("--dy", options->dy, "pixels by which it is shifted down")->check(CLI::Range(-kFar, kFar));
  verb->add_option("--angle", options->angle, "degrees by which it is turned first, clockwise on the screen")
      ->check(CLI::Range(-360.0, 360.0));
  verb->add_option("--centre", options->centre,
                   "X,Y of the second that it turns about; its middle unless told");
  verb->add_option(
          "--mode", options->mode,
          "how the two are combined; where the second does not reach, the first stands as it is; neighbour "
          "replaces what is saturated in a long exposure by a short one")
      ->check(CLI::IsMember(kModes));
  verb->add_option("--kernel", options->kernel, "how the second is read between its pixels")
      ->check(CLI::IsMember(NamesOf(kKernels)));
  verb->add_option("--weight", options->weight,
                   "weight: the second's share; neighbour: what the second is multiplied by")
      ->check(CLI::Range(-1e6, 1e6));
  verb->add_flag("--level", options->level, "combine by black and white of each image, not raw values");
  verb->add_flag("--cut-minus", options->cutMinus, "subtract: negative results become 0");
  verb->add_option("--threshold", options->threshold, "neighbour: saturated is what exceeds this share")
      ->check(CLI::Range(0.0, 1.0));
  verb->add_option("--radius", options->radius, "neighbour: pixels to look at on each side")
      ->check(CLI::Range(0, 2));
  verb->add_option("--rect", options->rect, "LEFT,TOP,RIGHT,BOTTOM: outside of it the first image stays");
  verb->add_option("--store", options->store, "contiguous or paged")
      ->check(CLI::IsMember({"contiguous", "paged"}));
  verb->add_option("--bits", options->bits, "float or 16, for FITS and TIFF")
      ->check(CLI::IsMember({"float", "16"}));
  verb->add_option("--hdu", options->hdu, "number or name of the FITS extension to read, of both images");
  AddCommonOptions(*verb, tool);
  verb->callback([options, &tool] {
    tool.Begin();
    Composite(tool, *options);
  });
}

}  // namespace korimg::tool
