#pragma once

#include <atomic>
#include <memory>
#include <vector>

#include "korimg/image/CImage.h"
#include "korimg/image/CfPoint.h"
#include "korimg/platform/CRect.h"
#include "korimg/platform/Export.h"

class CBaseDIB;
class CFilterMatrix;
class CFilterProcEx;
class CImageMask;
class CImageSelection;

/// An image of one or three planes of float pixels, and the base of every operation: an operation is the
/// image that its result is written to.
///
/// Scales. Raw is the stored float. Gray is raw less the plane's level minimum. Gray256f maps the plane's
/// levels to 0 to 255, not limited. Gray256 is the same as a byte, limited. Bright256f is the luminance of a
/// pixel on that scale, 0.299 R + 0.587 G + 0.114 B, and BrightRaw brings it back to raw by plane 0's levels.
///
/// What operations share. A null rectangle is the whole image; right and bottom are exclusive; a rectangle is
/// clipped to the image, and an empty one does nothing. Per-plane parameters are arrays of one value for each
/// plane. Target and source have the same size and planes, which the caller sees to by Create or CopyImage;
/// frames that do not fit are left alone. The target's levels are read and not set. `show` non-zero opens the
/// progress display on the window of SetProgressHandle. Pipelines run when the stores of both images are
/// contiguous, else line loops; both give the same within rounding, unless the operation says otherwise. Work
/// runs on all threads and is done when the call returns. No room for a temporary throws std::bad_alloc or
/// velora::CVmMemoryAllocationError.
class KORIMG_API CVelImage : public CImage {
 public:
  CVelImage();
  CVelImage(const std::shared_ptr<CVmManager>& manager, DataType bits, int width, int height, int planes,
            double bscale, double bzero, int isSigned, const ProgressPtr& progress);
  CVelImage(const std::shared_ptr<CVmManager>& manager, DataType bits, int width, int height, int planes,
            double bscale, double bzero, int isSigned, HWND window, const wchar_t* text);
  /// Takes the pixels, the record, the progress window, the reference points and the pixel tables along.
  CVelImage(const CVelImage& other, const ProgressPtr& progress);
  CVelImage(const CVelImage& other, HWND window, const wchar_t* text);
  ~CVelImage() override;
  CVelImage& operator=(const CVelImage& other);

  /// Sets the reference points, gauges and tables to their defaults.
  void Init();
  std::unique_ptr<CVelImage> Clone(const ProgressPtr& progress) const;
  /// Makes a zeroed image of the same record; empty when there is no room.
  std::unique_ptr<CVelImage> CloneWithoutImage(const ProgressPtr& progress) const;
  /// Takes the other's record and shape, with all pixels 0 before scale and offset. False when memory ran
  /// out.
  bool Create(const CVelImage& other, const ProgressPtr& progress);
  int Create(const CVelImage& other, HWND window, const wchar_t* text);
  /// Copies another image; 1, or 0 when memory ran out: the image is empty then.
  int CopyImage(const CVelImage& other, HWND window, const wchar_t* text);
  /// Exchanges pixels, record, progress window, reference points and pixel tables.
  void Swap(CVelImage* other);
  void CopyStdPtCtr(CVelImage* other);
  /// Builds the image from a packed bitmap, as floats; 0 when that failed.
  int AttachDIB(const std::shared_ptr<CVmManager>& manager, HDIB dib);
  /// Turns this image into one of three planes that hold src's: of a mono src plane 0 three times. 0 on
  /// failure, and when src has another size: nothing is done then.
  int ToColor(CVelImage* src, int message);
  /// Turns this image into a mono one that holds src's luminance by src's levels, brought to this image's
  /// levels of plane 0. 0 on failure, and when src has no three planes of its own.
  int ToGray(CVelImage* src, int message);
  /// Copies the planes to flat arrays that random reads from many threads may use. Throws CMemoryException*.
  int MakeDirectImage();
  void DeleteDirectImage();

