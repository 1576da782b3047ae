#include "printer/label_setup.h"

#include <climits>
#include <cmath>

namespace {

// Truncates toward zero like a plain cast, but a size that is not a number or
// does not fit (a page without a resolution) must not be undefined.
int truncateToInt(double value) {
  if (std::isnan(value)) return 0;
  if (value >= 2147483647.0) return INT_MAX;
  if (value <= -2147483648.0) return INT_MIN;
  return static_cast<int>(value);
}

// Always 203 dots per inch, whatever the page's resolution. The product is
// taken in single precision and only the division in double; the truncation
// that follows gives 811 dots for 101.6 mm, and installed label layouts are
// built around exactly these numbers.
int dotsAt203(float mm) { return truncateToInt(static_cast<double>(203.0f * mm) / 25.4); }

const char* trackingCommand(MediaTracking tracking, int gapMm) {
  if (tracking == MediaTracking::kPrinterSetting) return nullptr;
  if (tracking == MediaTracking::kContinuous || gapMm <= 0) return "^MNN\r\n";
  if (tracking == MediaTracking::kGaps) return "^MNY\r\n";
  if (tracking == MediaTracking::kMarks) return "^MNM\r\n";
  return nullptr;
}

const char* printMethodCommand(PrintMethod method) {
  switch (method) {
    case PrintMethod::kDirectThermal: return "^MTD\r\n";
    case PrintMethod::kThermalTransfer: return "^MTT\r\n";
    case PrintMethod::kPrinterSetting: break;
  }
  return nullptr;
}

const char* postActionCommand(PostAction action) {
  switch (action) {
    case PostAction::kTearOff: return "^MMT,N\r\n";
    case PostAction::kPeelOff: return "^MMP,N\r\n";
    case PostAction::kCut: return "^MMC,N\r\n";
    case PostAction::kPrinterSetting: break;
  }
  return nullptr;
}

}  // namespace

void kelvoWriteLabelSetup(KelvoSink& sink, const KelvoJobSettings& settings, const KelvoPageSize& page) {
  if (settings.dialect == ZplDialect::kStandard) {
    // Plain ZPL II: the page's own size in dots, no TSPL line.
    sink.format("^XA\r\n^PW%u\r\n^LL%u\r\n", page.widthDots, page.heightDots);
  } else {
    const float widthMm = static_cast<float>(page.widthDots * 25.4 / page.xdpi);
    const float heightMm = static_cast<float>(page.heightDots * 25.4 / page.ydpi);
    // This TSPL line deliberately precedes the ZPL format: printers that
    // speak TSPL take their label size from it, ZPL printers skip it. "^XX"
    // rather than "^XA": printers in the field depend on these bytes.
    sink.format("SIZE %.1f mm, %.1f mm\r\n^XX\r\n^PW%d\r\n^LL%d\r\n", widthMm, heightMm, dotsAt203(widthMm),
                dotsAt203(heightMm));
  }
  if (const char* command = trackingCommand(settings.tracking, settings.gapMm)) sink.text(command);
  sink.text(settings.turnLabel ? "^POI\r\n" : "^PON\r\n");
  if (settings.speed > 0 && settings.speed < 100) sink.format("^PR%0*d\r\n", settings.speedDigits, settings.speed);
  if (settings.darkness >= 0 && settings.darkness <= 30) sink.format("~SD%d\r\n", settings.darkness);
  if (const char* command = printMethodCommand(settings.printMethod)) sink.text(command);
  if (const char* command = postActionCommand(settings.postAction)) sink.text(command);
  sink.text("^XZ\r\n\r\n");
}
