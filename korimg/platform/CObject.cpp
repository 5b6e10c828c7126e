#include "korimg/platform/CObject.h"

CRuntimeClass const* CObject::GetThisClass() {
  static constexpr CRuntimeClass kClass = {"CObject", nullptr};
  return &kClass;
}

bool CObject::IsKindOf(CRuntimeClass const* wanted) const {
  for (CRuntimeClass const* at = GetRuntimeClass(); at; at = at->base) {
    if (at == wanted) return true;
  }
  return false;
}
