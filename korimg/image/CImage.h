#pragma once

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "korimg/image/CHeader.h"
#include "korimg/image/CVmImage.h"
#include "korimg/platform/CObject.h"
#include "korimg/platform/CString.h"
#include "korimg/platform/GlobalMemory.h"
#include "korimg/platform/Messages.h"

/// Holds what an image is (pixel type, size, scale, levels, origin, flags), with the store of its pixels.
///
/// Operations that answer a bool say false when the store has no room; a debug line then tells the numbers,
/// and the image is as it was. Constructors and clones throw velora::CVmMemoryAllocationError instead.
class KORIMG_API CImage : public CObject {
 public:
  /// Pixel types, by their FITS numbers.
  enum DataType : int { UInt8 = 8, Int16 = 16, Int32 = 32, Float = -32, Double = -64 };
  /// Sample type of the file that an image came from: bits of a pixel, negative for floats.
  enum SourceType : int {
    Unknown = 0,
    Gray8 = 8,
    Gray16 = 16,
    Rgb24 = 24,
    Gray32 = 32,
    Rgb48 = 48,
    Real32 = -32,
    Real64 = -64
  };
  /// What ChangeBits does with the levels: left as numbers, or brought along with the pixels' scale.
  enum ChangeBitsLevel : int { KeepLevel = 0, ScaleLevel = 1 };
  /// How an address is asked for, as bits.
  enum Mode : int { ReadWrite = 0, ReadOnly = 1, Locked = 2 };
  /// What new room holds before anything is written: whatever lay there, or zeros.
  enum class Contents { Undefined, Zero };
  using AddressHandle = CVmImage::AddressHandle;
  using ProgressPtr = std::shared_ptr<velora::Progress>;

  CImage();
  /// Makes an image of width x height x planes zero pixels with levels 0 to 1.
  CImage(const std::shared_ptr<CVmManager>& manager, DataType bits, int width, int height, int planes,
         double bscale, double bzero, bool isSigned, const ProgressPtr& progress);
  CImage(const CImage& other, const ProgressPtr& progress);
  ~CImage() override;
  CImage(const CImage&) = delete;
  CImage& operator=(const CImage&) = delete;

  bool IsEmpty() const { return !vmImage_; }
  void Empty();
  bool AllocImage(const std::shared_ptr<CVmManager>& manager, const ProgressPtr& progress);
  /// Changes the size; all pixels become 0, unless it is the same or the caller will write all of them.
  bool ChangeSize(int width, int height, const ProgressPtr& progress, Contents contents = Contents::Zero);
  /// Keeps the pixels of the planes that both shapes have. New planes are 0 and get plane 0's levels.
  bool ChangePlanes(int planes, const ProgressPtr& progress);
  /// Converts the pixels to another type with scale 1 and offset 0. Integers are rounded and limited, NaN is
  /// 0.
  bool ChangeBits(DataType bits, bool isSigned, ChangeBitsLevel level, const ProgressPtr& progress);
  std::unique_ptr<CImage> Clone(const ProgressPtr& progress) const;
  std::unique_ptr<CImage> CloneWithoutImage(const ProgressPtr& progress) const;
  /// Takes the other's record, and a store of its shape. Pixel values are undefined.
  bool Create(const CImage& other, const ProgressPtr& progress);
  bool CopyImage(const CImage& other, const ProgressPtr& progress);
  void Swap(CImage& other);
  bool Fill(int plane, double value);

  /// Sets a plane's levels; one that does not exist answers false.
  bool SetLevel(int plane, double min, double max);
  bool SetLevelMin(int plane, double min);
  bool SetLevelMax(int plane, double max);
  double GetLevelMin(int plane) const { return levelMin_[plane]; }
  double GetLevelMax(int plane) const { return levelMax_[plane]; }
  double GetLevelRange(int plane) const { return levelRange_[plane]; }

  /// Builds an 8-bit image of one plane (grey palettes) or three from a packed bitmap of 1, 4, 8, 24 or 32
  /// bits. False for anything else. Window and text serve a progress display.
  bool AttachDIB(const std::shared_ptr<CVmManager>& manager, HDIB dib, HWND window, const wchar_t* text);

