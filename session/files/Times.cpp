#include "session/files/internal/Times.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <regex>

#include <fmt/format.h>

namespace korimg::files {
namespace {

using namespace std::chrono;

constexpr double kDay = 86400, kMjdOf1970 = 40587;

/// Takes "Z", "-0700", "+01:00" or "+02" off the end of a time; answers how many seconds it is ahead of UTC.
double TakeOffset(std::string& date) {
  static const std::regex form("(.*T.*?)(?:[Zz]|([+-])([0-9]{2}):?([0-9]{2})?)");
  std::smatch parts;
  if (!std::regex_match(date, parts, form)) return 0;
  const double sign = parts[2] == "-" ? -1 : 1;
  const double seconds =
      !parts[3].matched ? 0
                        : 3600.0 * std::stoi(parts[3]) + (parts[4].matched ? 60.0 * std::stoi(parts[4]) : 0);
  date = parts[1].str();
  return sign * seconds;
}

}  // namespace

std::optional<double> FitsTime(const std::string& text) {
  std::string date = text;
  const double ahead = TakeOffset(date);
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
         60.0 * minutes + s - ahead;
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

double ToMjd(double seconds) {
  return seconds / kDay + kMjdOf1970;
}

double FromMjd(double days) {
  return (days - kMjdOf1970) * kDay;
}

std::optional<double> ExposureOf(const Header& header) {
  const auto exposure = header.GetDouble("EXPTIME");
  return exposure ? exposure : header.GetDouble("EXPOSURE");
}

std::optional<double> StartOf(const Header& header) {
  for (const char* key : {"DATE-BEG", "DATE-OBS"}) {
    auto date = header.GetString(key);
    if (!date) continue;
    for (const char* clock : {"TIME-OBS", "UT"}) {
      const auto time = header.GetString(clock);
      if (date->find('T') == std::string::npos && time) *date += "T" + *time;
    }
    if (const auto start = FitsTime(*date)) return start;
  }
  for (const char* key : {"MJD-BEG", "MJD-OBS"}) {
    if (const auto days = header.GetDouble(key)) return FromMjd(*days);
  }
  return std::nullopt;
}

}  // namespace korimg::files
