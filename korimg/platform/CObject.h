#pragma once

#include "korimg/platform/Export.h"

/// Tells what a class is called and derives from, for questions at run time.
struct CRuntimeClass {
  const char* name = nullptr;
  const CRuntimeClass* base = nullptr;
};

/// Root of the classes that are deleted through a base pointer.
class KORIMG_API CObject {
 public:
  virtual ~CObject() = default;

  static const CRuntimeClass* GetThisClass();
  virtual const CRuntimeClass* GetRuntimeClass() const { return GetThisClass(); }
  /// True when the object is of this class or of one derived from it.
  bool IsKindOf(const CRuntimeClass* wanted) const;

 protected:
  CObject() = default;
  CObject(const CObject&) = default;
  CObject& operator=(const CObject&) = default;
};
