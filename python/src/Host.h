// What the functions of the module share: jobs that report to Python, and values on their way to and from it.
#pragma once

#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include "session/picture/Image.h"

namespace korimg::python {

namespace py = pybind11;
using namespace session;

/// Pixels as the package's Python code hands them in: floats in rows, nothing between them.
using Pixels = py::array_t<float, py::array::c_style>;

/// One call of a function: a job whose events go to `report(kind, text, data, step, total, detail)`. What
/// that raises, Ctrl-C among it, ends the work, and is what the caller gets.
class Host {
 public:
  struct Options {
    py::object report;  ///< None: nobody listens
    bool wantsProgress = false;
    long long memory = 0;  ///< bytes; 0: the usual share of the machine's
    bool overwrite = false;
    std::string origin = {};
    bool usesThreads = true;  ///< reading and writing files does not
  };

  explicit Host(Options options);
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  Job job;

  /// Gives what work() gives, which runs without the interpreter's lock.
  template <class Work>
  auto Run(Work&& work) {
    try {
      if constexpr (std::is_void_v<decltype(work())>) {
        {
          const py::gil_scoped_release unlocked;
          work();
          job.CheckComputed();
        }
        Raise();
      } else {
        auto result = [&] {
          const py::gil_scoped_release unlocked;
          auto made = work();
          job.CheckComputed();
          return made;
        }();
        Raise();
        return result;
      }
    } catch (const Error&) {
      Raise();
      throw;
    } catch (const py::error_already_set&) {
      throw;
    } catch (...) {
      Raise();
      ThrowOfFamily();
    }
  }

 private:
  JobOptions OptionsFor(const Options& options);
  void Take(const Event& event);
  void Raise();

  py::object report_;
  bool wantsProgress_;
  std::chrono::steady_clock::time_point last_;
  std::atomic<bool> isEnding_ = false;
  py::object type_, value_, trace_;  ///< of what was raised
};

/// The band of an array of (rows, columns) or (planes, rows, columns). Throws UsageError for other shapes.
Band<const float> BandOf(const Pixels& pixels);
/// The same to write to.
Band<float> WritableBandOf(Pixels& pixels);

/// A new array of the shape of an image; planes are an axis of their own where there are several, or when it
/// is asked for.
Pixels NewArray(int width, int height, int planes, bool withPlanes = false);
/// The pixels of an image in a new array, or in one that is given.
Pixels ArrayOf(const Image& image, bool withPlanes = false);

/// Black and white of each plane.
using LevelPairs = std::vector<std::pair<double, double>>;
LevelPairs LevelsOf(const CVelImage& image);

/// An image over an array, which stays as it is unless an operation works on it in place. `header` is its
/// header, if any.
Image ImageOver(Job& job, const Pixels& pixels, const LevelPairs& levels,
                const files::Header* header = nullptr, ResultMemory result = {});

void AddOperations(py::module_& module);
void AddFiles(py::module_& module);
void AddMeasures(py::module_& module);
void AddSteps(py::module_& module);
void AddFileSteps(py::module_& module);
void AddSessions(py::module_& module);

}  // namespace korimg::python
