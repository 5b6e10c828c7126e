#include "session/operations/Recipe.h"

#include <fstream>
#include <sstream>

#include <fmt/format.h>

#include "session/job/Json.h"
#include "session/operations/Operations.h"

namespace korimg::session {
namespace {

using Json = nlohmann::ordered_json;

/// A value as it is written for the command line.
std::string TextOf(const Json& value, const char* separator = ",") {
  if (value.is_string()) return value.get<std::string>();
  if (value.is_boolean()) return value.get<bool>() ? "1" : "0";
  if (value.is_number_integer()) return value.dump();
  if (value.is_number()) return fmt::format("{}", value.get<double>());
  if (!value.is_array()) throw UsageError(value.dump() + " is no value");
  std::string text;
  for (const Json& part : value) {
    if (!text.empty()) text += separator;
    text += TextOf(part);
  }
  return text;
}

/// Points are x:y with commas between, and rows of a matrix have semicolons between.
std::string TextOf(const Parameter& parameter, const Json& value) {
  const bool isNested = value.is_array() && !value.empty() && value.front().is_array();
  if (parameter.kind != ParameterKind::Points || !isNested) return TextOf(value, isNested ? ";" : ",");
  std::string text;
  for (const Json& point : value) {
    text += (text.empty() ? "" : ",") + TextOf(point, ":");
  }
  return text;
}

Step ReadStep(const Json& json) {
  if (!json.is_object() || !json.contains("operation") || !json["operation"].is_string()) {
    throw UsageError("names no operation");
  }
  for (const auto& [key, unused] : json.items()) {
    if (key != "operation" && key != "values") throw UsageError(fmt::format("has no use for '{}'", key));
  }
  Step step(FindOperation(json["operation"].get<std::string>()));
  const Json values = json.value("values", Json::object());
  if (!values.is_object()) throw UsageError("has values that are no object");
  for (const auto& [name, value] : values.items()) {
    step.Set(name, TextOf(step.What().Find(name), value));
  }
  step.CheckComplete();
  return step;
}

}  // namespace

std::vector<Step> ParseRecipe(const std::string& text) {
  const Json json = Json::parse(text, nullptr, false);
  if (!json.is_object() || !json.contains("steps") || !json["steps"].is_array()) {
    throw UsageError("a recipe is an object of JSON with a list of steps");
  }
  std::vector<Step> steps;
  for (const Json& step : json["steps"]) {
    try {
      steps.push_back(ReadStep(step));
    } catch (const UsageError& error) {
      throw UsageError(fmt::format("step {} of the recipe: {}", steps.size() + 1, error.what()));
    }
  }
  if (steps.empty()) throw UsageError("the recipe has no steps");
  return steps;
}

std::vector<Step> ReadRecipe(const std::filesystem::path& path) {
  std::ifstream file(path);
  std::ostringstream text;
  if (!file || !std::filesystem::is_regular_file(path) || !(text << file.rdbuf())) {
    throw files::FileError(path, "cannot be read");
  }
  try {
    return ParseRecipe(text.str());
  } catch (const UsageError& error) {
    throw files::FileError(path, error.what());
  }
}

std::string RecipeOf(const std::vector<Step>& steps) {
  Json json{{"steps", Json::array()}};
  for (const Step& step : steps) {
    Json values = Json::object();
    for (const auto& [name, value] : step.Values()) {
      if (const auto* number = std::get_if<double>(&value)) {
        values[name] = *number;
      } else if (const auto* whole = std::get_if<int>(&value)) {
        values[name] = *whole;
      } else if (const auto* flag = std::get_if<bool>(&value)) {
        values[name] = *flag;
      } else {
        values[name] = session::TextOf(value);
      }
    }
    json["steps"].push_back({{"operation", step.What().name}, {"values", values}});
  }
  return json.dump(1, ' ', false, Json::error_handler_t::replace) + '\n';
}

}  // namespace korimg::session
