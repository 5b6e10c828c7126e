#include "app/calibrate/Calibrate.h"

#include <algorithm>
#include <chrono>
#include <deque>
#include <fstream>
#include <future>
#include <map>
#include <set>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "korimg/image/Lines.h"
#include "korimg/pipelines/runtime/Runtime.h"
#include "korimg/platform/CParallel.h"

#include "app/calibrate/Masters.h"
#include "app/calibrate/Report.h"
#include "app/files/Formats.h"
#include "app/tool/Images.h"
#include "app/verbs/AutoPicture.h"

namespace korimg::tool {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kPreviewSide = 1200;       // pixels
constexpr double kManySaturated = 0.01;  // share of a flat's pixels that is worth a warning

const char* NameOf(FrameKind kind) {
  return kind == FrameKind::Bias ? "bias" : kind == FrameKind::Dark ? "dark" : "flat";
}

std::string Percent(double share) {
  return fmt::format("{:.3g} %", 100 * share);
}

std::string Dump(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

/// A light, what serves it, and what becomes of it.
struct Light {
  Frame frame;
  const Group *dark = nullptr, *flat = nullptr, *bias = nullptr;  ///< the bias only where there is no dark
  files::Mosaic mosaic;                                           ///< to be developed
  fs::path output, preview;

  const Group* Offset() const { return dark ? dark : bias; }
  std::string Served() const {
    std::string text;
    for (const Group* group : {dark, bias, flat}) {
      if (group) text += (text.empty() ? "" : ", ") + group->name;
    }
    if (mosaic.cfa > 0) text += fmt::format("{}mosaic {}", text.empty() ? "" : ", ", mosaic.name);
    return text;
  }
  Json Description() const {
    Json json{{"file", frame.path.string()},
              {"output", output.empty() ? Json() : Json(output.string())},
              {"preview", preview.string()}};
    for (const auto& [key, group] : {std::pair("dark", dark), {"flat", flat}, {"bias", bias}}) {
      json[key] = group ? Json(group->name) : Json();
    }
    if (mosaic.cfa > 0) json["mosaic"] = mosaic.name;
    return json;
  }
};

/// What there is to tell of a calibrated light.
struct Result {
  const Light* light = nullptr;
  double clipped = 0, mean = 0;
  double seconds = 0;
};

class Session {
 public:
  Session(Tool& tool, const CalibrateOptions& options) : tool_(tool), options_(options) {
    darks_ = MakeGroups(FrameKind::Dark, ExpandFolders(options.darks));
    flats_ = MakeGroups(FrameKind::Flat, ExpandFolders(options.flats));
    biases_ = MakeGroups(FrameKind::Bias, ExpandFolders(options.biases));
    FindOffsetsOfFlats();
    const std::vector<fs::path> paths = ExpandFolders(options.lights);
    CheckStems(paths);
    tool.ForEachFile(paths, [&](const fs::path& path) {
      report_.rows.push_back({path.filename().string()});  // failed, unless it is planned
      lights_.push_back(PlanLight(path));
      report_.rows.pop_back();
    });
  }

  void Show() {
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
      const std::string served = light.Served().empty() ? "picture only" : light.Served();
      tool_.console.Say(next - i == 1
                            ? fmt::format("{}: {}", name, served)
                            : fmt::format("{} lights ({} to {}): {}", next - i, name,
                                          lights_[next - 1].frame.path.filename().string(), served));
    }
    if (tool_.options.json && tool_.options.dryRun) {
      for (const Light& light : lights_) {
        fmt::print("{}\n", Dump(light.Description()));
      }
    }
  }

  /// Refuses outputs that exist, and those that are inputs whatever the options say.
  void CheckOutputs() const {
    std::vector<fs::path> outputs;
    for (const Light& light : lights_) {
      if (!light.output.empty()) outputs.push_back(light.output);
      outputs.push_back(light.preview);
    }
    if (!options_.masters.empty()) {
      for (const Group* group : NeededGroups()) {
        outputs.push_back(MasterPath(*group));
      }
      outputs.push_back(ManifestPath());
    }
    if (!options_.report.empty()) outputs.push_back(options_.report);
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
      tool_.CheckOutput(output);
    }
  }

