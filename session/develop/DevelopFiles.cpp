#include "session/develop/DevelopFiles.h"

#include <algorithm>

#include <fmt/format.h>

#include "session/calibrate/Masters.h"
#include "session/files/Geometry.h"
#include "session/job/Json.h"
#include "session/job/internal/Edge.h"
#include "session/picture/Image.h"

namespace korimg::session {

namespace fs = std::filesystem;

namespace {

constexpr int kPreviewSide = 1200;  // pixels; chosen for a screen
constexpr double kWhite16 = 65535;
constexpr double kUnitWhite = 16;  // images that stay below it are not on a camera's scale

bool IsImageName(const fs::path& path) {
  const std::string extension = files::LowerExtension(path);
  return IsFits(path) || extension == ".tif" || extension == ".tiff";
}

/// A calibration frame with what is needed to apply it.
struct Serving {
  std::vector<Group> groups;
  Master master;
};

class Developer {
 public:
  Developer(Job& job, const DevelopFilesOptions& options, bool plansOnly)
      : job_(job), options_(options), plansOnly_(plansOnly) {
    Load(FrameKind::Dark, options.dark, dark_);
    Load(FrameKind::Flat, options.flat, flat_);
  }

  DevelopedFrame Do(const fs::path& path) {
    DevelopedFrame frame{.file = path};
    const fs::path& output = frame.output =
        IsImageName(options_.out) ? options_.out : options_.out / (StemOf(path) + ".fits");
    // Apart from the frames, which are often read as a folder.
    if (options_.previews) {
      frame.preview = output.parent_path() / "previews" / (output.stem().string() + ".png");
    }
    job_.CheckOutput(output);
    if (frame.preview) job_.CheckOutput(*frame.preview);
    if (fs::exists(output) && fs::equivalent(output, path)) {
      throw files::FileError(output, "would be replaced by its own result; choose another --out");
    }
    const bool hasDark = dark_.master.image != nullptr, hasFlat = flat_.master.image != nullptr;
    const files::ReadOptions read{.lessBlack = !hasDark && options_.black == 0};
    const auto reader = files::ImageReader::Open(path, read);
    files::ImageInfo info = reader->Info();
    frame.mosaic = RequireMosaic(info, options_.mosaic);
    const WhiteBalanceChoice& wanted = options_.whiteBalance;
    if (info.camera && read.lessBlack && !hasFlat && !NeedsMedians(info, wanted)) {
      // Nothing wants to see the whole mosaic: its rows go from the file to the results.
      BandBuffer first;
      reader->ReadRows(first.Get(info.planes, info.width, 0, 1));  // black is known once a row was read
      info.camera = reader->Info().camera;
      Levels levels;
      for (int p = 0; p < info.planes; ++p) {
        levels.max[p] = WhiteOf(info, BlackOf(info), 0);
      }
      frame.whiteBalance = ChooseWhiteBalance(nullptr, info, frame.mosaic, wanted);
      Save(MosaicSource(*reader, levels, store_), info, frame);
      return frame;
    }
    Image loaded = Image::Open(job_, store_, path, read);
    Calibrate(path, loaded.Header(), loaded.Pixels());
    TakeOffset(loaded.Pixels(), loaded.Info());
    frame.whiteBalance = ChooseWhiteBalance(&loaded.Pixels(), loaded.Info(), frame.mosaic, wanted);
    Save(MosaicSource(loaded.Pixels()), loaded.Info(), frame);
    return frame;
  }

