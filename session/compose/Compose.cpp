#include "session/compose/Compose.h"

#include <algorithm>
#include <cmath>
#include <tuple>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "korimg/colour/CImgCmyComposit.h"
#include "korimg/colour/CImgColorBalance.h"
#include "korimg/colour/CImgLrgbCmpst.h"
#include "korimg/colour/CImgRgbCmpst.h"
#include "korimg/composite/stacking/FrameLevels.h"
#include "korimg/geometry/CImgCrop.h"
#include "korimg/image/Loan.h"
#include "korimg/image/internal/Lines.h"
#include "korimg/pipelines/runtime/Runtime.h"

#include "session/calibrate/Frames.h"
#include "session/compose/internal/CommonArea.h"
#include "session/files/Gain.h"
#include "session/files/Geometry.h"
#include "session/files/Mosaic.h"
#include "session/job/Json.h"
#include "session/job/internal/Edge.h"
#include "session/job/internal/SideBySide.h"
#include "session/operations/Kernels.h"
#include "session/picture/Images.h"

namespace korimg::session {

namespace fs = std::filesystem;

namespace {

constexpr const char* kFull = "no room for the composed image";

bool HasLuminance(Composition composition) {
  return composition == Composition::Lrgb || composition == Composition::Lab;
}

/// An image without its keeper, for those that only look at it.
std::shared_ptr<CVelImage> Lent(CVelImage& image) {
  return {std::shared_ptr<void>(), &image};
}

class Composer {
 public:
  Composer(Job& job, std::vector<Image> sources, const ComposeOptions& options)
      : job_(job),
        options_(options),
        sources_(std::move(sources)),
        hasLuminance_(HasLuminance(options.composition)) {
    CheckSources();
    for (size_t i = 1; i < sources_.size(); ++i) {
      if (files::LiesOverturned(sources_[0].Header(), sources_[i].Header())) TurnOver(Pixels(i));
    }
  }

  Image Do() {
    if (options_.registers) {
      Register();
    } else {
      places_.resize(sources_.size());
    }
    area_ = FindArea();
    std::unique_ptr<CVelImage> image = options_.composition == Composition::Lab ? OfLab() : OfColours();
    if (options_.crops) TrimBlankEdges(image);
    if (options_.backgrounds == Backgrounds::Equal) EqualiseSkies(*image);
    image->SetOwnLevel(true);
    files::ImageInfo info = sources_[0].Info();
    info.planes = 3;
    info.header = MakeHeader();
    return Image(std::move(image), std::move(info));
  }

 private:
  CVelImage& Pixels(size_t i) { return sources_[i].Pixels(); }
  std::string Name(size_t i) const {
    const fs::path& path = sources_[i].Info().path;
    return path.empty() ? fmt::format("source {}", i + 1) : path.filename().string();
  }
  size_t FirstColour() const { return hasLuminance_ ? 1 : 0; }
  /// The source of a colour from 0 to 2.
  size_t Colour(size_t c) const { return FirstColour() + (Colours() == 1 ? 0 : c); }
  /// The shift of a source on the result.
  double Across(size_t i) const { return places_[i].dx - area_.left; }
  double Down(size_t i) const { return places_[i].dy - area_.top; }
  size_t Colours() const { return sources_.size() - FirstColour(); }