  void MakeMasters() {
    for (const Group* group : NeededGroups()) {
      const auto offset = offsetsOfFlats_.find(group);
      const Master* off = offset == offsetsOfFlats_.end() ? nullptr : &masters_.at(offset->second);
      const Master& master = masters_.emplace(group, MakeMaster(tool_, store_, *group, off)).first->second;
      const Measures& m = master.measures;
      report_.masters.push_back(fmt::format("{}: {}; mean {:.6g}, min {:.6g}, max {:.6g}, saturated {}",
                                            group->name, group->Text(), m.mean, m.min, m.max,
                                            Percent(master.saturated)));
      tool_.console.Say(report_.masters.back());
      if (group->kind == FrameKind::Flat) WarnOfFlat(master);
    }
  }

  void SaveMasters() {
    if (options_.masters.empty()) return;
    fs::create_directories(options_.masters);
    Json manifest{{"program", fmt::format("korimg {}", Version())}, {"masters", Json::array()}};
    for (const Group* group : NeededGroups()) {
      Master& master = masters_.at(group);
      SaveMaster(tool_, master, MasterPath(*group));
      Json entry{{"file", MasterPath(*group).filename().string()},
                 {"kind", NameOf(group->kind)},
                 {"offset", master.offset ? Json(master.offset->group->name) : Json()},
                 {"mean", master.measures.mean},
                 {"min", master.measures.min},
                 {"max", master.measures.max},
                 {"saturated", master.saturated},
                 {"inputs", Json::array()}};
      for (const Frame& frame : group->frames) {
        entry["inputs"].push_back({{"file", fs::absolute(frame.path).string()},
                                   {"bytes", fs::file_size(frame.path)},
                                   {"date", frame.info.header.GetString("DATE-OBS").value_or("")}});
      }
      manifest["masters"].push_back(std::move(entry));
    }
    files::TransientFile part(files::PartialName(ManifestPath()));
    std::ofstream file(part.Path());
    file << manifest.dump(1, ' ', false, Json::error_handler_t::replace) << '\n';
    file.close();
    if (!file) throw files::FileError(ManifestPath(), "cannot be written; is the disk full?");
    part.RenameTo(ManifestPath());
  }

  /// Calibrates all lights, a few at once: each by itself on one thread, from its file to its results.
  void CalibrateLights() {
    fs::create_directories(options_.out);
    ChooseWhiteBalances();
    constexpr int kMostAtOnce = 4;  // each holds an image
    const int threads = CParallel::GetMaxThreads(), atOnce = std::min(threads, kMostAtOnce);
    const auto policy = atOnce > 1 ? std::launch::async : std::launch::deferred;
    std::deque<std::future<Result>> running;
    size_t next = 0, done = 0;
    while (done < lights_.size()) {
      for (; next < lights_.size() && next < done + atOnce; ++next) {
        running.push_back(std::async(policy, [this, &light = lights_[next], threads, atOnce] {
          CParallel::SetMaxThreads(threads / atOnce);
          return CalibrateLight(light);
        }));
      }
      tool_.console.JobProgress("calibrating frame", static_cast<long long>(done) + 1,
                                static_cast<long long>(lights_.size()));
      const Light& light = lights_[done++];
      ReportRow row{light.frame.path.filename().string(), light.Served()};
      tool_.ForEachFile({light.frame.path}, [&](const fs::path&) {
        const Result result = running.front().get();
        row.preview = light.preview;
        row.mean = result.mean;
        row.clipped = result.clipped;
        Tell(result);
      });
      report_.rows.push_back(std::move(row));
      running.pop_front();
    }
    tool_.console.JobProgress("", 0, 0);
    if (options_.report.empty()) return;
    report_.command = tool_.commandLine;
    WriteReport(report_, options_.report);
    tool_.console.Say("report: " + options_.report.string());
  }

  bool HasLights() const { return !lights_.empty(); }

  /// Nothing says how much of the lights is no light.
  bool LacksOffsets() const {
    return !options_.flats.empty() && std::any_of(lights_.begin(), lights_.end(), [](const Light& light) {
      return !light.Offset() && !light.frame.info.camera;
    });
  }

 private:
  fs::path MasterPath(const Group& group) const { return options_.masters / (group.name + ".fits"); }
  fs::path ManifestPath() const { return options_.masters / "manifest.json"; }

