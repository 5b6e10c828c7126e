// korimg apply: operations of the table on one image, one after the other. korimg ops: the table.
#include <algorithm>
#include <optional>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "korimg/pipelines/runtime/Runtime.h"

#include "app/tool/Tool.h"
#include "app/verbs/Verbs.h"
#include "session/job/Json.h"
#include "session/operations/Blend.h"
#include "session/operations/Operations.h"
#include "session/picture/Image.h"
#include "session/picture/Images.h"

namespace korimg::tool {
namespace {

struct ApplyOptions {
  std::vector<std::string> words;
  std::string output, rect, store = "contiguous", bits = "float", hdu;
  BlendOptions blend;
};

struct Plan {
  std::vector<Step> steps;
  std::string input;
};

/// Reads "NAME [parameter=value]... [then NAME ...]... INPUT".
Plan ParsePlan(const std::vector<std::string>& words) {
  Plan plan;
  bool wantsName = true;
  for (const std::string& word : words) {
    if (wantsName) {
      plan.steps.push_back({&FindOperation(word), {}});
      wantsName = false;
      continue;
    }
    if (word == "then") {
      wantsName = true;
      continue;
    }
    const size_t equals = word.find('=');
    const Operation& operation = *plan.steps.back().operation;
    const auto& parameters = operation.parameters;
    const std::string name = word.substr(0, equals);
    const auto parameter = std::find_if(parameters.begin(), parameters.end(),
                                        [&](const Parameter& p) { return p.name == name; });
    if (equals != std::string::npos && parameter != parameters.end()) {
      CheckValue(operation, *parameter, word.substr(equals + 1));
      plan.steps.back().values[name] = word.substr(equals + 1);
    } else if (equals != std::string::npos && !std::filesystem::exists(word)) {
      throw UsageError(fmt::format("{} has no parameter '{}'; `korimg ops {}` lists them", operation.name,
                                   name, operation.name));
    } else if (plan.input.empty()) {
      plan.input = word;
    } else {
      throw UsageError(fmt::format("one input image only: '{}' or '{}'? Parameters are written name=value",
                                   plan.input, word));
    }
  }
  if (wantsName) throw UsageError("an operation's name is missing; `korimg ops` lists them");
  if (plan.input.empty()) throw UsageError("the input image is missing");
  for (const Step& step : plan.steps) {
    for (const Parameter& parameter : step.operation->parameters) {
      if (parameter.defaultValue.empty() && !parameter.optional && !step.values.count(parameter.name)) {
        throw UsageError(
            fmt::format("{} wants {}=...: {}", step.operation->name, parameter.name, parameter.help));
      }
    }
  }
  return plan;
}

void Apply(Tool& tool, const ApplyOptions& options) {
  const Plan plan = ParsePlan(options.words);
  CRect rect = options.rect.empty() ? CRect() : ParseRect(options.rect);
  std::string history;
  for (const Step& step : plan.steps) {
    if (!options.rect.empty() && !step.operation->takesRect) {
      throw UsageError(fmt::format("{} works on the whole image: leave --rect out", step.operation->name));
    }
    history += (history.empty() ? "" : " then ") + step.Text();
  }
  if (!options.rect.empty()) history += " --rect " + options.rect;
  history += options.blend.Text();
  const nlohmann::ordered_json json{
      {"input", plan.input}, {"output", options.output}, {"operations", history}};
  const std::string line = fmt::format("{}: {} -> {}", plan.input, history, options.output);
  if (tool.options.dryRun) return tool.job.Tell(Dump(json), line);
  tool.job.CheckOutput(options.output);
  const auto store = tool.job.MakeStore(options.store);
  Image loaded = Image::Open(tool.job, store, plan.input, {.hdu = options.hdu});
  CRect* window = options.rect.empty() ? nullptr : &rect;
  std::optional<Blend> blend;
  if (options.blend.Any()) blend.emplace(tool.job, options.blend, loaded.Pixels(), loaded.Header(), window);
  for (const Step& step : plan.steps) {
    tool.job.CheckCancelled();
    Call call(tool.job, step, loaded.Pointer(), loaded.Header(), window);
    call.image->SetProgressHandle(call.Window());
    step.operation->run(call);
    tool.job.EndProgress();
    if (blend) blend->CheckShape(loaded.Pixels(), step.operation->name);
  }
  if (blend) blend->Apply(loaded.Pixels());
  loaded.Header().AddHistory(fmt::format("korimg {} {}", Version(), history));
  SaveImage(tool.job, loaded.Pixels(), loaded.Header(), options.output, {.integers = options.bits == "16"});
  tool.job.Tell(Dump(json), line);
}

const char* KindName(ParameterKind kind) {
  switch (kind) {
    case ParameterKind::Number:
      return "number";
    case ParameterKind::Integer:
      return "whole number";
    case ParameterKind::Flag:
      return "0 or 1";
    case ParameterKind::Choice:
      return "choice";
    case ParameterKind::PerPlane:
      return "number, or three";
    case ParameterKind::File:
      return "file";
    case ParameterKind::Rect:
      return "left,top,right,bottom";
    case ParameterKind::Points:
      return "points";
  }
  return "";
}

std::string RangeText(const Parameter& parameter) {
  constexpr double kUnlimited = 1e30;
  if (parameter.kind == ParameterKind::Choice) return fmt::format("{}", fmt::join(parameter.choices, ", "));
  if (parameter.kind == ParameterKind::File || parameter.kind == ParameterKind::Flag ||
      parameter.kind == ParameterKind::Rect || parameter.kind == ParameterKind::Points ||
      parameter.high >= kUnlimited)
    return "";
  return fmt::format("{} to {}", parameter.low, parameter.high);
}

std::string DefaultText(const Parameter& parameter) {
  return !parameter.defaultValue.empty() ? parameter.defaultValue
         : parameter.optional            ? "none"
                                         : "must be given";
}

void ShowOperation(const Operation& operation) {
  fmt::print("{}: {}\n", operation.name, operation.summary);
  fmt::print("  works on {}\n", operation.takesRect ? "the whole image or --rect" : "the whole image");
  for (const Parameter& p : operation.parameters) {
    const std::string range = RangeText(p);
    fmt::print("  {}=  {}{}{}; default: {}\n      {}\n", p.name, KindName(p.kind),
               p.unit.empty() ? "" : " (" + p.unit + ")", range.empty() ? "" : ": " + range, DefaultText(p),
               p.help);
  }
}

/// The page of the documentation.
void ShowMarkdown() {
  fmt::print("{}", R"(# Operations

What `korimg apply` can do; `korimg ops --markdown` writes this page.

`--mask FILE` blends the result of all steps with the input by plane 0 of an image of the same size: none of the result
at its black, all of it at its white, or the other way round with `--mask-reverse`. `--select FILE` takes the result
inside a polygon only, or outside of it with `--select-reverse`. Each line of its file is a vertex, `x y` in pixels from
the centre of the first one, decimals allowed; `#` begins a comment. Pixels on the outline are selected, and no row may
be selected in two pieces. Both may be given, and `--rect` beside them.
)");
  for (const Operation& operation : Operations()) {
    fmt::print("\n## {}\n\n{}. Works on {}.\n", operation.name, operation.summary,
               operation.takesRect ? "the whole image or `--rect`" : "the whole image");
    if (operation.parameters.empty()) continue;
    fmt::print("\n| parameter | kind | unit | default | range | meaning |\n|---|---|---|---|---|---|\n");
    for (const Parameter& p : operation.parameters) {
      fmt::print("| `{}` | {} | {} | {} | {} | {} |\n", p.name, KindName(p.kind), p.unit, DefaultText(p),
                 RangeText(p), p.help);
    }
  }
}

nlohmann::json ToJson(const Operation& operation) {
  nlohmann::json json{
      {"name", operation.name}, {"summary", operation.summary}, {"rect", operation.takesRect}};
  json["parameters"] = nlohmann::json::array();
  for (const Parameter& p : operation.parameters) {
    json["parameters"].push_back({{"name", p.name},
                                  {"kind", KindName(p.kind)},
                                  {"unit", p.unit},
                                  {"default", p.defaultValue},
                                  {"range", RangeText(p)},
                                  {"help", p.help}});
  }
  return json;
}

}  // namespace

void AddApply(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<ApplyOptions>();
  CLI::App* verb = app.add_subcommand("apply", "Run operations on an image");
  verb->add_option("words", options->words, "NAME [parameter=value]... [then NAME ...]... INPUT")->required();
  verb->add_option("-o,--output", options->output, "FITS, TIFF or PNG, by its extension")->required();
  verb->add_option("--rect", options->rect, "LEFT,TOP,RIGHT,BOTTOM: work on this window only");
  auto* mask =
      verb->add_option("--mask", options->blend.mask,
                       "image of the same size: the result of all steps is blended with the input, from "
                       "none of it at the mask's black to all at its white");
  verb->add_flag("--mask-reverse", options->blend.maskReverse, "the other way round")->needs(mask);
  auto* select =
      verb->add_option("--select", options->blend.selection,
                       "file of a polygon, 'x y' in pixels on each line: outside of it the input stays");
  verb->add_flag("--select-reverse", options->blend.selectionReverse, "inside of it")->needs(select);
  verb->add_option("--store", options->store, "contiguous or paged")
      ->check(CLI::IsMember({"contiguous", "paged"}));
  verb->add_option("--bits", options->bits, "float or 16, for FITS and TIFF")
      ->check(CLI::IsMember({"float", "16"}));
  verb->add_option("--hdu", options->hdu, "number or name of the FITS extension to read");
  AddCommonOptions(*verb, tool);
  verb->callback([options, &tool] {
    tool.Begin();
    Apply(tool, *options);
  });
}

void AddOps(CLI::App& app, Tool& tool) {
  auto name = std::make_shared<std::string>();
  CLI::App* verb = app.add_subcommand("ops", "List the operations, or tell one");
  verb->add_option("name", *name, "an operation");
  auto markdown = std::make_shared<bool>(false);
  verb->add_flag("--markdown", *markdown, "all of them, as a page");
  AddCommonOptions(*verb, tool);
  verb->callback([name, markdown, &tool] {
    tool.Begin();
    if (*markdown) return ShowMarkdown();
    for (const Operation& operation : Operations()) {
      if (!name->empty() && operation.name != FindOperation(*name).name) continue;
      if (tool.options.json) {
        fmt::print("{}\n", ToJson(operation).dump());
      } else if (name->empty()) {
        fmt::print("{:<18}{}\n", operation.name, operation.summary);
      } else {
        ShowOperation(operation);
      }
    }
  });
}

}  // namespace korimg::tool