  // Scales.
  float To256(float value, int plane) const {
    return static_cast<float>(To256(static_cast<double>(value), plane));
  }
  double To256(double value, int plane) const {
    return (value - GetLevelMin(plane)) / GetLevelRange(plane) * 255.0;
  }
  float ToRaw(float value, int plane) const {
    return static_cast<float>(ToRaw(static_cast<double>(value), plane));
  }
  double ToRaw(double value, int plane) const {
    return value / 255.0 * GetLevelRange(plane) + GetLevelMin(plane);
  }
  static double CalcBright(double r, double g, double b) { return g * 0.587 + r * 0.299 + b * 0.114; }
  static float CalcBright(float r, float g, float b) {
    return static_cast<float>(
        CalcBright(static_cast<double>(r), static_cast<double>(g), static_cast<double>(b)));
  }
  /// Answers the grey of the same CIE L, on the 256 scale.
  static double CalcBrightL(double r, double g, double b);
  using CImage::SetLevel;
  /// Sets a plane's levels. On a mono image plane -1 is plane 0. On a colour image plane -1 moves all planes
  /// in proportion to plane 0.
  bool SetLevel(int plane, double min, double max);

  // Pixels by whole positions, which the caller keeps inside the image.
  float* GetImageAdr(int x, int y, int plane, Mode mode, AddressHandle* handle) {
    return reinterpret_cast<float*>(
        GetVmImage()->GetImageAdr(x, y, plane, (mode & ReadOnly) != 0, (mode & Locked) != 0, handle));
  }
  const float* GetLine(int x, int y, int plane) { return GetImageAdr(x, y, plane, ReadOnly, nullptr); }
  float* GetWritableLine(int x, int y, int plane) { return GetImageAdr(x, y, plane, ReadWrite, nullptr); }
  float GetPixelGrayRaw(int x, int y, int plane) { return *GetLine(x, y, plane); }
  float GetPixelGrayRaw(const float* pixel) const { return *pixel; }
  float GetPixelGray(int x, int y, int plane) {
    return *GetLine(x, y, plane) - static_cast<float>(GetLevelMin(plane));
  }
  float GetPixelGray(float* pixel, int plane) { return *pixel - static_cast<float>(GetLevelMin(plane)); }
  float GetPixelGray256f(int x, int y, int plane) { return To256(*GetLine(x, y, plane), plane); }
  float GetPixelGray256f(const float* pixel, int plane) const { return To256(*pixel, plane); }
  float GetPixelGray256f(const float* pixel, float min, float scale) const { return (*pixel - min) * scale; }
  unsigned char GetPixelGray256(int x, int y, int plane) { return Gray256(*GetLine(x, y, plane), plane); }
  unsigned char GetPixelGray256(float* pixel, int plane) const { return Gray256(*pixel, plane); }
  unsigned char GetPixelGray256(float* pixel, float min, float max, float scale) const {
    const float r = *pixel;
    if (min >= r || r != r) return 0;
    if (r >= max) return 255;
    return static_cast<unsigned char>((r - min) * scale);
  }
  float GetPixelBright256f(int x, int y);
  float GetPixelBright256f(const float* r, const float* g, const float* b) const;
  float GetPixelBrightRaw(int x, int y) { return ToRaw(GetPixelBright256f(x, y), 0); }
  float GetPixelBrightRaw(const float* r, const float* g, const float* b) const {
    return ToRaw(GetPixelBright256f(r, g, b), 0);
  }
  void SetPixelGrayRaw(int x, int y, float v, int plane) { *GetWritableLine(x, y, plane) = v; }
  void SetPixelGrayRaw(float* pixel, float v) { *pixel = v; }
  void SetPixelGray(int x, int y, float v, int plane) {
    SetPixelGray(GetWritableLine(x, y, plane), v, plane);
  }
  void SetPixelGray(float* pixel, float v, int plane) { *pixel = static_cast<float>(GetLevelMin(plane)) + v; }
  void SetPixelGray256f(int x, int y, float v, int plane) {
    SetPixelGray256f(GetWritableLine(x, y, plane), v, plane);
  }
  void SetPixelGray256f(float* pixel, float v, int plane) { *pixel = ToRaw(v, plane); }

