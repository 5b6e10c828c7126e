// korimg render: a picture of an image, by its levels.
#include "session/picture/Render.h"

#include <algorithm>
#include <sstream>

#include "app/verbs/Verbs.h"
#include "session/operations/Gradient.h"
#include "session/operations/Operations.h"

namespace korimg::tool {

namespace {

/// Reads "name=value,name=value...".
CImgGradient::Options ReadGradient(const std::string& text) {
  Step step(FindOperation("gradient"));
  std::istringstream words(text);
  for (std::string word; std::getline(words, word, ',');) {
    const size_t equals = std::min(word.find('='), word.size());
    step.Set(word.substr(0, equals), equals < word.size() ? word.substr(equals + 1) : "");
  }
  return GradientOptionsOf(step);
}

}  // namespace

void AddRender(CLI::App& app, Tool& tool) {
  struct Arguments : RenderOptions {
    bool annotate = false;
    Annotations told;
    std::string gradientText;
  };
  auto options = std::make_shared<Arguments>();
  CLI::App* verb = app.add_subcommand("render", "Make a picture of an image");
  verb->add_option("input", options->input, "FITS, TIFF or PNG")->required();
  verb->add_option("-o,--output", options->output,
                   "the picture of 8 bits: PNG, TIFF or JPEG, by its extension")
      ->required();
  AddChoice(
      *verb, "--level", options->level, kLevelMethods,
      "auto stretches the midtones of a linear image so that its sky is a dark grey, and leaves an image "
      "of 8 bits as it is; linked the same without a neutral sky; normal, mean, median and histogram set "
      "black and white; none takes the image's own levels");
  verb->add_option("--scale", options->scale,
                   "1, or a fraction such as 0.25, rounded to one over a whole number")
      ->check(CLI::Range(0.001, 1.0));
  auto* annotate = verb->add_flag("--annotate", options->annotate,
                                  "draw what the next options say; without any, the name of the OBJECT and, "
                                  "where the scale is known, a scale bar");
  verb->add_option("--title", options->told.title, "text in the upper left corner")->needs(annotate);
  verb->add_flag("--scale-bar", options->told.scaleBar,
                 "bar of a round angle, by the world coordinates, or by FOCALLEN and XPIXSZ")
      ->needs(annotate);
  verb->add_option(
          "--stars", options->told.stars,
          "text file of circles, 'x y [radius]' in pixels of the image on each line, from the centre of "
          "its first pixel; # begins a comment")
      ->needs(annotate);
  auto* gradient =
      verb->add_flag("--gradient", options->gradientText,
                     "draw the boxes of sky that the operation gradient finds, and cross out those that "
                     "are no sky; with its parameters: --gradient=boxes=8,size=20")
          ->needs(annotate);
  verb->add_option("--hdu", options->hdu, "number or name of the FITS extension to read");
  AddCommonOptions(*verb, tool);
  verb->callback([options, gradient, &tool] {
    tool.Begin();
    if (options->annotate) options->annotations = options->told;
    if (gradient->count() > 0) {
      options->gradient = ReadGradient(options->gradientText == "true" ? "" : options->gradientText);
    }
    if (tool.options.dryRun) {
      PlanRender(tool.job, *options);
    } else {
      Render(tool.job, *options);
    }
  });
}

}  // namespace korimg::tool
