// Filters along circles about a centre.
#include "korimg/restoration/CImgRUsm.h"
#include "korimg/restoration/CImgRttnGrdnt.h"

#include "session/operations/internal/FilterOptions.h"

namespace korimg::session {
namespace {

struct CircleOptions {
  std::optional<double> centreX, centreY;
  double radiusMin = 0;
  std::optional<double> dark, darkRange, highlight, highlightRange, brighter;
  bool mark = false;
};

/// Calls filter(target, centre and limits ...), in the order of the library's filters.
template <class Target, class F>
void AlongCircles(Call& call, const CircleOptions& o, F&& filter) {
  CheckBand(call, o);
  const double x = o.centreX.value_or((call.image->GetWidth() - 1) / 2.0),
               y = o.centreY.value_or((call.image->GetHeight() - 1) / 2.0);
  call.Replace<Target>([&](Target& target) {
    filter(target, x, y, o.radiusMin, o.dark.has_value(), o.dark.value_or(0), o.darkRange.value_or(0),
           o.highlight.has_value(), o.highlight.value_or(0), o.highlightRange.value_or(0),
           o.brighter.has_value(), o.brighter.value_or(0), o.mark);
    call.job.CheckCancelled();  // the filters end half way
  });
}

struct GradientOptions : CircleOptions {
  double angle = 10, source = 1;
};

void Gradient(Call& call, const GradientOptions& o) {
  AlongCircles<CImgRttnGrdnt>(call, o, [&](CImgRttnGrdnt& target, auto... rest) {
    target.Do(o.angle, o.source, rest..., call.image.get(), call.rect, kShow);
  });
}

struct UnsharpOptions : CircleOptions {
  double angle = 10, amount = 1;
  int segments = 200;
  bool grey = false, mean = false;
};

void Unsharp(Call& call, const UnsharpOptions& o) {
  constexpr double kNothing = 3.1;  // the library's strength that changes nothing
  AlongCircles<CImgRUsm>(call, o, [&](CImgRUsm& target, double x, double y, auto... rest) {
    target.Do(o.angle, kNothing - o.amount, o.segments, o.grey, x, y, rest..., o.mean, call.image.get(),
              call.rect, kShow);
  });
}

template <class O>
Describe<O>& TakesCircle(Describe<O>& description) {
  description
      .Takes("centre-x", &O::centreX,
             {"column of the centre; by default the image's middle", "pixels", -1e6, 1e6})
      .Takes("centre-y", &O::centreY,
             {"row of the centre; by default the image's middle", "pixels", -1e6, 1e6})
      .Takes("radius-min", &O::radiusMin, {"pixels up to it stay as they are", "pixels", 0, 1e6});
  return TakesBand(description)
      .Takes("brighter", &O::brighter,
             {"percent of what a pixel was darkened that it gets back", "%", 0, 100})
      .Takes("mark", &O::mark, {"draws a dashed cross through the centre on the first plane"});
}

}  // namespace

std::vector<Operation> RotationalOperations() {
  Describe<GradientOptions> gradient(
      "rotational-gradient", "each pixel against those an angle to either side on its circle about a centre",
      "Shows jets and shells of a comet, which its coma hides: what is round about the centre vanishes. Give "
      "the "
      "place of the nucleus to a pixel; a wrong one makes a dipole of it. Stars leave dark pairs, so stack "
      "on "
      "the comet with rejection before. The result is a map of structure and no picture of light.");
  gradient.Takes("angle", &GradientOptions::angle, {"to either side", "degrees", -360, 360})
      .Takes(
          "source", &GradientOptions::source,
          {"share of the image itself: 0 is the gradient alone, large values leave the image", "", 0, 1e6});
  Describe<UnsharpOptions> unsharp("rotational-unsharp",
                                   "sharpens by the difference from the mean along an arc about a centre",
                                   "Brings out the streamers of the solar corona, and jets of comets, "
                                   "however steeply they fade outwards: a pixel "
                                   "is compared with its own distance from the centre alone. Wide angles "
                                   "show coarse structure. Give the centre "
                                   "to a pixel, and a radius-min beyond the moon's limb or the nucleus.");
  unsharp.Takes("angle", &UnsharpOptions::angle, {"of the arc, to either side", "degrees", -360, 360})
      .Takes("amount", &UnsharpOptions::amount, {"what the difference is multiplied by", "", -1000, 1000})
      .Takes("segments", &UnsharpOptions::segments,
             {"steps in which the mean moves along the arc; what is near counts more, the more there are", "",
              0, 1000000})
      .Takes("grey", &UnsharpOptions::grey, {"filters the luminance, and makes a colour image grey"})
      .Takes("mean", &UnsharpOptions::mean, {"gives the mean itself in place of the sharpened image"});
  return {
      TakesCircle(gradient)
          .Header(HeaderEffect::DropsCounts)
          .Example("angle=8 source=0.5 centre-x=40 centre-y=30")
          .Runs(Gradient),
      TakesCircle(unsharp).Example("angle=15 amount=2 centre-x=40 centre-y=30 radius-min=4").Runs(Unsharp),
  };
}

}  // namespace korimg::session
