#pragma once
// Halftone methods. The names are the PPD choice words of "HalftoneType" and
// must stay exactly as they are ("JarvisJudiceNinke", "Tattoo_X8").

// The int base makes every value a valid DitherType: the type travels as a
// plain number (PPD, settings, Dither's method) and values past 10 select the
// default halftone.
enum DitherType : int {
  None = 0,
  FloydSteinberg = 1,
  Ordered = 2,
  Burkes = 3,
  Stucki = 4,
  JarvisJudiceNinke = 5,
  Sierra = 6,
  StevensonArce = 7,
  Tattoo = 8,
  Tattoo_X8 = 9,
  // Labels: bar edges on the nearest dot, diffusion only in continuous tone
  // (image/palette_barcode.h). Its name is its method, unlike 1..7.
  BarcodeText = 10,
};

extern "C" {

// Name of a method; values of 11 and above give "None".
const char* kelvoHalftoneTypeToStr(DitherType type);

// Method of an exact, case-sensitive name; unknown names give None.
DitherType kelvoHalftoneTypeFromStr(const char* name);

}
