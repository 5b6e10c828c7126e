// A window on images and sessions: a page in the user's browser, served by this process.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "session/job/Job.h"

namespace korimg::viewer {

struct ViewOptions {
  std::vector<std::filesystem::path> paths;  ///< files and folders; nothing else can be seen
  std::filesystem::path watch;        ///< a folder that a camera fills, stacked as it comes; empty: none
  std::filesystem::path masters;      ///< ready ones for these frames
  std::string address = "127.0.0.1";  ///< to listen on; others than this machine's own let others ask
  int port = 0;                       ///< 0: any that is free
  bool opensBrowser = true;
};

/// Serves the page until the job is cancelled, which is its usual end. Tells its address, with the token that
/// requests must have.
/// @throws FileError for a path that is not there, session::Error where the port is taken
void View(session::Job& job, const ViewOptions& options);

}  // namespace korimg::viewer
