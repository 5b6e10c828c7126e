// Outputs that are a step's own to replace.
#pragma once

#include <utility>

#include "session/job/Job.h"

namespace korimg::session {

/// Lets a job's outputs replace files as long as it lives: what is there was looked at before.
class Overwriting {
 public:
  explicit Overwriting(Job& job) : job_(job), before_(std::exchange(job.options.overwrite, true)) {}
  ~Overwriting() { job_.options.overwrite = before_; }
  Overwriting(const Overwriting&) = delete;
  Overwriting& operator=(const Overwriting&) = delete;

 private:
  Job& job_;
  bool before_;
};

}  // namespace korimg::session
