#pragma once
// The job's settings, read once per job from the printer's PPD with the job
// options applied, and the engine's typed settings they stand for.
#include <cups/ppd.h>

#include <cstdint>

#include "printer/job_settings.h"
#include "printer/page_limits.h"

// Text fields keep at most 40 characters (what CUPS keeps of a choice word)
// and are always terminated.
constexpr int kSettingsTextSize = 41;
constexpr int kSettingsPathSize = 256;

// The PPD's choices as it names them: words are kept as they stand, and
// only kelvoEngineSettings() says what they mean.
struct Settings {
  char PageSize[kSettingsTextSize];
  float pageWidth;   // millimetres
  float pageHeight;  // millimetres
  char MediaMethod[kSettingsTextSize];
  char PaperType[kSettingsTextSize];
  int32_t GapsHeight;
  char PostAction[kSettingsTextSize];
  char Origin[kSettingsTextSize];
  int32_t MirrorImage;
  int32_t NegativeImage;
  KelvoHalftone halftoneType;
  char PrintSpeed[kSettingsTextSize];
  int32_t Darkness;
  int32_t Brightness;
  char outputFile[kSettingsPathSize];  // recording file; empty when off
  ZplDialect dialect;
  GraphicEncoding encoding;
  // Debug pictures of every page: 1 on, 0 off. A PPD without the option keeps
  // the old behaviour of writing them.
  int32_t DebugImages;
  // The stencil printers' anti-wrinkle frame, 0 to 3 mm.
  int32_t AntiWrinkle;
};

// Fills `settings` from the PPD named by the environment variable "PPD" and
// the job's option string (may be empty or null). A missing PPD leaves empty
// texts and zeros. `area`, when given, gets what the PPD's model prints.
void kelvoParseSettings(Settings* settings, const char* options, KelvoPrintableArea* area = nullptr);

// What the choice words mean to the engine. Words are matched as substrings
// (a choice only has to contain "LabelGaps", "Rotation180", "Direct",
// "TearOff" ...), halftone words exactly; the speed word must be one or two
// digits. The copies and the sheet come with each page.
KelvoJobSettings kelvoEngineSettings(const Settings& settings);
