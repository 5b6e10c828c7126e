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

constexpr double kExact = 1e-6;  // relative: numbers that were written with few digits
constexpr double kDegrees = 2;   // that the dark signal may be trusted over
constexpr const char *kTemperature = "CCD-TEMP", *kFilter = "FILTER", *kOtherFilter = "FILTER1";

/// What must agree between the frames of a group, and between a group and the frames it serves.
struct Property {
  const char *key, *otherKey;
  bool bias, dark, flat;  // kinds that it matters for
  double tolerance = 0;

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
    {"EXPTIME", "EXPOSURE", false, true, false},
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
  return std::abs(*x - *y) <= property.tolerance + kExact * std::abs(*x);
}

Match Compare(const Group& group, const Frame& frame) {
  const Frame& first = group.frames.front();
  Match match{&group};
  match.sameSize = first.info.width == frame.info.width && first.info.height == frame.info.height &&
                   (first.info.planes == 1 || first.info.planes == frame.info.planes);
  for (const Property& property : kProperties) {
    if (!property.MattersFor(group.kind)) continue;
    const auto wanted = property.Of(frame.info.header), found = property.Of(first.info.header);
    if (!wanted || !found) {
      match.unknown.emplace_back(property.key);
    } else if (!Agree(property, *wanted, *found)) {
      match.mismatches.push_back({property.key, Shown(*wanted), Shown(*found)});
    }
  }
  return match;
}

double Distance(const Frame& a, const Frame& b) {
  const auto x = a.info.header.GetDouble(kTemperature), y = b.info.header.GetDouble(kTemperature);
  return x && y ? std::abs(*x - *y) : std::numeric_limits<double>::infinity();
}

bool IsOneOf(const std::string& extension, std::initializer_list<const char*> list) {
  return std::find(list.begin(), list.end(), extension) != list.end();
}

/// The name without a packer's extension.
fs::path Unpacked(const fs::path& path) {
  return IsOneOf(files::LowerExtension(path), {".gz", ".fz"}) ? path.filename().stem() : path.filename();
}

/// Kinds of image files; the first two hold frames as a camera gives them.
enum FileKind : size_t { kFits, kRaw, kTiff, kPng, kNoImage };
constexpr const char* kKindNames[] = {"FITS", "camera raw", "TIFF", "PNG"};

FileKind KindOf(const fs::path& path) {
  const std::string extension = files::LowerExtension(Unpacked(path));
  if (IsOneOf(extension, {".fits", ".fit", ".fts"})) return kFits;
  if (files::HasRawExtension(Unpacked(path))) return kRaw;
  if (IsOneOf(extension, {".tif", ".tiff"})) return kTiff;
  return extension == ".png" ? kPng : kNoImage;
}

/// The names of the folders in a folder that hold frames.
std::string FoldersWithFrames(const fs::path& folder) {
  std::vector<std::string> names;
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(folder)) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with(".") || !entry.is_directory(ignored)) continue;
    const auto inside = fs::directory_iterator(entry.path(), ignored);
    if (std::any_of(begin(inside), end(inside),
                    [](const auto& file) { return KindOf(file.path()) < kTiff; })) {
      names.push_back(name);
    }
  }
  std::sort(names.begin(), names.end());
  return fmt::format("{}", fmt::join(names, ", "));
}

/// The frames in a folder.
std::vector<fs::path> FramesIn(Job& job, const fs::path& folder) {
  std::array<std::vector<fs::path>, 4> found;
  for (const auto& entry : fs::directory_iterator(folder)) {
    const FileKind kind = KindOf(entry.path());
    const bool hidden = entry.path().filename().string().starts_with(".");
    if (!hidden && kind != kNoImage) found[kind].push_back(entry.path());
  }
  const bool hasFrames = !found[kFits].empty() || !found[kRaw].empty();
  std::vector<fs::path>* frames = nullptr;
  std::string kinds;
  for (size_t kind = 0; kind < found.size(); ++kind) {
    if (found[kind].empty()) continue;
    const std::string text = fmt::format("{} {}", found[kind].size(), kKindNames[kind]);
    if (hasFrames && kind >= kTiff) {
      job.Warn(fmt::format("{}: {} files beside the frames are left out; name them to use them",
                           folder.string(), text));
      continue;
    }
    kinds += (kinds.empty() ? "" : " and ") + text;
    if (frames) {
      throw files::FileError(folder, fmt::format("holds {} files; name those of one kind", kinds));
    }
    frames = &found[kind];
  }
  const std::string folders = FoldersWithFrames(folder);
  if (!frames) {
    throw files::FileError(
        folder, "no images in this folder (.fits .fit .fts, also .gz .fz, .tif .tiff .png, camera raw)" +
                    (folders.empty() ? "" : "; folders in it hold some, which are not read: " + folders));
  }
  if (!folders.empty()) {
    job.Warn(fmt::format("{}: frames of the folders in it are not read: {}", folder.string(), folders));
  }
  std::sort(frames->begin(), frames->end());
  return std::move(*frames);
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
/// would have to be unpacked.
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

std::vector<fs::path> ExpandFolders(Job& job, const std::vector<fs::path>& paths) {
  std::vector<fs::path> files;
  for (const fs::path& path : paths) {
    const auto more = fs::is_directory(path) ? FramesIn(job, path) : std::vector<fs::path>{path};
    files.insert(files.end(), more.begin(), more.end());
  }
  return files;
}

std::vector<Group> MakeGroups(Job& job, FrameKind kind, const std::vector<fs::path>& paths) {
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
      return Compare(group, frame) && group.frames.front().info.planes == frame.info.planes;
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

Match FindMatch(const std::vector<Group>& groups, const Frame& frame) {
  Match best;
  const auto cost = [&](const Match& match) {
    return std::tuple(!match.sameSize, match.mismatches.size(), Distance(match.group->frames.front(), frame));
  };
  for (const Group& group : groups) {
    Match match = Compare(group, frame);
    if (!best.group || cost(match) < cost(best)) best = std::move(match);
  }
  return best;
}

void CheckStems(const std::vector<fs::path>& paths) {
  std::map<std::string, fs::path> stems;
  for (const fs::path& path : paths) {
    const auto [other, isNew] = stems.emplace(StemOf(path), path);
    if (!isNew) {
      throw files::FileError(path, fmt::format("its result would have the same name as that of {}; "
                                               "write them into different folders",
                                               other->second.string()));
    }
  }
}

std::string StemOf(const fs::path& path) {
  const fs::path name = Unpacked(path);
  return KindOf(path) != kNoImage ? name.stem().string() : name.string();
}

}  // namespace korimg::session
