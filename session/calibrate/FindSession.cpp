#include "session/calibrate/FindSession.h"

#include <algorithm>
#include <array>
#include <map>
#include <set>

#include <fmt/format.h>

#include "session/calibrate/Frames.h"
#include "session/calibrate/internal/FrameUse.h"
#include "session/files/Text.h"

namespace korimg::session {

namespace fs = std::filesystem;

namespace {

bool IsOneOf(const std::string& extension, std::initializer_list<const char*> list) {
  return std::find(list.begin(), list.end(), extension) != list.end();
}

/// The name without a packer's extension.
fs::path Unpacked(const fs::path& path) {
  return IsOneOf(files::LowerExtension(path), {".gz", ".fz"}) ? path.filename().stem() : path.filename();
}

/// Kinds of image files; the first two hold frames as a camera gives them.
enum FileKind : size_t { kFits, kRaw, kTiff, kPng, kNoImage };
constexpr const char* kKindNames[] = {"FITS", "camera raw", "TIFF", "PNG"};

FileKind KindOf(const fs::path& path) {
  const std::string extension = files::LowerExtension(Unpacked(path));
  if (IsOneOf(extension, {".fits", ".fit", ".fts"})) return kFits;
  if (files::HasRawExtension(Unpacked(path))) return kRaw;
  if (IsOneOf(extension, {".tif", ".tiff"})) return kTiff;
  return extension == ".png" ? kPng : kNoImage;
}

/// An image under the name that a program gives it until it is complete.
bool IsPartial(const fs::path& path) {
  return IsOneOf(files::LowerExtension(path), {".part", ".partial", ".tmp", ".crdownload", ".filepart"}) &&
         KindOf(path.stem()) != kNoImage;
}

/// The names of the folders in a folder that hold frames.
std::string FoldersWithFrames(const fs::path& folder) {
  std::vector<std::string> names;
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(folder)) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with(".") || !entry.is_directory(ignored)) continue;
    const auto inside = fs::directory_iterator(entry.path(), ignored);
    if (std::any_of(begin(inside), end(inside),
                    [](const auto& file) { return KindOf(file.path()) < kTiff; })) {
      names.push_back(name);
    }
  }
  std::sort(names.begin(), names.end());
  return fmt::format("{}", fmt::join(names, ", "));
}

/// The frames in a folder, without those of the folders in it: none, or those of one kind of file.
std::vector<fs::path> OwnFramesOf(Job& job, const fs::path& folder) {
  std::array<std::vector<fs::path>, 4> found;
  for (const auto& entry : fs::directory_iterator(folder)) {
    const FileKind kind = KindOf(entry.path());
    const bool hidden = entry.path().filename().string().starts_with(".");
    if (!hidden && kind != kNoImage) found[kind].push_back(entry.path());
    if (!hidden && IsPartial(entry.path())) {
      job.Warn(
          fmt::format("{}: is still being written, by its name, and left for later", entry.path().string()));
    }
  }
  const bool hasFrames = !found[kFits].empty() || !found[kRaw].empty();
  std::vector<fs::path>* frames = nullptr;
  std::string kinds;
  for (size_t kind = 0; kind < found.size(); ++kind) {
    if (found[kind].empty()) continue;
    const std::string text = fmt::format("{} {}", found[kind].size(), kKindNames[kind]);
    if (hasFrames && kind >= kTiff) {
      job.Warn(fmt::format("{}: {} files beside the frames are left out; name them to use them",
                           folder.string(), text));
      continue;
    }
    kinds += (kinds.empty() ? "" : " and ") + text;
    if (frames) {
      throw files::FileError(folder, fmt::format("holds {} files; name those of one kind", kinds));
    }
    frames = &found[kind];
  }
  if (!frames) return {};
  std::sort(frames->begin(), frames->end());
  return std::move(*frames);
}

