// Unsharp masks of several scales at once.
#include "Blur.h"

using namespace Halide;

namespace {

Var x("x"), y("y");

/// The mean of six unsharp masks. In each tile of the output they are summed one by one.
Definition sub_band_unsharp_mask(const Target& target) {
  constexpr int kBands = 6;
  ImageParam input(Float(32), 2, "input");
  std::vector<ImageParam> weights;
  std::vector<Param<float>> strengths;
  std::vector<Param<int>> radii;
  std::vector<Blur> blurs;
  std::vector<Func> pixels;
  Func sum("sum"), output("output");
  Expr s = input(x, y), widest = 1;
  sum(x, y) = 0.0f;
  for (int n = 0; n < kBands; ++n) {
    const std::string number = std::to_string(n);
    weights.emplace_back(Float(32), 1, "weights" + number);
    strengths.emplace_back("fW" + number);
    radii.emplace_back("nR" + number);
    Blur blur("blur" + number, input, weights[n], radii[n]);
    // Tiles stick out of the image.
    pixels.emplace_back("pixel" + number);
    pixels[n](x, y) = BoundaryConditions::repeat_edge(input)(x, y);
    Expr pixel = pixels[n](x, y);
    sum(x, y) += select(strengths[n] > 0.0f, strengths[n] * (pixel - blur(x, y)) + pixel, pixel);
    widest = max(widest, blur.radius);
    blurs.push_back(blur);
  }
  Band band;
  Param<float> dark_width("fDarkThresholdBuf"), highlight_width("fHighlightThresholdBuf"), share("fBPrm");
  Param<bool> brighter("bBrighter");
  Expr mean = sum(x, y) / static_cast<float>(kBands);
  Expr limited = select(brighter && s > mean, mean + (s - mean) * share, mean);
  output(x, y) = band.blend(s, limited, dark_width, highlight_width);

  Expr rows = 2 * widest + 1;
  const RowTiles tiles(output, target, max(100000 / rows, 512), max(64, 4 * rows));
  sum.compute_at(tiles.tile).vectorize(x, tiles.lanes, TailStrategy::RoundUp);
  for (int n = 0; n < kBands; ++n) {
    const RowTiles rows_of_sum(sum, n, tiles);
    blurs[n].slide(rows_of_sum);
    pixels[n].compute_at(rows_of_sum.row).vectorize(x, tiles.lanes, TailStrategy::RoundUp);
  }
  std::vector<Argument> arguments{input};
  arguments.insert(arguments.end(), weights.begin(), weights.end());
  arguments.insert(arguments.end(), strengths.begin(), strengths.end());
  arguments.insert(arguments.end(), radii.begin(), radii.end());
  for (const Argument& argument :
       {Argument(band.dark), Argument(band.dark_min), Argument(dark_width), Argument(band.highlight),
        Argument(band.highlight_max), Argument(highlight_width), Argument(brighter), Argument(share)}) {
    arguments.push_back(argument);
  }
  return {arguments, {output}};
}

}  // namespace

std::vector<Member> Family() {
  return {{"sub_band_unsharp_mask_float", sub_band_unsharp_mask, true}};
}
