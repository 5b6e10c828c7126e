#include "session/run/internal/TargetStack.h"

#include <algorithm>
#include <cstdio>

#include <fmt/format.h>

#include "korimg/pipelines/runtime/Runtime.h"

#include "session/calibrate/internal/LightRows.h"
#include "session/files/Formats.h"
#include "session/register/internal/MapJson.h"
#include "session/stack/internal/RejectedPixels.h"

namespace korimg::session {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

std::vector<fs::path> OutputsOf(const RunContext& run, const RunTarget& target) {
  std::vector<fs::path> outputs;
  for (const char* extension : {".fits", "_float.tif", "_16bit.tif", ".png"}) {
    outputs.push_back(run.Path(target.name + extension));
  }
  if (run.options.rejectionMaps) {
    outputs.insert(outputs.end(),
                   {run.Path(target.name + "_low.fits"), run.Path(target.name + "_high.fits")});
  }
  if (run.options.gradient) outputs.push_back(run.Path(target.name + "_gradient.fits"));
  if (run.options.stack.drizzle) outputs.push_back(run.Path(target.name + "_weights.fits"));
  return outputs;
}

TargetStack::TargetStack(RunContext& run, const RunTarget& target)
    : run_(run), target_(target), options_(run.options.stack.Options()) {
  std::ranges::copy_if(target.frames, std::back_inserter(used_),
                       [](const RunLight* frame) { return frame->IsUsed(); });
  if (used_.empty()) return;
  // The light of a filter is that of its clearest frame, unless it is the reference's own.
  const auto light = [&](size_t k) { return used_[k]->registration.fluxRatio.value_or(0); };
  for (size_t i = 1; i < used_.size(); ++i) {
    if (light(i) > light(reference_)) reference_ = i;
  }
  for (size_t i = 0; i < used_.size(); ++i) {
    if (used_[i] == &run.Grid()) reference_ = i;
  }
  inputs_ = Inputs();
  options_.memory = DefaultStackMemory(run.job);
  options_.uncertainty = run.options.calibrate.quality.uncertainty;
  options_.mask = run.options.calibrate.quality.mask;
  options_.rejectionMaps = run.options.rejectionMaps;
  std::vector<double> fwhms;
  for (const RunLight* frame : used_) {
    fwhms.push_back(frame->measure.fwhm);
  }
  const auto reference = static_cast<int>(reference_);
  CheckScales(inputs_, reference);
  run.options.stack.Weigh(inputs_, fwhms, reference);
  for (size_t i = 0; i < used_.size(); ++i) {
    used_[i]->weight = inputs_[i].Weight();
    used_[i]->weights = inputs_[i].Weights();
  }
  digest_ = Digest();
}

void TargetStack::Make() {
  if (used_.empty()) {
    run_.job.Fail(fmt::format("{}: no frame is left to stack", target_.name));
    return;
  }
  run_.Plan(fmt::format("{}: {} of {} frames, {}", target_.name, used_.size(), target_.frames.size(),
                        PlanStack(inputs_, run_.Grid().shape, options_).Text()));
  if (TakeKept()) return;
  if (run_.options.stack.drizzle) {
    MakeDrizzled();
  } else {
    MakePlain();
  }
}

void TargetStack::MakeDrizzled() {
  const auto store = run_.job.MakeStore();
  const Drizzled drizzled = DrizzleFrames(store);
  Keep(Save(*drizzled.image, {}, {}, &drizzled));
}

void TargetStack::MakePlain() {
  const Shape shape = run_.Grid().shape;
  const auto store = run_.job.MakeStore();
  const auto image = NewImage(store, shape.width, shape.height, shape.planes);
  const Quality quality =
      NewQuality(store, run_.options.calibrate.quality, shape.width, shape.height, shape.planes);
  RejectionMaps maps;
  if (options_.rejectionMaps) {
    for (auto* map : {&maps.low, &maps.high}) {
      *map = NewImage(store, shape.width, shape.height, shape.planes);
    }
  }
  const auto take = [&](const StackBand& band) {
    for (size_t i = 0; i < band.counts.size(); ++i) {
      used_[i]->counts += band.counts[i];
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
    Stack(run_.job, inputs_, static_cast<int>(reference_), options_, {first, end}, take, image.get());
  };
  // What tasks have stacked, and between that the rest.
  int row = 0, taken = 0;
  for (const auto& [rows, path] : Parts()) {
    const Journal part = Open(path, rows);
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
    run_.job.Say(fmt::format("{}: {} of {} rows were stacked before", target_.name, taken, shape.height));
  stack(row, shape.height);
  Keep(Save(*image, quality, maps));
}

bool TargetStack::MakeRows(int part, int parts) {
  if (used_.empty()) {
    run_.job.Warn(fmt::format("{}: no frame is left to stack", target_.name));
    return false;
  }
  if (FindKept()) return false;
  const StackRows rows = StackRows::Part(part, parts, run_.Grid().shape.height);
  const fs::path path = PathOf(rows);
  if (fs::exists(path) && Open(path, rows).IsWhole()) return false;
  Journal stacked = Open(files::UniquePartialName(path), rows, Journal::Passing);
  Stack(run_.job, inputs_, static_cast<int>(reference_), options_, rows, [&](const StackBand& band) {
    run_.job.CheckComputed(path);
    stacked.Add(band);
  });
  stacked.KeepAs(path);
  return true;
}

std::vector<StackInput> TargetStack::Inputs() const {
  std::vector<StackInput> inputs;
  for (const RunLight* frame : used_) {
    StackInput input{frame->light->Name(), frame->shape};
    input.dx = frame->registration.dx;
    input.dy = frame->registration.dy;
    input.degrees = frame->registration.degrees;
    input.map = frame->registration.map;
    input.levels = frame->levels;
    input.read = [&session = run_.session, frame](const Band<float>& to) {
      LightRows(session, *frame->light, frame->border).Read(to);
    };
    input.readQuality = [&session = run_.session, frame](const Band<float>& to, const QualityRows& quality) {
      LightRows(session, *frame->light, frame->border).Read(to, quality);
    };
    if (const DevelopedNoise* noise = run_.session.NoiseOfDevelopment(*frame->light)) {
      input.correlation = noise->CorrelationOfNoise();
    }
    inputs.push_back(std::move(input));
  }
  return inputs;
}

std::vector<TargetStack::Part> TargetStack::Parts() const {
  std::vector<Part> parts;
  const std::string start = target_.name + ".rows-";
  for (const auto& entry : fs::directory_iterator(run_.state->Folder())) {
    const std::string name = entry.path().filename().string();
    StackRows rows;
    if (!name.starts_with(start)) continue;
    int length = 0;
    const std::string numbers = name.substr(start.size());
    const bool isPart = std::sscanf(numbers.c_str(), "%d-%d%n", &rows.first, &rows.end, &length) == 2 &&
                        length == std::ssize(numbers) && rows.first >= 0 && rows.first <= rows.end;
    if (isPart && rows.end <= run_.Grid().shape.height) parts.push_back({rows, entry.path()});
  }
  std::ranges::sort(parts, {}, [](const Part& part) { return std::pair(part.rows.first, part.rows.end); });
  return parts;
}

fs::path TargetStack::PathOf(const StackRows& rows) const {
  return run_.state->Folder() / fmt::format("{}.rows-{}-{}", target_.name, rows.first, rows.end);
}

Journal TargetStack::Open(const fs::path& path, const StackRows& rows, Journal::Use use) const {
  Journal::Images images{&StackBand::result};
  if (options_.uncertainty) images.push_back(&StackBand::variance);
  if (options_.mask) images.push_back(&StackBand::mask);
  if (options_.rejectionMaps) images.insert(images.end(), {&StackBand::low, &StackBand::high});
  return {path, digest_, run_.Grid().shape, images, used_.size(), use, rows};
}

/// Lights of a colour camera are drizzled by the sites of their mosaics; what is rejected of these was told
/// by the developed ones.
TargetStack::Drizzled TargetStack::DrizzleFrames(const std::shared_ptr<CVmManager>& store) {
  const auto reference = static_cast<int>(reference_);
  const CImgDrizzle::Options& grid = *run_.options.stack.drizzle;
  session::DrizzleFrames frames{inputs_, reference, options_.normalisation};
  for (const RunLight* frame : used_) {
    if (frame->light->mosaic.cfa == 0) continue;
    frames.mosaics.push_back(
        {PlanesOfSites(frame->light->mosaic.cfa), [&session = run_.session, frame](const Band<float>& to) {
           LightRows(session, *frame->light, frame->border).ReadSites(to);
         }});
  }
  std::optional<RejectedPixels> rejected;
  if (run_.options.stack.Rejects()) {
    rejected.emplace(run_.Path(target_.name + ".fits"), "", inputs_[reference].shape, inputs_.size(),
                     Journal::Passing);
    FindRejected(run_.job, inputs_, reference, options_, *rejected);
    frames.rejected = &*rejected;
  }
  const CImgDrizzle finer = GridOf(inputs_[reference], grid);
  const int planes = inputs_[reference].shape.planes;
  Drizzled drizzled{NewImage(store, finer.Width(), finer.Height(), planes),
                    NewImage(store, finer.Width(), finer.Height(), planes), std::nullopt};
  WeightSpread spread(inputs_, reference, grid);
  run_.Plan(fmt::format("{}: {} x {}, {}", target_.name, finer.Width(), finer.Height(),
                        PlanDrizzle(frames, grid, options_.memory).Text()));
  Drizzle(run_.job, frames, grid, options_.memory, 0, [&](const StackBand& band) {
    CopyPixels(band.result, Image::RowsOf(*drizzled.image, band.result.Top(), band.result.Rows()));
    CopyPixels(band.weights, Image::RowsOf(*drizzled.weights, band.weights.Top(), band.weights.Rows()));
    spread.Add(band.weights);
    for (size_t i = 0; i < used_.size() && !rejected; ++i) {
      used_[i]->counts += band.counts[i];
    }
  });
  for (size_t i = 0; i < used_.size() && rejected; ++i) {
    used_[i]->counts = rejected->Counts()[i];
  }
  drizzled.spread = spread.Get();
  return drizzled;
}

std::string TargetStack::Digest() const {
  KeptJson made{{"korimg", Version()},
                {"stack", run_.options.stack.Text()},
                {"gradient", run_.options.gradient},
                {"lights", target_.frames.size()},
                {"reference", Reference().digest},
                {"grid", run_.Grid().digest}};
  const QualityOptions& quality = run_.options.calibrate.quality;
  made["quality"] = {quality.uncertainty, quality.mask, quality.gain.value_or(0),
                     quality.readNoise.value_or(0)};
  if (run_.options.rejectionMaps) made["rejection_maps"] = true;
  for (const RunLight* frame : used_) {
    const Registration& r = frame->registration;
    made["frames"].push_back({frame->digest, frame->weights, r.dx, r.dy, r.degrees, r.fluxRatio.value_or(0),
                              r.map ? KeptJson(ToJson(*r.map)) : KeptJson()});
  }
  return made.dump();
}

/// States of a stack's files, so that what somebody changed is made again.
KeptJson TargetStack::Stamps() const {
  KeptJson stamps = KeptJson::array();
  for (const fs::path& output : OutputsOf(run_, target_)) {
    stamps.push_back(fs::exists(output) ? files::StampOf(output) : "");
  }
  return stamps;
}

void TargetStack::Keep(const Json& told) {
  KeptJson counts = KeptJson::array();
  for (const RunLight* frame : used_) {
    counts.push_back(frame->counts);
  }
  run_.state->Keep(target_.name, digest_,
                   {{"files", Stamps()},
                    {"counts", std::move(counts)},
                    {"told", KeptJson(told)},
                    {"stack", run_.stacks.back()},
                    {"report", run_.report.stacks.back()}});
  for (const Part& part : Parts()) {
    fs::remove(part.path);
  }
}

std::optional<KeptJson> TargetStack::FindKept() const {
  auto kept = run_.state->Find(target_.name, digest_);
  return kept && kept->at("files") == Stamps() ? kept : std::nullopt;
}

bool TargetStack::TakeKept() {
  const auto kept = FindKept();
  if (!kept) return false;
  for (size_t i = 0; i < used_.size(); ++i) {
    used_[i]->counts = kept->at("counts").at(i);
  }
  run_.report.stacks.push_back(kept->at("report"));
  run_.stacks.push_back(kept->at("stack"));
  run_.stacks.back().file = run_.Path(target_.name + ".fits");
  if (!run_.stacks.back().gradient.empty())
    run_.stacks.back().gradient = run_.Path(target_.name + "_gradient.fits");
  Tell(run_.stacks.back(), Json(kept->at("told")), "as it was made before");
  return true;
}

}  // namespace korimg::session
