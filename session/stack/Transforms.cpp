#include "session/stack/internal/Transforms.h"

#include <cmath>
#include <fstream>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "session/files/ImageFile.h"
#include "session/register/internal/MapJson.h"

namespace korimg::session {

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

constexpr double kFar = 1e6;  // pixels, degrees

/// A number of the object; 0 when it has no use for one.
double Number(const json& object, const char* key, bool needed) {
  if (!object.contains(key) || object[key].is_null()) {
    if (needed) throw std::runtime_error(fmt::format("has no {}", key));
    return 0;
  }
  if (!object[key].is_number()) throw std::runtime_error(fmt::format("{} is no number", key));
  const double value = object[key];
  if (!(std::abs(value) <= kFar)) throw std::runtime_error(fmt::format("{} = {}", key, value));
  return value;
}

Transform Parse(const json& object) {
  Transform transform;
  if (object.contains("status")) transform.status = object["status"].get<std::string>();
  if (object.contains("note")) transform.note = object["note"].get<std::string>();
  const bool usable = transform.status == "ok";
  transform.dx = Number(object, "dx", usable);
  transform.dy = Number(object, "dy", usable);
  transform.degrees = Number(object, "degrees", usable);
  if (object.contains("map") && !object["map"].is_null()) transform.map = MapFromJson(object["map"]);
  if (const double fwhm = Number(object, "fwhm", false); fwhm > 0) transform.fwhm = fwhm;
  if (const double ratio = Number(object, "flux_ratio", false); ratio > 0) transform.fluxRatio = ratio;
  return transform;
}

}  // namespace

Transforms::Transforms(const fs::path& path) : path_(path) {
  std::ifstream in(path);
  if (!in) throw files::FileError(path, "cannot be read");
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
    try {
      const json object = json::parse(line);
      if (!object.is_object()) throw std::runtime_error("is no object");
      if (!object.contains("file")) continue;
      const fs::path file = object["file"].get<std::string>();
      const Transform transform = Parse(object);
      here_[fs::weakly_canonical(file)] = transform;
      there_[fs::weakly_canonical(path.parent_path() / file)] = transform;
    } catch (const std::exception& error) {
      throw files::FileError(path, fmt::format("line {}: {}; it takes what korimg register --json writes",
                                               number, error.what()));
    }
  }
}

const Transform& Transforms::Of(const fs::path& frame) const {
  const fs::path canonical = fs::weakly_canonical(frame);
  for (const auto* known : {&here_, &there_}) {
    if (const auto found = known->find(canonical); found != known->end()) return found->second;
  }
  throw files::FileError(
      frame, fmt::format("{} says nothing of this frame; register it too, or leave it out", path_.string()));
}

}  // namespace korimg::session