  // Pixels between positions, bilinear. Beyond the far edges the edge is read; callers stay at 0 or above.
  float GetPixelGrayRaw(double x, double y, int plane);
  float GetPixelGray256f(double x, double y, int plane);
  float GetPixelGray(double x, double y, int plane);
  /// Answers the same as GetPixelGrayRaw with the last two lines kept locked, for one thread. Whoever changes
  /// the plane or the image calls GetPixelGrayRawBufInit.
  float GetPixelGrayRawBuf(double x, double y, int plane);
  void GetPixelGrayRawBufInit();
  /// Reads the direct image: 0 beyond the image, or when there is no direct image. Safe from any thread.
  float GetPixelDirectRaw(int x, int y, int plane) const;
  float GetPixelDirectRaw(double x, double y, int plane) const;

  // The pixel that lands at (x, y) of a target after shifting by (dx, dy), rotating and scaling about the
  // centre. Outside the image they give `fill` and set *outside to 1. Pointers may be null.
  float GetPixelGrayRaw(int x, int y, double dx, double dy, double sin, double cos, double scale, int plane,
                        double fill, int nearest, int* outside, double* sx, double* sy);
  float GetPixelGray256f(int x, int y, double dx, double dy, double sin, double cos, double scale, int plane,
                         double fill, int nearest, int* outside, double* sx, double* sy);
  float GetPixelGray256f(int x, int y, int dx, int dy, double sin, double cos, double scale, int plane,
                         double fill, int nearest, int* outside, double* sx, double* sy);
  void GetPixelRgb256f(int x, int y, double dx, double dy, double sin, double cos, int useStdCtr,
                       double scale, double* r, double* g, double* b, double fill, int* outside, double* sx,
                       double* sy);
  void GetPixelRgb256f(int x, int y, int dx, int dy, double sin, double cos, int useStdCtr, double scale,
                       double* r, double* g, double* b, double fill, int* outside, double* sx, double* sy);
  void GetPixelRgbRaw(int x, int y, double dx, double dy, double sin, double cos, int useStdCtr, double scale,
                      double* r, double* g, double* b, double fill, int* outside, double* sx, double* sy);
  void GetPixelRgbRaw(int x, int y, int dx, int dy, double sin, double cos, int useStdCtr, double scale,
                      double* r, double* g, double* b, double fill, int* outside, double* sx, double* sy);
  float GetPixelL(int x, int y, double dx, double dy, double sin, double cos, double scale, double fill);
  void GetPixelAb(int x, int y, double dx, double dy, double sin, double cos, double scale, double* a,
                  double* b, double fill);

