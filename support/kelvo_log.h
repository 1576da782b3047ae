#pragma once
// Diagnostics for the print spooler: one level-prefixed line per call on
// standard error. CUPS reads the prefix to decide what to do with the line.
// A thread may send its lines elsewhere instead (the printer application
// sends a job's lines to the job's log).

enum LogLevel {
  LogDebug = 0,
  LogInfo = 1,
  LogWarn = 2,
  LogError = 3,
  LogCrit = 4,
  LogInvalid = 5,
  // CUPS shows "WARNING:" lines to the user; "WARN:" is only logged.
  LogWarning = 6,
};

extern "C" {

// Writes the prefix of `level`, the formatted message (no blank between the
// two) and a newline. Only 0..6 are valid levels; there is no range check.
void kelvoLogCommon(int level, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// Receives this thread's lines from now on: the level and the formatted
// message, without prefix or newline. A null sink restores standard error.
typedef void (*KelvoLogSink)(void* data, int level, const char* message);
void kelvoLogSetSink(KelvoLogSink sink, void* data);

}
