#pragma once
// Shared by the fuzz targets: quiet output, in-memory files with a path, a
// byte reader over the fuzzer's input, and a loud stop when a property fails.
#include <sys/mman.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "test_support/read_file.h"

namespace kfuzz {

// Where findings are reported: the standard error the process started with.
inline FILE*& realStderr() {
  static FILE* stream = stderr;
  return stream;
}

// The code under test logs every step on standard error; a fuzzer runs it
// millions of times. KELVO_FUZZ_VERBOSE=1 keeps the log, for reproducing a
// finding. libFuzzer and the sanitizers keep the real standard error.
inline void quietStderr() {
  realStderr();
  const char* verbose = std::getenv("KELVO_FUZZ_VERBOSE");
  if (verbose != nullptr && verbose[0] == '1') return;
  if (FILE* sink = std::fopen("/dev/null", "w")) stderr = sink;
}

[[noreturn]] inline void fail(const char* format, ...) __attribute__((format(printf, 1, 2)));
inline void fail(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::fputs("FUZZ PROPERTY FAILED: ", realStderr());
  std::vfprintf(realStderr(), format, args);
  std::fputc('\n', realStderr());
  va_end(args);
  std::fflush(realStderr());
  std::abort();
}

// An anonymous in-memory file that code under test can open by name.
struct MemFile {
  explicit MemFile(const char* name) : fd(memfd_create(name, 0)), path("/proc/self/fd/" + std::to_string(fd)) {
    if (fd < 0) fail("memfd_create failed");
  }
  void set(const std::string& bytes) const {
    if (!std::ofstream(path, std::ios::binary | std::ios::trunc).write(bytes.data(), static_cast<long>(bytes.size())))
      fail("writing the memory file %s failed", path.c_str());
  }
  std::string contents() const { return readFile(path); }
  const int fd;
  const std::string path;
};

// Takes the input apart from the front; past the end it reads zeros.
class Reader {
 public:
  Reader(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  uint8_t byte() { return pos_ < size_ ? data_[pos_++] : 0; }
  uint32_t u32() {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v = v << 8 | byte();
    return v;
  }
  int32_t i32() { return static_cast<int32_t>(u32()); }
  const uint8_t* rest() const { return data_ + pos_; }
  size_t restSize() const { return size_ - pos_; }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
};

// `count` bytes made by repeating `pattern` (zeros when it is empty).
inline std::string fill(const uint8_t* pattern, size_t patternSize, size_t count) {
  std::string bytes(count, '\0');
  if (patternSize > 0)
    for (size_t i = 0; i < count; ++i) bytes[i] = static_cast<char>(pattern[i % patternSize]);
  return bytes;
}

}  // namespace kfuzz