  // Reference points and regions. A point with both coordinates -1 is not set.
  void InitStdPtCtr();
  void SetStdPt(int i, const CfPoint& point);  ///< point 0 is the centre as well
  CfPoint GetStdPt(int i) const { return stdPt_[i]; }
  void ClearStdPt(int i) { SetStdPt(i, CfPoint(-1, -1)); }
  int IsValidStdPt(int i) const { return stdPt_[i].x != -1 && stdPt_[i].y != -1; }
  int GetStdPtNum() const { return IsValidStdPt(0) + IsValidStdPt(1); }
  void SetStdCtr(int x, int y) { stdCtr_.Set(x, y); }
  void SetStdCtr(double x, double y) { stdCtr_.Set(x, y); }
  void SetStdCtr(const CfPoint& point) { stdCtr_ = point; }
  CfPoint GetStdCtr() const { return stdCtr_; }
  int IsValidStdCtr() const { return stdCtr_.x != -1 && stdCtr_.y != -1; }
  void SetDefaultCenter() { stdCtr_.Set(GetWidth() / 2, GetHeight() / 2); }
  void SetBkgRect(int i, const CRect& rect);  ///< i from 0 to 31
  CRect GetBkgRect(int i) const { return bkgRect_[i]; }
  void ClearBkgRect(int i);
  int IsValidBkgRect(int i) const;
  int GetBkgRectNum() const { return IsValidBkgRect(0) + IsValidBkgRect(1); }  ///< of rectangles 0 and 1
  void SetStarPt(const CPoint& point) { starPt_ = point; }
  CPoint GetStarPt() const { return starPt_; }
  void ClearStarPt() { starPt_ = CPoint(-1, -1); }
  int IsValidStarPt() const { return starPt_.x >= 0 || starPt_.y >= 0; }
  void SetSkyPt(const CPoint& point, int size);
  void GetSkyPt(CPoint& point, int& size) const;
  void ClearSkyPt() { SetSkyPt(CPoint(-1, -1), 0); }
  int IsValidSkyPt() const { return (skyPt_.x >= 0 || skyPt_.y >= 0) && skySize_ > 0; }
  void SetPickupPt(const CPoint& point) { pickupPt_ = point; }
  CPoint GetPickupPt() const { return pickupPt_; }
  int IsValidPickupPt() const { return pickupPt_.x >= 0 && pickupPt_.y >= 0; }
  void SetCenterPt(const CPoint& point) { centerPt_ = point; }
  CPoint GetCenterPt() const { return centerPt_; }
  int IsValidCenterPt() const { return centerPt_.x >= 0 && centerPt_.y >= 0; }
  void SetCrossGaugePt(double x, double y) { crossGaugePt_.Set(x, y); }
  CfPoint GetCrossGaugePt() const { return crossGaugePt_; }
  void SetCrossGaugeCircleR(double r) { crossGaugeCircleR_ = r; }
  double GetCrossGaugeCircleR() const { return crossGaugeCircleR_; }
  void ShowCrossGauge(int show) { showCrossGauge_ = show; }
  int IsShowCrossGauge() const { return showCrossGauge_; }
  void ShowCrossGaugeCircle(int show) { showCrossGaugeCircle_ = show; }
  int IsShowCrossGaugeCircle() const { return showCrossGaugeCircle_; }
  void SetColorScrollGauge(double pa, double* const x, double* const y);
  double GetColorScrollGaugePA() const { return colorScrollGaugePa_; }
  CfPoint GetColorScrollGaugePt(int i) const { return colorScrollGaugePt_[i]; }
  void ShowColorScrollGauge(int show) { showColorScrollGauge_ = show; }
  int IsShowColorScrollGauge() const { return showColorScrollGauge_; }
  void NormalizeRect(CRect* rect, int& left, int& top, int& right, int& bottom) const;
  CString GetRegKey() const { return regKey_; }
  void SetRegKey(CString key) { regKey_ = std::move(key); }

  // Progress. Every operation opens the display, counts its steps and closes it; see korimg::ProgressEvent.
  void SetProgressHandle(HWND window) { progressWindow_ = window; }
  HWND GetProgressHandle() const { return progressWindow_; }
  void ShowProgressInit(int show, const wchar_t* text, int total);
  void ShowProgressInit(int show, int id, int total);
  void ShowProgressInit(const wchar_t* text);  ///< pulse mode: each step sends its amount
  void ShowProgressInit(int id);
  /// Counts n steps; 0 once Escape was pressed while the display is open. Any thread may call it.
  int ShowProgress(int n);
  /// Counts what is left of the total, for operations whose steps are estimates.
  void ShowProgressRest();
  void ShowProgressMsg(const wchar_t* text);
  void ShowProgressMsg(int id);
  void ShowProgressSetHeader(const wchar_t* text);
  void ShowProgressClearHeader();
  void ShowProgressEnd(const wchar_t* text);
  void ShowProgressEnd(int id);

