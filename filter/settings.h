#pragma once
// The job's settings, read once per job from the printer's PPD with the job
// options applied.
#include <cups/ppd.h>

#include <cstdint>

#include "support/halftone_type.h"

// Text fields keep at most 40 characters and are always terminated.
constexpr int kSettingsTextSize = 41;
constexpr int kSettingsPathSize = 256;

// Plain record, zero-filled before use. The field order and sizes are part of
// the driver's interface and must not change.
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
};
static_assert(sizeof(DitherType) == 4, "halftoneType is a 32-bit field");

// Fills `settings` from the PPD named by the environment variable "PPD" and
// the job's option string (may be empty or null). A missing PPD leaves empty
// texts and zeros.
void parseSettings(Settings* settings, const char* options);

// Page size in millimetres of the marked "PageSize" (custom sizes included);
// 0 by 0 when the PPD has no such size.
void getPageWidthPageHeight(ppd_file_t* ppd, Settings* settings);
