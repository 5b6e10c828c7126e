// Stars of arrays.
#include "python/src/Host.h"
#include "session/stars/Stars.h"

namespace korimg::python {
namespace {

/// A star as a row of a structured array.
struct StarRow {
  double x, y, flux, peak, sky, noise, snr, fwhm, elongation;
  bool saturated, edge, blended;
};

py::dict FindStars(const Pixels& pixels, const LevelPairs& levels, const files::Header* header, double sigmas,
                   std::optional<double> gain, long long memory, const py::object& report) {
  Host host({report, false, memory});
  StarOptions options{.sigmas = sigmas};
  if (gain) options.gain = files::Gain{*gain, "as told"};
  const FoundStars found =
      host.Run([&] { return session::FindStars(ImageOver(host.job, pixels, levels, header), options); });
  py::array_t<StarRow> rows(static_cast<py::ssize_t>(found.stars.size()));
  StarRow* row = rows.mutable_data();
  for (const CStar& s : found.stars) {
    *row++ = {s.x,
              s.y,
              s.flux,
              s.peak,
              s.sky,
              s.noise,
              s.snr,
              s.fwhm,
              s.elongation,
              (s.flags & CStar::Saturated) != 0,
              (s.flags & CStar::Edge) != 0,
              (s.flags & CStar::Blended) != 0};
  }
  py::dict result;
  result["stars"] = std::move(rows);
  result["fwhm"] = found.fwhm;
  result["elongation"] = found.elongation;
  result["guide_error"] = found.guideError;
  result["sky"] = found.sky;
  result["noise"] = found.noise;
  result["gain"] = found.gain.electrons;
  return result;
}

}  // namespace

void AddMeasures(py::module_& module) {
  PYBIND11_NUMPY_DTYPE(StarRow, x, y, flux, peak, sky, noise, snr, fwhm, elongation, saturated, edge,
                       blended);
  module.def("find_stars", &FindStars);
}

}  // namespace korimg::python
