// What a run keeps beside its results, to go on with when it is called again.
#pragma once

#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "session/job/Json.h"

namespace korimg::session {

/// Keeps the folder .korimg in the folder of results: what was measured of each light, what each stack was
/// made of, and the names of what was written. Everything in it is made anew where it is missing or of no
/// use.
class RunState {
 public:
  using Json = nlohmann::json;

  /// Opens it; with `overwrite` all is made anew.
  /// @throws FileError when the results in the folder are those of other lights.
  RunState(std::filesystem::path out, const std::vector<std::filesystem::path>& lights, bool overwrite);

  /// Opens it to look at what is there, whatever it is of.
  explicit RunState(const std::filesystem::path& out) : folder_(out / ".korimg") {}

  /// True for an output that an earlier call wrote, or began to.
  bool Owns(const std::filesystem::path& output) const;
  /// Answers outputs of earlier calls that are there, and that this one does not make.
  std::vector<std::filesystem::path> Stale(const std::vector<std::filesystem::path>& outputs) const;
  /// True when an earlier call left something to go on with.
  bool HasKept() const { return hasKept_; }
  /// Makes the outputs ours from now on.
  void Begin(const std::vector<std::filesystem::path>& outputs);

  /// Tells where other things may be kept, too.
  const std::filesystem::path& Folder() const { return folder_; }
  /// Takes away what processes that were killed left half-written; nobody else may be at work.
  void Tidy() const;
  /// Forgets all, as if there had been no run.
  void Forget() const;

  /// Answers what was kept under a name, if it was made of the same.
  std::optional<Json> Find(const std::string& name, const std::string& digest) const;
  void Keep(const std::string& name, const std::string& digest, Json data);

 private:
  std::filesystem::path Path(const std::string& name) const { return folder_ / (name + ".cbor"); }
  std::optional<Json> Read(const std::string& name) const;
  void Write(const std::string& name, const Json& json) const;

  std::filesystem::path folder_;
  std::set<std::string> outputs_, lights_;
  bool isAnew_ = false, hasKept_ = false;
};

}  // namespace korimg::session
