// Steps on arrays: calibration, development, registration, stacks, colours, pictures.
#include <algorithm>
#include <cmath>
#include <limits>

#include "python/src/Options.h"
#include "session/calibrate/Masters.h"
#include "session/register/RegisterFiles.h"

namespace korimg::python {
namespace {

/// An image as the package's Python code hands it in; it lives as long as the call.
struct Source {
  std::string name;
  Pixels pixels;
  LevelPairs levels;
  std::optional<files::Header> header;
  std::optional<Pixels> uncertainty;  ///< standard deviations

  explicit Source(const py::dict& given)
      : name(given["name"].cast<std::string>()),
        pixels(given["pixels"].cast<Pixels>()),
        levels(given["levels"].cast<LevelPairs>()),
        header(given["header"].cast<std::optional<files::Header>>()),
        uncertainty(given["uncertainty"].cast<std::optional<Pixels>>()) {
    const Band<const float> own = BandOf(pixels);
    if (!uncertainty) return;
    const Band<const float> beside = BandOf(*uncertainty);
    if (beside.Width() != own.Width() || beside.Rows() != own.Rows() || beside.Planes() != own.Planes()) {
      throw UsageError(name + ": uncertainty has the shape of the image");
    }
  }

  Band<const float> Rows() const { return BandOf(pixels); }
  session::Shape Shape() const {
    const Band<const float> rows = Rows();
    return {rows.Width(), rows.Rows(), rows.Planes()};
  }
  /// The image over the array, which nothing may change.
  Image Over(Job& job) const { return ImageOver(job, pixels, levels, header ? &*header : nullptr); }
  Image Copy(Job& job) const {
    Image copy = Image::CopyOf(job, Rows());
    for (size_t p = 0; p < levels.size() && p < static_cast<size_t>(copy.Planes()); ++p) {
      copy.Pixels().SetLevel(static_cast<int>(p), levels[p].first, levels[p].second);
    }
    if (header) copy.Header() = *header;
    return copy;
  }
};

std::vector<Source> SourcesOf(const py::list& given) {
  std::vector<Source> sources;
  for (const py::handle& image : given) {
    sources.emplace_back(image.cast<py::dict>());
  }
  return sources;
}

py::dict DictOf(const Image& image, bool withPlanes = false) {
  return py::dict(py::arg("pixels") = ArrayOf(image, withPlanes),
                  py::arg("levels") = LevelsOf(image.Pixels()), py::arg("header") = image.Header());
}

py::dict Calibrate(const py::dict& light, const std::optional<py::dict>& offset,
                   const std::optional<py::dict>& flat, long long memory, const py::object& report) {
  Host host({report, false, memory});
  const Source source(light);
  std::optional<Source> dark, divisor;
  if (offset) dark.emplace(*offset);
  if (flat) divisor.emplace(*flat);
  const auto check = [&](const Source& master) {
    const session::Shape own = master.Shape(), wanted = source.Shape();
    if (own.width == wanted.width && own.height == wanted.height &&
        (own.planes == 1 || own.planes == wanted.planes)) {
      return;
    }
    throw UsageError(fmt::format("{}: is {} x {} x {}, and {} is {} x {} x {}", master.name, own.width,
                                 own.height, own.planes, source.name, wanted.width, wanted.height,
                                 wanted.planes));
  };
  std::optional<Image> image;
  host.Run([&] {
    image = source.Copy(host.job);
    std::optional<Image> darkImage, flatImage;
    Measures measures;
    if (dark) {
      check(*dark);
      darkImage = dark->Over(host.job);
    }
    if (divisor) {
      check(*divisor);
      flatImage = divisor->Over(host.job);
      measures = Measures(flatImage->Pixels());
      for (int p = 0; p < flatImage->Planes(); ++p) {
        if (!(measures.averages[p] > 0)) {
          throw UsageError(divisor->name + ": the mean of a flat is above 0; take its dark off, not more");
        }
      }
    }
    // Noise below 0 stays.
    ApplyMasters(image->Pixels(), darkImage ? &darkImage->Pixels() : nullptr,
                 -std::numeric_limits<float>::infinity(), flatImage ? &flatImage->Pixels() : nullptr,
                 measures);
  });
  return DictOf(*image, source.pixels.ndim() == 3);
}

py::dict Develop(const py::dict& mosaic, const py::dict& options, long long memory, const py::object& report,
                 bool wantsProgress) {
  Host host({report, wantsProgress, memory});
  const Values values(options);
  const Source source(mosaic);
  DevelopOptions how;
  TakeMosaicOptions(values, how);
  values.Take("mono", how.mono);
  values.Take("half", how.half);
  values.Take("level_cut", how.levelCut);
  values.Number("gamma", 0.1, 10, how.gamma);
  files::ImageInfo info;
  const session::Shape size = source.Shape();
  info.width = size.width, info.height = size.height, info.planes = size.planes;
  info.type = "float32";
  if (source.header) info.header = *source.header;
  Image image = source.Over(host.job);
  std::optional<Development> development;
  WhiteBalance balance;
  host.Run([&] {
    const files::Mosaic pattern = size.planes == 1 ? RequireMosaic(info, how.mosaic) : files::Mosaic();
    balance = ChooseWhiteBalance(&image.Pixels(), info, pattern, how.whiteBalance);
    development.emplace(MosaicSource(image.Pixels()), info, pattern, balance, how);
  });
  const session::Shape made = development->Size();
  Pixels result = NewArray(made.width, made.height, made.planes);
  const Band<float> to = WritableBandOf(result);
  LevelPairs levels;
  host.Run([&] {
    int top = 0;
    development->ForBands(host.job, "developing", [&](std::unique_ptr<CVelImage> rows) {
      const int count = rows->GetHeight();
      CopyPixels(Image::RowsOf(*rows, 0, count, true), to.Part(top, count));
      if (top == 0) levels = LevelsOf(*rows);
      top += count;
    });
  });
  return py::dict(py::arg("pixels") = std::move(result), py::arg("levels") = levels,
                  py::arg("header") = info.header, py::arg("gains") = balance.gains,
                  py::arg("white_balance") = balance.text);
}

py::dict DictOf(const RegisterResult& result) {
  py::list frames;
  for (const Registration& registration : result.frames) {
    frames.append(ToJson(registration));
  }
  return py::dict(py::arg("reference") = result.reference.string(), py::arg("frames") = frames,
                  py::arg("model") = result.model);
}

RegisterOptions RegisterOptionsOf(const Values& values) {
  RegisterOptions options;
  values.Number("sigmas", 0.5, 1e6, options.sigmas);
  values.Number("residual", 0.01, 100, options.residual);
  values.Choose("model", kFrameModels, options.model);
  values.Choose("by", kLayBy, options.by);
  values.Take("lenses", options.lenses);
  values.Take("hdu", options.hdu);
  return options;
}

py::dict RegisterArrays(const py::list& images, const std::optional<size_t>& number,
                        const std::optional<py::dict>& other, const py::dict& options, long long memory,
                        const py::object& report, bool wantsProgress) {
  Host host({report, wantsProgress, memory});
  const RegisterOptions how = RegisterOptionsOf(Values(options));
  const std::vector<Source> frames = SourcesOf(images);
  const auto source = [&](const Source& frame) {
    const session::Shape size = frame.Shape();
    return RegisterSource{frame.name, [&host, &frame] { return frame.Over(host.job); },
                          static_cast<long long>(sizeof(float)) * size.width * size.height * size.planes};
  };
  std::vector<RegisterSource> sources;
  for (const Source& frame : frames) {
    sources.push_back(source(frame));
  }
  std::optional<Source> given;
  RegisterReference reference;
  if (other) {
    given.emplace(*other);
    reference = source(*given);
  } else if (number) {
    reference = *number;
  }
  return DictOf(host.Run([&] { return RegisterImages(host.job, sources, reference, how); }));
}

py::dict RegisterFiles(const std::vector<std::string>& files, const std::string& reference,
                       const py::dict& options, long long memory, const py::object& report,
                       bool wantsProgress) {
  Host host({report, wantsProgress, memory});
  RegisterOptions how = RegisterOptionsOf(Values(options));
  how.files.assign(files.begin(), files.end());
  if (!reference.empty()) how.reference = reference;
  return DictOf(host.Run([&] { return session::RegisterFiles(host.job, how); }));
}

/// How a frame lies on the reference, as the package's Python code hands it in.
struct Place {
  double dx = 0, dy = 0, degrees = 0, fwhm = 0;
  std::optional<double> fluxRatio;
  std::optional<CFrameMap> map;

