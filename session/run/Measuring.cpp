#include "session/run/internal/Measuring.h"

#include <algorithm>
#include <map>

#include <fmt/format.h>

#include "session/calibrate/internal/LightRows.h"
#include "session/files/Formats.h"
#include "session/job/internal/SideBySide.h"
#include "session/picture/AutoPicture.h"
#include "session/run/internal/Kept.h"

namespace korimg::session {

namespace fs = std::filesystem;

namespace {

/// What all frames of a target are shown by, so that they compare: that of the first one that can be read.
Levels StretchOfFrames(const RunContext& run, const RunTarget& target) {
  for (const RunLight* frame : target.frames) {
    try {
      LightRows rows(run.session, *frame->light);
      StackInput input{frame->light->Name(), rows.Size()};
      input.read = [&rows](const Band<float>& to) { rows.Read(to); };
      return StretchForPicture(*SampleInput(run.job, input));
    } catch (const files::FileError&) {  // it is told of when the frame is measured
    }
  }
  return {};
}

/// What an earlier call found of a light: its measures, or that it could not be read.
std::optional<RunLight> FindKept(const RunContext& run, const RunLight& frame) {
  const auto kept = run.state->Find("light_" + frame.light->stem, frame.digest);
  if (!kept) return std::nullopt;
  RunLight found{frame.light, frame.digest, kept->value("error", "")};
  found.isKept = true;
  found.isUnfinished = kept->value("unfinished", false);
  if (!found.IsMeasured()) return found;
  found.shape = kept->at("shape");
  found.clipped = kept->at("clipped");
  found.border = std::make_shared<files::ConstantBorder>(kept->value("border", files::ConstantBorder()));
  found.measure = kept->at("measure");
  found.levels = kept->at("levels");
  found.thumbnail = BytesOf(kept->at("thumbnail"));
  return found;
}

}  // namespace

void TakeKeptFrames(RunContext& run, const std::vector<size_t>& numbers) {
  SideBySide(
      run.job, "looking for what was measured", numbers.size(), 0,
      [&](size_t k) { return FindKept(run, run.frames[numbers[k]]); },
      [&](size_t k, const auto& result) {
        if (auto found = result()) run.frames[numbers[k]] = std::move(*found);
      });
}

size_t MeasureFrames(RunContext& run, const std::vector<size_t>& numbers) {
  TakeKeptFrames(run, numbers);
  std::vector<size_t> missing = numbers;
  std::erase_if(missing, [&](size_t i) { return run.frames[i].IsMeasured(); });
  if (missing.size() < numbers.size()) {
    run.job.Say(
        fmt::format("{} of {} lights were measured before", numbers.size() - missing.size(), numbers.size()));
  }
  std::map<const Light*, Levels> shown;
  for (const RunTarget& target : run.targets) {
    const auto isMissing = [&](const RunLight* frame) {
      return std::ranges::any_of(missing, [&](size_t i) { return &run.frames[i] == frame; });
    };
    if (std::ranges::none_of(target.frames, isMissing)) continue;
    const Levels levels = StretchOfFrames(run, target);
    for (const RunLight* frame : target.frames) {
      shown[frame->light] = levels;
    }
  }
  SideBySide(
      run.job, "measuring frame", missing.size(), run.BytesOfFrame(),
      [&](size_t k) {
        RunLight frame = run.frames[missing[k]];
        frame.error.clear();
        LightRows rows(run.session, *frame.light);
        const auto image = LoadWhole(rows, run.job.MakeStore());
        frame.shape = rows.Size();
        frame.clipped = rows.Clipped();
        frame.border = rows.Border();
        frame.measure = MeasureFrame(*image);
        frame.levels = MeasureLevels(*image);
        frame.thumbnail =
            JpegOf(run.job, *image, shown.at(frame.light), ShrinkTo(frame.shape, kThumbnailSide));
        return frame;
      },
      [&](size_t k, const auto& result) {
        RunLight& frame = run.frames[missing[k]];
        const auto take = [&](const fs::path&) {
          try {
            frame = result();
          } catch (const files::FileError& error) {
            frame.error = error.Reason();
            frame.isUnfinished = dynamic_cast<const files::UnfinishedError*>(&error);
            throw;
          } catch (const std::exception& error) {
            frame.error = error.what();
            throw;
          }
        };
        run.job.ForEachFile({frame.light->frame.path}, take, true);
        if (!frame.IsMeasured()) return;
        KeepFrame(run, frame);  // where that fails, it is no fault of the light
        const FrameMeasure& found = frame.measure;
        run.job.Explain(fmt::format("{}: {} stars, FWHM {:.2f}, sky {:.5g}", frame.light->Name(),
                                    found.starCount, found.fwhm, found.sky),
                        Dump({{"measured", frame.light->frame.path.string()},
                              {"stars", found.starCount},
                              {"fwhm", found.fwhm},
                              {"elongation", found.elongation},
                              {"sky", found.sky},
                              {"noise", found.noise}}));
      });
  return missing.size();
}

void KeepFrame(RunContext& run, const RunLight& frame) {
  KeptJson kept;
  if (frame.IsMeasured()) {
    kept = {{"shape", frame.shape},
            {"clipped", frame.clipped},
            {"measure", frame.measure},
            {"levels", frame.levels},
            {"thumbnail", Binary(frame.thumbnail)}};
    if (frame.border && !frame.border->IsEmpty()) kept["border"] = *frame.border;
  } else {
    kept = {{"error", frame.error}, {"unfinished", frame.isUnfinished}};
  }
  run.state->Keep("light_" + frame.light->stem, frame.digest, std::move(kept));
}

void TellBorders(RunContext& run) {
  for (const RunLight& frame : run.frames) {
    if (frame.border && !frame.border->IsEmpty()) {
      run.Plan(fmt::format("{}: {}", frame.light->Name(), frame.border->Text()));
    }
  }
}

void LeaveOutCopies(RunContext& run) {
  std::map<std::uint64_t, const RunLight*> first;
  for (RunLight& frame : run.frames) {
    if (!frame.IsMeasured() || !(frame.levels.noise[0] > 0)) continue;
    const auto [same, isNew] = first.emplace(frame.measure.digest, &frame);
    if (!isNew) run.LeaveOut(frame, "is a copy of " + same->second->light->Name());
  }
}

}  // namespace korimg::session
