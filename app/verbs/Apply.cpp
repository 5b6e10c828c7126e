// korimg apply: operations on one image, one after the other. korimg ops: what there is.
#include "session/operations/Apply.h"

#include <algorithm>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "app/tool/Tool.h"
#include "app/verbs/Verbs.h"
#include "session/job/Json.h"
#include "session/operations/Documentation.h"
#include "session/operations/Operations.h"
#include "session/operations/Recipe.h"

namespace korimg::tool {
namespace {

struct Arguments {
  std::vector<std::string> words;
  std::string rect;
  std::filesystem::path recipe;
  ApplyOptions apply;
};

/// Reads "NAME [parameter=value]... [then NAME ...]... INPUT".
void ReadWords(const std::vector<std::string>& words, ApplyOptions& options) {
  bool wantsName = true;
  for (const std::string& word : words) {
    if (wantsName) {
      options.steps.emplace_back(FindOperation(word));
      wantsName = false;
      continue;
    }
    if (word == "then") {
      wantsName = true;
      continue;
    }
    const size_t equals = word.find('=');
    const auto& parameters = options.steps.back().What().parameters;
    const std::string name = word.substr(0, equals);
    const bool isParameter =
        std::any_of(parameters.begin(), parameters.end(), [&](const Parameter& p) { return p.name == name; });
    if (equals != std::string::npos && (isParameter || !std::filesystem::exists(word))) {
      options.steps.back().Set(name, word.substr(equals + 1));
    } else if (options.input.empty()) {
      options.input = word;
    } else {
      throw UsageError(fmt::format("one input image only: '{}' or '{}'? Parameters are written name=value",
                                   options.input.string(), word));
    }
  }
  if (wantsName) throw UsageError("an operation's name is missing; `korimg ops` lists them");
  if (options.input.empty()) throw UsageError("the input image is missing");
}

void Run(Tool& tool, Arguments& arguments) {
  ApplyOptions& options = arguments.apply;
  if (arguments.recipe.empty()) {
    ReadWords(arguments.words, options);
  } else {
    if (arguments.words.size() != 1) throw UsageError("with --recipe give the input image, and nothing else");
    options.steps = ReadRecipe(arguments.recipe);
    options.input = arguments.words.front();
  }
  for (const Step& step : options.steps) {
    step.CheckComplete();
  }
  if (!arguments.rect.empty()) options.rect = ParseRect(arguments.rect);
  CheckSteps(options);
  const std::string text = options.Text();
  const nlohmann::ordered_json json{
      {"input", options.input.string()}, {"output", options.output.string()}, {"operations", text}};
  if (!tool.options.dryRun) ApplyFile(tool.job, options);
  tool.job.Tell(Dump(json),
                fmt::format("{}: {} -> {}", options.input.string(), text, options.output.string()));
}

}  // namespace

void AddApply(CLI::App& app, Tool& tool) {
  auto arguments = std::make_shared<Arguments>();
  CLI::App* verb = app.add_subcommand("apply", "Run operations on an image");
  verb->add_option("words", arguments->words, "NAME [parameter=value]... [then NAME ...]... INPUT")
      ->required();
  verb->add_option("-o,--output", arguments->apply.output, "FITS, TIFF or PNG, by its extension")->required();
  verb->add_option("--recipe", arguments->recipe,
                   "a file of JSON with the steps, in the place of their names: as in "
                   "{\"steps\": [{\"operation\": \"ghs\", \"values\": {\"amount\": 2}}]}");
  verb->add_option("--rect", arguments->rect, "LEFT,TOP,RIGHT,BOTTOM: work on this window only");
  auto* mask =
      verb->add_option("--mask", arguments->apply.blend.mask,
                       "image of the same size: the result of all steps is blended with the input, from "
                       "none of it at the mask's black to all at its white");
  verb->add_flag("--mask-reverse", arguments->apply.blend.maskReverse, "the other way round")->needs(mask);
  auto* select =
      verb->add_option("--select", arguments->apply.blend.selection,
                       "file of a polygon, 'x y' in pixels on each line: outside of it the input stays");
  verb->add_flag("--select-reverse", arguments->apply.blend.selectionReverse, "inside of it")->needs(select);
  AddImageOptions(*verb, arguments->apply.paged, arguments->apply.integers);
  verb->add_option("--hdu", arguments->apply.hdu, "number or name of the FITS extension to read");
  AddCommonOptions(*verb, tool);
  verb->callback([arguments, &tool] {
    tool.Begin();
    Run(tool, *arguments);
  });
}

void AddOps(CLI::App& app, Tool& tool) {
  auto name = std::make_shared<std::string>();
  CLI::App* verb = app.add_subcommand("ops", "List the operations, or tell one");
  verb->add_option("name", *name, "an operation, or a family of them");
  auto markdown = std::make_shared<bool>(false);
  verb->add_flag("--markdown", *markdown,
                 "the page of the documentation: of a family, or the one before them");
  AddCommonOptions(*verb, tool);
  verb->callback([name, markdown, &tool] {
    tool.Begin();
    const auto& families = Families();
    const bool isPage = std::find(families.begin(), families.end(), *name) != families.end();
    // An operation of the same name goes before a family.
    const bool isFamily = isPage && !IsOperation(*name);
    if (!name->empty() && !isPage) FindOperation(*name);
    if (*markdown) {
      if (!name->empty() && !isPage) {
        throw UsageError(fmt::format("pages are of families: {}", fmt::join(families, ", ")));
      }
      fmt::print("{}", name->empty() ? IndexPage() : FamilyPage(*name));
    } else if (tool.options.json) {
      fmt::print("{}\n", OperationsAsJson(*name));
    } else if (!name->empty() && !isFamily) {
      fmt::print("{}", Manual(FindOperation(*name)));
    } else {
      for (const Operation& operation : Operations()) {
        if (!isFamily || operation.family == *name) {
          fmt::print("{:<21}{}\n", operation.name, operation.summary);
        }
      }
    }
  });
}

}  // namespace korimg::tool