  void CheckSources() const {
    const std::string name = NameOf(kCompositions, options_.composition);
    const bool isLab = options_.composition == Composition::Lab;
    const bool isOne = sources_.size() == FirstColour() + 1, isThree = sources_.size() == FirstColour() + 3;
    if (!(isOne || (isThree && !isLab))) {
      throw UsageError(
          fmt::format("{} wants {}{}", name, hasLuminance_ ? "a luminance and " : "",
                      isLab ? "one image of the planes a and b" : "three colours, or one image in colour"));
    }
    for (size_t i = 0; i < sources_.size(); ++i) {
      if (!files::FindMosaic(sources_[i].Info()).name.empty()) {
        throw files::FileError(Name(i), "is an undeveloped mosaic; develop it first");
      }
      if (!isLab && sources_[i].Planes() == 2) {
        throw UsageError(fmt::format("{}: {} has 2 planes, a and b; lab takes them", name, Name(i)));
      }
    }
    const Image& last = sources_.back();
    if (isOne && last.Planes() != (isLab ? 2 : 3)) {
      throw UsageError(
          fmt::format("{}: {} has {} plane{}; {}", name, Name(sources_.size() - 1), last.Planes(),
                      last.Planes() == 1 ? "" : "s",
                      isLab ? "a and b are wanted, as to-lab makes them" : "a colour image has 3"));
    }
  }

  void Register() {
    std::vector<FrameMeasure> measures(sources_.size());
    SideBySide(
        job_, "finding stars in source", sources_.size(), BytesOf(sources_[0].Info()),
        [&](size_t i) { return MeasureFrame(Pixels(i)); },
        [&](size_t i, const auto& result) { measures[i] = result(); });
    Registrar registrar(measures[0], [&] { return Lent(Pixels(0)); });
    places_ = {ReferenceRegistration(measures[0])};
    for (size_t i = 1; i < sources_.size(); ++i) {
      job_.CheckCancelled();
      Registration place = registrar.Register(measures[i], [&] { return Lent(Pixels(i)); });
      if (!place.IsGood()) {
        throw files::FileError(
            Name(i), fmt::format("cannot be laid on {}: {}; leave it as it lies by --register none", Name(0),
                                 place.Text()));
      }
      place.file = Name(i);
      job_.Tell(ToJson(place), fmt::format("{}: dx {:.3f}, dy {:.3f}, {:.4f} degrees by {}", Name(i),
                                           place.dx, place.dy, place.degrees, place.method));
      places_.push_back(Settled(place, Pixels(i)));
    }
  }

  /// A source that lies on the first already, within what stars tell, is not sampled anew.
  static Registration Settled(Registration place, const CVelImage& image) {
    constexpr double kSame = 0.02;  // pixels, chosen: about what phase correlation is off by
    const double turn =
        std::abs(place.degrees) * M_PI / 180 * std::hypot(image.GetWidth(), image.GetHeight()) / 2;
    const double dx = std::round(place.dx), dy = std::round(place.dy);
    if (turn + std::hypot(place.dx - dx, place.dy - dy) < kSame)
      place.dx = dx, place.dy = dy, place.degrees = 0;
    return place;
  }

  bool IsBySky() const {
    return options_.levels == LevelsBy::Sky ||
           (options_.levels == LevelsBy::Auto && options_.composition == Composition::Lrgb);
  }

  /// What is measured of an image for its levels.
  struct Sky {
    FrameLevels levels;
    double highest = 0;  ///< value of any plane above its sky
    /// How far black lies below the sky of all planes: below all pixels but those far out, such as edges that
    /// no frame reached.
    double depth = 0;

    explicit Sky(CVelImage& image) : levels(MeasureLevels(image)) {
      constexpr double kLeast = 12, kMost = 50;  // times the noise; chosen
      for (int p = 0; p < image.GetPlanes(); ++p) {
        const auto [min, max] = FiniteExtremes(image, p);
        highest = std::max(highest, max - levels.level[p]);
        depth = std::max(
            depth, std::clamp(levels.level[p] - min, kLeast * levels.noise[p], kMost * levels.noise[p]));
      }
    }
    /// Sets black by a depth below the sky of each plane, and one range for all.
    void SetLevels(CVelImage& image, double below, double range) const {
      for (int p = 0; p < image.GetPlanes(); ++p) {
        const double black = levels.level[p] - below;
        image.SetLevel(p, black, black + (range > 0 ? range : 1));
      }
    }
  };

