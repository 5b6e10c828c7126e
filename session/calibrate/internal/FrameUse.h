// What the files and folders of a session are for, one by one, as FindSession tells it.
#pragma once

#include <filesystem>
#include <string>

namespace korimg::session {

/// True for an image by its name, which is not hidden, and not one that a program gives a file until it is
/// complete.
bool HasImageName(const std::filesystem::path& file);

/// True for a folder in another one that may hold lights: not hidden, called nothing else, and of no earlier
/// run.
bool MayHoldLights(const std::filesystem::path& folder);

/// Tells why a file is taken for no light, as in "is a dark"; empty for a light. By its header, the name of
/// the folder that it lies in, or its own.
std::string WhyNoLight(const std::filesystem::path& file);

}  // namespace korimg::session