  /// The group that serves a frame; none when no frames of that kind were given. Throws when they do not fit.
  const Group* Choose(const std::vector<Group>& groups, const Frame& frame) const {
    const Match match = FindMatch(groups, frame);
    if (!match.group) return nullptr;
    const Frame& first = match.group->frames.front();
    const std::string kind = NameOf(match.group->kind);
    if (!match.sameSize) {
      throw files::FileError(
          frame.path,
          fmt::format("is {} x {} x {}, but the {} frames are {} x {} x {} ({})", frame.info.width,
                      frame.info.height, frame.info.planes, kind, first.info.width, first.info.height,
                      first.info.planes, first.path.filename().string()));
    }
    std::string differences;
    for (const Mismatch& m : match.mismatches) {
      differences += fmt::format("{}{} is {}, but {} in the {} frames", differences.empty() ? "" : "; ",
                                 m.key, m.wanted, m.found, kind);
    }
    if (!differences.empty()) {
      differences += fmt::format(" ({})", first.path.filename().string());
      if (!options_.allowMismatch) {
        throw files::FileError(frame.path, differences + "; give frames that match, or use --allow-mismatch");
      }
      tool_.console.Warn(fmt::format("{}: {}", frame.path.string(), differences));
    }
    if (tool_.options.verbose && !match.unknown.empty()) {
      tool_.console.Say(fmt::format("{}: taken as matching {} without {}", frame.path.filename().string(),
                                    match.group->name, fmt::format("{}", fmt::join(match.unknown, ", "))));
    }
    return match.group;
  }

  /// A flat's own dark is one of its exposure; else the bias comes off. A single flat is a master.
  void FindOffsetsOfFlats() {
    for (const Group& flat : flats_) {
      if (flat.frames.size() == 1) continue;
      const Frame& first = flat.frames.front();
      const Match own = FindMatch(darks_, first);
      const bool hasOwnDark = own && ExposureOf(first) && ExposureOf(own.group->frames.front());
      const Group* offset = hasOwnDark ? own.group : Choose(biases_, first);
      if (offset) offsetsOfFlats_[&flat] = offset;
    }
  }

  Light PlanLight(const fs::path& path) const {
    Light light{ReadFrame(path)};
    light.dark = Choose(darks_, light.frame);
    if (darks_.empty()) light.bias = Choose(biases_, light.frame);
    light.flat = Choose(flats_, light.frame);
    // What nothing was taken off is not written again: a picture of it is all that is new.
    if (!options_.keepMosaic) light.mosaic = files::FindMosaic(light.frame.info, options_.develop.mosaic);
    if (!light.mosaic.name.empty() && light.mosaic.cfa == 0) {
      throw files::FileError(path,
                             fmt::format("a mosaic of the pattern {} cannot be developed; use --keep-mosaic",
                                         light.mosaic.name));
    }
    if (light.Offset() || light.flat || light.mosaic.cfa > 0) {
      light.output = options_.out / (StemOf(path) + ".fits");
    }
    light.preview = options_.out / (StemOf(path) + ".png");
    return light;
  }

  /// Groups that serve a light or such a flat, those of offsets first.
  std::vector<const Group*> NeededGroups() const {
    std::set<const Group*> needed;
    for (const Light& light : lights_) {
      needed.insert({light.dark, light.flat, light.bias});
      if (const auto offset = offsetsOfFlats_.find(light.flat); offset != offsetsOfFlats_.end()) {
        needed.insert(offset->second);
      }
    }
    std::vector<const Group*> ordered;
    for (const auto* groups : {&biases_, &darks_, &flats_}) {
      for (const Group& group : *groups) {
        if (needed.contains(&group)) ordered.push_back(&group);
      }
    }
    return ordered;
  }

  void ShowGroup(const Group& group) const {
    const files::ImageInfo& info = group.frames.front().info;
    std::string line = fmt::format("{}: {}, {} x {}{}", group.name, group.Text(), info.width, info.height,
                                   group.Properties());
    if (const auto offset = offsetsOfFlats_.find(&group); offset != offsetsOfFlats_.end()) {
      line += fmt::format("; less {}", offset->second->name);
    }
    const auto needed = NeededGroups();
    if (std::find(needed.begin(), needed.end(), &group) == needed.end()) line += "; serves no light";
    tool_.console.Say(line);
  }