/// The frames in a folder. Throws FileError when there are none.
std::vector<fs::path> FramesIn(Job& job, const fs::path& folder) {
  std::vector<fs::path> frames = OwnFramesOf(job, folder);
  const std::string folders = FoldersWithFrames(folder);
  if (frames.empty()) {
    throw files::FileError(
        folder, "no images in this folder (.fits .fit .fts, also .gz .fz, .tif .tiff .png, camera raw)" +
                    (folders.empty() ? "" : "; folders in it hold some, which are not read: " + folders));
  }
  if (!folders.empty()) {
    job.Warn(fmt::format("{}: frames of the folders in it are not read: {}", folder.string(), folders));
  }
  return frames;
}

/// What frames are for, as capture programs and people call it.
enum class Use { Unknown, Light, Dark, Flat, Bias, Calibrated, Finished, Other };

/// By a name as folders, files and headers have it: its letters alone.
Use UseOfWord(const std::string& text) {
  std::string word;
  for (const char c : files::LowerCase(text)) {
    if (c >= 'a' && c <= 'z') word += c;
  }
  if (word.ends_with("frames")) word.resize(word.size() - 6);
  if (word.ends_with("frame")) word.resize(word.size() - 5);
  if (word.starts_with("master")) word.erase(0, 6);
  const struct {
    Use use;
    std::initializer_list<const char*> words;
  } kUses[] = {{Use::Light, {"light", "lights", "object", "science"}},
               {Use::Dark, {"dark", "darks", "darkflat", "darkflats", "flatdark", "flatdarks"}},
               {Use::Flat, {"flat", "flats", "flatfield", "flatfields", "skyflat", "skyflats"}},
               {Use::Bias, {"bias", "biases", "offset", "offsets", "zero", "zeros"}}};
  for (const auto& [use, words] : kUses) {
    if (std::find(words.begin(), words.end(), word) != words.end()) return use;
  }
  return Use::Unknown;
}

/// A light that was calibrated by us, and lies beside the raw one, counts once.
bool IsCalibrated(const files::Header& header) {
  return std::any_of(header.cards.begin(), header.cards.end(), [](const std::string& card) {
    return card.starts_with("HISTORY korimg ") && card.find(" calibrate") != std::string::npos;
  });
}

/// A folder of results of an earlier run holds masters and stacks, which are no frames.
bool HoldsResults(const fs::path& folder) {
  return fs::exists(folder / "report.html") || fs::exists(folder / ".korimg");
}

/// By what a file's header says. Finished pictures are none of a session's frames.
Use UseByHeader(const fs::path& path) {
  if (KindOf(path) != kFits) return Use::Unknown;
  files::Header header;
  try {
    header = ReadFrame(path).info.header;
  } catch (const files::FileError&) {
    return Use::Unknown;  // it is told of where it is read as what its folder says
  }
  const std::string type = FoldedName(header.GetString("IMAGETYP").value_or(""));
  Use use = UseOfWord(type);
  if (use == Use::Unknown) use = UseOfWord(header.GetString("FRAME").value_or(""));
  const bool isLight = use == Use::Light || use == Use::Unknown;
  if (isLight && IsCalibrated(header)) return Use::Calibrated;
  if (isLight && IsMaster(header)) return Use::Finished;
  return use == Use::Unknown && !type.empty() ? Use::Other : use;
}

/// By a word of a file's name, as in "dark_300s_0001.fits".
Use UseByName(const fs::path& path) {
  std::string word;
  for (const char c : StemOf(path) + '_') {
    if (std::isalpha(static_cast<unsigned char>(c))) {
      word += c;
      continue;
    }
    const Use use = UseOfWord(word);
    if (use != Use::Unknown) return use;
    word.clear();
  }
  return Use::Unknown;
}

/// What a file says itself goes before what its folder says, and that before its name.
Use UseOf(const fs::path& file, Use byHeader, Use byFolder) {
  return byHeader != Use::Unknown ? byHeader : byFolder != Use::Unknown ? byFolder : UseByName(file);
}

bool IsPicture(const fs::path& file) {
  return KindOf(file) == kTiff || KindOf(file) == kPng;
}

const char* NameOf(Use use) {
  return use == Use::Light ? "light" : use == Use::Dark ? "dark" : use == Use::Flat ? "flat" : "bias frame";
}

/// Walks through a session's folders.
class Walk {
 public:
  Walk(Job& job, SessionFrames& found, fs::path results)
      : job_(job), found_(found), results_(std::move(results)) {}

