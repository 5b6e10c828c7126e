// What a piece of work needs of the world, whoever has it done: a command line, a script, a window.
#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "korimg/image/CVmManager.h"
#include "korimg/image/Progress.h"
#include "korimg/platform/Messages.h"

#include "session/Export.h"
#include "session/job/Errors.h"

namespace korimg::session {

/// Holds what a job tells while it works.
struct Event {
  enum Kind {
    Note,      ///< what was found, is planned, or is done
    Detail,    ///< the same for those who want to know more
    Progress,  ///< how far a part of the work is, in the user's units
    Result,    ///< what has become of a frame or an output
    Warning,
    Failure  ///< something that was asked for cannot be done; the rest still is
  };

  Kind kind = Note;
  std::string text;  ///< one line for people; of Progress the title
  /// Result, and Detail where there are numbers: the same for programs, an object of JSON in one line.
  std::string data = {};
  long long step = 0, total = 0;  ///< Progress: so many of so many; a total of 0 ends it
  std::string detail = {};        ///< Progress: stands in the place of "step of total", if any
};

/// Takes the events of a job: one at a time, in their order, on whatever thread they come up on. What it
/// throws ends the step, once an operation that runs is done.
using Reporter = std::function<void(const Event&)>;

/// Stops the jobs that share it at their next step.
class KORIMG_SESSION_API CancelToken {
 public:
  virtual ~CancelToken() = default;
  /// Cancels; any thread may call it, and handlers of signals.
  void Cancel() { cancelled_ = true; }
  virtual bool IsCancelled() { return cancelled_; }

 private:
  std::atomic<bool> cancelled_ = false;
};

struct JobOptions {
  Reporter report;  ///< none: nobody listens
  std::shared_ptr<CancelToken> cancel = std::make_shared<CancelToken>();
  long long memory = 0;      ///< bytes for pixels; 0 takes DefaultBudget()
  bool overwrite = false;    ///< outputs may replace files
  bool ownCaptions = false;  ///< operations show their own captions, in Japanese
  std::string origin;        ///< what the work was called by, for headers and reports
};

/// One piece of work: a session, a recipe for some files. Jobs share nothing but the pipelines' pool of
/// threads: several may run in one process, each within its own memory.
class KORIMG_SESSION_API Job {
 public:
  explicit Job(JobOptions options = {});
  ~Job();
  Job(const Job&) = delete;
  Job& operator=(const Job&) = delete;

  JobOptions options;

  void Say(const std::string& line) { Report({Event::Note, line}); }
  void Explain(const std::string& line, const std::string& data = {}) { Report({Event::Detail, line, data}); }
  void Warn(const std::string& line) { Report({Event::Warning, line}); }
  /// Tells of something that was asked for and is not there. The job is no success, but goes on.
  void Fail(const std::string& line);
  bool HasFailed() const { return hasFailed_; }
  /// Tells what has become of a frame or an output: an object of JSON, and a line that says the same.
  void Tell(const std::string& data, const std::string& line) { Report({Event::Result, line, data}); }

  /// Shows how far a part of the work is: step of total. A total of 0 ends the display.
  void Progress(const std::string& title, long long step, long long total);
  /// Ends the display, and throws what the reporter threw during an operation.
  void EndProgress();
  /// Does the same for work on many files, until a total of 0: what its parts show of theirs is kept away.
  void JobProgress(const std::string& title, long long step, long long total, const std::string& detail = "");
  /// Throws Cancelled once the token was used.
  void CheckCancelled() const;
  /// Answers the window that the library's operations show their progress on, under that title.
  HWND OperationWindow(const std::string& title);

  /// Answers the bytes that pixels may take.
  long long Memory() const;
  /// Answers a store within the memory budget: the contiguous one, which all of a job shares with its budget,
  /// or a new paged one. Any thread may ask.
  std::shared_ptr<CVmManager> MakeStore(bool paged = false) const;

  /// Does a thing to each file. A failure is told in one line, and the other files are still done. The job
  /// has failed then, unless the file may be missing from the result.
  void ForEachFile(const std::vector<std::filesystem::path>& files,
                   const std::function<void(const std::filesystem::path&)>& work, bool mayBeMissing = false);

  /// Refuses an output that exists already, unless it may be replaced.
  void CheckOutput(const std::filesystem::path& path) const;
  /// True once a pipeline has failed while this job was at work: what was computed since may be wrong.
  /// Pipelines don't know whose they are, so that failures of jobs beside this one count too.
  bool HasMiscomputed() const;
  /// Refuses to keep, or to hand out, what may be wrong. Throws FileError about `path`, and without one an
  /// error of resources.
  void CheckComputed(const std::filesystem::path& path = {}) const;
  /// Trusts what is computed from here on, where nothing is left of what may be wrong.
  void ForgetFailures();

 private:
  void Report(const Event& event);
  void ShowOperation(ProgressEvent event, std::intptr_t detail);
  void RethrowOfReporter();

  mutable std::mutex mutex_;
  std::recursive_mutex reporting_;
  std::atomic<bool> hasFailed_ = false;
  std::atomic<long long> failuresBefore_;  ///< of pipelines, before this job
  bool inJob_ = false;
  bool isOpen_ = false;        ///< an operation runs: steps that come late are of one that has ended
  std::exception_ptr thrown_;  ///< by the reporter, while an operation ran
  HWND window_;
  std::string operation_;
  mutable std::shared_ptr<CVmManager> contiguous_;
};

/// Answers the bytes of "200M", "1.5G", "4096". Throws UsageError.
KORIMG_SESSION_API long long ParseSize(const std::string& text);

/// Answers the number that a text is, the whole of it.
KORIMG_SESSION_API std::optional<double> ToNumber(const std::string& text);

/// Writes a share for people, as in "1.25 %".
KORIMG_SESSION_API std::string Percent(double share);

/// Answers the bytes of memory that this process held at most.
KORIMG_SESSION_API long long PeakMemory();

}  // namespace korimg::session