  void WarnOfFlat(const Master& flat) const {
    const Frame& first = flat.group->frames.front();
    const bool single = flat.group->frames.size() == 1;
    const bool raw = !first.info.camera && first.info.type.find("int") != std::string::npos &&
                     !first.info.header.GetString("NCOMBINE") && !first.info.header.GetString("STACKCNT");
    if (!single && !flat.offset && !first.info.camera) {
      tool_.console.Warn(
          fmt::format("{}: FLATS WITHOUT BIAS OR DARK of their own: their offset stays in "
                      "them, and the edges will be corrected too little; give --bias",
                      flat.group->name));
    } else if (single && raw) {
      tool_.console.Warn(
          fmt::format("{}: one flat is taken as a master as it is; if it is a raw frame with "
                      "its bias, give two or more and --bias",
                      first.path.string()));
    }
    if (flat.saturated > kManySaturated) {
      tool_.console.Warn(
          fmt::format("{}: {} of its pixels are saturated", flat.group->name, Percent(flat.saturated)));
    }
    for (int p = 0; p < flat.image->GetPlanes(); ++p) {
      if (!(flat.measures.minima[p] < flat.measures.maxima[p])) {
        tool_.console.Warn(
            fmt::format("{}: all its pixels are equal; lights are not divided by it", flat.group->name));
        break;
      }
    }
  }

  const Master* MasterOf(const Group* group) const { return group ? &masters_.at(group) : nullptr; }

  struct Calibrated {
    LoadedImage loaded;
    double clipped;
  };

  /// A light from its file, less its offset and divided by its flat.
  Calibrated LoadLight(const Light& light) const {
    const Master *offset = MasterOf(light.Offset()), *flat = MasterOf(light.flat);
    Calibrated result{LoadImage(tool_, store_, light.frame.path, {.lessBlack = !offset}), 0};
    const files::ImageInfo &planned = light.frame.info, &found = result.loaded.info;
    if (found.width != planned.width || found.height != planned.height || found.planes != planned.planes) {
      throw files::FileError(light.frame.path, "has changed since the work began");
    }
    result.clipped = Apply(*result.loaded.image, offset, flat);
    return result;
  }

  /// Lights of one camera share their white balance, so that their colours can be added up.
  static std::string CameraOf(const Light& light) {
    return light.mosaic.name + ' ' + light.frame.info.header.GetString("INSTRUME").value_or("");
  }

  /// Chooses the white balance of each camera by its first light.
  void ChooseWhiteBalances() {
    for (const Light& light : lights_) {
      if (light.mosaic.cfa == 0 || balances_.contains(CameraOf(light))) continue;
      const Calibrated first = LoadLight(light);
      CVelImage& image = *first.loaded.image;
      // The pedestal is no light.
      if (options_.pedestal > 0) Calculate(image, Calculation::Subtract, options_.pedestal);
      const WhiteBalance balance =
          ChooseWhiteBalance(&image, first.loaded.info, light.mosaic, options_.develop.whiteBalance);
      tool_.console.Say(
          fmt::format("mosaic {} ({}): white balance {} ({:.4g}){}", light.mosaic.name, light.mosaic.reason,
                      balance.text, fmt::join(balance.gains, ", "),
                      balance.text == "by medians" ? " of " + light.frame.path.filename().string() : ""));
      balances_.emplace(CameraOf(light), balance);
    }
  }

  Result CalibrateLight(const Light& light) {
    const auto start = Clock::now();
    Calibrated calibrated = LoadLight(light);
    Result result{&light, calibrated.clipped};
    CVelImage& image = *calibrated.loaded.image;
    files::ImageInfo& info = calibrated.loaded.info;
    result.mean = Measures(image).mean;
    Describe(info.header, result, MasterOf(light.Offset()), MasterOf(light.flat));
    if (light.mosaic.cfa > 0) {
      // Gains are for light alone: the pedestal comes back after them.
      const double pedestal = options_.pedestal;
      if (pedestal > 0) Calculate(image, Calculation::Subtract, pedestal);
      Development development(MosaicSource(image), info, light.mosaic, balances_.at(CameraOf(light)),
                              options_.develop);
      Levels levels = development.PictureLevels(kPreviewSide);
      for (int p = 0; p < 3; ++p) {
        levels.min[p] += pedestal;
        levels.max[p] += pedestal;
      }
      SaveDeveloped(tool_, development, info.header, levels, levels, light.output, false, light.preview,
                    kPreviewSide, [&](CVelImage& band) {
                      if (pedestal > 0) Calculate(band, Calculation::Add, pedestal);
                    });
    } else {
      LevelForPreview(image, kPreviewSide);
      if (!light.output.empty()) SaveImage(tool_, image, info.header, light.output);
      SavePicture(tool_, image, light.preview, ShrinkTo({image.GetWidth(), image.GetHeight()}, kPreviewSide));
    }
    result.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return result;
  }

