// The prepared filters of the image object.
#include "korimg/filters/CFilterProc.h"
#include "korimg/image/CVelImage.h"

/// The slots of planes, and the six sets.
struct CVelImage::FilterProcs {
  CFilterProcEx slots;
  CFilterProcEx sets[6];
};

CFilterProcEx& CVelImage::FilterProcSlots() {
  if (!filterProcs_) filterProcs_ = std::make_shared<FilterProcs>();
  return filterProcs_->slots;
}

CFilterProcEx& CVelImage::FilterProcSet(int set) {
  FilterProcSlots();
  return filterProcs_->sets[set];
}

int CVelImage::MakeFilterProc(CVelImage* src, const CFilterMatrix* matrix, int plane, int normalize) {
  return FilterProcSlots().Make(src, matrix, plane, normalize);
}

int CVelImage::MakeFilterProcEx(int set, CVelImage* src, const CFilterMatrix* matrix, int plane,
                                int normalize) {
  return FilterProcSet(set).Make(src, matrix, plane, normalize);
}

void CVelImage::SetFilterProcPln(int plane) {
  FilterProcSlots().SetPln(plane);
}

void CVelImage::SetFilterProcPlnEx(int set, int plane) {
  FilterProcSet(set).SetPln(plane);
}

float CVelImage::CalcFilterProc(int x, int y) {
  return filterProcs_ ? filterProcs_->slots.Calc(x, y) : 0.0f;
}

float CVelImage::CalcFilterProc(int x, int y, int plane) {
  return filterProcs_ ? filterProcs_->slots.Calc(x, y, plane) : 0.0f;
}

float CVelImage::CalcFilterProcEx(int set, int x, int y) {
  return filterProcs_ ? filterProcs_->sets[set].Calc(x, y) : 0.0f;
}

float CVelImage::CalcFilterProcEx(int set, int x, int y, int plane) {
  return filterProcs_ ? filterProcs_->sets[set].Calc(x, y, plane) : 0.0f;
}

void CVelImage::ClearFilterProc() {
  filterProcs_.reset();
}
