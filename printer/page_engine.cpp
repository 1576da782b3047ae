#include "printer/page_engine.h"

#include <cstring>
#include <new>

#include "printer/page_pipeline.h"
#include "printer/zpl_graphic.h"
#include "support/kelvo_log.h"

KelvoEngine::KelvoEngine(const KelvoJobSettings& settings, const KelvoPrintableArea& area, KelvoSink& sink)
    : settings_(settings), area_(area), sink_(sink), debug_(settings.debugFolder, settings.debugTag) {}

void KelvoEngine::wakePrinter() {
  char feeds[64];
  std::memset(feeds, '\n', sizeof feeds);
  sink_.write(feeds, sizeof feeds);
}

std::string KelvoEngine::checkPage(const cups_page_header2_t& header, unsigned number) const {
  if (header.cupsBitsPerPixel != 8)
    return "Unsupported bits per pixel : " + std::to_string(header.cupsBitsPerPixel) +
           " ! Requires 8 bits per pixel!";
  return kelvoPageRefusal(area_, header, number);
}

void KelvoEngine::startPage(const cups_page_header2_t& header) {
  size_ = {header.cupsWidth, header.cupsHeight, header.HWResolution[0], header.HWResolution[1]};
  stride_ = header.cupsBytesPerLine;
  kelvoWriteLabelSetup(sink_, settings_, size_);
}

bool KelvoEngine::finishPage(uint8_t* pixels) {
  try {
    if (!kelvoRenderPage(pixels, stride_, size_, settings_, dots_, &debug_)) return false;
  } catch (const std::bad_alloc&) {
    return false;
  }
  kelvoWriteGraphic(sink_, settings_, dots_);
  return true;
}
