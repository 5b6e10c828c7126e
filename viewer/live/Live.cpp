#include "viewer/live/Live.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <utility>

#include "session/calibrate/FindSession.h"
#include "session/picture/AutoPicture.h"
#include "viewer/server/ChildToken.h"
#include "viewer/server/Files.h"

namespace korimg::viewer {

using namespace session;

namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

Json JsonOf(const LiveFrame& frame) {
  Json json{{"name", frame.file.filename().string()},
            {"added", frame.isAdded},
            {"status", frame.status},
            {"masters", frame.masters},
            {"stars", frame.stars},
            {"fwhm", frame.fwhm},
            {"sky", frame.sky},
            {"noise", frame.noise},
            {"dx", frame.dx},
            {"dy", frame.dy},
            {"degrees", frame.degrees},
            {"weight", frame.weight},
            {"seconds", frame.seconds}};
  json["rejected"] = frame.rejected ? Json(*frame.rejected) : Json();
  return json;
}

}  // namespace

Live::Live(Job& job, const WatchedFolder& watched)
    : watched_(watched),
      token_(std::make_shared<ChildToken>(job.options.cancel)),
      job_({.cancel = token_, .memory = job.Memory() / 4}) {
  stack_ = std::make_shared<LiveStack>(job_, Options());
  thread_ = std::thread([this] { Watch(); });
}

