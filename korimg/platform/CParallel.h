#pragma once

#include "korimg/platform/Export.h"

/// Tells and sets the worker team of the line loops.
class KORIMG_API CParallel {
 public:
  /// Answers the number of the calling worker, from 0; 0 outside a parallel loop.
  static int GetThreadNum();

  /// Answers the size of the team that the next parallel loop of this thread gets.
  static int GetMaxThreads();

  /// Sets the size of this thread's team; values below 1 count as 1. With 1 the thread runs pipelines alone
  /// too; otherwise their pool helps, which korimg::SetPipelineThreads sets.
  static void SetMaxThreads(int threads);
};
