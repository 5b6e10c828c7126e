// The korimg tool: reads the command line and runs one verb.
#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "app/tool/Tool.h"
#include "app/verbs/Verbs.h"
#include "session/files/ImageFile.h"

using namespace korimg;
using namespace korimg::tool;

namespace {

/// The words of the call, quoted where a shell would need it.
std::string CommandLine(int argc, char** argv) {
  std::string line = "korimg";
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    const bool plain = !word.empty() && word.find_first_of(" '\"*?[]()$&;|<>\\") == std::string::npos;
    line += plain ? " " + word : " '" + word + "'";
  }
  return line;
}

int ExitCodeOf(ErrorKind kind) {
  return kind == ErrorKind::Cancelled ? kCancelled : kind == ErrorKind::Usage ? kBadUsage : kFailed;
}

int Run(int argc, char** argv, Tool& tool) {
  CLI::App app("Image processing for astronomy: from raw camera frames to a picture.", "korimg");
  app.set_help_all_flag("--help-all", "Help of all verbs");
  app.option_defaults()->always_capture_default();
  app.require_subcommand(0, 1);  // what is named as a verb after another one is a word of that one
  AddVersion(app, tool);
  for (const auto add :
       {AddInfo, AddOps, AddApply, AddCalibrate, AddCompose, AddComposite, AddDevelop, AddFocus, AddRegister,
        AddRender, AddRun, AddSimulate, AddSky, AddStack, AddStars, AddView}) {
    add(app, tool);
  }
  for (CLI::App* verb : app.get_subcommands({})) {
    for (CLI::Option* option : verb->get_options()) {
      if (option->get_default_str() == "[]") option->default_str("");  // no files
    }
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const int code = app.exit(error);
    return code == 0 ? kDone : kBadUsage;
  }
  if (tool.ExitCode() == kDone)
    tool.job.CheckComputed("korimg");  // nothing was saved that could have said it
  return tool.ExitCode();
}

}  // namespace

int main(int argc, char** argv) {
  CatchSignals();
  Tool tool;
  tool.job.options.origin = CommandLine(argc, argv);
  try {
    try {
      return Run(argc, argv, tool);
    } catch (...) {
      ThrowOfFamily();  // the verbs' own too
    }
  } catch (const Error& error) {
    if (error.Kind() == ErrorKind::Cancelled) files::RemovePartialFiles();
    tool.console.Error(error.what());
    return ExitCodeOf(error.Kind());
  }
}
