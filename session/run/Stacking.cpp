#include <algorithm>
#include <cstdio>

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

std::optional<Road::Making> Road::BeginStack(const RunTarget& target) {
  Making made;
  std::ranges::copy_if(target.frames, std::back_inserter(made.used),
                       [](const RunLight* frame) { return frame->IsUsed(); });
  if (made.used.empty()) return std::nullopt;
  // The light of a filter is that of its clearest frame, unless it is the reference's own.
  const auto light = [&](size_t k) { return made.used[k]->registration.fluxRatio.value_or(0); };
  for (size_t i = 1; i < made.used.size(); ++i) {
    if (light(i) > light(made.reference)) made.reference = i;
  }
  for (size_t i = 0; i < made.used.size(); ++i) {
    if (made.used[i] == &Grid()) made.reference = i;
  }
  made.inputs = Inputs(made.used);
  made.options = options_.stack.Options();
  made.options.memory = DefaultStackMemory(job_);
  made.options.uncertainty = options_.calibrate.quality.uncertainty;
  made.options.mask = options_.calibrate.quality.mask;
  made.options.rejectionMaps = options_.rejectionMaps;
  std::vector<double> fwhms;
  for (const RunLight* frame : made.used) {
    fwhms.push_back(frame->measure.fwhm);
  }
  const auto reference = static_cast<int>(made.reference);
  CheckScales(made.inputs, reference);
  options_.stack.Weigh(made.inputs, fwhms, reference);
  for (size_t i = 0; i < made.used.size(); ++i) {
    made.used[i]->weight = made.inputs[i].Weight();
    made.used[i]->weights = made.inputs[i].Weights();
  }
  made.digest = DigestOf(target, made.used, *made.used[made.reference]);
  return made;
}

void Road::StackFrames(const RunTarget& target) {
  const std::optional<Making> made = BeginStack(target);
  if (!made) {
    job_.Fail(fmt::format("{}: no frame is left to stack", target.name));
    return;
  }
  const Shape shape = Grid().shape;
  Plan(fmt::format("{}: {} of {} frames, {}", target.name, made->used.size(), target.frames.size(),
                   PlanStack(made->inputs, shape, made->options).Text()));
  if (TakeKeptStack(target, *made)) return;
  const auto store = job_.MakeStore();
  if (options_.stack.drizzle) {
    const Drizzled drizzled = DrizzleFrames(target, *made, store);
    KeepStack(
        target, *made,
        SaveStack(target, made->used, *made->used[made->reference], *drizzled.image, {}, {}, &drizzled));
    return;
  }
  const auto image = NewImage(store, shape.width, shape.height, shape.planes);
  const Quality quality =
      NewQuality(store, options_.calibrate.quality, shape.width, shape.height, shape.planes);
  RejectionMaps maps;
  if (options_.rejectionMaps) {
    for (auto* map : {&maps.low, &maps.high}) {
      *map = NewImage(store, shape.width, shape.height, shape.planes);
    }
  }
  const auto take = [&](const StackBand& band) {
    for (size_t i = 0; i < band.counts.size(); ++i) {
      made->used[i]->counts += band.counts[i];
    }
    const QualityRows rows = quality.Rows(band.result.Top(), band.result.Rows());
    if (quality.variance) CopyPixels(band.variance, rows.variance);
    if (quality.mask) CopyPixels(band.mask, rows.mask);
    if (!maps.low) return;
    CopyPixels(band.low, Image::RowsOf(*maps.low, band.low.Top(), band.low.Rows()));
    CopyPixels(band.high, Image::RowsOf(*maps.high, band.high.Top(), band.high.Rows()));
  };
  const auto stack = [&](int first, int end) {
    if (first == end) return;
    Stack(job_, made->inputs, static_cast<int>(made->reference), made->options, {first, end}, take,
          image.get());
  };
  // What tasks have stacked, and between that the rest.
  int row = 0, taken = 0;
  for (const auto& [rows, path] : PartsOf(target)) {
    const Journal part = OpenPart(*made, path, rows);
    if (rows.first < row || !part.IsWhole()) continue;
    stack(row, rows.first);
    part.ForBands([&](const StackBand& band) {
      CopyPixels(band.result, Image::RowsOf(*image, band.result.Top(), band.result.Rows()));
      take(band);
    });
    taken += rows.end - rows.first;
    row = rows.end;
  }
  if (taken > 0)
    job_.Say(fmt::format("{}: {} of {} rows were stacked before", target.name, taken, shape.height));
  stack(row, shape.height);
  KeepStack(target, *made,
            SaveStack(target, made->used, *made->used[made->reference], *image, quality, maps));
}

