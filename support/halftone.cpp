#include "support/halftone.h"

#include <cstring>

namespace {
constexpr const char* kNames[kKelvoHalftoneCount] = {
    "threshold",        "ordered-4x4",    "burkes-diffusion",         "stucki-diffusion",
    "jarvis-judice-ninke-diffusion",      "sierra-diffusion",         "stevenson-arce-diffusion",
    "bayer-ordered",    "tattoo",         "tattoo-x8",                "barcode-text",
};
}  // namespace

const char* kelvoHalftoneName(KelvoHalftone halftone) {
  const int value = static_cast<int>(halftone);
  return value >= 0 && value < kKelvoHalftoneCount ? kNames[value] : "unknown";
}

bool kelvoHalftoneFromName(const char* name, KelvoHalftone* halftone) {
  for (int i = 0; name != nullptr && i < kKelvoHalftoneCount; ++i)
    if (std::strcmp(name, kNames[i]) == 0) {
      *halftone = static_cast<KelvoHalftone>(i);
      return true;
    }
  return false;
}
