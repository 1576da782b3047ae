#pragma once
// How a stencil stage runs: on how many threads and with which vector path.
// Neither changes a single output byte; the equivalence tests hold every
// combination to the plain one-pixel-at-a-time definitions.
//
// There is no process-wide state behind these settings apart from the
// default vector path (jvSetSimdLevel): several pages may run at once in
// one process, each with its own options.
#include <cstdint>

// Vector paths. kJvSimdScalar is portable C++ (the only path off x86);
// kJvSimdSse2 is the x86-64 baseline; kJvSimdAvx2 needs a CPU with AVX2.
// A path the CPU lacks falls back to the best one below it.
const int kJvSimdScalar = -1;
const int kJvSimdSse2 = 0;
const int kJvSimdAvx2 = 1;
// Use the process default (jvSetSimdLevel, initially the best path).
const int kJvSimdDefault = -2;

struct JVRunOptions {
  // 0: automatic: the environment variable KELVO_THREADS when it holds a
  // number from 1 to 64, otherwise the cores this process may run on (at
  // most 8) for the unsharp mask and one thread for the diffusion, and one
  // thread for pages under a million pixels. n >= 1: n threads, fewer only
  // where the page has too few rows to share.
  //
  // The unsharp mask's rows are independent: a second thread costs a few
  // percent more CPU time and halves the stage's wall time when a core is
  // free. The diffusion's bands hand every few pixels over to the band
  // below; on two cores that costs half as much CPU time again as the
  // stage itself and gains no wall time, so it runs on more than one
  // thread only when asked for.
  int threads = 0;
  int simdLevel = kJvSimdDefault;
};

// The thread count `options` asks for on a page of `pixels` pixels (>= 1):
// for the unsharp mask, and for the diffusion.
int jvThreadsFor(const JVRunOptions& options, int64_t pixels);
int jvDiffusionThreadsFor(const JVRunOptions& options, int64_t pixels);

// The vector path `options` selects on this CPU.
int jvSimdLevelFor(const JVRunOptions& options);
