// The anti-wrinkle frame: solid lines of dots around the sheet keep thin
// stencil paper flat under the print head.
#include <cstring>

#include "printer/kelvo_printer.h"
#include "support/kelvo_log.h"

namespace {

struct Sheet {
  const char* name;
  // Hundredths of a millimetre. These are the printable sheets of the stencil
  // printers, not the nominal paper sizes, and must stay as they are.
  uint32_t width;
  uint32_t height;
};

const Sheet kSheets[] = {
    {"A4", 20000, 27500},
    {"Letter", 21000, 25700},
    {"Tattoo_A5", 20000, 11800},
    {"Tattoo_A6", 10000, 11800},
};

uint32_t sheetDots(uint32_t resolution, uint32_t hundredthsMm) { return (resolution * hundredthsMm / 254 + 5) / 10; }

}  // namespace

void KelvoPrinter::EnableAntiWrink(PaletteImage& image) {
  if (!image.IsValid() || pageHdr_ == nullptr) {
    kelvoLogCommon(LogDebug, "EnableAntiWrink: Image or pageHdr_ is not valid, returning.");
    return;
  }
  // Unsigned 32-bit arithmetic in this order: the line widths are the ones the
  // printers have always drawn.
  const uint32_t resolution = static_cast<uint32_t>(resolution_);
  const uint32_t level = static_cast<uint32_t>(antiWrinkle_);
  const int lineH = static_cast<int>((resolution * 100 / 254 + 5) / 10);
  const int lineV = static_cast<int>((level * 100 * resolution / 254 + 5) / 10);
  kelvoLogCommon(LogDebug, "EnableAntiWrink: AntiWrinkle level: %d, line_v: %d points, line_h: %d points.",
                 antiWrinkle_, lineV, lineH);

  int canvasWidth = 0;
  int canvasHeight = 0;
  for (const Sheet& sheet : kSheets) {
    if (std::strcmp(pageHdr_->cupsPageSizeName, sheet.name) != 0) continue;
    canvasWidth = static_cast<int>(sheetDots(resolution, sheet.width)) + 2 * lineV;
    canvasHeight = static_cast<int>(sheetDots(resolution, sheet.height)) + 2 * lineH;
    kelvoLogCommon(LogDebug, "EnableAntiWrink: Page size is %s, CanvasWidth: %d, CanvasHeight: %d", sheet.name,
                   canvasWidth, canvasHeight);
    break;
  }

  int ex = 0;
  int ey = 0;
  if (static_cast<int>(image.GetWidth()) < canvasWidth) {
    ex = (canvasWidth - static_cast<int>(image.GetWidth())) / 2;
    kelvoLogCommon(LogDebug, "EnableAntiWrink: Image width is less than canvas width, exPoints: %d", ex);
  }
  if (static_cast<int>(image.GetHeight()) < canvasHeight) {
    ey = (canvasHeight - static_cast<int>(image.GetHeight())) / 2;
    kelvoLogCommon(LogDebug, "EnableAntiWrink: Image height is less than canvas height, eyPoints: %d", ey);
  }
  // An odd difference leaves the image one dot short of the canvas; the frame
  // then runs one dot past the edge and that dot is simply not drawn.
  if (ex != 0 || ey != 0) {
    const tagRGBQUAD white = {255, 255, 255, 0};
    if (!image.Expand(ex, ey, ex, ey, white)) {
      kelvoLogCommon(LogDebug, "EnableAntiWrink: Failed to expand image, returning.");
      return;
    }
    kelvoLogCommon(LogDebug, "EnableAntiWrink: Image expanded successfully.");
  }

  int ox = 0;
  int oy = 0;
  const int imageWidth = static_cast<int>(image.GetWidth());
  const int imageHeight = static_cast<int>(image.GetHeight());
  if (imageWidth > canvasWidth) {
    ox = (imageWidth - canvasWidth) / 2;
    kelvoLogCommon(LogDebug, "EnableAntiWrink: Image width is greater than canvas width, offset.x: %d", ox);
  }
  if (imageHeight > canvasHeight) {
    oy = (imageHeight - canvasHeight) / 2;
    kelvoLogCommon(LogDebug, "EnableAntiWrink: Image height is greater than canvas height, offset.y: %d", oy);
  }

  struct Line {
    const char* name;
    int x0, x1, y0, y1;
  };
  const Line lines[] = {
      {"left", ox, ox + lineV, oy, oy + canvasHeight},
      {"top", ox, ox + canvasWidth, oy, oy + lineH},
      {"right", ox + canvasWidth - lineV, ox + canvasWidth, oy, oy + canvasHeight},
      {"bottom", ox, ox + canvasWidth, oy + canvasHeight - lineH, oy + canvasHeight},
  };
  // The counters are shared by the four lines and logged as they stand after
  // each line; a line without rows keeps the x of the line before.
  int x = 0;
  int y = 0;
  for (const Line& line : lines) {
    for (y = line.y0; y < line.y1; ++y)
      for (x = line.x0; x < line.x1; ++x) image.SetPixelIndex(x, y, 255);
    kelvoLogCommon(LogDebug, "EnableAntiWrink: Drawing %s line. point(%d, %d, %d, %d)", line.name, line.x0, line.y0,
                   x, y);
  }
}
