#include <algorithm>
#include <map>

#include <fmt/format.h>

#include "session/files/Formats.h"
#include "session/job/internal/SideBySide.h"
#include "session/picture/AutoPicture.h"
#include "session/run/internal/Road.h"

namespace korimg::session {

namespace fs = std::filesystem;

/// What all frames of a target are shown by, so that they compare: that of the first one that can be read.
Levels Road::StretchOfFrames(const RunTarget& target) const {
  for (const RunLight* frame : target.frames) {
    try {
      LightRows rows(session_, *frame->light);
      StackInput input{frame->light->Name(), rows.Size()};
      input.read = [&rows](const Band<float>& to) { rows.Read(to); };
      return StretchForPicture(*SampleInput(job_, input));
    } catch (const files::FileError&) {  // it is told of when the frame is measured
    }
  }
  return {};
}

void Road::TakeKeptFrames(const std::vector<size_t>& numbers) {
  SideBySide(
      job_, "looking for what was measured", numbers.size(), 0,
      [&](size_t k) { return FindKept(frames_[numbers[k]]); },
      [&](size_t k, const auto& result) {
        if (auto found = result()) frames_[numbers[k]] = std::move(*found);
      });
}

size_t Road::MeasureFrames(const std::vector<size_t>& numbers) {
  TakeKeptFrames(numbers);
  std::vector<size_t> missing = numbers;
  std::erase_if(missing, [this](size_t i) { return frames_[i].IsMeasured(); });
  if (missing.size() < numbers.size()) {
    job_.Say(
        fmt::format("{} of {} lights were measured before", numbers.size() - missing.size(), numbers.size()));
  }
  std::map<const Light*, Levels> shown;
  for (const RunTarget& target : targets_) {
    const auto isMissing = [&](const RunLight* frame) {
      return std::ranges::any_of(missing, [&](size_t i) { return &frames_[i] == frame; });
    };
    if (std::ranges::none_of(target.frames, isMissing)) continue;
    const Levels levels = StretchOfFrames(target);
    for (const RunLight* frame : target.frames) {
      shown[frame->light] = levels;
    }
  }
  SideBySide(
      job_, "measuring frame", missing.size(), BytesOfFrame(),
      [&](size_t k) {
        RunLight frame = frames_[missing[k]];
        frame.error.clear();
        LightRows rows(session_, *frame.light);
        const auto image = LoadWhole(rows, job_.MakeStore());
        frame.shape = rows.Size();
        frame.clipped = rows.Clipped();
        frame.border = rows.Border();
        frame.measure = MeasureFrame(*image);
        frame.levels = MeasureLevels(*image);
        frame.thumbnail = JpegOf(job_, *image, shown.at(frame.light), ShrinkTo(frame.shape, kThumbnailSide));
        return frame;
      },
      [&](size_t k, const auto& result) {
        RunLight& frame = frames_[missing[k]];
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
        job_.ForEachFile({frame.light->frame.path}, take, true);
        if (!frame.IsMeasured()) return;
        Keep(frame);  // where that fails, it is no fault of the light
        const FrameMeasure& found = frame.measure;
        job_.Explain(fmt::format("{}: {} stars, FWHM {:.2f}, sky {:.5g}", frame.light->Name(),
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

/// What an earlier call found of a light: its measures, or that it could not be read.
std::optional<RunLight> Road::FindKept(const RunLight& frame) const {
  const auto kept = state_->Find("light_" + frame.light->stem, frame.digest);
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

void Road::Keep(const RunLight& frame) {
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
  state_->Keep("light_" + frame.light->stem, frame.digest, std::move(kept));
}

void Road::TellBorders() {
  for (const RunLight& frame : frames_) {
    if (frame.border && !frame.border->IsEmpty()) {
      Plan(fmt::format("{}: {}", frame.light->Name(), frame.border->Text()));
    }
  }
}

/// Frames with the same pixels count once.
void Road::LeaveOutCopies() {
  std::map<std::uint64_t, const RunLight*> first;
  for (RunLight& frame : frames_) {
    if (!frame.IsMeasured() || !(frame.levels.noise[0] > 0)) continue;
    const auto [same, isNew] = first.emplace(frame.measure.digest, &frame);
    if (!isNew) LeaveOut(frame, "is a copy of " + same->second->light->Name());
  }
}

}  // namespace korimg::session
