#pragma once
// The settings of one print job, as the front end (the filter's PPD and
// options, or the printer application's IPP attributes) decided them. The
// label setup block and the page pipeline read them; nothing here knows where
// they came from.
#include <cstdint>

#include "support/halftone_type.h"

// Text fields keep at most 40 characters and are always terminated.
constexpr int kSettingsTextSize = 41;
constexpr int kSettingsPathSize = 256;

// ZPL dialects. Kelvo is what the stencil printers in the field take ("^XX",
// a TSPL size line, sizes at 203 dpi); Standard is plain ZPL II.
enum ZplDialect : int32_t { kDialectKelvo = 0, kDialectStandard = 1 };

// How the page graphic travels: ASCII hex in a "~DG" download (the default),
// the same download deflated and base64-encoded (":Z64:"), or that data inline
// in a "^GFA" field for printers that lose downloaded graphics.
enum GraphicEncoding : int32_t { kEncodingHex = 0, kEncodingZ64 = 1, kEncodingInlineZ64 = 2 };

// Plain record, zero-filled before use. The fields up to ForceRotation keep
// their order and sizes: they are part of the driver's interface. Newer
// fields follow them.
struct Settings {
  char PageSize[kSettingsTextSize];
  float pageWidth;   // millimetres
  float pageHeight;  // millimetres
  char Resolution[kSettingsTextSize];
  char MediaMethod[kSettingsTextSize];
  char PaperType[kSettingsTextSize];
  int32_t GapsHeight;
  char PostAction[kSettingsTextSize];
  char Occurrence[kSettingsTextSize];
  char Origin[kSettingsTextSize];
  int32_t MirrorImage;
  int32_t NegativeImage;
  DitherType halftoneType;
  char PrintSpeed[kSettingsTextSize];
  int32_t Darkness;
  int32_t Brightness;
  int32_t DirectBuffer;       // always 0
  int32_t StoredGraphics;     // always 0
  int32_t OptionDisplayUnit;  // always 0
  char outputFile[kSettingsPathSize];  // recording file; empty when off
  int32_t ForceRotation;

  ZplDialect dialect;
  GraphicEncoding encoding;
  // Debug pictures of every page: 1 on, 0 off. A PPD without the option keeps
  // the old behaviour of writing them.
  int32_t DebugImages;
  // The page's own size in dots, from its raster header; the Standard dialect
  // gives the printer these instead of millimetres at 203 dpi.
  uint32_t pageWidthDots;
  uint32_t pageHeightDots;
};
static_assert(sizeof(DitherType) == 4, "halftoneType is a 32-bit field");
