#include "app/tool/Tool.h"

#include <fmt/format.h>

#include "korimg/pipelines/runtime/Runtime.h"
#include "korimg/platform/CParallel.h"
#include "korimg/platform/Debug.h"

namespace korimg::tool {

Tool::Tool()
    : job({.report = [this](const Event& event) { console.Show(event); }, .cancel = console.Token()}) {
  job.options.ownCaptions = HasJapaneseLocale();
}

void Tool::Begin() {
  if (options.threads > 0) {
    CParallel::SetMaxThreads(options.threads);
    SetPipelineThreads(options.threads);
  }
  job.options.memory = options.memory;
  job.options.overwrite = options.overwrite;
  console.SetUp(options.quiet, options.verbose, options.json);
  if (options.verbose) {
    SetDebugSink([](const std::wstring& line) { fmt::print(stderr, "korimg: {}\n", Narrow(line)); });
  }
}

int Tool::ExitCode() const {
  return exitCode != kDone ? exitCode : job.HasFailed() ? kFailed : kDone;
}

}  // namespace korimg::tool
