// Values of parameters: read, checked, converted and written.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "session/operations/Operation.h"

namespace korimg::session {
namespace {

[[noreturn]] void Want(const std::string& wanted) {
  throw UsageError(wanted);
}

std::vector<std::string> Split(const std::string& text, char between) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (size_t end; (end = text.find(between, start)) != std::string::npos; start = end + 1) {
    parts.push_back(text.substr(start, end - start));
  }
  parts.push_back(text.substr(start));
  return parts;
}

double ReadNumber(const std::string& text) {
  const auto number = ToNumber(text);
  if (!number) Want("write a number");
  return *number;
}

double InRange(const Parameter& parameter, double number) {
  const bool whole = parameter.kind == ParameterKind::Integer || parameter.kind == ParameterKind::Flag;
  if (whole && number != std::floor(number)) Want("write a whole number");
  // The negation refuses NaN too.
  if (!(number >= parameter.low && number <= parameter.high)) {
    Want(fmt::format("the range is {} to {}", parameter.low, parameter.high));
  }
  return number;
}

PerPlane InRange(const Parameter& parameter, const PerPlane& value) {
  if (value.Count() != 1 && value.Count() != 3) Want("write one number, or three with commas between");
  for (const double number : value.values) {
    InRange(parameter, number);
  }
  return value;
}

/// Points in any order become ascending in x.
std::vector<CurvePoint> InOrder(std::vector<CurvePoint> points) {
  constexpr double kNearest = 1e-6;
  for (const CurvePoint& point : points) {
    // The negation refuses NaN too.
    if (!(point.y >= 0 && point.y <= 1)) Want("y runs from 0 for black to 1 for white");
  }
  std::sort(points.begin(), points.end(), [](const CurvePoint& a, const CurvePoint& b) { return a.x < b.x; });
  if (points.size() < 2 || points.front().x != 0 || points.back().x != 1) {
    Want("the first point must be at x = 0 and the last at x = 1");
  }
  for (size_t i = 1; i < points.size(); ++i) {
    if (!(points[i].x - points[i - 1].x >= kNearest)) Want("two points have the same x");
  }
  return points;
}

std::vector<CurvePoint> ReadPoints(const std::string& text) {
  std::vector<CurvePoint> points;
  for (const std::string& part : Split(text, ',')) {
    const size_t colon = part.find(':');
    const auto x = ToNumber(part.substr(0, colon)),
               y = ToNumber(colon == std::string::npos ? "" : part.substr(colon + 1));
    if (!x || !y) Want("write points as x:y with commas between, such as 0:0,0.2:0.35,1:1");
    points.push_back({*x, *y});
  }
  return InOrder(std::move(points));
}

Matrix InRange(const Parameter& parameter, const Matrix& matrix) {
  if (matrix.rows < 1 || matrix.columns < 1 ||
      matrix.values.size() != static_cast<size_t>(matrix.rows) * matrix.columns) {
    Want("write rows of equally many numbers");
  }
  for (const double number : matrix.values) {
    InRange(parameter, number);
  }
  return matrix;
}

Matrix ReadMatrix(const Parameter& parameter, const std::string& text) {
  Matrix matrix;
  for (const std::string& row : Split(text, ';')) {
    const auto numbers = Split(row, ',');
    if (matrix.rows++ == 0) matrix.columns = static_cast<int>(numbers.size());
    if (static_cast<int>(numbers.size()) != matrix.columns) {
      Want("write rows of equally many numbers, such as 0,1,0;1,4,1;0,1,0");
    }
    for (const std::string& number : numbers) {
      matrix.values.push_back(ReadNumber(number));
    }
  }
  return InRange(parameter, matrix);
}

std::string KnownChoice(const Parameter& parameter, const std::string& name) {
  if (std::find(parameter.choices.begin(), parameter.choices.end(), name) == parameter.choices.end()) {
    Want(fmt::format("write one of {}", fmt::join(parameter.choices, ", ")));
  }
  return name;
}

/// A number that a value is.
std::optional<double> NumberIn(const Value& value) {
  if (const auto* number = std::get_if<double>(&value)) return *number;
  if (const auto* number = std::get_if<int>(&value)) return *number;
  return std::nullopt;
}

}  // namespace

CRect ParseRect(const std::string& text) {
  CRect rect;
  int end = 0;
  if (std::sscanf(text.c_str(), "%d,%d,%d,%d%n", &rect.left, &rect.top, &rect.right, &rect.bottom, &end) !=
          4 ||
      end != static_cast<int>(text.size())) {
    throw UsageError(fmt::format("'{}' is no rectangle: write LEFT,TOP,RIGHT,BOTTOM in pixels", text));
  }
  if (rect.IsRectEmpty()) throw UsageError("the rectangle is empty: right and bottom are exclusive");
  return rect;
}

