#include <algorithm>

#include <fmt/format.h>

#include "korimg/pipelines/runtime/Runtime.h"

#include "session/files/Formats.h"
#include "session/register/internal/MapJson.h"
#include "session/run/internal/Road.h"
#include "session/stack/internal/RejectedPixels.h"

namespace korimg::session {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

std::vector<StackInput> Road::Inputs(const std::vector<RunLight*>& used) const {
  std::vector<StackInput> inputs;
  for (const RunLight* frame : used) {
    StackInput input{frame->light->Name(), frame->shape};
    input.dx = frame->registration.dx;
    input.dy = frame->registration.dy;
    input.degrees = frame->registration.degrees;
    input.map = frame->registration.map;
    input.levels = frame->levels;
    input.read = [this, frame](const Band<float>& to) {
      LightRows(session_, *frame->light, frame->border).Read(to);
    };
    input.readQuality = [this, frame](const Band<float>& to, const QualityRows& quality) {
      LightRows(session_, *frame->light, frame->border).Read(to, quality);
    };
    if (const DevelopedNoise* noise = session_.NoiseOfDevelopment(*frame->light)) {
      input.correlation = noise->CorrelationOfNoise();
    }
    inputs.push_back(std::move(input));
  }
  return inputs;
}

void Road::StackFrames(RunTarget& target) {
  std::vector<RunLight*> used;
  size_t reference = 0;
  for (RunLight* frame : target.frames) {
    if (!frame->IsUsed()) continue;
    used.push_back(frame);
  }
  // The light of a filter is that of its clearest frame, unless it is the reference's own.
  for (size_t i = 1; i < used.size(); ++i) {
    const auto light = [&](size_t k) { return used[k]->registration.fluxRatio.value_or(0); };
    if (light(i) > light(reference)) reference = i;
  }
  for (size_t i = 0; i < used.size(); ++i) {
    if (used[i] == &Grid()) reference = i;
  }
  if (used.empty()) {
    job_.Fail(fmt::format("{}: no frame is left to stack", target.name));
    return;
  }
  std::vector<StackInput> inputs = Inputs(used);
  const QualityOptions& wanted = options_.calibrate.quality;
  StackOptions options = options_.stack.Options();
  options.memory = DefaultStackMemory(job_);
  options.uncertainty = wanted.uncertainty;
  options.mask = wanted.mask;
  std::vector<double> fwhms;
  for (const RunLight* frame : used) {
    fwhms.push_back(frame->measure.fwhm);
  }
  CheckScales(inputs, static_cast<int>(reference));
  options_.stack.Weigh(inputs, fwhms, static_cast<int>(reference));
  const Shape shape = Grid().shape;
  Plan(fmt::format("{}: {} of {} frames, {}", target.name, used.size(), target.frames.size(),
                   PlanStack(inputs, shape, options).Text()));
  for (size_t i = 0; i < used.size(); ++i) {
    used[i]->weight = inputs[i].Weight();
    used[i]->weights = inputs[i].Weights();
  }
  const std::string digest = DigestOf(target, used, *used[reference]);
  if (TakeKeptStack(target, used, digest)) return;

  const auto store = job_.MakeStore();
  if (options_.stack.drizzle) {
    const Drizzled drizzled =
        DrizzleFrames(target, used, inputs, static_cast<int>(reference), options, store);
    KeepStack(target, used, digest,
              SaveStack(target, used, *used[reference], *drizzled.image, {}, &drizzled));
    return;
  }
  const auto image = NewImage(store, shape.width, shape.height, shape.planes);
  const Quality quality = NewQuality(store, wanted, shape.width, shape.height, shape.planes);
  const auto take = [&](const StackBand& band) {
    for (size_t i = 0; i < band.counts.size(); ++i) {
      used[i]->counts += band.counts[i];
    }
    const QualityRows rows = quality.Rows(band.result.Top(), band.result.Rows());
    if (quality.variance) CopyPixels(band.variance, rows.variance);
    if (quality.mask) CopyPixels(band.mask, rows.mask);
  };
  Stack(job_, inputs, static_cast<int>(reference), options, 0, take, image.get());
  KeepStack(target, used, digest, SaveStack(target, used, *used[reference], *image, quality));
}

/// Lights of a colour camera are drizzled by the sites of their mosaics; what is rejected of these was told
/// by the developed ones.
Road::Drizzled Road::DrizzleFrames(const RunTarget& target, const std::vector<RunLight*>& used,
                                   const std::vector<StackInput>& inputs, int reference,
                                   const StackOptions& options, const std::shared_ptr<CVmManager>& store) {
  const CImgDrizzle::Options& grid = *options_.stack.drizzle;
  session::DrizzleFrames frames{inputs, reference, options.normalisation};
  for (const RunLight* frame : used) {
    if (frame->light->mosaic.cfa == 0) continue;
    frames.mosaics.push_back({PlanesOfSites(frame->light->mosaic.cfa), [this, frame](const Band<float>& to) {
                                LightRows(session_, *frame->light, frame->border).ReadSites(to);
                              }});
  }
  std::optional<RejectedPixels> rejected;
  if (options_.stack.Rejects()) {
    rejected.emplace(Path(target.name + ".fits"), "", inputs[reference].shape, inputs.size(),
                     Journal::Passing);
    FindRejected(job_, inputs, reference, options, *rejected);
    frames.rejected = &*rejected;
  }
  const CImgDrizzle made = GridOf(inputs[reference], grid);
  const int planes = inputs[reference].shape.planes;
  Drizzled drizzled{NewImage(store, made.Width(), made.Height(), planes),
                    NewImage(store, made.Width(), made.Height(), planes), std::nullopt};
  WeightSpread spread(inputs, reference, grid);
  Plan(fmt::format("{}: {} x {}, {}", target.name, made.Width(), made.Height(),
                   PlanDrizzle(frames, grid, options.memory).Text()));
  Drizzle(job_, frames, grid, options.memory, 0, [&](const StackBand& band) {
    CopyPixels(band.result, Image::RowsOf(*drizzled.image, band.result.Top(), band.result.Rows()));
    CopyPixels(band.weights, Image::RowsOf(*drizzled.weights, band.weights.Top(), band.weights.Rows()));
    spread.Add(band.weights);
    for (size_t i = 0; i < used.size() && !rejected; ++i) {
      used[i]->counts += band.counts[i];
    }
  });
  for (size_t i = 0; i < used.size() && rejected; ++i) {
    used[i]->counts = rejected->Counts()[i];
  }
  drizzled.spread = spread.Get();
  return drizzled;
}

/// All that a stack and its files depend on.
std::string Road::DigestOf(const RunTarget& target, const std::vector<RunLight*>& used,
                           const RunLight& reference) const {
  KeptJson made{{"korimg", Version()},           {"stack", options_.stack.Text()},
                {"gradient", options_.gradient}, {"lights", target.frames.size()},
                {"reference", reference.digest}, {"grid", Grid().digest}};
  const QualityOptions& quality = options_.calibrate.quality;
  made["quality"] = {quality.uncertainty, quality.mask, quality.gain.value_or(0),
                     quality.readNoise.value_or(0)};
  for (const RunLight* frame : used) {
    const Registration& r = frame->registration;
    made["frames"].push_back({frame->digest, frame->weights, r.dx, r.dy, r.degrees, r.fluxRatio.value_or(0),
                              r.map ? KeptJson(ToJson(*r.map)) : KeptJson()});
  }
  return made.dump();
}

std::vector<fs::path> Road::OutputsOf(const RunTarget& target) const {
  std::vector<fs::path> outputs;
  for (const char* extension : {".fits", "_float.tif", "_16bit.tif", ".png"}) {
    outputs.push_back(Path(target.name + extension));
  }
  if (options_.gradient) outputs.push_back(Path(target.name + "_gradient.fits"));
  if (options_.stack.drizzle) outputs.push_back(Path(target.name + "_weights.fits"));
  return outputs;
}

/// States of a stack's files, so that what somebody changed is made again.
KeptJson Road::StampsOf(const RunTarget& target) const {
  KeptJson stamps = KeptJson::array();
  for (const fs::path& output : OutputsOf(target)) {
    stamps.push_back(fs::exists(output) ? files::StampOf(output) : "");
  }
  return stamps;
}

void Road::KeepStack(const RunTarget& target, const std::vector<RunLight*>& used, const std::string& digest,
                     const Json& told) {
  KeptJson counts = KeptJson::array();
  for (const RunLight* frame : used) {
    counts.push_back(frame->counts);
  }
  state_->Keep(target.name, digest,
               {{"files", StampsOf(target)},
                {"counts", std::move(counts)},
                {"told", KeptJson(told)},
                {"stack", stacks_.back()},
                {"report", report_.stacks.back()}});
}

/// A stack that an earlier call has made of the same frames is as good as a new one.
bool Road::TakeKeptStack(const RunTarget& target, const std::vector<RunLight*>& used,
                         const std::string& digest) {
  const auto kept = state_->Find(target.name, digest);
  if (!kept || kept->at("files") != StampsOf(target)) return false;
  for (size_t i = 0; i < used.size(); ++i) {
    used[i]->counts = kept->at("counts").at(i);
  }
  report_.stacks.push_back(kept->at("report"));
  stacks_.push_back(kept->at("stack"));
  stacks_.back().file = Path(target.name + ".fits");
  if (!stacks_.back().gradient.empty()) stacks_.back().gradient = Path(target.name + "_gradient.fits");
  TellStack(stacks_.back(), Json(kept->at("told")), "as it was made before");
  return true;
}

}  // namespace korimg::session