  // Point operations in place and copies between images.
  /// Set pixels equal to, above, below, not above or other than the threshold to `value`; plane -1 means all.
  void ThresholdEqual(int plane, float threshold, float value);
  void ThresholdGreaterThan(int plane, float threshold, float value);
  void ThresholdLessThan(int plane, float threshold, float value);
  void ThresholdLessThanEqual(int plane, float threshold, float value);
  void ThresholdNotEqual(int plane, float threshold, float value);
  /// Limits each plane to its levels.
  void CutOutOfLevel();
  /// Moves black to 0, and gives all planes plane 0's level range; what lay below black is 0. Answers 1.
  int CutOutOfZeroLevel();
  /// Moves the planes up by `lines`. The rows set free repeat the last row on contiguous stores, and keep
  /// what they held on paged ones.
  void LiftUp(int lines);
  /// Copies the window from src to the same place here.
  void Paste(CVelImage* src, CRect* rect);
  /// Copies a window of width x height from (srcX, srcY) of src to (dstX, dstY), cut to both images;
  /// convertLevel non-zero carries values over from src's levels to this image's.
  void PixelBlt(int dstX, int dstY, int width, int height, CVelImage* src, int srcX, int srcY,
                int convertLevel);

  // Selections and masks.
  /// Takes an operation's result back to `other`, the image before it, in the rectangle: wholly where an
  /// active selection selects nothing, in part by a mask's plane 0. A mask that comes of the selection stands
  /// for it. A mono `other` serves colour images. Without `other`, or with neither mask nor selection,
  /// nothing happens, nor with a mask whose levels are equal. A mask alone leaves 0 outside the rectangle on
  /// contiguous stores, and blends all rows when the rectangle begins at the corner and is as wide as the
  /// image is wide and high; on paged ones it leaves the rest alone. The answer is no status.
  int ApplyMask(CRect* rect, CImageSelection* selection, CVelImage* other, CImageMask* mask, int show);

  // Statistics.
  /// Counts the pixels of a plane, or of brightness for plane -1 of a colour image, into `bins` bins from min
  /// to max (raw). logScale gives trunc(log10(count) x 10000) in place of counts; useCull looks at the sample
  /// grid only and scales up. Contiguous stores count values beyond the ends in the end bins, paged ones
  /// leave them out. Answers a height for drawing: the fullest bin when heightFromData is non-zero, else 2 x
  /// pixels / bins.
  int GetHistogram(int* const hist, int bins, double min, double max, int plane, int logScale,
                   int heightFromData, int useCull, CRect* rect, int show, int messageId);
  /// Counts the same for three planes at once; -1 for a mono image. The two array arguments are not used.
  int GetHistogramRGB(int* const histR, int* const histG, int* const histB, int bins, double min, double max,
                      double* const, double* const, int logScale, int heightFromData, int useCull,
                      CRect* rect, int show, int messageId);
  /// Fills the tables of GetMinPixel, GetMaxPixel and GetAvrPixel. On paged stores the mean is the sum over
  /// (width - 1) x (height - 1), in float; use GetAvrGrayRaw for a mean.
  void CalcMinMax();
  /// Does the same without a border of `margin` pixels, and with pixels of exactly 0 passed over.
  void CalcMinMax(int margin);
  float GetMinPixel(int plane) const { return minPixel_[plane]; }
  float GetMaxPixel(int plane) const { return maxPixel_[plane]; }
  float GetAvrPixel(int plane) const { return avrPixel_[plane]; }
  float GetAvrGrayRaw(int plane);
  float GetAvrGray(int plane) { return GetAvrGrayRaw(plane) - static_cast<float>(GetLevelMin(plane)); }
  float GetAvrGray256f(int plane) { return To256(GetAvrGrayRaw(plane), plane); }
  /// Finds the largest value of the window and its place; -1, -1 when that is the window's first pixel.
  float GetMaxPixel(int plane, CRect* rect, int& x, int& y);
  /// Finds the first pixel above the threshold by rows (brightness of raw values on a colour image), else 0
  /// and -1, -1.
  float Get1stBrighterPixel(int plane, CRect* rect, double threshold, int& x, int& y);

