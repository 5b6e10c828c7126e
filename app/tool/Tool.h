// What the verbs of the tool share: common options, exit codes, the console, and the job that is done.
#pragma once

#include <string>

#include "app/tool/Console.h"
#include "session/job/Job.h"

namespace korimg::tool {

using namespace session;

enum ExitCode : int { kDone = 0, kFailed = 1, kBadUsage = 2, kCancelled = 130 };

/// Options that every verb takes.
struct CommonOptions {
  int threads = 0;       ///< of both pools; 0 leaves the defaults
  long long memory = 0;  ///< bytes for pixels; 0 takes DefaultBudget()
  bool quiet = false, verbose = false, json = false, overwrite = false, dryRun = false;
};

/// One run of the tool.
class Tool {
 public:
  Tool();

  CommonOptions options;
  Console console;
  Job job;
  int exitCode = kDone;  ///< of a call that neither failed nor is done

  /// Puts the common options into force. To be called once they are parsed.
  void Begin();
  int ExitCode() const;
};

}  // namespace korimg::tool
