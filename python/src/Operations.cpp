// Operations on arrays.
#include "session/operations/Operations.h"

#include <map>

#include <fmt/format.h>

#include "python/src/Host.h"
#include "session/operations/Documentation.h"

namespace korimg::python {
namespace {

std::vector<double> NumbersOf(const py::handle& value) {
  if (py::isinstance<py::sequence>(value) && !py::isinstance<py::str>(value)) {
    return value.cast<std::vector<double>>();
  }
  if (py::isinstance<py::array>(value) && py::reinterpret_borrow<py::array>(value).ndim() > 0) {
    return value.cast<std::vector<double>>();
  }
  return {value.cast<double>()};
}

CRect RectOf(const py::handle& value) {
  const auto sides = value.cast<std::array<int, 4>>();
  return CRect(sides[0], sides[1], sides[2], sides[3]);
}

/// An image beside the one that is worked on: (array, levels), or the name of a file.
ImageValue ImageOf(Job& job, const py::handle& value) {
  if (py::isinstance<py::str>(value)) return {.path = value.cast<std::string>()};
  const auto pair = value.cast<std::pair<Pixels, LevelPairs>>();
  return {.image = std::make_shared<Image>(ImageOver(job, pair.first, pair.second))};
}

Value ValueOf(Job& job, const Parameter& parameter, const py::handle& value) {
  switch (parameter.kind) {
    case ParameterKind::Number:
    case ParameterKind::Integer:
      return value.cast<double>();
    case ParameterKind::Flag:
      return py::isinstance<py::bool_>(value) ? Value(value.cast<bool>()) : Value(value.cast<double>());
    case ParameterKind::Choice:
      return value.cast<std::string>();
    case ParameterKind::PerPlane:
      return PerPlane(NumbersOf(value));
    case ParameterKind::Image:
      return ImageOf(job, value);
    case ParameterKind::Rect:
      return RectOf(value);
    case ParameterKind::Points: {
      std::vector<CurvePoint> points;
      for (const auto& [x, y] : value.cast<std::vector<std::pair<double, double>>>()) {
        points.push_back({x, y});
      }
      return points;
    }
    case ParameterKind::Matrix: {
      Matrix matrix;
      std::vector<std::vector<double>> rows;
      try {
        rows = value.cast<std::vector<std::vector<double>>>();
      } catch (const py::cast_error&) {
        rows = {NumbersOf(value)};
      }
      matrix.rows = static_cast<int>(rows.size());
      matrix.columns = rows.empty() ? 0 : static_cast<int>(rows.front().size());
      for (const auto& row : rows) {
        if (row.size() != rows.front().size()) matrix.columns = 0;  // is refused
        matrix.values.insert(matrix.values.end(), row.begin(), row.end());
      }
      return matrix;
    }
  }
  return {};
}

Step StepOf(Job& job, const std::string& name, const py::dict& values) {
  Step step(FindOperation(name));
  for (const auto& [key, value] : values) {
    if (value.is_none()) continue;
    const Parameter& parameter = step.What().Find(key.cast<std::string>());
    Value converted;
    try {
      converted = ValueOf(job, parameter, value);
    } catch (const std::exception&) {
      throw UsageError(fmt::format("{}: {}={} is no value of that kind: {}", name, parameter.name,
                                   py::repr(value).cast<std::string>(), parameter.help));
    }
    step.SetValue(parameter.name, converted);
  }
  return step;
}

/// What an operation made: its pixels, the levels of their planes, and the header where there was one.
using Made = std::tuple<Pixels, LevelPairs, std::optional<files::Header>>;

/// Runs an operation on an array, which stays as it is. `result` has the same shape and is not the source;
/// what the operation makes lies in it where the shape stays, else in a new array.
Made RunOperation(const std::string& name, const py::dict& values, const Pixels& source, Pixels result,
                  bool resultIsZero, const std::optional<std::array<int, 4>>& rect, const LevelPairs& levels,
                  const files::Header* header, long long memory, const py::object& report,
                  bool wantsProgress) {
  Host host({report, wantsProgress, memory});
  const Step step = StepOf(host.job, name, values);
  const Band<const float> from = BandOf(source);
  const Band<float> to = WritableBandOf(result);
  CRect window;
  if (rect) window = CRect((*rect)[0], (*rect)[1], (*rect)[2], (*rect)[3]);
  std::optional<Image> image;
  const bool isThere = host.Run([&] {
    if (step.What().keepsSource) {
      image =
          ImageOver(host.job, source, levels, header, {{to.Data(), to.Data() + to.Planes()}, resultIsZero});
    } else {
      CopyPixels(from, to);
      image = ImageOver(host.job, result, levels, header);
    }
    step.Run(host.job, *image, rect ? &window : nullptr);
    const bool isSameShape =
        image->Width() == to.Width() && image->Height() == to.Rows() && image->Planes() == to.Planes();
    if (!isSameShape) return false;
    const Band<float> made = image->Rows();
    if (!std::equal(made.Data(), made.Data() + made.Planes(), to.Data())) CopyPixels(made, to);
    return true;
  });
  if (!isThere) result = ArrayOf(*image, source.ndim() == 3 && image->Planes() == from.Planes());
  std::optional<files::Header> after;
  if (header) after = image->Header();
  return {std::move(result), LevelsOf(image->Pixels()), std::move(after)};
}

}  // namespace

void AddOperations(py::module_& module) {
  module.def("operations", [] { return OperationsAsJson(""); });
  module.def("run_operation", &RunOperation);
}

}  // namespace korimg::python
