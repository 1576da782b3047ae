#include "printer/byte_sink.h"

#include <cstdarg>
#include <cstring>

void KelvoSink::write(const void* data, size_t size) {
  for (FILE* stream : streams_) std::fwrite(data, 1, size, stream);
}

void KelvoSink::text(const char* text) { write(text, std::strlen(text)); }

void KelvoSink::format(const char* format, ...) {
  va_list args;
  va_start(args, format);
  for (FILE* stream : streams_) {
    va_list copy;
    va_copy(copy, args);
    std::vfprintf(stream, format, copy);
    va_end(copy);
  }
  va_end(args);
}

void KelvoSink::flush() {
  for (FILE* stream : streams_) std::fflush(stream);
}