 private:
  void Save(MosaicSource source, files::ImageInfo& info, const DevelopedFrame& frame) {
    const files::Mosaic& mosaic = frame.mosaic;
    const WhiteBalance& balance = frame.whiteBalance;
    const auto& preview = frame.preview;
    const std::string name = frame.file.filename().string();
    if (!mosaic.name.empty()) {
      job_.Say(fmt::format("{}: mosaic {} ({}), white balance {} ({:.4g})", name, mosaic.name, mosaic.reason,
                           balance.text, fmt::join(balance.gains, ", ")));
    }
    if (!plansOnly_) {
      SaveOptions save{.integers = options_.integers};
      DevelopOptions options = options_;
      if (save.integers) options.scale = kWhite16 / source.levels.max[0];
      // The noise of a dark sky goes below black; it is kept, unless black is to be the end. Chosen.
      constexpr double kBelowBlack = kWhite16 / 64;
      if (!options.levelCut && options.gamma == 1) save.scale = {1 + kBelowBlack / kWhite16, -kBelowBlack};
      Levels levels;
      std::fill(levels.max, levels.max + 3, source.levels.max[0] * options.scale);
      Development development(std::move(source), info, mosaic, balance, options);
      const fs::path folder = (preview ? *preview : frame.output).parent_path();
      if (!folder.empty()) fs::create_directories(folder);
      SaveDeveloped(job_, development, info.header, levels,
                    preview ? development.PictureLevels(kPreviewSide, LevelMethod::Auto) : levels,
                    frame.output, save, preview, kPreviewSide, [](CVelImage&) {});
    }
    job_.Tell(Dump({{"file", frame.file.string()},
                    {"output", frame.output.string()},
                    {"preview", preview ? preview->string() : ""},
                    {"mosaic", mosaic.name},
                    {"reason", mosaic.reason},
                    {"white_balance", balance.text},
                    {"gains", balance.gains}}),
              fmt::format("{} -> {}", name, frame.output.string()));
  }

  void Load(FrameKind kind, const fs::path& path, Serving& serving) {
    if (path.empty()) return;
    serving.groups = MakeGroups(job_, kind, {path});
    serving.master = MakeMaster(job_, store_, serving.groups.front(), nullptr);
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
    double black = options_.black;
    if (black > 0) Calculate(image, Calculation::Subtract, black);
    if (dark_.master.image) {
      black = dark_.master.measures.mean;
    } else if (info.camera && black == 0) {
      black = BlackOf(info);
    } else if (black == 0) {
      job_.Warn(fmt::format("{}: its black level is not known, and counts as light; give --dark or --black",
                            info.path.string()));
    }
    const double brightest = info.camera ? 0 : std::get<1>(image.GetMinMax(0)) + black;
    for (int p = 0; p < image.GetPlanes(); ++p) {
      image.SetLevel(p, 0, WhiteOf(info, black, brightest));
    }
  }

  Job& job_;
  const DevelopFilesOptions& options_;
  bool plansOnly_;
  std::shared_ptr<CVmManager> store_ = job_.MakeStore();
  Serving dark_, flat_;
};

std::vector<DevelopedFrame> Develop(Job& job, const DevelopFilesOptions& options, bool plansOnly) {
  CheckWhiteBalance(options.whiteBalance);
  if (options.half && (options.mono || options.levelCut || options.gamma != 1)) {
    throw UsageError("--half takes neither --mono nor --level-cut nor --gamma");
  }
  if (options.black > 0 && !options.dark.empty()) {
    throw UsageError("--black and --dark both tell the value of no light; give one of them");
  }
  const std::vector<fs::path> frames = ExpandFolders(job, options.frames);
  CheckStems(frames);
  if (IsImageName(options.out) && frames.size() > 1) {
    throw UsageError(fmt::format("--out {}: several frames need a folder", options.out.string()));
  }
  Developer developer(job, options, plansOnly);
  std::vector<DevelopedFrame> developed;
  job.ForEachFile(frames, [&](const fs::path& path) { developed.push_back(developer.Do(path)); });
  return developed;
}

}  // namespace

std::vector<DevelopedFrame> DevelopFiles(Job& job, const DevelopFilesOptions& options) {
  return AtEdge([&] { return Develop(job, options, false); });
}

std::vector<DevelopedFrame> PlanDevelopFiles(Job& job, const DevelopFilesOptions& options) {
  return AtEdge([&] { return Develop(job, options, true); });
}

}  // namespace korimg::session
