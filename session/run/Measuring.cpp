#include <algorithm>
#include <map>

#include <fmt/format.h>

#include "session/files/Formats.h"
#include "session/job/internal/SideBySide.h"
#include "session/picture/AutoPicture.h"
#include "session/run/internal/Road.h"

namespace korimg::session {

namespace fs = std::filesystem;

std::shared_ptr<CVelImage> LoadWhole(LightRows& rows, const std::shared_ptr<CVmManager>& store) {
  const Shape shape = rows.Size();
  // The image does not keep its store alive.
  auto image = std::shared_ptr<CVelImage>(
      new CVelImage(store, CImage::Float, shape.width, shape.height, shape.planes, 1.0, 0.0, 1, nullptr),
      [store](CVelImage* p) { delete p; });
  rows.Read(Image::RowsOf(*image, 0, shape.height));
  return image;
}

/// What all frames of a target are shown by, so that they compare: that of the first one that can be read.
Levels Road::StretchOfFrames(const RunTarget& target) const {
  for (const RunLight* frame : target.frames) {
    try {
      LightRows rows(session_, *frame->light);
      StackInput input{frame->light->Name(), rows.Size()};
      input.read = [&rows](const Band<float>& to) { rows.Read(to); };
      return StretchForPicture(*SampleInput(input));
    } catch (const files::FileError&) {  // it is told of when the frame is measured
    }
  }
  return {};
}

void Road::MeasureFrames() {
  std::map<const Light*, Levels> shown;
  for (const RunTarget& target : targets_) {
    const Levels levels = StretchOfFrames(target);
    for (const RunLight* frame : target.frames) {
      shown[frame->light] = levels;
    }
  }
  SideBySide(
      job_, "measuring frame", frames_.size(), BytesOfFrame(),
      [&](size_t i) {
        if (const auto kept = state_->Find("light_" + frames_[i].light->stem, frames_[i].digest)) {
          return FromKept(frames_[i], *kept);
        }
        RunLight frame{frames_[i].light, frames_[i].digest, ""};
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
      [&](size_t i, const auto& result) {
        const auto take = [&](const fs::path&) {
          try {
            frames_[i] = result();
            Keep(frames_[i]);
          } catch (const files::FileError& error) {
            frames_[i].error = error.Reason();
            frames_[i].isUnfinished = dynamic_cast<const files::UnfinishedError*>(&error);
            throw;
          } catch (const std::exception& error) {
            frames_[i].error = error.what();
            throw;
          }
        };
        job_.ForEachFile({frames_[i].light->frame.path}, take, true);
      });
  const auto kept = std::count_if(frames_.begin(), frames_.end(), [](const RunLight& f) { return f.isKept; });
  if (kept > 0) job_.Say(fmt::format("{} of {} lights were measured before", kept, frames_.size()));
  for (const RunLight& frame : frames_) {
    if (frame.border && !frame.border->IsEmpty()) {
      Plan(fmt::format("{}: {}", frame.light->Name(), frame.border->Text()));
    }
  }
}

/// A light as an earlier call measured it. Borders are looked for again: few frames have one.
RunLight Road::FromKept(const RunLight& frame, const KeptJson& kept) {
  RunLight found{frame.light, frame.digest, ""};
  found.isKept = true;
  found.shape = kept.at("shape");
  found.clipped = kept.at("clipped");
  found.border = std::make_shared<files::ConstantBorder>();
  found.measure = kept.at("measure");
  found.levels = kept.at("levels");
  found.thumbnail = BytesOf(kept.at("thumbnail"));
  return found;
}

void Road::Keep(const RunLight& frame) {
  if (frame.isKept || !frame.border || !frame.border->IsEmpty()) return;
  state_->Keep("light_" + frame.light->stem, frame.digest,
               {{"shape", frame.shape},
                {"clipped", frame.clipped},
                {"measure", frame.measure},
                {"levels", frame.levels},
                {"thumbnail", Binary(frame.thumbnail)}});
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
