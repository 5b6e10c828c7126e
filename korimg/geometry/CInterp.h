#pragma once

#include <vector>

#include "korimg/image/CVelImage.h"
#include "korimg/image/CfPoint.h"
#include "korimg/platform/CString.h"

/// Reads an image between its pixels: single points, whole lines of a shifted or turned grid, and pixels of
/// one. It never writes to the image, which must keep its size and outlive the sampler. Set up once, it may
/// be read from many threads.
///
/// Kernels are those of Keys (1981) with slope -0.5 and of Duchon (1979); they are not normalised, and
/// overshoot stays. All arithmetic is in double. Beyond the edges the edge pixels repeat. A positive angle
/// turns the picture clockwise on screen.
class KORIMG_API CInterp {
 public:
  /// Method numbers, as settings and dialogs keep them.
  enum Method : int { MethodBilinear, MethodBicubic, MethodLanczos2, MethodLanczos3, MethodNearest };
  /// Forms of the line readers.
  enum Form : int { WholeShift, FloatShift, Rotate };

  /// Answers the form that a shift and an angle, in whatever unit, ask for.
  static Form FormOf(double dx, double dy, double angle);

  /// SetBParam comes before any read.
  explicit CInterp(int method) : method_(method) {}
  /// Makes a sampler that is ready for Do. The third argument is not used.
  CInterp(int method, CVelImage* image, int);

  /// Sets the line readers up. Left and right are the span of the output's samples in source coordinates;
  /// scaled non-zero gives the 0 to 255 scale instead of raw; `outside` is written as it is where the image
  /// does not reach; plane -1 means all three. GetBLineMed takes `plane` as a number of planes. The centre is
  /// the image's own, or width / 2 and height / 2.
  void SetBParam(int form, CVelImage* image, double left, double right, int scaled, float outside, int plane,
                 double sine, double cosine, double scale, int useImageCentre);
  /// Sets the pixel readers up.
  void SetBParam(CVelImage* image, double shiftX, double shiftY, double sine, double cosine, double scale,
                 int useImageCentre, int plane, float outside);
  /// Sets the most samples that a line reader writes to a row; all of its span when this is not set.
  /// GetBLineMed's planes lie this far apart, or else the image's width.
  void SetLineCapacity(int samples) { capacity_ = samples; }

  /// Answers a sample in raw; 0 off the image (the far edges, x = width and y = height, are on it; nearest
  /// has no bounds) and for an unknown method.
  float Do(double x, double y, int plane);
  /// Writes Do(x * step, y) for x from 0 to columns - 1; the product is in float.
  void DoRow(float step, double y, int plane, int columns, float* out);
  /// Answers one pixel, inside the image.
  float GetPixData(int x, int y, int plane);
  /// Looks the rows' addresses up again, on stores that keep them in place.
  void GetImageYaddress();

  /// Fills a row for output line y: floor(right) - floor(left) samples. With plane -1 the three-row form
  /// gives one sample for each plane, or the only plane three times, and the one-row form nothing; else
  /// out0 alone gets the plane's sample, in the three-row form of a colour image the luminance.
  void GetBLine(double y, float* out);
  void GetBLine(double y, float* out0, float* out1, float* out2);
  void GetBLine_int(int y, float* out);
  void GetBLine_int(int y, float* out0, float* out1, float* out2);
  void GetBLine_float(double y, float* out);
  void GetBLine_float(double y, float* out0, float* out1, float* out2);
  /// Fills a row turned about the centre; the scale and the pixel readers' shift have no part in it.
  void GetBLine_rotate(double y, float* out);
  void GetBLine_rotate(double y, float* out0, float* out1, float* out2);

  /// Fills a row of raw samples of each plane with a row of flags, 1 where the sample is real. The span
  /// includes floor(right), but for a row off the image in the shifted forms: that has one sample fewer.
  void GetBLineMed(double y, float* data, int* valid);
  void GetBLineMed_int(int y, float* data, int* valid);
  void GetBLineMed_float(double y, float* data, int* valid);
  void GetBLineMed_rotate(double y, float* data, int* valid);

