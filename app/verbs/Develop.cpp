// korimg develop: from a camera's mosaic to a colour image.
#include "session/develop/Develop.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "app/tool/Tool.h"
#include "app/verbs/Verbs.h"
#include "session/calibrate/Masters.h"
#include "session/files/Geometry.h"
#include "session/job/Json.h"
#include "session/picture/AutoPicture.h"
#include "session/picture/Image.h"

namespace korimg::tool {

namespace fs = std::filesystem;

namespace {

constexpr int kPreviewSide = 1200;  // pixels
constexpr double kWhite16 = 65535;
constexpr double kUnitWhite = 16;  // images that stay below it are not on a camera's scale

struct Arguments {
  std::vector<fs::path> inputs;
  fs::path out, dark, flat;
  std::string bits = "float";
  double black = 0;
  bool previews = false;
  DevelopOptions develop;
};

bool IsImageName(const fs::path& path) {
  const std::string extension = files::LowerExtension(path);
  return extension == ".fits" || extension == ".fit" || extension == ".fts" || extension == ".tif" ||
         extension == ".tiff";
}

/// A calibration frame with what is needed to apply it.
struct Serving {
  std::vector<Group> groups;
  Master master;
};

class Developer {
 public:
  Developer(Tool& tool, const Arguments& arguments)
      : tool_(tool), arguments_(arguments), toFile_(IsImageName(arguments.out)) {
    Load(FrameKind::Dark, arguments.dark, dark_);
    Load(FrameKind::Flat, arguments.flat, flat_);
  }

  void Do(const fs::path& path) {
    const fs::path output = toFile_ ? arguments_.out : arguments_.out / (StemOf(path) + ".fits");
    // Apart from the frames, which are often read as a folder.
    std::optional<fs::path> preview;
    if (arguments_.previews) preview = output.parent_path() / "previews" / (output.stem().string() + ".png");
    tool_.job.CheckOutput(output);
    if (preview) tool_.job.CheckOutput(*preview);
    if (fs::exists(output) && fs::equivalent(output, path)) {
      throw files::FileError(output, "would be replaced by its own result; choose another --out");
    }
    const bool hasDark = dark_.master.image != nullptr, hasFlat = flat_.master.image != nullptr;
    const files::ReadOptions read{.lessBlack = !hasDark && arguments_.black == 0};
    const auto reader = files::ImageReader::Open(path, read);
    files::ImageInfo info = reader->Info();
    const files::Mosaic mosaic = RequireMosaic(info, arguments_.develop.mosaic);
    const std::string& wanted = arguments_.develop.whiteBalance;
    if (info.camera && read.lessBlack && !hasFlat && !NeedsMedians(info, wanted)) {
      // Nothing wants to see the whole mosaic: its rows go from the file to the results.
      std::vector<float> first(info.width);
      float* planes[] = {first.data(), first.data(), first.data()};
      reader->ReadRows(0, 1, planes);  // black is known once a row was read
      info.camera = reader->Info().camera;
      Levels levels;
      for (int p = 0; p < info.planes; ++p) {
        levels.max[p] = WhiteOf(info, BlackOf(info), 0);
      }
      Save(MosaicSource(*reader, levels, store_), info, mosaic,
           ChooseWhiteBalance(nullptr, info, mosaic, wanted), output, preview);
      return;
    }
    Image loaded = Image::Open(tool_.job, store_, path, read);
    Calibrate(path, loaded.Header(), loaded.Pixels());
    TakeOffset(loaded.Pixels(), loaded.Info());
    const WhiteBalance balance = ChooseWhiteBalance(&loaded.Pixels(), loaded.Info(), mosaic, wanted);
    Save(MosaicSource(loaded.Pixels()), loaded.Info(), mosaic, balance, output, preview);
  }

