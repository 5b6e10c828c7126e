// Hot and cold pixels of a sensor: where they are, and what stands in for them.
#pragma once

#include <array>
#include <functional>
#include <memory>
#include <vector>

#include "korimg/image/CVelImage.h"
#include "korimg/image/View.h"

#include "session/job/Job.h"
#include "session/picture/Images.h"

namespace korimg::session {

/// Lists the pixels of one colour about each pixel of a sensor, the nearest first; of a mono one, all pixels.
class SameColour {
 public:
  static constexpr int kReach = 4;  ///< columns and rows

  struct Offset {
    int x, y;
  };

  /// Lists them by the number of a colour filter array; 0 is a mono sensor.
  explicit SameColour(int cfa);

  const std::vector<Offset>& About(int x, int y) const { return offsets_[y & 3][x & 3]; }
  /// Answers the number of a pixel's colour; less than 0 between the sites of a honeycomb.
  int ColourAt(int x, int y) const { return colours_[y & 3][x & 3]; }

 private:
  std::array<std::array<int, 4>, 4> colours_;
  std::array<std::array<std::vector<Offset>, 4>, 4> offsets_;
};

struct Defect {
  int x, y;
  bool isHot;
};

/// Holds the defects of a sensor, whose frames have one plane.
class DefectMap {
 public:
  /// Rows above and below a pixel that are looked at for what stands in for it.
  static constexpr int kReach = SameColour::kReach;

  DefectMap(int width, int height, int cfa, std::vector<Defect> defects);

  const std::vector<Defect>& Defects() const { return defects_; }
  /// True when the pixel is not one of them.
  bool IsGood(int x, int y) const;
  int Hot() const { return hot_; }
  int Cold() const { return static_cast<int>(defects_.size()) - hot_; }

  /// Gives the defects of rows top to bottom - 1 the median of the nearest good pixels of their colour, four
  /// or all that are as near as the fourth. `rowOf` answers the pixels of these and those that are kReach
  /// away, as far as the image has them. Pixels that are no finite numbers stay, and stand in for none; so
  /// does what has no good one of its colour near. With the variances of the same rows they get that of what
  /// stands in, and the mask of their own rows tells of them.
  using RowOf = std::function<float*(int y)>;
  void Mend(const RowOf& rowOf, int top, int bottom, const RowOf& varianceOf = {},
            const RowOf& maskOf = {}) const;
  void Mend(const Band<float>& rows, int top, int bottom, const QualityRows& quality = {}) const {
    const auto rowsOf = [](const Band<float>& band) -> RowOf {
      if (band.Planes() == 0) return {};
      return [band](int y) { return band.Row(0, y).data(); };
    };
    Mend(rowsOf(rows), top, bottom, rowsOf(quality.variance), rowsOf(quality.mask));
  }
  /// Makes an image of 1 where a pixel is hot, -1 where it is cold, else 0.
  std::unique_ptr<CVelImage> ToImage(const std::shared_ptr<CVmManager>& store) const;

 private:
  int width_, height_;
  SameColour sameColour_;
  std::vector<Defect> defects_;  ///< by rows
  std::vector<size_t> rows_;     ///< where each row's begin
  int hot_;
};

/// Finds the defects of a sensor by its dark: pixels that lie further from the median of their colour than 10
/// times the standard deviation that the median distance stands for, and as far from the median of the
/// pixels of their colour about them, so that the glow of an amplifier is no defect.
DefectMap FindDefectsInDark(CVelImage& dark, int cfa);

/// Calibrated rows of a light that is not developed, by bands from the first to the last.
using RowSource = std::function<void(const Band<float>& to)>;

/// Finds the defects of a sensor by three lights or more, an odd number: pixels that stand out from those of
/// their colour about them in all lights, or all but one of five or more, by 5 times the standard deviation
/// of the others, while the pixels beside them do not. That tells them from stars that stay in their place,
/// down to a FWHM of 1.2 pixels (2.5 on a honeycomb), whose light reaches the pixels beside theirs. Of
/// simulated lights of such stars it finds 995 of 1000 pixels of 3 to 5000 times the noise.
DefectMap FindDefectsInLights(Job& job, const std::vector<RowSource>& lights, int width, int height, int cfa,
                              const std::shared_ptr<CVmManager>& store);

}  // namespace korimg::session
