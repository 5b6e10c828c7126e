// Hot and cold pixels of a session's lights.
#include <algorithm>

#include <fmt/format.h>

#include "korimg/pipelines/runtime/Runtime.h"

#include "session/calibrate/internal/LightRows.h"
#include "session/files/Formats.h"
#include "session/files/internal/Times.h"

namespace korimg::session {

namespace fs = std::filesystem;

namespace {

/// The mosaic that a light is, developed or not.
int ArrayOf(const Light& light, const CalibrateOptions& options) {
  return options.keepMosaic ? MosaicOf(light.frame.info, options.develop.mosaic).cfa : light.mosaic.cfa;
}

}  // namespace

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
                               : fmt::format("{} {} {} {:.1e} {}", light.Camera(), info.width, info.height,
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

}  // namespace korimg::session
