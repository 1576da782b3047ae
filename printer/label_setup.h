#pragma once
// The label setup block written ahead of every page: in the Kelvo dialect a
// TSPL size line, then a ZPL format with width, length, media tracking,
// orientation, speed and darkness, print method and post-print action.
#include "printer/byte_sink.h"
#include "printer/job_settings.h"

// A page's size in dots and the resolution it was made at.
struct KelvoPageSize {
  unsigned widthDots = 0;
  unsigned heightDots = 0;
  unsigned xdpi = 0;
  unsigned ydpi = 0;
};

void kelvoWriteLabelSetup(KelvoSink& sink, const KelvoJobSettings& settings, const KelvoPageSize& page);
