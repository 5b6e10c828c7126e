// korimg view: images and sessions in the browser.
#include "app/verbs/Verbs.h"

#ifdef KORIMG_VIEWER
#include "viewer/Viewer.h"
#endif

namespace korimg::tool {

#ifdef KORIMG_VIEWER

void AddView(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<viewer::ViewOptions>();
  CLI::App* verb = app.add_subcommand("view", "Look at images in the browser");
  verb->add_option("paths", options->paths, "files and folders: nothing else can be seen from the page");
  auto* watch = verb->add_option(
      "--watch", options->watch,
      "a folder that a camera fills: each frame is calibrated, laid on the first one and added "
      "to a stack that the page shows");
  verb->add_option("--masters", options->masters,
                   "folder of ready masters for these frames; else calibration frames in "
                   "the watched folder serve")
      ->needs(watch);
  verb->add_option("--port", options->port, "of the page's address")
      ->default_str("any that is free")
      ->check(CLI::Range(1, 65535));
  verb->add_option("--listen", options->address,
                   "address to listen on; others than this machine's own let others ask, who need the token");
  verb->add_flag_function(
      "--no-browser", [options](std::int64_t) { options->opensBrowser = false; }, "only tell the address");
  AddCommonOptions(*verb, tool);
  verb->callback([options, &tool] {
    tool.Begin();
    if (options->paths.empty() && options->watch.empty()) {
      throw UsageError("name files or folders, or --watch FOLDER; see korimg view --help");
    }
    if (!tool.options.dryRun) viewer::View(tool.job, *options);
  });
}

#else

void AddView(CLI::App& app, Tool&) {
  CLI::App* verb = app.add_subcommand("view", "Look at images in the browser (not built in)");
  verb->allow_extras();
  verb->callback([] {
    throw UsageError(
        "this korimg was built without its viewer; install libcpp-httplib-dev and npm, run `npm ci "
        "--ignore-scripts` in viewer/, and build it again");
  });
}

#endif

}  // namespace korimg::tool
