#pragma once
// Where the engine's bytes go: the same bytes to every stream, in the order
// the streams were added (the printer's first, then a recording of it), and
// whether the job has been cancelled meanwhile.
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <vector>

class KelvoSink {
 public:
  KelvoSink() = default;
  explicit KelvoSink(FILE* stream) { streams_.push_back(stream); }

  // The streams stay the caller's; nothing here closes them.
  void addStream(FILE* stream) { streams_.push_back(stream); }
  const std::vector<FILE*>& streams() const { return streams_; }

  // Each writes to every stream and checks nothing: the front end asks its
  // streams whether they failed (a recording must not stop the printer's).
  void write(const void* data, size_t size);
  void text(const char* text);
  void format(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void flush();

  // The flag is set from outside (a signal handler, another thread) when
  // the job is cancelled; the engine stops at its next safe point.
  void setCancelFlag(const volatile std::sig_atomic_t* flag) { cancel_ = flag; }
  bool cancelled() const { return cancel_ != nullptr && *cancel_ != 0; }

 private:
  std::vector<FILE*> streams_;
  const volatile std::sig_atomic_t* cancel_ = nullptr;
};