  /// Light of the colours, the mean of the three, in that of the luminance, where this is well above its sky
  /// and not saturated; 1 where there is no such light.
  double ShareOfLuminance(CVelImage& luminance, const Sky& sky, CVelImage& colours,
                          const Sky& colourSky) const {
    constexpr double kSigmas = 5, kSaturated = 0.7;  // chosen; the latter of the highest light
    const double least = kSigmas * sky.levels.noise[0], most = kSaturated * sky.highest;
    double ofLuminance = 0, ofColours = 0;
    for (const auto& [lit, coloured] : MapLines(0, colours.GetHeight(), [&](int y) {
           std::pair<double, double> light;
           const float* first = luminance.GetLine(area_.left, area_.top + y, 0);
           const std::vector<float> line(first, first + area_.Width());
           for (int p = 0; p < 3; ++p) {
             const float* colour = colours.GetLine(0, y, p);
             for (size_t x = 0; x < line.size(); ++x) {
               const double l = line[x] - sky.levels.level[0], c = colour[x] - colourSky.levels.level[p];
               if (!(l > least && l < most) || !std::isfinite(c)) continue;
               light.first += l;
               light.second += c;
             }
           }
           return light;
         })) {
      ofLuminance += lit;
      ofColours += coloured;
    }
    return ofLuminance > 0 && ofColours > 0 ? ofColours / ofLuminance : 1;
  }

  /// Brings luminance and colours to shares of white that are alike where their light is, with all pixels
  /// within what Lab is made of: black lies far below the noise.
  void SetLevelsBySky(CVelImage& luminance, CVelImage& colours) const {
    constexpr double kMostWhites = 5000.0 / 255 / 1.01;  // a little less than what CImgLrgbCmpst takes
    const Sky sky(luminance), colourSky(colours);
    const double share = ShareOfLuminance(luminance, sky, colours, colourSky);
    const double depth = std::max(sky.depth, colourSky.depth / share);
    const double range = (std::max(sky.highest, colourSky.highest / share) + depth) / kMostWhites;
    sky.SetLevels(luminance, depth, range);
    colourSky.SetLevels(colours, share * depth, share * range);
  }

  /// An operation that writes three planes of the first source's size.
  template <class Operation>
  std::unique_ptr<Operation> Target() {
    const CVelImage& first = Pixels(0);
    const CVelImage shape(first.VmManager(), CImage::Float, area_.Width(), area_.Height(), 3, 1.0, 0.0, 1,
                          nullptr);
    auto target = std::make_unique<Operation>();
    if (!target->Create(shape, nullptr)) throw velora::CVmMemoryAllocationError(kFull);
    target->SetProgressHandle(job_.OperationWindow("composing"));
    return target;
  }

  std::unique_ptr<CVelImage> OfColours() {
    const auto call = [&](auto& target, auto... more) {
      const size_t s[] = {Colour(0), Colour(1), Colour(2)};
      target.Do(&Pixels(s[0]), Across(s[0]), Down(s[0]), places_[s[0]].degrees, &Pixels(s[1]), Across(s[1]),
                Down(s[1]), places_[s[1]].degrees, &Pixels(s[2]), Across(s[2]), Down(s[2]),
                places_[s[2]].degrees, 0, options_.kernel, nullptr, more...);
      job_.EndProgress();
    };
    std::unique_ptr<CVelImage> image;
    if (options_.composition == Composition::Cmy) {
      auto target = Target<CImgCmyComposit>();
      call(*target, 0, 1);
      image = std::move(target);
    } else {
      auto target = Target<CImgRgbCmpst>();
      call(*target, nullptr, 1, CString());
      image = std::move(target);
    }
    if (!hasLuminance_) {
      if (IsBySky()) {
        const Sky sky(*image);
        sky.SetLevels(*image, sky.depth, sky.highest + sky.depth);
      }
      return image;
    }
    if (IsBySky()) SetLevelsBySky(Pixels(0), *image);
    auto lit = Target<CImgLrgbCmpst>();
    lit->DoLrgb(&Pixels(0), Across(0), Down(0), 0, image.get(), 0, 0, 0, 0, 1.0, nullptr, 0, 0, 1);
    job_.EndProgress();
    return lit;
  }

