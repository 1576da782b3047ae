#pragma once
// The one way a job's pages go through the engine, below both front ends:
// the filter (PPD and options in, CUPS raster pages in) and the printer
// application (IPP attributes in, PAPPL's lines in) give it typed settings
// and 8-bit pages, and it writes the ZPL to a byte sink.
//
// Per job: wakePrinter() once, then for each page in turn checkPage(),
// startPage() and finishPage().
#include <cups/raster.h>

#include <cstdint>
#include <string>

#include "printer/byte_sink.h"
#include "printer/debug_pictures.h"
#include "printer/dots.h"
#include "printer/job_settings.h"
#include "printer/label_setup.h"
#include "printer/page_limits.h"

class KelvoEngine {
 public:
  // `area`: what the printer model prints; pages beyond it are refused.
  KelvoEngine(const KelvoJobSettings& settings, const KelvoPrintableArea& area, KelvoSink& sink);

  // The front end may change what concerns a single page (copies, sheet)
  // between pages.
  KelvoJobSettings& settings() { return settings_; }

  // Line feeds that wake the printer and flush anything left in its parser.
  void wakePrinter();

  // Why page `number` (from 1) of `header` cannot be printed; empty when it
  // can. Checked before the page's pixels are read or even held anywhere.
  std::string checkPage(const cups_page_header2_t& header, unsigned number) const;
  // Writes the label setup block of a page that passed checkPage().
  void startPage(const cups_page_header2_t& header);
  // The page's pixels, one byte of ink a dot (0 = paper), rows
  // header.cupsBytesPerLine bytes apart: halftoned and sent as the page
  // graphic. The engine works in the pixels, so they are lost. False when
  // memory ran out; nothing of the graphic was sent then.
  bool finishPage(uint8_t* pixels);

 private:
  KelvoJobSettings settings_;
  KelvoPrintableArea area_;
  KelvoSink& sink_;
  KelvoDebugPictures debug_;
  KelvoPageSize size_;
  size_t stride_ = 0;
  KelvoDots dots_;  // kept from page to page
};
