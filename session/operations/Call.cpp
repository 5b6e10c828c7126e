#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>

#include <fmt/format.h>

#include "session/operations/Operations.h"
#include "session/picture/Image.h"
#include "session/picture/Images.h"

namespace korimg::session {
namespace {

std::vector<std::string> Split(const std::string& text) {
  std::vector<std::string> parts;
  std::istringstream in(text);
  for (std::string part; std::getline(in, part, ',');) {
    parts.push_back(part);
  }
  return parts;
}

/// How many letters must change to get from one name to the other.
size_t Distance(const std::string& a, const std::string& b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) {
    row[j] = j;
  }
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t change = diagonal + (a[i - 1] != b[j - 1]);
      diagonal = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, change});
    }
  }
  return row[b.size()];
}

/// Reads "x:y,x:y...", in any order, into points that ascend in x. Answers what should be written instead, or
/// nothing.
std::string ReadPoints(const std::string& text, std::vector<CurvePoint>& points) {
  constexpr double kNearest = 1e-6;
  for (const std::string& part : Split(text)) {
    const size_t colon = part.find(':');
    const auto x = ToNumber(part.substr(0, colon)),
               y = ToNumber(colon == std::string::npos ? "" : part.substr(colon + 1));
    if (!x || !y) return "write points as x:y with commas between, such as 0:0,0.2:0.35,1:1";
    // The negation refuses NaN too.
    if (!(*y >= 0 && *y <= 1)) return "y runs from 0 for black to 1 for white";
    points.push_back({*x, *y});
  }
  std::sort(points.begin(), points.end(), [](const CurvePoint& a, const CurvePoint& b) { return a.x < b.x; });
  if (points.size() < 2 || points.front().x != 0 || points.back().x != 1) {
    return "the first point must be at x = 0 and the last at x = 1";
  }
  for (size_t i = 1; i < points.size(); ++i) {
    // The negation refuses NaN too.
    if (!(points[i].x - points[i - 1].x >= kNearest)) return "two points have the same x";
  }
  return "";
}

}  // namespace

const Operation& FindOperation(const std::string& name) {
  const Operation* nearest = &Operations().front();
  for (const Operation& operation : Operations()) {
    if (operation.name == name) return operation;
    if (Distance(name, operation.name) < Distance(name, nearest->name)) nearest = &operation;
  }
  throw UsageError(fmt::format("there is no operation '{}'; did you mean '{}'? `korimg ops` lists them all",
                               name, nearest->name));
}

std::string Step::Text() const {
  std::string text = operation->name;
  for (const auto& [name, value] : values) {
    text += fmt::format(" {}={}", name, value);
  }
  return text;
}

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

void CheckValue(const Operation& operation, const Parameter& parameter, const std::string& value) {
  const auto refuse = [&](const std::string& wanted) {
    throw UsageError(
        fmt::format("{}: {}={} is not possible; {}", operation.name, parameter.name, value, wanted));
  };
  if (parameter.kind == ParameterKind::File) return;
  if (parameter.kind == ParameterKind::Choice) {
    if (std::find(parameter.choices.begin(), parameter.choices.end(), value) == parameter.choices.end()) {
      refuse(fmt::format("write one of {}", fmt::join(parameter.choices, ", ")));
    }
    return;
  }
  if (parameter.kind == ParameterKind::Rect) {
    ParseRect(value);
    return;
  }
  if (parameter.kind == ParameterKind::Points) {
    std::vector<CurvePoint> points;
    if (const std::string wanted = ReadPoints(value, points); !wanted.empty()) refuse(wanted);
    return;
  }
  const std::vector<std::string> parts =
      parameter.kind == ParameterKind::PerPlane ? Split(value) : std::vector<std::string>{value};
  if (parts.empty() || parts.size() > 3 || parts.size() == 2)
    refuse("write one number, or three with commas between");
  for (const std::string& part : parts) {
    const auto number = ToNumber(part);
    if (!number) refuse("write a number");
    const bool whole = parameter.kind == ParameterKind::Integer || parameter.kind == ParameterKind::Flag;
    if (whole && *number != std::floor(*number)) refuse("write a whole number");
    // The negation refuses NaN too.
    if (!(*number >= parameter.low && *number <= parameter.high)) {
      refuse(fmt::format("the range is {} to {}", parameter.low, parameter.high));
    }
  }
}

bool Call::Has(const std::string& name) const {
  return !Text(name).empty();
}

const std::string& Call::Text(const std::string& name) const {
  if (const auto given = step_.values.find(name); given != step_.values.end()) return given->second;
  const auto& parameters = step_.operation->parameters;
  return std::find_if(parameters.begin(), parameters.end(),
                      [&](const Parameter& p) { return p.name == name; })
      ->defaultValue;
}

double Call::Number(const std::string& name) const {
  return *ToNumber(Text(name));
}

int Call::Integer(const std::string& name) const {
  return static_cast<int>(Number(name));
}

int Call::Choice(const std::string& name) const {
  const auto& parameters = step_.operation->parameters;
  const auto parameter =
      std::find_if(parameters.begin(), parameters.end(), [&](const Parameter& p) { return p.name == name; });
  return static_cast<int>(std::find(parameter->choices.begin(), parameter->choices.end(), Text(name)) -
                          parameter->choices.begin());
}

template <class T>
std::vector<T> Call::PerPlane(const std::string& name) const {
  std::vector<T> values;
  for (const std::string& part : Split(Text(name))) {
    values.push_back(static_cast<T>(*ToNumber(part)));
  }
  values.resize(std::max(image->GetPlanes(), 3), values.empty() ? T(0) : values.back());
  return values;
}

template std::vector<float> Call::PerPlane(const std::string& name) const;
template std::vector<double> Call::PerPlane(const std::string& name) const;

CRect Call::Rect(const std::string& name) const {
  return ParseRect(Text(name));
}

std::vector<CurvePoint> Call::Points(const std::string& name) const {
  if (!Has(name)) return {{0, 0}, {1, 1}};
  std::vector<CurvePoint> points;
  ReadPoints(Text(name), points);
  return points;
}

std::unique_ptr<CVelImage> Call::File(const std::string& name, bool sameSize) const {
  const std::filesystem::path path = Text(name);
  if (!sameSize) return std::move(Image::Open(job, image->VmManager(), path).Pointer());
  auto other = LoadSameSize(job, *image, header, path, Name());
  if (other->IsColor() && other->GetPlanes() < image->GetPlanes()) {
    throw files::FileError(
        path, fmt::format("has {} planes, but the image has {}", other->GetPlanes(), image->GetPlanes()));
  }
  return other;
}

const std::string& Call::Name() const {
  return step_.operation->name;
}

HWND Call::Window() const {
  return job.OperationWindow(Name());
}

void Call::Prepare(CVelImage& target) const {
  if (!rect) {
    if (!target.Create(*image, nullptr)) throw velora::CVmMemoryAllocationError("no room for the result");
  } else if (!target.CopyImage(*image, nullptr, nullptr)) {
    throw velora::CVmMemoryAllocationError("no room for the result");
  }
  target.SetProgressHandle(Window());
}

}  // namespace korimg::session
