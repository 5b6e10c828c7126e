#include "korimg/platform/CArray.h"

void AfxThrowInvalidArgException() {
  throw new CInvalidArgException;
}
