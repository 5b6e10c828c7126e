#include "session/operations/Apply.h"

#include <fmt/format.h>

#include "korimg/pipelines/runtime/Runtime.h"

#include "session/job/internal/Edge.h"
#include "session/picture/Images.h"

namespace korimg::session {
namespace {

constexpr const char* kLeftOut = "operations do not carry uncertainties and masks along: they are left out";

}  // namespace

std::string ApplyOptions::Text() const {
  std::string text;
  for (const Step& step : steps) {
    text += (text.empty() ? "" : " then ") + step.Text();
  }
  if (rect) text += " --rect " + TextOf(*rect);
  return text + blend.Text();
}

void CheckSteps(const ApplyOptions& options) {
  for (const Step& step : options.steps) {
    step.CheckComplete();
    if (options.rect) step.CheckTakesRect();
  }
}

void Apply(Job& job, const ApplyOptions& options, Image& image) {
  AtEdge([&] {
    CheckSteps(options);
    CRect rect = options.rect.value_or(CRect());
    CRect* window = options.rect ? &rect : nullptr;
    std::optional<Blend> blend;
    if (options.blend.Any()) blend.emplace(job, options.blend, image.Pixels(), image.Header(), window);
    if (image.QualityOfPixels().Any()) {
      job.Warn(kLeftOut);
      image.QualityOfPixels() = {};
    }
    for (const Step& step : options.steps) {
      step.Run(job, image, window);
      if (blend) blend->CheckShape(image.Pixels(), step.What().name);
    }
    if (blend) blend->Apply(image.Pixels());
  });
}

void ApplyFile(Job& job, const ApplyOptions& options) {
  AtEdge([&] {
    CheckSteps(options);
    job.CheckOutput(options.output);
    Image image = Image::Open(job, job.MakeStore(options.paged), options.input, {.hdu = options.hdu});
    const bool mayHaveQuality = image.Header().GetString("EXTEND") == "T";
    if (mayHaveQuality &&
        QualityReader(*files::ImageReader::Open(options.input, {.hdu = options.hdu})).Any()) {
      job.Warn(fmt::format("{}: {}", options.input.string(), kLeftOut));
    }
    Apply(job, options, image);
    image.Header().AddHistory(fmt::format("korimg {} {}", Version(), options.Text()));
    SaveImage(job, image.Pixels(), image.Header(), options.output, {.integers = options.integers});
  });
}

}  // namespace korimg::session
