#include "session/operations/Documentation.h"

#include <cctype>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <nlohmann/json.hpp>

#include "session/job/Json.h"
#include "session/operations/Operations.h"

namespace korimg::session {
namespace {

using Json = nlohmann::ordered_json;

constexpr double kUnlimited = 1e30;

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
    case ParameterKind::Image:
      return "file";
    case ParameterKind::Rect:
      return "left,top,right,bottom";
    case ParameterKind::Points:
      return "points";
    case ParameterKind::Matrix:
      return "rows of numbers";
  }
  return "";
}

bool HasRange(const Parameter& parameter) {
  switch (parameter.kind) {
    case ParameterKind::Number:
    case ParameterKind::Integer:
    case ParameterKind::PerPlane:
    case ParameterKind::Matrix:
      return parameter.high < kUnlimited;
    default:
      return false;
  }
}

std::string RangeText(const Parameter& parameter) {
  if (parameter.kind == ParameterKind::Choice) return fmt::format("{}", fmt::join(parameter.choices, ", "));
  return HasRange(parameter) ? fmt::format("{} to {}", parameter.low, parameter.high) : "";
}

std::string DefaultText(const Parameter& parameter) {
  return parameter.defaultValue ? TextOf(*parameter.defaultValue)
         : parameter.required   ? "must be given"
                                : "none";
}

const char* Scope(const Operation& operation, const char* rect) {
  return operation.takesRect ? rect : "the whole image";
}

/// What a header goes through, after "The header".
const char* EffectText(HeaderEffect effect) {
  switch (effect) {
    case HeaderEffect::Keeps:
      return "stays true";
    case HeaderEffect::Moves:
      return "goes along with the pixels: world coordinates, pixel sizes, the phase of a mosaic";
    case HeaderEffect::DropsPlaces:
      return "loses its world coordinates";
    case HeaderEffect::DropsCounts:
      return "loses the gain in electrons, since values are no counts of the camera any more";
  }
  return "";
}

const char* EffectName(HeaderEffect effect) {
  switch (effect) {
    case HeaderEffect::Keeps:
      return "keeps";
    case HeaderEffect::Moves:
      return "moves";
    case HeaderEffect::DropsPlaces:
      return "drops places";
    case HeaderEffect::DropsCounts:
      return "drops counts";
  }
  return "";
}

std::string ExampleCall(const Operation& operation) {
  return fmt::format("korimg apply {}{}{} light.fits -o result.fits", operation.name,
                     operation.example.empty() ? "" : " ", operation.example);
}

/// Numbers of a schema within a parameter's range.
Json NumberSchema(const Parameter& parameter) {
  Json schema{{"type", parameter.kind == ParameterKind::Integer ? "integer" : "number"}};
  if (HasRange(parameter)) {
    schema["minimum"] = parameter.low;
    schema["maximum"] = parameter.high;
  }
  return schema;
}

Json ArraySchema(Json items, int least, int most) {
  Json schema{{"type", "array"}, {"items", std::move(items)}, {"minItems", least}};
  if (most > 0) schema["maxItems"] = most;
  return schema;
}

Json TypeSchema(const Parameter& parameter) {
  switch (parameter.kind) {
    case ParameterKind::Number:
    case ParameterKind::Integer:
      return NumberSchema(parameter);
    case ParameterKind::Flag:
      return {{"type", "boolean"}};
    case ParameterKind::Choice:
      return {{"type", "string"}, {"enum", parameter.choices}};
    case ParameterKind::PerPlane:
      return {{"oneOf", {NumberSchema(parameter), ArraySchema(NumberSchema(parameter), 3, 3)}}};
    case ParameterKind::Image:
      return {{"type", "string"}};
    case ParameterKind::Rect:
      return ArraySchema({{"type", "integer"}}, 4, 4);
    case ParameterKind::Points:
      return ArraySchema(ArraySchema({{"type", "number"}, {"minimum", 0}, {"maximum", 1}}, 2, 2), 2, 0);
    case ParameterKind::Matrix:
      return ArraySchema(ArraySchema(NumberSchema(parameter), 1, 0), 1, 0);
  }
  return {};
}

Json JsonOf(const Value& value) {
  struct Writer {
    Json operator()(double number) const { return number; }
    Json operator()(int number) const { return number; }
    Json operator()(bool flag) const { return flag; }
    Json operator()(const std::string& name) const { return name; }
    Json operator()(const PerPlane& planes) const {
      return planes.Count() == 1 ? Json(planes[0]) : Json(planes.values);
    }
    Json operator()(const ImageValue& source) const { return source.path.string(); }
    Json operator()(const CRect& rect) const { return {rect.left, rect.top, rect.right, rect.bottom}; }
    Json operator()(const std::vector<CurvePoint>& points) const {
      Json array = Json::array();
      for (const CurvePoint& point : points) {
        array.push_back(Json::array({point.x, point.y}));
      }
      return array;
    }
    Json operator()(const Matrix& matrix) const {
      Json rows = Json::array();
      for (int i = 0; i < matrix.rows * matrix.columns; ++i) {
        if (i % matrix.columns == 0) rows.push_back(Json::array());
        rows.back().push_back(matrix.values[i]);
      }
      return rows;
    }
  };
  return std::visit(Writer(), value);
}

