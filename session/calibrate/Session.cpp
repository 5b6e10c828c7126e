#include "session/calibrate/internal/Session.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <set>

#include <fmt/format.h>

#include "korimg/image/internal/Vectors.h"
#include "korimg/pipelines/runtime/Runtime.h"

#include "session/files/Formats.h"
#include "session/files/Gain.h"
#include "session/files/Geometry.h"
#include "session/files/internal/Times.h"

namespace korimg::session {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

namespace {

long long Pixels(const CVelImage& image) {
  return 1LL * image.GetWidth() * image.GetHeight() * image.GetPlanes();
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

std::string Light::Camera() const {
  return mosaic.name + ' ' + frame.info.header.GetString("INSTRUME").value_or("");
}

void Light::CheckUnchanged(const files::ImageInfo& found) const {
  const files::ImageInfo& planned = frame.info;
  if (found.width != planned.width || found.height != planned.height || found.planes != planned.planes) {
    throw files::FileError(frame.path, "has changed since the work began");
  }
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
                       light.mosaic.cfa == only.mosaic.cfa && light.Camera() == only.Camera() &&
                       now.width == was.width && now.height == was.height && now.planes == was.planes &&
                       !files::LiesOverturned(now.header, was.header);
  if (!isAlike) return false;
  light.stem = StemOf(path);
  only = std::move(light);
  levels_.clear();
  return true;
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

Session::Calibrated Session::LoadLight(const Light& light) const {
  const Master* offset = MasterOf(light.Offset());
  Calibrated result{Image::Open(job_, store_, light.frame.path, {.lessBlack = !offset, .lessBorder = true}),
                    0};
  light.CheckUnchanged(result.loaded.Info());
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
  return balances_.at(light.Camera());
}

void Session::ChooseWhiteBalances() {
  for (const Light& light : lights_) {
    if (light.mosaic.cfa == 0 || balances_.contains(light.Camera())) continue;
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
    balances_.emplace(light.Camera(), balance);
  }
}

void Session::MeasureDevelopments() {
  for (const Light& light : lights_) {
    if (!options_.quality.Any() || light.mosaic.cfa == 0 || developedNoise_.contains(light.Camera()))
      continue;
    developedNoise_.emplace(
        light.Camera(), DevelopedNoise(job_, light.mosaic, balances_.at(light.Camera()), options_.develop));
  }
}

const DevelopedNoise* Session::NoiseOfDevelopment(const Light& light) const {
  const auto found = developedNoise_.find(light.Camera());
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

}  // namespace korimg::session
