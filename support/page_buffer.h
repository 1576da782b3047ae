#pragma once
#include <cstddef>

// A buffer for page-sized data, released with std::free; nullptr when memory
// is exhausted. Each fresh 4 KiB page of memory is a page fault, and on a
// virtual machine that hands unused memory back to its host a costly one, so
// buffers of a few MiB and more are aligned to 2 MiB and offered to the kernel
// for transparent huge pages (granted there only on request): a few faults a
// buffer instead of thousands. The contents are not cleared.
void* kelvoPageBuffer(size_t bytes);
