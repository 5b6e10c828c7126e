// Operations between mono and colour, and on colours.
#include <fmt/format.h>

#include "korimg/colour/CImgColorBalance.h"
#include "korimg/colour/CImgColorCorrect.h"
#include "korimg/colour/CImgFalseColor.h"
#include "korimg/colour/CImgLabColorEnhance.h"
#include "korimg/colour/CImgSeparation.h"

#include "session/files/Gain.h"
#include "session/operations/Describe.h"
#include "session/operations/internal/Colours.h"

namespace korimg::session {
namespace {

struct NoOptions {};

/// Refuses the planes a and b: neither of them is a brightness.
void CheckBrightness(const Call& call) {
  if (call.image->GetPlanes() == 2) {
    throw UsageError(fmt::format("{}: the image has two planes, and no brightness", call.Name()));
  }
}

void ToGray(Call& call, const NoOptions&) {
  CheckBrightness(call);
  if (!call.image->IsColor()) return;
  call.Replace<CVelImage>([&](CVelImage& target) { return target.ToGray(call.image.get(), kShow); });
}

void ToColour(Call& call, const NoOptions&) {
  CheckBrightness(call);
  if (call.image->IsColor()) return;
  call.Replace<CVelImage>([&](CVelImage& target) { return target.ToColor(call.image.get(), kShow); });
}

struct BalanceOptions {
  double red = 0, green = 0, blue = 0;
};

void Balance(Call& call, const BalanceOptions& o) {
  CheckColours(call);
  call.Replace<CImgColorBalance>([&](CImgColorBalance& target) {
    target.Do(o.red, o.green, o.blue, call.image.get(), call.rect, kShow);
  });
}

enum class By { Raw, Levels };
enum class Origin : int { None, Smallest, Value };  // the library's numbers

struct MatrixOptions {
  Matrix matrix = {3, 3, {1, 0, 0, 0, 1, 0, 0, 0, 1}};
  double strength = 1;
  By by = By::Raw;
  Origin origin = Origin::None;
  std::optional<double> value;
};

tagMATRIX LibraryMatrix(const Matrix& matrix) {
  if (matrix.rows != 3 || matrix.columns != 3) {
    throw UsageError(fmt::format("colour-matrix: a matrix of colours has 3 rows of 3 numbers, not {} of {}",
                                 matrix.rows, matrix.columns));
  }
  const auto& a = matrix.values;
  return {a[0], a[1], a[2], a[3], a[4], a[5], a[6], a[7], a[8]};
}

void ColourMatrix(Call& call, const MatrixOptions& o) {
  CheckColours(call);
  tagMATRIX matrix = LibraryMatrix(o.matrix);
  if ((o.origin == Origin::Value) != o.value.has_value()) {
    throw UsageError("colour-matrix: origin=value and value= belong together");
  }
  if (o.by == By::Levels) {
    if (o.origin != Origin::None) {
      throw UsageError("colour-matrix: by=levels counts from black; leave origin out");
    }
    call.Replace<CImgColorCorrect>([&](CImgColorCorrect& target) {
      return target.Do(&matrix, o.strength, 0, 0, 0, call.image.get(), call.rect, kShow);
    });
    return;
  }
  const auto correct = [&](CImgColorCorrect& image) {
    image.Do(&matrix, o.strength, static_cast<int>(o.origin), static_cast<float>(o.value.value_or(0)), 0,
             kShow);
  };
  if (!call.rect) {
    call.InPlace<CImgColorCorrect>(correct);
    return;
  }
  const auto whole = call.NewTarget<CImgColorCorrect>();
  correct(*whole);
  call.image->Paste(whole.get(), call.rect);
}

struct EnhanceOptions {
  double a = 1, b = 1;
  std::optional<double> red, green, yellow, blue;
};

/// The planes of Lab that make(image) gives.
template <class F>
std::unique_ptr<CVelImage> LabPlanes(const Call& call, F&& make) {
  std::unique_ptr<CVelImage> planes(make(*call.image));
  if (!planes) throw velora::CVmMemoryAllocationError("no room for the planes of Lab");
  return planes;
}

void Enhance(Call& call, const EnhanceOptions& o) {
  CheckColours(call);
  const auto lab = LabPlanes(call, [](CVelImage& image) { return image.MakeLabPlane(); });
  call.InPlace<CImgLabColorEnhance>([&](CImgLabColorEnhance& image) {
    image.Do(lab.get(), o.red.value_or(o.a), o.green.value_or(o.a), o.yellow.value_or(o.b),
             o.blue.value_or(o.b), call.rect, kShow);
  });
}

enum class Palette : int { Rainbow, Spectrum, Blue, Teal, Red, Heat, Grey };  // the library's numbers

struct FalseColourOptions {
  Palette palette = Palette::Rainbow;
  double low = 0, high = 255;
  int cycles = 0;
};

void FalseColour(Call& call, const FalseColourOptions& o) {
  CheckBrightness(call);
  if (o.low == o.high) throw UsageError("false-colour: low and high are equal; the palette needs a range");
  CVelImage& image = *call.image;
  call.Replace<CImgFalseColor>([&](CImgFalseColor& target) {
    if (!target.ToColor(&image, 0)) return 0;
    target.Do(image.ToRaw(o.low, 0), image.ToRaw(o.high, 0), static_cast<int>(o.palette), o.cycles, &image,
              call.rect, kShow);
    return 1;
  });
}

enum class Channel : int { Red, Green, Blue, Cyan, Magenta, Yellow };  // the library's numbers

struct SeparateOptions {
  Channel channel = Channel::Red;
};

void Separate(Call& call, const SeparateOptions& o) {
  CheckColours(call);
  call.Replace<CImgSeparation>([&](CImgSeparation& target) {
    if (!target.ChangePlanes(1, nullptr)) return 0;
    target.Do(call.image.get(), static_cast<int>(o.channel), kShow);
    return 1;
  });
  if (o.channel >= Channel::Cyan) files::DropGain(call.header);
}

enum class Planes { Lab, L, Ab };

struct LabOptions {
  Planes planes = Planes::Lab;
  bool clip = false;
};

void ToLab(Call& call, const LabOptions& o) {
  CheckBrightness(call);
  // Black to white, and more than the most vivid colours of light up to white reach.
  constexpr double kWhite = 100, kVivid = 200;
  if (o.clip && o.planes != Planes::Ab) throw UsageError("to-lab: clip=1 is of planes=ab alone");
  auto planes = LabPlanes(call, [&](CVelImage& image) {
    return o.planes == Planes::Lab ? image.MakeLabPlane()
           : o.planes == Planes::L ? image.MakeLPlane()
                                   : image.MakeAbPlane(o.clip);
  });
  for (int p = 0; p < planes->GetPlanes(); ++p) {
    const bool isL = p == 0 && o.planes != Planes::Ab;
    planes->SetLevel(p, isL ? 0 : -kVivid, isL ? kWhite : kVivid);
  }
  planes->SetOwnLevel(true);
  call.image = std::move(planes);
}

}  // namespace

std::vector<Operation> ColourOperations() {
  return {
      Describe<BalanceOptions>(
          "colour-balance", "shifts red, green and blue against each other",
          "Makes a tinted sky grey: a colour that is too strong in the dark parts is lowered by what it has "
          "too much. Bright stars hardly change. Colours that are off by a factor want calculate, or levels.")
          .Takes("red", &BalanceOptions::red, {"added to red", "% of red's levels", -1e6, 1e6})
          .Takes("green", &BalanceOptions::green, {"added to green", "% of red's levels", -1e6, 1e6})
          .Takes("blue", &BalanceOptions::blue, {"added to blue", "% of red's levels", -1e6, 1e6})
          .OnRect()
          .Example("green=-2.5 blue=1")
          .KeepsSource()
          .Runs(Balance),
      Describe<MatrixOptions>(
          "colour-matrix", "mixes red, green and blue by a matrix",
          "Brings a camera's colours to those of the eye by the matrix of its maker, or takes out what a "
          "filter lets through of its neighbours. Raw values are distances from an origin, for calibrated "
          "frames 0; what comes out at 0 or below becomes the smallest positive number. By levels, black is "
          "the origin and white the unit of each plane, and nothing is cut: set level first. Do it before "
          "any curve.")
          .Takes("matrix", &MatrixOptions::matrix,
                 {"three rows, which give red, green and blue: 1.2,-0.1,-0.1;...", "", -1e6, 1e6})
          .Required()
          .Takes("strength", &MatrixOptions::strength,
                 {"the share of the result; the rest is the pixel", "", 0, 1})
          .Chooses("by", &MatrixOptions::by, {{"raw", By::Raw}, {"levels", By::Levels}},
                   "raw values, or shares of the levels")
          .Chooses("origin", &MatrixOptions::origin,
                   {{"none", Origin::None}, {"smallest", Origin::Smallest}, {"value", Origin::Value}},
                   "where raw values are counted from: 0, the smallest pixel, or value")
          .Takes("value", &MatrixOptions::value,
                 {"black of the camera, for origin=value", "raw", -1e30, 1e30})
          .OnRect()
          .Header(HeaderEffect::DropsCounts)
          .Example("matrix=1.5,-0.3,-0.2;-0.2,1.4,-0.2;0,-0.6,1.6 origin=value value=60")
          .Runs(ColourMatrix),
      Describe<FalseColourOptions>(
          "false-colour", "paints brightness in the colours of a palette",
          "Shows differences that the eye misses in grey: outer halos, gradients, the corona. A mono image "
          "becomes one in colour, a colour image loses its own. For looking, not for measuring.")
          .Chooses("palette", &FalseColourOptions::palette,
                   {{"rainbow", Palette::Rainbow},
                    {"spectrum", Palette::Spectrum},
                    {"blue", Palette::Blue},
                    {"teal", Palette::Teal},
                    {"red", Palette::Red},
                    {"heat", Palette::Heat},
                    {"grey", Palette::Grey}},
                   "rainbow from blue to red; spectrum from black through it to white, with a jump at each "
                   "colour; the others from black to white")
          .Takes("low", &FalseColourOptions::low, {"the palette's begin", "0-255", -1e6, 1e6})
          .Takes("high", &FalseColourOptions::high,
                 {"its end; below low the palette is turned over", "0-255", -1e6, 1e6})
          .Takes("cycles", &FalseColourOptions::cycles,
                 {"how often the palette is run through; 0 and 1: once", "", 0, 1000})
          .OnRect()
          .Header(HeaderEffect::DropsCounts)
          .Example("palette=heat low=10 high=200")
          .KeepsSource()
          .Runs(FalseColour),
      Describe<EnhanceOptions>(
          "lab-enhance", "deepens or fades colours, and keeps lightness",
          "Brings out the red of hydrogen, the blue of reflection nebulae and the colours of stars, after "
          "the "
          "picture has been stretched and its sky made grey: faint colours of the sky grow too. Works in "
          "L, a and b. Black and white are those of the levels; what lies below black becomes black.")
          .Takes("a", &EnhanceOptions::a, {"factor between green and red; 1 changes nothing", "", 0, 1000})
          .Takes("b", &EnhanceOptions::b, {"factor between blue and yellow", "", 0, 1000})
          .Takes("red", &EnhanceOptions::red, {"factor of reds, by default a", "", 0, 1000})
          .Takes("green", &EnhanceOptions::green, {"factor of greens, by default a", "", 0, 1000})
          .Takes("yellow", &EnhanceOptions::yellow, {"factor of yellows, by default b", "", 0, 1000})
          .Takes("blue", &EnhanceOptions::blue, {"factor of blues, by default b", "", 0, 1000})
          .OnRect()
          .Header(HeaderEffect::DropsCounts)
          .Example("a=1.4 b=1.2 green=0.5")
          .Runs(Enhance),
      Describe<SeparateOptions>(
          "separate", "takes one channel of a colour image as a mono one",
          "Gives a plane to measure, to sharpen or to make a mask of. Cyan, magenta and yellow are means of "
          "two planes; their levels are the means of these, of yellow those of red and blue.")
          .Chooses("channel", &SeparateOptions::channel,
                   {{"red", Channel::Red},
                    {"green", Channel::Green},
                    {"blue", Channel::Blue},
                    {"cyan", Channel::Cyan},
                    {"magenta", Channel::Magenta},
                    {"yellow", Channel::Yellow}},
                   "the channel")
          .Example("channel=green")
          .KeepsSource()
          .Runs(Separate),
      Describe<NoOptions>("to-colour", "makes three planes of one",
                          "Gives a mono image three equal planes, so that it can be tinted, or combined with "
                          "images in colour. A mosaic gets no colours by this: develop it.")
          .Example("")
          .Runs(ToColour),
      Describe<NoOptions>("to-gray", "makes one plane of luminance",
                          "Weighs red, green and blue as the eye does, by their levels: a luminance for "
                          "sharpening or a mask. A mono image stays as it is.")
          .Header(HeaderEffect::DropsCounts)
          .Example("")
          .Runs(ToGray),
      Describe<LabOptions>(
          "to-lab", "makes planes of lightness L and of the colour axes a and b",
          "Keeps lightness and colour apart, so that each can be sharpened, smoothed or measured by itself. "
          "Black and white are those of the levels: L is 0 at black and 100 at white, a is positive for red "
          "and negative for green, b positive for yellow and negative for blue, both 0 for greys. Save them "
          "as 32-bit FITS; a and b alone are an image of two planes, which pictures cannot hold.")
          .Chooses("planes", &LabOptions::planes,
                   {{"lab", Planes::Lab}, {"l", Planes::L}, {"ab", Planes::Ab}},
                   "L, a and b; L alone; or a and b")
          .Takes("clip", &LabOptions::clip, {"1: a and b alone count what is above white as white"})
          .Header(HeaderEffect::DropsCounts)
          .Example("planes=lab")
          .Runs(ToLab),
  };
}

}  // namespace korimg::session
