#include "support/kelvo_log.h"

#include <cstdarg>
#include <cstdio>
#include <vector>

namespace {
// Debug and info share one text on purpose: CUPS has no "INFO:" level for
// filter diagnostics that should stay out of the job's state message.
const char kDebugText[] = "DEBUG:";
const char* const sLogLevelTexts[7] = {
    kDebugText, kDebugText, "WARN:", "ERROR:", "CRIT:", "INVALID:", "WARNING: ",
};
thread_local KelvoLogSink tSink = nullptr;
thread_local void* tSinkData = nullptr;
}  // namespace

extern "C" void kelvoLogCommon(int level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  if (tSink != nullptr) {
    va_list copy;
    va_copy(copy, args);
    const int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::vector<char> message(length > 0 ? static_cast<size_t>(length) + 1 : 1, '\0');
    std::vsnprintf(message.data(), message.size(), format, args);
    va_end(args);
    tSink(tSinkData, level, message.data());
    return;
  }
  std::fprintf(stderr, "%s", sLogLevelTexts[level]);
  std::vfprintf(stderr, format, args);
  va_end(args);
  std::fprintf(stderr, "\n");
}

extern "C" void kelvoLogSetSink(KelvoLogSink sink, void* data) {
  tSink = sink;
  tSinkData = data;
}
