#include "session/run/internal/RunContext.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include <fmt/format.h>

#include "session/files/internal/Times.h"
#include "session/run/internal/Selection.h"

namespace korimg::session {

std::optional<double> RunLight::Start() const {
  return files::StartOf(light->frame.info.header);
}

RunContext::RunContext(Job& job, const RunOptions& options, std::vector<RunFrame> excluded)
    : job(job), options(options), session(job, options.calibrate), excluded(std::move(excluded)) {
  for (const Light& light : session.Lights()) {
    frames.push_back({.light = &light});
  }
  // In the order of time, which is that of names where nothing else is known.
  std::stable_sort(frames.begin(), frames.end(),
                   [](const RunLight& a, const RunLight& b) { return a.Start() < b.Start(); });
  std::map<std::string, RunTarget> byFilter;
  for (RunLight& frame : frames) {
    const std::string filter = FilterOf(frame.light->frame.info.header);
    RunTarget& target = byFilter[FoldedName(filter)];
    if (target.frames.empty()) target.filter = filter;
    target.frames.push_back(&frame);
  }
  std::set<std::string> names;
  for (auto& [filter, target] : byFilter) {
    const std::string name = byFilter.size() == 1 ? "stack" : "stack_" + FileWord(target.filter);
    target.name = name;
    for (int n = 2; !names.insert(target.name).second; ++n) {
      target.name = fmt::format("{}_{}", name, n);
    }
    targets.push_back(std::move(target));
  }
  std::vector<std::string> filters;
  for (const RunTarget& target : targets) {
    filters.push_back(target.filter);
  }
  colours = PlanColours(options.palette, filters);
}

std::string RunContext::GridName() const {
  const Light* light = Grid().light;
  return light ? light->Name() : options.reference.filename().string();
}

long long RunContext::BytesOfFrame() const {
  const Light& light = *frames.front().light;
  return 2 * BytesOf(light.frame.info) * (light.mosaic.cfa > 0 ? 3 : 1);
}

void RunContext::Plan(const std::string& line) {
  report.plan.push_back(line);
  job.Say(line);
}

void RunContext::LeaveOut(RunLight& frame, const std::string& reason) {
  frame.reason = reason;
  job.Warn(fmt::format("{}: left out: {}", frame.light->Name(), reason));
}

}  // namespace korimg::session
