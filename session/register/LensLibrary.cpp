#include "session/register/LensLibrary.h"

#include <cmath>
#include <fstream>

#include <fmt/format.h>

#include "session/files/Formats.h"
#include "session/register/internal/MapJson.h"

namespace korimg::session {

using Json = nlohmann::ordered_json;

namespace {

Json Read(const std::filesystem::path& path) {
  std::ifstream in(path);
  if (!in) return {{"lenses", Json::object()}};
  Json json = Json::parse(in, nullptr, false);
  if (!json.is_object() || !json.contains("lenses") || !json["lenses"].is_object()) {
    throw files::FileError(path, "is no library of lenses; move it away, and it is made anew");
  }
  return json;
}

}  // namespace

std::string LensLibrary::KeyOf(const files::Header& header, int width, int height) {
  const std::string camera = header.GetString("INSTRUME").value_or(""),
                    lens = header.GetString("LENS").value_or(header.GetString("TELESCOP").value_or(""));
  if (camera.empty() && lens.empty()) return "";
  const double focal = header.GetDouble("FOCALLEN").value_or(0);
  return fmt::format("{}, {}, {:.0f} mm, {} x {}", camera, lens, focal, width, height);
}

std::optional<CLensDistortion> LensLibrary::Find(const std::string& key) const {
  if (path_.empty() || key.empty()) return std::nullopt;
  const Json lenses = Read(path_)["lenses"];
  if (!lenses.contains(key)) return std::nullopt;
  try {
    return LensFromJson(nlohmann::json(lenses[key]));
  } catch (const std::exception& error) {
    throw files::FileError(path_,
                           fmt::format("{}: {}; move the file away, and it is made anew", key, error.what()));
  }
}

void LensLibrary::Keep(const std::string& key, const CLensDistortion& lens, const std::string& note) const {
  if (path_.empty() || key.empty()) return;
  Json json = Read(path_);
  json["lenses"][key] = ToJson(lens);
  json["lenses"][key]["note"] = note;
  if (path_.has_parent_path()) std::filesystem::create_directories(path_.parent_path());
  files::TransientFile part(files::PartialName(path_));
  std::ofstream out(part.Path());
  out << json.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
  out.close();
  if (!out) throw files::FileError(path_, "cannot be written; is the disk full?");
  part.RenameTo(path_);
}

void KeepLens(Job& job, const LensLibrary& lenses, const std::string& key, const LaidFrames& laid) {
  if (!laid.lens) return;
  try {
    lenses.Keep(key, *laid.lens, laid.model);
  } catch (const files::FileError& error) {
    job.Warn(fmt::format("the lens is not kept: {}", error.what()));
  }
}

}  // namespace korimg::session
