#pragma once
// Lookups in the printer's PPD with a caller-supplied default, so that the
// settings code never has to test for a missing option, choice or value.
// Returned strings point into the PPD (or are the default) and live until
// the PPD is closed. A null PPD gives the default everywhere.
#include <cups/ppd.h>

#include <string>

#include "printer/page_limits.h"

extern "C" {

// The marked choice of `keyword`, else the option's declared default choice;
// null when the option does not exist.
ppd_choice_t* kelvoPpdGetChoice(ppd_file_t* ppd, const char* keyword);

// The choice keyword, or `def`.
const char* kelvoPpdGetChoiceAsStrDefault(ppd_file_t* ppd, const char* keyword, const char* def);

// The choice keyword read by atoi ("203dpi" gives 203), or `def`.
int kelvoPpdGetChoiceAsIntDefault(ppd_file_t* ppd, const char* keyword, int def);

// "true"/"yes" give 1, "false"/"no" give 0 (any letter case); any other
// keyword is read by atoi and cut to its low 8 bits. No choice gives `def`.
signed char kelvoPpdGetChoiceAsBoolDefault(ppd_file_t* ppd, const char* keyword, char def);

// The value of the attribute `name` with specifier `spec` (null matches any
// specifier), or `def` when it is missing or has no value.
const char* kelvoPpdGetAttrAsStrDefault(ppd_file_t* ppd, const char* name, const char* spec, const char* def);

}

// Opens the PPD at `path` and reads it; null when that fails, with the
// reason in `why` (may be null). Only a regular file is read, and opening
// never waits: a FIFO or a device named as the PPD would block the job or
// never end, so it is refused before anything reads from it.
ppd_file_t* kelvoPpdOpenFile(const char* path, std::string* why);

// What the PPD's model prints: the widest and longest of its page sizes and
// of its custom size range (*MaxMediaWidth, *MaxMediaHeight), and the finest
// of its resolutions. A job's own custom size is not among them.
KelvoPrintableArea kelvoPpdPrintableArea(ppd_file_t* ppd);
