#pragma once

#include "korimg/platform/Export.h"

/// Root of the classes that are deleted through a base pointer.
class KORIMG_API CObject {
 public:
  virtual ~CObject() = default;

 protected:
  CObject() = default;
  CObject(const CObject&) = default;
  CObject& operator=(const CObject&) = default;
};
