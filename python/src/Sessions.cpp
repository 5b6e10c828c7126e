// Sessions of files: planned, run and simulated.
#include "python/src/Host.h"
#include "session/calibrate/FindSession.h"
#include "session/run/Run.h"
#include "session/simulate/Simulate.h"

namespace korimg::python {
namespace {

/// Options of a run as the package's Python code names them.
RunOptions OptionsOf(Host& host, const std::string& session, const py::dict& values) {
  RunOptions options;
  const auto text = [&](const char* key, auto& to) {
    if (values.contains(key)) to = values[key].cast<std::string>();
  };
  CalibrateOptions& frames = options.calibrate;
  text("out", frames.out);
  text("masters", frames.masters);
  text("reference", options.reference);
  text("method", options.stack.method);
  text("reject", options.stack.reject);
  text("kappa", options.stack.kappa);
  text("normalize", options.stack.normalise);
  text("weight", options.stack.weight);
  text("kernel", options.stack.kernel);
  std::string palette = "auto";
  text("palette", palette);
  options.palette = session::ValueOf(kPalettes, palette);
  options.gradient = values["gradient"].cast<bool>();
  frames.quality.uncertainty = values["uncertainty"].cast<bool>();
  frames.quality.mask = values["mask"].cast<bool>();
  SessionFrames found = host.Run([&] { return FindSession(host.job, session, frames.out); });
  frames.lights = std::move(found.lights);
  frames.darks = std::move(found.darks);
  frames.flats = std::move(found.flats);
  frames.biases = std::move(found.biases);
  return options;
}

void PlanRun(const std::string& session, const py::dict& values, long long memory, bool overwrite,
             const py::object& report) {
  Host host({report, false, memory, overwrite});
  const RunOptions options = OptionsOf(host, session, values);
  host.Run([&] { session::PlanRun(host.job, options); });
}

py::dict Run(const std::string& session, const py::dict& values, long long memory, bool overwrite,
             const std::string& origin, const py::object& report, bool wantsProgress) {
  Host host({report, wantsProgress, memory, overwrite, origin});
  const RunOptions options = OptionsOf(host, session, values);
  const RunResult run = host.Run([&] { return session::Run(host.job, options); });
  py::list stacks, frames;
  for (const RunStack& s : run.stacks) {
    stacks.append(py::dict(py::arg("file") = s.file.string(), py::arg("filter") = s.filter,
                           py::arg("frames") = s.frames, py::arg("lights") = s.lights,
                           py::arg("exposure") = s.exposure, py::arg("stars") = s.stars,
                           py::arg("fwhm") = s.fwhm, py::arg("noise") = s.noise));
  }
  for (const RunFrame& f : run.frames) {
    frames.append(py::dict(py::arg("file") = f.file.string(), py::arg("status") = f.status,
                           py::arg("is_stacked") = f.isStacked, py::arg("weight") = f.weight,
                           py::arg("rejected") = f.rejected, py::arg("stars") = f.measure.starCount,
                           py::arg("fwhm") = f.measure.fwhm, py::arg("sky") = f.measure.sky,
                           py::arg("noise") = f.measure.noise));
  }
  const auto names = [](const std::vector<std::filesystem::path>& paths) {
    py::list list;
    for (const auto& path : paths) {
      list.append(path.string());
    }
    return list;
  };
  return py::dict(py::arg("stacks") = stacks, py::arg("frames") = frames,
                  py::arg("colours") = names(run.colours), py::arg("reports") = names(run.reports));
}

bool Simulate(const std::string& folder, int frames, int width, int height, const std::string& bayer,
              const std::vector<std::string>& filters, std::uint64_t seed, bool overwrite) {
  SimulateOptions options;
  options.frames = frames;
  options.width = width;
  options.height = height;
  options.bayer = bayer;
  options.filters = filters;
  options.seed = seed;
  options.overwrite = overwrite;
  bool isInterrupted = false;
  options.progress = [&](int, int) {
    const py::gil_scoped_acquire locked;
    isInterrupted = PyErr_CheckSignals() != 0;
    return !isInterrupted;
  };
  bool isDone = false;
  {
    const py::gil_scoped_release unlocked;
    isDone = korimg::Simulate(folder, options);
  }
  if (isInterrupted) throw py::error_already_set();
  return isDone;
}

}  // namespace

void AddSessions(py::module_& module) {
  module.def("plan_run", &PlanRun);
  module.def("run", &Run);
  module.def("simulate", &Simulate);
}

}  // namespace korimg::python
