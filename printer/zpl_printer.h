#pragma once
// ZplPrinter: renders a processed page as a compressed ZPL II graphic that is
// downloaded, recalled at the label origin and printed.
#include <string>
#include <vector>

#include "printer/kelvo_printer.h"

class ZplPrinter : public KelvoPrinter {
 public:
  ZplPrinter() = default;
  ~ZplPrinter() override = default;

  void doPrintImage(const unsigned char* bits, unsigned long bytesPerLine, unsigned long height,
                    unsigned long width) override;
  void doPrintPackedImage(const unsigned char* rows, unsigned long bytesPerRow, unsigned long height,
                          unsigned long width) override;
  bool takesPackedRows() const override { return packedRows_; }
  // Off: the pipeline hands over 8-bit pages even where it could pack.
  void setPackedRows(bool on) { packedRows_ = on; }

  // Encodes one packed row. Standard dialect: a row equal to the one before
  // is sent as ":", a row's last run of paper as "," and of dots as "!".
  // Kelvo dialect: only an all-dots row right after another all-dots row is
  // ":", and only paper ends with ",". startPage() forgets the row before.
  void ZPLPrintLine(const unsigned char* row, int n);
  void ZPLCompress(unsigned char digit, unsigned int count);

 private:
  // Ends an unfinished graphic download after the job was cancelled.
  void abortDownload();
  // Sends the packed page deflated and base64-encoded, as a download or inline.
  void sendZ64(const std::vector<unsigned char>& packed, size_t total, size_t rowBytes, bool inlineField);
  // Sends packed rows: format start, copy count, graphic, recall.
  void sendGraphic(const std::vector<unsigned char>& packed, size_t rowBytes, size_t height);

  bool packedRows_ = true;

  // The text of one encoded row, kept from row to row so that no row allocates.
  std::vector<unsigned char> rowText_;
};