  // Display. The display value of a pixel is 0 up to the level minimum and for NaN, 255 from the level
  // maximum on, and else (pixel - minimum) x 255 / range, truncated. A mono image shows plane 0.
  /// Renders the rectangle of a bitmap of this image's size; left and top are limited to the last column and
  /// row. By depth: 8 holds the grey, or colour as 2-3-3 bits (blue highest); 16 is dithered by the place; 24
  /// and 32 hold blue, green, red. The fourth byte of 32 becomes 0 from a contiguous image, and is left by a
  /// paged one. Other depths and sizes do nothing.
  void ToDIB(CBaseDIB* dib, CRect* rect);
  /// Gives the image as a packed bitmap of 8 bits (256 greys, or the 256 most frequent colours of 5 bits a
  /// channel) or 24, in a block that the caller frees. Null for other depths and when there is no memory.
  HDIB GetDib(int bits);

  // Positions, for registration.
  /// Finds the centroid of a window by the squares of what exceeds its mean, of brightness on the 256 scale,
  /// so that the brightest star counts most; the window's middle when there is none. In whole numbers it is
  /// rounded.
  void GetCentroid(double& x, double& y, CRect* rect);
  void GetCentroid(int& x, int& y, CRect* rect);
  /// Does the same by raw values, or the luminance of raw values.
  void GetCentroidRaw(double& x, double& y, CRect* rect);
  void GetCentroidRaw(int& x, int& y, CRect* rect);
  /// Finds how another image lies to this one by the reference points of both: 0 not known, 1 the shift from
  /// it to this one, 2 its turn too, as CImgComposit takes them. The other's centre is set when it is not.
  /// The second form adds a correction to what is known.
  int GetFitPrm(CVelImage* other, double& dx, double& dy, double& degrees);
  int GetFitPrm(CVelImage* other, double& dx, double& dy, double& degrees, double addX, double addY,
                double addDegrees);
  /// Finds the shift by the centroids of both whole images. Answers 1.
  int GetFitPrmFromCentroid(CVelImage* other, double& dx, double& dy);

  // Calibration. A mono dark or flat serves every plane, a colour one plane by plane.
  /// Subtracts a dark: each pixel becomes max(pixel - dark, 0).
  void DarkClbrtn(CVelImage* dark, int show);
  /// Divides by the flat after a gamma curve that leaves the flat's maximum alone; `fOffset` adds that share
  /// of the flat's mean to the divisor. A gamma not above 0 does nothing.
  void FlatClbrtn(CVelImage* flat, float fOffset, double gamma, int show);
  /// Divides by the flat and multiplies by its mean (of plane 0). Flat pixels not above 0 leave the pixel
  /// alone. A partial rectangle becomes 0 on contiguous stores, and starts at column 0 on paged ones: use
  /// DarkFlat there.
  void FlatClbrtn(CVelImage* flat, CRect* rect, int show);
  /// Writes source less dark, limited below at 0, divided by the flat. Dark or flat may be null. Minima,
  /// maxima and averages are the flat's, by planes. 1 done; 0 for missing arguments; -1 when a plane of the
  /// flat is constant: it and later planes were not divided.
  int DarkFlat(CVelImage* source, CVelImage* dark, CVelImage* flat, float* minima, float* maxima,
               float* averages, float fOffset, double gamma, CRect* rect, int show);

  // The planes of the Lab that CColor tells, with white at the level maximum: L from 0 at black to 100 at
  // white, a and b 0 for greys. Each answers a new image that the caller owns, of this image's store, size
  // and reference point, with scale 1 and offset 0 and levels not set; null without a store or memory. What
  // lies below black counts as black, what lies above 5000 / 255 times white as that. An image of fewer than
  // three planes is grey by plane 0. They show progress and run on all threads.
  /// Makes L, a and b.
  CVelImage* MakeLabPlane();
  /// Makes L alone.
  CVelImage* MakeLPlane();
  /// Makes a and b; clipLevel non-zero counts what lies above white as white in a colour image.
  CVelImage* MakeAbPlane(int clipLevel);