  explicit Place(const py::dict& given) {
    const Values values(given);
    constexpr double kFar = 1e6;
    values.Number("dx", -kFar, kFar, dx);
    values.Number("dy", -kFar, kFar, dy);
    values.Number("degrees", -kFar, kFar, degrees);
    values.Take("fwhm", fwhm);
    values.Take("flux_ratio", fluxRatio);
    std::string json;
    values.Take("map", json);
    if (!json.empty()) map = MapOf(json);
  }
};

/// The frames of a stack of arrays, measured and weighed.
class Frames {
 public:
  Frames(const std::vector<Source>& sources, const std::vector<Place>& places, int reference,
         const StackChoices& choices, bool uncertainty)
      : choices_(choices), reference_(reference) {
    const session::Shape wanted = sources[reference].Shape();
    for (size_t i = 0; i < sources.size(); ++i) {
      const Source& source = sources[i];
      const Place& place = places[i];
      const session::Shape shape = source.Shape();
      if (shape.width != wanted.width || shape.height != wanted.height || shape.planes != wanted.planes) {
        throw UsageError(fmt::format("{}: is {} x {} x {}, and the reference {} x {} x {}", source.name,
                                     shape.width, shape.height, shape.planes, wanted.width, wanted.height,
                                     wanted.planes));
      }
      StackInput input{source.name, shape, place.dx, place.dy, place.degrees, place.map};
      const auto read = [from = source.Rows()](const Band<float>& to) {
        CopyPixels(from.Part(to.Top(), to.Rows()), to);
      };
      input.read = read;
      if (uncertainty) {
        if (!source.uncertainty) throw UsageError(source.name + ": has no uncertainty");
        input.readQuality = [read, from = BandOf(*source.uncertainty)](const Band<float>& to,
                                                                       const QualityRows& quality) {
          read(to);
          const Band<float>& variance = quality.variance;
          if (variance.Planes() == 0) return;
          CopyPixels(from.Part(to.Top(), to.Rows()), variance);
          for (int p = 0; p < variance.Planes(); ++p) {
            for (int y = variance.Top(); y < variance.Bottom(); ++y) {
              const auto row = variance.Row(p, y);
              std::transform(row.begin(), row.end(), row.begin(), [](float d) { return d * d; });
            }
          }
        };
      }
      inputs_.push_back(std::move(input));
    }
    hasFluxes_ = std::all_of(places.begin(), places.end(), [](const Place& p) { return p.fluxRatio; });
    choices_.Settle(hasFluxes_);
    options_ = choices_.Options();
    for (const Place& place : places) {
      ratios_.push_back(place.fluxRatio.value_or(1));
      fwhms_.push_back(place.fwhm);
    }
  }

