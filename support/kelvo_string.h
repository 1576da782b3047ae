#pragma once
#include <cstddef>

extern "C" {

// Last component of a path; both '/' and '\\' separate. Null gives null, a
// trailing separator gives the empty string.
const char* kelvoPathGetBasename(const char* path);

// strncpy into a buffer of `size` bytes (size >= 1) that is always terminated:
// a longer source is cut to size - 1 characters, a shorter one zero-padded.
char* kelvoStrCpy(char* dst, const char* src, size_t size);

}