 private:
  void Save(MosaicSource source, files::ImageInfo& info, const files::Mosaic& mosaic,
            const WhiteBalance& balance, const fs::path& output, const std::optional<fs::path>& preview) {
    const std::string name = info.path.filename().string();
    const nlohmann::ordered_json json{{"file", info.path.string()},
                                      {"output", output.string()},
                                      {"preview", preview ? preview->string() : ""},
                                      {"mosaic", mosaic.name},
                                      {"reason", mosaic.reason},
                                      {"white_balance", balance.text},
                                      {"gains", balance.gains}};
    const std::string line = fmt::format("{} -> {}", name, output.string());
    if (!mosaic.name.empty()) {
      tool_.job.Say(fmt::format("{}: mosaic {} ({}), white balance {} ({:.4g})", name, mosaic.name,
                                mosaic.reason, balance.text, fmt::join(balance.gains, ", ")));
    }
    if (tool_.options.dryRun) return tool_.job.Tell(Dump(json), line);
    SaveOptions save{.integers = arguments_.bits == "16"};
    DevelopOptions options = arguments_.develop;
    if (save.integers) options.scale = kWhite16 / source.levels.max[0];
    // The noise of a dark sky goes below black; it is kept, unless black is to be the end.
    constexpr double kBelowBlack = kWhite16 / 64;
    if (!options.levelCut && options.gamma == 1) save.scale = {1 + kBelowBlack / kWhite16, -kBelowBlack};
    Levels levels;
    std::fill(levels.max, levels.max + 3, source.levels.max[0] * options.scale);
    Development development(std::move(source), info, mosaic, balance, options);
    const fs::path folder = (preview ? *preview : output).parent_path();
    if (!folder.empty()) fs::create_directories(folder);
    SaveDeveloped(tool_.job, development, info.header, levels,
                  preview ? development.PictureLevels(kPreviewSide) : levels, output, save, preview,
                  kPreviewSide, [](CVelImage&) {});
    tool_.job.Tell(Dump(json), line);
  }

  void Load(FrameKind kind, const fs::path& path, Serving& serving) {
    if (path.empty()) return;
    serving.groups = MakeGroups(tool_.job, kind, {path});
    serving.master = MakeMaster(tool_.job, store_, serving.groups.front(), nullptr);
  }

  void Calibrate(const fs::path& path, const files::Header& header, CVelImage& image) {
    for (Serving* serving : {&dark_, &flat_}) {
      const CVelImage* frame = serving->master.image.get();
      if (frame && (frame->GetWidth() != image.GetWidth() || frame->GetHeight() != image.GetHeight() ||
                    (frame->GetPlanes() != 1 && frame->GetPlanes() != image.GetPlanes()))) {
        throw files::FileError(
            path, fmt::format("is {} x {} pixels, but {} is {} x {}", image.GetWidth(), image.GetHeight(),
                              serving->master.Text(), frame->GetWidth(), frame->GetHeight()));
      }
      if (!frame) continue;
      // It lies as the frame before wanted it.
      files::Header& own = serving->groups.front().frames.front().info.header;
      if (files::LiesOverturned(header, own)) {
        TurnOver(*serving->master.image);
        own.turned = !own.turned;
      }
    }
    Measures m = flat_.master.measures;
    image.DarkFlat(&image, dark_.master.image.get(), flat_.master.image.get(), m.minima, m.maxima, m.averages,
                   0, 0, nullptr, 0);
  }

  /// The camera's least raw value of no light.
  static double BlackOf(const files::ImageInfo& info) {
    return *std::min_element(info.camera->black.begin(), info.camera->black.end());
  }

  /// What the sensor can give above black, on the file's scale.
  static double WhiteOf(const files::ImageInfo& info, double black, double brightest) {
    double white = info.camera ? info.camera->white : kWhite16;
    if (!info.camera && info.type != "uint16" && (brightest <= kUnitWhite || brightest > kWhite16))
      white = brightest;
    return white > black ? white - black : 1;
  }

  /// Makes black 0.
  void TakeOffset(CVelImage& image, const files::ImageInfo& info) {
    double black = arguments_.black;
    if (black > 0) Calculate(image, Calculation::Subtract, black);
    if (dark_.master.image) {
      black = dark_.master.measures.mean;
    } else if (info.camera && black == 0) {
      black = BlackOf(info);
    } else if (black == 0) {
      tool_.job.Warn(
          fmt::format("{}: its black level is not known, and counts as light; give --dark or --black",
                      info.path.string()));
    }
    const double brightest = info.camera ? 0 : std::get<1>(image.GetMinMax(0)) + black;
    for (int p = 0; p < image.GetPlanes(); ++p) {
      image.SetLevel(p, 0, WhiteOf(info, black, brightest));
    }
  }

