#include "support/kelvo_string.h"

#include <cstring>

extern "C" const char* kelvoPathGetBasename(const char* path) {
  if (path == nullptr) return nullptr;
  const char* slash = std::strrchr(path, '/');
  const char* backslash = std::strrchr(path, '\\');
  const char* last = slash;
  if (backslash != nullptr && (last == nullptr || backslash > last)) last = backslash;
  return last == nullptr ? path : last + 1;
}

extern "C" char* kelvoStrCpy(char* dst, const char* src, size_t size) {
  std::strncpy(dst, src, size);
  dst[size - 1] = '\0';
  return dst;
}
