#include "session/operations/Operations.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>

#include <fmt/format.h>

#include "session/job/Json.h"
#include "session/operations/Apply.h"
#include "session/operations/Documentation.h"
#include "session/operations/Recipe.h"
#include "viewer/api/Api.h"
#include "viewer/image/Preview.h"

namespace korimg::viewer {

using namespace session;

namespace {

constexpr std::size_t kMostSteps = 100;  // chosen: far more than anyone adds by hand

/// The steps of a request. Images are named by their numbers in the list of files.
std::vector<Step> StepsOf(const Json& body, Context& context) {
  Json recipe{{"steps", ValueIn(body, "steps", Json::array())}};
  if (!recipe["steps"].is_array() || recipe["steps"].size() > kMostSteps) {
    throw UsageError(fmt::format("there are at most {} steps", kMostSteps));
  }
  for (Json& step : recipe["steps"]) {
    const bool isKnown = step.is_object() && step.contains("operation") && step["operation"].is_string() &&
                         step.contains("values") && step["values"].is_object();
    if (!isKnown) throw UsageError("a step has an operation and its values");
    for (const Parameter& parameter : FindOperation(step["operation"].get<std::string>()).parameters) {
      if (parameter.kind != ParameterKind::Image || !step["values"].contains(parameter.name)) continue;
      Json& value = step["values"][parameter.name];
      if (!value.is_number_integer()) throw UsageError(parameter.name + " is an image of the list");
      value = context.files.Find(value.get<int>()).string();
    }
  }
  return ParseRecipe(recipe.dump());
}

/// The call that does the same.
std::string CommandOf(const std::vector<Step>& steps, const std::filesystem::path& input,
                      const std::filesystem::path& output, bool overwrites) {
  std::string command = "korimg apply";
  for (const Step& step : steps) {
    if (&step != &steps.front()) command += " then";
    command += " " + step.What().name;
    for (const auto& [name, value] : step.Values()) {
      command += " " + Quoted(name + "=" + TextOf(value));
    }
  }
  command += " " + Quoted(input.string()) + " -o " + Quoted(output.string());
  return overwrites ? command + " --overwrite" : command;
}

int IdOf(const Json& body) {
  const int id = ValueIn(body, "id", -1);
  if (id < 0) throw UsageError("the request names no image");
  return id;
}

/// What the steps are written as.
Response Check(const Request& request, Context& context) {
  const Json body = BodyOf(request);
  const int id = IdOf(body);
  const std::vector<Step> steps = StepsOf(body, context);
  const std::filesystem::path input = context.files.Find(id);
  const auto output = context.files.Beside(id, ValueIn<std::string>(body, "name", "result.fits"));
  const bool exists = std::filesystem::exists(output);
  return JsonResponse({{"command", CommandOf(steps, input, output, exists)},
                       {"recipe", RecipeOf(steps)},
                       {"local", std::ranges::all_of(steps, IsLocal)},
                       {"exists", exists}});
}

/// A recipe's steps for the page. Images are named by their numbers, where they may be seen.
Response Read(const Request& request, Context& context) {
  const auto steps = ParseRecipe(ValueIn<std::string>(BodyOf(request), "recipe", ""));
  Json list = Json::array();
  for (const Step& step : steps) {
    Json values = Json::object();
    for (const auto& [name, value] : step.Values()) {
      if (const auto* other = std::get_if<ImageValue>(&value)) {
        if (const auto number = context.files.NumberOf(other->path)) values[name] = *number;
      } else {
        values[name] = TextOf(value);
      }
    }
    list.push_back({{"operation", step.What().name}, {"values", values}});
  }
  return JsonResponse(list);
}

Response DrawPreviewOf(const Request& request, Context& context) {
  const Json body = BodyOf(request);
  const auto image = context.images.Get(IdOf(body), ValueIn(body, "developed", false));
  const auto edges = ValueIn(body, "seen", std::vector<double>());
  constexpr double kFar = 2 * files::kMaxSide;  // pixels, which fit an int
  const bool isRect =
      edges.size() == 4 && std::ranges::all_of(edges, [](double e) { return std::abs(e) <= kFar; });
  if (!isRect) throw UsageError("seen is a rectangle of the picture");
  PreviewOptions options;
  const auto edge = [&](int i) { return static_cast<int>(edges[i]); };
  options.seen = CRect(edge(0), edge(1), edge(2), edge(3));
  options.scale = std::clamp(ValueIn(body, "scale", 1.0), 1e-6, 1e3);
  options.asIs = ValueIn(body, "as_is", false);
  options.stretch.inColours = ValueIn(body, "colours", false);
  options.stretch.steps = ReadSteps(ValueIn<std::string>(body, "stretch", ""));
  const auto levels = ValueIn<std::string>(body, "levels", "");
  options.stretch.levels =
      levels.empty() ? image->pyramid->Shown(ValueIn(body, "linked", false)) : ReadLevels(levels);
  const Turns::Turn turn = context.drawing.Take(request.isGone);
  Job job({.cancel = TokenOf(request, context.job), .memory = context.job.Memory() / 4});
  const Preview preview = DrawPreview(job, *image->pyramid, StepsOf(body, context), options);
  const bool asPng = ValueIn<std::string>(body, "format", "") == "png";
  Response response{.type = asPng ? "image/png" : "image/jpeg",
                    .body = asPng ? PngOf(preview.bytes) : JpegOf(preview.bytes)};
  const CRect& rect = preview.rect;
  response.headers.emplace_back("X-Preview", fmt::format("{},{},{},{},{},{}", rect.left, rect.top, rect.right,
                                                         rect.bottom, preview.step, preview.isWhole ? 1 : 0));
  return response;
}

/// Does the steps to the whole file, and tells on the way. Who goes away ends it.
Response ApplyTo(const Request& request, Context& context) {
  const Json body = BodyOf(request);
  const int id = IdOf(body);
  ApplyOptions options{.steps = StepsOf(body, context), .input = context.files.Find(id)};
  options.output = context.files.Beside(id, ValueIn<std::string>(body, "name", ""));
  options.integers = ValueIn(body, "integers", false);
  CheckSteps(options);
  const bool overwrites = ValueIn(body, "overwrite", false);
  std::error_code isNew;
  if (std::filesystem::equivalent(options.input, options.output, isNew)) {
    throw UsageError("the picture itself is never replaced; choose another name");
  }
  Response response{.type = "text/event-stream"};
  response.stream = [request, options, overwrites, &context](const Send& send) {
    bool isHeard = true;
    const auto tell = [&](const char* event, const Json& data) {
      isHeard = isHeard && send(fmt::format("event: {}\ndata: {}\n\n", event, Dump(data)));
    };
    JobOptions world{.cancel = TokenOf(request, context.job), .memory = context.job.Memory() / 4};
    world.overwrite = overwrites;
    world.origin = CommandOf(options.steps, options.input, options.output, overwrites);
    world.report = [&](const Event& event) {
      if (event.kind == Event::Progress && event.total > 0) {
        tell("progress", {{"title", event.text}, {"step", event.step}, {"total", event.total}});
      } else if (event.kind == Event::Warning || event.kind == Event::Failure) {
        tell("warning", {{"text", event.text}});
      }
      if (!isHeard) throw Cancelled();
    };
    try {
      try {
        const Turns::Turn turn = context.writing.Take(request.isGone);
        Job job(world);
        ApplyFile(job, options);
        tell("done", {{"id", context.files.Add(std::filesystem::canonical(options.output))},
                      {"name", options.output.filename().string()}});
      } catch (...) {
        ThrowOfFamily();
      }
    } catch (const Error& error) {
      tell("failed", {{"error", TextFor(error)}});
    }
  };
  return response;
}

}  // namespace

void AddOperations(Router& router, Context& context) {
  router.Get("operations",
             [](const Request&) { return Response{.type = "application/json", .body = OperationsAsJson()}; });
  router.Post("operations/check", [&context](const Request& request) { return Check(request, context); });
  router.Post("operations/read", [&context](const Request& request) { return Read(request, context); });
  router.Post("operations/preview",
              [&context](const Request& request) { return DrawPreviewOf(request, context); });
  router.Post("operations/apply", [&context](const Request& request) { return ApplyTo(request, context); });
}

}  // namespace korimg::viewer
