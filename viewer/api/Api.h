// What pages may ask for: each group of names has a file of its own here.
#pragma once

#include <memory>
#include <string>

#include "session/job/Job.h"
#include "session/operations/Operation.h"
#include "session/picture/Images.h"
#include "viewer/image/OpenImages.h"
#include "viewer/image/Tiles.h"
#include "viewer/live/Live.h"
#include "viewer/run/Runs.h"
#include "viewer/server/Files.h"
#include "viewer/server/Router.h"
#include "viewer/server/Turns.h"
#include "viewer/server/Work.h"

namespace korimg::viewer {

/// Holds what the groups work on. Lives as long as the server.
struct Context {
  session::Job& job;
  Files files;
  OpenImages images{job, files};
  std::unique_ptr<Live> live = {};  ///< where a folder is watched; ends after the work that asks it
  Runs runs{job, files, images};
  Work work{job};
  Turns drawing = {}, searching = {}, writing = {};  ///< of previews, stars, and new files
};

/// Adds the page itself, and the list of files.
void AddPage(Router& router, Context& context);
/// Adds looking at an image: tiles, pixels, header, statistics, stars.
void AddImage(Router& router, Context& context);
/// Adds a session before it runs: its plan, and its run.
void AddPlan(Router& router, Context& context);
/// Adds a folder that is being filled: the stack as it grows.
void AddLive(Router& router, Context& context);
/// Adds runs that are finished: frames, flags, previews, and doing them again.
void AddFinished(Router& router, Context& context);
/// Adds what takes long, as far as it is; see Work.
void AddWork(Router& router, Context& context);

/// Adds operations: their forms, previews, and new files.
void AddOperations(Router& router, Context& context);

/// Reads "BLACK,MIDTONE,WHITE" of each plane in turn, or once for all of them. Throws UsageError.
session::Levels ReadLevels(const std::string& text);
/// Reads the place of a tile: "level", "x", "y", and "overlap" where it is wanted. Throws UsageError.
TilePlace PlaceOf(const Request& request);
/// Reads "ghs amount=2 then curve points=0:0,1:1": operations that see one pixel at a time, and measure
/// nothing. Throws UsageError.
std::vector<session::Step> ReadSteps(const std::string& text);

/// Makes a token that ends a job once nobody waits for the answer, or the viewer ends.
std::shared_ptr<session::CancelToken> TokenOf(const Request& request, session::Job& job);

}  // namespace korimg::viewer
