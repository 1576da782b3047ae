#pragma once
// A ZPL printer whose one output stream is kept in memory, or is a stream the
// test hands it, so a test sees every byte the printer sends.
#include <sys/types.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "printer/zpl_printer.h"

class MemoryPrinter : public ZplPrinter {
 public:
  MemoryPrinter() { sendTo(nullptr); }
  ~MemoryPrinter() override { release(); }

  // From now on everything goes to `stream`, which the printer closes;
  // nullptr: to memory again.
  void sendTo(FILE* stream) {
    release();
    stream_ = stream != nullptr ? stream : open_memstream(&text_, &length_);
    outputStreams_.assign(1, stream_);
  }
  // What reached memory since the last call.
  std::string take() {
    std::fflush(stream_);
    std::string text = text_ != nullptr ? std::string(text_, length_) : std::string();
    std::rewind(stream_);
    length_ = 0;
    return text;
  }

  PaletteImage* processed() { return processedImage(); }
  void setResolution(int dpi) { resolution_ = dpi; }

 private:
  void release() {
    if (stream_ != nullptr) std::fclose(stream_);
    std::free(text_);
    stream_ = nullptr, text_ = nullptr, length_ = 0;
  }
  FILE* stream_ = nullptr;
  char* text_ = nullptr;
  size_t length_ = 0;
};

// Keeps what is written to it and cancels the job, as the filter's SIGTERM
// handler does, once `limit` bytes have arrived: hand `cancelled` to the
// printer with setCancelFlag.
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
