// A folder that is being filled: the stack as it grows.
#include "viewer/live/Live.h"

#include "session/picture/Images.h"
#include "viewer/api/Api.h"

namespace korimg::viewer {

using namespace session;

namespace {

namespace fs = std::filesystem;

Live& LiveOf(Context& context) {
  if (!context.live) throw UsageError("no folder is watched: korimg view --watch FOLDER");
  return *context.live;
}

Response Save(const Request& request, Context& context) {
  Live& live = LiveOf(context);
  const fs::path path = NewIn(live.Watched().folder, ValueIn<std::string>(BodyOf(request), "name", ""));
  if (!IsFits(path)) throw UsageError("write the name of a new file that ends in .fits");
  Job job({.cancel = TokenOf(request, context.job), .memory = context.job.Memory() / 4});
  if (fs::exists(path)) throw files::FileError(path, "is there already; choose another name");
  Image image = live.Snapshot();
  live.PassOver(path);
  SaveImage(job, image.Pixels(), image.Header(), path);
  return JsonResponse({{"id", context.files.Add(fs::canonical(path))}});
}

/// Stacks the frames as a run does, once they are all there.
Response StackProperly(const Request& request, Context& context) {
  Live& live = LiveOf(context);
  const Json body = BodyOf(request);
  const fs::path out = ResultsIn(live.Watched().folder, ValueIn<std::string>(body, "out", "result"));
  if (fs::exists(out / "report.html") && !ValueIn(body, "replace", false)) {
    return JsonResponse({{"exists", true}});
  }
  JobOptions world;
  const auto& [folder, masters] = live.Watched();
  world.origin = "korimg run " + Quoted(folder.string()) + " --out " + Quoted(out.string());
  if (!masters.empty()) world.origin += " --calibration " + Quoted(masters.string());
  const int number =
      context.work.Start("the stack of " + folder.filename().string(), world, [&live, out](Job& job) {
        const RunOptions options = live.Proper(job, out);
        live.PassOver(out);
        const RunResult run = Run(job, options);
        Json made{{"out", out.filename().string()}, {"stacks", Json::array()}};
        for (const RunStack& stack : run.stacks) {
          made["stacks"].push_back(
              {{"file", stack.file.filename().string()}, {"frames", stack.frames}, {"lights", stack.lights}});
        }
        return made;
      });
  return JsonResponse({{"number", number}, {"command", world.origin}});
}

}  // namespace

void AddLive(Router& router, Context& context) {
  router.Get("live/state", [&context](const Request& request) {
    if (!context.live) return JsonResponse({{"folder", nullptr}});
    constexpr int kMany = 1 << 30;
    const Live::Seen seen{WholeOf(request, "begun", 0, kMany), WholeOf(request, "after", 0, kMany),
                          WholeOf(request, "picture", -1, kMany)};
    return JsonResponse(context.live->State(seen, request.isGone));
  });
  router.Get("live/picture", [&context](const Request&) {
    return Response{.type = "image/jpeg", .body = LiveOf(context).Picture()};
  });
  router.Post("live/begin", [&context](const Request& request) {
    const Json body = BodyOf(request);
    LiveOf(context).BeginWith(ValueIn(body, "frame", -1), ValueIn(body, "begun", -1));
    return JsonResponse(Json::object());
  });
  router.Post("live/save", [&context](const Request& request) { return Save(request, context); });
  router.Post("live/stack", [&context](const Request& request) { return StackProperly(request, context); });
}

}  // namespace korimg::viewer
