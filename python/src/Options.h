// Options of steps, as the package's Python code names them.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "python/src/Host.h"
#include "session/compose/Compose.h"
#include "session/job/Named.h"
#include "session/picture/Render.h"
#include "session/run/Run.h"
#include "session/stack/StackChoices.h"

namespace korimg::python {

/// Values by name. What is not there, or None, leaves an option as it is.
class Values {
 public:
  explicit Values(const py::dict& values) : values_(values) {}

  template <class T>
  void Take(const char* key, T& to) const {
    const py::object value = Find(key);
    if (value.is_none()) return;
    try {
      if constexpr (std::is_same_v<T, std::filesystem::path>) {
        to = value.cast<std::string>();
      } else if constexpr (std::is_same_v<T, std::vector<std::filesystem::path>>) {
        const auto names = value.cast<std::vector<std::string>>();
        to.assign(names.begin(), names.end());
      } else {
        to = value.cast<T>();
      }
    } catch (const py::cast_error&) {
      throw UsageError(fmt::format("{}={} is no value of that kind", key, Text(value)));
    }
  }

  template <class E>
  void Choose(const char* key, const std::vector<Named<E>>& names, E& to) const {
    const py::object value = Find(key);
    if (value.is_none()) return;
    try {
      to = session::ValueOf(names, value.cast<std::string>());
    } catch (const UsageError& error) {
      throw UsageError(fmt::format("{}: {}", key, error.what()));
    } catch (const py::cast_error&) {
      throw UsageError(fmt::format("{}={} is no value of that kind", key, Text(value)));
    }
  }

  /// A number within limits.
  void Number(const char* key, double least, double most, double& to) const;
  /// One of some words.
  void Word(const char* key, const std::vector<std::string>& words, std::string& to) const;

 private:
  static std::string Text(const py::handle& value) { return py::repr(value).cast<std::string>(); }
  py::object Find(const char* key) const {
    return values_.contains(key) ? py::object(values_[key]) : py::none();
  }

  const py::dict& values_;
};

/// Groups of options that several steps have; names are those of the command line, with _ in the place of -.
void TakeStackChoices(const Values& values, StackChoices& choices);
void TakeMosaicOptions(const Values& values, DevelopOptions& options);
void TakeCalibrationOptions(const Values& values, CalibrateOptions& options);
void TakeComposeOptions(const Values& values, ComposeOptions& options);
void TakeRenderOptions(const Values& values, RenderOptions& options);
void TakeRunOptions(const Values& values, RunOptions& options);

/// Names of files, for Python.
py::list NamesOf(const std::vector<std::filesystem::path>& paths);

}  // namespace korimg::python
