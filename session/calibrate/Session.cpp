#include "session/calibrate/internal/Session.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <limits>
#include <set>

#include <fmt/format.h>

#include "korimg/geometry/CImgFlip.h"
#include "korimg/image/ForeignImage.h"
#include "korimg/image/internal/Lines.h"
#include "korimg/image/internal/Vectors.h"
#include "korimg/pipelines/runtime/Runtime.h"

#include "session/files/Formats.h"
#include "session/files/Gain.h"
#include "session/files/Geometry.h"
#include "session/files/internal/Times.h"
#include "session/job/internal/SideBySide.h"

namespace korimg::session {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

namespace {

/// Frames of 0 to 1 stay below the one, and a camera's own are beyond the other. Chosen.
constexpr double kUnitMost = 1.5, kCountsLeast = 16;
constexpr double kManySaturated = 0.01;  // chosen: share of a flat's pixels that is worth a warning

const files::Header& HeaderOf(const Group& group) {
  return group.frames.front().info.header;
}

const char* NameOf(FrameKind kind) {
  return kind == FrameKind::Bias ? "bias" : kind == FrameKind::Dark ? "dark" : "flat";
}

/// The mosaic that a light is, developed or not.
int ArrayOf(const Light& light, const CalibrateOptions& options) {
  return options.keepMosaic ? MosaicOf(light.frame.info, options.develop.mosaic).cfa : light.mosaic.cfa;
}

/// Lights of one camera share their white balance, so that their colours can be added up.
std::string CameraOf(const Light& light) {
  return light.mosaic.name + ' ' + light.frame.info.header.GetString("INSTRUME").value_or("");
}

long long Pixels(const CVelImage& image) {
  return 1LL * image.GetWidth() * image.GetHeight() * image.GetPlanes();
}

/// Rows as an image of their own, without a copy; they have nothing between them. Its results lie in `store`.
StoredImage ImageOver(const Band<float>& rows, const std::shared_ptr<CVmManager>& store) {
  return MakeImageOver({rows.Data(), rows.Data() + rows.Planes()}, rows.Width(), rows.Rows(), nullptr, store);
}

void CheckUnchanged(const Light& light, const files::ImageInfo& found) {
  const files::ImageInfo& planned = light.frame.info;
  if (found.width != planned.width || found.height != planned.height || found.planes != planned.planes) {
    throw files::FileError(light.frame.path, "has changed since the work began");
  }
}

}  // namespace

std::string Light::Served() const {
  std::string text;
  for (const Group* group : {dark, bias, flat}) {
    if (group) text += (text.empty() ? "" : ", ") + group->name;
  }
  if (mosaic.cfa > 0) text += fmt::format("{}mosaic {}", text.empty() ? "" : ", ", mosaic.name);
  return text;
}

Json Light::Description() const {
  Json json{{"file", frame.path.string()}};
  for (const auto& [key, group] : {std::pair("dark", dark), {"flat", flat}, {"bias", bias}}) {
    json[key] = group ? Json(group->name) : Json();
  }
  if (mosaic.cfa > 0) json["mosaic"] = mosaic.name;
  return json;
}

Session::Session(Job& job, const CalibrateOptions& options)
    : job_(job), options_(options), grouping_(ParseGrouping(options.group)) {
  darks_ = MakeGroups(job, FrameKind::Dark, ExpandFolders(job, options.darks), grouping_);
  flats_ = MakeGroups(job, FrameKind::Flat, ExpandFolders(job, options.flats), grouping_);
  biases_ = MakeGroups(job, FrameKind::Bias, ExpandFolders(job, options.biases), grouping_);
  FindOffsetsOfFlats();
  PlanLights();
  NameResults();
  PlanDefects();
  ReadManifest();
}

/// A manifest that is none of ours, or none at all, is as good as no masters. Those of a library are kept
/// even where outputs are made anew.
void Session::ReadManifest() {
  kept_ = Json::object();
  if (options_.masters.empty() || (job_.options.overwrite && !options_.mastersAreLibrary)) return;
  std::ifstream file(ManifestPath());
  Json read = Json::parse(file, nullptr, false);
  if (read.is_object() && read.contains("masters") && read["masters"].is_array()) kept_ = std::move(read);
}

/// What is wrong with several lights alike is told once.
void Session::PlanLights() {
  std::map<std::string, std::vector<fs::path>> misfits;
  for (const fs::path& path : ExpandFolders(job_, options_.lights)) {
    failed_.push_back({path});  // failed, unless it is planned
    std::optional<Frame> frame;
    const auto read = [&](const fs::path&) {
      try {
        frame = ReadFrame(path);
      } catch (const files::FileError& error) {
        failed_.back().reason = error.Reason();
        failed_.back().isUnfinished = dynamic_cast<const files::UnfinishedError*>(&error);
        throw;
      }
    };
    job_.ForEachFile({path}, read, true);
    if (!frame) continue;
    failed_.back().filter = FilterOf(frame->info.header);
    try {
      lights_.push_back(PlanLight(std::move(*frame)));
      failed_.pop_back();
    } catch (const files::FileError& error) {
      failed_.back().reason = "cannot be calibrated: " + error.Reason();
      misfits[error.Reason()].push_back(path);
    }
  }
  for (const auto& [text, paths] : misfits) {
    const std::string told =
        fmt::format("{}{}: {}", paths.front().string(),
                    paths.size() > 1 ? fmt::format(" and {} other lights", paths.size() - 1) : "", text);
    options_.misfitsMayBeMissing ? job_.Warn(told) : job_.Fail(told);
  }
}

void Session::TellOnce(const std::string& text) {
  if (told_.insert(text).second) job_.Warn(text);
}

/// Files of one name in different folders have results of different names.
void Session::NameResults() {
  std::set<std::string> taken;
  for (Light& light : lights_) {
    const std::string stem = StemOf(light.frame.path);
    light.stem = stem;
    for (int n = 2; !taken.insert(light.stem).second; ++n) {
      light.stem = fmt::format("{}_{}", stem, n);
    }
  }
}

void Session::Show() const {
  for (const auto* groups : {&biases_, &darks_, &flats_}) {
    for (const Group& group : *groups) {
      ShowGroup(group);
    }
  }
  // Lights in a row that are served alike take one line.
  for (size_t i = 0, next; i < lights_.size(); i = next) {
    const Light& light = lights_[i];
    for (next = i + 1; next < lights_.size() && lights_[next].Served() == light.Served();) {
      ++next;
    }
    const std::string name = light.frame.path.filename().string();
    const std::string served = light.Served().empty() ? "nothing to do" : light.Served();
    job_.Say(next - i == 1 ? fmt::format("{}: {}", name, served)
                           : fmt::format("{} lights ({} to {}): {}", next - i, name,
                                         lights_[next - 1].frame.path.filename().string(), served));
  }
  for (const Defects& defects : defects_) {
    job_.Say(fmt::format("hot and cold pixels of {} light{}: by {}", defects.lights.size(),
                         defects.lights.size() == 1 ? "" : "s", defects.Source()));
  }
}

std::vector<fs::path> Session::CheckOutputs(std::vector<fs::path> outputs,
                                            const std::function<bool(const fs::path&)>& ours) const {
  if (!options_.masters.empty()) {
    // What a manifest tells of was made by us, and is used again, or made anew; names in a library are ours.
    for (const Group* group : NeededGroups()) {
      if (!options_.mastersAreLibrary && !IsKept(MasterPath(*group))) outputs.push_back(MasterPath(*group));
    }
    if (!options_.mastersAreLibrary && kept_.empty()) outputs.push_back(ManifestPath());
  }
  for (const Defects& defects : defects_) {
    if (options_.maps) outputs.push_back(defects.file);
  }
  std::set<fs::path> inputs;
  for (const Light& light : lights_) {
    inputs.insert(fs::weakly_canonical(light.frame.path));
  }
  for (const auto* groups : {&biases_, &darks_, &flats_}) {
    for (const Group& group : *groups) {
      for (const Frame& frame : group.frames) {
        inputs.insert(fs::weakly_canonical(frame.path));
      }
    }
  }
  for (const fs::path& output : outputs) {
    if (inputs.contains(fs::weakly_canonical(output))) {
      throw files::FileError(output, "would be replaced by its own result; choose another --out");
    }
    if (!ours || !ours(output)) job_.CheckOutput(output);
  }
  std::erase_if(outputs, [&](const fs::path& output) { return ours && ours(output); });
  return outputs;
}

bool Session::IsKept(const fs::path& master) const {
  const auto entries = kept_.value("masters", Json::array());
  return std::any_of(entries.begin(), entries.end(), [&](const auto& entry) {
    return entry.value("file", "") == master.filename().string();
  });
}

void Session::Prepare() {
  if (LacksOffsets()) {
    job_.Warn(
        "LIGHTS WITHOUT DARK OR BIAS: their offset is divided by the flat as if it were light, "
        "and the edges will be corrected too much; give --dark or --bias");
  }
  MakeMasters();
  TurnMasters();
  CheckLights();
  SaveMasters();
  FindDefects();
  FindNoise();
  ChooseWhiteBalances();
  MeasureDevelopments();
}

bool Session::Exchange(const fs::path& path) {
  Light& only = lights_.front();
  Light light = PlanLight(ReadFrame(path));
  const files::ImageInfo &was = only.frame.info, &now = light.frame.info;
  const bool isAlike = light.dark == only.dark && light.flat == only.flat && light.bias == only.bias &&
                       light.mosaic.cfa == only.mosaic.cfa && CameraOf(light) == CameraOf(only) &&
                       now.width == was.width && now.height == was.height && now.planes == was.planes &&
                       !files::LiesOverturned(now.header, was.header);
  if (!isAlike) return false;
  light.stem = StemOf(path);
  only = std::move(light);
  levels_.clear();
  return true;
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
  const auto balance = balances_.find(CameraOf(light));
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
    if (!seen.insert({light.Offset(), CameraOf(light)}).second) continue;
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

/// Nothing says how much of the lights is no light.
bool Session::LacksOffsets() const {
  return !options_.flats.empty() && std::any_of(lights_.begin(), lights_.end(), [](const Light& light) {
    return !light.Offset() && !light.frame.info.camera;
  });
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
  const auto wanted = files::ExposureOf(frame.info.header),
             found = files::ExposureOf(match.group->frames.front().info.header);
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
    const bool hasOwnDark = own && files::ExposureOf(first.info.header) &&
                            files::ExposureOf(own.group->frames.front().info.header);
    const Group* offset = hasOwnDark ? own.group : Choose(biases_, first);
    if (offset) offsetsOfFlats_[&flat] = offset;
  }
}

Light Session::PlanLight(Frame frame) {
  const fs::path path = frame.path;
  Light light{std::move(frame)};
  light.dark = ChooseDark(light.frame);
  if (darks_.empty()) light.bias = Choose(biases_, light.frame);
  light.flat = ChooseFlat(light.frame);
  if (light.frame.info.planes > 1 && !options_.develop.mosaic.cfa.empty()) {
    throw files::FileError(path, "has colours already: --cfa is for mosaics; leave it out");
  }
  if (!options_.keepMosaic) light.mosaic = MosaicOf(light.frame.info, options_.develop.mosaic);
  if (!light.mosaic.name.empty() && light.mosaic.cfa == 0) {
    throw files::FileError(
        path,
        fmt::format("a mosaic of the pattern {} cannot be developed{}; use --keep-mosaic", light.mosaic.name,
                    files::CfaNumber(light.mosaic.name) > 0 ? " (" + light.mosaic.reason + ")" : ""));
  }
  return light;
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

std::vector<const Light*> Defects::Sample() const {
  constexpr size_t kMost = 7, kLeast = 3;  // chosen: odd numbers have a middle one; more cost time
  std::vector<const Light*> all = lights, sample;
  std::erase_if(all, [this](const Light* light) { return unreadable.contains(light); });
  if (all.size() < kLeast) return {};
  const size_t last = all.size() - 1, count = std::min(last - last % 2 + 1, kMost);
  for (size_t i = 0; i < count; ++i) {
    sample.push_back(all[i * last / (count - 1)]);
  }
  return sample;
}

std::string Defects::Source() const {
  return dark ? dark->name : fmt::format("{} of the lights", Sample().size());
}

/// Lights share their defects where they share a dark; else where one camera took them in the same way.
void Session::PlanDefects() {
  if (options_.cosmetic == Cosmetic::None) return;
  std::map<std::string, Defects*> known;
  for (const Light& light : lights_) {
    const files::ImageInfo& info = light.frame.info;
    if (info.planes != 1) continue;
    const auto text = [&](const char* key) { return info.header.GetString(key).value_or(""); };
    const std::string key =
        fmt::format("{} {} {} {} {}", light.dark ? light.dark->name : "", ArrayOf(light, options_),
                    text("ROWORDER"), info.header.turned,
                    light.dark ? ""
                               : fmt::format("{} {} {} {:.1e} {}", CameraOf(light), info.width, info.height,
                                             files::ExposureOf(info.header).value_or(0), text("GAIN")));
    Defects*& defects = known[key];
    if (!defects) defects = &defects_.emplace_back(Defects{.dark = light.dark});
    defects->lights.push_back(&light);
  }
  defects_.remove_if([](const Defects& d) { return !d.dark && d.Sample().empty(); });
  int number = 0;
  for (Defects& defects : defects_) {
    defects.file =
        options_.out / (++number == 1 ? "hot_pixels.fits" : fmt::format("hot_pixels_{}.fits", number));
  }
}

/// Lights that cannot be read are left out; they are told of when they are worked on.
DefectMap Session::FindInLights(Defects& defects, const files::ImageInfo& info, int cfa) const {
  for (auto sample = defects.Sample(); !sample.empty(); sample = defects.Sample()) {
    const Light* read = nullptr;
    try {
      std::vector<RowSource> sources;
      for (const Light* light : sample) {
        read = light;
        auto rows = std::make_shared<CalibratedRows>(*this, *light, nullptr);
        sources.emplace_back([&read, light, rows](const Band<float>& to) {
          read = light;
          rows->Read(to);
        });
      }
      return FindDefectsInLights(job_, sources, info.width, info.height, cfa, store_);
    } catch (const files::FileError&) {
      defects.unreadable.insert(read);
    }
  }
  return {info.width, info.height, cfa, {}};
}

void Session::FindDefects() {
  for (Defects& defects : defects_) {
    const Light& first = *defects.lights.front();
    const files::ImageInfo& info = first.frame.info;
    const int cfa = ArrayOf(first, options_);
    if (defects.dark) {
      defects.map = std::make_unique<DefectMap>(FindDefectsInDark(*ImageOf(defects.dark, first), cfa));
    } else {
      defects.map = std::make_unique<DefectMap>(FindInLights(defects, info, cfa));
    }
    masterLines_.push_back(fmt::format("hot and cold pixels by {}: {} and {}", defects.Source(),
                                       defects.map->Hot(), defects.map->Cold()));
    job_.Say(masterLines_.back());
    if (options_.maps) SaveMap(defects);
  }
  for (const Defects& defects : defects_) {
    for (const Light* light : defects.lights) {
      defectsOf_.emplace(light, &defects);
    }
  }
}

void Session::SaveMap(const Defects& defects) const {
  files::Header header;
  const files::Header& light = defects.lights.front()->frame.info.header;
  for (const char* key : {"INSTRUME", "ROWORDER"}) {
    if (const auto text = light.GetString(key)) header.Set(key, *text);
  }
  header.Set("IMAGETYP", "Hot pixels", "1 hot, -1 cold, 0 good");
  header.AddHistory(fmt::format("korimg {} hot and cold pixels by {}", Version(), defects.Source()));
  fs::create_directories(options_.out);
  SaveImage(job_, *defects.map->ToImage(store_), header, defects.file);
}

const DefectMap* Session::DefectsOf(const Light& light) const {
  const auto found = defectsOf_.find(&light);
  return found == defectsOf_.end() ? nullptr : found->second->map.get();
}

Session::Calibrated Session::LoadLight(const Light& light) const {
  const Master* offset = MasterOf(light.Offset());
  Calibrated result{Image::Open(job_, store_, light.frame.path, {.lessBlack = !offset, .lessBorder = true}),
                    0};
  CheckUnchanged(light, result.loaded.Info());
  CVelImage& image = result.loaded.Pixels();
  const Band<float> all = Image::RowsOf(image, 0, image.GetHeight());
  Quality& quality = result.loaded.QualityOfPixels();
  QualityRows rows;
  if (options_.quality.Any()) {
    quality = NewQuality(store_, options_.quality, all.Width(), all.Rows(), all.Planes());
    rows = quality.Rows(0, all.Rows());
    FillQuality(light, result.loaded.Info(), all, rows);
  }
  const long long clipped = Apply(light, image, ImageOf(light.Offset(), light), ImageOf(light.flat, light));
  result.clipped = static_cast<double>(clipped) / static_cast<double>(Pixels(image));
  if (const DefectMap* defects = DefectsOf(light)) defects->Mend(all, 0, all.Rows(), rows);
  return result;
}

Levels Session::MosaicLevels(const Light& light) const {
  const files::ImageInfo& info = light.frame.info;
  if (info.type.starts_with("float")) {
    // Without levels of its own the extremes are looked for, once for all bands that are read of it.
    const std::lock_guard lock(levelsMutex_);
    const auto known = levels_.find(&light);
    if (known != levels_.end()) return known->second;
    return levels_.emplace(&light, LoadLight(light).loaded.Pixels()).first->second;
  }
  const auto row = NewImage(store_, info.width, 1, info.planes);
  SetLevels(*row, info, !light.Offset());
  return Levels(*row);
}

Development Session::Develop(MosaicSource source, const Light& light, files::ImageInfo& info) const {
  return {std::move(source), info, light.mosaic, BalanceOf(light), options_.develop};
}

const WhiteBalance& Session::BalanceOf(const Light& light) const {
  return balances_.at(CameraOf(light));
}

void Session::ChooseWhiteBalances() {
  for (const Light& light : lights_) {
    if (light.mosaic.cfa == 0 || balances_.contains(CameraOf(light))) continue;
    const Calibrated first = LoadLight(light);
    CVelImage& image = first.loaded.Pixels();
    WhiteBalanceChoice wanted = options_.develop.whiteBalance;
    if (!light.Offset() && !light.frame.info.camera && NeedsMedians(first.loaded.Info(), wanted)) {
      wanted = {WhiteBalanceChoice::None};
      job_.Warn(
          fmt::format("{}: its level without light is not known, so that its colours cannot be "
                      "balanced; give --dark, --bias or --white-balance",
                      light.frame.path.string()));
    }
    // The pedestal is no light.
    const double kept = options_.KeptPedestal();
    if (kept > 0) Calculate(image, Calculation::Subtract, kept);
    const WhiteBalance balance = ChooseWhiteBalance(&image, first.loaded.Info(), light.mosaic, wanted);
    job_.Say(fmt::format("mosaic {} ({}): white balance {} ({:.4g}){}", light.mosaic.name,
                         light.mosaic.reason, balance.text, fmt::join(balance.gains, ", "),
                         balance.text == "by medians" ? " of " + light.frame.path.filename().string() : ""));
    balances_.emplace(CameraOf(light), balance);
  }
}

void Session::MeasureDevelopments() {
  for (const Light& light : lights_) {
    if (!options_.quality.Any() || light.mosaic.cfa == 0 || developedNoise_.contains(CameraOf(light)))
      continue;
    developedNoise_.emplace(
        CameraOf(light), DevelopedNoise(job_, light.mosaic, balances_.at(CameraOf(light)), options_.develop));
  }
}

const DevelopedNoise* Session::NoiseOfDevelopment(const Light& light) const {
  const auto found = developedNoise_.find(CameraOf(light));
  return found == developedNoise_.end() ? nullptr : &found->second;
}

/// Takes the offset off and divides by the flat. Answers how many pixels were clipped.
long long Session::Apply(const Light& light, CVelImage& image, CVelImage* offset, CVelImage* flat) const {
  const double kept = options_.KeptPedestal();
  // Only what lies above the pedestal is light, to be divided by the flat.
  const long long clipped = ApplyMasters(image, offset, 0.0f - static_cast<float>(PedestalOf(light)), flat,
                                         flat ? MasterOf(light.flat)->measures : Measures());
  if (kept > 0) Calculate(image, Calculation::Add, kept);
  return clipped;
}

void Session::FillQuality(const Light& light, const files::ImageInfo& info, const Band<const float>& raw,
                          const QualityRows& to) const {
  const auto rowsOf = [&](const Group* group) {
    CVelImage* image = ImageOf(group, light);
    return image ? Image::RowsOf(*image, raw.Top(), raw.Rows(), true) : Band<float>();
  };
  const auto known = noise_.find(&light);
  NoiseModel noise = known == noise_.end() ? NoiseModel() : known->second;
  noise.saturation = ScaleEnd(info, !light.Offset());
  const Master* flat = MasterOf(light.flat);
  // As the lights are: flats without differences divide nothing.
  const bool divides = flat && flat->measures.minima[0] != flat->measures.maxima[0];
  noise.Fill(raw, rowsOf(light.Offset()), divides ? rowsOf(light.flat) : Band<float>(),
             divides ? flat->measures.averages : nullptr, to);
}

double Session::PedestalOf(const Light& light) const {
  if (options_.pedestal) return *options_.pedestal;
  const auto found = pedestals_.find(light.Offset());
  return found == pedestals_.end() ? 0 : found->second;
}

void Session::Describe(files::Header& header, const Light& light, double clipped) const {
  const Master *offset = MasterOf(light.Offset()), *flat = MasterOf(light.flat);
  header.AddHistory(fmt::format("korimg {} calibrate", Version()));
  if (offset) header.AddHistory(fmt::format("{}: {}", NameOf(offset->group->kind), offset->Text()));
  if (flat) header.AddHistory("flat: " + flat->Text());
  const bool knowsGain = files::FindGain(header, std::numeric_limits<double>::infinity()).electrons > 0;
  const auto isSetAlike = [&](const char* key) {
    return header.GetString(key) == HeaderOf(*light.flat).GetString(key);
  };
  if (flat && flat->gain > 0 && light.mosaic.cfa == 0 && !knowsGain && isSetAlike("GAIN") &&
      isSetAlike("ISOSPEED")) {
    header.Set("EGAIN", flat->gain, "electrons of a value, by the noise of the flats");
  }
  if (const DefectMap* defects = DefectsOf(light)) {
    header.AddHistory(fmt::format("{} hot and {} cold pixels became the median of good ones about them",
                                  defects->Hot(), defects->Cold()));
  }
  if (const auto noise = noise_.find(&light); noise != noise_.end()) {
    header.AddHistory(
        fmt::format("uncertainty: by {:.4g} electrons of a raw value, and a deviation of {:.4g} "
                    "raw values without light",
                    noise->second.gain, std::sqrt(noise->second.floor)));
  }
  const double source = offset ? 0 : header.GetDouble("PEDESTAL").value_or(0);
  if (offset) {
    // What the camera's own pedestal was came off with the frames that have it too.
    header.Remove("PEDESTAL");
    const double pedestal = PedestalOf(light);
    header.AddHistory(fmt::format("{} of the pixels lay {}below their {} and were clipped", Percent(clipped),
                                  pedestal > 0 ? fmt::format("more than {:g} ", pedestal) : "",
                                  NameOf(offset->group->kind)));
  }
  if (const double kept = options_.KeptPedestal(); kept > 0) {
    header.Set("PEDESTAL", source - kept, "add this to get zero-based values");
    header.AddHistory(fmt::format("pedestal: {:g} was added to all pixels, and is still in them", kept));
  }
}

CalibratedRows::CalibratedRows(const Session& session, const Light& light,
                               std::shared_ptr<const files::ConstantBorder> border)
    : session_(session),
      light_(light),
      reader_(files::ImageReader::Open(light.frame.path, {.lessBlack = !light.Offset(),
                                                          .manyOpen = true,
                                                          .lessBorder = true,
                                                          .border = std::move(border)})) {
  CheckUnchanged(light, reader_->Info());
}

/// Calibrates rows where they are to lie. What mends their hot and cold pixels lies above and below too.
void CalibratedRows::Read(const Band<float>& to, const QualityRows& quality) {
  seen_ += 1LL * to.Planes() * to.Width() * to.Rows();
  // One row after the other in all planes, as the masters are: parts of one plane have nothing between them.
  const auto rowsIn = [&](BandBuffer& buffer, int top, int bottom) {
    return buffer.Get(to.Planes(), to.Width(), top, bottom - top);
  };
  const Band<float> own = to.IsDense() ? to : rowsIn(dense_, to.Top(), to.Bottom());
  clipped_ += Calibrate(own, quality);
  if (const DefectMap* defects = session_.DefectsOf(light_)) {
    const Band<float> above = rowsIn(above_, std::max(to.Top() - DefectMap::kReach, 0), to.Top()),
                      below = rowsIn(below_, to.Bottom(),
                                     std::min(to.Bottom() + DefectMap::kReach, reader_->Info().height));
    const auto qualityOf = [&](QualityBuffer& buffer, const Band<float>& rows) {
      return buffer.Get(quality, to.Planes(), to.Width(), rows.Top(), rows.Rows());
    };
    const QualityRows aboveQuality = qualityOf(aboveQuality_, above),
                      belowQuality = qualityOf(belowQuality_, below);
    Calibrate(above, aboveQuality);
    Calibrate(below, belowQuality);
    const auto rowOf = [&](int y) {
      return (y < own.Top() ? above : y < own.Bottom() ? own : below).Row(0, y).data();
    };
    const auto varianceOf = [&](int y) {
      const QualityRows& rows = y < own.Top() ? aboveQuality : y < own.Bottom() ? quality : belowQuality;
      return rows.variance.Row(0, y).data();
    };
    const auto maskOf = [&](int y) { return quality.mask.Row(0, y).data(); };
    using RowOf = DefectMap::RowOf;
    defects->Mend(rowOf, to.Top(), to.Bottom(), quality.variance.Planes() > 0 ? varianceOf : RowOf(),
                  quality.mask.Planes() > 0 ? maskOf : RowOf());
  }
  if (!to.IsDense()) CopyPixels(own, to);
}

/// By the rows of the masters where those lie. Answers how many pixels were limited at 0.
long long CalibratedRows::Calibrate(const Band<float>& rows, const QualityRows& quality) {
  constexpr int kAtOnce = 128;  // chosen, so that each step finds them in the caches
  long long clipped = 0;
  for (int top = rows.Top(); top < rows.Bottom(); top += kAtOnce) {
    const Band<float> part = rows.Part(top, std::min(kAtOnce, rows.Bottom() - top));
    reader_->ReadRows(part);
    if (quality.Any()) {
      session_.FillQuality(light_, reader_->Info(), part, quality.Part(top, part.Rows()));
    }
    const auto rowsOf = [&](const Group* group) {
      CVelImage* image = session_.ImageOf(group, light_);
      return image ? ImageOver(Image::RowsOf(*image, top, part.Rows(), true), session_.store_)
                   : StoredImage();
    };
    const StoredImage band = ImageOver(part, session_.store_), offset = rowsOf(light_.Offset()),
                      flat = rowsOf(light_.flat);
    clipped += session_.Apply(light_, *band.image, offset.image.get(), flat.image.get());
  }
  return clipped;
}

double CalibratedRows::Clipped() const {
  return seen_ > 0 ? static_cast<double>(clipped_) / static_cast<double>(seen_) : 0;
}

LightRows::LightRows(const Session& session, const Light& light,
                     std::shared_ptr<const files::ConstantBorder> border)
    : session_(session),
      light_(light),
      rows_(session, light, std::move(border)),
      info_(rows_.Reader().Info()) {
  shape_ = {info_.width, info_.height, info_.planes};
  if (light.mosaic.cfa == 0) return;
  MosaicSource source(rows_.Reader(), session.MosaicLevels(light), session.store_);
  source.read = [this](const Band<float>& to) { ReadCalibrated(to); };
  development_ = std::make_unique<Development>(session.Develop(std::move(source), light, info_));
  shape_ = development_->Size();
}

void LightRows::Read(const Band<float>& to, const QualityRows& quality) {
  if (!development_ && to.IsDense()) return rows_.Read(to, quality);
  // Chosen: little memory beside what the rows are for, and many rows beside the margins of development.
  constexpr int kAtOnce = 128;
  for (int top = to.Top(); top < to.Bottom(); top += kAtOnce) {
    const int rows = std::min(kAtOnce, to.Bottom() - top);
    ReadBand(to.Part(top, rows), quality.Part(top, rows));
  }
}

void LightRows::ReadBand(const Band<float>& to, const QualityRows& quality) {
  if (!development_) return rows_.Read(to, quality);
  wanted_ = quality;
  const auto band = development_->Rows(to.Top(), to.Bottom());
  if (quality.Any()) session_.NoiseOfDevelopment(light_)->Fill(mosaic_, quality);
  // Gains are for light alone: the pedestal comes back after them.
  if (session_.options_.KeptPedestal() > 0)
    Calculate(*band, Calculation::Add, session_.options_.KeptPedestal());
  CopyPixels(Image::RowsOf(*band, 0, to.Rows(), true), to);
}

void LightRows::ReadSites(const Band<float>& to) {
  ReadCalibrated(to);
  const int cfa = light_.mosaic.cfa;
  const auto& gains = session_.BalanceOf(light_).gains;
  const auto pedestal = static_cast<float>(session_.options_.KeptPedestal());
  // Those of a honeycomb are of red, green, green and blue.
  const auto gainOf = [&](int x, int y) {
    if (!files::IsHoneycomb(cfa)) return gains[(y & 1) * 2 + (x & 1)];
    return gains[files::ColourOfSite(cfa, x, y) == 2 ? 3 : std::max(files::ColourOfSite(cfa, x, y), 0)];
  };
  for (int y = to.Top(); y < to.Bottom(); ++y) {
    std::array<float, 4> own;
    for (int x = 0; x < 4; ++x) {
      own[x] = static_cast<float>(gainOf(x, y));
    }
    const Row<float> row = to.Row(0, y);
    for (int x = 0; x < to.Width(); ++x) {
      row[x] = row[x] * own[x & 3] + pedestal;
    }
  }
}

/// What is to be developed has no pedestal.
void LightRows::ReadCalibrated(const Band<float>& to) {
  mosaic_ = mosaicRows_.Get(wanted_, to.Planes(), to.Width(), to.Top(), to.Rows());
  rows_.Read(to, mosaic_);
  const auto pedestal = static_cast<float>(session_.options_.KeptPedestal());
  if (light_.mosaic.cfa == 0 || !(pedestal > 0)) return;
  for (int y = to.Top(); y < to.Bottom(); ++y) {
    for (float& v : to.Row(0, y)) {
      v -= pedestal;
    }
  }
}

std::shared_ptr<CVelImage> LoadWhole(LightRows& rows, const std::shared_ptr<CVmManager>& store) {
  const Shape shape = rows.Size();
  // The image does not keep its store alive.
  auto image = std::shared_ptr<CVelImage>(
      new CVelImage(store, CImage::Float, shape.width, shape.height, shape.planes, 1.0, 0.0, 1, nullptr),
      [store](CVelImage* p) { delete p; });
  rows.Read(Image::RowsOf(*image, 0, shape.height));
  return image;
}

}  // namespace korimg::session
