#include "viewer/server/Work.h"

#include <chrono>

#include <fmt/format.h>

#include "session/job/Json.h"
#include "viewer/server/ChildToken.h"

namespace korimg::viewer {

using session::Event;

namespace {

constexpr std::size_t kMost = 5000;  // events that are kept; chosen

const char* NameOf(Event::Kind kind) {
  static constexpr const char* names[] = {"note", "detail", "progress", "result", "warning", "failure"};
  return names[kind];
}

}  // namespace

Work::~Work() {
  Cancel();
  if (thread_.joinable()) thread_.join();
}

int Work::Start(const std::string& title, const session::JobOptions& options, Doing doing) {
  const std::lock_guard lock(mutex_);
  if (state_ == "working") {
    throw session::UsageError(fmt::format("{} is at work; cancel it, or wait for its end", title_));
  }
  if (thread_.joinable()) thread_.join();  // it has nothing left to do
  token_ = std::make_shared<ChildToken>(parent_.options.cancel);
  title_ = title;
  state_ = "working";
  more_ = Json::object();
  told_.clear();
  session::JobOptions own{.report = [this](const Event& event) { Take(event); },
                          .cancel = token_,
                          .memory = parent_.Memory() / 2,
                          .overwrite = options.overwrite,
                          .origin = options.origin};
  thread_ = std::thread([this, own = std::move(own), doing = std::move(doing)] {
    try {
      try {
        session::Job job(own);
        Json result = doing(job);
        End("done", {{"failed", job.HasFailed()}, {"result", std::move(result)}});
      } catch (...) {
        session::ThrowOfFamily();
      }
    } catch (const session::Error& error) {
      const bool isCancelled = error.Kind() == session::ErrorKind::Cancelled;
      End(isCancelled ? "cancelled" : "failed", {{"error", TextFor(error)}});
    }
  });
  return ++number_;
}

void Work::Cancel() {
  const std::lock_guard lock(mutex_);
  if (token_) token_->Cancel();
}

Json Work::StateLocked() const {
  Json json{{"number", number_}, {"title", title_}, {"state", state_}, {"last", last_}};
  json.update(more_);
  return json;
}

Json Work::State() const {
  const std::lock_guard lock(mutex_);
  return StateLocked();
}

void Work::Take(const Event& event) {
  Json json{{"kind", NameOf(event.kind)}, {"text", event.text}};
  if (event.kind == Event::Progress) {
    json["step"] = event.step;
    json["total"] = event.total;
    if (!event.detail.empty()) json["detail"] = event.detail;
  }
  if (!event.data.empty()) json["data"] = Json::parse(event.data, nullptr, false);
  const std::lock_guard lock(mutex_);
  Tell(std::move(json), event.kind == Event::Progress);
}

/// Of progress only the last word is kept.
void Work::Tell(Json event, bool isProgress) {
  if (isProgress && !told_.empty() && told_.back().isProgress) told_.pop_back();
  if (told_.size() >= kMost) told_.pop_front();
  told_.push_back({++last_, isProgress, std::move(event)});
  changed_.notify_all();
}

void Work::End(const char* state, Json more) {
  const std::lock_guard lock(mutex_);
  state_ = state;
  more_ = std::move(more);
  Json json{{"kind", "end"}};
  json.update(StateLocked());
  Tell(std::move(json), false);
}

void Work::Follow(long long last, const Send& send, const std::function<bool()>& isGone) {
  constexpr auto kPause = std::chrono::milliseconds(50);  // between pieces, however fast events come; chosen
  constexpr int kQuiet = 100;                             // pauses after which a sign of life is sent; chosen
  int quiet = 0;
  for (bool isWorking = true; isWorking && !isGone(); std::this_thread::sleep_for(kPause)) {
    std::string piece;
    {
      std::unique_lock lock(mutex_);
      changed_.wait_for(lock, kPause, [&] { return last_ > last || state_ != "working"; });
      for (const Told& told : told_) {
        if (told.number <= last) continue;
        piece += fmt::format("id: {}\ndata: {}\n\n", told.number, session::Dump(told.event));
      }
      last = last_;
      isWorking = state_ == "working";
    }
    if (piece.empty() && ++quiet == kQuiet) piece = ": still here\n\n";
    if (piece.empty()) continue;
    quiet = 0;
    if (!send(piece)) return;
  }
}

}  // namespace korimg::viewer
