#include "support/kelvo_log.h"

#include <cstdarg>
#include <cstdio>

namespace {
// Debug and info share one text on purpose: CUPS has no "INFO:" level for
// filter diagnostics that should stay out of the job's state message.
const char kDebugText[] = "DEBUG:";
const char* const sLogLevelTexts[7] = {
    kDebugText, kDebugText, "WARN:", "ERROR:", "CRIT:", "INVALID:", "WARNING: ",
};
}  // namespace

extern "C" void kelvoLogCommon(int level, const char* format, ...) {
  std::fprintf(stderr, "%s", sLogLevelTexts[level]);
  va_list args;
  va_start(args, format);
  std::vfprintf(stderr, format, args);
  va_end(args);
  std::fprintf(stderr, "\n");
}
