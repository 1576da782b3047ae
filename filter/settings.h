#pragma once
// The job's settings, read once per job from the printer's PPD with the job
// options applied.
#include <cups/ppd.h>

#include "printer/job_settings.h"
#include "printer/page_limits.h"

// Fills `settings` from the PPD named by the environment variable "PPD" and
// the job's option string (may be empty or null). A missing PPD leaves empty
// texts and zeros. `area`, when given, gets what the PPD's model prints.
void parseSettings(Settings* settings, const char* options, KelvoPrintableArea* area = nullptr);

// Page size in millimetres of the marked "PageSize" (custom sizes included);
// 0 by 0 when the PPD has no such size.
void getPageWidthPageHeight(ppd_file_t* ppd, Settings* settings);