  /// Answers a plane's extremes in physical values; NaN is passed over, and nothing else gives (0, 0).
  std::tuple<double, double> GetMinMax(int plane);
  void GetMinMax(int plane, double* min, double* max);
  /// Answers the same with the mean of the pixels that are not NaN.
  std::tuple<double, double, double> GetMinMaxAvr(int plane);
  void GetMinMaxAvr(int plane, double* min, double* max, double* average);
  /// Answers the same with the most frequent value: the middle of the fullest of `bins` bins (0: 5000) from
  /// minimum to maximum, over the sample grid when useGrid is non-zero and one is set.
  std::tuple<double, double, double> GetMinMaxMode(int plane, int bins, int useGrid);
  void GetMinMaxMode(int plane, double* min, double* max, double* mode, int bins, int useGrid);

  /// Answers the physical value of one pixel.
  double GetPixel(int x, int y, int plane);
  double GetPixel(const unsigned char* pixel) const;
  double ApplyBaseScaleOffset(double value) const { return value * bscale_ + bzero_; }

  /// Answers the sample grid: the columns and rows that statistics may look at instead of all pixels.
  std::vector<int>& GetHistogramCullXRef() { return cullX_; }
  std::vector<int>& GetHistogramCullYRef() { return cullY_; }
  std::optional<std::tuple<int, int>> GetHistogramCull() const;
  bool GetHistogramCull(int* countX, int* countY) const;
  bool IsHistogramCullParam() const { return !cullX_.empty() && !cullY_.empty(); }

  DataType GetBits() const { return bits_; }
  int GetBytesPixel() const { return GetBytesPixel(bits_); }
  /// Answers 1 for 8, 2 for 16, 4 for 32 and -32, 8 for -64, 0 for any other number.
  static int GetBytesPixel(int bits);
  long long GetImageSize() const { return 1LL * axes_[0] * axes_[1] * axes_[2] * GetBytesPixel(); }
  int GetPixelCount() const { return static_cast<int>(1LL * axes_[0] * axes_[1] * axes_[2]); }
  bool IsSigned() const { return signed_; }
  void SetSigned(bool isSigned) { signed_ = isSigned; }
  int GetDimension() const { return dimension_; }
  bool IsColor() const { return dimension_ > 2; }
  const std::array<int, 3>& GetAxes() const { return axes_; }
  int GetWidth() const { return axes_[0]; }
  int GetHeight() const { return axes_[1]; }
  int GetPlanes() const { return axes_[2]; }
  void SetPlanes(int planes);
  double Bscale() const { return bscale_; }
  double Bzero() const { return bzero_; }

  bool HasOwnLevel() const { return ownLevel_; }
  void SetOwnLevel(bool own) { ownLevel_ = own; }
  bool IsSaveableFormat() const { return saveableFormat_; }
  void SetSaveableFormat(bool saveable) { saveableFormat_ = saveable; }
  bool IsSaveableFile() const { return saveableFile_; }
  void SetSaveableFile(bool saveable) { saveableFile_ = saveable; }
  const std::wstring& GetOrgFileName() const { return orgFileName_; }
  void SetOrgFileName(const CString& name) { orgFileName_ = name; }
  void SetOrgFileName(const std::wstring& name) { orgFileName_ = name; }
  void SetOrgFileName(const wchar_t* name) { orgFileName_ = name; }
  const std::wstring& GetOrgFileFormat() const { return orgFileFormat_; }
  void SetOrgFileFormat(const CString& format) { orgFileFormat_ = format; }
  void SetOrgFileFormat(const std::wstring& format) { orgFileFormat_ = format; }
  void SetOrgFileFormat(const wchar_t* format) { orgFileFormat_ = format; }
  SourceType GetOrgBitsPixel() const { return orgBitsPixel_; }
  void SetOrgBitsPixel(SourceType type) { orgBitsPixel_ = type; }
  int GetOrgPlanes() const { return orgPlanes_; }
  void SetOrgPlanes(int planes) { orgPlanes_ = planes; }
  bool IsOrgBayerImage() const { return orgBayer_; }
  void SetOrgBayerImage(bool bayer) { orgBayer_ = bayer; }
  bool IsOrgHoneyCombImage() const { return orgHoneyComb_; }
  void SetOrgHoneyCombImage(bool honeyComb) { orgHoneyComb_ = honeyComb; }
  bool IsOrgDevelopmentImage() const { return orgDevelopment_; }
  void SetOrgDevelopmentImage(bool development) { orgDevelopment_ = development; }
  int GetOrgWidth() const { return orgWidth_; }
  void SetOrgWidth(int width) { orgWidth_ = width; }
  int GetOrgHeight() const { return orgHeight_; }
  void SetOrgHeight(int height) { orgHeight_ = height; }
  bool IsBayerImage() const { return bayer_; }
  void SetBayerImage(bool bayer) { bayer_ = bayer; }
  bool IsHoneyCombImage() const { return honeyComb_; }
  void SetHoneyCombImage(bool honeyComb) { honeyComb_ = honeyComb; }
  int GetRawImageBits() const { return rawImageBits_; }
  void SetRawImageBits(int bits) { rawImageBits_ = bits; }
  bool IsDevelopmentImage() const { return development_; }
  void SetDevelopmentImage(bool development) { development_ = development; }

