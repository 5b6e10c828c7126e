#include "korimg/image/CfPoint.h"

#include "korimg/image/internal/Numbers.h"

void CfPoint::Set(double newX, double newY) {
  x = korimg::TruncateToInt(newX);
  y = korimg::TruncateToInt(newY);
  fx = newX;
  fy = newY;
}
