#pragma once
#include <cstddef>

// A buffer for page-sized data, released with std::free; nullptr when memory
// is exhausted. Each fresh 4 KiB page of memory is a page fault, and on a
// virtual machine that hands unused memory back to its host a costly one, so
// buffers from half a MiB (a 4x6 label's 8-bit page) are aligned to 2 MiB and
// offered to the kernel for transparent huge pages (granted there only on
// request): a fault or two a buffer instead of hundreds or thousands. The
// contents are not cleared.
void* kelvoPageBuffer(size_t bytes);
