#pragma once

#include "korimg/image/CVelImage.h"

/// Tells what a raw frame's header and size tell of the camera, without a look at a pixel.
class KORIMG_API CImgInformation : public CVelImage {
 public:
  /// Formats of a camera's raw frames: the full one, and the reduced ones of two makers.
  enum RAWTYPE : int {
    RawUnknown = 0,  ///< the header names no maker or no model
    RawFull = 1,     ///< nothing known of a reduced size
    RawS = 10,       ///< "sRAW"
    RawS1 = 11,      ///< "sRAW)", the wider one of cameras with two
    RawS2 = 12,      ///< "sRAW2"
    RawMedium = 13,  ///< "M-RAW"
    RawSmall = 14,   ///< "S-RAW"
    RawSizeS = 20,   ///< "RAW S"
    RawSizeM = 21    ///< "RAW M"
  };

  CImgInformation() = default;
  CImgInformation(const CImgInformation& other) : CVelImage(other, nullptr) {}

  /// Answers the number of the colour filter array, as in CHeader: the header's own one when it is above 0,
  /// else by maker and model. 1, or 0 and `*cfa` as it was when the camera is not known.
  int GetAutoCFA(int* cfa) const;
  /// Answers the format of the frame by camera and size, with its label; RawUnknown and RawFull have an empty
  /// one.
  RAWTYPE GetRawType(CString& label) const;
  /// Tells what to show of camera, exposure and cooling. A frame without a camera's name is a CCD's: its
  /// exposure and temperature stay as they were when they are not known.
  void GetInfoString(CString& instrument, CString& exposure, CString& temperature) const;
};
