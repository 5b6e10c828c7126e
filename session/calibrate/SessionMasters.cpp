// Masters of a session: made, kept, found again, and looked at beside the lights that they serve.
#include <algorithm>
#include <fstream>

#include <fmt/format.h>

#include "korimg/geometry/CImgFlip.h"
#include "korimg/image/internal/Lines.h"
#include "korimg/pipelines/runtime/Runtime.h"

#include "session/calibrate/internal/Session.h"
#include "session/files/Formats.h"
#include "session/files/Geometry.h"
#include "session/job/internal/SideBySide.h"

namespace korimg::session {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

namespace {

/// Frames of 0 to 1 stay below the one, and a camera's own are beyond the other. Chosen.
constexpr double kUnitMost = 1.5, kCountsLeast = 16;
constexpr double kManySaturated = 0.01;  // chosen: share of a flat's pixels that is worth a warning

}  // namespace

/// A manifest that is none of ours, or none at all, is as good as no masters. Those of a library are kept
/// even where outputs are made anew.
void Session::ReadManifest() {
  kept_ = Json::object();
  if (options_.masters.empty() || (job_.options.overwrite && !options_.mastersAreLibrary)) return;
  std::ifstream file(ManifestPath());
  Json read = Json::parse(file, nullptr, false);
  if (read.is_object() && read.contains("masters") && read["masters"].is_array()) kept_ = std::move(read);
}

bool Session::IsKept(const fs::path& master) const {
  const auto entries = kept_.value("masters", Json::array());
  return std::any_of(entries.begin(), entries.end(), [&](const auto& entry) {
    return entry.value("file", "") == master.filename().string();
  });
}

const Group* Session::OffsetOf(const Group& flat) const {
  const auto offset = offsetsOfFlats_.find(&flat);
  return offset == offsetsOfFlats_.end() ? nullptr : offset->second;
}

/// The lights' pattern is that of flats which name none.
int Session::MosaicOfLights(const Group& flat) const {
  const auto mosaic = std::find_if(lights_.begin(), lights_.end(), [&](const Light& light) {
    return light.flat == &flat && light.mosaic.cfa > 0;
  });
  return mosaic == lights_.end() ? 0 : mosaic->mosaic.cfa;
}

void Session::MakeMasters() {
  FindDigests();
  for (const Group* group : NeededGroups()) {
    const Master* const off = MasterOf(OffsetOf(*group));
    const bool overturned = off && files::LiesOverturned(HeaderOf(*group), HeaderOf(*off->group));
    if (overturned) TurnOver(*off->image);
    const Master& master = masters_.emplace(group, MakeOrLoad(*group, off)).first->second;
    if (overturned) TurnOver(*off->image);
    if (off && off->measures.max <= kUnitMost && master.measures.mean > kCountsLeast) {
      throw files::FileError(
          group->frames.front().path,
          fmt::format(
              "is on another scale than {}: a mean of {:.6g} beside no pixel above {:.3g}; give frames "
              "as the camera wrote them",
              off->group->name, master.measures.mean, off->measures.max));
    }
    const Measures& m = master.measures;
    masterLines_.push_back(fmt::format(
        "{}: {}; mean {:.6g}, min {:.6g}, max {:.6g}, saturated {}{}", group->name, group->Text(), m.mean,
        m.min, m.max, Percent(master.saturated),
        master.gain > 0 ? fmt::format(", gain {:.3g} electrons by their noise", master.gain) : ""));
    job_.Say(masterLines_.back());
    if (group->kind == FrameKind::Flat) WarnOfFlat(master);
    if (group->kind == FrameKind::Dark) CheckHoldsBias(master);
  }
}

/// What a master is made of: of the same, it is the same.
std::string Session::DigestOf(const Group& group) const {
  Json made{
      {"made", 1}, {"kind", NameOf(group.kind)}, {"mosaic", MosaicOfLights(group)}, {"scale", group.scale}};
  for (const Frame& frame : group.frames) {
    made["inputs"].push_back({fs::absolute(frame.path).string(), files::StampOf(frame.path)});
  }
  if (const Group* offset = OffsetOf(group)) made["offset"] = digests_.at(offset);
  if (group.bias) made["bias"] = digests_.at(group.bias);
  return fmt::format("{:016x}",
                     std::hash<std::string>()(made.dump(-1, ' ', true, Json::error_handler_t::replace)));
}

std::string Session::DigestOf(const Light& light) const {
  const auto master = [&](const Group* group) { return group ? digests_.at(group) : ""; };
  const auto balance = balances_.find(light.Camera());
  Json made{{"korimg", Version()},
            {"file", fs::weakly_canonical(light.frame.path).string()},
            {"stamp", files::StampOf(light.frame.path)},
            {"offset", master(light.Offset())},
            {"flat", master(light.flat)},
            {"pedestal", {PedestalOf(light), options_.KeptPedestal()}},
            {"mosaic", {light.mosaic.name, light.mosaic.cfa, options_.develop.half, options_.develop.mono}}};
  if (balance != balances_.end()) made["balance"] = balance->second.gains;
  if (const DefectMap* defects = DefectsOf(light)) {
    std::string places;
    for (const Defect& defect : defects->Defects()) {
      places += fmt::format("{} {};", defect.x, defect.y);
    }
    made["defects"] = std::hash<std::string>()(places);
  }
  return made.dump(-1, ' ', true, Json::error_handler_t::replace);
}

/// Those of offsets come first, and so do theirs.
void Session::FindDigests() {
  for (const Group* group : NeededGroups()) {
    digests_[group] = DigestOf(*group);
  }
}

bool Session::HasMasters() {
  FindDigests();
  return std::ranges::all_of(NeededGroups(),
                             [this](const Group* group) { return FindKept(*group).has_value(); });
}

/// What the manifest says of a master that is there, if it was made of the same frames.
std::optional<Json> Session::FindKept(const Group& group) const {
  for (const auto& entry : kept_.value("masters", Json::array())) {
    const fs::path file = options_.masters / entry.value("file", "");
    if (entry.value("digest", "") != digests_.at(&group) || !fs::is_regular_file(file)) continue;
    if (entry.value("stamp", "") == files::StampOf(file)) return Json(entry);  // nobody changed it
  }
  return std::nullopt;
}

Master Session::MakeOrLoad(const Group& group, const Master* offset) {
  if (const auto kept = FindKept(group)) {
    Master master;
    master.group = &group;
    master.offset = offset;
    master.image = std::move(Image::Open(job_, store_, options_.masters / kept->value("file", "")).Pointer());
    master.measures = Measures(*master.image);
    master.saturated = kept->value("saturated", 0.0);
    master.gain = kept->value("gain", 0.0);
    master.equalised = kept->value("equalised", false);
    master.isKept = true;
    return master;
  }
  return group.scaledFrom ? MakeScaled(group)
                          : MakeMaster(job_, store_, group, offset, MosaicOfLights(group));
}

/// The bias, and the rest of a dark by the ratio of exposures.
Master Session::MakeScaled(const Group& group) const {
  const Master &dark = masters_.at(group.scaledFrom), &bias = masters_.at(group.bias);
  const bool overturned = files::LiesOverturned(HeaderOf(*group.scaledFrom), HeaderOf(*group.bias));
  CVelImage& from = *dark.image;
  Master master;
  master.group = &group;
  master.saturated = dark.saturated;
  master.image = NewImage(store_, from.GetWidth(), from.GetHeight(), from.GetPlanes());
  const auto scale = static_cast<float>(group.scale);
  for (int p = 0; p < from.GetPlanes(); ++p) {
    ForLines(Team::All, 0, from.GetHeight(), [&](int y) {
      const float* row = from.GetLine(0, y, p);
      const float* level = bias.image->GetLine(0, overturned ? from.GetHeight() - 1 - y : y, p);
      float* out = master.image->GetWritableLine(0, y, p);
      for (int x = 0; x < from.GetWidth(); ++x) {
        out[x] = level[x] + (row[x] - level[x]) * scale;
      }
    });
  }
  master.measures = Measures(*master.image);
  return master;
}

/// Refuses darks whose bias is off already, which lights keep then: a camera's own values are not negative.
void Session::CheckHoldsBias(const Master& dark) const {
  constexpr double kMany = 0.01;  // of the pixels; chosen
  const double negative = ShareBelow(*dark.image, 0);
  if (negative < kMany) return;
  const fs::path& path = dark.group->frames.front().path;
  const std::string wrong = fmt::format(
      "{} of its pixels are negative: its bias was taken off before, and would stay in the lights; give "
      "darks "
      "as the camera wrote them",
      Percent(negative));
  if (!options_.allowMismatch) throw files::FileError(path, wrong + ", or use --allow-mismatch");
  job_.Warn(fmt::format("{}: {}", path.string(), wrong));
}

/// Makes masters for lights that are read the other way round than the frames they are made of.
void Session::TurnMasters() {
  for (const Light& light : lights_) {
    for (const Group* group : {light.Offset(), light.flat}) {
      if (!group || turned_.contains(group) ||
          !files::LiesOverturned(light.frame.info.header, HeaderOf(*group))) {
        continue;
      }
      CVelImage& master = *masters_.at(group).image;
      auto image = std::make_unique<CImgFlip>();
      if (!image->Create(master, nullptr)) throw velora::CVmMemoryAllocationError("no room for a master");
      image->Do(0, &master, 0);
      turned_.emplace(group, std::move(image));
    }
  }
}

CVelImage* Session::ImageOf(const Group* group, const Light& light) const {
  if (!group) return nullptr;
  const bool overturned = files::LiesOverturned(light.frame.info.header, HeaderOf(*group));
  return overturned ? turned_.at(group).get() : masters_.at(group).image.get();
}

/// Looks at the first light of each camera and offset: whether it and its masters are on one scale, how much
/// its noise needs below 0, and whether it is a mosaic that nobody named.
void Session::CheckLights() {
  std::set<std::pair<const Group*, std::string>> seen;
  for (const Light& light : lights_) {
    if (!seen.insert({light.Offset(), light.Camera()}).second) continue;
    const auto reader =
        files::ImageReader::Open(light.frame.path, {.lessBlack = !light.Offset(), .manyOpen = true});
    const files::ImageInfo& info = reader->Info();
    StackInput input{light.frame.path.string(), {info.width, info.height, info.planes}};
    input.read = [&](const Band<float>& to) { reader->ReadRows(to); };
    const FrameLevels levels = MeasureInput(job_, input);
    if (const Master* offset = MasterOf(light.Offset())) {
      CheckScale(light, levels, *offset);
      // Standard deviations, chosen: nothing of the noise lies below, and little of hot pixels' dark signal.
      constexpr double kDeep = 20;
      double& pedestal = pedestals_[light.Offset()];
      for (int p = 0; p < info.planes; ++p) {
        pedestal = std::max(pedestal, std::ceil(kDeep * levels.noise[p]));
      }
    }
    if (light.mosaic.name.empty() && !options_.keepMosaic && PhasesDiffer(*reader)) {
      job_.Warn(
          fmt::format("{}: looks like a mosaic, but names no pattern: it is taken as mono; give "
                      "--cfa, or --keep-mosaic if it is none",
                      light.frame.path.string()));
    }
  }
}

/// Refuses masters that are not on a light's scale. An offset lies below all of the light, and a dark above
/// the bias that it holds.
void Session::CheckScale(const Light& light, const FrameLevels& levels, const Master& offset) const {
  constexpr double kFar = 5;  // deviations; chosen
  const FrameLevels own = MeasureLevels(*offset.image);
  const std::string& name = offset.group->name;
  const double sky = levels.level[0], dark = own.level[0];
  std::string wrong;
  if (dark > sky + kFar * levels.spread[0] + 0.01 * std::abs(sky)) {
    wrong = fmt::format("has a median of {:.6g}, less than {:.6g} of {}", sky, dark, name);
  } else if (offset.measures.max <= kUnitMost && sky > kCountsLeast) {
    wrong =
        fmt::format("has a median of {:.6g}, but {} no pixel above {:.3g}", sky, name, offset.measures.max);
  }
  constexpr double kLittle = 0.02;  // of the light, chosen: a camera's own offset is more
  if (light.dark && wrong.empty() && biases_.empty() && dark < kLittle * sky) {
    job_.Warn(fmt::format(
        "{}: has a median of {:.6g}, and {} one of {:.6g} only: if its bias was taken off before, "
        "it stays in the lights; give --bias then",
        light.frame.path.string(), sky, name, dark));
  }
  if (light.dark && wrong.empty()) {
    const Match match = FindMatch(biases_, light.dark->frames.front());
    const auto bias = masters_.find(match.group);
    if (bias != masters_.end()) {
      const double level = MeasureLevels(*bias->second.image).level[0];
      if (dark < level - kFar * std::max<double>(own.spread[0], 1e-3 * std::abs(level))) {
        wrong = fmt::format(
            "needs a dark that holds its bias, but {} has a median of {:.6g} and {} one of {:.6g}", name,
            dark, bias->first->name, level);
      }
    }
  }
  if (wrong.empty()) return;
  wrong += ": their scales differ; give frames as the camera wrote them, or masters made of such";
  if (!options_.allowMismatch) throw files::FileError(light.frame.path, wrong + ", or use --allow-mismatch");
  job_.Warn(fmt::format("{}: {}", light.frame.path.string(), wrong));
}

/// Nothing says how much of the lights is no light.
bool Session::LacksOffsets() const {
  return !options_.flats.empty() && std::any_of(lights_.begin(), lights_.end(), [](const Light& light) {
    return !light.Offset() && !light.frame.info.camera;
  });
}

void Session::SaveMasters() {
  if (options_.masters.empty()) return;
  const auto needed = NeededGroups();
  const bool isAllKept = std::all_of(needed.begin(), needed.end(),
                                     [this](const Group* group) { return masters_.at(group).isKept; });
  if (isAllKept && !needed.empty()) return;
  fs::create_directories(options_.masters);
  Json manifest{{"program", fmt::format("korimg {}", Version())}, {"masters", Json::array()}};
  std::set<std::string> files;
  std::vector<Master*> made;
  long long bytes = 0;  // of the largest
  for (const Group* group : needed) {
    Master& master = masters_.at(group);
    if (master.isKept) continue;
    if (options_.mastersAreLibrary || IsKept(MasterPath(*group))) {
      fs::remove(MasterPath(*group));  // it was of frames that have changed, or is half of one
    }
    made.push_back(&master);
    bytes = std::max(bytes, BytesOf(group->frames.front().info));
  }
  SideBySide(
      job_, "writing master", made.size(), bytes,
      [&](size_t i) { SaveMaster(job_, *made[i], MasterPath(*made[i]->group)); },
      [](size_t, const auto& result) { result(); });
  for (const Group* group : needed) {
    const Master& master = masters_.at(group);
    files.insert(MasterPath(*group).filename().string());
    Json entry{{"file", MasterPath(*group).filename().string()},
               {"digest", digests_.at(group)},
               {"stamp", files::StampOf(MasterPath(*group))},
               {"kind", NameOf(group->kind)},
               {"offset", master.offset ? Json(master.offset->group->name) : Json()},
               {"mean", master.measures.mean},
               {"min", master.measures.min},
               {"max", master.measures.max},
               {"saturated", master.saturated},
               {"gain", master.gain},
               {"equalised", master.equalised},
               {"inputs", Json::array()}};
    for (const Frame& frame : group->frames) {
      entry["inputs"].push_back({{"file", fs::absolute(frame.path).string()},
                                 {"bytes", fs::file_size(frame.path)},
                                 {"date", frame.info.header.GetString("DATE-OBS").value_or("")}});
    }
    manifest["masters"].push_back(std::move(entry));
  }
  // Those of other sessions and objects stay.
  for (const auto& entry : kept_.value("masters", Json::array())) {
    const std::string name = entry.value("file", "");
    if (!files.contains(name) && fs::exists(options_.masters / name))
      manifest["masters"].push_back(Json(entry));
  }
  files::TransientFile part(files::PartialName(ManifestPath()));
  std::ofstream file(part.Path());
  file << manifest.dump(1, ' ', false, Json::error_handler_t::replace) << '\n';
  file.close();
  if (!file) throw files::FileError(ManifestPath(), "cannot be written; is the disk full?");
  part.RenameTo(ManifestPath());
}

fs::path Session::MasterPath(const Group& group) const {
  if (!options_.mastersAreLibrary) return options_.masters / (group.name + ".fits");
  // Names of other sessions are the same; what the frames are is not.
  std::string frames;
  for (const Frame& frame : group.frames) {
    frames += fs::absolute(frame.path).string() + '\n';
  }
  return options_.masters /
         fmt::format("{}_{:08x}.fits", group.name, std::hash<std::string>()(frames) & 0xffffffffu);
}

fs::path Session::ManifestPath() const {
  return options_.masters / "manifest.json";
}

void Session::WarnOfFlat(const Master& flat) const {
  const Frame& first = flat.group->frames.front();
  const bool single = flat.group->frames.size() == 1;
  const bool raw = !first.info.camera && first.info.type.find("int") != std::string::npos &&
                   !first.info.header.GetString("NCOMBINE") && !first.info.header.GetString("STACKCNT");
  if (!single && !flat.offset && !first.info.camera) {
    job_.Warn(
        fmt::format("{}: FLATS WITHOUT BIAS OR DARK of their own: their offset stays in "
                    "them, and the edges will be corrected too little; give --bias",
                    flat.group->name));
  } else if (single && raw) {
    job_.Warn(
        fmt::format("{}: one flat is taken as a master as it is; if it is a raw frame with "
                    "its bias, give two or more and --bias",
                    first.path.string()));
  }
  if (flat.saturated > kManySaturated) {
    job_.Warn(fmt::format("{}: {} of its pixels are saturated", flat.group->name, Percent(flat.saturated)));
  }
  for (int p = 0; p < flat.image->GetPlanes(); ++p) {
    if (!(flat.measures.minima[p] < flat.measures.maxima[p])) {
      job_.Warn(fmt::format("{}: all its pixels are equal; lights are not divided by it", flat.group->name));
      break;
    }
  }
}

}  // namespace korimg::session