  std::unique_ptr<CVelImage> OfLab() {
    auto image = Target<CImgLrgbCmpst>();
    image->DoLab(&Pixels(0), Across(0), Down(0), 0, &Pixels(1), Across(1), Down(1), places_[1].degrees,
                 options_.kernel, 1.0, 0, nullptr, 1);
    job_.EndProgress();
    return image;
  }

  /// Brings the skies of all planes to that of the first.
  static void EqualiseSkies(CVelImage& image) {
    const FrameLevels sky = MeasureLevels(image);
    const double percent = 100 / image.GetLevelRange(0);
    {
      Loan<CImgColorBalance> loan(image);
      loan.borrower.Do(0, (sky.level[0] - sky.level[1]) * percent, (sky.level[0] - sky.level[2]) * percent,
                       &loan.borrower, nullptr, 0);
    }
    for (int p = 1; p < 3; ++p) {
      const double shift = sky.level[0] - sky.level[p];
      image.SetLevel(p, image.GetLevelMin(p) + shift, image.GetLevelMax(p) + shift);
    }
  }

  files::Header MakeHeader() {
    files::Header header = sources_[0].Header();
    for (const char* key : {"FILTER", "FILTER1", "FILTER2"}) {
      header.Remove(key);
    }
    files::DropGain(header);
    header.AddHistory(fmt::format("korimg {} compose {} --kernel {} --levels {} --background {}", Version(),
                                  NameOf(kCompositions, options_.composition),
                                  NameOf(kKernels, options_.kernel), NameOf(kLevelsBy, options_.levels),
                                  NameOf(kBackgrounds, options_.backgrounds)));
    for (size_t i = 0; i < sources_.size(); ++i) {
      const std::string filter = FilterOf(sources_[i].Header());
      header.AddHistory(fmt::format("{}{}: dx {:.3f} dy {:.3f} turned {:.4f}", Name(i),
                                    filter.empty() ? "" : " (" + filter + ")", places_[i].dx, places_[i].dy,
                                    places_[i].degrees));
    }
    const CVelImage& first = Pixels(0);
    std::ignore = files::MoveHeader(header, {first.GetWidth(), first.GetHeight(), 3},
                                    {area_.Width(), area_.Height(), 3},
                                    files::AffineMap::Shift(-area_.left, -area_.top));
    return header;
  }

  /// Takes rows and columns off that hold blank pixels, the side with the largest share of them first: there
  /// a source has no data, as the ragged edges of stacks.
  void TrimBlankEdges(std::unique_ptr<CVelImage>& image) {
    CRect rest(0, 0, image->GetWidth(), image->GetHeight());
    const auto isBlank = [&](int x, int y) {
      for (int p = 0; p < 3; ++p) {
        if (!std::isfinite(*image->GetLine(x, y, p))) return true;
      }
      return false;
    };
    const auto share = [&](int count, auto&& at) {
      int blank = 0;
      for (int i = 0; i < count; ++i) {
        blank += at(i);
      }
      return static_cast<double>(blank) / count;
    };
    while (!rest.IsRectEmpty()) {
      const double sides[] = {
          share(rest.Height(), [&](int i) { return isBlank(rest.left, rest.top + i); }),
          share(rest.Height(), [&](int i) { return isBlank(rest.right - 1, rest.top + i); }),
          share(rest.Width(), [&](int i) { return isBlank(rest.left + i, rest.top); }),
          share(rest.Width(), [&](int i) { return isBlank(rest.left + i, rest.bottom - 1); })};
      const auto worst = std::max_element(std::begin(sides), std::end(sides)) - std::begin(sides);
      if (sides[worst] == 0) break;
      if (worst == 0) ++rest.left;
      if (worst == 1) --rest.right;
      if (worst == 2) ++rest.top;
      if (worst == 3) --rest.bottom;
    }
    if (rest.IsRectEmpty())
      throw files::FileError(Name(0), "shares no pixel that has data with all the others");
    if (rest.Width() == image->GetWidth() && rest.Height() == image->GetHeight()) return;
    auto trimmed = std::make_unique<CImgCrop>();
    if (!trimmed->Create(*image, nullptr) || !trimmed->Do(rest, image.get(), 0)) {
      throw velora::CVmMemoryAllocationError(kFull);
    }
    image = std::move(trimmed);
    area_ =
        CRect(area_.left + rest.left, area_.top + rest.top, area_.left + rest.right, area_.top + rest.bottom);
  }

