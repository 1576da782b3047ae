#pragma once
// The label setup block written ahead of every page: a TSPL size line, then
// a ZPL format with width, length, media tracking, orientation, speed and
// darkness, print method and post-print action. Every command writes through
// the current printer `sPrinter`, so the bytes also reach the recording file.
// Choice words are matched as substrings: a PPD choice only has to contain
// the word.
#include "filter/settings.h"

// Print method: none, direct thermal, thermal transfer.
extern const char* const ZPL2PrintMethod[4];
// Media tracking: gap/notch, black mark, continuous.
extern const char* const ZPL2MN[4];
// Post-print action: none, tear off, peel off, cutter (twice).
extern const char* const ZPL2MM[5];

void TSPLSize(float widthMm, float heightMm);
void ZPLStart();
void setSize(float widthMm, float heightMm);
void setGap(float gapHeight, float unused, const char* paperType);
void setReference();
void setDirection(const char* origin, int unused);
void setSpeedAndDensity(char* speed, int darkness);
void setRibbon(const char* mediaMethod);
void setOffset(float offset);
void setPostAction(const char* postAction);
void ZPLEnd();
void setCls();
void endPage(Settings settings);

// Writes the whole setup block for one page.
void jobSetup(Settings* settings);
