// What takes long: one job at a time, in a thread of its own, told of to all pages.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "session/job/Job.h"
#include "viewer/server/Router.h"

namespace korimg::viewer {

/// Does a job beside the answering of requests. What it tells is kept, so that a page that comes later, or
/// again, knows all of it. Any thread may ask.
class Work {
 public:
  /// Does the job, and answers what pages are to know of it.
  using Doing = std::function<Json(session::Job& job)>;

  /// Begins idle; jobs end with `parent`, and take half of its memory.
  explicit Work(session::Job& parent) : parent_(parent) {}
  /// Cancels what is at work, and waits for its end.
  ~Work();

  /// Begins. Of the options the origin and whether it overwrites are the caller's. The job's number is
  /// answered.
  /// @throws UsageError while another one is at work
  int Start(const std::string& title, const session::JobOptions& options, Doing doing);
  /// Ends the job at its next step.
  void Cancel();
  /// Answers the job's number, title and state ("idle", "working", "done", "failed", "cancelled"), with its
  /// "error" or its "result", and the number of its last event.
  Json State() const;
  /// Sends the events after number `last` as server-sent events, and those that come, until the job has
  /// ended and all is sent, or nobody listens. Events are objects with a "kind": those of the job as named in
  /// session/job/Job.h, in small letters, and "end" with what State answers.
  void Follow(long long last, const Send& send, const std::function<bool()>& isGone);

 private:
  struct Told {
    long long number;
    bool isProgress;
    Json event;
  };

  void Take(const session::Event& event);
  void Tell(Json event, bool isProgress);
  void End(const char* state, Json more);
  Json StateLocked() const;

  session::Job& parent_;
  mutable std::mutex mutex_;  ///< of all below
  std::condition_variable changed_;
  std::shared_ptr<session::CancelToken> token_;
  int number_ = 0;
  std::string title_, state_ = "idle";
  Json more_ = Json::object();
  std::deque<Told> told_;
  long long last_ = 0;
  std::thread thread_;
};

}  // namespace korimg::viewer
