#include "stencil/jv_run.h"

#include <atomic>
#include <cstdlib>
#include <thread>

#if defined(__linux__)
#include <sched.h>
#endif

#include "stencil/jv_enhance.h"
#include "stencil/jv_kernels.h"

namespace {

int bestLevel() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2") ? kJvSimdAvx2 : kJvSimdSse2;
#else
  return kJvSimdScalar;
#endif
}

int clampLevel(int level) {
  static const int best = bestLevel();
  return level < kJvSimdScalar ? kJvSimdScalar : (level > best ? best : level);
}

// The process default of jvSetSimdLevel. Atomic so that a test may change it
// while pages run; every level gives the same bytes, so a page that sees
// either value is right.
std::atomic<int>& defaultLevel() {
  static std::atomic<int> level{clampLevel(kJvSimdAvx2)};
  return level;
}

int cpuCount() {
#if defined(__linux__)
  cpu_set_t set;
  if (sched_getaffinity(0, sizeof set, &set) == 0) {
    const int n = CPU_COUNT(&set);
    if (n > 0) return n;
  }
#endif
  const unsigned n = std::thread::hardware_concurrency();
  return n > 0 ? static_cast<int>(n) : 1;
}

const int kMaxThreads = 64;
const int kMaxAutomaticThreads = 8;
// Below this a page takes a few milliseconds; starting threads is not worth it.
const int64_t kThreadedPixels = int64_t{1} << 20;

}  // namespace

int jvSetSimdLevel(int level) {
  const int clamped = clampLevel(level);
  defaultLevel().store(clamped, std::memory_order_relaxed);
  return clamped;
}

int jvSimdLevelFor(const JVRunOptions& options) {
  if (options.simdLevel == kJvSimdDefault) return defaultLevel().load(std::memory_order_relaxed);
  return clampLevel(options.simdLevel);
}

namespace {

// The count asked for explicitly (options, then KELVO_THREADS); 0 if none.
int askedThreads(const JVRunOptions& options) {
  if (options.threads >= 1) return options.threads < kMaxThreads ? options.threads : kMaxThreads;
  if (const char* env = std::getenv("KELVO_THREADS")) {
    char* end = nullptr;
    const long n = std::strtol(env, &end, 10);
    if (end != env && *end == '\0' && n >= 1 && n <= kMaxThreads) return static_cast<int>(n);
  }
  return 0;
}

}  // namespace

int jvThreadsFor(const JVRunOptions& options, int64_t pixels) {
  if (options.threads >= 1) return askedThreads(options);
  if (pixels < kThreadedPixels) return 1;
  if (const int asked = askedThreads(options)) return asked;
  const int cores = cpuCount();
  return cores < kMaxAutomaticThreads ? cores : kMaxAutomaticThreads;
}

int jvDiffusionThreadsFor(const JVRunOptions& options, int64_t pixels) {
  if (options.threads >= 1) return askedThreads(options);
  if (pixels < kThreadedPixels) return 1;
  const int asked = askedThreads(options);
  return asked > 0 ? asked : 1;
}

const jvk::Kernels& jvk::kernelsFor(int level) {
  const int clamped = clampLevel(level);
  if (clamped >= kJvSimdAvx2 && kernelsAvx2() != nullptr) return *kernelsAvx2();
  if (clamped >= kJvSimdSse2 && kernelsSse2() != nullptr) return *kernelsSse2();
  return kernelsScalar();
}
