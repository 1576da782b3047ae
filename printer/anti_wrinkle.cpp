#include "printer/anti_wrinkle.h"

#include <algorithm>
#include <cstring>

namespace {

struct Sheet {
  const char* name;
  // Hundredths of a millimetre. These are the printable sheets of the stencil
  // printers, not the nominal paper sizes, and must stay as they are.
  unsigned width;
  unsigned height;
};

constexpr Sheet kSheets[] = {
    {"A4", 20000, 27500},
    {"Letter", 21000, 25700},
    {"Tattoo_A5", 20000, 11800},
    {"Tattoo_A6", 10000, 11800},
};

// Hundredths of a millimetre at `dpi`, to the nearest dot.
long dotsOf(unsigned dpi, unsigned long hundredthsMm) { return static_cast<long>((dpi * hundredthsMm / 254 + 5) / 10); }

// Sets dots x0 .. x1 - 1 of a row of `width` dots, those inside it.
void setDots(uint8_t* row, long x0, long x1, long width) {
  x0 = std::max(x0, 0L);
  x1 = std::min(x1, width);
  for (long x = x0; x < x1; ++x) row[x >> 3] |= static_cast<uint8_t>(0x80 >> (x & 7));
}

// The page moved `dx` dots right and `dy` down on a page larger by twice
// that, paper around it.
KelvoDots centred(const KelvoDots& page, unsigned dx, unsigned dy) {
  KelvoDots out;
  out.reset(page.width + 2 * dx, page.height + 2 * dy);
  const unsigned shift = dx % 8;
  for (unsigned y = 0; y < page.height; ++y) {
    const uint8_t* src = page.row(y);
    uint8_t* dst = out.row(y + dy) + dx / 8;
    const size_t room = out.rowBytes - dx / 8;
    if (shift == 0) {
      std::memcpy(dst, src, page.rowBytes);
      continue;
    }
    // The page's unused low bits are 0, so nothing spills past its width.
    for (size_t i = 0; i < page.rowBytes; ++i) {
      dst[i] |= static_cast<uint8_t>(src[i] >> shift);
      if (i + 1 < room) dst[i + 1] |= static_cast<uint8_t>(src[i] << (8 - shift));
    }
  }
  return out;
}

}  // namespace

bool kelvoDrawAntiWrinkleFrame(KelvoDots& dots, int levelMm, const std::string& sheet, unsigned xdpi, unsigned ydpi) {
  const Sheet* found = nullptr;
  for (const Sheet& s : kSheets)
    if (sheet == s.name) found = &s;
  if (found == nullptr || levelMm <= 0) return false;
  const long lineV = dotsOf(xdpi, 100ul * static_cast<unsigned long>(levelMm));  // left and right
  const long lineH = dotsOf(ydpi, 100);                                         // top and bottom
  const long canvasWidth = dotsOf(xdpi, found->width) + 2 * lineV;
  const long canvasHeight = dotsOf(ydpi, found->height) + 2 * lineH;

  // An odd difference leaves the page one dot short of the canvas; the
  // frame then runs one dot past the page and that dot is not drawn.
  const long ex = std::max(0L, (canvasWidth - static_cast<long>(dots.width)) / 2);
  const long ey = std::max(0L, (canvasHeight - static_cast<long>(dots.height)) / 2);
  if (ex != 0 || ey != 0) dots = centred(dots, static_cast<unsigned>(ex), static_cast<unsigned>(ey));
  const long width = dots.width;
  const long height = dots.height;
  const long ox = std::max(0L, (width - canvasWidth) / 2);
  const long oy = std::max(0L, (height - canvasHeight) / 2);
  for (long y = std::max(oy, 0L); y < std::min(oy + canvasHeight, height); ++y) {
    uint8_t* row = dots.row(static_cast<unsigned>(y));
    if (y < oy + lineH || y >= oy + canvasHeight - lineH) {
      setDots(row, ox, ox + canvasWidth, width);
    } else {
      setDots(row, ox, ox + lineV, width);
      setDots(row, ox + canvasWidth - lineV, ox + canvasWidth, width);
    }
  }
  return true;
}
