// A session before it runs: its plan by options, and its run.
#include <algorithm>
#include <functional>

#include <fmt/format.h>

#include "session/calibrate/FindSession.h"
#include "session/job/Json.h"
#include "session/run/Run.h"
#include "viewer/api/Api.h"

namespace korimg::viewer {

using namespace session;

namespace {

namespace fs = std::filesystem;

/// An option of a run that the page has a field for: as the command line names it, and what it does.
struct Option {
  enum Kind { Choice, Number, Flag, Names };

  const char* name;
  Kind kind;
  const char* help;
  std::vector<std::string> choices;  ///< the usual one first
  double low = 0, high = 0;
  std::function<void(RunOptions&, const std::string&)> take;
};

template <class E>
std::function<void(RunOptions&, const std::string&)> Taking(const std::vector<Named<E>>& names,
                                                            E& (*member)(RunOptions&)) {
  return [&names, member](RunOptions& options, const std::string& word) {
    member(options) = session::ValueOf(names, word);
  };
}

const std::vector<Option>& Options() {
  static const std::vector<Option> options = {
      {"reject", Option::Choice, "how outliers such as trails, cosmic rays and hot pixels are told",
       session::NamesOf(kRejections), 0, 0,
       Taking<Rejection::Test>(kRejections,
                               [](RunOptions& o) -> Rejection::Test& { return o.stack.reject; })},
      {"normalize", Option::Choice,
       "brings each frame to the reference: the level of its sky, or its scale too",
       session::NamesOf(kNormalisations), 0, 0,
       Taking<std::optional<Normalisation>>(
           kNormalisations,
           [](RunOptions& o) -> std::optional<Normalisation>& { return o.stack.normalise; })},
      {"weight", Option::Choice, "of frames", session::NamesOf(kFrameWeights), 0, 0,
       Taking<FrameWeights>(kFrameWeights, [](RunOptions& o) -> FrameWeights& { return o.stack.weight; })},
      {"drizzle",
       Option::Number,
       "lays pixels on a grid so many times as fine",
       {},
       1,
       4,
       [](RunOptions& o, const std::string& number) {
         o.stack.drizzle.emplace().scale = ToNumber(number).value_or(0);
       }},
      {"model", Option::Choice, "what lays lights on the reference", session::NamesOf(kFrameModels), 0, 0,
       Taking<FrameModel>(kFrameModels, [](RunOptions& o) -> FrameModel& { return o.lay.model; })},
      {"palette", Option::Choice, "the colour image of several filters", session::NamesOf(kPalettes), 0, 0,
       Taking<Palette>(kPalettes, [](RunOptions& o) -> Palette& { return o.palette; })},
      {"cosmetic", Option::Choice, "hot and cold pixels are mended", session::NamesOf(kCosmetics), 0, 0,
       Taking<Cosmetic>(kCosmetics, [](RunOptions& o) -> Cosmetic& { return o.calibrate.cosmetic; })},
      {"max-fwhm",
       Option::Number,
       "leaves out lights of more than so many times the median; 0: no limit",
       {},
       0,
       100,
       [](RunOptions& o, const std::string& number) { o.limits.fwhm = ToNumber(number).value_or(0); }},
      {"min-stars",
       Option::Number,
       "leaves out lights with fewer stars than this share of the median",
       {},
       0,
       1,
       [](RunOptions& o, const std::string& number) { o.limits.stars = ToNumber(number).value_or(0); }},
      {"exclude",
       Option::Names,
       "patterns of names, with blanks between: these lights are left out",
       {},
       0,
       0,
       [](RunOptions& o, const std::string& pattern) { o.exclude.push_back(pattern); }},
      {"gradient",
       Option::Flag,
       "takes the gradient of moonlight or city light off",
       {},
       0,
       0,
       [](RunOptions& o, const std::string&) { o.gradient = true; }},
      {"uncertainty",
       Option::Flag,
       "writes the standard deviation of each pixel too",
       {},
       0,
       0,
       [](RunOptions& o, const std::string&) { o.calibrate.quality.uncertainty = true; }},
      {"allow-mismatch",
       Option::Flag,
       "calibration frames that differ in more than size serve with a warning",
       {},
       0,
       0,
       [](RunOptions& o, const std::string&) { o.calibrate.allowMismatch = true; }},
  };
  return options;
}

Response TellOptions() {
  static constexpr const char* kinds[] = {"choice", "number", "flag", "names"};
  Json list = Json::array();
  for (const Option& option : Options()) {
    list.push_back({{"name", option.name},
                    {"kind", kinds[option.kind]},
                    {"help", option.help},
                    {"choices", option.choices},
                    {"low", option.low},
                    {"high", option.high}});
  }
  return JsonResponse(list);
}

/// What a request asks for.
struct Wanted {
  fs::path folder;
  RunOptions options;
  std::string command;  ///< that does the same
};

/// Reads {"folder": its number, "out": a name in it, "options": {NAME: text}}.
Wanted WantedBy(const Json& body, Context& context) {
  const int number = ValueIn(body, "folder", -1);
  const auto& folders = context.files.Folders();
  if (number < 0 || number >= static_cast<int>(folders.size())) throw UsageError("no folder has that number");
  Wanted wanted{.folder = folders[number]};
  const fs::path out = ResultsIn(wanted.folder, ValueIn<std::string>(body, "out", "result"));
  wanted.options.calibrate.out = out;
  wanted.command =
      fmt::format("korimg run {} --out {}", Quoted(wanted.folder.string()), Quoted(out.string()));
  const Json given = ValueIn(body, "options", Json::object());
  if (!given.is_object()) throw UsageError("options are an object");
  for (const auto& [name, unused] : given.items()) {
    if (std::ranges::find(Options(), name, &Option::name) == Options().end()) {
      throw UsageError(fmt::format("there is no option '{}' here", name));
    }
  }
  for (const Option& option : Options()) {
    const std::string text = ValueIn<std::string>(given, option.name, "");
    if (text.empty()) continue;
    if (option.kind == Option::Choice && std::ranges::find(option.choices, text) == option.choices.end()) {
      throw UsageError(
          fmt::format("{}: '{}' is none of {}", option.name, text, fmt::join(option.choices, ", ")));
    }
    if (option.kind == Option::Number) {
      const auto value = ToNumber(text);
      if (!value || !(*value >= option.low && *value <= option.high)) {
        throw UsageError(fmt::format("{} is a number from {} to {}", option.name, option.low, option.high));
      }
    }
    std::istringstream words(text);
    for (std::string word; words >> word;) {
      option.take(wanted.options, word);
      wanted.command += fmt::format(" --{}", option.name);
      if (option.kind != Option::Flag) wanted.command += "=" + Quoted(word);
    }
  }
  StackChoices choices = wanted.options.stack;
  choices.Settle(true);
  choices.Options();  // refuses what does not go together
  return wanted;
}

/// The options with the frames of the session.
RunOptions Complete(Job& job, const Wanted& wanted) {
  RunOptions options = wanted.options;
  TakeSession(job, wanted.folder, options.calibrate);
  return options;
}

/// Named folders, and what lies in each.
Response TellFolders(const Request& request, Context& context) {
  Json list = Json::array();
  for (const fs::path& folder : context.files.Folders()) {
    Json entry{{"name", folder.filename().string()}};
    try {
      Job job({.cancel = TokenOf(request, context.job)});
      const SessionFrames found = FindSession(job, folder);
      entry.update({{"lights", found.lights.size()},
                    {"darks", found.darks.size()},
                    {"flats", found.flats.size()},
                    {"biases", found.biases.size()}});
    } catch (const files::FileError& error) {
      entry["error"] = error.what();
    }
    list.push_back(std::move(entry));
  }
  return JsonResponse(list);
}

Response MakePlan(const Request& request, Context& context) {
  const Wanted wanted = WantedBy(BodyOf(request), context);
  Json told{{"command", wanted.command},
            {"notes", Json::array()},
            {"warnings", Json::array()},
            {"rows", Json::array()}};
  JobOptions world{.cancel = TokenOf(request, context.job), .memory = context.job.Memory() / 2};
  world.overwrite = true;  // what is there is told of when it is run
  world.report = [&told](const Event& event) {
    const bool isWrong = event.kind == Event::Warning || event.kind == Event::Failure;
    if (isWrong) told["warnings"].push_back(event.text);
    if (event.kind == Event::Note) told["notes"].push_back(event.text);
    if (event.kind != Event::Result) return;
    Json row = Json::parse(event.data, nullptr, false);
    if (row.is_object() && row.contains("plan")) {
      told["plan"] = row["plan"];
    } else if (row.is_object() && row.contains("file")) {
      row["file"] = fs::path(row["file"].get<std::string>()).filename().string();
      told["rows"].push_back(std::move(row));
    } else if (!event.text.empty()) {
      told["notes"].push_back(event.text);
    }
  };
  Job job(world);
  PlanRun(job, Complete(job, wanted));
  told["exists"] = fs::exists(wanted.options.calibrate.out);
  return JsonResponse(told);
}

Response BeginRun(const Request& request, Context& context) {
  const Json body = BodyOf(request);
  const Wanted wanted = WantedBy(body, context);
  JobOptions world;
  world.overwrite = ValueIn(body, "overwrite", false);
  world.origin = wanted.command;
  const int number =
      context.work.Start("the run of " + wanted.folder.filename().string(), world, [wanted](Job& job) {
        const RunResult result = Run(job, Complete(job, wanted));
        Json made{{"out", wanted.options.calibrate.out.filename().string()}, {"stacks", Json::array()}};
        for (const RunStack& stack : result.stacks) {
          made["stacks"].push_back({{"file", stack.file.filename().string()},
                                    {"frames", stack.frames},
                                    {"lights", stack.lights},
                                    {"fwhm", stack.fwhm},
                                    {"noise", stack.noise}});
        }
        return made;
      });
  return JsonResponse({{"number", number}});
}

}  // namespace

void AddPlan(Router& router, Context& context) {
  router.Get("plan/folders", [&context](const Request& request) { return TellFolders(request, context); });
  router.Get("plan/options", [](const Request&) { return TellOptions(); });
  router.Post("plan/make", [&context](const Request& request) { return MakePlan(request, context); });
  router.Post("plan/run", [&context](const Request& request) { return BeginRun(request, context); });
}

}  // namespace korimg::viewer
