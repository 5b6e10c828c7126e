#pragma once

#include <string>
#include <vector>

#include "korimg/platform/Export.h"

struct halide_filter_metadata_t;

namespace korimg {

/// Describes one pipeline as it was built.
struct PipelineEntry {
  const char* family;
  int (*call)(void** arguments);                  ///< addresses of buffers and scalars, in order
  const halide_filter_metadata_t* (*metadata)();  ///< name and arguments
  bool withAvx2;                                  ///< has a form for AVX2
  bool withBase;                                  ///< has one for processors without SSE4.1
};

/// Answers all pipelines of the library.
KORIMG_API const std::vector<PipelineEntry>& PipelineTable();

/// Answers the pipeline of a name; null when there is none.
KORIMG_API const PipelineEntry* FindPipeline(const std::string& name);

/// Sets the number of threads of the pipelines' pool; 0 brings back the default, which the environment
/// variable HL_NUM_THREADS may set. Answers the number before.
KORIMG_API int SetPipelineThreads(int threads);

/// Answers the form that a pipeline runs in on this processor: "base", "sse41", "avx" or "avx2".
KORIMG_API std::string ChosenForm(const PipelineEntry& pipeline);

/// Lets pipelines run in forms up to this one only ("" for all). Takes effect for pipelines not yet called,
/// since each keeps its choice: it is for tests, before the first call.
KORIMG_API void LimitForms(const std::string& highest);

/// Answers a number that rises whenever a pipeline of this process fails: it leaves its output as it is, and
/// sends a debug line. A host compares the numbers before and after a result was made, and keeps none that a
/// failure had a part in.
KORIMG_API long long PipelineFailures();

/// Answers the library's version.
KORIMG_API const char* Version();

}  // namespace korimg
