// Extremes over discs of fixed radii.
#include <map>

#include "Driver.h"
#include "Keys.h"

using namespace Halide;

namespace {

Var x("x"), y("y");

/// Half the width of the disc dx dx + dy dy <= radius radius in row dy.
int half_width(int radius, int dy) {
  int half = 0;
  while ((half + 1) * (half + 1) + dy * dy <= radius * radius) {
    ++half;
  }
  return half;
}

/// The smallest or the largest pixel of a disc; planes mirror about their edge rows and columns, and NaN is
/// the largest.
///
/// chord[h] covers the pixels from x - h to x + h of a row: narrow ones pixel by pixel, wider ones by two
/// that are narrower. The disc is one chord for each of its rows.
Member disc(const std::string& kind, int radius) {
  const std::string side = std::to_string(2 * radius + 1);
  return {kind + "_filter_" + side + "x" + side + "_float",
          [=](const Target& target) {
            const auto better = [&](Expr a, Expr b) { return kind == "min" ? min(a, b) : max(a, b); };
            ImageParam input(Float(32), 2, "input");
            std::map<int, Func> chord{{0, Func("chord0")}};
            chord[0](x, y) = key(BoundaryConditions::mirror_interior(input)(x, y));
            const auto make_chord = [&](int half) {
              Func f("chord" + std::to_string(half));
              const auto narrower = std::prev(chord.end());
              const int step = half - narrower->first;
              Expr best = better(narrower->second(x - step, y), narrower->second(x + step, y));
              if (narrower->first == 0) {
                for (int dx = 1 - half; dx < half; ++dx) {
                  best = better(best, chord[0](x + dx, y));
                }
              }
              f(x, y) = best;
              chord[half] = f;
            };
            for (int dy = radius; dy >= 0; --dy) {
              const int half = half_width(radius, dy);
              // Two chords that are to cover a wider one must touch.
              for (int widest = chord.rbegin()->first; half > std::max(2 * widest, 2);
                   widest = chord.rbegin()->first) {
                make_chord(std::max(2 * widest, 2));
              }
              if (!chord.count(half)) make_chord(half);
            }
            Func output("output");
            Expr best = chord[radius](x, y);
            for (int dy = 1; dy <= radius; ++dy) {
              Func& f = chord[half_width(radius, dy)];
              best = better(best, better(f(x, y - dy), f(x, y + dy)));
            }
            output(x, y) = from_key(best);

            // The chords in use stay in the second-level cache. Small discs read their few pixels without
            // stages between.
            constexpr int kInline = 2;
            std::vector<Func> stages;
            for (const auto& [half, f] : chord) {
              if (half == 0 || radius > kInline) stages.push_back(f);
            }
            ScheduleBySlidingRows(output, stages, target, 12000 / radius);
            return Definition{{input}, {output}};
          },
          true};
}

}  // namespace

std::vector<Member> Family() {
  std::vector<Member> members;
  for (const char* kind : {"min", "max"}) {
    for (int radius = 1; radius <= 10; ++radius) {
      members.push_back(disc(kind, radius));
    }
  }
  return members;
}
