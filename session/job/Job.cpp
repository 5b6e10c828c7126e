#include "session/job/Job.h"

#include <charconv>
#include <cmath>
#include <utility>

#include <fmt/format.h>
#include <sys/resource.h>

#include "korimg/image/Progress.h"
#include "korimg/pipelines/runtime/Runtime.h"
#include "korimg/platform/Debug.h"

#include "session/files/ImageFile.h"
#include "session/job/internal/Edge.h"

namespace korimg::session {

namespace {

/// What a reporter threw, which is no fault of the file that was worked on.
struct OfReporter : Error {
  explicit OfReporter(const Error& error) : Error(error) {}
};

[[noreturn]] void ThrowOfReporter() {
  try {
    ThrowOfFamily();
  } catch (const Cancelled&) {
    throw;
  } catch (const Error& error) {
    throw OfReporter(error);
  }
}

}  // namespace

Job::Job(JobOptions given) : options(std::move(given)), failuresBefore_(PipelineFailures()) {
  if (options.memory < 0) throw UsageError("a job has 0 bytes of memory, for what is usual, or more");
  window_ = CreateMessageWindow([this](unsigned message, std::uintptr_t first, std::intptr_t second) {
    if (message == kProgressMessage) ShowOperation(static_cast<ProgressEvent>(first), second);
    return 0;
  });
}

/// Operations close their display by destructors, which nothing may leave: what the reporter throws is kept
/// until the job goes on, and the reporter is left alone until then.
void Job::ShowOperation(ProgressEvent event, std::intptr_t detail) {
  const std::lock_guard lock(reporting_);
  if (event == ProgressEvent::Open) isOpen_ = true;
  if (event == ProgressEvent::Close) isOpen_ = false;
  if (thrown_) return;
  try {
    if (event == ProgressEvent::Open && options.ownCaptions && detail) {
      operation_ = Narrow(reinterpret_cast<const wchar_t*>(detail));
    }
    if (event == ProgressEvent::Step) {
      Progress(operation_, detail, 100);
      // Operations that can stop half way look for the key; the others go on to their end.
      if (isOpen_ && options.cancel && options.cancel->IsCancelled()) {
        PostMessageW(window_, WM_KEYDOWN, VK_ESCAPE, 0);
      }
    }
    if (event == ProgressEvent::Close) Progress("", 0, 0);
  } catch (...) {
    thrown_ = std::current_exception();
  }
}

void Job::RethrowOfReporter() {
  const std::lock_guard lock(reporting_);
  if (thrown_) std::rethrow_exception(std::exchange(thrown_, nullptr));
}

void Job::EndProgress() {
  Progress("", 0, 0);
  RethrowOfReporter();
}

Job::~Job() {
  DestroyMessageWindow(window_);
}

void Job::Report(const Event& event) {
  const std::lock_guard lock(reporting_);
  if (!options.report) return;
  try {
    options.report(event);
  } catch (...) {
    ThrowOfReporter();
  }
}

void Job::Fail(const std::string& line) {
  hasFailed_ = true;
  Report({Event::Failure, line});
}

void Job::Progress(const std::string& title, long long step, long long total) {
  const std::lock_guard lock(reporting_);
  if (!inJob_) Report({Event::Progress, title, "", step, total});
}

void Job::JobProgress(const std::string& title, long long step, long long total, const std::string& detail) {
  const std::lock_guard lock(reporting_);
  inJob_ = total > 0;
  Report({Event::Progress, title, "", step, total, detail});
}

void Job::CheckCancelled() const {
  if (options.cancel && options.cancel->IsCancelled()) throw Cancelled();
}

HWND Job::OperationWindow(const std::string& title) {
  operation_ = title;
  MSG key;
  while (PeekMessageW(&key, WM_KEYDOWN, WM_KEYDOWN)) {
    // Those that ended the operation before are not for this one.
  }
  return window_;
}

long long Job::Memory() const {
  return options.memory > 0 ? options.memory : DefaultBudget();
}

std::shared_ptr<CVmManager> Job::MakeStore(bool paged) const {
  StoreOptions store;
  store.budget = Memory();
  if (!paged) {
    const std::lock_guard lock(mutex_);
    if (!contiguous_) contiguous_ = CreateContiguousManager(store);
    return contiguous_;
  }
  // A pool of at least 16 blocks, however small the budget is.
  store.blockSize = std::min<long long>(store.blockSize, std::max(store.budget / 16, 4096LL));
  return CreatePagedManager(store);
}

void Job::ForEachFile(const std::vector<std::filesystem::path>& files,
                      const std::function<void(const std::filesystem::path&)>& work, bool mayBeMissing) {
  const auto fail = [&](const std::string& line) { return mayBeMissing ? Warn(line) : Fail(line); };
  for (const std::filesystem::path& file : files) {
    CheckCancelled();
    const long long failures = PipelineFailures();
    try {
      AtEdge([&] { work(file); });
      if (PipelineFailures() != failures) CheckComputed(file);
    } catch (const Cancelled&) {
      throw;
    } catch (const UsageError&) {
      throw;
    } catch (const OfReporter&) {
      throw;
    } catch (const files::FileError& error) {
      fail(error.what());
    } catch (const Error& error) {
      fail(fmt::format("{}: {}", file.string(), error.what()));
    }
  }
}

void Job::CheckOutput(const std::filesystem::path& path) const {
  if (options.overwrite || !std::filesystem::exists(path)) return;
  throw files::FileError(path, "exists already; choose another name or use --overwrite");
}

bool Job::HasMiscomputed() const {
  return PipelineFailures() != failuresBefore_;
}

void Job::CheckComputed(const std::filesystem::path& path) const {
  if (!HasMiscomputed()) return;
  const char* text =
      "part of the computation failed, most likely for want of memory, and its result is not kept; lower "
      "--memory or --threads and run it again (--verbose tells what failed)";
  if (path.empty()) throw Error(ErrorKind::Resource, text);
  throw files::FileError(path, text);
}

void Job::ForgetFailures() {
  failuresBefore_ = PipelineFailures();
}

long long ParseSize(const std::string& text) {
  double number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  std::string unit(end, text.data() + text.size());
  if (!unit.empty() && (unit.back() == 'B' || unit.back() == 'b')) unit.pop_back();
  if (!unit.empty() && unit.back() == 'i') unit.pop_back();
  const std::string units = "KMGT";
  const size_t power = unit.empty() ? 0 : units.find(static_cast<char>(std::toupper(unit[0]))) + 1;
  number = std::ldexp(number, 10 * static_cast<int>(power));
  if (error != std::errc() || !(number > 0 && number < 1e18) || unit.size() > 1 ||
      (!unit.empty() && power == 0)) {
    throw UsageError(
        fmt::format("'{}' is no size: write a number of bytes, or one with K, M, G or T, as in 512M", text));
  }
  return static_cast<long long>(number);
}

std::optional<double> ToNumber(const std::string& text) {
  double value = 0;
  const char* start = text.c_str() + (text.starts_with('+') ? 1 : 0);
  const auto [end, error] = std::from_chars(start, text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
  return value;
}

std::string Percent(double share) {
  return fmt::format("{:.3g} %", 100 * share);
}

long long PeakMemory() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss * 1024LL;
}

}  // namespace korimg::session
