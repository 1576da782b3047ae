#include "printer/zpl_printer.h"

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <vector>

#include "image/pixel_rows.h"
#include "support/z64.h"
#include "support/kelvo_log.h"

namespace {

const char kHexDigits[] = "0123456789ABCDEF";

// ZPL takes 1 to 99,999,999 copies. The count comes from the raster header,
// which anyone who can print writes; 0 and counts past 2^31 (negative as a
// signed number) mean nothing sensible and print once.
int clampCopies(unsigned int copies) {
  int clamped = static_cast<int>(copies);
  if (copies == 0 || copies > 0x7FFFFFFFu)
    clamped = 1;
  else if (copies > 99999999u)
    clamped = 99999999;
  if (static_cast<unsigned int>(clamped) != copies)
    kelvoLogCommon(LogWarning, "Copy count %u is outside 1 to 99999999; printing %d", copies, clamped);
  return clamped;
}

// The first argument is unused.
void setPrint(KelvoPrinter& printer, int /*unused*/, int copies) { printer.printFormat("^PQ%d\n", copies); }

// Number of pixels of a row that are packed; a skip that would leave nothing
// keeps the whole row.
size_t keptPixels(size_t bpl, unsigned long skip) { return (skip != 0 && skip < bpl) ? bpl - skip : bpl; }

// Packs h rows of bpl bytes from src into 1-bit rows at dst, leftmost pixel
// in bit 7, unused low bits of a row's last byte clear. dst may be src: a
// packed byte never lands beyond the source bytes already read.
size_t packRows(const unsigned char* src, size_t bpl, size_t h, size_t wb, unsigned char* dst) {
  const size_t rowBytes = (wb + 7) / 8;
  for (size_t r = 0; r < h; ++r) kelvoPackNonZero(src + r * bpl, wb, dst + r * rowBytes);
  return rowBytes * h;
}

// One run of a hex digit at `out`: count letters, then the digit. Never
// longer than the run itself; returns the end of what it wrote.
unsigned char* appendRun(unsigned char* out, unsigned char digit, unsigned int count) {
  if (count > 1) {
    for (; count >= 400; count -= 400) *out++ = 'z';
    if (count >= 20) {
      *out++ = static_cast<unsigned char>(102 + count / 20);
      count %= 20;
    }
    if (count != 0) *out++ = static_cast<unsigned char>(70 + count);
  }
  *out++ = digit;
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

void ZplPrinter::doPrintImage(const unsigned char* bits, unsigned long bytesPerLine, unsigned long height,
                              unsigned long width) {
  // Rows lie bytesPerLine bytes apart (image rows are padded to four bytes);
  // only the first `width` pixels of each are the page. The caller's page is
  // read only; the packed rows go to a buffer of their own.
  const size_t wb = keptPixels(width, getSkipRightPixels());
  const size_t rowBytes = (wb + 7) / 8;
  logPacking(static_cast<int>(width), static_cast<int>(height), getSkipRightPixels(), wb);
  if (bits == nullptr || height == 0 || rowBytes == 0 || bytesPerLine < width) {
    kelvoLogCommon(LogError, "doPrintImage: empty page (%lu x %lu pixels), no graphic sent", width, height);
    return;
  }
  // A cancelled job sends nothing more of its pages.
  if (isCancelled()) return;
  std::vector<unsigned char> packed(rowBytes * height);
  packRows(bits, bytesPerLine, height, wb, packed.data());
  sendGraphic(packed, rowBytes, height);
}

void ZplPrinter::doPrintPackedImage(const unsigned char* rows, unsigned long bytesPerRow, unsigned long height,
                                    unsigned long width) {
  const size_t wb = keptPixels(width, getSkipRightPixels());
  const size_t rowBytes = (wb + 7) / 8;
  logPacking(static_cast<int>(width), static_cast<int>(height), getSkipRightPixels(), wb);
  if (rows == nullptr || height == 0 || rowBytes == 0 || bytesPerRow < rowBytes) {
    kelvoLogCommon(LogError, "doPrintImage: empty page (%lu x %lu pixels), no graphic sent", width, height);
    return;
  }
  if (isCancelled()) return;
  // The rows are packed already; only the bits past the kept pixels of the
  // last byte are cleared.
  const unsigned char lastMask = static_cast<unsigned char>(wb % 8 == 0 ? 0xFF : 0xFF << (8 - wb % 8));
  std::vector<unsigned char> packed(rowBytes * height);
  for (size_t r = 0; r < height; ++r) {
    unsigned char* dst = packed.data() + r * rowBytes;
    std::memcpy(dst, rows + r * bytesPerRow, rowBytes);
    dst[rowBytes - 1] &= lastMask;
  }
  sendGraphic(packed, rowBytes, height);
}

void ZplPrinter::sendGraphic(const std::vector<unsigned char>& packed, size_t rowBytes, size_t height) {
  const size_t total = packed.size();
  printStr(getDialect() == kDialectStandard ? "^XA\r\n" : "^XX\r\n");
  const cups_page_header2_t* header = getPageHeader();
  setPrint(*this, 1, clampCopies(header != nullptr ? header->NumCopies : 1));
  if (getGraphicEncoding() != kEncodingHex) {
    sendZ64(packed, total, rowBytes, getGraphicEncoding() == kEncodingInlineZ64);
    return;
  }
  printFormat("~DGR:CUPS.GRF,%u,%u,\n", static_cast<unsigned>(total), static_cast<unsigned>(rowBytes));
  const unsigned char* p = packed.data();
  prevRowAllDots_ = false;
  prevRow_.clear();
  for (size_t r = 0; r < height; ++r, p += rowBytes) {
    if (isCancelled()) {
      abortDownload();
      return;
    }
    ZPLPrintLine(p, static_cast<int>(rowBytes));
  }
  printStr("^FO0,0^XGR:CUPS.GRF,1,1^FS\n");
  printStr("^XZ\r\n");
}

void ZplPrinter::sendZ64(const std::vector<unsigned char>& packed, size_t total, size_t rowBytes, bool inlineField) {
  std::string data;
  if (!kelvoZ64Encode(packed.data(), total, data)) {
    kelvoLogCommon(LogError, "Unable to compress the page graphic (%zu bytes); nothing sent", total);
    printStr("^XZ\r\n");
    return;
  }
  // A cancelled job sends nothing more; the format is closed so the printer
  // does not wait.
  if (isCancelled()) {
    printStr("^XZ\r\n");
    return;
  }
  if (inlineField) {
    printFormat("^FO0,0^GFA,%zu,%zu,%zu,", total, total, rowBytes);
    printBytes(reinterpret_cast<const unsigned char*>(data.data()), data.size());
    printStr("^FS\n^XZ\r\n");
  } else {
    printFormat("~DGR:CUPS.GRF,%zu,%zu,", total, rowBytes);
    printBytes(reinterpret_cast<const unsigned char*>(data.data()), data.size());
    printStr("\n^FO0,0^XGR:CUPS.GRF,1,1^FS\n^XZ\r\n");
  }
}

// The printer would otherwise take whatever comes next as the rest of the
// graphic and wait for the missing bytes; ~DN ends the download. Nothing is
// written after it.
void ZplPrinter::abortDownload() {
  printStr("~DN\r\n");
  for (FILE* stream : getOutputStreams()) std::fflush(stream);
}

void ZplPrinter::ZPLPrintLine(const unsigned char* row, int n) {
  if (row == nullptr || n <= 0) return;
  const size_t len = static_cast<size_t>(n);
  const bool standard = getDialect() == kDialectStandard;

  if (standard) {
    // Standard ZPL: ":" is the previous row again, whatever it holds.
    if (prevRow_.size() == len && std::memcmp(prevRow_.data(), row, len) == 0) {
      printByte(':');
      return;
    }
    prevRow_.assign(row, row + len);
  } else {
    // The stencil printers' dialect sends only an all-dots row as a repeat,
    // and only when the row before it was all dots too; a row that merely
    // equals a patterned predecessor is sent in full, as printers in the
    // field have always been fed.
    bool allDots = true;
    for (size_t i = 0; i < len && allDots; ++i) allDots = row[i] == 0xFF;
    const bool repeat = allDots && prevRowAllDots_;
    prevRowAllDots_ = allDots;
    if (repeat) {
      printByte(':');
      return;
    }
  }

  // The row's hex digits, high nibble first, as runs of equal digits. The
  // text is built whole and written with one call: the same bytes in the
  // same order as one call per byte. A run never takes more bytes than its
  // digits, so the row's 2n digits and one closing byte always fit.
  if (rowText_.size() < 2 * len + 1) rowText_.resize(2 * len + 1);
  unsigned char* const start = rowText_.data();
  unsigned char* text = start;
  unsigned current = row[0] >> 4;
  unsigned int count = 0;
  for (size_t i = 0; i < len;) {
    const unsigned byte = row[i];
    const unsigned high = byte >> 4;
    const unsigned low = byte & 0x0F;
    if (high == low && high == current) {
      // Bytes like 00 or FF that only lengthen the current run.
      size_t j = i + 1;
      while (j < len && row[j] == byte) ++j;
      count += static_cast<unsigned int>(2 * (j - i));
      i = j;
      continue;
    }
    for (const unsigned digit : {high, low}) {
      if (digit == current) {
        ++count;
      } else {
        text = appendRun(text, static_cast<unsigned char>(kHexDigits[current]), count);
        current = digit;
        count = 1;
      }
    }
    ++i;
  }
  if (standard && (current == 0 || current == 0xF)) {
    // Standard ZPL: "," fills the rest of the row with paper, "!" with dots,
    // from any digit on.
    *text++ = current == 0 ? ',' : '!';
  } else if (current == 0) {
    // An odd run of trailing zeros keeps one explicit "0" before the comma;
    // the printed bytes must stay as installed printers have always seen them.
    if (count % 2 != 0) {
      *text++ = '0';
      --count;
    }
    if (count != 0) *text++ = ',';
  } else {
    text = appendRun(text, static_cast<unsigned char>(kHexDigits[current]), count);
  }
  printBytes(start, static_cast<unsigned long>(text - start));
}

void ZplPrinter::ZPLCompress(unsigned char digit, unsigned int count) {
  std::vector<unsigned char> run(count / 400 + 3);
  printBytes(run.data(), static_cast<unsigned long>(appendRun(run.data(), digit, count) - run.data()));
}
