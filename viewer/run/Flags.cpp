#include "viewer/run/Flags.h"

#include <algorithm>
#include <fstream>

#include <fmt/format.h>
#include <unistd.h>

#include "session/files/Formats.h"
#include "session/job/Json.h"
#include "viewer/server/Router.h"

namespace korimg::viewer {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kMostUndone = 1000;  // chosen

std::string StampOf(const fs::path& path) {
  return fs::exists(path) ? files::StampOf(path) : "";
}

}  // namespace

Flags::Flags(const session::FinishedRun& run) : path_(run.folder / "selection.json") {
  for (const session::FinishedFrame& frame : run.frames) {
    now_.push_back(frame.isExcluded);
  }
  if (fs::exists(path_)) {
    try {
      stamp_ = StampOf(path_);
      session::RunOptions selection;
      session::AddSelection(selection, path_);
      now_ = session::LeftOutBy(run, selection);
      for (const std::string& pattern : selection.exclude) {
        session::RunOptions one;
        one.exclude = {pattern};
        const std::vector<bool> left = session::LeftOutBy(run, one);
        if (std::ranges::none_of(left, [](bool is) { return is; })) others_.push_back(pattern);
      }
      reference_ = selection.reference.string();
    } catch (const session::Error& error) {
      problem_ = TextFor(error);
      stamp_.clear();  // it is not replaced
    }
  }
  saved_ = now_;
}

void Flags::Set(const std::vector<std::size_t>& frames, bool isOut) {
  std::vector<bool> next = now_;
  for (const std::size_t frame : frames) {
    if (frame >= next.size()) throw session::UsageError(fmt::format("the run has no frame {}", frame));
    next[frame] = isOut;
  }
  if (next == now_) return;
  if (before_.size() == kMostUndone) before_.erase(before_.begin());
  before_.push_back(std::move(now_));
  now_ = std::move(next);
}

void Flags::Undo() {
  if (before_.empty()) return;
  now_ = std::move(before_.back());
  before_.pop_back();
}

void Flags::Save(const session::FinishedRun& run) {
  if (StampOf(path_) != stamp_) {
    throw files::FileError(path_, problem_.empty()
                                      ? "was changed by somebody else since it was read; move it away"
                                      : "is no selection, and is not replaced; move it away");
  }
  nlohmann::ordered_json json{{"exclude", nlohmann::ordered_json::array()}};
  for (std::size_t i = 0; i < now_.size(); ++i) {
    if (now_[i]) json["exclude"].push_back(session::PatternOf(run, i));
  }
  for (const std::string& pattern : others_) {
    json["exclude"].push_back(pattern);
  }
  if (!reference_.empty()) json["reference"] = reference_;
  const fs::path partial = path_.string() + "." + std::to_string(getpid()) + ".part";
  {
    std::ofstream file(partial);
    file << json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << '\n';
    file.close();
    if (!file) {
      fs::remove(partial);
      throw files::FileError(path_, "cannot be written; is the disk full?");
    }
  }
  fs::rename(partial, path_);
  stamp_ = StampOf(path_);
  saved_ = now_;
}

}  // namespace korimg::viewer
