#pragma once

#include "korimg/platform/CObject.h"

/// Exceptions of the platform are thrown as pointers made by a plain new, and whoever catches one deletes it.
class KORIMG_API CException : public CObject {
 public:
  void Delete() { delete this; }
};

/// A plain allocation has failed.
class KORIMG_API CMemoryException : public CException {};
