#include "printer/label_setup.h"

#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "printer/kelvo_printer.h"
#include "support/kelvo_log.h"

const char* const ZPL2PrintMethod[4] = {"", "^MTD\r\n", "^MTT\r\n", nullptr};
const char* const ZPL2MN[4] = {"^MNY\r\n", "^MNM\r\n", "^MNN\r\n", nullptr};
// The cutter has two entries with the same text; the slot numbers are kept.
const char* const ZPL2MM[5] = {"", "^MMT,N\r\n", "^MMP,N\r\n", "^MMC,N\r\n", "^MMC,N\r\n"};

namespace {

bool contains(const char* text, const char* word) { return text != nullptr && std::strstr(text, word) != nullptr; }

void writeCommand(KelvoPrinter& printer, const char* command) { printer.printFormat("%s", command); }

// Truncates toward zero like a plain cast, but a size that is not a number or
// does not fit (a raster header with a zero resolution) must not be undefined.
int truncateToInt(double value) {
  if (std::isnan(value)) return 0;
  if (value >= 2147483647.0) return INT_MAX;
  if (value <= -2147483648.0) return INT_MIN;
  return static_cast<int>(value);
}

}  // namespace

// This TSPL line deliberately precedes the ZPL format: printers that speak
// TSPL take their label size from it, ZPL printers skip it.
void TSPLSize(KelvoPrinter& printer, float widthMm, float heightMm) {
  printer.printFormat("SIZE %.1f mm, %.1f mm\r\n", widthMm, heightMm);
}

// "^XX" rather than "^XA": printers in the field depend on these bytes.
void ZPLStart(KelvoPrinter& printer) { writeCommand(printer, "^XX\r\n"); }

// Always 203 dots per inch, whatever the page resolution. The product is
// taken in single precision and only the division in double; the truncation
// that follows gives 811 dots for 101.6 mm, and installed label layouts are
// built around exactly these numbers.
void setSize(KelvoPrinter& printer, float widthMm, float heightMm) {
  const float widthProduct = 203.0f * widthMm;
  const float heightProduct = 203.0f * heightMm;
  const int width = truncateToInt(static_cast<double>(widthProduct) / 25.4);
  const int height = truncateToInt(static_cast<double>(heightProduct) / 25.4);
  printer.printFormat("^PW%d\r\n^LL%d\r\n", width, height);
}

// A label paper with a gap height of 0 is driven as continuous media on
// purpose: without a gap the sensor has nothing to find.
void setGap(KelvoPrinter& printer, float gapHeight, float /*unused*/, const char* paperType) {
  if (contains(paperType, "Normal")) {
    kelvoLogCommon(LogDebug, "Skip the GAP cmd by Normal paper type");
  } else if (contains(paperType, "Continue") || gapHeight <= 0.000001) {
    writeCommand(printer, ZPL2MN[2]);
  } else if (contains(paperType, "LabelGaps")) {
    writeCommand(printer, ZPL2MN[0]);
  } else if (contains(paperType, "LabelMark")) {
    writeCommand(printer, ZPL2MN[1]);
  } else {
    kelvoLogCommon(LogDebug, "Unknown paper type: %s!", paperType != nullptr ? paperType : "");
  }
}

// Hook kept in the call sequence; the label origin needs no command.
void setReference(KelvoPrinter& /*printer*/) {}

// The second argument (mirroring) is done in the image, not by the printer.
void setDirection(KelvoPrinter& printer, const char* origin, int /*unused*/) {
  printer.printFormat("^PO%c\r\n", contains(origin, "Rotation180") ? 'I' : 'N');
}

bool kelvoPrintSpeedIsValid(const char* speed) {
  const size_t length = speed != nullptr ? std::strlen(speed) : 0;
  if (length == 0 || length > 2) return false;
  for (size_t i = 0; i < length; ++i)
    if (speed[i] < '0' || speed[i] > '9') return false;
  return true;
}

// The speed choice word itself follows ^PR, not a converted number; a word
// the command would not take as a speed could carry other commands, so it is
// left out.
void setSpeedAndDensity(KelvoPrinter& printer, const char* speed, int darkness) {
  if (speed != nullptr && !contains(speed, "Normal") && std::atof(speed) > 0.000000000000001) {
    if (kelvoPrintSpeedIsValid(speed))
      printer.printFormat("^PR%s\r\n", speed);
    else
      kelvoLogCommon(LogWarning, "Print speed \"%.40s\" is not a speed the printer accepts (1 or 2 digits); none is sent",
                     speed);
  }
  if (darkness >= 0 && darkness <= 30) printer.printFormat("~SD%d\r\n", darkness);
}

void setRibbon(KelvoPrinter& printer, const char* mediaMethod) {
  if (contains(mediaMethod, "Direct")) {
    writeCommand(printer, ZPL2PrintMethod[1]);
  } else if (contains(mediaMethod, "Transfer")) {
    writeCommand(printer, ZPL2PrintMethod[2]);
  }
}

// Hook kept in the call sequence; no offset command is sent.
void setOffset(KelvoPrinter& /*printer*/, float /*offset*/) {}

// First match wins. "PartialCut" already contains "Cut"; its own test is kept
// so that the list reads like the PPD's choices.
void setPostAction(KelvoPrinter& printer, const char* postAction) {
  if (contains(postAction, "Normal") || contains(postAction, "None")) return;
  if (contains(postAction, "TearOff")) {
    writeCommand(printer, ZPL2MM[1]);
  } else if (contains(postAction, "PeelOff")) {
    writeCommand(printer, ZPL2MM[2]);
  } else if (contains(postAction, "Cut") || contains(postAction, "PartialCut")) {
    writeCommand(printer, ZPL2MM[3]);
  }
}

void ZPLEnd(KelvoPrinter& printer) { writeCommand(printer, "^XZ\r\n\r\n"); }

// Hook called by the page loop after the setup block; writes nothing.
void setCls(KelvoPrinter& /*printer*/) {}

void endPage(KelvoPrinter& printer, Settings /*settings*/) { writeCommand(printer, "\r\n"); }

void jobSetup(KelvoPrinter& printer, const Settings* settings) {
  if (settings == nullptr) return;
  const bool standard = settings->dialect == kDialectStandard;
  if (standard) {
    // Plain ZPL II: the page's own size in dots, no TSPL line.
    printer.printStr("^XA\r\n");
    printer.printFormat("^PW%u\r\n^LL%u\r\n", settings->pageWidthDots, settings->pageHeightDots);
  } else {
    TSPLSize(printer, settings->pageWidth, settings->pageHeight);
    ZPLStart(printer);
    setSize(printer, settings->pageWidth, settings->pageHeight);
  }
  setGap(printer, static_cast<float>(settings->GapsHeight), 0, settings->PaperType);
  setReference(printer);
  setDirection(printer, settings->Origin, settings->MirrorImage);
  setSpeedAndDensity(printer, settings->PrintSpeed, settings->Darkness);
  setRibbon(printer, settings->MediaMethod);
  setOffset(printer, 0);
  setPostAction(printer, settings->PostAction);
  ZPLEnd(printer);
}
