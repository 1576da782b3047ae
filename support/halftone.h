#pragma once
// The halftone methods, named for what each runs. The PPDs' HalftoneType
// words are older and sit one method off for most of them ("FloydSteinberg"
// runs the ordered dither); the filter maps them (filter/settings.cpp). The
// values are those words' numbers, which the logs have always shown.
enum class KelvoHalftone : int {
  kThreshold = 0,          // above 128 prints
  kOrdered4x4 = 1,         // 4 x 4 ordered dither
  kBurkes = 2,             // error diffusion, Burkes' kernel
  kStucki = 3,             // Stucki's
  kJarvisJudiceNinke = 4,  // Jarvis, Judice and Ninke's
  kSierra = 5,             // Sierra's three rows
  kStevensonArce = 6,      // Stevenson and Arce's
  kBayer = 7,              // Bayer's ordered dither
  kTattoo = 8,             // the tattoo stencil chain (stencil/)
  kTattooX8 = 9,           // its X8 variant
  kBarcodeText = 10,       // bar edges on the nearest dot (image/barcode_text.h)
};
constexpr int kKelvoHalftoneCount = 11;

inline bool kelvoIsStencil(KelvoHalftone halftone) {
  return halftone == KelvoHalftone::kTattoo || halftone == KelvoHalftone::kTattooX8;
}

// The method's name in words people and programs use ("ordered-4x4",
// "burkes-diffusion", "tattoo-x8").
const char* kelvoHalftoneName(KelvoHalftone halftone);

// The method of such a name; false for names that are none.
bool kelvoHalftoneFromName(const char* name, KelvoHalftone* halftone);
