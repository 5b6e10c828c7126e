#include "korimg/composite/CAlignment.h"

CString CAlignment::GetString(int alignment) {
  constexpr const wchar_t* kNames[] = {L"基準点", L"自動", L"重心(並進のみ)", L"画像マッチング(並進のみ)"};
  return alignment >= 0 && alignment < 4 ? kNames[alignment] : L"";
}

CString CAlignment::GetEngString(int alignment) {
  constexpr const wchar_t* kNames[] = {L"RefPoint", L"Auto", L"Centroid", L"Matching"};
  return alignment >= 0 && alignment < 4 ? kNames[alignment] : L"";
}
