#include "app/stack/StackHeader.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>

#include <fmt/format.h>

namespace korimg::tool {
namespace {

using namespace std::chrono;

constexpr double kDay = 86400;

/// Keywords that tell nothing of what frames have in common, or that are made anew.
bool IsFramesOwn(const std::string& key) {
  static const std::set<std::string> kOwn = {
      "",        "HISTORY",  "COMMENT",  "CONTINUE", "HIERARCH", "END",      "SIMPLE",   "BITPIX",
      "BZERO",   "BSCALE",   "BLANK",    "CHECKSUM", "DATASUM",  "DATAMIN",  "DATAMAX",  "DATE",
      "EXPTIME", "EXPOSURE", "LIVETIME", "XPOSURE",  "DATE-OBS", "DATE-END", "DATE-AVG", "TIME-OBS",
      "UT",      "MJD-OBS",  "JD",       "STACKCNT", "NCOMBINE", "EXTEND"};
  return kOwn.contains(key) || key.starts_with("NAXIS") || key.starts_with("KORL");
}

/// Keyword and value of a card, with its comment.
std::pair<std::string, std::string> Parts(const std::string& card) {
  std::string key = card.substr(0, 8);
  key.erase(key.find_last_not_of(' ') + 1);
  return {key, card.size() > 8 ? card.substr(8) : ""};
}

}  // namespace

std::optional<double> FitsTime(const std::string& date) {
  int y = 0, m = 0, d = 0, hours = 0, minutes = 0, read = 0;
  double s = 0;
  const int fields =
      std::sscanf(date.c_str(), "%4d-%2d-%2d%nT%2d:%2d:%lf", &y, &m, &d, &read, &hours, &minutes, &s);
  const year_month_day day{year(y), month(static_cast<unsigned>(m)),
                           std::chrono::day(static_cast<unsigned>(d))};
  if ((fields != 3 && fields != 6) || !day.ok() || (fields == 3 && read != static_cast<int>(date.size())) ||
      hours < 0 || hours > 24 || minutes < 0 || minutes > 59 || !(s >= 0 && s < 61)) {
    return std::nullopt;
  }
  return kDay * static_cast<double>(sys_days(day).time_since_epoch().count()) + 3600.0 * hours +
         60.0 * minutes + s;
}

std::string FitsDate(double seconds) {
  const auto whole = static_cast<long long>(std::round(seconds * 1000));
  const sys_time<milliseconds> time{milliseconds(whole)};
  const auto day = floor<days>(time);
  const year_month_day date(day);
  const hh_mm_ss clock(time - day);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}", static_cast<int>(date.year()),
                     static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                     clock.hours().count(), clock.minutes().count(), clock.seconds().count(),
                     clock.subseconds().count());
}

StackHeader::StackHeader(files::Header reference) : header_(std::move(reference)) {
  for (const std::string& card : header_.cards) {
    auto [key, value] = Parts(card);
    if (!IsFramesOwn(key)) values_.emplace(std::move(key), std::move(value));
  }
}

void StackHeader::Add(const files::Header& frame) {
  ++frames_;
  std::set<std::string> seen;
  for (const std::string& card : frame.cards) {
    const auto [key, value] = Parts(card);
    const auto own = values_.find(key);
    if (own != values_.end() && seen.insert(key).second && own->second != value) differing_.insert(key);
  }
  auto exposure = frame.GetDouble("EXPTIME");
  if (!exposure) exposure = frame.GetDouble("EXPOSURE");
  const bool knowsExposure = exposure && *exposure >= 0 && std::isfinite(*exposure);
  if (knowsExposure) {
    ++withExposure_;
    // A frame that is a stack itself is worth all of its exposures.
    exposure_ += frame.GetDouble("LIVETIME").value_or(*exposure);
  }
  std::string date = frame.GetString("DATE-OBS").value_or("");
  if (date.find('T') == std::string::npos) {
    if (const auto time = frame.GetString("TIME-OBS")) date += "T" + *time;
  }
  const auto start = FitsTime(date);
  if (!start) return;
  const double length = knowsExposure ? *exposure : 0;
  const double end = FitsTime(frame.GetString("DATE-END").value_or("")).value_or(*start + length);
  if (withTime_++ == 0) {
    origin_ = start_ = *start;
    end_ = end;
  }
  start_ = std::min(start_, *start);
  end_ = std::max(end_, end);
  const double weight = length > 0 ? length : 1;
  middles_ += weight * (*start + length / 2 - origin_);
  weights_ += weight;
}

files::Header StackHeader::Make() const {
  files::Header header = header_;
  const auto differing = [&](const char* what, int known) {
    if (known > 0 && known < frames_) {
      header.AddHistory(fmt::format("{} of {} of the {} frames only", what, known, frames_));
    }
  };
  if (withExposure_ > 0) {
    header.Set("LIVETIME", exposure_, "[s] exposure of all frames");
    header.Set("XPOSURE", exposure_, "[s] exposure of all frames");
    header.Set("EXPTIME", exposure_ / withExposure_, "[s] mean exposure of a frame");
    if (header.GetString("EXPOSURE")) {
      header.Set("EXPOSURE", exposure_ / withExposure_, "[s] mean exposure of a frame");
    }
  }
  if (withTime_ > 0) {
    header.Remove("TIME-OBS");
    for (const char* stale : {"MJD-OBS", "JD", "UT"}) {
      header.Remove(stale);
    }
    header.Set("DATE-OBS", FitsDate(start_), "start of the first frame");
    header.Set("DATE-END", FitsDate(end_), "end of the last frame");
    header.Set("DATE-AVG", FitsDate(origin_ + middles_ / weights_), "middle, weighted by exposure");
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

}  // namespace korimg::tool
