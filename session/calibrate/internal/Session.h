// A session's lights, the calibration frames that serve them, and their pixels once calibrated.
#pragma once

#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "session/calibrate/Calibrate.h"
#include "session/calibrate/Masters.h"
#include "session/calibrate/internal/DefectMap.h"
#include "session/calibrate/internal/NoiseModel.h"
#include "session/develop/DevelopedNoise.h"
#include "session/job/Job.h"
#include "session/job/Json.h"
#include "session/picture/Image.h"
#include "session/picture/Images.h"
#include "session/stack/Stack.h"

namespace korimg::session {

inline const files::Header& HeaderOf(const Group& group) {
  return group.frames.front().info.header;
}

inline const char* NameOf(FrameKind kind) {
  return kind == FrameKind::Bias ? "bias" : kind == FrameKind::Dark ? "dark" : "flat";
}

/// A light, and what serves it.
struct Light {
  Frame frame;
  std::string stem;                                               ///< of its results' names, no other light's
  const Group *dark = nullptr, *flat = nullptr, *bias = nullptr;  ///< the bias only where there is no dark
  files::Mosaic mosaic;                                           ///< to be developed

  const Group* Offset() const { return dark ? dark : bias; }
  bool Changes() const { return Offset() || flat || mosaic.cfa > 0; }
  std::string Name() const { return frame.path.filename().string(); }
  /// Tells the names of what serves it.
  std::string Served() const;
  /// Names its camera and mosaic: lights of one camera share their white balance, so that their colours can
  /// be added up.
  std::string Camera() const;
  /// Throws FileError when its file is not of the size that it had.
  void CheckUnchanged(const files::ImageInfo& found) const;
  nlohmann::ordered_json Description() const;
};

/// Holds hot and cold pixels of the lights that they were found for.
struct Defects {
  const Group* dark = nullptr;        ///< by which they are found; null: by the lights
  std::vector<const Light*> lights;   ///< that they are mended in
  std::set<const Light*> unreadable;  ///< of these
  std::filesystem::path file;         ///< of the map
  std::unique_ptr<DefectMap> map;     ///< there once it is found

  /// Answers the lights that they are found by where there is no dark: an odd number of up to seven, spread
  /// evenly. None where there are fewer than three: two do not tell hot pixels from hits of cosmic rays.
  std::vector<const Light*> Sample() const;
  /// Tells where they are from, for people.
  std::string Source() const;
};

/// Holds lights and calibration frames: matched when it is made, and ready to work after Prepare.
class Session {
 public:
  /// Reads the headers of all frames. A light that nothing fits is an error of its own, and is left out.
  /// @throws FileError when no calibration frame of a kind can be read.
  Session(Job& job, const CalibrateOptions& options);

  /// Tells the groups of calibration frames, and what serves which lights.
  void Show() const;
  /// Refuses outputs that exist, unless they are told to be `ours`, and those that are inputs whatever the
  /// options say. Answers all that are not there yet, the masters among them.
  std::vector<std::filesystem::path> CheckOutputs(
      std::vector<std::filesystem::path> outputs,
      const std::function<bool(const std::filesystem::path&)>& ours = {}) const;
  /// True when all masters that are needed were made of the same frames, and are where the options keep them.
  bool HasMasters();
  /// Makes the masters that are needed, writes them where the options want them, and chooses the white
  /// balance of each camera by its first light. Warns of whatever is wrong with the set of frames.
  void Prepare();

  /// Puts another light in the place of the only one, once that is prepared. False, and nothing is done, when
  /// it is not served by the same masters, or is not of the same camera, size and mosaic: it needs a session
  /// of its own.
  /// @throws FileError when it cannot be read, or the calibration frames do not fit it.
  [[nodiscard]] bool Exchange(const std::filesystem::path& path);

  const std::vector<Light>& Lights() const { return lights_; }
  /// Answers groups that serve a light or such a flat, those of offsets first.
  std::vector<const Group*> NeededGroups() const;
  /// A light that was left out.
  struct FailedLight {
    std::filesystem::path path;
    std::optional<std::string> filter = {};  ///< none where its header cannot be read
    std::string reason = "cannot be read";
    bool isUnfinished = false;  ///< it is still being written, and no failure
  };
  const std::vector<FailedLight>& Failed() const { return failed_; }
  /// Answers a line on each master, and on each map of hot and cold pixels.
  const std::vector<std::string>& MasterLines() const { return masterLines_; }
  /// Answers the hot and cold pixels of a light; null where none are looked for.
  const DefectMap* DefectsOf(const Light& light) const;
  const CalibrateOptions& Options() const { return options_; }
  /// Answers a digest of all that a light's calibrated pixels depend on, once it is prepared.
  std::string DigestOf(const Light& light) const;

