#include "printer/page_pipeline.h"

#include <algorithm>
#include <cstring>

#include "image/halftone.h"
#include "image/pixel_rows.h"
#include "printer/anti_wrinkle.h"
#include "stencil/jv_tattoo.h"
#include "support/kelvo_log.h"

namespace {

// The brightness table: five levels of ink a step, in single precision and
// truncated. A table computed any other way moves some levels by one and
// changes the printed dots.
void brightnessTable(int brightness, uint8_t table[256]) {
  const float b = static_cast<float>(5 * brightness + 128);
  for (int i = 0; i < 256; ++i) {
    const float v = static_cast<float>(i - 128) * 1.0f + b + 0.5f;
    table[i] = v >= 255.0f ? 255 : v > 0.0f ? static_cast<uint8_t>(static_cast<int>(v)) : 0;
  }
}

void adjust(uint8_t* page, size_t stride, unsigned width, unsigned height, const KelvoJobSettings& settings) {
  const int brightness = std::clamp(settings.brightness, -100, 100);
  if (brightness == 0 && !settings.mirror) return;
  uint8_t table[256];
  if (brightness != 0) brightnessTable(brightness, table);
  for (unsigned y = 0; y < height; ++y) {
    uint8_t* row = page + stride * y;
    if (brightness != 0)
      for (unsigned x = 0; x < width; ++x) row[x] = table[row[x]];
    if (settings.mirror) std::reverse(row, row + width);
  }
}

// The stencil chain made in the page itself, its rows first moved together
// where they are padded (the chain reads them without gaps), then packed.
// The chain gives its bytes for every page and also finishes on blank and
// two-level pages.
bool stencil(uint8_t* page, size_t stride, unsigned width, unsigned height, bool x8, KelvoDots& dots) {
  if (stride != width)
    for (unsigned y = 1; y < height; ++y) std::memmove(page + static_cast<size_t>(width) * y, page + stride * y, width);
  if (!jvTattooStencilInPlace(page, static_cast<int>(width), static_cast<int>(height), x8)) return false;
  for (unsigned y = 0; y < height; ++y) kelvoPackNonZero(page + static_cast<size_t>(width) * y, width, dots.row(y));
  return true;
}

}  // namespace

bool kelvoRenderPage(uint8_t* page, size_t stride, const KelvoPageSize& size, const KelvoJobSettings& settings,
                     KelvoDots& dots, KelvoDebugPictures* debug) {
  const unsigned width = size.widthDots, height = size.heightDots;
  if (debug != nullptr && debug->on()) debug->saveReceived(page, width, height);
  adjust(page, stride, width, height, settings);
  dots.reset(width, height);
  const bool made = kelvoIsStencil(settings.halftone)
                        ? stencil(page, stride, width, height, settings.halftone == KelvoHalftone::kTattooX8, dots)
                        : kelvoHalftone(settings.halftone, page, stride, width, height, dots.bits.data(), dots.rowBytes);
  if (!made) return false;
  kelvoLogCommon(LogDebug, "Page of %u x %u dots halftoned: %s", width, height, kelvoHalftoneName(settings.halftone));
  if (settings.negative) {
    const uint8_t last = dots.lastByteMask();
    for (unsigned y = 0; y < height; ++y) {
      uint8_t* row = dots.row(y);
      for (size_t i = 0; i < dots.rowBytes; ++i) row[i] = static_cast<uint8_t>(~row[i]);
      row[dots.rowBytes - 1] &= last;
    }
  }
  if (settings.antiWrinkleMm > 0 &&
      !kelvoDrawAntiWrinkleFrame(dots, settings.antiWrinkleMm, settings.sheet, size.xdpi, size.ydpi))
    kelvoLogCommon(LogWarning, "No anti-wrinkle frame: the page size \"%s\" is not a stencil sheet",
                   settings.sheet.c_str());
  if (debug != nullptr && debug->on()) debug->savePrinted(dots);
  return true;
}
