#pragma once
// ZplPrinter: renders a processed page as a compressed ZPL II graphic that is
// downloaded, recalled at the label origin and printed.
#include "printer/kelvo_printer.h"

// Non-zero once a row of the current page has been sent in full; the driver
// clears it before every page.
extern int LastSet;

class ZplPrinter : public KelvoPrinter {
 public:
  ZplPrinter() = default;
  ~ZplPrinter() override = default;

  void doPrintImage(const unsigned char* bits, unsigned long bytesPerLine, unsigned long height,
                    unsigned long width) override;

  void ZPLPrintLine(const unsigned char* row, int n);
  void ZPLCompress(unsigned char digit, unsigned int count);

 private:
  // Ends an unfinished graphic download after the job was cancelled.
  void abortDownload();
};
