// Which calibration frames serve which lights.
#include <algorithm>
#include <set>

#include <fmt/format.h>

#include "session/calibrate/internal/Session.h"
#include "session/files/internal/Times.h"

namespace korimg::session {

/// The group that serves a frame; none when no frames of that kind were given. Throws when they do not fit.
const Group* Session::Choose(const std::vector<Group>& groups, const Frame& frame) const {
  const Match match = FindMatch(groups, frame, grouping_);
  if (!match.group) return nullptr;
  const Frame& first = match.group->frames.front();
  const std::string kind = NameOf(match.group->kind);
  if (!match.sameSize) {
    throw files::FileError(
        frame.path, fmt::format("is {} x {} x {}, but the {} frames are {} x {} x {} ({})", frame.info.width,
                                frame.info.height, frame.info.planes, kind, first.info.width,
                                first.info.height, first.info.planes, first.path.filename().string()));
  }
  std::string differences;
  for (const Mismatch& m : match.mismatches) {
    differences += fmt::format("{}{} is {}, but {} in the {} frames", differences.empty() ? "" : "; ", m.key,
                               m.wanted, m.found, kind);
  }
  if (!differences.empty()) {
    differences += fmt::format(" ({})", first.path.filename().string());
    if (!options_.allowMismatch) {
      throw files::FileError(frame.path, differences + "; give frames that match, or use --allow-mismatch");
    }
    job_.Warn(fmt::format("{}: {}", frame.path.string(), differences));
  }
  if (!match.unknown.empty()) {
    job_.Explain(fmt::format("{}: taken as matching {} without {}", frame.path.filename().string(),
                             match.group->name, fmt::format("{}", fmt::join(match.unknown, ", "))));
  }
  return match.group;
}

/// The dark of a frame. One of another exposure is scaled when there is a bias: what it holds beside that
/// grows with time.
const Group* Session::ChooseDark(const Frame& frame) {
  const Match match = FindMatch(darks_, frame, grouping_);
  if (!match.group || match || !match.sameSize || match.mismatches.size() > 1 ||
      match.mismatches.front().key != "EXPTIME") {
    return Choose(darks_, frame);
  }
  const Match bias = FindMatch(biases_, *match.group->frames.begin(), grouping_);
  const auto wanted = files::ExposureOf(frame.info.header), found = files::ExposureOf(HeaderOf(*match.group));
  if (!bias || !wanted || !found || !(*found > 0)) return Choose(darks_, frame);
  TellOnce(
      fmt::format("there are no darks of {:g} s: those of {:g} s are scaled by the bias", *wanted, *found));
  const std::string name = fmt::format("{}_for_{:g}s", match.group->name, *wanted);
  for (const Group& group : scaledDarks_) {
    if (group.name == name) return &group;
  }
  Group& scaled = scaledDarks_.emplace_back(*match.group);
  scaled.name = name;
  scaled.scaledFrom = match.group;
  scaled.bias = bias.group;
  scaled.scale = *wanted / *found;
  return &scaled;
}

/// The flat of a frame. Where frames were found rather than given, one that has flats of other filters alone
/// has none.
const Group* Session::ChooseFlat(const Frame& frame) {
  const Match match = FindMatch(flats_, frame, grouping_);
  if (options_.misfitsMayBeMissing && !options_.allowMismatch && match.group && match.sameSize &&
      match.mismatches.size() == 1 && match.mismatches.front().key == "FILTER") {
    TellOnce(fmt::format("there are no flats of filter {}: its lights are not divided by any",
                         match.mismatches.front().wanted));
    return nullptr;
  }
  return Choose(flats_, frame);
}

/// A flat's own dark is one of its exposure; else the bias comes off. A single flat is a master.
void Session::FindOffsetsOfFlats() {
  for (const Group& flat : flats_) {
    if (flat.frames.size() == 1) continue;
    const Frame& first = flat.frames.front();
    const Match own = FindMatch(darks_, first, grouping_);
    const bool hasOwnDark =
        own && files::ExposureOf(first.info.header) && files::ExposureOf(HeaderOf(*own.group));
    const Group* offset = hasOwnDark ? own.group : Choose(biases_, first);
    if (offset) offsetsOfFlats_[&flat] = offset;
  }
}

std::vector<const Group*> Session::NeededGroups() const {
  std::set<const Group*> needed;
  for (const Light& light : lights_) {
    needed.insert({light.dark, light.flat, light.bias});
    if (light.dark && light.dark->scaledFrom) needed.insert({light.dark->scaledFrom, light.dark->bias});
    if (const auto offset = offsetsOfFlats_.find(light.flat); offset != offsetsOfFlats_.end()) {
      needed.insert(offset->second);
    }
  }
  std::vector<const Group*> ordered;
  const auto add = [&](const auto& groups) {
    for (const Group& group : groups) {
      if (needed.contains(&group)) ordered.push_back(&group);
    }
  };
  add(biases_);
  add(darks_);
  add(scaledDarks_);
  add(flats_);
  return ordered;
}

void Session::ShowGroup(const Group& group) const {
  const files::ImageInfo& info = group.frames.front().info;
  std::string line =
      fmt::format("{}: {}, {} x {}{}", group.name, group.Text(), info.width, info.height, group.Properties());
  if (const auto offset = offsetsOfFlats_.find(&group); offset != offsetsOfFlats_.end()) {
    line += fmt::format("; less {}", offset->second->name);
  }
  const auto needed = NeededGroups();
  if (std::find(needed.begin(), needed.end(), &group) == needed.end()) line += "; serves no light";
  job_.Say(line);
}

}  // namespace korimg::session
