#include "session/run/internal/Selection.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <set>

#include <fmt/format.h>
#include <fnmatch.h>

#include "session/calibrate/Frames.h"
#include "session/files/Formats.h"
#include "session/job/Json.h"

namespace korimg::session {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

std::string FileWord(const std::string& text) {
  std::string word;
  for (const char c : text) {
    const bool plain = std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '+';
    word += plain ? c : '_';
  }
  return word.empty() ? "none" : word;
}

bool FitsPattern(const fs::path& light, const std::string& pattern) {
  const auto fits = [&](const fs::path& name) { return fnmatch(pattern.c_str(), name.c_str(), 0) == 0; };
  return fits(light.filename()) || fits(light) || fits(fs::absolute(light).lexically_normal());
}

std::vector<RunFrame> TakeExcluded(Job& job, RunOptions& options) {
  std::vector<fs::path>& lights = options.calibrate.lights;
  lights = ExpandFolders(job, lights);
  // A light may be told by its name alone, as patterns are.
  for (const fs::path& light : lights) {
    if (!fs::exists(options.reference) && light.filename() == options.reference) options.reference = light;
  }
  std::set<std::string> idle(options.exclude.begin(), options.exclude.end());
  idle.insert(options.include.begin(), options.include.end());
  const auto fits = [&](const fs::path& light,
                        const std::vector<std::string>& patterns) -> const std::string* {
    const std::string* found = nullptr;
    for (const std::string& pattern : patterns) {
      if (!FitsPattern(light, pattern)) continue;
      idle.erase(pattern);
      found = &pattern;
    }
    return found;
  };
  std::vector<RunFrame> excluded;
  std::erase_if(lights, [&](const fs::path& light) {
    const bool isWanted = options.include.empty() || fits(light, options.include);
    const std::string* pattern = fits(light, options.exclude);
    if (isWanted && !pattern) return false;
    RunFrame frame{light};
    frame.status = pattern ? "excluded by " + *pattern : "not among those that are included";
    excluded.push_back(std::move(frame));
    return true;
  });
  for (const std::string& pattern : idle) {
    job.Warn(fmt::format("{}: fits no light", pattern));
  }
  if (!excluded.empty())
    job.Say(fmt::format("{} lights are excluded, {} are left", excluded.size(), lights.size()));
  if (lights.empty()) throw UsageError("no light is left by --include and --exclude");
  return excluded;
}

std::map<std::string, std::vector<fs::path>> ByObject(const std::vector<fs::path>& lights) {
  std::map<std::string, std::vector<fs::path>> objects;
  std::map<std::string, std::string> names;
  for (const fs::path& light : lights) {
    std::string object;
    try {
      if (IsFits(light)) object = ReadFrame(light).info.header.GetString("OBJECT").value_or("");
    } catch (const files::FileError&) {  // it is told of where it is planned
    }
    objects[names.emplace(FoldedName(object), FileWord(object)).first->second].push_back(light);
  }
  const std::string nameless = FileWord("");
  if (objects.size() > 2 || (objects.size() == 2 && !objects.contains(nameless))) return objects;
  return {{"", lights}};
}

void AddSelection(RunOptions& options, const fs::path& file) {
  if (fs::exists(file) && !fs::is_regular_file(file))
    throw files::FileError(file, "is no regular file; name one of JSON");
  std::ifstream stream(file);
  if (!stream) files::ThrowSystemError(file, "open the file", errno);
  const Json json = Json::parse(stream, nullptr, false);
  const auto isList = [&](const char* key) {
    return !json.contains(key) ||
           (json[key].is_array() && std::all_of(json[key].begin(), json[key].end(),
                                                [](const Json& item) { return item.is_string(); }));
  };
  const auto isKnown = [](const auto& entry) {
    return entry.key() == "include" || entry.key() == "exclude" || entry.key() == "reference";
  };
  const auto entries = json.items();
  if (!json.is_object() || !std::all_of(entries.begin(), entries.end(), isKnown) || !isList("include") ||
      !isList("exclude") || (json.contains("reference") && !json["reference"].is_string())) {
    throw files::FileError(file,
                           "is no selection; write {\"include\": [\"*.fits\"], \"exclude\": [\"bad_*\"], "
                           "\"reference\": \"light_0001.fits\"}, or some of these");
  }
  for (const auto& [key, list] : {std::pair("include", &options.include), {"exclude", &options.exclude}}) {
    for (const Json& item : json.value(key, Json::array())) {
      list->push_back(item);
    }
  }
  if (json.contains("reference")) options.reference = json["reference"].get<std::string>();
}

}  // namespace korimg::session
