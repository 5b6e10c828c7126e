#include "app/calibrate/Frames.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <tuple>

#include <fmt/format.h>

namespace korimg::tool {

namespace fs = std::filesystem;

namespace {

constexpr double kExact = 1e-6;  // relative: numbers that were written with few digits
constexpr double kDegrees = 2;   // that the dark signal may be trusted over
constexpr const char* kTemperature = "CCD-TEMP";

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
    {"FILTER", "FILTER1", false, false, true},
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
  if (!x || !y) return a == b;
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

bool HasImageExtension(const fs::path& path) {
  return IsOneOf(files::LowerExtension(path), {".fits", ".fit", ".fts", ".tif", ".tiff", ".png"}) ||
         files::HasRawExtension(path);
}

/// "master_flat_Ha" and the like, free of what file names should not hold.
std::string MasterName(const Group& group) {
  const Frame& first = group.frames.front();
  if (group.kind == FrameKind::Bias) return "master_bias";
  if (group.kind == FrameKind::Dark) {
    const auto exposure = ExposureOf(first);
    return exposure ? fmt::format("master_dark_{:g}s", *exposure) : "master_dark";
  }
  std::string filter;
  for (const Property& property : kProperties) {
    if (property.key == std::string("FILTER")) filter = property.Of(first.info.header).value_or("");
  }
  for (char& c : filter) {
    if (static_cast<unsigned char>(c) < ' ' || std::string("/\\:*?\"<>| ").find(c) != std::string::npos)
      c = '_';
  }
  return filter.empty() ? "master_flat" : "master_flat_" + filter;
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

Frame ReadFrame(const fs::path& path) {
  return {path, files::ImageReader::Open(path)->Info()};
}

std::vector<fs::path> ExpandFolders(const std::vector<fs::path>& paths) {
  std::vector<fs::path> files;
  for (const fs::path& path : paths) {
    if (!fs::is_directory(path)) {
      files.push_back(path);
      continue;
    }
    const size_t before = files.size();
    for (const auto& entry : fs::directory_iterator(path)) {
      const bool hidden = entry.path().filename().string().starts_with(".");
      if (!hidden && HasImageExtension(Unpacked(entry.path()))) files.push_back(entry.path());
    }
    if (files.size() == before) {
      throw files::FileError(
          path, "no images in this folder (.fits .fit .fts, also .gz .fz, .tif .tiff .png, camera raw)");
    }
    std::sort(files.begin() + static_cast<std::ptrdiff_t>(before), files.end());
  }
  return files;
}

std::vector<Group> MakeGroups(FrameKind kind, const std::vector<fs::path>& paths) {
  std::vector<Group> groups;
  for (const fs::path& path : paths) {
    Frame frame = ReadFrame(path);
    const auto same = std::find_if(groups.begin(), groups.end(), [&](const Group& group) {
      return Compare(group, frame) && group.frames.front().info.planes == frame.info.planes;
    });
    Group& group = same != groups.end() ? *same : groups.emplace_back(Group{kind, "", {}});
    group.frames.push_back(std::move(frame));
  }
  for (size_t i = 0; i < groups.size(); ++i) {
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

std::optional<double> ExposureOf(const Frame& frame) {
  const auto exposure = frame.info.header.GetDouble("EXPTIME");
  return exposure ? exposure : frame.info.header.GetDouble("EXPOSURE");
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
  return HasImageExtension(name) ? name.stem().string() : name.string();
}

}  // namespace korimg::tool