  /// The part of the first source's grid that the result has.
  CRect FindArea() {
    const int width = Pixels(0).GetWidth(), height = Pixels(0).GetHeight();
    if (!options_.crops) return {0, 0, width, height};
    std::vector<Placement> placements;
    for (size_t i = 0; i < sources_.size(); ++i) {
      placements.push_back(
          {Pixels(i).GetWidth(), Pixels(i).GetHeight(), places_[i].dx, places_[i].dy, places_[i].degrees});
    }
    const CRect area = CommonArea(width, height, placements);
    if (area.IsRectEmpty()) {
      throw files::FileError(Name(0), "shares no pixel with all the others; compose them by --crop none");
    }
    return area;
  }

  Job& job_;
  const ComposeOptions& options_;
  std::vector<Image> sources_;
  bool hasLuminance_;
  std::vector<Registration> places_;  ///< of the sources on the first
  CRect area_;                        ///< of the first that the result has
};

std::string TextOf(const ComposeFilesOptions& options) {
  std::string text = fmt::format("compose {}", NameOf(kCompositions, options.composition));
  if (!options.luminance.empty()) text += " " + options.luminance.string();
  for (const fs::path& colour : options.colours) {
    text += " " + colour.string();
  }
  return text;
}

void Tell(Job& job, const ComposeFilesOptions& options) {
  nlohmann::ordered_json json{{"composition", NameOf(kCompositions, options.composition)},
                              {"luminance", options.luminance.string()},
                              {"colours", nlohmann::ordered_json::array()},
                              {"output", options.output.string()}};
  for (const fs::path& colour : options.colours) {
    json["colours"].push_back(colour.string());
  }
  job.Tell(Dump(json), fmt::format("{} -> {}", TextOf(options), options.output.string()));
}

/// Refuses calls that name too few files, or too many.
void Check(const ComposeFilesOptions& options) {
  const bool wantsLuminance = HasLuminance(options.composition);
  const std::string name = NameOf(kCompositions, options.composition);
  if (wantsLuminance && options.luminance.empty())
    throw UsageError(name + " wants a luminance: give --luminance");
  if (!wantsLuminance && !options.luminance.empty()) {
    throw UsageError(name + " takes no luminance; lrgb does");
  }
}

}  // namespace

Image Compose(Job& job, std::vector<Image> sources, const ComposeOptions& options) {
  return AtEdge([&] { return Composer(job, std::move(sources), options).Do(); });
}

void ComposeFiles(Job& job, const ComposeFilesOptions& options) {
  AtEdge([&] {
    Check(options);
    job.CheckOutput(options.output);
    const auto store = job.MakeStore(options.paged);
    std::vector<Image> sources;
    if (!options.luminance.empty())
      sources.push_back(Image::Open(job, store, options.luminance, {.hdu = options.hdu}));
    for (const fs::path& colour : options.colours) {
      sources.push_back(Image::Open(job, store, colour, {.hdu = options.hdu}));
    }
    const Image image = Compose(job, std::move(sources), options);
    SaveImage(job, image.Pixels(), image.Header(), options.output, {.integers = options.integers});
    Tell(job, options);
  });
}

void PlanComposeFiles(Job& job, const ComposeFilesOptions& options) {
  AtEdge([&] {
    Check(options);
    job.CheckOutput(options.output);
    Tell(job, options);
  });
}

}  // namespace korimg::session
