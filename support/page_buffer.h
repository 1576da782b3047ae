#pragma once
#include <cstddef>

// A buffer for page-sized data, released with std::free; nullptr when memory
// is exhausted. The contents are not cleared.
//
// Each fresh 4 KiB page of memory is a page fault and a cleared page, so
// buffers from half a MiB (a 4x6 label's 8-bit page) are aligned to 2 MiB
// and offered to the kernel for transparent huge pages (granted there only
// on request): a fault or two a buffer instead of hundreds or thousands.
// But on a virtual machine that hands unused memory back to its host (free
// page reporting), the free 2 MiB blocks huge pages are made of are the
// ones handed back, and clearing one the host must fault in again costs
// ten to forty times as much as an ordinary page's share; ordinary pages
// come from memory freed a moment ago. So the huge pages are faulted in
// here, one after the other, and from the first that comes slowly on the
// rest of the buffer, and every later buffer of the process, takes
// ordinary pages.
void* kelvoPageBuffer(size_t bytes);
