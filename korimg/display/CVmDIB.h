#pragma once

#include "korimg/display/CBaseDIB.h"
#include "korimg/image/CVmImage.h"

/// A bitmap in an image store, which may be larger than memory. Its lines lie top line first, with 3 bytes
/// for a pixel of 32 bits. It is drawn in bands of 50 lines.
class KORIMG_API CVmDIB : public CBaseDIB {
 public:
  explicit CVmDIB(std::shared_ptr<CVmManager> manager) : manager_(std::move(manager)) {}
  ~CVmDIB() override;

  static const CRuntimeClass* GetThisClass();
  const CRuntimeClass* GetRuntimeClass() const override { return GetThisClass(); }

  int Create(CWnd* pWnd, int width, int height, PALETTEENTRY* pal, int flag) override;
  int Create(CWnd* pWnd, int width, int height, int flag) override;
  int Create(const std::shared_ptr<CVmManager>& manager, CWnd* pWnd, int width, int height, PALETTEENTRY* pal,
             int flag);
  int Create(const std::shared_ptr<CVmManager>& manager, CWnd* pWnd, int width, int height, int flag);
  void Empty() override;
  int IsEmpty() const override;
  /// Depths of less than a byte draw nothing and answer 1.
  int BitBlt(CWnd* pWnd, CPaintDC* dc, int dstX, int dstY, int width, int height, int srcX, int srcY,
             unsigned long rop) override;
  /// Bands begin at the line below their share of the height and end at the one above it: neighbours may
  /// overlap by a line, so that there is no gap.
  int StretchBlt(CWnd* pWnd, CDC* dc, int dstX, int dstY, int dstW, int dstH, int srcX, int srcY, int srcW,
                 int srcH, unsigned long rop) override;
  unsigned char* GetImageAdr8(int x, int y) override { return Address(x, y); }
  unsigned char* GetImageAdr16(int x, int y) override { return Address(x, y); }
  unsigned char* GetImageAdr24(int x, int y) override { return Address(x, y); }
  unsigned char* GetImageAdr32(int x, int y) override { return Address(x, y); }

  /// Sets the palette that pictures of 8 bits are drawn with; it stays its owner's and outlives its uses
  /// here.
  void SetColorPalette(CPalette* palette) { palette_ = palette; }
  CVmImage* GetVmImage() const { return image_.get(); }
  /// Copies pixels of a line in the screen's form: with 4 bytes, the last one 0, for 32 bits.
  void CopyLine(int x, int y, int width, unsigned char* out);

 private:
  unsigned char* Address(int x, int y) { return image_->GetImageAdr(x, y, 0, false, false, nullptr); }
  template <class Draw>
  int DrawBands(CWnd* pWnd, CDC* dc, int srcX, int srcY, int width, int height, Draw&& draw);

  std::shared_ptr<CVmManager> manager_;
  std::unique_ptr<CVmImage> image_;
  int pixelBits_ = 0;
  int planes_ = -1;
  CPalette* palette_ = nullptr;
};
