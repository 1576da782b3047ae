#include "support/halftone_type.h"

#include <cstring>

namespace {
const char* const sHalftoneTypeStrTable[11] = {
    "None",   "FloydSteinberg", "Ordered", "Burkes",    "Stucki",      "JarvisJudiceNinke",
    "Sierra", "StevensonArce",  "Tattoo",  "Tattoo_X8", "BarcodeText",
};
constexpr int kCount = 11;
}  // namespace

extern "C" const char* kelvoHalftoneTypeToStr(DitherType type) {
  const int value = static_cast<int>(type);
  return value >= 0 && value < kCount ? sHalftoneTypeStrTable[value] : sHalftoneTypeStrTable[0];
}

extern "C" DitherType kelvoHalftoneTypeFromStr(const char* name) {
  for (int i = 0; i < kCount; ++i) {
    if (std::strcmp(name, sHalftoneTypeStrTable[i]) == 0) return static_cast<DitherType>(i);
  }
  return None;
}
