#include <malloc.h>

#include "filter/filter_main.h"

int main(int argc, char** argv) {
  // Every page allocates and frees buffers of the same few sizes. Served
  // from the heap and kept there, the next page reuses them instead of
  // mapping fresh zero pages from the kernel each time; the peak stays that
  // of one page, however long the job.
  mallopt(M_MMAP_THRESHOLD, 256 * 1024 * 1024);
  mallopt(M_TRIM_THRESHOLD, 512 * 1024 * 1024);
  return kelvoFilterMain(argc, argv);
}
