// What a run will take, told before it begins.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "session/job/Job.h"
#include "session/picture/Images.h"

namespace korimg::session {

/// Holds what there is to do, as far as headers tell.
struct Workload {
  struct Master {
    size_t frames = 0;
    Shape shape;
  };
  struct Stack {
    size_t lights = 0;
    Shape shape;  ///< of the result, as fine as the lights
    bool isMosaic = false;
    double scale = 0;  ///< of the grid that it is drizzled on; 0: it is not
  };

  std::vector<Master> masters;
  std::vector<Stack> stacks;
  bool hasColour = false;                   ///< an image of all stacks
  bool hasGradients = false;                ///< each stack's is kept
  int qualityImages = 0;                    ///< beside each stack: its uncertainty, its mask
  std::filesystem::path out, masterFolder;  ///< no folder of masters: they are not kept
};

/// Holds upper limits of memory and disk, which hold whatever is left out, and about the time.
struct Cost {
  long long memory = 0;                ///< bytes that are held at once
  long long temporary = 0;             ///< bytes beyond the budget, in temporary files
  long long results = 0, masters = 0;  ///< bytes of files
  double seconds = 0;

  /// Tells it for people.
  std::string Text() const;
  /// Tells it for programs.
  nlohmann::ordered_json Description() const;
};

Cost CostOf(const Job& job, const Workload& work);

/// @throws FileError with the bytes needed and free for a folder whose disk has no room.
void CheckRoom(const Workload& work, const Cost& cost);

}  // namespace korimg::session