  void Through(const fs::path& folder, Use use) {
    // Links may lead back.
    if (!seen_.insert(fs::weakly_canonical(folder)).second) return;
    const bool isOut = fs::weakly_canonical(folder) == fs::weakly_canonical(results_);
    if (isOut && !HoldsResults(folder) && !OwnFramesOf(job_, folder).empty()) {
      throw files::FileError(folder, "holds frames; name another folder for the results");
    }
    if (isOut || HoldsResults(folder)) {
      job_.Explain(fmt::format("{}: is not read: it holds results", folder.string()));
      return;
    }
    for (const fs::path& file : OwnFramesOf(job_, folder)) {
      Add(file, use);
    }
    std::vector<fs::path> folders;
    for (const auto& entry : fs::directory_iterator(folder)) {
      if (entry.is_directory() && !entry.path().filename().string().starts_with(".")) {
        folders.push_back(entry.path());
      }
    }
    std::sort(folders.begin(), folders.end());
    for (const fs::path& inside : folders) {
      const Use own = UseOfWord(inside.filename().string());
      Through(inside, own == Use::Unknown ? use : own);
    }
  }

  /// Once all is seen.
  void Finish() {
    std::vector<fs::path>& lights = found_.lights;
    if (lights.empty()) {
      lights = std::move(calibrated_);
    } else if (!calibrated_.empty()) {
      others_["left out: calibrated lights beside raw ones"] = std::move(calibrated_);
    }
    for (const auto& [text, files] : others_) {
      job_.Warn(fmt::format("{} {} {}: {}{}", files.size(), files.size() == 1 ? "frame" : "frames", text,
                            files.front().string(), files.size() > 1 ? " and others" : ""));
    }
  }

 private:
  void Add(const fs::path& file, Use byFolder) {
    Use byHeader = UseByHeader(file);
    if (byHeader == Use::Other) {
      // Of a kind that is none of ours, unless its folder says that it is.
      byHeader = Use::Unknown;
      if (byFolder == Use::Unknown) {
        others_["left out: IMAGETYP says that they are no light, dark, flat or bias frames"].push_back(file);
        return;
      }
    }
    Use use = UseOf(file, byHeader, byFolder);
    if (use == Use::Calibrated) {
      calibrated_.push_back(file);
      return;
    }
    if (use == Use::Finished) {
      others_["left out: stacks of several lights"].push_back(file);
      return;
    }
    if (use == Use::Unknown && IsPicture(file)) return;  // a picture that nobody calls a frame
    if (use == Use::Unknown) {
      others_["taken as lights, for nothing says what they are"].push_back(file);
      use = Use::Light;
    }
    if (byHeader != Use::Unknown && byFolder != Use::Unknown && byHeader != byFolder) {
      others_[fmt::format("in a folder of {}s, but say that they are {}s, and are taken as these",
                          NameOf(byFolder), NameOf(byHeader))]
          .push_back(file);
    }
    (use == Use::Light  ? found_.lights
     : use == Use::Dark ? found_.darks
     : use == Use::Flat ? found_.flats
                        : found_.biases)
        .push_back(file);
  }

  Job& job_;
  SessionFrames& found_;
  fs::path results_;
  std::set<fs::path> seen_;
  std::vector<fs::path> calibrated_;
  std::map<std::string, std::vector<fs::path>> others_;  ///< by what is told of them
};

}  // namespace

