#include <algorithm>

#include <fmt/format.h>

#include "korimg/pipelines/runtime/Runtime.h"

#include "session/calibrate/internal/LightRows.h"
#include "session/compose/Compose.h"
#include "session/files/Gain.h"
#include "session/files/Geometry.h"
#include "session/files/internal/Times.h"
#include "session/job/internal/SideBySide.h"
#include "session/picture/AutoPicture.h"
#include "session/run/internal/Gradient.h"
#include "session/run/internal/TargetStack.h"
#include "session/stack/internal/StackHeader.h"

namespace korimg::session {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

namespace {

constexpr int kPictureSide = 1400;  // pixels; chosen for a screen

}  // namespace

/// What became of a stack, for people and programs.
void TargetStack::Tell(const RunStack& made, const Json& more, const std::string& how) const {
  Json json{{"stack", made.file.string()}, {"filter", made.filter}};
  json.update(more);
  json.update({{"frames", made.frames},
               {"lights", made.lights},
               {"exposure", made.exposure},
               {"stars", made.stars},
               {"fwhm", made.fwhm},
               {"noise", made.noise},
               {"peak_memory_bytes", PeakMemory()}});
  run_.job.Tell(Dump(json),
                fmt::format("{} -> {}: FWHM {:.2f} px, noise {:.4g} {}", made.file.stem().string(),
                            made.file.string(), made.fwhm, made.noise, how));
}

/// Calls what takes one thread each.
void TargetStack::Together(const std::string& title, const std::vector<std::function<void()>>& parts) const {
  SideBySide(
      run_.job, title, parts.size(), run_.BytesOfFrame(), [&](size_t i) { parts[i](); },
      [](size_t, const auto& result) { result(); });
}

std::vector<std::string> TargetStack::History() const {
  return {fmt::format("korimg {} run {}", Version(), run_.options.stack.Text()),
          fmt::format("{} frames stacked, {} left out; on the grid of {}", used_.size(),
                      target_.frames.size() - used_.size(), run_.GridName())};
}

Json TargetStack::Save(CVelImage& image, const Quality& quality, const RejectionMaps& maps,
                       const Drizzled* drizzled) {
  const RunLight& reference = Reference();
  LightRows source(run_.session, *reference.light);
  files::Header first = source.Info().header;
  run_.session.Describe(first, *reference.light, reference.clipped);
  const Shape shape = reference.shape, size{image.GetWidth(), image.GetHeight(), image.GetPlanes()};
  if (&reference != &run_.Grid() &&
      !files::DropWorldCoordinates(first, {shape.width, shape.height, shape.planes},
                                   "the grid is that of a frame of another stack")) {
    throw files::FileError(reference.light->frame.path, "is an undeveloped mosaic, which cannot be moved");
  }
  StackHeader collected(first);
  const Normalisation normalisation = options_.normalisation;
  for (const RunLight* frame : used_) {
    collected.Add(frame->light->frame.info.header, frame->weight,
                  ScaleOf(frame->levels, reference.levels, normalisation));
  }
  files::Header header = collected.Make(normalisation == Normalisation::LevelAndScale);
  for (const std::string& line : History()) {
    header.AddHistory(line);
  }
  ReportStack stack{target_.name};
  RunStack made{run_.Path(target_.name + ".fits"), target_.filter};
  Json more = Json::object();
  if (drizzled) {
    ToGrid(header, shape, *run_.options.stack.drizzle);
    // Each colour of a mosaic got its part of the light alone.
    if (reference.light->mosaic.cfa > 0) files::DropGain(header);
    const fs::path file = run_.Path(target_.name + "_weights.fits");
    SaveImage(run_.job, *drizzled->weights, header, file);
    more["weights"] = file.string();
    TellDrizzle(run_.job, *run_.options.stack.drizzle, drizzled->spread, more);
  }
  for (const auto& [map, name] : {std::pair(maps.low.get(), "low"), {maps.high.get(), "high"}}) {
    if (!map) continue;
    files::Header told = header;
    told.AddHistory(fmt::format("pixels are numbers of values rejected as too {}", name));
    files::DropGain(told);
    const fs::path file = run_.Path(fmt::format("{}_{}.fits", target_.name, name));
    SaveImage(run_.job, *map, told, file);
    more[fmt::format("rejected_{}", name)] = file.string();
  }
  if (run_.options.gradient) {
    if (const auto taken = TakeGradientOff(image)) {
      made.gradient = run_.Path(target_.name + "_gradient.fits");
      SaveImage(run_.job, *taken->surface, header, made.gradient);
      header.AddHistory("gradient subtracted: " + taken->Text());
      files::DropGain(header);  // the sky's photons are no longer in the values
      Levels shown(*taken->surface);
      if (files::IsPictureOverturned(header)) TurnOver(*taken->surface);
      stack.gradient = JpegOf(run_.job, *taken->surface, shown, ShrinkTo(size, kThumbnailSide));
      stack.facts.emplace_back("gradient taken off", taken->Text());
      more["gradient"] = taken->Description();
      run_.job.Say(fmt::format("{}: gradient taken off: {} -> {}", target_.name, taken->Text(),
                               made.gradient.string()));
    } else {
      run_.job.Warn(target_.name + ": its gradient stays: there are too few boxes of sky to tell it by");
    }
  }
  LevelForPreview(image, kPictureSide);
  FrameMeasure measure;
  Levels shown;
  const std::vector<std::function<void()>> own{
      [&] { SaveImage(run_.job, image, header, made.file, {}, quality); },
      [&] { SaveImage(run_.job, image, header, run_.Path(target_.name + "_16bit.tif"), {.integers = true}); },
      [&] { SaveImage(run_.job, image, header, run_.Path(target_.name + "_float.tif")); },
      [&] { measure = MeasureFrame(image); }};
  std::vector<std::function<void()>> all{
      // the longest first
      [&] { SavePicture(run_.job, image, shown, run_.Path(target_.name + ".png"), 1); },
      [&] { stack.picture = JpegOf(run_.job, image, shown, ShrinkTo(size, kPictureSide)); }};
  if (files::IsPictureOverturned(header)) {
    Together("writing " + target_.name, own);
    TurnOver(image);
  } else {
    all.insert(all.begin() + 1, own.begin(), own.end());
  }
  shown = StretchForPicture(image);
  Together("writing " + target_.name, all);

  double exposure = 0;
  CImgStack::Counts counts;
  for (const RunLight* frame : used_) {
    exposure += files::ExposureOf(frame->light->frame.info.header).value_or(0);
    counts += frame->counts;
  }
  stack.facts.insert(
      stack.facts.begin(),
      {{"frames", fmt::format("{} of {}", used_.size(), target_.frames.size())},
       {"exposure", fmt::format("{:g} s", exposure)},
       {"size", fmt::format("{} x {}", size.width, size.height)},
       {"stars", fmt::format("{}", measure.starCount)},
       {"FWHM", fmt::format("{:.2f} px; of the reference {:.2f}", measure.fwhm, reference.measure.fwhm)},
       {"noise of the sky",
        fmt::format("{:.4g}; of the reference {:.4g}", measure.noise, reference.measure.noise)},
       {"rejected", Percent(ShareRejected(counts))}});
  if (!target_.filter.empty()) stack.facts.insert(stack.facts.begin(), {"filter", target_.filter});
  run_.report.stacks.push_back(std::move(stack));
  made.frames = static_cast<int>(used_.size()), made.lights = static_cast<int>(target_.frames.size());
  made.exposure = exposure;
  made.stars = measure.starCount, made.fwhm = measure.fwhm, made.noise = measure.noise;
  Tell(made, more, fmt::format("(reference {:.4g})", reference.measure.noise));
  run_.stacks.push_back(std::move(made));
  return more;
}

bool ComposeColours(RunContext& run) {
  const auto store = run.job.MakeStore();
  std::vector<Image> sources;
  for (const size_t i : run.colours->filters) {
    const fs::path file = run.Path(run.targets[i].name + ".fits");
    const bool isMade =
        std::any_of(run.stacks.begin(), run.stacks.end(), [&](const RunStack& s) { return s.file == file; });
    if (isMade) sources.push_back(Image::Open(run.job, store, file));
    if (!isMade || sources.back().Planes() != 1) {
      run.job.Warn(fmt::format("there is no colour image: {} {}", run.targets[i].name,
                               isMade ? "has colours itself" : "is missing"));
      return false;
    }
  }
  ComposeOptions options;
  options.composition = run.colours->composition;
  options.registers = options.crops = false;
  const Image image = Compose(run.job, std::move(sources), options);
  const Levels shown = StretchForPicture(image.Pixels());
  SaveImage(run.job, image.Pixels(), image.Header(), run.Path("colour.fits"));
  SaveImage(run.job, image.Pixels(), image.Header(), run.Path("colour.tif"), {.integers = true});
  if (files::IsPictureOverturned(image.Header())) TurnOver(image.Pixels());
  SavePicture(run.job, image.Pixels(), shown, run.Path("colour.png"), 1);
  const Shape shape{image.Width(), image.Height(), image.Planes()};
  run.report.stacks.insert(
      run.report.stacks.begin(),
      {"colour",
       JpegOf(run.job, image.Pixels(), shown, ShrinkTo(shape, kPictureSide)),
       {{"made of", run.colours->text}, {"size", fmt::format("{} x {}", shape.width, shape.height)}}});
  run.job.Tell(Dump({{"colour", run.Path("colour.fits").string()}, {"made_of", run.colours->text}}),
               fmt::format("colour: {} -> {}", run.colours->text, run.Path("colour.fits").string()));
  return true;
}

}  // namespace korimg::session
