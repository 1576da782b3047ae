#include "printer/zpl_printer.h"

#include <cstddef>
#include <vector>

#include "support/kelvo_log.h"

int LastSet = 0;

namespace {

const char kHexDigits[] = "0123456789ABCDEF";

// The copy count goes through the process-wide printer rather than the
// caller, like every other job command; the first argument is unused.
void setPrint(int /*unused*/, int copies) {
  if (sPrinter == nullptr) {
    kelvoLogCommon(LogError, "setPrint: no current printer, the copy count %d is not sent", copies);
    return;
  }
  sPrinter->printFormat("^PQ%d\n", copies);
}

// Number of pixels of a row that are packed; a skip that would leave nothing
// keeps the whole row.
size_t keptPixels(size_t bpl, unsigned long skip) { return (skip != 0 && skip < bpl) ? bpl - skip : bpl; }

// Packs h rows of bpl bytes from src into 1-bit rows at dst, leftmost pixel
// in bit 7, unused low bits of a row's last byte clear. dst may be src: a
// packed byte never lands beyond the source bytes already read.
size_t packRows(const unsigned char* src, size_t bpl, size_t h, size_t wb, unsigned char* dst) {
  size_t out = 0;
  for (size_t r = 0; r < h; ++r) {
    const unsigned char* row = src + r * bpl;
    unsigned char acc = 0;
    for (size_t x = 0; x < wb; ++x) {
      if (row[x] != 0) acc |= static_cast<unsigned char>(0x80u >> (x % 8));
      if (x % 8 == 7) {
        dst[out++] = acc;
        acc = 0;
      }
    }
    if (wb % 8 != 0) dst[out++] = acc;
  }
  return out;
}

void logPacking(int bpl, int h, unsigned long skip, size_t wb) {
  kelvoLogCommon(LogDebug, "GrayToMono, bpl(%d), h(%d), skipPixels(%d), wb(%d)", bpl, h, static_cast<int>(skip),
                 static_cast<int>(wb));
}

}  // namespace

int KelvoPrinter::GrayToMono(int bpl, int h, unsigned char* data) {
  const unsigned long skip = getSkipRightPixels();
  const size_t wb = bpl > 0 ? keptPixels(static_cast<size_t>(bpl), skip) : 0;
  logPacking(bpl, h, skip, wb);
  if (bpl <= 0 || h <= 0 || data == nullptr) return 0;
  return static_cast<int>(packRows(data, static_cast<size_t>(bpl), static_cast<size_t>(h), wb, data));
}

void ZplPrinter::doPrintImage(const unsigned char* bits, unsigned long /*bytesPerLine*/, unsigned long height,
                              unsigned long width) {
  // The row stride is deliberately the pixel width, not bytesPerLine: the
  // pipeline hands over rows that follow one another without padding.
  // The caller's page is read only; the packed rows go to a buffer of their own.
  const size_t wb = keptPixels(width, getSkipRightPixels());
  const size_t rowBytes = (wb + 7) / 8;
  logPacking(static_cast<int>(width), static_cast<int>(height), getSkipRightPixels(), wb);
  if (bits == nullptr || height == 0 || rowBytes == 0) {
    kelvoLogCommon(LogError, "doPrintImage: empty page (%lu x %lu pixels), no graphic sent", width, height);
    return;
  }
  std::vector<unsigned char> packed(rowBytes * height);
  const size_t total = packRows(bits, width, height, wb, packed.data());

  printStr("^XX\r\n");
  const cups_page_header2_t* header = getPageHeader();
  setPrint(1, header != nullptr ? static_cast<int>(header->NumCopies) : 1);
  printFormat("~DGR:CUPS.GRF,%u,%u,\n", static_cast<unsigned>(total), static_cast<unsigned>(rowBytes));
  const unsigned char* p = packed.data();
  for (unsigned long r = 0; r < height; ++r, p += rowBytes) ZPLPrintLine(p, static_cast<int>(rowBytes));
  printStr("^FO0,0^XGR:CUPS.GRF,1,1^FS\n");
  printStr("^XZ\r\n");
}

void ZplPrinter::ZPLPrintLine(const unsigned char* row, int n) {
  if (row == nullptr || n <= 0) return;
  const size_t len = static_cast<size_t>(n);

  // Only an all-dots row is ever sent as a repeat, whatever the row before it
  // held: printers in the field are fed exactly this, so it stays.
  if (LastSet != 0) {
    bool allDots = true;
    for (size_t i = 0; i < len && allDots; ++i) allDots = row[i] == 0xFF;
    if (allDots) {
      printByte(':');
      return;
    }
  }

  const size_t digits = 2 * len;
  auto digitAt = [row](size_t i) -> unsigned char {
    const unsigned nibble = (i % 2 == 0) ? (row[i / 2] >> 4) : (row[i / 2] & 0x0F);
    return static_cast<unsigned char>(kHexDigits[nibble]);
  };
  unsigned char current = digitAt(0);
  unsigned int count = 1;
  for (size_t i = 1; i < digits; ++i) {
    const unsigned char d = digitAt(i);
    if (d == current) {
      ++count;
    } else {
      ZPLCompress(current, count);
      current = d;
      count = 1;
    }
  }
  if (current == '0') {
    // An odd run of trailing zeros keeps one explicit "0" before the comma;
    // the printed bytes must stay as installed printers have always seen them.
    if (count % 2 != 0) {
      printByte('0');
      --count;
    }
    if (count != 0) printByte(',');
  } else {
    ZPLCompress(current, count);
  }
  LastSet = 1;
}

void ZplPrinter::ZPLCompress(unsigned char digit, unsigned int count) {
  if (count > 1) {
    while (count >= 400) {
      printByte('z');
      count -= 400;
    }
    if (count >= 20) {
      printByte(static_cast<unsigned char>(102 + count / 20));
      count %= 20;
    }
    if (count != 0) printByte(static_cast<unsigned char>(70 + count));
  }
  printByte(digit);
}