Live::~Live() {
  token_->Cancel();
  {
    const std::lock_guard lock(mutex_);
    ends_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

LiveOptions Live::Options() const {
  LiveOptions options;
  if (!watched_.masters.empty()) {
    options.calibrate.masters = watched_.masters;
    return options;
  }
  // Calibration frames that lie in the folder already.
  Job quiet({.cancel = token_});
  SessionFrames found = FindCalibration(quiet, watched_.folder);
  options.calibrate.darks = std::move(found.darks);
  options.calibrate.flats = std::move(found.flats);
  options.calibrate.biases = std::move(found.biases);
  return options;
}

/// Tells of what is in the way, for which is waited then; of nothing when it is gone.
void Live::Tell(const std::string& failure) {
  constexpr milliseconds kWait(1000);  // chosen
  std::unique_lock lock(mutex_);
  if (failure_ != failure) {
    failure_ = failure;
    changed_.notify_all();
  }
  if (!failure.empty()) changed_.wait_for(lock, kWait, [this] { return ends_ || first_.has_value(); });
}

bool Live::BeginsAnew() const {
  const std::lock_guard lock(mutex_);
  return first_.has_value();
}

/// Files that have come. A folder that is gone, as on a disk that was pulled out, is waited for.
std::vector<fs::path> Live::Next(FolderWatch& watch) {
  std::vector<fs::path> files;
  try {
    files = watch.Next(milliseconds(1000));
    Tell("");
  } catch (const files::FileError& error) {
    if (error.Subject() != watched_.folder.string()) throw;
    Tell(TextFor(error));
  }
  const std::lock_guard lock(mutex_);
  std::erase_if(files, [this](const fs::path& file) {
    return std::ranges::any_of(own_, [&](const fs::path& own) { return IsBelow(file, own); });
  });
  return files;
}

/// What make() makes, once files allow it; nothing when the stack is begun anew meanwhile.
template <class Make>
auto Live::Patiently(Make&& make) -> std::optional<decltype(make())> {
  while (!BeginsAnew()) {
    try {
      auto made = make();
      Tell("");
      return made;
    } catch (const files::FileError& error) {
      Tell(TextFor(error));
      job_.CheckCancelled();
    }
  }
  return std::nullopt;
}

bool Live::Add(const fs::path& file) {
  {
    const std::lock_guard lock(mutex_);
    doing_ = file.filename().string();
  }
  changed_.notify_all();
  // Calibration frames may be out of reach now.
  const auto frame = Patiently([&] { return stack_->Add(file); });
  if (!frame) return false;
  std::string picture;
  if (frame->isAdded) {
    if (const std::optional<Image> mean = stack_->Snapshot()) {
      const Levels levels = LevelForPicture(mean->Pixels(), LevelMethod::Auto);
      picture = session::JpegOf(job_, mean->Pixels(), levels,
                                ShrinkTo({mean->Width(), mean->Height(), mean->Planes()}, kSide));
    }
  }
  const std::lock_guard lock(mutex_);
  frames_.push_back(JsonOf(*frame));
  files_.push_back(file);
  doing_.clear();
  if (!picture.empty()) {
    picture_ = std::move(picture);
    ++pictures_;
  }
  changed_.notify_all();
  return frame->isAdded;
}

/// Adds the frames that are there and those that come, until the stack is begun anew.
void Live::Stack() {
  fs::path first;
  {
    const std::lock_guard lock(mutex_);
    first = std::exchange(first_, std::nullopt).value_or(fs::path());
  }
  if (!first.empty()) {
    const auto stack = Patiently([&] { return std::make_shared<LiveStack>(job_, Options()); });
    if (!stack) return;
    const std::lock_guard lock(mutex_);
    stack_ = *stack;
    frames_.clear();
    files_.clear();
    ++begun_;
  }
  if (!first.empty() && !Add(first)) first.clear();  // it is waited for like others
  const auto watch =
      Patiently([&] { return std::make_unique<FolderWatch>(job_, WatchOptions{.folder = watched_.folder}); });
  if (!watch) return;
  while (!BeginsAnew()) {
    for (const fs::path& file : Next(**watch)) {
      if (BeginsAnew()) return;
      if (file == first) {
        first.clear();
        continue;
      }
      Add(file);
    }
  }
}

void Live::Watch() {
  try {
    try {
      for (;;) {
        Stack();
      }
    } catch (...) {
      ThrowOfFamily();
    }
  } catch (const Error& error) {
    const std::lock_guard lock(mutex_);
    if (error.Kind() != ErrorKind::Cancelled) failure_ = TextFor(error);
    ends_ = true;
    changed_.notify_all();
  }
}

void Live::BeginWith(int frame, int begun) {
  const std::lock_guard lock(mutex_);
  if (ends_) throw UsageError("live stacking has ended: " + failure_);
  if (begun != begun_ || frame < 0 || frame >= static_cast<int>(files_.size())) {
    throw UsageError("there is no such frame");
  }
  first_ = files_[frame];
  changed_.notify_all();
}

Json Live::State(const Seen& seen, const std::function<bool()>& isGone) const {
  constexpr milliseconds kLook(200);  // chosen: how soon a page that has gone is noticed
  constexpr int kPatience = 50;       // looks, ten seconds; chosen
  std::unique_lock lock(mutex_);
  const std::string failure = failure_;
  for (int i = 0; i < kPatience; ++i) {
    const bool isNew = seen.begun != begun_ || seen.frames < static_cast<int>(frames_.size()) ||
                       seen.picture != pictures_ || ends_ || failure != failure_;
    if (isNew || isGone()) break;
    changed_.wait_for(lock, kLook);
  }
  const std::size_t first =
      seen.begun == begun_ ? std::min(static_cast<std::size_t>(std::max(seen.frames, 0)), frames_.size()) : 0;
  const auto added =
      std::ranges::count_if(frames_, [](const Json& frame) { return frame["added"].get<bool>(); });
  return {{"folder", watched_.folder.filename().string()},
          {"begun", begun_},
          {"count", frames_.size()},
          {"added", added},
          {"picture", pictures_},
          {"doing", doing_},
          {"failure", failure_},
          {"ended", ends_},
          {"frames", std::vector<Json>(frames_.begin() + static_cast<std::ptrdiff_t>(first), frames_.end())}};
}

std::string Live::Picture() const {
  const std::lock_guard lock(mutex_);
  return picture_;
}

void Live::PassOver(const fs::path& own) {
  const std::lock_guard lock(mutex_);
  own_.push_back(own);
}

Image Live::Snapshot() const {
  std::shared_ptr<LiveStack> stack;
  {
    const std::lock_guard lock(mutex_);
    stack = stack_;
  }
  std::optional<Image> image = stack->Snapshot();
  if (!image) throw UsageError("no frame was added yet");
  return std::move(*image);
}

RunOptions Live::Proper(Job& job, const fs::path& out) const {
  return ProperRun(job, watched_.folder, out, Options());
}

}  // namespace korimg::viewer
