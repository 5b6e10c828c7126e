#include "app/calibrate/Calibrate.h"

#include <chrono>

#include <fmt/format.h>

#include "app/calibrate/Session.h"
#include "app/files/Geometry.h"
#include "app/tool/SideBySide.h"
#include "app/verbs/AutoPicture.h"

namespace korimg::tool {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kPreviewSide = 1200;  // pixels

/// What there is to tell of a calibrated light.
struct Result {
  double clipped = 0, mean = 0;
  double seconds = 0;
  std::string noData;  ///< for people
};

/// Writes a session's lights.
class LightWriter {
 public:
  LightWriter(Tool& tool, const Session& session) : tool_(tool), session_(session) {}

  /// What nothing was taken off is not written again.
  std::optional<fs::path> Output(const Light& light) const {
    if (!light.Changes()) return std::nullopt;
    return session_.Options().out / (light.stem + ".fits");
  }
  /// Apart from the frames, which are often read as a folder.
  std::optional<fs::path> Preview(const Light& light) const {
    if (!session_.Options().previews) return std::nullopt;
    return session_.Options().out / "previews" / (light.stem + ".png");
  }
  std::vector<fs::path> Outputs() const {
    std::vector<fs::path> outputs;
    for (const Light& light : session_.Lights()) {
      if (const auto output = Output(light)) outputs.push_back(*output);
      if (const auto preview = Preview(light)) outputs.push_back(*preview);
    }
    return outputs;
  }
  Json Description(const Light& light) const {
    Json json = light.Description();
    for (const auto& [key, path] : {std::pair("output", Output(light)), {"preview", Preview(light)}}) {
      json[key] = path ? Json(path->string()) : Json();
    }
    return json;
  }

  /// Each light by itself, from its file to its results.
  void WriteAll() {
    const fs::path& out = session_.Options().out;
    fs::create_directories(session_.Options().previews ? out / "previews" : out);
    const auto& lights = session_.Lights();
    SideBySide(
        tool_, "calibrating frame", lights.size(), BytesOf(lights.front().frame.info),
        [&](size_t i) { return Write(lights[i]); },
        [&](size_t i, const auto& result) {
          tool_.ForEachFile({lights[i].frame.path}, [&](const fs::path&) { Tell(lights[i], result()); });
        });
  }

 private:
  Result Write(const Light& light) {
    const auto start = Clock::now();
    Session::Calibrated calibrated = session_.LoadLight(light);
    Result result{calibrated.clipped};
    CVelImage& image = *calibrated.loaded.image;
    files::ImageInfo& info = calibrated.loaded.info;
    result.mean = Measures(image).mean;
    result.noData = info.noData;
    session_.Describe(info.header, light, result.clipped);
    if (light.mosaic.cfa > 0) {
      // Gains are for light alone: the pedestal comes back after them.
      const double pedestal = session_.Options().KeptPedestal();
      if (pedestal > 0) Calculate(image, Calculation::Subtract, pedestal);
      Development development = session_.Develop(MosaicSource(image), light, info);
      Levels levels = development.PictureLevels(kPreviewSide);
      for (int p = 0; p < 3; ++p) {
        levels.min[p] += pedestal;
        levels.max[p] += pedestal;
      }
      SaveDeveloped(tool_, development, info.header, levels, levels, *Output(light), {}, Preview(light),
                    kPreviewSide, [&](CVelImage& band) {
                      if (pedestal > 0) Calculate(band, Calculation::Add, pedestal);
                    });
    } else {
      LevelForPreview(image, kPreviewSide);
      if (const auto output = Output(light)) SaveImage(tool_, image, info.header, *output);
      if (const auto preview = Preview(light)) {
        SavePicture(tool_, image, *preview, ShrinkTo({image.GetWidth(), image.GetHeight()}, kPreviewSide),
                    files::IsPictureOverturned(info.header));
      }
    }
    result.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return result;
  }

  void Tell(const Light& light, const Result& result) const {
    if (!result.noData.empty()) tool_.console.Say(fmt::format("{}: {}", light.Name(), result.noData));
    if (tool_.options.json) {
      Json json = Description(light);
      json["clipped"] = result.clipped;
      json["mean"] = result.mean;
      json["seconds"] = result.seconds;
      fmt::print("{}\n", Dump(json));
      std::fflush(stdout);
    } else {
      tool_.console.Say(fmt::format("{} -> {}: mean {:.6g}{}", light.Name(),
                                    Output(light) ? Output(light)->string() : "as it is", result.mean,
                                    light.Offset() ? ", clipped " + Percent(result.clipped) : ""));
    }
  }

  Tool& tool_;
  const Session& session_;
};

}  // namespace

void Calibrate(Tool& tool, const CalibrateOptions& options) {
  Session session(tool, options);
  session.Show();
  LightWriter writer(tool, session);
  if (tool.options.json && tool.options.dryRun) {
    for (const Light& light : session.Lights()) {
      fmt::print("{}\n", Dump(writer.Description(light)));
    }
  }
  if (tool.options.dryRun || session.Lights().empty()) return;
  session.CheckOutputs(writer.Outputs());
  session.Prepare();
  writer.WriteAll();
}

}  // namespace korimg::tool
