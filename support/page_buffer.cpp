#include "support/page_buffer.h"

#include <cstdlib>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace {
const size_t kHugePage = size_t{2} << 20;
const size_t kHugeFrom = size_t{512} << 10;
}  // namespace

void* kelvoPageBuffer(size_t bytes) {
  if (bytes < kHugeFrom) return std::malloc(bytes > 0 ? bytes : 1);
  const size_t rounded = (bytes + kHugePage - 1) / kHugePage * kHugePage;
  if (rounded < bytes) return nullptr;
  void* p = nullptr;
  if (posix_memalign(&p, kHugePage, rounded) != 0) return nullptr;
#if defined(__linux__) && defined(MADV_HUGEPAGE)
  madvise(p, rounded, MADV_HUGEPAGE);  // advice only: failing changes nothing
#endif
  return p;
}