  CHeader* GetHeader() { return &header_; }
  const CHeader* GetHeader() const { return &header_; }
  /// True when the header names no camera model: the frame counts as coming from a CCD.
  bool IsCcd() const { return header_.GetCameraModel().IsEmpty(); }

  bool Unlock(const AddressHandle& handle) { return vmImage_ && vmImage_->Unlock(handle); }
  void UnlockAll() {
    if (vmImage_) vmImage_->UnlockAll();
  }
  /// Answers the store's policy; an empty image has nothing contiguous.
  CVmManager::AllocationPolicy GetAllocationPolicy() const {
    return vmImage_ ? vmImage_->GetAllocationPolicy() : CVmManager::Paged;
  }
  std::shared_ptr<CVmManager> VmManager() const { return vmImage_ ? vmImage_->VmManager() : nullptr; }
  bool IsOnMemory() const { return !vmImage_ || vmImage_->IsOnMemory(); }
  unsigned char* GetBlockOnMemory(long long block, bool readOnly) {
    return vmImage_->GetBlockOnMemory(block, readOnly);
  }
  std::tuple<int, int> GetBlockShape() const {
    return vmImage_ ? vmImage_->GetBlockShape() : std::tuple(0, 0);
  }
  long long GetBlockCount() const { return vmImage_ ? vmImage_->GetBlockCount() : 0; }
  long long GetLinesPerBlock() const { return vmImage_ ? vmImage_->GetLinesPerBlock() : 0; }
  CVmImage* GetVmImage() const { return vmImage_.get(); }

 private:
  void CopyRecord(const CImage& other);
  std::unique_ptr<CVmImage> NewStore(const std::shared_ptr<CVmManager>& manager, int width, int height,
                                     int planes, DataType bits, const ProgressPtr& progress,
                                     Contents contents = Contents::Zero) const;

  DataType bits_ = Float;
  bool signed_ = true;
  int dimension_ = 2;
  std::array<int, 3> axes_{};
  double bscale_ = 1;
  double bzero_ = 0;
  std::unique_ptr<CVmImage> vmImage_;
  std::vector<double> levelMin_;
  std::vector<double> levelMax_;
  std::vector<double> levelRange_;
  bool ownLevel_ = false;
  bool saveableFormat_ = false;
  bool saveableFile_ = false;
  std::wstring orgFileName_;
  std::wstring orgFileFormat_;
  SourceType orgBitsPixel_ = Unknown;
  int orgPlanes_ = 0;
  bool orgBayer_ = false;
  bool orgHoneyComb_ = false;
  bool orgDevelopment_ = false;
  int orgWidth_ = 0;
  int orgHeight_ = 0;
  bool bayer_ = false;
  bool honeyComb_ = false;
  int rawImageBits_ = 0;
  bool development_ = false;
  CHeader header_;
  std::vector<int> cullX_;
  std::vector<int> cullY_;
};
