#pragma once
// What a job asks of the engine, in typed values. The front ends turn their
// own words into these: the filter its PPD's choice words
// (filter/settings.cpp), the printer application its IPP attributes
// (app/drivers.cpp). Nothing here knows where they came from.
#include <string>

#include "support/halftone.h"

// ZPL dialects. Kelvo is what the stencil printers in the field take ("^XX",
// a TSPL size line, sizes at 203 dpi); Standard is plain ZPL II.
enum class ZplDialect { kKelvo, kStandard };

// How the page graphic travels: ASCII hex in a "~DG" download, the same
// download deflated and base64-encoded (":Z64:"), or that data inline in a
// "^GFA" field for printers that lose downloaded graphics.
enum class GraphicEncoding { kHex, kZ64, kInlineZ64 };

// How the printer finds the labels (^MN). A gap of 0 drives every choice
// but kPrinterSetting as continuous media: without a gap the sensor has
// nothing to find.
enum class MediaTracking {
  kPrinterSetting,  // no command
  kUnnamed,         // none of the others: continuous without a gap, else no command
  kGaps,            // ^MNY
  kMarks,           // ^MNM
  kContinuous,      // ^MNN
};

// Direct thermal (^MTD) or thermal transfer with a ribbon (^MTT).
enum class PrintMethod { kPrinterSetting, kDirectThermal, kThermalTransfer };

// What the printer does after a label (^MM).
enum class PostAction { kPrinterSetting, kTearOff, kPeelOff, kCut };

struct KelvoJobSettings {
  // The label setup block ahead of every page.
  ZplDialect dialect = ZplDialect::kKelvo;
  MediaTracking tracking = MediaTracking::kUnnamed;
  int gapMm = 0;
  PrintMethod printMethod = PrintMethod::kPrinterSetting;
  PostAction postAction = PostAction::kPrinterSetting;
  bool turnLabel = false;  // the printer prints the label turned 180 degrees (^POI)
  int speed = 0;           // inches a second (^PR, 1 to 99); 0: the printer's own
  int speedDigits = 1;     // digits ^PR writes: a PPD's speed word "04" keeps its zero
  int darkness = -1;       // ~SD, 0 to 30; any other value: the printer's own

  // The page.
  KelvoHalftone halftone = KelvoHalftone::kThreshold;
  int brightness = 0;  // -100 (lighter) to 100 (darker); five levels of ink a step
  bool mirror = false;
  bool negative = false;
  int antiWrinkleMm = 0;  // the stencil printers' frame around the sheet; 0: none

  // The graphic.
  GraphicEncoding encoding = GraphicEncoding::kHex;
  unsigned copies = 1;  // of every page, by the printer (^PQ)
  std::string sheet;    // the page size's name, which the frame is drawn for ("A4")

  // Debug pictures of every page, as received and as printed: off unless a
  // folder is given. `debugTag` names the job in their file names.
  std::string debugFolder;
  std::string debugTag;
};