  // Prepared filters: a slot for each of planes 0 to 2, and six sets of such slots. They serve a team of
  // workers as CFilterProc does; making and clearing is for one thread.
  /// Fills the slot of a plane; 0 for a plane that is not 0 to 2. A slot that isn't empty keeps its weights,
  /// whatever the kernel, and is bound to the source and plane anew: ClearFilterProc comes between two
  /// kernels.
  int MakeFilterProc(CVelImage* src, const CFilterMatrix* matrix, int plane, int normalize);
  int MakeFilterProcEx(int set, CVelImage* src, const CFilterMatrix* matrix, int plane, int normalize);
  /// Selects the slot of a plane; any other than 0 to 2 selects plane 0.
  void SetFilterProcPln(int plane);
  void SetFilterProcPlnEx(int set, int plane);
  /// Answers the filtered pixel of the slot selected or named; 0 when it is empty.
  float CalcFilterProc(int x, int y);
  float CalcFilterProc(int x, int y, int plane);
  float CalcFilterProcEx(int set, int x, int y);
  float CalcFilterProcEx(int set, int x, int y, int plane);
  void ClearFilterProc();
  /// Answer the slots, and a set from 0 to 5, themselves.
  CFilterProcEx& FilterProcSlots();
  CFilterProcEx& FilterProcSet(int set);

 protected:
  int ToColor();
  int ToGray();
  int GetHeightOfHistogram(int* hist, int bins) const;
  static double HstAntialias(double value, double scale);
  static void HstAntialias(double r, double g, double b, double& r2, double& g2, double& b2, double scale);
  static float FlatGamma(float value, float maximum, float origin, double gamma);

 private:
  /// Holds one of the two lines that GetPixelGrayRawBuf keeps: locked in the store that it belongs to.
  struct BufferedLine {
    float* line = nullptr;
    int number = -1;
    AddressHandle lock;
    std::shared_ptr<CVmHandle> store;
  };
  struct Mapping;
  struct FilterProcs;

  unsigned char Gray256(float raw, int plane) const;
  HDIB GetDib8Mono(const BITMAPINFOHEADER& header);
  HDIB GetDib8Color(const BITMAPINFOHEADER& header);
  HDIB GetDib24Mono(const BITMAPINFOHEADER& header);
  HDIB GetDib24Color(const BITMAPINFOHEADER& header);
  void CopyInternal(const CVelImage& other);
  void CopyImageInternal(const CVelImage& other, HWND window, const wchar_t* text);
  const float* Buffered(BufferedLine& buffer, int y, int plane);
  void ReleaseBuffered(BufferedLine& buffer);
  bool ShowProgressContinue();
  void ApplyMask_Do0(CVelImage* other, CVelImage* maskImage, int left, int right, int top, int bottom,
                     int reverse);
  void ApplyMask_Do0_x(CVelImage* other, CVelImage* maskImage, int left, int right, int top, int bottom,
                       int reverse);

  BufferedLine buffered_[2];
  float minPixel_[3] = {};
  float maxPixel_[3] = {};
  float avrPixel_[3] = {};
  CfPoint stdPt_[2];
  CfPoint stdCtr_;
  CRect bkgRect_[32];
  CPoint starPt_;
  CPoint skyPt_;
  int skySize_ = 0;
  CPoint pickupPt_;
  CPoint centerPt_;
  CfPoint crossGaugePt_;
  int showCrossGauge_ = 0;
  double crossGaugeCircleR_ = 100.0;
  int showCrossGaugeCircle_ = 0;
  double colorScrollGaugePa_ = 0;
  CfPoint colorScrollGaugePt_[3];
  int showColorScrollGauge_ = 0;
  HWND progressWindow_ = nullptr;
  int progressActive_ = 0;
  int progressPulse_ = 0;
  int progressTotal_ = 0;
  int progressStep_ = 0;
  std::atomic<int> progressCount_{0};
  std::atomic<int> progressNext_{0};
  CString regKey_;
  std::vector<float> directImage_[3];
  std::shared_ptr<FilterProcs> filterProcs_;  ///< made when the first is wanted
};
