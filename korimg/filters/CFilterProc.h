#pragma once

#include <vector>

#include "korimg/platform/Export.h"

class CFilterMatrix;
class CVelImage;

/// Filters an image by the middle row of a kernel along x, then along y. Each worker keeps a ring of rows
/// that are filtered along x, so that a run over rising rows filters each row once.
///
/// Edges: rows above the image mirror about its first row, rows below repeat its last row and mirror on;
/// columns repeat the edge.
///
/// Workers are told apart by their number: one object serves a whole team, whose size must not grow after
/// MakeBuf or Bind. What throws is std::bad_alloc, and what the source's store throws.
class KORIMG_API CFilterProc {
 public:
  CFilterProc();
  CFilterProc(CVelImage* image, const CFilterMatrix* matrix, int plane);
  CFilterProc(const CFilterProc&);
  CFilterProc& operator=(const CFilterProc&);
  virtual ~CFilterProc();

  /// Takes over the kernel's middle row, divided by its sum when `normalize` is non-zero and the sum is not
  /// 0, and binds the source, which is kept by address; the kernel is not needed any more. Answers 1.
  int MakeBuf(CVelImage* image, const CFilterMatrix* matrix, int plane, int normalize);
  /// Keeps the weights and turns to another source, plane or team.
  void Bind(CVelImage* image, int plane);
  /// Answers the filtered pixel: columns of a row in one go, and rows in rising order, cost least.
  float Calc(int x, int y);
  /// Writes the filtered pixels of row y from column left to right - 1; the same values.
  void CalcLine(int left, int right, int y, float* line);
  void Empty() { Init(); }
  void Init();
  int IsEmpty() const { return weights_.empty(); }

  int GetR() const { return r_; }
  int GetD() const { return d_; }
  /// Answers the weights, 2 R + 1 of them; null when empty.
  const float* GetFilter() const { return weights_.empty() ? nullptr : weights_.data(); }

 protected:
  /// Brings this worker's ring up to row y. Always 1.
  int ProcHorizontal(int x, int y);
  float ProcVertical(int x);

 private:
  struct Ring;
  Ring* OwnRing();

  int r_ = 0;
  int d_ = 0;
  CVelImage* image_ = nullptr;
  int plane_ = 0;
  std::vector<float> weights_;
  std::vector<Ring> rings_;
};

/// Holds three such filters, one for each plane.
class KORIMG_API CFilterProcEx {
 public:
  /// Makes a plane's filter; 0 for a plane that is not 0 to 2. A filter that is not empty keeps its weights.
  int Make(CVelImage* image, const CFilterMatrix* matrix, int plane, int normalize);
  /// Selects a plane's filter; any other plane selects plane 0.
  void SetPln(int plane) { current_ = Index(plane); }
  float Calc(int x, int y) { return procs_[current_].Calc(x, y); }
  float Calc(int x, int y, int plane) { return procs_[Index(plane)].Calc(x, y); }
  void CalcLine(int left, int right, int y, int plane, float* line) {
    procs_[Index(plane)].CalcLine(left, right, y, line);
  }
  int GetR() const { return GetR(current_); }
  int GetR(int plane) const { return procs_[Index(plane)].GetR(); }
  int GetD() const { return GetD(current_); }
  int GetD(int plane) const { return procs_[Index(plane)].GetD(); }
  const float* GetFilter() const { return GetFilter(current_); }
  const float* GetFilter(int plane) const { return procs_[Index(plane)].GetFilter(); }
  void Clear();

 private:
  static int Index(int plane) { return plane > 0 && plane < 3 ? plane : 0; }

  CFilterProc procs_[3];
  int current_ = 0;
};