  /// Answers what lands at output pixel (x, y), of the plane or, for plane -1 of a colour image, its
  /// luminance. The pointers get 1 when that is off the image, and the position; they may be null.
  float GetBPixelGrayRaw(int x, int y, int* off, double* sx, double* sy);
  float GetBPixelGray256f(int x, int y, int* off, double* sx, double* sy);
  /// Answers the plane at a source position, at most its last pixel.
  float GetBPixelGrayRaw(double x, double y, int plane);
  float GetBPixelGray256f(double x, double y, int plane);
  /// Answer plane 0, or planes 0 and 1, of a Lab-like image, with the scale.
  float GetPixelL(int x, int y);
  void GetPixelAb(int x, int y, double* a, double* b);

  /// Answers the method's name for display and for settings; empty for any other number.
  static CString GetString(int method);
  static CString GetEngString(int method);
  /// Answers the number of a name for settings, in any case of letters; -1 when there is none.
  static int GetMethod(const CString& name);

 protected:
  /// Answers 1 and the sample, or 0 where the method refuses the position.
  int Bilinear(CVelImage* image, int plane, double x, double y, float* out);
  int Bicubic(CVelImage* image, int plane, double x, double y, float* out);
  int Lanczos2(CVelImage* image, int plane, double x, double y, float* out);
  int Lanczos3(CVelImage* image, int plane, double x, double y, float* out);
  int Nearest(CVelImage* image, int plane, double x, double y, float* out);

  /// Answer the kernels at distance x.
  static double KernelBicubic(double x, double a);
  static double KernelLanczos(double x, double n);
  /// Answers the sum of n rows of n taps, weighted along y and then along x.
  static float Calc(const double* yWeights, const float* taps, const double* xWeights, int n);

 private:
  struct Run;

  void SetImage(CVelImage* image, int useImageCentre);
  const float* Row(CVelImage& image, int y, int plane) const;
  int Sample(int method, Run& run, double x, double y, float* out) const;
  float SampleOrZero(Run& run, double x, double y) const;
  int PlaneOfImage(int plane) const;
  int Columns(long long samples) const;
  void LineInt(int y, int plane, float* out, int* valid, int columns) const;
  /// A position, and the way to the next one.
  struct Steps {
    double u, v, du, dv;
  };
  bool HasAllTaps(double u, double v) const;
  template <class Inside>
  void SampleLine(int plane, Steps at, int begin, int end, float* out, int* valid,
                  const Inside& inside) const;
  void LineFloat(double y, int plane, float* out, int* valid, int columns) const;
  template <class Inside>
  void LineRotate(double y, int plane, float* out, int* valid, int columns, Inside&& inside) const;
  void RawLine(int form, double y, int plane, float* out, int* valid) const;
  void Line(int form, double y, int plane, float* out, std::vector<int>& valid) const;
  void Lines(int form, double y, float* out0, float* out1, float* out2) const;
  void OnePlane(int form, double y, float* out) const;
  template <class F>
  void Masked(bool shortRow, float* data, int* valid, F&& line) const;
  bool Map(int x, int y, double scale, double& sx, double& sy) const;
  template <class Read>
  float MappedPixel(int x, int y, int* off, double* sx, double* sy, Read&& read) const;

  int method_;
  int form_ = WholeShift;
  CVelImage* image_ = nullptr;
  double left_ = 0;
  double right_ = 0;
  int floorLeft_ = 0;
  int floorRight_ = 0;
  int scaled_ = 0;
  float outside_ = 0;
  int plane_ = 0;
  double sine_ = 0;
  double cosine_ = 0;
  double scale_ = 1.0;
  double shiftX_ = 0;
  double shiftY_ = 0;
  CfPoint centre_;
  int width_ = 0;
  int height_ = 0;
  int colour_ = 0;
  float offsets_[3] = {};
  float gains_[3] = {};
  std::vector<const float*> rows_;  ///< of all planes; empty on a store that moves its blocks
  int planes_ = 0;                  ///< when the table was built
  std::vector<int> firstRows_;      ///< of each plane in the table
  CVelImage* rowsOf_ = nullptr;
  int capacity_ = 0;  ///< 0: not set
};