  struct Calibrated {
    Image loaded;
    double clipped;  ///< share of the pixels limited at 0
  };
  /// Loads a light from its file, less its offset and divided by its flat, its hot and cold pixels mended;
  /// mosaics stay. What of its edges holds one value throughout is NaN. Its quality comes with it where the
  /// options want it.
  Calibrated LoadLight(const Light& light) const;
  /// Answers the development of a light's mosaic, calibrated and free of its pedestal.
  Development Develop(MosaicSource source, const Light& light, files::ImageInfo& info) const;
  /// Answers the white balance that it is developed with, once it is prepared.
  const WhiteBalance& BalanceOf(const Light& light) const;
  /// Answers what that makes of the quality of its photosites; null where none is wanted.
  const DevelopedNoise* NoiseOfDevelopment(const Light& light) const;
  /// Puts what was done into the header of a light.
  void Describe(files::Header& header, const Light& light, double clipped) const;

 private:
  friend class CalibratedRows;
  friend class LightRows;

  std::filesystem::path MasterPath(const Group& group) const;
  std::filesystem::path ManifestPath() const;
  void ReadManifest();
  bool IsKept(const std::filesystem::path& master) const;
  const Group* Choose(const std::vector<Group>& groups, const Frame& frame) const;
  const Group* ChooseDark(const Frame& frame);
  const Group* ChooseFlat(const Frame& frame);
  /// Warns once of what bends.
  void TellOnce(const std::string& text);
  void FindOffsetsOfFlats();
  Light PlanLight(Frame frame);
  void PlanLights();
  void NameResults();
  void ShowGroup(const Group& group) const;
  void MakeMasters();
  const Group* OffsetOf(const Group& flat) const;
  int MosaicOfLights(const Group& flat) const;
  void FindDigests();
  std::optional<nlohmann::ordered_json> FindKept(const Group& group) const;
  Master MakeOrLoad(const Group& group, const Master* offset);
  Master MakeScaled(const Group& group) const;
  std::string DigestOf(const Group& group) const;
  void TurnMasters();
  void CheckLights();
  void CheckHoldsBias(const Master& dark) const;
  void CheckScale(const Light& light, const FrameLevels& levels, const Master& offset) const;
  void SaveMasters();
  void WarnOfFlat(const Master& flat) const;
  bool LacksOffsets() const;
  void PlanDefects();
  void FindDefects();
  void FindNoise();
  void MeasureDevelopments();
  NoiseModel NoiseOf(const Light& light);
  double GainOf(const Light& light) const;
  double FloorOf(const Light& light, double gain);
  double FrameVarianceOf(const Group& group);
  DefectMap FindInLights(Defects& defects, const files::ImageInfo& info, int cfa) const;
  void SaveMap(const Defects& defects) const;
  void ChooseWhiteBalances();
  const Master* MasterOf(const Group* group) const { return group ? &masters_.at(group) : nullptr; }
  /// Answers the master's pixels as the light lies; null for no group.
  CVelImage* ImageOf(const Group* group, const Light& light) const;
  /// Answers the levels that LoadLight gives.
  Levels MosaicLevels(const Light& light) const;
  long long Apply(const Light& light, CVelImage& image, CVelImage* offset, CVelImage* flat) const;
  /// Fills in the quality of raw rows once they are calibrated, their defects not yet mended; `info` as it is
  /// once they were read.
  void FillQuality(const Light& light, const files::ImageInfo& info, const Band<const float>& raw,
                   const QualityRows& to) const;
  /// Answers how far below 0 a light's pixels may lie once their offset is taken off.
  double PedestalOf(const Light& light) const;

  Job& job_;
  const CalibrateOptions& options_;
  Grouping grouping_;
  std::vector<Group> darks_, flats_, biases_;
  std::list<Group> scaledDarks_;  ///< of other exposures
  std::set<std::string> told_;
  std::map<const Group*, const Group*> offsetsOfFlats_;
  std::vector<Light> lights_;
  std::vector<FailedLight> failed_;
  std::vector<std::string> masterLines_;
  std::shared_ptr<CVmManager> store_ = job_.MakeStore();
  std::map<const Group*, Master> masters_;
  std::map<const Group*, std::string> digests_;                ///< of what masters are made of
  nlohmann::ordered_json kept_;                                ///< the manifest of masters that are there
  std::map<const Group*, std::unique_ptr<CVelImage>> turned_;  ///< masters the other way round
  std::map<const Group*, double> pedestals_;  ///< for the noise of the lights that an offset serves
  std::list<Defects> defects_;
  std::map<const Light*, const Defects*> defectsOf_;
  std::map<const Light*, NoiseModel> noise_;
  std::map<const Group*, double> frameVariances_, levelsOfOffsets_;  ///< as far as they were asked for
  std::map<std::string, WhiteBalance> balances_;
  std::map<std::string, DevelopedNoise> developedNoise_;  ///< by cameras
  mutable std::map<const Light*, Levels> levels_;         ///< those of MosaicLevels that took a whole light
  mutable std::mutex levelsMutex_;
};

}  // namespace korimg::session
