// Calibration of a session from files to files, against CFITSIO reading the same inputs as floats and writing
// outputs of the same size: run alternately in one process.
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <vector>

#include <CLI/CLI.hpp>
#include <fitsio.h>
#include <fmt/format.h>
#include <sys/resource.h>

#include "korimg/pipelines/runtime/Runtime.h"
#include "korimg/platform/CParallel.h"

#include "session/calibrate/Calibrate.h"
#include "session/calibrate/Frames.h"
#include "session/simulate/Simulate.h"

namespace fs = std::filesystem;
using namespace korimg;
using namespace korimg::session;

namespace {

void Check(int status) {
  if (status != 0) throw std::runtime_error(fmt::format("CFITSIO status {}", status));
}

/// Pixels and sides of an image.
struct Pixels {
  std::vector<float> pixels;
  long sides[3] = {1, 1, 1};
};

void Read(const fs::path& path, Pixels& image) {
  int status = 0;
  fitsfile* file = nullptr;
  fits_open_diskfile(&file, path.c_str(), READONLY, &status);
  fits_get_img_size(file, 3, image.sides, &status);
  image.pixels.resize(image.sides[0] * image.sides[1] * image.sides[2]);
  fits_read_img(file, TFLOAT, 1, static_cast<LONGLONG>(image.pixels.size()), nullptr, image.pixels.data(),
                nullptr, &status);
  fits_close_file(file, &status);
  Check(status);
}

void Write(const fs::path& path, Pixels& image) {
  int status = 0;
  fitsfile* file = nullptr;
  fits_create_diskfile(&file, path.c_str(), &status);
  fits_create_img(file, FLOAT_IMG, 2, image.sides, &status);
  fits_write_img(file, TFLOAT, 1, static_cast<LONGLONG>(image.pixels.size()), image.pixels.data(), &status);
  fits_close_file(file, &status);
  Check(status);
}

double Seconds(const fs::path& out, const std::function<void()>& work) {
  fs::remove_all(out);
  fs::create_directories(out);
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double Median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2),
                   values.end());
  return values[values.size() / 2];
}

void Compare(Job& job, const std::string& name, CalibrateOptions options, const fs::path& out, int runs) {
  std::vector<fs::path> inputs;
  for (const auto* paths : {&options.darks, &options.flats, &options.biases}) {
    for (const fs::path& path : ExpandFolders(job, *paths)) {
      inputs.push_back(path);
    }
  }
  const std::vector<fs::path> lights = ExpandFolders(job, options.lights);
  options.out = out;
  std::vector<double> plain, calibrated;
  Pixels image;
  for (int i = 0; i < runs; ++i) {
    plain.push_back(Seconds(out, [&] {
      for (const fs::path& path : inputs) {
        Read(path, image);
      }
      for (const fs::path& path : lights) {
        Read(path, image);
        Write(out / path.filename(), image);
      }
    }));
    calibrated.push_back(Seconds(out, [&] { Calibrate(job, options); }));
  }
  fs::remove_all(out);
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  fmt::print(
      "{}: {} lights, {} other files: CFITSIO {:.3f} s, calibrate {:.3f} s, ratio {:.2f}; peak {} MB\n", name,
      lights.size(), inputs.size(), Median(plain), Median(calibrated), Median(calibrated) / Median(plain),
      usage.ru_maxrss / 1000);
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Calibration of a session against plain reading and writing");
  fs::path session;
  int runs = 7, frames = 20, threads = 0;
  app.add_option("session", session, "folder of a session; it is simulated when there is none")->required();
  app.add_option("--runs", runs, "of each, in turn");
  app.add_option("--frames", frames, "lights of a simulated session");
  app.add_option("--threads", threads, "of calibration");
  CLI11_PARSE(app, argc, argv);
  try {
    if (threads > 0) {
      CParallel::SetMaxThreads(threads);
      SetPipelineThreads(threads);
    }
    Job job;
    if (!fs::exists(session)) Simulate(job, session, {.frames = frames});
    CalibrateOptions options;
    options.lights = {session / "lights"};
    options.darks = {session / "darks"};
    options.flats = {session / "flats"};
    options.biases = {session / "biases"};
    const fs::path out = session / "calibrate_vs_cfitsio", masters = session / "masters";
    if (!fs::exists(masters)) {
      CalibrateOptions once = options;
      once.out = out;
      once.masters = masters;
      fs::remove_all(out);
      Calibrate(job, once);
    }
    CalibrateOptions ready = options;
    ready.biases.clear();
    for (const fs::path& path : ExpandFolders(job, {masters})) {
      const std::string name = path.filename().string();
      if (name.starts_with("master_dark")) ready.darks = {path};
      if (name.starts_with("master_flat")) ready.flats = {path};
    }
    Compare(job, "ready masters", ready, out, runs);
    Compare(job, "masters made", options, out, runs);
  } catch (const std::exception& error) {
    fmt::print(stderr, "{}\n", error.what());
    return 1;
  }
  return 0;
}
