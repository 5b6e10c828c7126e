// korimg run: a session's folder to a finished picture.
#include "session/run/Run.h"

#include <set>

#include <fmt/format.h>

#include "korimg/pipelines/runtime/Runtime.h"

#include "app/verbs/RunPlan.h"
#include "app/verbs/Verbs.h"
#include "session/calibrate/FindSession.h"
#include "session/job/Json.h"

namespace korimg::tool {

namespace fs = std::filesystem;

namespace {

struct Arguments {
  fs::path session, calibration, selection;
  RunOptions options;
};

/// What tells one run from another.
void AddArguments(CLI::App* verb, Arguments* arguments) {
  RunOptions& options = arguments->options;
  verb->add_option("folder", arguments->session,
                   "holds the frames, in folders of any kind: told by IMAGETYP, or by folders called lights, "
                   "darks, flats "
                   "and biases")
      ->required();
  AddCalibrationOptions(*verb, options.calibrate);
  verb->add_option("--calibration", arguments->calibration,
                   "folder of calibration frames or ready masters: of kinds that the session has none of");
  verb->add_option(
      "--masters", options.calibrate.masters,
      "folder of masters of any sessions: those made of the same frames are used again, others are added; "
      "without it they are kept in OUT/masters");
  verb->add_option(
      "--reference", options.reference,
      "a light, or an image of the lights' size such as a stack of another night, whose grid all stacks "
      "lie on; the best light unless told");
  verb->add_option("--include", options.include, "patterns of names: only these lights are used");
  verb->add_option("--exclude", options.exclude, "patterns of names: these lights are left out");
  verb->add_option("--selection", arguments->selection,
                   "a file of JSON with lists include and exclude, and reference");
  verb->add_option("--min-stars", options.limits.stars,
                   "leave out frames with fewer stars than this share of the median; 0: no limit")
      ->check(CLI::Range(0.0, 1.0));
  verb->add_option("--max-fwhm", options.limits.fwhm,
                   "leave out frames whose FWHM is more than this many times the median; 0: no limit")
      ->check(CLI::Range(0.0, 100.0));
  verb->add_option("--max-elongation", options.limits.elongation,
                   "leave out frames whose elongation is more than this many times the median; 0: no limit")
      ->check(CLI::Range(0.0, 100.0));
  AddModel(*verb, options.lay.model);
  AddStackChoices(*verb, options.stack);
  AddChoice(
      *verb, "--palette", options.palette, kPalettes,
      "the colour image of several filters: auto finds luminance, red, green and blue, else SII, Ha and "
      "OIII, by their names; rgb, sho (SII, Ha, OIII as red, green, blue), hoo (Ha, OIII, OIII) want "
      "these; none makes no colour image");
  verb->add_flag("--rejection-maps", options.rejectionMaps,
                 "write stack_low.fits and stack_high.fits too: the number of values rejected in each pixel");
  verb->add_flag(
      "--gradient", options.gradient,
      "take the gradient of moonlight or city light off each stack, as the operation gradient does; "
      "what was taken off is kept in stack_gradient.fits");
}

/// The options with the frames of the session's folder.
RunOptions Complete(Tool& tool, Arguments& arguments) {
  if (!arguments.selection.empty()) AddSelection(arguments.options, arguments.selection);
  CalibrateOptions& frames = arguments.options.calibrate;
  if (frames.maps && frames.cosmetic == Cosmetic::None) {
    throw UsageError("--maps writes what --cosmetic auto finds; leave out --cosmetic none");
  }
  TakeSession(tool.job, arguments.session, frames, arguments.calibration);
  return arguments.options;
}

/// The words of the arguments that were given.
std::vector<std::string> WordsOf(const CLI::App& verb) {
  CLI::App known;
  Arguments unused;
  AddArguments(&known, &unused);
  std::vector<std::string> words;
  for (const CLI::Option* option : known.get_options()) {
    const CLI::Option* given = verb.get_option_no_throw(option->get_name());
    if (!given || given->count() == 0) continue;
    if (given->get_items_expected_max() == 0) {
      words.push_back(given->get_name());
      continue;
    }
    for (const std::string& value : given->results()) {
      words.push_back(given->get_positional() ? value : given->get_name() + "=" + value);
    }
  }
  return words;
}

void MakePlan(Tool& tool, const CLI::App& verb, const RunOptions& options, const fs::path& file, int parts) {
  if (!tool.options.dryRun) tool.job.CheckOutput(file);
  RunPlan plan{fs::current_path(), WordsOf(verb), PlanTasks(tool.job, options, parts)};
  if (!tool.options.dryRun) Write(plan, file);
  const int count = static_cast<int>(plan.tasks.size());
  for (int first = 0, next = 0; first < count; first = next) {
    const RunTask::Stage stage = plan.tasks[first].stage;
    while (next < count && plan.tasks[next].stage == stage) {
      ++next;
    }
    const std::string name = NameOf(kRunStages, stage);
    tool.job.Tell(Dump({{"stage", name}, {"first", first}, {"last", next - 1}}),
                  next - first == 1 ? fmt::format("{}: task {}", name, first)
                                    : fmt::format("{}: tasks {}-{}", name, first, next - 1));
  }
  if (options.stack.drizzle) tool.job.Say("what is drizzled is made by the task finish");
}

void DoTasks(Tool& tool, const fs::path& file, const std::string& which) {
  const RunPlan plan = ReadPlan(file);
  const std::vector<int> numbers = ParseNumbers(which, static_cast<int>(plan.tasks.size()));
  std::error_code error;
  fs::current_path(plan.folder, error);
  if (error) {
    throw files::FileError(plan.folder, "cannot be reached; the plan in " + file.string() +
                                            " was made there, and its paths count from it");
  }
  Arguments arguments;
  CLI::App app;
  AddArguments(&app, &arguments);
  app.parse(std::vector<std::string>(plan.arguments.rbegin(), plan.arguments.rend()));
  tool.job.options.origin = fmt::format("korimg run {}", fmt::join(plan.arguments, " "));
  const RunOptions options = Complete(tool, arguments);
  for (const int number : numbers) {
    tool.job.Say(fmt::format("task {}: {}", number, plan.tasks[number].Text()));
    if (!tool.options.dryRun) DoTask(tool.job, options, plan.tasks[number]);
  }
}

}  // namespace

void AddRun(CLI::App& app, Tool& tool) {
  struct Call : Arguments {
    fs::path planOnly, plan;
    int parts = 8;
    std::string task;
  };
  auto call = std::make_shared<Call>();
  CLI::App* verb = app.add_subcommand("run", "Work through a session: from raw frames to a finished picture");
  AddArguments(verb, call.get());
  verb->add_option(
      "--plan-only", call->planOnly,
      "do nothing but write a plan of the run into this file of JSON: tasks for machines that share "
      "the frames and the folder of results");
  verb->add_option("--parts", call->parts,
                   "--plan-only: tasks that lights, and the rows of each stack, are cut into")
      ->check(CLI::Range(1, 100000));
  CLI::Option* const task = verb->add_option(
      "--task", call->task, "--plan: numbers of the tasks to be done, in order, as in 0-3,7");
  verb->add_option_function<fs::path>(
          "--plan",
          [call, verb](const fs::path& file) {
            call->plan = file;
            // The plan has them.
            verb->get_option("folder")->required(false);
            verb->get_option("--out")->required(false);
          },
          "do tasks of a plan, and nothing else; other arguments are those of the plan")
      ->trigger_on_parse()
      ->needs(task);
  task->needs("--plan");
  AddCommonOptions(*verb, tool);
  verb->callback([call, verb, &tool] {
    tool.Begin();
    if (!call->plan.empty()) {
      if (!WordsOf(*verb).empty() || !call->planOnly.empty()) {
        throw UsageError(
            "--plan has the arguments of its call; give --task, and options of the machine alone");
      }
      return DoTasks(tool, call->plan, call->task);
    }
    const RunOptions options = Complete(tool, *call);
    if (!call->planOnly.empty()) {
      MakePlan(tool, *verb, options, call->planOnly, call->parts);
    } else if (tool.options.dryRun) {
      PlanRun(tool.job, options);
    } else {
      Run(tool.job, options);
    }
  });
}

}  // namespace korimg::tool
