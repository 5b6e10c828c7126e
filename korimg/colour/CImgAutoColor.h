#pragma once

#include "korimg/image/CVelImage.h"

/// Balances the colours of an image in place by its sky: see CImgAutoStretch.
class KORIMG_API CImgAutoColor : public CVelImage {
 public:
  /// What else the balance goes by. The settings are of "Dialog\\AutoStretch".
  struct Settings {
    double scale[3] = {1, 1, 1};  ///< of each plane's distances to the sky: FilterR, FilterG, FilterB
    double offset = 0;            ///< Offset: is added to all planes, percent of twice plane 0's spread

    static Settings Read();
  };

  /// Brings the skies of all planes to plane 0's and their spreads to the largest, by the settings. Answers
  /// 1, or 0 with nothing done for a mono image, one without clean sky, or with pixels that are not finite. A
  /// plane of one value makes all spreads and scales 1.
  int Do(int show);
  int Do(const Settings& settings, int show);
};
