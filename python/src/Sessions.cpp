// Sessions of files: planned, run and simulated.
#include "python/src/Options.h"
#include "session/calibrate/FindSession.h"
#include "session/run/Tasks.h"
#include "session/simulate/Simulate.h"

namespace korimg::python {
namespace {

/// The options of a run, with the frames of its session.
RunOptions OptionsOf(Host& host, const std::string& session, const py::dict& values) {
  const Values given(values);
  RunOptions options;
  TakeRunOptions(given, options);
  std::filesystem::path calibration;
  given.Take("calibration", calibration);
  host.Run([&] { TakeSession(host.job, session, options.calibrate, calibration); });
  return options;
}

void PlanRun(const std::string& session, const py::dict& values, long long memory, bool overwrite,
             const py::object& report) {
  Host host({report, false, memory, overwrite});
  const RunOptions options = OptionsOf(host, session, values);
  host.Run([&] { session::PlanRun(host.job, options); });
}

py::dict DictOf(const RunResult& run) {
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
  return py::dict(py::arg("stacks") = stacks, py::arg("frames") = frames,
                  py::arg("colours") = NamesOf(run.colours), py::arg("reports") = NamesOf(run.reports));
}

py::dict Run(const std::string& session, const py::dict& values, long long memory, bool overwrite,
             const std::string& origin, const py::object& report, bool wantsProgress) {
  Host host({report, wantsProgress, memory, overwrite, origin});
  const RunOptions options = OptionsOf(host, session, values);
  return DictOf(host.Run([&] { return session::Run(host.job, options); }));
}

/// The tasks of a run: each a dictionary, which do_task takes back, and its text for people.
py::list PlanTasks(const std::string& session, const py::dict& values, int parts, long long memory,
                   const py::object& report) {
  Host host({report, false, memory});
  const RunOptions options = OptionsOf(host, session, values);
  py::list tasks;
  for (const RunTask& task : host.Run([&] { return session::PlanTasks(host.job, options, parts); })) {
    tasks.append(py::dict(py::arg("stage") = NameOf(kRunStages, task.stage), py::arg("object") = task.object,
                          py::arg("stack") = task.stack, py::arg("part") = task.part,
                          py::arg("parts") = task.parts, py::arg("after") = task.after,
                          py::arg("text") = task.Text()));
  }
  return tasks;
}

void DoTask(const std::string& session, const py::dict& values, const py::dict& given, long long memory,
            const std::string& origin, const py::object& report) {
  Host host({report, false, memory, false, origin});
  const RunOptions options = OptionsOf(host, session, values);
  const Values told(given);
  RunTask task;
  told.Choose("stage", kRunStages, task.stage);
  told.Take("object", task.object);
  told.Take("stack", task.stack);
  told.Take("part", task.part);
  told.Take("parts", task.parts);
  host.Run([&] { session::DoTask(host.job, options, task); });
}

void Simulate(const std::string& folder, int frames, int width, int height, const std::string& bayer,
              const std::vector<std::string>& filters, std::uint64_t seed, bool overwrite) {
  SimulateOptions options;
  options.frames = frames;
  options.width = width;
  options.height = height;
  options.bayer = bayer;
  options.filters = filters;
  options.seed = seed;
  Host host({.report = py::none(), .overwrite = overwrite});
  host.Run([&] { session::Simulate(host.job, folder, options); });
}

}  // namespace

void AddSessions(py::module_& module) {
  module.def("plan_run", &PlanRun);
  module.def("run", &Run);
  module.def("plan_tasks", &PlanTasks);
  module.def("do_task", &DoTask);
  module.def("simulate", &Simulate);
}

}  // namespace korimg::python
