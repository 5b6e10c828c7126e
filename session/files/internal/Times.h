// Times of exposures, as the headers of frames tell them.
#pragma once

#include <optional>
#include <string>

#include "session/Export.h"
#include "session/files/ImageFile.h"

namespace korimg::files {

/// Answers the seconds since 1970, UTC, of a FITS date such as 2026-03-14T21:05:30.250; a day alone is its
/// beginning. An offset from UTC at its end (Z, -0700, +01:00, +02), which some programs write, is heeded.
KORIMG_SESSION_API std::optional<double> FitsTime(const std::string& date);
/// Does the same backwards, to the millisecond.
KORIMG_SESSION_API std::string FitsDate(double seconds);

/// Answer the modified Julian date of seconds since 1970, and backwards.
KORIMG_SESSION_API double ToMjd(double seconds);
KORIMG_SESSION_API double FromMjd(double days);

/// Answers the exposure time in seconds, by EXPTIME or EXPOSURE.
KORIMG_SESSION_API std::optional<double> ExposureOf(const Header& header);

/// Tells when the exposure began, in seconds since 1970: by DATE-BEG, by DATE-OBS with TIME-OBS or UT where
/// it is a day alone, or by MJD-BEG or MJD-OBS.
KORIMG_SESSION_API std::optional<double> StartOf(const Header& header);

}  // namespace korimg::files