  void Measure(Job& job) {
    const bool wantsLevels = choices_.WantsLevels();
    for (size_t i = 0; i < inputs_.size(); ++i) {
      job.CheckCancelled();
      job.Progress("measuring frame", static_cast<long long>(i) + 1, static_cast<long long>(inputs_.size()));
      if (wantsLevels) inputs_[i].levels = MeasureInput(job, inputs_[i]);
      if (hasFluxes_)
        std::fill(std::begin(inputs_[i].levels.spread), std::end(inputs_[i].levels.spread), ratios_[i]);
    }
    job.EndProgress();
    if (wantsLevels) CheckScales(inputs_, reference_);
    choices_.Weigh(inputs_, fwhms_, reference_);
  }

  const std::vector<StackInput>& Inputs() const { return inputs_; }
  StackOptions& Options() { return options_; }

 private:
  StackChoices choices_;
  StackOptions options_;
  int reference_;
  bool hasFluxes_ = false;
  std::vector<StackInput> inputs_;
  std::vector<double> ratios_, fwhms_;
};

py::dict StackArrays(const py::list& images, const py::list& registrations, int reference,
                     const py::dict& given, long long memory, const py::object& report, bool wantsProgress) {
  Host host({report, wantsProgress, memory});
  const Values values(given);
  StackChoices choices;
  TakeStackChoices(values, choices);
  if (choices.drizzle) throw UsageError("drizzle works on files: korimg.stack_files");
  bool uncertainty = false, maps = false;
  values.Take("uncertainty", uncertainty);
  values.Take("rejection_maps", maps);
  const std::vector<Source> sources = SourcesOf(images);
  std::vector<Place> places;
  for (const py::handle& place : registrations) {
    places.emplace_back(place.cast<py::dict>());
  }
  if (sources.size() != places.size() || reference < 0 || reference >= static_cast<int>(sources.size())) {
    throw UsageError("there is a registration for each image, and the reference is one of them");
  }
  Frames frames(sources, places, reference, choices, uncertainty);
  StackOptions& options = frames.Options();
  options.rejectionMaps = maps;
  options.uncertainty = uncertainty;
  options.memory = DefaultStackMemory(host.job);
  const session::Shape shape = sources[reference].Shape();
  const bool withPlanes = sources[reference].pixels.ndim() == 3;
  const auto make = [&](bool wanted) {
    return wanted ? std::optional(NewArray(shape.width, shape.height, shape.planes, withPlanes))
                  : std::nullopt;
  };
  std::optional<Pixels> result = make(true), low = make(maps), high = make(maps),
                        deviations = make(uncertainty);
  const auto bandOf = [](std::optional<Pixels>& pixels) {
    return pixels ? WritableBandOf(*pixels) : Band<float>();
  };
  const Band<float> to = bandOf(result), lowTo = bandOf(low), highTo = bandOf(high),
                    deviationsTo = bandOf(deviations);
  std::vector<CImgStack::Counts> counts(sources.size());
  host.Run([&] {
    frames.Measure(host.job);
    Stack(host.job, frames.Inputs(), reference, options, {}, [&](const StackBand& band) {
      const int top = band.result.Top(), rows = band.result.Rows();
      CopyPixels(band.result, to.Part(top, rows));
      if (maps) {
        CopyPixels(band.low, lowTo.Part(top, rows));
        CopyPixels(band.high, highTo.Part(top, rows));
      }
      if (uncertainty) {
        const Band<float> part = deviationsTo.Part(top, rows);
        CopyPixels(band.variance, part);
        for (int y = top; y < top + rows; ++y) {
          for (int p = 0; p < part.Planes(); ++p) {
            const auto row = part.Row(p, y);
            std::transform(row.begin(), row.end(), row.begin(), [](float v) { return std::sqrt(v); });
          }
        }
      }
      for (size_t i = 0; i < band.counts.size(); ++i) {
        counts[i] += band.counts[i];
      }
    });
  });
  py::list told;
  for (size_t i = 0; i < sources.size(); ++i) {
    const auto share = [](long long part, double all) {
      return all > 0 ? static_cast<double>(part) / all : 0;
    };
    const double values = static_cast<double>(counts[i].values);
    told.append(
        py::dict(py::arg("file") = sources[i].name, py::arg("weight") = frames.Inputs()[i].Weight(),
                 py::arg("covers") = share(counts[i].values, 1.0 * shape.width * shape.height * shape.planes),
                 py::arg("rejected_low") = share(counts[i].low, values),
                 py::arg("rejected_high") = share(counts[i].high, values)));
  }
  return py::dict(py::arg("pixels") = *result, py::arg("low") = low, py::arg("high") = high,
                  py::arg("uncertainty") = deviations, py::arg("frames") = told);
}

py::dict Compose(const py::list& images, const py::dict& given, long long memory, const py::object& report,
                 bool wantsProgress) {
  Host host({report, wantsProgress, memory});
  ComposeOptions options;
  TakeComposeOptions(Values(given), options);
  const std::vector<Source> sources = SourcesOf(images);
  std::optional<Image> made;
  host.Run([&] {
    std::vector<Image> copies;
    for (const Source& source : sources) {
      copies.push_back(source.Copy(host.job));
    }
    made = session::Compose(host.job, std::move(copies), options);
  });
  return DictOf(*made);
}

py::array_t<unsigned char> Render(const py::dict& image, const py::dict& given, long long memory,
                                  const py::object& report) {
  Host host({report, false, memory});
  const Source source(image);
  RenderOptions options;
  TakeRenderOptions(Values(given), options);
  const Picture picture =
      host.Run([&] { return session::RenderImage(host.job, source.Copy(host.job), options); });
  const session::Shape& shape = picture.result.shape;
  std::vector<py::ssize_t> size{shape.height, shape.width};
  if (shape.planes == 3) size.push_back(3);
  py::array_t<unsigned char> pixels(size);
  std::copy(picture.pixels.begin(), picture.pixels.end(), pixels.mutable_data());
  return pixels;
}

}  // namespace

void AddSteps(py::module_& module) {
  module.def("calibrate", &Calibrate);
  module.def("develop", &Develop);
  module.def("register_arrays", &RegisterArrays);
  module.def("register_files", &RegisterFiles);
  module.def("stack_arrays", &StackArrays);
  module.def("compose", &Compose);
  module.def("render", &Render);
}

}  // namespace korimg::python
