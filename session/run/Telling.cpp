#include "session/run/internal/Telling.h"

#include <algorithm>
#include <map>

#include <fmt/format.h>

#include "session/files/internal/Times.h"
#include "session/register/internal/MapJson.h"

namespace korimg::session {

using Json = nlohmann::ordered_json;

std::vector<RunFrame> FramesOf(const RunContext& run) {
  std::vector<RunFrame> frames;
  for (const RunLight& frame : run.frames) {
    RunFrame told{frame.light->frame.path, frame.measure, frame.registration};
    told.status = frame.IsUsed() ? "stacked" : frame.IsMeasured() ? frame.reason : frame.error;
    told.isStacked = frame.IsUsed();
    told.weight = frame.weight;
    told.weights = frame.weights;
    told.rejected = ShareRejected(frame.counts);
    frames.push_back(std::move(told));
  }
  frames.insert(frames.end(), run.excluded.begin(), run.excluded.end());
  for (const Session::FailedLight& light : run.session.Failed()) {
    RunFrame told{light.path};
    told.status = light.reason;
    frames.push_back(std::move(told));
  }
  return frames;
}

void TellFrames(const RunContext& run, const std::vector<RunFrame>& frames) {
  for (size_t i = 0; i < run.frames.size(); ++i) {
    const RunFrame& frame = frames[i];
    const FrameMeasure& m = frame.measure;
    const Registration& r = frame.registration;
    Json json = run.frames[i].light->Description();
    const auto start = run.frames[i].Start();
    json.update({{"date_obs", start ? Json(files::FitsDate(*start)) : Json()},
                 {"stars", m.starCount},
                 {"fwhm", m.fwhm},
                 {"elongation", m.elongation},
                 {"guide_error", m.guideError ? Json(*m.guideError) : Json()},
                 {"sky", m.sky},
                 {"noise", m.noise},
                 {"dx", r.dx},
                 {"dy", r.dy},
                 {"degrees", r.degrees},
                 {"residual_px", r.residual},
                 {"method", r.method},
                 {"status", frame.status},
                 {"note", frame.isStacked ? r.note : ""},
                 {"weight", frame.weight},
                 {"rejected", frame.rejected},
                 {"flux_ratio", r.fluxRatio ? Json(*r.fluxRatio) : Json()}});
    if (r.map) json["map"] = ToJson(*r.map);
    if (frame.weights.size() > 1) json["weights"] = frame.weights;
    if (const DefectMap* defects = run.session.DefectsOf(*run.frames[i].light)) {
      json["hot_pixels"] = defects->Hot();
      json["cold_pixels"] = defects->Cold();
    }
    const std::string line = fmt::format(
        "{}: {} stars, FWHM {:.2f} px, dx {:.2f}, dy {:.2f}, {:.3f} degrees by {}; light {:.3g} of the "
        "reference's, weight {:.2f}, rejected {}{}",
        run.frames[i].light->Name(), m.starCount, m.fwhm, r.dx, r.dy, r.degrees, r.method,
        r.fluxRatio.value_or(1), frame.weight, Percent(frame.rejected), r.note.empty() ? "" : "; " + r.note);
    run.job.Tell(Dump(json), frame.isStacked ? line : "");
  }
  TellFailed(run);
}

void TellFailed(const RunContext& run) {
  for (const Session::FailedLight& light : run.session.Failed()) {
    run.job.Tell(Dump({{"file", light.path.string()}, {"status", light.reason}}), "");
  }
}

void WriteReport(RunContext& run) {
  run.report.command = run.job.options.origin;
  run.report.plan.insert(run.report.plan.begin(), run.session.MasterLines().begin(),
                         run.session.MasterLines().end());
  for (const RunLight& frame : run.frames) {
    ReportFrame row{frame.light->Name(), frame.light->Served(),
                    frame.IsMeasured() ? frame.reason : frame.error};
    row.start = frame.Start();
    if (frame.IsMeasured()) {
      row.thumbnail = frame.thumbnail;
      row.clipped = frame.clipped;
      row.stars = frame.measure.starCount;
      row.sky = frame.measure.sky;
      row.light = frame.registration.fluxRatio;
      row.noise = frame.measure.noise;
      if (frame.measure.starCount > 0) {
        row.fwhm = frame.measure.fwhm;
        row.elongation = frame.measure.elongation;
        row.guideError = frame.measure.guideError;
      }
      if (frame.registration.IsGood()) {
        row.method = frame.registration.method;
        row.dx = frame.registration.dx;
        row.dy = frame.registration.dy;
        row.degrees = frame.registration.degrees;
        row.residual = frame.registration.residual;
        row.note = frame.registration.note;
      }
    }
    if (frame.IsUsed()) {
      row.weight = frame.weight;
      row.rejected = 100 * ShareRejected(frame.counts);
    }
    run.report.frames.push_back(std::move(row));
  }
  for (const Session::FailedLight& light : run.session.Failed()) {
    run.report.frames.push_back({light.path.filename().string(), "", light.reason});
  }
  for (const RunFrame& frame : run.excluded) {
    run.report.frames.push_back({frame.file.filename().string(), "", frame.status});
  }
  WriteReport(run.report, run.Path("report.html"));
  run.job.Say("report: " + run.Path("report.html").string());
}

void CheckShares(const RunContext& run) {
  const auto isAwaited = [](const auto& light) { return !light.isUnfinished; };
  const auto lights = static_cast<size_t>(std::ranges::count_if(run.frames, isAwaited) +
                                          std::ranges::count_if(run.session.Failed(), isAwaited));
  const auto used = static_cast<size_t>(std::count_if(run.frames.begin(), run.frames.end(),
                                                      [](const RunLight& frame) { return frame.IsUsed(); }));
  const auto tell = [&](const std::string& name, size_t part, size_t all) {
    if (2 * part >= all) return;
    run.job.Fail(
        fmt::format("{}: holds {} of {} lights, less than half; the report says why", name, part, all));
  };
  std::map<std::string, size_t> failed;  // by filter
  for (const Session::FailedLight& light : run.session.Failed()) {
    if (light.filter && isAwaited(light)) ++failed[FoldedName(*light.filter)];
  }
  for (const RunTarget& target : run.targets) {
    const auto own = failed.extract(FoldedName(target.filter));
    const auto stacked = std::count_if(target.frames.begin(), target.frames.end(),
                                       [](const RunLight* frame) { return frame->IsUsed(); });
    const auto wanted =
        std::ranges::count_if(target.frames, [&](const RunLight* frame) { return isAwaited(*frame); });
    if (run.targets.size() > 1 && stacked > 0) {
      tell(target.name, static_cast<size_t>(stacked), static_cast<size_t>(wanted) + (own ? own.mapped() : 0));
    }
  }
  for (const auto& [filter, count] : failed) {
    run.job.Fail(fmt::format("none of the {} light{} of filter {} could be used: there is no stack of them",
                             count, count == 1 ? "" : "s", filter.empty() ? "none" : filter));
  }
  tell(run.targets.size() == 1 ? run.targets[0].name : "the session", used, lights);
}

}  // namespace korimg::session
