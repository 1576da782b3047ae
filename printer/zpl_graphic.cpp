#include "printer/zpl_graphic.h"

#include <cstring>
#include <string>

#include "support/kelvo_log.h"
#include "support/z64.h"

namespace {

const char kHexDigits[] = "0123456789ABCDEF";

// ZPL takes 1 to 99,999,999 copies. A count past 2^31 (negative as a signed
// number) or of 0 means nothing sensible and prints once.
int clampCopies(unsigned copies) {
  int clamped = static_cast<int>(copies);
  if (copies == 0 || copies > 0x7FFFFFFFu)
    clamped = 1;
  else if (copies > 99999999u)
    clamped = 99999999;
  if (static_cast<unsigned>(clamped) != copies)
    kelvoLogCommon(LogWarning, "Copy count %u is outside 1 to 99999999; printing %d", copies, clamped);
  return clamped;
}

// One run of a hex digit at `out`: count letters, then the digit. Never
// longer than the run itself; returns the end of what it wrote.
uint8_t* appendRun(uint8_t* out, uint8_t digit, unsigned count) {
  if (count > 1) {
    for (; count >= 400; count -= 400) *out++ = 'z';
    if (count >= 20) {
      *out++ = static_cast<uint8_t>(102 + count / 20);
      count %= 20;
    }
    if (count != 0) *out++ = static_cast<uint8_t>(70 + count);
  }
  *out++ = digit;
  return out;
}

void writeZ64(KelvoSink& sink, const KelvoDots& dots, bool inlineField) {
  const size_t total = dots.bits.size();
  std::string data;
  if (!kelvoZ64Encode(dots.bits.data(), total, data)) {
    kelvoLogCommon(LogError, "Unable to compress the page graphic (%zu bytes); nothing sent", total);
    sink.text("^XZ\r\n");
    return;
  }
  // A cancelled job sends nothing more; the format is closed so the printer
  // does not wait.
  if (sink.cancelled()) {
    sink.text("^XZ\r\n");
    return;
  }
  if (inlineField) {
    sink.format("^FO0,0^GFA,%zu,%zu,%zu,", total, total, dots.rowBytes);
    sink.write(data.data(), data.size());
    sink.text("^FS\n^XZ\r\n");
  } else {
    sink.format("~DGR:CUPS.GRF,%zu,%zu,", total, dots.rowBytes);
    sink.write(data.data(), data.size());
    sink.text("\n^FO0,0^XGR:CUPS.GRF,1,1^FS\n^XZ\r\n");
  }
}

}  // namespace

size_t ZplRowEncoder::encode(const uint8_t* row, size_t n, const uint8_t** text) {
  static const uint8_t kRepeat = ':';
  *text = &kRepeat;
  if (n == 0) return 0;
  if (standard_) {
    // Standard ZPL: ":" is the previous row again, whatever it holds.
    if (prevRow_.size() == n && std::memcmp(prevRow_.data(), row, n) == 0) return 1;
    prevRow_.assign(row, row + n);
  } else {
    // The stencil printers' dialect sends only an all-dots row as a repeat,
    // and only when the row before it was all dots too; a row that merely
    // equals a patterned predecessor is sent in full, as printers in the
    // field have always been fed.
    bool allDots = true;
    for (size_t i = 0; i < n && allDots; ++i) allDots = row[i] == 0xFF;
    const bool repeat = allDots && prevAllDots_;
    prevAllDots_ = allDots;
    if (repeat) return 1;
  }

  // The row's hex digits, high nibble first, as runs of equal digits. A run
  // never takes more bytes than its digits, so the row's 2n digits and one
  // closing byte always fit.
  if (text_.size() < 2 * n + 1) text_.resize(2 * n + 1);
  uint8_t* const start = text_.data();
  uint8_t* out = start;
  unsigned current = row[0] >> 4;
  unsigned count = 0;
  for (size_t i = 0; i < n;) {
    const unsigned byte = row[i];
    const unsigned high = byte >> 4;
    const unsigned low = byte & 0x0F;
    if (high == low && high == current) {
      // Bytes like 00 or FF that only lengthen the current run.
      size_t j = i + 1;
      while (j < n && row[j] == byte) ++j;
      count += static_cast<unsigned>(2 * (j - i));
      i = j;
      continue;
    }
    for (const unsigned digit : {high, low}) {
      if (digit == current) {
        ++count;
      } else {
        out = appendRun(out, static_cast<uint8_t>(kHexDigits[current]), count);
        current = digit;
        count = 1;
      }
    }
    ++i;
  }
  if (standard_ && (current == 0 || current == 0xF)) {
    // Standard ZPL: "," fills the rest of the row with paper, "!" with dots,
    // from any digit on.
    *out++ = current == 0 ? ',' : '!';
  } else if (current == 0) {
    // An odd run of trailing zeros keeps one explicit "0" before the comma;
    // the printed bytes must stay as installed printers have always seen them.
    if (count % 2 != 0) {
      *out++ = '0';
      --count;
    }
    if (count != 0) *out++ = ',';
  } else {
    out = appendRun(out, static_cast<uint8_t>(kHexDigits[current]), count);
  }
  *text = start;
  return static_cast<size_t>(out - start);
}

void kelvoWriteGraphic(KelvoSink& sink, const KelvoJobSettings& settings, const KelvoDots& dots) {
  if (dots.height == 0 || dots.rowBytes == 0) {
    kelvoLogCommon(LogError, "Empty page (%u x %u pixels), no graphic sent", dots.width, dots.height);
    return;
  }
  // A cancelled job sends nothing more of its pages.
  if (sink.cancelled()) return;
  sink.text(settings.dialect == ZplDialect::kStandard ? "^XA\r\n" : "^XX\r\n");
  sink.format("^PQ%d\n", clampCopies(settings.copies));
  if (settings.encoding != GraphicEncoding::kHex) {
    writeZ64(sink, dots, settings.encoding == GraphicEncoding::kInlineZ64);
    return;
  }
  sink.format("~DGR:CUPS.GRF,%u,%u,\n", static_cast<unsigned>(dots.bits.size()), static_cast<unsigned>(dots.rowBytes));
  ZplRowEncoder encoder(settings.dialect);
  for (unsigned y = 0; y < dots.height; ++y) {
    if (sink.cancelled()) {
      // The printer would otherwise take whatever comes next as the rest of
      // the graphic and wait for the missing bytes; ~DN ends the download.
      // Nothing is written after it.
      sink.text("~DN\r\n");
      sink.flush();
      return;
    }
    const uint8_t* text = nullptr;
    const size_t length = encoder.encode(dots.row(y), dots.rowBytes, &text);
    sink.write(text, length);
  }
  sink.text("^FO0,0^XGR:CUPS.GRF,1,1^FS\n^XZ\r\n");
}
