// Steps from files to files: what is in memory at once is bounded, however many there are.
#include "python/src/Options.h"
#include "session/calibrate/Calibrate.h"
#include "session/develop/DevelopFiles.h"
#include "session/stack/StackFiles.h"

namespace korimg::python {
namespace {

/// A name, or None.
py::object NameOf(const std::optional<std::filesystem::path>& path) {
  return path ? py::object(py::str(path->string())) : py::none();
}

py::list CalibrateFiles(const py::dict& given, long long memory, bool overwrite, const std::string& origin,
                        const py::object& report, bool wantsProgress) {
  Host host({report, wantsProgress, memory, overwrite, origin});
  const Values values(given);
  CalibrateOptions options;
  TakeCalibrationOptions(values, options);
  values.Take("lights", options.lights);
  values.Take("darks", options.darks);
  values.Take("flats", options.flats);
  values.Take("biases", options.biases);
  values.Take("keep_mosaic", options.keepMosaic);
  values.Take("previews", options.previews);
  const bool hasFrames = !options.darks.empty() || !options.flats.empty() || !options.biases.empty();
  if (!hasFrames && options.cosmetic == Cosmetic::None && !options.quality.Any()) {
    throw UsageError("nothing to calibrate with: give darks, flats, biases or cosmetic=\"auto\"");
  }
  py::list lights;
  for (const CalibratedLight& light : host.Run([&] { return Calibrate(host.job, options); })) {
    lights.append(py::dict(py::arg("file") = light.file.string(), py::arg("output") = NameOf(light.output),
                           py::arg("preview") = NameOf(light.preview), py::arg("is_done") = light.isDone,
                           py::arg("dark") = light.dark, py::arg("flat") = light.flat,
                           py::arg("bias") = light.bias, py::arg("mosaic") = light.mosaic,
                           py::arg("clipped") = light.clipped, py::arg("mean") = light.mean,
                           py::arg("hot") = light.defects ? light.defects->hot : 0,
                           py::arg("cold") = light.defects ? light.defects->cold : 0));
  }
  return lights;
}

py::list DevelopFiles(const py::dict& given, long long memory, bool overwrite, const std::string& origin,
                      const py::object& report, bool wantsProgress) {
  Host host({report, wantsProgress, memory, overwrite, origin});
  const Values values(given);
  DevelopFilesOptions options;
  TakeMosaicOptions(values, options);
  values.Take("frames", options.frames);
  values.Take("out", options.out);
  values.Take("dark", options.dark);
  values.Take("flat", options.flat);
  values.Number("black", 0, 1e6, options.black);
  values.Take("mono", options.mono);
  values.Take("half", options.half);
  values.Take("level_cut", options.levelCut);
  values.Number("gamma", 0.1, 10, options.gamma);
  values.Take("integers", options.integers);
  values.Take("previews", options.previews);
  py::list frames;
  for (const DevelopedFrame& frame : host.Run([&] { return session::DevelopFiles(host.job, options); })) {
    frames.append(py::dict(py::arg("file") = frame.file.string(), py::arg("output") = frame.output.string(),
                           py::arg("preview") = NameOf(frame.preview), py::arg("mosaic") = frame.mosaic.name,
                           py::arg("gains") = frame.whiteBalance.gains,
                           py::arg("white_balance") = frame.whiteBalance.text));
  }
  return frames;
}

py::dict StackFiles(const py::dict& given, long long memory, bool overwrite, const std::string& origin,
                    const py::object& report, bool wantsProgress) {
  Host host({report, wantsProgress, memory, overwrite, origin});
  const Values values(given);
  StackFilesOptions options;
  TakeStackChoices(values, options);
  values.Take("frames", options.frames);
  values.Take("out", options.output);
  values.Take("transforms", options.transforms);
  values.Take("reference", options.reference);
  values.Take("integers", options.integers);
  values.Choose("frame", kStackFrames, options.frame);
  values.Take("feather", options.feather);
  values.Take("rejection_maps", options.maps);
  values.Take("uncertainty", options.uncertainty);
  values.Take("mask", options.mask);
  if (options.weight == FrameWeights::Fwhm && options.transforms.empty()) {
    throw UsageError("weight=\"fwhm\" takes the sizes of stars from registrations");
  }
  const StackResult result = host.Run([&] { return session::StackFiles(host.job, options); });
  py::list frames, left;
  for (const StackedFrame& frame : result.frames) {
    frames.append(py::dict(py::arg("file") = frame.file.string(), py::arg("weight") = frame.weight,
                           py::arg("covers") = frame.covers, py::arg("rejected_low") = frame.rejectedLow,
                           py::arg("rejected_high") = frame.rejectedHigh));
  }
  for (const auto& [path, why] : result.leftOut) {
    left.append(py::make_tuple(path.string(), why));
  }
  return py::dict(py::arg("outputs") = NamesOf(result.outputs), py::arg("frames") = frames,
                  py::arg("left_out") = left);
}

void ComposeFiles(const py::dict& given, long long memory, bool overwrite, const std::string& origin,
                  const py::object& report, bool wantsProgress) {
  Host host({report, wantsProgress, memory, overwrite, origin});
  const Values values(given);
  ComposeFilesOptions options;
  TakeComposeOptions(values, options);
  values.Take("luminance", options.luminance);
  values.Take("colours", options.colours);
  values.Take("out", options.output);
  values.Take("hdu", options.hdu);
  values.Take("integers", options.integers);
  host.Run([&] { session::ComposeFiles(host.job, options); });
}

void RenderFile(const py::dict& given, long long memory, bool overwrite, const py::object& report,
                bool wantsProgress) {
  Host host({report, wantsProgress, memory, overwrite});
  const Values values(given);
  RenderOptions options;
  TakeRenderOptions(values, options);
  values.Take("image", options.input);
  values.Take("out", options.output);
  values.Take("hdu", options.hdu);
  host.Run([&] { session::Render(host.job, options); });
}

}  // namespace

void AddFileSteps(py::module_& module) {
  module.def("calibrate_files", &CalibrateFiles);
  module.def("develop_files", &DevelopFiles);
  module.def("stack_files", &StackFiles);
  module.def("compose_files", &ComposeFiles);
  module.def("render_file", &RenderFile);
}

}  // namespace korimg::python