  /// Takes the offset off and divides by the flat, either of which may be null. Answers the share of pixels
  /// that were clipped at 0.
  double Apply(CVelImage& image, const Master* offset, const Master* flat) const {
    CVelImage *dark = offset ? offset->image.get() : nullptr, *divisor = flat ? flat->image.get() : nullptr;
    Measures m = flat ? flat->measures : Measures();
    const auto pedestal = static_cast<float>(options_.pedestal);
    const bool lifts = dark && pedestal > 0;
    if (lifts) Calculate(image, Calculation::Add, pedestal);
    const double clipped = dark ? ClippedShare(image, *dark) : 0;
    if (lifts) {
      // Only what lies above the pedestal is light, to be divided by the flat.
      image.DarkFlat(&image, dark, nullptr, nullptr, nullptr, nullptr, 0, 0, nullptr, 0);
      Calculate(image, Calculation::Subtract, pedestal);
      dark = nullptr;
    }
    image.DarkFlat(&image, dark, divisor, m.minima, m.maxima, m.averages, 0, 0, nullptr, 0);
    if (pedestal > 0) Calculate(image, Calculation::Add, pedestal);
    return clipped;
  }

  /// Share of the pixels that lie below their offset, and will be 0.
  static double ClippedShare(CVelImage& image, CVelImage& offset) {
    long long count = 0;
    for (int p = 0; p < image.GetPlanes(); ++p) {
      for (const int n : MapLines(0, image.GetHeight(), [&](int y) {
             const float *row = image.GetLine(0, y, p),
                         *off = offset.GetLine(0, y, std::min(p, offset.GetPlanes() - 1));
             int below = 0;
             for (int x = 0; x < image.GetWidth(); ++x) {
               below += row[x] < off[x];
             }
             return below;
           })) {
        count += n;
      }
    }
    return static_cast<double>(count) / image.GetPlanes() / image.GetWidth() / image.GetHeight();
  }

  /// Puts what was done into the header.
  void Describe(files::Header& header, const Result& result, const Master* offset, const Master* flat) const {
    header.AddHistory(fmt::format("korimg {} calibrate", Version()));
    if (offset) header.AddHistory(fmt::format("{}: {}", NameOf(offset->group->kind), offset->Text()));
    if (flat) header.AddHistory("flat: " + flat->Text());
    const double source = offset ? 0 : header.GetDouble("PEDESTAL").value_or(0);
    if (offset) {
      // What the camera's own pedestal was came off with the frames that have it too.
      header.Remove("PEDESTAL");
      header.AddHistory(fmt::format("{} of the pixels lay below their {} and were clipped",
                                    Percent(result.clipped), NameOf(offset->group->kind)));
    }
    if (options_.pedestal > 0) {
      header.Set("PEDESTAL", source - options_.pedestal, "add this to get zero-based values");
      header.AddHistory(
          fmt::format("pedestal: {:g} was added to all pixels, and is still in them", options_.pedestal));
    }
  }

  void Tell(const Result& result) {
    const Light& light = *result.light;
    if (tool_.options.json) {
      Json json = light.Description();
      json["clipped"] = result.clipped;
      json["mean"] = result.mean;
      json["seconds"] = result.seconds;
      fmt::print("{}\n", Dump(json));
      std::fflush(stdout);
    } else {
      tool_.console.Say(fmt::format("{} -> {}: mean {:.6g}{}", light.frame.path.filename().string(),
                                    (light.output.empty() ? light.preview : light.output).string(),
                                    result.mean,
                                    light.Offset() ? ", clipped " + Percent(result.clipped) : ""));
    }
  }

  Tool& tool_;
  const CalibrateOptions& options_;
  std::vector<Group> darks_, flats_, biases_;
  std::map<const Group*, const Group*> offsetsOfFlats_;
  std::vector<Light> lights_;
  std::shared_ptr<CVmManager> store_ = tool_.MakeStore();
  std::map<const Group*, Master> masters_;
  std::map<std::string, WhiteBalance> balances_;
  Report report_;
};

}  // namespace

void Calibrate(Tool& tool, const CalibrateOptions& options) {
  Session session(tool, options);
  session.Show();
  if (tool.options.dryRun || !session.HasLights()) return;
  session.CheckOutputs();
  if (session.LacksOffsets()) {
    tool.console.Warn(
        "LIGHTS WITHOUT DARK OR BIAS: their offset is divided by the flat as if it were light, "
        "and the edges will be corrected too much; give --dark or --bias");
  }
  session.MakeMasters();
  session.SaveMasters();
  session.CalibrateLights();
}

}  // namespace korimg::tool
