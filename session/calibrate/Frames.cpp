#include "session/calibrate/Frames.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <limits>
#include <map>
#include <string_view>
#include <tuple>

#include <fmt/format.h>

#include "session/files/Text.h"
#include "session/files/internal/Times.h"

namespace korimg::session {

namespace fs = std::filesystem;

namespace {

// Tolerances, chosen.
constexpr double kExact = 1e-6;         // relative: numbers that were written with few digits
constexpr double kDegrees = 2;          // that the dark signal may be trusted over: it doubles within 5 to 7
constexpr double kSameExposure = 0.01;  // relative: shutters and clocks
constexpr double kTurned = 2;           // degrees of the rotator that dust and vignetting are told apart by
constexpr double kNight = 10 * 3600;    // seconds between the flats of one night
constexpr const char *kTemperature = "CCD-TEMP", *kFilter = "FILTER", *kOtherFilter = "FILTER1";

/// What must agree between the frames of a group, and between a group and the frames it serves.
struct Property {
  const char *key, *otherKey;
  bool bias, dark, flat;  // kinds that it matters for
  double tolerance = 0, relative = kExact;

  bool MattersFor(FrameKind kind) const {
    return kind == FrameKind::Bias ? bias : kind == FrameKind::Dark ? dark : flat;
  }
  std::optional<std::string> Of(const files::Header& header) const {
    const auto value = header.GetString(key);
    return value || !otherKey ? value : header.GetString(otherKey);
  }
};

constexpr Property kProperties[] = {
    {"INSTRUME", nullptr, true, true, true},
    {"XBINNING", nullptr, true, true, true},
    {"YBINNING", nullptr, true, true, true},
    {"GAIN", nullptr, true, true, true},
    {"OFFSET", nullptr, true, true, true},
    {"ISOSPEED", nullptr, true, true, false},
    {"READOUTM", nullptr, true, true, true},
    {"EXPTIME", "EXPOSURE", false, true, false, 0, kSameExposure},
    {kTemperature, nullptr, true, true, false, kDegrees},
    {kFilter, kOtherFilter, false, false, true},
};

std::optional<double> Number(const std::string& text) {
  files::Header header;
  header.Set("VALUE", text);
  return header.GetDouble("VALUE");
}

/// A value for people: numbers without the digits that only fill the card.
std::string Shown(const std::string& value) {
  const auto number = Number(value);
  return number ? fmt::format("{:g}", *number) : value;
}

bool Agree(const Property& property, const std::string& a, const std::string& b) {
  const auto x = Number(a), y = Number(b);
  if (!x || !y) return FoldedName(a) == FoldedName(b);
  return std::abs(*x - *y) <= property.tolerance + property.relative * std::max(std::abs(*x), std::abs(*y));
}

Match Compare(const Group& group, const Frame& frame, const Grouping& grouping) {
  const Frame& first = group.frames.front();
  Match match{&group};
  match.sameSize = first.info.width == frame.info.width && first.info.height == frame.info.height &&
                   (first.info.planes == 1 || first.info.planes == frame.info.planes);
  const auto compare = [&](const Property& property) {
    const auto wanted = property.Of(frame.info.header), found = property.Of(first.info.header);
    if (!wanted || !found) {
      match.unknown.emplace_back(property.key);
    } else if (!Agree(property, *wanted, *found)) {
      match.mismatches.push_back({property.key, Shown(*wanted), Shown(*found)});
    }
  };
  for (const Property& property : kProperties) {
    if (property.MattersFor(group.kind)) compare(property);
  }
  for (const std::string& key : grouping.keys) {
    compare({key.c_str(), nullptr, true, true, true});
  }
  return match;
}

/// In temperature.
double Distance(const Frame& a, const Frame& b) {
  const auto x = a.info.header.GetDouble(kTemperature), y = b.info.header.GetDouble(kTemperature);
  return x && y ? std::abs(*x - *y) : std::numeric_limits<double>::infinity();
}

/// Seconds between two frames; 0 where nobody knows.
double TimeBetween(const Frame& a, const Frame& b) {
  const auto x = files::StartOf(a.info.header), y = files::StartOf(b.info.header);
  return x && y ? std::abs(*x - *y) : 0;
}

/// Degrees that the rotator turned between two frames; 0 where nobody knows.
double TurnBetween(const Frame& a, const Frame& b) {
  const auto angle = [](const Frame& frame) {
    const auto found = frame.info.header.GetDouble("ROTATANG");
    return found ? found : frame.info.header.GetDouble("ROTATOR");
  };
  const auto x = angle(a), y = angle(b);
  return x && y ? std::abs(std::remainder(*x - *y, 360.0)) : 0;
}

/// The folders that a file lies in.
std::vector<std::string> FoldersOf(const fs::path& path) {
  std::vector<std::string> folders;
  for (const fs::path& part : fs::absolute(path).parent_path().lexically_normal()) {
    folders.push_back(files::LowerCase(part.string()));
  }
  std::sort(folders.begin(), folders.end());
  return folders;
}

/// The number of names that the folders of two files share: those of a night, beside those of the session.
int SharedFolders(const Frame& a, const Frame& b) {
  const auto x = FoldersOf(a.path), y = FoldersOf(b.path);
  std::vector<std::string> shared;
  std::set_intersection(x.begin(), x.end(), y.begin(), y.end(), std::back_inserter(shared));
  return static_cast<int>(shared.size());
}

/// Whether a flat belongs to others.
bool IsOfThem(const Group& flats, const Frame& flat, const Grouping& grouping) {
  const Frame& first = flats.frames.front();
  return (!grouping.night || TimeBetween(flats.frames.back(), flat) <= kNight) &&
         (!grouping.rotator || TurnBetween(first, flat) <= kTurned) &&
         (!grouping.folder || first.path.parent_path() == flat.path.parent_path());
}

/// "master_flat_Ha" and the like, free of what file names should not hold.
std::string MasterName(const Group& group) {
  const Frame& first = group.frames.front();
  if (group.kind == FrameKind::Bias) return "master_bias";
  if (group.kind == FrameKind::Dark) {
    const auto exposure = files::ExposureOf(first.info.header);
    return exposure ? fmt::format("master_dark_{:g}s", *exposure) : "master_dark";
  }
  std::string filter = FilterOf(first.info.header);
  for (char& c : filter) {
    if (static_cast<unsigned char>(c) < ' ' || std::string("/\\:*?\"<>| ").find(c) != std::string::npos)
      c = '_';
  }
  return filter.empty() ? "master_flat" : "master_flat_" + filter;
}

/// A number that frames of other pixels hardly share, by some rows in the middle. None for camera raw, which
/// would have to be unpacked. Eight rows were chosen: their noise alone tells frames apart.
std::optional<std::size_t> DigestOf(const Frame& frame) {
  constexpr int kRows = 8;
  if (frame.info.camera) return std::nullopt;
  const auto reader = files::ImageReader::Open(frame.path);
  const files::ImageInfo& info = reader->Info();
  const int rows = std::min(kRows, info.height);
  std::vector<float> pixels(static_cast<size_t>(rows) * info.width * info.planes);
  reader->ReadRows({pixels.data(), info.planes, info.width, (info.height - rows) / 2, rows});
  return std::hash<std::string_view>()(
      {reinterpret_cast<const char*>(pixels.data()), pixels.size() * sizeof(float)});
}

/// Leaves copies out of a group, if frames that differ remain: those that are all alike have no noise.
void LeaveOutCopies(Job& job, Group& group) {
  std::map<std::size_t, const Frame*> first;
  std::vector<Frame> kept;
  std::vector<std::string> copies;
  for (const Frame& frame : group.frames) {
    std::optional<std::size_t> digest;
    try {
      digest = DigestOf(frame);
    } catch (const files::FileError&) {
      // Told when the master is made.
    }
    const auto same = digest ? first.emplace(*digest, &frame) : std::pair(first.end(), true);
    if (same.second) {
      kept.push_back(frame);
    } else {
      copies.push_back(fmt::format("{}: is a copy of {}: it counts once", frame.path.string(),
                                   same.first->second->path.filename().string()));
    }
  }
  if (copies.empty() || kept.size() < 2) return;
  for (const std::string& copy : copies) {
    job.Warn(copy);
  }
  group.frames = std::move(kept);
}

}  // namespace

std::string Group::Text() const {
  std::string from = frames.front().path.filename().string();
  if (frames.size() == 1) return from;
  return fmt::format("{} frames ({} to {})", frames.size(), from, frames.back().path.filename().string());
}

std::string Group::Properties() const {
  std::string text;
  for (const Property& property : kProperties) {
    const auto value = property.Of(frames.front().info.header);
    if (value && property.MattersFor(kind)) text += fmt::format(", {} {}", property.key, Shown(*value));
  }
  return text;
}

std::string FilterOf(const files::Header& header) {
  const auto filter = header.GetString(kFilter);
  return filter ? *filter : header.GetString(kOtherFilter).value_or("");
}

std::string FoldedName(std::string name) {
  std::erase(name, ' ');
  return files::LowerCase(name);
}

Frame ReadFrame(const fs::path& path) {
  return {path, files::ImageReader::Open(path)->Info()};
}

Grouping ParseGrouping(const std::string& text) {
  Grouping grouping;
  if (text == "auto") return grouping;
  grouping = {false, false, false};
  if (text == "none") return grouping;
  for (size_t from = 0, to = 0; to != std::string::npos; from = to + 1) {
    to = text.find(',', from);
    const std::string word = text.substr(from, to - from), folded = FoldedName(word);
    if (folded.empty())
      throw UsageError(
          fmt::format("--group {}: write night, rotator, folder or keywords of headers, by commas", text));
    if (folded == "night" || folded == "rotator" || folded == "folder") {
      (folded == "night" ? grouping.night : folded == "rotator" ? grouping.rotator : grouping.folder) = true;
    } else {
      grouping.keys.push_back(word);
    }
  }
  return grouping;
}

bool IsMaster(const files::Header& header) {
  const auto count = header.GetInt("STACKCNT") ? header.GetInt("STACKCNT") : header.GetInt("NCOMBINE");
  return count.value_or(0) > 1 || FoldedName(header.GetString("IMAGETYP").value_or("")).starts_with("master");
}

std::vector<Group> MakeGroups(Job& job, FrameKind kind, const std::vector<fs::path>& paths,
                              const Grouping& grouping) {
  std::vector<Group> groups;
  for (const fs::path& path : paths) {
    Frame frame;
    try {
      frame = ReadFrame(path);
    } catch (const files::FileError& error) {
      if (groups.empty() && path == paths.back()) throw;
      job.Warn(fmt::format("{}; it is left out", error.what()));
      continue;
    }
    const std::string type = FoldedName(frame.info.header.GetString("IMAGETYP").value_or(""));
    if (type.starts_with("light") || type.starts_with("object")) {
      job.Warn(fmt::format("{}: says that it is a light (IMAGETYP '{}'); it is used as it was given",
                           path.string(), *frame.info.header.GetString("IMAGETYP")));
    }
    const auto same = std::find_if(groups.begin(), groups.end(), [&](const Group& group) {
      const files::ImageInfo& first = group.frames.front().info;
      return !IsMaster(first.header) && !IsMaster(frame.info.header) && Compare(group, frame, grouping) &&
             first.planes == frame.info.planes &&
             (kind != FrameKind::Flat || IsOfThem(group, frame, grouping));
    });
    Group& group = same != groups.end() ? *same : groups.emplace_back(Group{kind, "", {}});
    group.frames.push_back(std::move(frame));
  }
  for (size_t i = 0; i < groups.size(); ++i) {
    LeaveOutCopies(job, groups[i]);
    const std::string name = MasterName(groups[i]);
    groups[i].name = name;
    for (int n = 2; std::any_of(groups.begin(), groups.begin() + static_cast<std::ptrdiff_t>(i),
                                [&](const Group& other) { return other.name == groups[i].name; });
         ++n) {
      groups[i].name = fmt::format("{}_{}", name, n);
    }
  }
  return groups;
}

Match FindMatch(const std::vector<Group>& groups, const Frame& frame, const Grouping& grouping) {
  Match best;
  const auto cost = [&](const Match& match) {
    const Frame& first = match.group->frames.front();
    const bool isFlat = match.group->kind == FrameKind::Flat;
    return std::tuple(!match.sameSize, match.mismatches.size(),
                      isFlat && grouping.rotator && TurnBetween(first, frame) > kTurned,
                      isFlat && grouping.folder ? -SharedFolders(first, frame) : 0,
                      isFlat ? grouping.night ? TimeBetween(first, frame) : 0.0 : Distance(first, frame),
                      !IsMaster(first.info.header));
  };
  for (const Group& group : groups) {
    Match match = Compare(group, frame, grouping);
    if (!best.group || cost(match) < cost(best)) best = std::move(match);
  }
  return best;
}

}  // namespace korimg::session
