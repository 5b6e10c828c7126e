#include <algorithm>

#include <fmt/format.h>

#include "korimg/pipelines/runtime/Runtime.h"

#include "session/compose/Compose.h"
#include "session/files/Gain.h"
#include "session/files/Geometry.h"
#include "session/files/internal/Times.h"
#include "session/job/internal/SideBySide.h"
#include "session/picture/AutoPicture.h"
#include "session/run/internal/Gradient.h"
#include "session/run/internal/Road.h"
#include "session/stack/internal/StackHeader.h"

namespace korimg::session {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

namespace {

constexpr int kPictureSide = 1400;  // pixels; chosen for a screen

}  // namespace

/// What became of a stack, for people and programs.
void Road::TellStack(const RunStack& made, const Json& more, const std::string& how) const {
  Json json{{"stack", made.file.string()}, {"filter", made.filter}};
  json.update(more);
  json.update({{"frames", made.frames},
               {"lights", made.lights},
               {"exposure", made.exposure},
               {"stars", made.stars},
               {"fwhm", made.fwhm},
               {"noise", made.noise},
               {"peak_memory_bytes", PeakMemory()}});
  job_.Tell(Dump(json), fmt::format("{} -> {}: FWHM {:.2f} px, noise {:.4g} {}", made.file.stem().string(),
                                    made.file.string(), made.fwhm, made.noise, how));
}

/// Calls what takes one thread each.
void Road::Together(const std::string& title, const std::vector<std::function<void()>>& parts) {
  SideBySide(
      job_, title, parts.size(), BytesOfFrame(), [&](size_t i) { parts[i](); },
      [](size_t, const auto& result) { result(); });
}

/// Answers what is told of it beside the numbers of all stacks.
Json Road::SaveStack(const RunTarget& target, const std::vector<RunLight*>& used, const RunLight& reference,
                     CVelImage& image, const Quality& quality, const RejectionMaps& maps,
                     const Drizzled* drizzled) {
  LightRows source(session_, *reference.light);
  files::Header first = source.Info().header;
  session_.Describe(first, *reference.light, reference.clipped);
  const Shape shape = reference.shape, size{image.GetWidth(), image.GetHeight(), image.GetPlanes()};
  if (&reference != &Grid() && !files::DropWorldCoordinates(first, {shape.width, shape.height, shape.planes},
                                                            "the grid is that of a frame of another stack")) {
    throw files::FileError(reference.light->frame.path, "is an undeveloped mosaic, which cannot be moved");
  }
  StackHeader collected(first);
  const Normalisation normalisation = options_.stack.Options().normalisation;
  for (const RunLight* frame : used) {
    collected.Add(frame->light->frame.info.header, frame->weight,
                  ScaleOf(frame->levels, reference.levels, normalisation));
  }
  files::Header header = collected.Make(normalisation == Normalisation::LevelAndScale);
  for (const std::string& line : History(used, target)) {
    header.AddHistory(line);
  }
  ReportStack stack{target.name};
  RunStack made{Path(target.name + ".fits"), target.filter};
  Json more = Json::object();
  if (drizzled) {
    ToGrid(header, shape, *options_.stack.drizzle);
    // Each colour of a mosaic got its part of the light alone.
    if (reference.light->mosaic.cfa > 0) files::DropGain(header);
    const fs::path file = Path(target.name + "_weights.fits");
    SaveImage(job_, *drizzled->weights, header, file);
    more["weights"] = file.string();
    TellDrizzle(job_, *options_.stack.drizzle, drizzled->spread, more);
  }
  for (const auto& [map, name] : {std::pair(maps.low.get(), "low"), {maps.high.get(), "high"}}) {
    if (!map) continue;
    files::Header told = header;
    told.AddHistory(fmt::format("pixels are numbers of values rejected as too {}", name));
    files::DropGain(told);
    const fs::path file = Path(fmt::format("{}_{}.fits", target.name, name));
    SaveImage(job_, *map, told, file);
    more[fmt::format("rejected_{}", name)] = file.string();
  }
  if (options_.gradient) {
    if (const auto taken = TakeGradientOff(image)) {
      made.gradient = Path(target.name + "_gradient.fits");
      SaveImage(job_, *taken->surface, header, made.gradient);
      header.AddHistory("gradient subtracted: " + taken->Text());
      files::DropGain(header);  // the sky's photons are no longer in the values
      Levels shown(*taken->surface);
      if (files::IsPictureOverturned(header)) TurnOver(*taken->surface);
      stack.gradient = JpegOf(job_, *taken->surface, shown, ShrinkTo(size, kThumbnailSide));
      stack.facts.emplace_back("gradient taken off", taken->Text());
      more["gradient"] = taken->Description();
      job_.Say(fmt::format("{}: gradient taken off: {} -> {}", target.name, taken->Text(),
                           made.gradient.string()));
    } else {
      job_.Warn(target.name + ": its gradient stays: there are too few boxes of sky to tell it by");
    }
  }
  LevelForPreview(image, kPictureSide);
  FrameMeasure measure;
  Levels shown;
  const std::vector<std::function<void()>> own{
      [&] { SaveImage(job_, image, header, made.file, {}, quality); },
      [&] { SaveImage(job_, image, header, Path(target.name + "_16bit.tif"), {.integers = true}); },
      [&] { SaveImage(job_, image, header, Path(target.name + "_float.tif")); },
      [&] { measure = MeasureFrame(image); }};
  std::vector<std::function<void()>> all{
      // the longest first
      [&] { SavePicture(job_, image, shown, Path(target.name + ".png"), 1); },
      [&] { stack.picture = JpegOf(job_, image, shown, ShrinkTo(size, kPictureSide)); }};
  if (files::IsPictureOverturned(header)) {
    Together("writing " + target.name, own);
    TurnOver(image);
  } else {
    all.insert(all.begin() + 1, own.begin(), own.end());
  }
  shown = StretchForPicture(image);
  Together("writing " + target.name, all);

  double exposure = 0;
  CImgStack::Counts counts;
  for (const RunLight* frame : used) {
    exposure += files::ExposureOf(frame->light->frame.info.header).value_or(0);
    counts += frame->counts;
  }
  stack.facts.insert(
      stack.facts.begin(),
      {{"frames", fmt::format("{} of {}", used.size(), target.frames.size())},
       {"exposure", fmt::format("{:g} s", exposure)},
       {"size", fmt::format("{} x {}", size.width, size.height)},
       {"stars", fmt::format("{}", measure.starCount)},
       {"FWHM", fmt::format("{:.2f} px; of the reference {:.2f}", measure.fwhm, reference.measure.fwhm)},
       {"noise of the sky",
        fmt::format("{:.4g}; of the reference {:.4g}", measure.noise, reference.measure.noise)},
       {"rejected", Percent(ShareRejected(counts))}});
  if (!target.filter.empty()) stack.facts.insert(stack.facts.begin(), {"filter", target.filter});
  report_.stacks.push_back(std::move(stack));
  made.frames = static_cast<int>(used.size()), made.lights = static_cast<int>(target.frames.size());
  made.exposure = exposure;
  made.stars = measure.starCount, made.fwhm = measure.fwhm, made.noise = measure.noise;
  TellStack(made, more, fmt::format("(reference {:.4g})", reference.measure.noise));
  stacks_.push_back(std::move(made));
  return more;
}

/// Makes the colour image of the stacks, which lie on one grid. False when one of them is missing, or has
/// colours itself.
bool Road::ComposeColours() {
  const auto store = job_.MakeStore();
  std::vector<Image> sources;
  for (const size_t i : colours_->filters) {
    const fs::path file = Path(targets_[i].name + ".fits");
    const bool isMade =
        std::any_of(stacks_.begin(), stacks_.end(), [&](const RunStack& s) { return s.file == file; });
    if (isMade) sources.push_back(Image::Open(job_, store, file));
    if (!isMade || sources.back().Planes() != 1) {
      job_.Warn(fmt::format("there is no colour image: {} {}", targets_[i].name,
                            isMade ? "has colours itself" : "is missing"));
      return false;
    }
  }
  ComposeOptions options;
  options.composition = colours_->composition;
  options.registers = options.crops = false;
  const Image image = Compose(job_, std::move(sources), options);
  const Levels shown = StretchForPicture(image.Pixels());
  SaveImage(job_, image.Pixels(), image.Header(), Path("colour.fits"));
  SaveImage(job_, image.Pixels(), image.Header(), Path("colour.tif"), {.integers = true});
  if (files::IsPictureOverturned(image.Header())) TurnOver(image.Pixels());
  SavePicture(job_, image.Pixels(), shown, Path("colour.png"), 1);
  const Shape shape{image.Width(), image.Height(), image.Planes()};
  report_.stacks.insert(
      report_.stacks.begin(),
      {"colour",
       JpegOf(job_, image.Pixels(), shown, ShrinkTo(shape, kPictureSide)),
       {{"made of", colours_->text}, {"size", fmt::format("{} x {}", shape.width, shape.height)}}});
  job_.Tell(Dump({{"colour", Path("colour.fits").string()}, {"made_of", colours_->text}}),
            fmt::format("colour: {} -> {}", colours_->text, Path("colour.fits").string()));
  return true;
}

std::vector<std::string> Road::History(const std::vector<RunLight*>& used, const RunTarget& target) const {
  return {fmt::format("korimg {} run {}", Version(), options_.stack.Text()),
          fmt::format("{} frames stacked, {} left out; on the grid of {}", used.size(),
                      target.frames.size() - used.size(), NameOf(Grid()))};
}

}  // namespace korimg::session
