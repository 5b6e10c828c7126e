#include "session/calibrate/Calibrate.h"

#include <algorithm>
#include <chrono>

#include <fmt/format.h>

#include "session/calibrate/internal/Session.h"
#include "session/files/Geometry.h"
#include "session/job/internal/Edge.h"
#include "session/job/internal/SideBySide.h"
#include "session/picture/AutoPicture.h"

namespace korimg::session {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kPreviewSide = 1200;  // pixels; chosen for a screen

/// Writes a session's lights.
class LightWriter {
 public:
  LightWriter(Job& job, const Session& session) : job_(job), session_(session) {}

  /// What nothing was taken off is not written again.
  std::optional<fs::path> Output(const Light& light) const {
    const CalibrateOptions& options = session_.Options();
    if (!light.Changes() && options.cosmetic == Cosmetic::None && !options.quality.Any()) return std::nullopt;
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
  /// What is known of a light before the work.
  CalibratedLight Planned(const Light& light) const {
    const auto nameOf = [](const Group* group) { return group ? group->name : ""; };
    return {light.frame.path,
            Output(light),
            Preview(light),
            nameOf(light.dark),
            nameOf(light.flat),
            nameOf(light.bias),
            light.mosaic.cfa > 0 ? light.mosaic.name : ""};
  }
  static Json Description(const CalibratedLight& light) {
    Json json{{"file", light.file.string()}};
    for (const auto& [key, name] :
         {std::pair("dark", light.dark), {"flat", light.flat}, {"bias", light.bias}}) {
      json[key] = name.empty() ? Json() : Json(name);
    }
    if (!light.mosaic.empty()) json["mosaic"] = light.mosaic;
    for (const auto& [key, path] : {std::pair("output", light.output), {"preview", light.preview}}) {
      json[key] = path ? Json(path->string()) : Json();
    }
    return json;
  }

  /// Each light by itself, from its file to its results.
  std::vector<CalibratedLight> WriteAll() {
    const fs::path& out = session_.Options().out;
    fs::create_directories(session_.Options().previews ? out / "previews" : out);
    const auto& lights = session_.Lights();
    const QualityOptions& quality = session_.Options().quality;
    std::vector<CalibratedLight> results;
    for (const Light& light : lights) {
      results.push_back(Planned(light));
    }
    SideBySide(
        job_, "calibrating frame", lights.size(),
        BytesOf(lights.front().frame.info) * (1 + quality.uncertainty + quality.mask),
        [&](size_t i) { return Write(lights[i]); },
        [&](size_t i, const auto& result) {
          job_.ForEachFile(
              {lights[i].frame.path},
              [&](const fs::path&) {
                results[i] = result();
                Tell(results[i]);
              },
              true);
        });
    return results;
  }

 private:
  CalibratedLight Write(const Light& light) {
    const auto start = Clock::now();
    Session::Calibrated calibrated = session_.LoadLight(light);
    CalibratedLight result = Planned(light);
    result.isDone = true;
    result.clipped = calibrated.clipped;
    CVelImage& image = calibrated.loaded.Pixels();
    files::ImageInfo& info = calibrated.loaded.Info();
    result.mean = Measures(image).mean;
    result.noData = info.noData;
    if (const DefectMap* defects = session_.DefectsOf(light)) {
      result.defects = {defects->Hot(), defects->Cold()};
    }
    session_.Describe(info.header, light, result.clipped);
    if (light.mosaic.cfa > 0) {
      // Gains are for light alone: the pedestal comes back after them.
      const double pedestal = session_.Options().KeptPedestal();
      if (pedestal > 0) Calculate(image, Calculation::Subtract, pedestal);
      Development development = session_.Develop(MosaicSource(image), light, info);
      const auto levelsBy = [&](LevelMethod method) {
        Levels levels = development.PictureLevels(kPreviewSide, method);
        for (int p = 0; p < 3; ++p) {
          levels.min[p] += pedestal;
          levels.max[p] += pedestal;
        }
        return levels;
      };
      const QualityOptions& wanted = session_.Options().quality;
      const QualityRows mosaic = calibrated.loaded.QualityOfPixels().Rows(0, image.GetHeight());
      const DevelopedNoise* noise = session_.NoiseOfDevelopment(light);
      SaveDeveloped(
          job_, development, info.header, levelsBy(LevelMethod::Histogram),
          Preview(light) ? levelsBy(LevelMethod::Auto) : Levels(), *Output(light),
          {.uncertainty = wanted.uncertainty,
           .mask = wanted.mask,
           .correlation = noise ? noise->CorrelationOfNoise() : kUncorrelated},
          Preview(light), kPreviewSide,
          [&](CVelImage& band) {
            if (pedestal > 0) Calculate(band, Calculation::Add, pedestal);
          },
          [&](const QualityRows& rows) { noise->Fill(mosaic, rows); });
    } else {
      LevelForPreview(image, kPreviewSide);
      if (const auto output = Output(light)) {
        SaveImage(job_, image, info.header, *output, {}, calibrated.loaded.QualityOfPixels());
      }
      if (const auto preview = Preview(light)) {
        SavePicture(job_, image, StretchForPicture(image), *preview,
                    ShrinkTo({image.GetWidth(), image.GetHeight()}, kPreviewSide),
                    files::IsPictureOverturned(info.header));
      }
    }
    result.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return result;
  }

  void Tell(const CalibratedLight& light) const {
    const std::string name = light.file.filename().string();
    if (!light.noData.empty()) job_.Say(fmt::format("{}: {}", name, light.noData));
    Json json = Description(light);
    json["clipped"] = light.clipped;
    json["mean"] = light.mean;
    json["seconds"] = light.seconds;
    if (const auto& defects = light.defects) {
      json["hot_pixels"] = defects->hot;
      json["cold_pixels"] = defects->cold;
    }
    const bool hasOffset = !light.dark.empty() || !light.bias.empty();
    job_.Tell(Dump(json),
              fmt::format("{} -> {}: mean {:.6g}{}", name, light.output ? light.output->string() : "as it is",
                          light.mean, hasOffset ? ", clipped " + Percent(light.clipped) : ""));
  }

  Job& job_;
  const Session& session_;
};

}  // namespace

std::vector<CalibratedLight> PlanCalibration(Job& job, const CalibrateOptions& options) {
  return AtEdge([&] {
    const Session session(job, options);
    session.Show();
    const LightWriter writer(job, session);
    std::vector<CalibratedLight> lights;
    for (const Light& light : session.Lights()) {
      lights.push_back(writer.Planned(light));
      job.Tell(Dump(LightWriter::Description(lights.back())), "");
    }
    return lights;
  });
}

std::vector<CalibratedLight> Calibrate(Job& job, const CalibrateOptions& options) {
  return AtEdge([&] {
    Session session(job, options);
    session.Show();
    LightWriter writer(job, session);
    std::vector<CalibratedLight> results;
    if (!session.Lights().empty()) {
      session.CheckOutputs(writer.Outputs());
      session.Prepare();
      results = writer.WriteAll();
    }
    const auto done = static_cast<size_t>(std::count_if(
        results.begin(), results.end(), [](const CalibratedLight& light) { return light.isDone; }));
    const auto failed = static_cast<size_t>(std::ranges::count(
        session.Failed(), false, [](const Session::FailedLight& light) { return light.isUnfinished; }));
    const size_t all = session.Lights().size() + failed;
    if (2 * done < all || done == 0)
      job.Fail(fmt::format("{} of {} lights are calibrated, less than half", done, all));
    return results;
  });
}

}  // namespace korimg::session
