// Recipes: steps that are kept in a file, to be done again to other images.
#pragma once

#include <string>
#include <vector>

#include "session/Export.h"
#include "session/operations/Operation.h"

namespace korimg::session {

/// Reads {"steps": [{"operation": "ghs", "values": {"amount": 2}}, ...]}. Values are what the operation's
/// schema says, or texts as they are written for `korimg apply`. Throws UsageError with the number of the
/// step.
KORIMG_SESSION_API std::vector<Step> ParseRecipe(const std::string& json);

/// Reads the recipe in a file. Throws FileError.
KORIMG_SESSION_API std::vector<Step> ReadRecipe(const std::filesystem::path& path);

/// Writes steps so; images are named by their paths.
KORIMG_SESSION_API std::string RecipeOf(const std::vector<Step>& steps);

}  // namespace korimg::session
