#include <algorithm>
#include <cmath>
#include <filesystem>

#include "session/files/Formats.h"
#include "viewer/api/Api.h"
#include "viewer/run/Rejections.h"
#include "viewer/run/Runs.h"

namespace korimg::viewer {

using namespace session;

namespace fs = std::filesystem;

namespace {

Json NumberOrNull(const std::optional<double>& value) {
  return value && std::isfinite(*value) ? Json(*value) : Json();
}

std::shared_ptr<ViewedRun> RunOf(const Request& request, Context& context) {
  return context.runs.Get(WholeOf(request, "run", 0, 1 << 20));
}

std::size_t FrameOf(const Request& request, const ViewedRun& run) {
  return WholeOf(request, "frame", 0, static_cast<int>(run.Run().frames.size()) - 1);
}

/// The run that a body is about, by its number. Frames are counted as the `version` that the page has seen
/// counts them.
std::shared_ptr<ViewedRun> RunOf(const Json& body, Context& context) {
  constexpr int kMany = 1 << 20;  // chosen: runs that a page can name
  const int run = ValueIn(body, "run", -1);
  if (run < 0 || run > kMany || !body["run"].is_number_integer())
    throw UsageError("run is the number of a run");
  auto viewed = context.runs.Get(run);
  if (ValueIn(body, "version", 0) != viewed->Version()) {
    throw UsageError("the run was done again since this page has seen it: nothing is changed");
  }
  return viewed;
}

Json JsonOf(const FinishedFrame& frame) {
  Json json{{"name", frame.frame.file.filename().string()},
            {"filter", frame.filter},
            {"stack", frame.stack},
            {"start", NumberOrNull(frame.start)},
            {"exposure", NumberOrNull(frame.exposure)},
            {"status", frame.frame.status},
            {"stacked", frame.frame.isStacked},
            {"measured", frame.isMeasured},
            {"registered", frame.isMeasured && frame.frame.registration.IsGood()}};
  if (!frame.isMeasured) return json;
  const FrameMeasure& m = frame.frame.measure;
  const Registration& r = frame.frame.registration;
  json.update({{"stars", m.starCount}, {"sky", NumberOrNull(m.sky)}, {"noise", NumberOrNull(m.noise)}});
  if (m.starCount > 0) {
    json.update({{"fwhm", NumberOrNull(m.fwhm)},
                 {"elongation", NumberOrNull(m.elongation)},
                 {"guide", NumberOrNull(m.guideError)}});
  }
  if (r.IsGood()) {
    json.update({{"dx", NumberOrNull(r.dx)},
                 {"dy", NumberOrNull(r.dy)},
                 {"shift", NumberOrNull(std::hypot(r.dx, r.dy))},
                 {"degrees", NumberOrNull(r.degrees)},
                 {"residual", NumberOrNull(r.residual)},
                 {"light", NumberOrNull(r.fluxRatio)},
                 {"method", r.method},
                 {"note", r.note}});
  }
  if (frame.frame.isStacked) {
    json.update(
        {{"weight", NumberOrNull(frame.frame.weight)}, {"rejected", NumberOrNull(frame.frame.rejected)}});
  }
  return json;
}

/// A map of what was rejected.
fs::path MapOf(const RunStack& stack, const std::string& name) {
  return stack.file.parent_path() / (stack.file.stem().string() + "_" + name + ".fits");
}

Json JsonOf(const ViewedRun& run, const Flags& flags) {
  return {{"version", run.Version()},
          {"out", flags.Now()},
          {"saved", flags.IsSaved()},
          {"undo", flags.CanUndo()},
          {"problem", flags.Problem()}};
}

Response Info(const Request& request, Context& context) {
  const auto viewed = RunOf(request, context);
  const FinishedRun& run = viewed->Run();
  Json json{{"version", viewed->Version()}, {"made", run.version},
            {"command", run.command},       {"width", run.grid.width},
            {"height", run.grid.height},    {"reference", run.reference ? Json(*run.reference) : Json()},
            {"frames", Json::array()},      {"stacks", Json::array()}};
  for (const FinishedFrame& frame : run.frames) {
    json["frames"].push_back(JsonOf(frame));
  }
  for (const RunStack& stack : run.stacks) {
    const auto image = context.files.NumberOf(stack.file);
    const auto low = context.files.NumberOf(MapOf(stack, "low")),
               high = context.files.NumberOf(MapOf(stack, "high"));
    json["stacks"].push_back({{"name", stack.file.stem().string()},
                              {"image", image ? Json(*image) : Json()},
                              {"maps", low && high && run.options.rejectionMaps},
                              {"filter", stack.filter},
                              {"frames", stack.frames},
                              {"lights", stack.lights},
                              {"exposure", stack.exposure},
                              {"fwhm", NumberOrNull(stack.fwhm)},
                              {"noise", NumberOrNull(stack.noise)}});
  }
  json["flags"] = viewed->WithFlags([&](const Flags& flags) { return JsonOf(*viewed, flags); });
  return JsonResponse(json);
}

/// A picture that stays what it is for the version of the run.
Response Picture(const Request& request, const ViewedRun& run, std::string jpeg) {
  Response response{.type = "image/jpeg", .body = std::move(jpeg)};
  if (TextOf(request, "v") == std::to_string(run.Version())) {
    response.headers.emplace_back("Cache-Control", "private, max-age=600");
  }
  return response;
}

Response Thumbnail(const Request& request, Context& context) {
  const auto run = RunOf(request, context);
  std::string jpeg = ThumbnailOf(run->Run(), FrameOf(request, *run));
  if (jpeg.empty()) throw UsageError("there is no small picture of this frame");
  return Picture(request, *run, std::move(jpeg));
}

Response Preview(const Request& request, Context& context) {
  constexpr int kLargest = 1600;  // pixels; chosen for a screen
  const auto run = RunOf(request, context);
  const int side = WholeOf(request, "side", 64, kLargest);
  return Picture(request, *run, run->Preview(FrameOf(request, *run), side, request.isGone));
}

/// What a registered frame can be looked at by, and the levels of all frames of its stack.
Response Frame(const Request& request, Context& context) {
  const auto run = RunOf(request, context);
  const std::size_t frame = FrameOf(request, *run);
  const FinishedFrame& told = run->Run().frames[frame];
  if (!told.isMeasured || !told.frame.registration.IsGood()) {
    throw UsageError("this frame is not registered: " + told.frame.status);
  }
  const Levels levels = run->LevelsOf(frame);
  Json json{{"image", run->ImageOf(frame)}, {"levels", Json::array()}};
  for (int p = 0; p < std::min(run->Planes(), 3); ++p) {
    for (const double value : {levels.min[p], levels.midtone[p], levels.max[p]})
      json["levels"].push_back(value);
  }
  return JsonResponse(json);
}

/// A tile of what was rejected, to be laid over the stack's.
Response Rejected(const Request& request, Context& context) {
  const auto viewed = RunOf(request, context);
  const FinishedRun& run = viewed->Run();
  if (run.stacks.empty()) throw UsageError("the run has no stack");
  const RunStack& stack = run.stacks[WholeOf(request, "stack", 0, static_cast<int>(run.stacks.size()) - 1)];
  const auto low = context.files.NumberOf(MapOf(stack, "low")),
             high = context.files.NumberOf(MapOf(stack, "high"));
  if (!low || !high)
    throw UsageError("there are no maps of this stack; korimg run --rejection-maps writes them");
  const TilePlace place = PlaceOf(request);
  const auto below = context.images.Get(*low, false), above = context.images.Get(*high, false);
  return {.type = "image/png",
          .body = DrawRejections(*below->pyramid, *above->pyramid, place, stack.frames, request.isGone)};
}

Response Flag(const Request& request, Context& context) {
  const Json body = BodyOf(request);
  const bool isWhole =
      body.contains("frames") && body["frames"].is_array() && body.contains("out") &&
      body["out"].is_boolean() &&
      std::ranges::all_of(body["frames"], [](const Json& n) { return n.is_number_unsigned(); });
  if (!isWhole) throw UsageError("flags want \"frames\", a list of numbers, and \"out\", true or false");
  const auto run = RunOf(body, context);
  return JsonResponse(run->WithFlags([&](Flags& flags) {
    flags.Set(body["frames"].get<std::vector<std::size_t>>(), body["out"]);
    return JsonOf(*run, flags);
  }));
}

/// It holds a run that was cancelled, which the next one goes on with.
bool IsCancelled(const fs::path& folder) {
  return !fs::is_symlink(folder) && fs::is_directory(folder / ".korimg") &&
         !fs::exists(folder / "report.html");
}

/// The folder that a run is done again into: its own, or a new one below it.
fs::path FolderFor(const FinishedRun& run, const Json& body) {
  const std::string name = body.value("folder", Json("")).is_string() ? body.value("folder", "") : "?";
  if (name.empty()) {
    if (body.value("replace", Json(false)) != true) {
      throw UsageError("the results of the run before are replaced only when \"replace\" is true");
    }
    return run.folder;
  }
  const bool isPlain = name.size() <= 64 && std::ranges::all_of(name, [](unsigned char c) {
                         return std::isalnum(c) || c == '-' || c == '_';
                       });
  if (!isPlain) throw UsageError("a folder's name has letters, digits, - and _");
  const fs::path folder = run.folder / name;
  if (fs::exists(fs::symlink_status(folder)) && !IsCancelled(folder))
    throw files::FileError(folder, "exists; choose another name");
  return folder;
}

Response Again(const Request& request, Context& context) {
  const Json body = BodyOf(request);
  const auto viewed = RunOf(body, context);
  const int id = body["run"];
  const FinishedRun& run = viewed->Run();
  const fs::path folder = FolderFor(run, body);
  const auto leftOut = viewed->WithFlags([&](Flags& flags) {
    flags.Save(run);
    return flags.Now();
  });
  RunOptions options = session::Again(run, leftOut);
  if (folder != run.folder) {
    if (!options.calibrate.darks.empty() || !options.calibrate.flats.empty() ||
        !options.calibrate.biases.empty())
      options.calibrate.masters = run.options.calibrate.masters;  // those that are there
    options.calibrate.out = folder;
  }
  const auto left = std::ranges::count(leftOut, true);
  const std::string first = run.command.substr(0, run.command.find(" (again, "));
  const std::string origin = (first.empty() ? "korimg view" : first) + " (again, without " +
                             std::to_string(left) + " frames, by korimg view)";
  context.work.Start("stacking " + run.folder.filename().string() + " again", {.origin = origin},
                     [options, id](Job& job) -> Json {
                       const RunResult result = Run(job, options);
                       Json stacks = Json::array();
                       for (const RunStack& stack : result.stacks) {
                         stacks.push_back({{"name", stack.file.stem().string()},
                                           {"frames", stack.frames},
                                           {"lights", stack.lights},
                                           {"fwhm", NumberOrNull(stack.fwhm)},
                                           {"noise", NumberOrNull(stack.noise)}});
                       }
                       return {{"run", id}, {"stacks", stacks}};
                     });
  return JsonResponse(context.work.State());
}

}  // namespace

void AddFinished(Router& router, Context& context) {
  const auto get = [&](const char* name, auto answer) {
    router.Get(name, [&context, answer](const Request& request) { return answer(request, context); });
  };
  const auto post = [&](const char* name, auto answer) {
    router.Post(name, [&context, answer](const Request& request) { return answer(request, context); });
  };
  get("runs", [](const Request&, Context& all) {
    Json list = Json::array();
    for (const Runs::Entry& entry : all.runs.List()) {
      list.push_back({{"id", entry.id}, {"name", entry.name}});
    }
    return JsonResponse(list);
  });
  get("run", Info);
  get("run/thumbnail", Thumbnail);
  get("run/preview", Preview);
  get("run/frame", Frame);
  get("run/rejected", Rejected);
  post("run/flag", Flag);
  get("run/flags", [](const Request& request, Context& all) {
    const auto run = RunOf(request, all);
    return JsonResponse(run->WithFlags([&](const Flags& flags) { return JsonOf(*run, flags); }));
  });
  post("run/undo", [](const Request& request, Context& all) {
    const auto run = RunOf(BodyOf(request), all);
    return JsonResponse(run->WithFlags([&](Flags& flags) {
      flags.Undo();
      return JsonOf(*run, flags);
    }));
  });
  post("run/save", [](const Request& request, Context& all) {
    const auto run = RunOf(BodyOf(request), all);
    return JsonResponse(run->WithFlags([&](Flags& flags) {
      flags.Save(run->Run());
      return JsonOf(*run, flags);
    }));
  });
  post("run/again", Again);
}

}  // namespace korimg::viewer
