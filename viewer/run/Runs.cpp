#include "viewer/run/Runs.h"

#include <algorithm>

#include <fmt/format.h>

#include "session/files/Formats.h"
#include "session/picture/Images.h"

namespace korimg::viewer {

using namespace session;

namespace fs = std::filesystem;

std::string Previews::Get(RegisteredFrames& frames, const FinishedRun& run, std::size_t frame, int side,
                          const std::function<bool()>& isGone) {
  const Shape& shape = frames.Size();
  const int shrink = ShrinkTo(shape, side);
  const Key key{frame, shrink, files::StampOf(run.frames.at(frame).frame.file)};
  const auto find = [&]() -> const std::string* {
    const std::lock_guard lock(mutex_);
    const auto found = std::ranges::find(kept_, key, &std::pair<Key, std::string>::first);
    if (found == kept_.end()) return nullptr;
    kept_.splice(kept_.begin(), kept_, found);
    return &kept_.front().second;
  };
  if (const std::string* jpeg = find()) return *jpeg;
  const std::lock_guard one(making_);  // each takes all processors
  if (const std::string* jpeg = find()) return *jpeg;
  if (isGone()) throw Cancelled();
  const Levels levels = frames.StretchOf(frame);
  std::string jpeg;
  PictureSaver saver(jpeg, shape, levels, shrink);
  BandBuffer band;
  const int rows = std::max(BandRows(shape.width, shape.planes, shape.height), 64);
  BandBuffer turned;
  for (int done = 0; done < shape.height; done += rows) {
    if (isGone()) throw Cancelled();
    const int count = std::min(rows, shape.height - done);
    const int top = frames.IsOverturned() ? shape.height - done - count : done;
    const Band<float> read = band.Get(shape.planes, shape.width, top, count);
    frames.Read(frame, read);
    for (int p = 0; frames.IsOverturned() && p < shape.planes; ++p) {
      for (int upper = 0, lower = count - 1; upper < lower; ++upper, --lower) {
        std::ranges::swap_ranges(read.Plane(p)[upper], read.Plane(p)[lower]);
      }
    }
    saver.Write(read);
  }
  saver.Commit();
  const std::lock_guard lock(mutex_);
  held_ += static_cast<long long>(jpeg.size());
  kept_.emplace_front(key, jpeg);
  while (held_ > bytes_ && kept_.size() > 1) {
    held_ -= static_cast<long long>(kept_.back().second.size());
    kept_.pop_back();
  }
  return jpeg;
}

namespace {

/// The state of what a run leaves last; empty where it is gone.
std::string RecordOf(const fs::path& folder) {
  const fs::path record = folder / "report.html";
  return fs::exists(record) ? files::StampOf(record) : "";
}

}  // namespace

ViewedRun::ViewedRun(Job& job, OpenImages& images, const fs::path& folder, int version)
    : job_(job),
      images_(images),
      stamp_(RecordOf(folder)),
      run_(OpenRun(folder)),
      version_(version),
      flags_(run_),
      previews_(job.Memory() / 16) {}

bool ViewedRun::IsOld() const {
  return RecordOf(run_.folder) != stamp_;
}

std::shared_ptr<RegisteredFrames> ViewedRun::Frames() {
  const std::lock_guard lock(opening_);
  if (!frames_) {
    frames_ = std::make_shared<RegisteredFrames>(
        run_, JobOptions{.cancel = job_.options.cancel, .memory = job_.Memory() / 4});
  }
  return frames_;
}

std::string ViewedRun::Preview(std::size_t frame, int side, const std::function<bool()>& isGone) {
  return previews_.Get(*Frames(), run_, frame, side, isGone);
}

Levels ViewedRun::LevelsOf(std::size_t frame) {
  return Frames()->StretchOf(frame);
}

int ViewedRun::ImageOf(std::size_t frame) {
  const auto frames = Frames();
  const std::lock_guard lock(opening_);
  if (const auto found = offered_.find(frame); found != offered_.end()) return found->second;
  const std::weak_ptr<RegisteredFrames> weak = frames;
  const int number = images_.Offer([weak, frame]() -> std::shared_ptr<const Source> {
    const auto now = weak.lock();
    if (!now) throw UsageError("the run was done again since; open its frames again");
    return Upright(
        now->InfoOf(frame), {}, now->Size(), [now, frame](const Band<float>& to) { now->Read(frame, to); },
        now->IsOverturned());
  });
  return offered_.emplace(frame, number).first->second;
}

std::vector<Runs::Entry> Runs::List() {
  const std::lock_guard lock(mutex_);
  std::vector<Entry> entries;
  for (const fs::path& named : files_.Folders()) {
    for (const fs::path& folder : FindRuns(named)) {
      auto found = std::ranges::find(folders_, folder);
      if (found == folders_.end()) found = folders_.insert(found, folder);
      const std::string name = folder == named
                                   ? named.filename().string()
                                   : (named.filename() / folder.lexically_relative(named)).string();
      entries.push_back({static_cast<int>(found - folders_.begin()), name});
    }
  }
  return entries;
}

fs::path Runs::FolderOf(int id) {
  if (id < 0 || id >= static_cast<int>(folders_.size())) {
    throw UsageError(fmt::format("no run has the number {}", id));
  }
  return folders_[id];
}

std::shared_ptr<ViewedRun> Runs::Get(int id) {
  const std::lock_guard lock(mutex_);
  auto& run = open_[id];
  try {
    if (!run || run->IsOld()) run = std::make_shared<ViewedRun>(job_, images_, FolderOf(id), ++versions_);
  } catch (...) {
    open_.erase(id);
    throw;
  }
  return run;
}

}  // namespace korimg::viewer
