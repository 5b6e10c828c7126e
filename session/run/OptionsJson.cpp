#include "session/run/internal/OptionsJson.h"

#include "session/operations/Kernels.h"

namespace korimg::session {

namespace fs = std::filesystem;
using Json = nlohmann::json;

namespace {

/// Goes through all options, once for either direction: `part` has field(name, value) for values, path(...)
/// and paths(...) for these, choice(name, names, value) for what has names, and text(name, read, value) for
/// what is read from texts.
template <class Options, class Part>
void ForEachOption(Options& o, Part& part) {
  auto& c = o.calibrate;
  part.paths("lights", c.lights);
  part.paths("darks", c.darks);
  part.paths("flats", c.flats);
  part.paths("biases", c.biases);
  part.path("out", c.out);
  part.path("masters", c.masters);
  part.optional("pedestal", c.pedestal);
  part.field("masters_are_library", c.mastersAreLibrary);
  part.field("group", c.group);
  part.field("allow_mismatch", c.allowMismatch);
  part.field("cfa", c.develop.mosaic.cfa);
  part.field("row_order", c.develop.mosaic.rowOrder);
  part.field("mosaic_source", c.develop.mosaic.source);
  part.text("white_balance", WhiteBalanceFrom, c.develop.whiteBalance);
  part.field("mono", c.develop.mono);
  part.field("half", c.develop.half);
  part.field("level_cut", c.develop.levelCut);
  part.field("gamma", c.develop.gamma);
  part.field("scale", c.develop.scale);
  part.field("keep_mosaic", c.keepMosaic);
  part.field("misfits_may_be_missing", c.misfitsMayBeMissing);
  part.choice("cosmetic", kCosmetics, c.cosmetic);
  part.field("maps", c.maps);
  part.field("uncertainty", c.quality.uncertainty);
  part.field("mask", c.quality.mask);
  part.optional("gain", c.quality.gain);
  part.optional("read_noise", c.quality.readNoise);
  part.field("include", o.include);
  part.field("exclude", o.exclude);
  part.path("reference", o.reference);
  part.choice("method", kStackMethods, o.stack.method);
  part.choice("reject", kRejections, o.stack.reject);
  part.text("kappa", KappaFrom, o.stack.kappa);
  part.choice("normalise", kNormalisations, o.stack.normalise);
  part.choice("weight", kFrameWeights, o.stack.weight);
  part.choice("kernel", kKernels, o.stack.kernel);
  part.choice("undershoot", kUndershoots, o.stack.clampUndershoot);
  part.field("iterations", o.stack.iterations);
  part.field("min_stars", o.limits.stars);
  part.field("max_fwhm", o.limits.fwhm);
  part.field("max_elongation", o.limits.elongation);
  part.choice("model", kFrameModels, o.lay.model);
  part.field("residual", o.lay.residual);
  part.choice("palette", kPalettes, o.palette);
  part.field("rejection_maps", o.rejectionMaps);
  part.field("gradient", o.gradient);
}

struct Writer {
  Json json = Json::object();

  static std::string PathOf(const fs::path& path) { return path.empty() ? "" : fs::absolute(path).string(); }
  template <class T>
  void field(const char* name, const T& value) {
    json[name] = value;
  }
  template <class T>
  void optional(const char* name, const std::optional<T>& value) {
    if (value) json[name] = *value;
  }
  template <class E>
  void choice(const char* name, const std::vector<Named<E>>& names, E value) {
    json[name] = NameOf(names, value);
  }
  template <class Read, class T>
  void text(const char* name, const Read&, const T& value) {
    json[name] = session::TextOf(value);
  }
  void path(const char* name, const fs::path& value) { json[name] = PathOf(value); }
  void paths(const char* name, const std::vector<fs::path>& values) {
    json[name] = Json::array();
    for (const fs::path& value : values) {
      json[name].push_back(PathOf(value));
    }
  }
};

struct Reader {
  const Json& json;

  template <class T>
  void field(const char* name, T& value) {
    json.at(name).get_to(value);
  }
  template <class T>
  void optional(const char* name, std::optional<T>& value) {
    if (json.contains(name)) value = json[name].template get<T>();
  }
  template <class E>
  void choice(const char* name, const std::vector<Named<E>>& names, E& value) {
    value = ValueOf(names, json.at(name).get<std::string>());
  }
  template <class Read, class T>
  void text(const char* name, const Read& read, T& value) {
    value = read(json.at(name).get<std::string>());
  }
  void path(const char* name, fs::path& value) { value = json.at(name).get<std::string>(); }
  void paths(const char* name, std::vector<fs::path>& values) {
    for (const Json& text : json.at(name)) {
      values.emplace_back(text.get<std::string>());
    }
  }
};

}  // namespace

Json ToJson(const RunOptions& options) {
  Writer writer;
  ForEachOption(options, writer);
  if (const auto& grid = options.stack.drizzle) {
    writer.json["drizzle"] = {{"scale", grid->scale},
                              {"pixfrac", grid->pixfrac},
                              {"kernel", NameOf(kDrizzleKernels, grid->kernel)}};
  }
  return writer.json;
}

RunOptions RunOptionsFrom(const Json& json) {
  RunOptions options;
  Reader reader{json};
  ForEachOption(options, reader);
  if (json.contains("drizzle")) {
    const Json& grid = json["drizzle"];
    options.stack.drizzle = {.scale = grid.at("scale"),
                             .pixfrac = grid.at("pixfrac"),
                             .kernel = ValueOf(kDrizzleKernels, grid.at("kernel").get<std::string>())};
  }
  return options;
}

}  // namespace korimg::session