Json Schema(const Operation& operation) {
  Json properties = Json::object(), required = Json::array();
  for (const Parameter& parameter : operation.parameters) {
    Json& schema = properties[parameter.name] = TypeSchema(parameter);
    schema["description"] = parameter.help;
    schema["kind"] = KindName(parameter.kind);
    if (!parameter.unit.empty()) schema["unit"] = parameter.unit;
    if (parameter.defaultValue) schema["default"] = JsonOf(*parameter.defaultValue);
    if (parameter.required) required.push_back(parameter.name);
  }
  return {{"type", "object"},
          {"properties", std::move(properties)},
          {"required", std::move(required)},
          {"additionalProperties", false}};
}

std::string Title(std::string name) {
  name[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(name[0])));
  return name;
}

}  // namespace

std::string Manual(const Operation& operation) {
  std::string text = fmt::format("{}: {}\n  {}\n  works on {}; the header {}\n", operation.name,
                                 operation.summary, operation.text,
                                 Scope(operation, "the whole image or --rect"), EffectText(operation.header));
  for (const Parameter& p : operation.parameters) {
    const std::string range = RangeText(p);
    text += fmt::format("  {}=  {}{}{}; default: {}\n      {}\n", p.name, KindName(p.kind),
                        p.unit.empty() ? "" : " (" + p.unit + ")", range.empty() ? "" : ": " + range,
                        DefaultText(p), p.help);
  }
  return text + "  example: " + ExampleCall(operation) + "\n";
}

std::string OperationsAsJson(const std::string& name) {
  Json all = Json::array();
  for (const Operation& operation : Operations()) {
    if (!name.empty() && name != (IsOperation(name) ? operation.name : operation.family)) continue;
    all.push_back({{"name", operation.name},
                   {"family", operation.family},
                   {"summary", operation.summary},
                   {"text", operation.text},
                   {"rect", operation.takesRect},
                   {"header", EffectName(operation.header)},
                   {"stores_agree", operation.storesAgree ? Json(*operation.storesAgree) : Json()},
                   {"example", operation.example},
                   {"parameters", Schema(operation)}});
  }
  return Dump({{"operations", std::move(all)}});
}

std::string IndexPage() {
  std::string page = R"(# Operations

What `korimg apply` can do, a page for each family. `korimg ops --markdown` writes this page, `korimg ops --markdown
FAMILY` that of a family.

`--mask FILE` blends the result of all steps with the input by plane 0 of an image of the same size: none of the result
at its black, all of it at its white, or the other way round with `--mask-reverse`. `--select FILE` takes the result
inside a polygon only, or outside of it with `--select-reverse`. Each line of its file is a vertex, `x y` in pixels from
the centre of the first one, decimals allowed; `#` begins a comment. Pixels on the outline are selected, and no row may
be selected in two pieces. Both may be given, and `--rect` beside them.

Programs ask `korimg ops --json`: one object whose array `operations` has for each operation its `name`, `family`,
`summary`, `text`, `rect` (may be confined to a rectangle), `header` (`keeps`, `moves`, `drops places`, `drops counts`:
what becomes of world coordinates and of the gain), `stores_agree` (share of a value within which contiguous and paged
stores agree; null where they differ by definition), an `example`, and as `parameters` a JSON schema of its values, where
`kind` and `unit` say what JSON types do not.
)";
  for (const std::string& family : Families()) {
    page += fmt::format("\n## [{}](operations/{}.md)\n\n", Title(family), family);
    for (const Operation& operation : Operations()) {
      if (operation.family != family) continue;
      page += fmt::format("- [`{}`](operations/{}.md#{}) {}\n", operation.name, family, operation.name,
                          operation.summary);
    }
  }
  return page;
}

std::string FamilyPage(const std::string& family) {
  std::string page = fmt::format(
      "# {}\n\nOperations of `korimg apply`; see [the others](../operations.md).\n", Title(family));
  for (const Operation& operation : Operations()) {
    if (operation.family != family) continue;
    page += fmt::format("\n## {}\n\n{}. Works on {}. The header {}.\n\n{}\n\n```\n{}\n```\n", operation.name,
                        Title(operation.summary), Scope(operation, "the whole image or `--rect`"),
                        EffectText(operation.header), operation.text, ExampleCall(operation));
    if (operation.parameters.empty()) continue;
    page += "\n| parameter | kind | unit | default | range | meaning |\n|---|---|---|---|---|---|\n";
    for (const Parameter& p : operation.parameters) {
      page += fmt::format("| `{}` | {} | {} | {} | {} | {} |\n", p.name, KindName(p.kind), p.unit,
                          DefaultText(p), RangeText(p), p.help);
    }
  }
  return page;
}

}  // namespace korimg::session
