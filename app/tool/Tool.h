// What the verbs of the tool share: common options, exit codes, the console and the pixel stores.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "korimg/image/CVmManager.h"

#include "app/tool/Console.h"

namespace korimg::tool {

enum ExitCode : int { kDone = 0, kFailed = 1, kBadUsage = 2, kCancelled = 130 };

/// The call itself is wrong: exit code 2. The text says what to write instead.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Options that every verb takes.
struct CommonOptions {
  int threads = 0;       ///< of both pools; 0 leaves the defaults
  long long memory = 0;  ///< bytes for pixels; 0 takes DefaultBudget()
  bool quiet = false, verbose = false, json = false, overwrite = false, dryRun = false;
};

/// Bytes of "200M", "1.5G", "4096". Throws UsageError.
long long ParseSize(const std::string& text);

/// The number that a text is, the whole of it.
std::optional<double> ToNumber(const std::string& text);

/// A share for people, as in "1.25 %".
std::string Percent(double share);

/// Bytes of memory that this process held at most.
long long PeakMemory();

/// One run of the tool.
class Tool {
 public:
  CommonOptions options;
  Console console;
  std::string commandLine;  ///< as it was called, for HISTORY
  int exitCode = kDone;

  /// Puts the common options into force. To be called once they are parsed.
  void Begin();

  /// Bytes that pixels may take.
  long long Memory() const;

  /// A store within the memory budget: "contiguous", which all of a job shares with its budget, or a new
  /// "paged" one. Any thread may ask.
  std::shared_ptr<CVmManager> MakeStore(const std::string& kind = "contiguous") const;

  /// Does a thing to each file. A failure is one line on standard error, and the other files are still done.
  /// It makes the exit code 1, unless the file may be missing from the result.
  void ForEachFile(const std::vector<std::filesystem::path>& files,
                   const std::function<void(const std::filesystem::path&)>& work, bool mayBeMissing = false);

  /// Refuses an output that exists already, unless --overwrite was given.
  void CheckOutput(const std::filesystem::path& path) const;

  /// Refuses to keep what may be wrong: once a pipeline has failed, nothing more is saved. Throws FileError.
  static void CheckComputed(const std::filesystem::path& path);

 private:
  mutable std::mutex mutex_;
  mutable std::shared_ptr<CVmManager> contiguous_;
};

}  // namespace korimg::tool
