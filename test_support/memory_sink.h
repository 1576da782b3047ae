#pragma once
// A sink whose one stream is kept in memory, so a test sees every byte the
// engine sends; and a stream that cancels the job after a number of bytes.
#include <sys/types.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "printer/byte_sink.h"

class MemorySink : public KelvoSink {
 public:
  MemorySink() : stream_(open_memstream(&text_, &length_)) { addStream(stream_); }
  ~MemorySink() {
    std::fclose(stream_);
    std::free(text_);
  }
  MemorySink(const MemorySink&) = delete;
  MemorySink& operator=(const MemorySink&) = delete;

  // What reached memory since the last call.
  std::string take() {
    std::fflush(stream_);
    std::string text = text_ != nullptr ? std::string(text_, length_) : std::string();
    std::rewind(stream_);
    length_ = 0;
    return text;
  }

 private:
  FILE* stream_;
  char* text_ = nullptr;
  size_t length_ = 0;
};

// Keeps what is written to it and cancels the job, as the filter's SIGTERM
// handler does, once `limit` bytes have arrived: hand `cancelled` to the
// sink with setCancelFlag.
struct CancellingSink {
  explicit CancellingSink(size_t limit) : limit(limit) {}
  // An unbuffered stream into this sink.
  FILE* open() {
    FILE* stream = fopencookie(this, "w", cookie_io_functions_t{nullptr, write, nullptr, nullptr});
    if (stream != nullptr) setvbuf(stream, nullptr, _IONBF, 0);
    return stream;
  }
  static ssize_t write(void* cookie, const char* data, size_t size) {
    auto* self = static_cast<CancellingSink*>(cookie);
    self->text.append(data, size);
    if (self->text.size() >= self->limit) self->cancelled = 1;
    return static_cast<ssize_t>(size);
  }
  size_t limit;
  std::string text;
  volatile std::sig_atomic_t cancelled = 0;
};
