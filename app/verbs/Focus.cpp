// korimg focus: which frames are the sharpest.
#include "session/focus/Focus.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "app/verbs/Verbs.h"
#include "session/job/Json.h"

namespace korimg::tool {
namespace {

using Json = nlohmann::ordered_json;

void PrintFocus(const FileFocus& frame) {
  fmt::print("{}: focus {:.4f}, {} stars, FWHM {:.2f}, elongation {:.2f}{}\n", frame.file.string(),
             frame.focus, frame.stars, frame.fwhm, frame.elongation,
             frame.guideError ? fmt::format(", guide error {:.2f}", *frame.guideError) : "");
}

void PrintFocusJson(const FileFocus& frame, bool isBest) {
  fmt::print("{}\n", Dump(Json{{"file", frame.file.string()},
                               {"focus", frame.focus},
                               {"stars", frame.stars},
                               {"fwhm", frame.fwhm},
                               {"elongation", frame.elongation},
                               {"guide_error", frame.guideError ? Json(*frame.guideError) : Json()},
                               {"best", isBest}}));
}

}  // namespace

void AddFocus(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<FocusOptions>();
  CLI::App* verb = app.add_subcommand(
      "focus",
      "Tell how sharp frames of one scene are, the sharpest first: by the FWHM of their stars where all "
      "frames "
      "have 20 or more, else by the focus value, which is how much of the light above the sky lies in what "
      "is "
      "finer than ten pixels, from 0 to nearly 2, whatever the exposure. The guide error is the mean "
      "elongation of the bright stars, 1 for round");
  verb->add_option("images", options->files, "files or folders: FITS, TIFF, PNG or camera raw")->required();
  verb->add_option("--hdu", options->hdu, "number or name of the FITS extension to read");
  AddCommonOptions(*verb, tool);
  verb->callback([options, &tool] {
    tool.Begin();
    const auto [frames, byStars] = RankByFocus(tool.job, *options);
    for (const FileFocus& frame : frames) {
      const bool isBest = &frame == &frames.front() && frame.focus > 0;
      tool.options.json ? PrintFocusJson(frame, isBest) : PrintFocus(frame);
    }
    if (tool.options.json || frames.size() < 2) return;
    fmt::print(
        "best by {}: {}\n", byStars ? "FWHM" : "focus",
        frames.front().focus > 0 ? frames.front().file.string() : "none; nothing stands out of the sky");
  });
}

}  // namespace korimg::tool
