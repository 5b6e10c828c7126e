#include "session/run/internal/State.h"

#include <algorithm>
#include <fstream>
#include <iterator>

#include "session/files/Formats.h"

namespace korimg::session {

namespace fs = std::filesystem;

RunState::RunState(fs::path out, const std::vector<fs::path>& lights, bool overwrite)
    : folder_(std::move(out) / ".korimg"), isAnew_(overwrite) {
  for (const fs::path& light : lights) {
    lights_.insert(fs::weakly_canonical(light).string());
  }
  const std::optional<Json> run = Read("run");
  if (!run) return;
  const auto before = run->value("lights", std::set<std::string>());
  const bool isOther = std::none_of(before.begin(), before.end(),
                                    [&](const std::string& light) { return lights_.contains(light); });
  if (isOther && !before.empty() && !isAnew_) {
    throw files::FileError(folder_.parent_path(),
                           "holds the results of other lights; choose another folder, or use --overwrite");
  }
  outputs_ = run->value("outputs", std::set<std::string>());
  hasKept_ = !isOther;
}

bool RunState::Owns(const fs::path& output) const {
  return outputs_.contains(output.filename().string());
}

void RunState::Begin(const std::vector<fs::path>& outputs) {
  for (const fs::path& output : outputs) {
    outputs_.insert(output.filename().string());
  }
  Write("run", {{"outputs", outputs_}, {"lights", lights_}});
}

std::vector<fs::path> RunState::Stale(const std::vector<fs::path>& outputs) const {
  std::vector<fs::path> stale;
  for (const std::string& name : outputs_) {
    const fs::path path = folder_.parent_path() / name;
    if (fs::exists(path) && std::find(outputs.begin(), outputs.end(), path) == outputs.end())
      stale.push_back(path);
  }
  return stale;
}

void RunState::Tidy() const {
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(folder_, ignored)) {
    if (entry.path().extension() == ".part") fs::remove(entry.path(), ignored);
  }
}

void RunState::Forget() const {
  std::error_code ignored;
  fs::remove_all(folder_, ignored);
}

std::optional<RunState::Json> RunState::Find(const std::string& name, const std::string& digest) const {
  std::optional<Json> kept = isAnew_ ? std::nullopt : Read(name);
  if (!kept || kept->value("digest", "") != digest || !kept->contains("data")) return std::nullopt;
  return std::move((*kept)["data"]);
}

void RunState::Keep(const std::string& name, const std::string& digest, Json data) {
  Write(name, {{"digest", digest}, {"data", std::move(data)}});
  hasKept_ = true;
}

std::optional<RunState::Json> RunState::Read(const std::string& name) const {
  std::ifstream file(Path(name), std::ios::binary);
  if (!file || !fs::is_regular_file(Path(name))) return std::nullopt;
  const std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(file), {}};
  Json json = Json::from_cbor(bytes, true, false);
  if (!json.is_object()) return std::nullopt;
  return json;
}

void RunState::Write(const std::string& name, const Json& json) const {
  const std::vector<std::uint8_t> bytes = Json::to_cbor(json);
  // Tasks on other machines may write the same.
  files::TransientFile part(files::UniquePartialName(Path(name)));
  std::ofstream file(part.Path(), std::ios::binary);
  file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  file.close();
  if (!file) throw files::FileError(Path(name), "cannot be written; is the disk full?");
  part.RenameTo(Path(name));
}

}  // namespace korimg::session
