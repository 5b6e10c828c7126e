// What the noise of a session's lights is known by: headers, frames of calibration, options.
#include <algorithm>
#include <cmath>
#include <limits>

#include <fmt/format.h>

#include "korimg/calibration/MedianOfFrames.h"
#include "korimg/composite/stacking/FrameLevels.h"

#include "session/calibrate/internal/Session.h"
#include "session/files/Gain.h"

namespace korimg::session {
namespace {

/// Frames in a master, which may have been made before.
double FramesIn(const Group& group) {
  const files::Header& header = HeaderOf(group);
  if (group.frames.size() > 1) return static_cast<double>(group.frames.size());
  return std::max(header.GetDouble("NCOMBINE").value_or(header.GetDouble("STACKCNT").value_or(1)), 1.0);
}

}  // namespace

void Session::FindNoise() {
  if (!options_.quality.uncertainty) return;
  for (const Light& light : lights_) {
    noise_.emplace(&light, NoiseOf(light));
  }
  if (lights_.empty()) return;
  const NoiseModel& first = noise_.at(&lights_.front());
  masterLines_.push_back(
      fmt::format("noise of {}: {:.3g} electrons for a raw value, {:.3g} raw values without light",
                  lights_.front().Name(), first.gain, std::sqrt(first.floor)));
  job_.Say(masterLines_.back());
}

double Session::GainOf(const Light& light) const {
  const files::Header& header = light.frame.info.header;
  if (options_.quality.gain) return *options_.quality.gain;
  const files::Gain known = files::FindGain(header, std::numeric_limits<double>::infinity());
  if (known.electrons > 0) return known.electrons;
  const Master* flat = MasterOf(light.flat);
  if (flat && flat->gain > 0) return flat->gain;
  throw files::FileError(light.frame.path,
                         fmt::format("its noise is not known: {}, and no two raw flats with two darks or "
                                     "biases to measure it by; give --gain, the electrons of a raw value",
                                     known.source));
}

double Session::FrameVarianceOf(const Group& group) {
  const auto known = frameVariances_.find(&group);
  if (known != frameVariances_.end()) return known->second;
  return frameVariances_.emplace(&group, NoiseVariance(group)).first->second;
}

/// Of a raw value without light, by the frames that come off, which hold dark current too; else by what the
/// header or the options say of the readout.
double Session::FloorOf(const Light& light, double gain) {
  const auto ofElectrons = [gain](double e) { return e * e / gain / gain; };
  if (options_.quality.readNoise) return ofElectrons(*options_.quality.readNoise);
  const Group* offset = light.Offset();
  if (offset && offset->scaledFrom && offset->scaledFrom->frames.size() > 1 &&
      offset->bias->frames.size() > 1) {
    const double bias = FrameVarianceOf(*offset->bias);
    return bias + (FrameVarianceOf(*offset->scaledFrom) - bias) * offset->scale;
  }
  if (offset && !offset->scaledFrom && offset->frames.size() > 1) return FrameVarianceOf(*offset);
  if (const auto noise = files::FindReadNoise(light.frame.info.header)) return ofElectrons(*noise);
  throw files::FileError(light.frame.path,
                         "its read noise is not known: no RDNOISE, and no two darks or biases to measure it "
                         "by; give --read-noise, in electrons");
}

NoiseModel Session::NoiseOf(const Light& light) {
  NoiseModel model;
  model.gain = GainOf(light);
  model.floor = FloorOf(light, model.gain);
  if (const Group* offset = light.Offset()) {
    auto level = levelsOfOffsets_.find(offset);
    if (level == levelsOfOffsets_.end()) {
      level = levelsOfOffsets_.emplace(offset, MeasureLevels(*masters_.at(offset).image).level[0]).first;
    }
    model.zero = level->second;
    if (offset->scaledFrom) {
      // The bias, and the rest of the dark by the ratio of exposures.
      const double k = offset->scale, dark = MedianVariance(FramesIn(*offset->scaledFrom)),
                   bias = MedianVariance(FramesIn(*offset->bias));
      model.offsetFloor = ((1 - k) * (1 - k) * bias + k * k * dark) * model.floor;
      model.offsetSlope = k * dark / model.gain;
    } else {
      const double share = MedianVariance(FramesIn(*offset));
      model.offsetFloor = share * model.floor;
      model.offsetSlope = share / model.gain;
    }
  }
  if (light.flat) {
    const Master& flat = masters_.at(light.flat);
    model.flatShare = MedianVariance(FramesIn(*light.flat));
    const bool isMeasured =
        flat.offset && !flat.offset->group->scaledFrom && flat.offset->group->frames.size() > 1;
    model.flatFloor = isMeasured ? FrameVarianceOf(*flat.offset->group) : model.floor;
  }
  return model;
}

}  // namespace korimg::session
