#include "session/stack/internal/StackHeader.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include <fmt/format.h>

#include "session/files/Gain.h"
#include "session/files/internal/Times.h"

namespace korimg::session {
namespace {

/// Keywords that tell nothing of what frames have in common, or that are made anew.
bool IsFramesOwn(const std::string& key) {
  static const std::set<std::string> kOwn = {
      "",        "HISTORY",  "COMMENT",  "CONTINUE", "HIERARCH", "END",      "SIMPLE",   "BITPIX",
      "BZERO",   "BSCALE",   "BLANK",    "CHECKSUM", "DATASUM",  "DATAMIN",  "DATAMAX",  "DATE",
      "EXPTIME", "EXPOSURE", "LIVETIME", "XPOSURE",  "DATE-OBS", "DATE-BEG", "DATE-END", "DATE-AVG",
      "MJD-OBS", "MJD-BEG",  "MJD-END",  "MJD-AVG",  "TELAPSE",  "TIME-OBS", "TIME-END", "UT",
      "JD",      "STACKCNT", "NCOMBINE", "EXTEND"};
  return kOwn.contains(key) || key.starts_with("NAXIS") || key.starts_with("KORL");
}

/// Keyword and value of a card, with its comment.
std::pair<std::string, std::string> Parts(const std::string& card) {
  std::string key = card.substr(0, 8);
  key.erase(key.find_last_not_of(' ') + 1);
  return {key, card.size() > 8 ? card.substr(8) : ""};
}

}  // namespace

StackHeader::StackHeader(files::Header reference) : header_(std::move(reference)) {
  for (const std::string& card : header_.cards) {
    auto [key, value] = Parts(card);
    if (!IsFramesOwn(key)) values_.emplace(std::move(key), std::move(value));
  }
}

void StackHeader::Add(const files::Header& frame, double weight, double scale) {
  ++frames_;
  constexpr double kAnyNoise = std::numeric_limits<double>::infinity();
  const files::Gain own = files::FindGain(frame, kAnyNoise),
                    gain = own.electrons > 0 ? own : files::FindGain(header_, kAnyNoise);
  // Light of L electrons has a variance of L; what multiplies a value multiplies its square by more.
  variance_ += weight * weight * scale / gain.electrons;
  allWeights_ += weight;
  std::set<std::string> seen;
  for (const std::string& card : frame.cards) {
    const auto [key, value] = Parts(card);
    const auto own = values_.find(key);
    if (own != values_.end() && seen.insert(key).second && own->second != value) differing_.insert(key);
  }
  const auto exposure = files::ExposureOf(frame);
  const bool knowsExposure = exposure && *exposure >= 0 && std::isfinite(*exposure);
  if (knowsExposure) {
    ++withExposure_;
    // A frame that is a stack itself is worth all of its exposures.
    exposure_ += frame.GetDouble("LIVETIME").value_or(*exposure);
  }
  const auto start = files::StartOf(frame);
  if (!start) return;
  const double length = knowsExposure ? *exposure : 0;
  const double end = files::FitsTime(frame.GetString("DATE-END").value_or("")).value_or(*start + length);
  if (withTime_++ == 0) {
    origin_ = start_ = *start;
    end_ = end;
  }
  start_ = std::min(start_, *start);
  end_ = std::max(end_, end);
  const double share = length > 0 ? length : 1;
  middles_ += share * (*start + length / 2 - origin_);
  weights_ += share;
}

files::Header StackHeader::Make(bool scaled) const {
  files::Header header = header_;
  const auto differing = [&](const char* what, int known) {
    if (known > 0 && known < frames_) {
      header.AddHistory(fmt::format("{} of {} of the {} frames only", what, known, frames_));
    }
  };
  if (withExposure_ > 0) {
    header.Set("LIVETIME", exposure_, "[s] exposure of all frames");
    header.Set("XPOSURE", exposure_, "[s] exposure of all frames");
    const auto own = files::ExposureOf(header);
    const double exposure = scaled && own ? *own : exposure_ / withExposure_;
    const char* comment =
        scaled ? "[s] exposure of the frame they are scaled to" : "[s] mean exposure of a frame";
    header.Set("EXPTIME", exposure, comment);
    if (header.GetString("EXPOSURE")) header.Set("EXPOSURE", exposure, comment);
  }
  if (withTime_ > 0) {
    for (const char* stale : {"TIME-OBS", "TIME-END", "JD", "UT"}) {
      header.Remove(stale);
    }
    const double middle = origin_ + middles_ / weights_;
    const struct {
      const char *date, *mjd;
      double time;
      const char* comment;
    } times[] = {{"DATE-OBS", "MJD-OBS", start_, "start of the first frame"},
                 {"DATE-BEG", "MJD-BEG", start_, "start of the first frame"},
                 {"DATE-END", "MJD-END", end_, "end of the last frame"},
                 {"DATE-AVG", "MJD-AVG", middle, "middle, weighted by exposure"}};
    for (const auto& [date, mjd, time, comment] : times) {
      const bool always = date != std::string_view("DATE-BEG");
      if (always || header.GetString(date)) header.Set(date, files::FitsDate(time), comment);
      if (header.GetString(mjd)) header.Set(mjd, files::ToMjd(time), comment);
    }
    if (header.GetString("TELAPSE")) {
      header.Set("TELAPSE", end_ - start_, "[s] from the first frame's start to the last one's end");
    }
  }
  header.Remove("KORLGAIN");
  if (const double gain = allWeights_ * allWeights_ / variance_; std::isfinite(gain) && gain > 0) {
    header.Set("KORLGAIN", gain, "electrons of a value of this stack");
  }
  header.Set("STACKCNT", frames_, "frames that were stacked");
  header.Set("NCOMBINE", frames_, "frames that were stacked");
  differing("exposure times are", withExposure_);
  differing("dates are", withTime_);
  if (!differing_.empty()) {
    header.AddHistory(fmt::format("differ between the frames, and are those of the reference: {}",
                                  fmt::join(differing_, ", ")));
  }
  return header;
}

}  // namespace korimg::session