  Tool& tool_;
  const Arguments& arguments_;
  bool toFile_;
  std::shared_ptr<CVmManager> store_ = tool_.job.MakeStore();
  Serving dark_, flat_;
};

}  // namespace

void AddMosaicOptions(CLI::App& verb, DevelopOptions& options) {
  const auto add = [&verb](const char* name, std::string& told, const char* help) {
    return verb
        .add_option_function<std::string>(
            name, [&told](const std::string& word) { told = word == "auto" ? "" : word; }, help)
        ->default_str("auto");
  };
  add("--cfa", options.mosaic.cfa, "pattern of the mosaic, from the upper left corner of the upright picture")
      ->check(CLI::IsMember({"auto", "RGGB", "GRBG", "BGGR", "GBRG"}, CLI::ignore_case));
  add("--row-order", options.mosaic.rowOrder,
      "of a mosaic: whether the first stored row is the upper or the lower one")
      ->check(CLI::IsMember({"auto", "top-down", "bottom-up"}, CLI::ignore_case));
  verb.add_option("--white-balance", options.whiteBalance,
                  "auto (the camera's, else by medians), camera, none, or gains of the cells row by row: "
                  "1.9,1,1,1.5");
}

void AddDevelop(CLI::App& app, Tool& tool) {
  auto arguments = std::make_shared<Arguments>();
  DevelopOptions& options = arguments->develop;
  CLI::App* verb = app.add_subcommand("develop", "Make colour images of camera raw files and mosaics");
  verb->add_option("frames", arguments->inputs, "camera raw, FITS or TIFF files, or folders of them")
      ->required();
  verb->add_option("--out", arguments->out, "folder for the results, or a name: .fits or .tif")->required();
  AddMosaicOptions(*verb, options);
  verb->add_flag("--mono", options.mono, "brightness in one plane");
  verb->add_flag("--half", options.half, "half the size, a pixel from each cell of the mosaic");
  verb->add_option("--gamma", options.gamma, "2.2 and the like, for pictures; 1 keeps the values linear")
      ->check(CLI::Range(0.1, 10.0));
  verb->add_flag("--level-cut", options.levelCut, "limit the results to black and white");
  CLI::Option* dark = verb->add_option("--dark", arguments->dark,
                                       "taken off the mosaic first; holds the camera's black level");
  verb->add_option("--flat", arguments->flat, "the mosaic is divided by it");
  verb->add_option("--black", arguments->black,
                   "raw value of no light, where neither a dark nor the file says it")
      ->check(CLI::Range(0.0, 1e6))
      ->excludes(dark);
  verb->add_option(
          "--bits", arguments->bits,
          "16: whole numbers, with white at 65535 and room for noise below black; float: the raw scale")
      ->check(CLI::IsMember({"16", "float"}));
  verb->add_flag("--previews", arguments->previews, "write small pictures too, into the folder previews");
  AddCommonOptions(*verb, tool);
  verb->callback([arguments, &tool] {
    tool.Begin();
    const DevelopOptions& options = arguments->develop;
    CheckWhiteBalance(options.whiteBalance);
    if (options.half && (options.mono || options.levelCut || options.gamma != 1)) {
      throw UsageError("--half takes neither --mono nor --level-cut nor --gamma");
    }
    const std::vector<fs::path> frames = ExpandFolders(tool.job, arguments->inputs);
    CheckStems(frames);
    if (IsImageName(arguments->out) && frames.size() > 1) {
      throw UsageError(fmt::format("--out {}: several frames need a folder", arguments->out.string()));
    }
    Developer developer(tool, *arguments);
    tool.job.ForEachFile(frames, [&](const fs::path& path) { developer.Do(path); });
  });
}

}  // namespace korimg::tool
