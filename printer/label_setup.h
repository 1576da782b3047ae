#pragma once
// The label setup block written ahead of every page: in the Kelvo dialect a
// TSPL size line, then a ZPL format with width, length, media tracking,
// orientation, speed and darkness, print method and post-print action. Every
// command writes through the job's printer, so the bytes also reach the
// recording file. Choice words are matched as substrings: a PPD choice only
// has to contain the word.
#include "printer/job_settings.h"
#include "printer/kelvo_printer.h"

// Print method: none, direct thermal, thermal transfer.
extern const char* const ZPL2PrintMethod[4];
// Media tracking: gap/notch, black mark, continuous.
extern const char* const ZPL2MN[4];
// Post-print action: none, tear off, peel off, cutter (twice).
extern const char* const ZPL2MM[5];

void TSPLSize(KelvoPrinter& printer, float widthMm, float heightMm);
void ZPLStart(KelvoPrinter& printer);
void setSize(KelvoPrinter& printer, float widthMm, float heightMm);
void setGap(KelvoPrinter& printer, float gapHeight, float unused, const char* paperType);
void setReference(KelvoPrinter& printer);
void setDirection(KelvoPrinter& printer, const char* origin, int unused);
void setSpeedAndDensity(KelvoPrinter& printer, const char* speed, int darkness);
void setRibbon(KelvoPrinter& printer, const char* mediaMethod);
void setOffset(KelvoPrinter& printer, float offset);
void setPostAction(KelvoPrinter& printer, const char* postAction);
void ZPLEnd(KelvoPrinter& printer);
void setCls(KelvoPrinter& printer);
void endPage(KelvoPrinter& printer, Settings settings);

// True when `speed` is something "^PR" accepts: one or two digits.
bool kelvoPrintSpeedIsValid(const char* speed);

// Writes the whole setup block for one page.
void jobSetup(KelvoPrinter& printer, const Settings* settings);