SessionFrames FindSession(Job& job, const fs::path& folder, const fs::path& results,
                          const fs::path& calibration) {
  if (!fs::is_directory(folder)) {
    throw files::FileError(folder, "is no folder; name one that holds the frames of a session");
  }
  SessionFrames found;
  Walk walk(job, found, results);
  walk.Through(folder, Use::Unknown);
  walk.Finish();
  if (!calibration.empty()) {
    SessionFrames ready = FindReady(job, calibration);
    for (const auto& [own, from] : {std::pair(&found.darks, &ready.darks),
                                    {&found.flats, &ready.flats},
                                    {&found.biases, &ready.biases}}) {
      if (own->empty()) *own = std::move(*from);
    }
  }
  const auto count = [](const char* name, const std::vector<fs::path>& files) {
    std::set<fs::path> folders;
    for (const fs::path& file : files) {
      folders.insert(file.parent_path());
    }
    if (files.empty()) return fmt::format("{}: none", name);
    return folders.size() == 1 ? fmt::format("{}: {} in {}", name, files.size(), folders.begin()->string())
                               : fmt::format("{}: {} in {} folders", name, files.size(), folders.size());
  };
  job.Say(count("lights", found.lights));
  job.Say(count("darks", found.darks));
  job.Say(count("flats", found.flats));
  job.Say(count("biases", found.biases));
  if (found.lights.empty()) {
    throw files::FileError(folder,
                           "holds no lights: frames are told by IMAGETYP in their headers, or by folders "
                           "called lights, darks, flats and biases");
  }
  if (found.darks.empty() && found.flats.empty() && found.biases.empty()) {
    job.Warn("no darks, flats or biases: lights are stacked as they are");
  }
  return found;
}

void TakeSession(Job& job, const fs::path& folder, CalibrateOptions& options, const fs::path& calibration) {
  SessionFrames found = FindSession(job, folder, options.out, calibration);
  options.lights = std::move(found.lights);
  options.darks = std::move(found.darks);
  options.flats = std::move(found.flats);
  options.biases = std::move(found.biases);
}

SessionFrames FindReady(Job& job, const fs::path& folder) {
  SessionFrames found = FindCalibration(job, folder);
  if (found.darks.empty() && found.flats.empty() && found.biases.empty()) {
    throw files::FileError(
        folder, "holds no calibration frames; name a folder of darks, flats or biases, or of masters");
  }
  return found;
}

SessionFrames FindCalibration(Job& job, const fs::path& folder) {
  if (!fs::is_directory(folder)) throw files::FileError(folder, "is no folder; is the disk still there?");
  SessionFrames found;
  Walk walk(job, found, {});
  walk.Through(folder, Use::Unknown);
  walk.Finish();
  found.lights.clear();
  return found;
}

bool HasImageName(const fs::path& file) {
  return !file.filename().string().starts_with(".") && KindOf(file) != kNoImage;
}

bool MayHoldLights(const fs::path& folder) {
  const std::string name = folder.filename().string();
  const Use use = UseOfWord(name);
  return !name.starts_with(".") && (use == Use::Unknown || use == Use::Light) && !HoldsResults(folder);
}

std::string WhyNoLight(const fs::path& file) {
  const Use byHeader = UseByHeader(file), byFolder = UseOfWord(file.parent_path().filename().string());
  if (byHeader == Use::Other && byFolder == Use::Unknown) {
    return "IMAGETYP says that it is no light, dark, flat or bias frame";
  }
  const Use use = UseOf(file, byHeader == Use::Other ? Use::Unknown : byHeader, byFolder);
  switch (use) {
    case Use::Light:
      return "";
    case Use::Unknown:
      return IsPicture(file) ? "is a picture, and nothing says that it is a light" : "";
    case Use::Calibrated:
      return "was calibrated before";
    case Use::Finished:
      return "is a stack of several lights";
    default:
      return fmt::format("is a {}", NameOf(use));
  }
}

std::vector<fs::path> ExpandFolders(Job& job, const std::vector<fs::path>& paths) {
  std::vector<fs::path> files;
  for (const fs::path& path : paths) {
    const auto more = fs::is_directory(path) ? FramesIn(job, path) : std::vector<fs::path>{path};
    files.insert(files.end(), more.begin(), more.end());
  }
  return files;
}

void CheckStems(const std::vector<fs::path>& paths) {
  std::map<std::string, fs::path> stems;
  for (const fs::path& path : paths) {
    const auto [other, isNew] = stems.emplace(StemOf(path), path);
    if (!isNew) {
      throw files::FileError(path, fmt::format("its result would have the same name as that of {}; "
                                               "write them into different folders",
                                               other->second.string()));
    }
  }
}

std::string StemOf(const fs::path& path) {
  const fs::path name = Unpacked(path);
  return KindOf(path) != kNoImage ? name.stem().string() : name.string();
}

}  // namespace korimg::session
