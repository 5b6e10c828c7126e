#pragma once

#include "korimg/platform/Export.h"

/// What a class is called and derives from, for questions at run time.
struct CRuntimeClass {
  char const* name = nullptr;
  CRuntimeClass const* base = nullptr;
};

/// Root of the classes that are deleted through a base pointer.
class KORIMG_API CObject {
 public:
  virtual ~CObject() = default;

  static CRuntimeClass const* GetThisClass();
  virtual CRuntimeClass const* GetRuntimeClass() const { return GetThisClass(); }
  /// The object is of this class or of one derived from it.
  bool IsKindOf(CRuntimeClass const* wanted) const;

 protected:
  CObject() = default;
  CObject(const CObject&) = default;
  CObject& operator=(const CObject&) = default;
};