Value Parameter::Read(const std::string& text) const {
  switch (kind) {
    case ParameterKind::Number:
      return InRange(*this, ReadNumber(text));
    case ParameterKind::Integer:
      return static_cast<int>(InRange(*this, ReadNumber(text)));
    case ParameterKind::Flag:
      return InRange(*this, ReadNumber(text)) != 0;
    case ParameterKind::Choice:
      return KnownChoice(*this, text);
    case ParameterKind::PerPlane: {
      const auto parts = Split(text, ',');
      if (parts.size() != 1 && parts.size() != 3) Want("write one number, or three with commas between");
      PerPlane planes;
      for (const std::string& part : parts) {
        planes.values.push_back(InRange(*this, ReadNumber(part)));
      }
      return planes;
    }
    case ParameterKind::Image:
      if (text.empty()) Want("name the file of an image");
      return ImageValue{.path = text};
    case ParameterKind::Rect:
      return ParseRect(text);
    case ParameterKind::Points:
      return ReadPoints(text);
    case ParameterKind::Matrix:
      return ReadMatrix(*this, text);
  }
  return {};
}

Value Parameter::Check(const Value& value) const {
  const auto number = NumberIn(value);
  switch (kind) {
    case ParameterKind::Number:
      if (number) return InRange(*this, *number);
      Want("give a number");
    case ParameterKind::Integer:
      if (number) return static_cast<int>(InRange(*this, *number));
      Want("give a whole number");
    case ParameterKind::Flag:
      if (std::holds_alternative<bool>(value)) return value;
      if (number) return InRange(*this, *number) != 0;
      Want("give true or false");
    case ParameterKind::Choice:
      if (const auto* name = std::get_if<std::string>(&value)) return KnownChoice(*this, *name);
      Want(fmt::format("give one of {}", fmt::join(choices, ", ")));
    case ParameterKind::PerPlane:
      if (number) return InRange(*this, PerPlane(*number));
      if (const auto* planes = std::get_if<PerPlane>(&value)) return InRange(*this, *planes);
      Want("give one number, or three of them");
    case ParameterKind::Image:
      if (const auto* source = std::get_if<ImageValue>(&value); source && !source->IsEmpty()) return value;
      Want("give an image, or the name of its file");
    case ParameterKind::Rect:
      if (const auto* rect = std::get_if<CRect>(&value); rect && !rect->IsRectEmpty()) return value;
      Want("give left, top, right and bottom of a rectangle that is not empty");
    case ParameterKind::Points:
      if (const auto* points = std::get_if<std::vector<CurvePoint>>(&value)) return InOrder(*points);
      Want("give pairs of x and y");
    case ParameterKind::Matrix:
      if (const auto* matrix = std::get_if<Matrix>(&value)) return InRange(*this, *matrix);
      Want("give rows of numbers");
  }
  return {};
}

std::string TextOf(const Value& value) {
  struct Writer {
    std::string operator()(double number) const { return fmt::format("{}", number); }
    std::string operator()(int number) const { return fmt::format("{}", number); }
    std::string operator()(bool flag) const { return flag ? "1" : "0"; }
    std::string operator()(const std::string& name) const { return name; }
    std::string operator()(const PerPlane& planes) const {
      return fmt::format("{}", fmt::join(planes.values, ","));
    }
    std::string operator()(const ImageValue& source) const {
      return source.image ? "an image in memory" : source.path.string();
    }
    std::string operator()(const CRect& rect) const {
      return fmt::format("{},{},{},{}", rect.left, rect.top, rect.right, rect.bottom);
    }
    std::string operator()(const std::vector<CurvePoint>& points) const {
      std::string text;
      for (const CurvePoint& point : points) {
        text += fmt::format("{}{}:{}", text.empty() ? "" : ",", point.x, point.y);
      }
      return text;
    }
    std::string operator()(const Matrix& matrix) const {
      // Numbers that were refused may be fewer or more than rows and columns say.
      std::string text;
      for (size_t i = 0; i < matrix.values.size(); ++i) {
        const bool newRow = matrix.columns > 0 && i % matrix.columns == 0;
        text += fmt::format("{}{}", i == 0 ? "" : newRow ? ";" : ",", matrix.values[i]);
      }
      return text;
    }
  };
  return std::visit(Writer(), value);
}

}  // namespace korimg::session
