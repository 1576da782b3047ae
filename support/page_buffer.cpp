#include "support/page_buffer.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>

#if defined(__linux__)
#include <sys/mman.h>
#include <time.h>
#endif

namespace {

const size_t kHugePage = size_t{2} << 20;
const size_t kHugeFrom = size_t{512} << 10;

#if defined(__linux__) && defined(MADV_HUGEPAGE)
// Clearing a huge page the host still backs takes 0.1 to 0.2 ms; one the
// host has to fault in again 4K by 4K takes 2 to 7 ms.
const int64_t kColdHugePageNs = 1000000;

int64_t threadCpuNs() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
}

// Set once a huge page came slowly: the host takes free memory back all the
// time, so later buffers of this process take ordinary pages throughout.
std::atomic<bool> hugePagesCold{false};

// Faults the buffer's huge pages in one by one; from the first that comes
// slowly on, the rest of the buffer takes ordinary pages.
void takeHugePagesWhileWarm(unsigned char* p, size_t bytes) {
  for (size_t at = 0; at < bytes; at += kHugePage) {
    const int64_t start = threadCpuNs();
    *static_cast<volatile unsigned char*>(p + at) = 0;
    if (threadCpuNs() - start > kColdHugePageNs) {
      hugePagesCold.store(true, std::memory_order_relaxed);
      if (at + kHugePage < bytes) madvise(p + at + kHugePage, bytes - at - kHugePage, MADV_NOHUGEPAGE);
      return;
    }
  }
}
#endif

}  // namespace

void* kelvoPageBuffer(size_t bytes) {
  if (bytes < kHugeFrom) return std::malloc(bytes > 0 ? bytes : 1);
  const size_t rounded = (bytes + kHugePage - 1) / kHugePage * kHugePage;
  if (rounded < bytes) return nullptr;
  void* p = nullptr;
  if (posix_memalign(&p, kHugePage, rounded) != 0) return nullptr;
#if defined(__linux__) && defined(MADV_HUGEPAGE)
  // Advice only: where it fails, the faults below are ordinary ones.
  if (!hugePagesCold.load(std::memory_order_relaxed) && madvise(p, rounded, MADV_HUGEPAGE) == 0)
    takeHugePagesWhileWarm(static_cast<unsigned char*>(p), rounded);
#endif
  return p;
}