std::vector<Road::Part> Road::PartsOf(const RunTarget& target) const {
  std::vector<Part> parts;
  const std::string start = target.name + ".rows-";
  for (const auto& entry : fs::directory_iterator(state_->Folder())) {
    const std::string name = entry.path().filename().string();
    StackRows rows;
    if (!name.starts_with(start)) continue;
    int length = 0;
    const std::string numbers = name.substr(start.size());
    const bool isPart = std::sscanf(numbers.c_str(), "%d-%d%n", &rows.first, &rows.end, &length) == 2 &&
                        length == std::ssize(numbers) && rows.first >= 0 && rows.first <= rows.end;
    if (isPart && rows.end <= Grid().shape.height) parts.push_back({rows, entry.path()});
  }
  std::ranges::sort(parts, {}, [](const Part& part) { return std::pair(part.rows.first, part.rows.end); });
  return parts;
}

fs::path Road::PathOf(const RunTarget& target, const StackRows& rows) const {
  return state_->Folder() / fmt::format("{}.rows-{}-{}", target.name, rows.first, rows.end);
}

Journal Road::OpenPart(const Making& made, const fs::path& path, const StackRows& rows,
                       Journal::Use use) const {
  Journal::Images images{&StackBand::result};
  if (made.options.uncertainty) images.push_back(&StackBand::variance);
  if (made.options.mask) images.push_back(&StackBand::mask);
  if (made.options.rejectionMaps) images.insert(images.end(), {&StackBand::low, &StackBand::high});
  return {path, made.digest, Grid().shape, images, made.used.size(), use, rows};
}

bool Road::StackRowsOf(const RunTarget& target, int part, int parts) {
  const std::optional<Making> made = BeginStack(target);
  if (!made) {
    job_.Warn(fmt::format("{}: no frame is left to stack", target.name));
    return false;
  }
  if (FindKeptStack(target, *made)) return false;
  const StackRows rows = StackRows::Part(part, parts, Grid().shape.height);
  const fs::path path = PathOf(target, rows);
  if (fs::exists(path) && OpenPart(*made, path, rows).IsWhole()) return false;
  Journal stacked = OpenPart(*made, files::UniquePartialName(path), rows, Journal::Passing);
  Stack(job_, made->inputs, static_cast<int>(made->reference), made->options, rows,
        [&](const StackBand& band) {
          job_.CheckComputed(path);
          stacked.Add(band);
        });
  stacked.KeepAs(path);
  return true;
}

/// Lights of a colour camera are drizzled by the sites of their mosaics; what is rejected of these was told
/// by the developed ones.
Road::Drizzled Road::DrizzleFrames(const RunTarget& target, const Making& made,
                                   const std::shared_ptr<CVmManager>& store) {
  const auto& [used, number, inputs, options, digest] = made;
  const auto reference = static_cast<int>(number);
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
  const CImgDrizzle finer = GridOf(inputs[reference], grid);
  const int planes = inputs[reference].shape.planes;
  Drizzled drizzled{NewImage(store, finer.Width(), finer.Height(), planes),
                    NewImage(store, finer.Width(), finer.Height(), planes), std::nullopt};
  WeightSpread spread(inputs, reference, grid);
  Plan(fmt::format("{}: {} x {}, {}", target.name, finer.Width(), finer.Height(),
                   PlanDrizzle(frames, grid, options.memory).Text()));
  Drizzle(job_, frames, grid, options.memory, 0, [&, &used = made.used](const StackBand& band) {
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
  if (options_.rejectionMaps) made["rejection_maps"] = true;
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
  if (options_.rejectionMaps) {
    outputs.insert(outputs.end(), {Path(target.name + "_low.fits"), Path(target.name + "_high.fits")});
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

void Road::KeepStack(const RunTarget& target, const Making& made, const Json& told) {
  KeptJson counts = KeptJson::array();
  for (const RunLight* frame : made.used) {
    counts.push_back(frame->counts);
  }
  state_->Keep(target.name, made.digest,
               {{"files", StampsOf(target)},
                {"counts", std::move(counts)},
                {"told", KeptJson(told)},
                {"stack", stacks_.back()},
                {"report", report_.stacks.back()}});
  for (const Part& part : PartsOf(target)) {
    fs::remove(part.path);
  }
}

/// A stack that an earlier call has made of the same frames is as good as a new one.
std::optional<KeptJson> Road::FindKeptStack(const RunTarget& target, const Making& made) const {
  auto kept = state_->Find(target.name, made.digest);
  return kept && kept->at("files") == StampsOf(target) ? kept : std::nullopt;
}

bool Road::TakeKeptStack(const RunTarget& target, const Making& made) {
  const auto kept = FindKeptStack(target, made);
  if (!kept) return false;
  for (size_t i = 0; i < made.used.size(); ++i) {
    made.used[i]->counts = kept->at("counts").at(i);
  }
  report_.stacks.push_back(kept->at("report"));
  stacks_.push_back(kept->at("stack"));
  stacks_.back().file = Path(target.name + ".fits");
  if (!stacks_.back().gradient.empty()) stacks_.back().gradient = Path(target.name + "_gradient.fits");
  TellStack(stacks_.back(), Json(kept->at("told")), "as it was made before");
  return true;
}

}  // namespace korimg::session
