// korimg composite: two images become one, by shift, angle and mode.
#include "session/composite/Composite.h"

#include <cmath>

#include <fmt/format.h>

#include "app/verbs/Verbs.h"
#include "session/operations/Kernels.h"
#include "session/operations/Operation.h"

namespace korimg::tool {
namespace {

constexpr double kFar = 1e6;  // pixels

std::pair<double, double> ParseCentre(const std::string& text) {
  const size_t comma = text.find(',');
  const auto x = ToNumber(text.substr(0, comma)),
             y = ToNumber(comma == std::string::npos ? "" : text.substr(comma + 1));
  // The negation refuses NaN too.
  if (!x || !y || !(std::abs(*x) <= kFar && std::abs(*y) <= kFar)) {
    throw UsageError(fmt::format("--centre {}: write X,Y in pixels", text));
  }
  return {*x, *y};
}

}  // namespace

void AddComposite(CLI::App& app, Tool& tool) {
  struct Arguments : CompositeFilesOptions {
    std::string centreText, rectText;
  };
  auto options = std::make_shared<Arguments>();
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
  verb->add_option("--centre", options->centreText,
                   "X,Y of the second that it turns about; its middle unless told");
  AddChoice(*verb, "--mode", options->mode, kCompositeModes,
            "how the two are combined; where the second does not reach, the first stands as it is; neighbour "
            "replaces what is saturated in a long exposure by a short one");
  AddChoice(*verb, "--kernel", options->kernel, kKernels, "how the second is read between its pixels");
  verb->add_option("--weight", options->weight,
                   "weight: the second's share; neighbour: what the second is multiplied by")
      ->check(CLI::Range(-1e6, 1e6));
  verb->add_flag("--level", options->level, "combine by black and white of each image, not raw values");
  verb->add_flag("--cut-minus", options->cutMinus, "subtract: negative results become 0");
  verb->add_option("--threshold", options->threshold, "neighbour: saturated is what exceeds this share")
      ->check(CLI::Range(0.0, 1.0));
  verb->add_option("--radius", options->radius, "neighbour: pixels to look at on each side")
      ->check(CLI::Range(0, 2));
  verb->add_option("--rect", options->rectText, "LEFT,TOP,RIGHT,BOTTOM: outside of it the first image stays");
  AddImageOptions(*verb, options->paged, options->integers);
  verb->add_option("--hdu", options->hdu, "number or name of the FITS extension to read, of both images");
  AddCommonOptions(*verb, tool);
  verb->callback([options, &tool] {
    tool.Begin();
    if (!options->centreText.empty()) options->centre = ParseCentre(options->centreText);
    if (!options->rectText.empty()) options->rect = ParseRect(options->rectText);
    if (tool.options.dryRun) {
      PlanCompositeFiles(tool.job, *options);
    } else {
      CompositeFiles(tool.job, *options);
    }
  });
}

}  // namespace korimg::tool
