#include "korimg/platform/CObject.h"

const CRuntimeClass* CObject::GetThisClass() {
  static constexpr CRuntimeClass kClass = {"CObject", nullptr};
  return &kClass;
}

bool CObject::IsKindOf(const CRuntimeClass* wanted) const {
  for (const CRuntimeClass* at = GetRuntimeClass(); at; at = at->base) {
    if (at == wanted) return true;
  }
  return false;
}
