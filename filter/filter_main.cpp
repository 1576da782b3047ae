#include "filter/filter_main.h"

#include <cups/ppd.h>
#include <cups/raster.h>
#include <fcntl.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "filter/ppd_helpers.h"
#include "filter/settings.h"
#include "printer/page_engine.h"
#include "support/kelvo_log.h"
#include "support/kelvo_string.h"
#include "support/page_buffer.h"
#include "support/safe_files.h"

// Where the debug pictures go when the spooler does not say (CUPS gives its
// filters TMPDIR, its own temporary folder). The fuzz build points it at a
// folder that does not exist.
#ifndef KELVO_DEBUG_IMAGE_DIR
#define KELVO_DEBUG_IMAGE_DIR "/var/spool/cups/tmp/"
#endif

namespace {

const char kVersion[] = "3.13.13";

// Set when the spooler cancels the job (SIGTERM). The filter runs one job per
// process, so the flag lives here; the engine's sink is handed a pointer to it.
volatile std::sig_atomic_t gJobCancelled = 0;

// A cancelled job finishes the row it is sending and ends the download; that
// takes milliseconds. Should the printer link stall instead, the alarm half a
// second later makes the stream non-blocking, so the writes fail at once and
// the filter ends instead of waiting until the spooler kills it.
extern "C" void onCancel(int) {
  gJobCancelled = 1;
  struct itimerval grace {};
  grace.it_value.tv_usec = 500 * 1000;
  setitimer(ITIMER_REAL, &grace, nullptr);
}

extern "C" void onCancelGraceOver(int) {
  const int flags = fcntl(STDOUT_FILENO, F_GETFL);
  if (flags != -1) fcntl(STDOUT_FILENO, F_SETFL, flags | O_NONBLOCK);
}

// For the length of a job: SIGTERM (the spooler cancelling the job) sets the
// cancel flag, and SIGPIPE is ignored so that a printer connection that went
// away shows up as a write error. The previous handlers come back at the
// end, since the entry is also called in process.
class JobSignals {
 public:
  JobSignals() {
    struct sigaction cancel {};
    cancel.sa_handler = onCancel;
    sigemptyset(&cancel.sa_mask);
    // Interrupted reads and writes resume: a write cut short by the signal
    // would drop bytes from the middle of a graphic.
    cancel.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &cancel, &oldTerm_);
    // Not restarted: a write blocked on a stalled link returns.
    struct sigaction grace {};
    grace.sa_handler = onCancelGraceOver;
    sigemptyset(&grace.sa_mask);
    sigaction(SIGALRM, &grace, &oldAlarm_);
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    sigaction(SIGPIPE, &ignore, &oldPipe_);
  }
  ~JobSignals() {
    const struct itimerval off {};
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGPIPE, &oldPipe_, nullptr);
    sigaction(SIGALRM, &oldAlarm_, nullptr);
    sigaction(SIGTERM, &oldTerm_, nullptr);
  }
  JobSignals(const JobSignals&) = delete;
  JobSignals& operator=(const JobSignals&) = delete;

 private:
  struct sigaction oldTerm_ {};
  struct sigaction oldAlarm_ {};
  struct sigaction oldPipe_ {};
};

// True when the printer's stream (standard output) can no longer be written:
// a full disk, a closed descriptor, a connection that went away. Flushing
// first makes the failure show now and leaves its reason in errno.
bool outputFailed(FILE* out) {
  errno = 0;
  const bool failed = std::fflush(out) != 0 || std::ferror(out) != 0;
  // When the spooler cancels a job it stops the backend and the filter
  // alike, in no fixed order: a link that went away may be the cancel
  // arriving a moment later. Give it that moment before calling it a failure.
  if (failed && !gJobCancelled && (errno == EPIPE || errno == 0)) {
    const int saved = errno;
    for (int i = 0; i < 30 && !gJobCancelled; ++i) {
      const struct timespec tick {0, 10 * 1000 * 1000};
      nanosleep(&tick, nullptr);
    }
    errno = saved;
  }
  // After a cancel the write error is the cancel itself (the link was closed,
  // or made non-blocking above), not a failure of the job.
  if (failed && !gJobCancelled)
    kelvoLogCommon(LogError, "Unable to send the job to the printer: writing standard output failed (%s)",
                   errno != 0 ? std::strerror(errno) : "write error");
  return failed;
}

// The value of an enumerated header field as the stream delivered it. The
// header is read from the stream byte for byte, so a hostile job can put any
// 32-bit value there; reading that through the enumeration is undefined.
template <typename Field>
int rawField(const Field& field) {
  static_assert(sizeof(Field) == sizeof(int), "raster header fields are 32 bits");
  int value;
  std::memcpy(&value, &field, sizeof value);
  return value;
}

void logHeader(int pageCount, const cups_page_header2_t& header) {
  // The first two lines end in a newline of their own, so each is followed by
  // an empty line in the log; people reading the logs are used to that.
  kelvoLogCommon(LogDebug, "PAGE: %d %d\n", pageCount, header.NumCopies);
  kelvoLogCommon(LogDebug, "header.HWResolution[0]:%d\n", header.HWResolution[0]);
  kelvoLogCommon(LogDebug, "header.HWResolution[1]:%d", header.HWResolution[1]);
  kelvoLogCommon(LogDebug, "header.cupsWidth:%d", header.cupsWidth);
  kelvoLogCommon(LogDebug, "header.cupsHeight:%d", header.cupsHeight);
  kelvoLogCommon(LogDebug, "header.cupsMediaType:%d", header.cupsMediaType);
  kelvoLogCommon(LogDebug, "header.cupsBitsPerColor:%d", header.cupsBitsPerColor);
  kelvoLogCommon(LogDebug, "header.cupsBitsPerPixel:%d", header.cupsBitsPerPixel);
  kelvoLogCommon(LogDebug, "header.cupsBytesPerLine:%d", header.cupsBytesPerLine);
  kelvoLogCommon(LogDebug, "header.cupsColorOrder:%d", rawField(header.cupsColorOrder));
  kelvoLogCommon(LogDebug, "header.cupsColorSpace:%d", rawField(header.cupsColorSpace));
  kelvoLogCommon(LogDebug, "header.cupsCompression:%d", header.cupsCompression);
  kelvoLogCommon(LogDebug, "header.cupsRowCount:%d", header.cupsRowCount);
  kelvoLogCommon(LogDebug, "header.cupsRowFeed:%d", header.cupsRowFeed);
  kelvoLogCommon(LogDebug, "header.cupsRowStep:%d", header.cupsRowStep);
}

// The raster input as libcups reads it, counted, so that the end of the
// stream can be told from a header libcups refused: libcups answers both with
// "no more pages".
struct RasterSource {
  int fd = 0;
  uint64_t delivered = 0;  // bytes handed to libcups so far
  uint64_t pageEnd = 0;    // delivered when the last page was read in full
  bool atEnd = false;      // the input has no more bytes
  uint32_t sync = 0;       // the stream's first four bytes
  std::string next;        // the first bytes after pageEnd: the next header

  void markPageEnd() {
    pageEnd = delivered;
    next.clear();
  }

  static ssize_t read(void* context, unsigned char* buffer, size_t length) {
    auto* self = static_cast<RasterSource*>(context);
    for (;;) {
      const ssize_t got = ::read(self->fd, buffer, length);
      if (got < 0 && errno == EINTR && !gJobCancelled) continue;
      if (got <= 0) {
        self->atEnd = true;
        return got < 0 && errno == EINTR ? 0 : got;
      }
      for (ssize_t i = 0; i < got && self->delivered + i < 4; ++i)
        self->sync |= static_cast<uint32_t>(buffer[i]) << (8 * (self->delivered + i));
      const uint64_t from = std::max(self->delivered, self->pageEnd);
      const uint64_t to = std::min(self->delivered + got, self->pageEnd + sizeof(cups_page_header2_t));
      if (from < to) self->next.append(reinterpret_cast<char*>(buffer) + (from - self->delivered), to - from);
      self->delivered += static_cast<uint64_t>(got);
      return got;
    }
  }

  // A field of the header that follows the last page, as the stream holds it.
  uint32_t nextField(size_t offset) const {
    uint32_t value = 0;
    std::memcpy(&value, next.data() + offset, sizeof value);
    const bool swapped = sync == CUPS_RASTER_REVSYNC || sync == CUPS_RASTER_REVSYNCv1 ||
                         sync == CUPS_RASTER_REVSYNCv2 || sync == CUPS_RASTER_REVSYNCapple;
    return swapped ? __builtin_bswap32(value) : value;
  }

  // After libcups found no further page: true when what follows the last
  // page is a whole header it refused or more input than a header, rather
  // than the end of the stream or a header cut short. A header of zero
  // height or zero bytes a line is the end mark some spoolers send.
  bool refused() const {
    // Version 1 streams have the short header.
    const bool v1 = sync == CUPS_RASTER_SYNCv1 || sync == CUPS_RASTER_REVSYNCv1;
    const size_t headerBytes = v1 ? sizeof(cups_page_header_t) : sizeof(cups_page_header2_t);
    if (next.size() >= headerBytes &&
        (nextField(offsetof(cups_page_header2_t, cupsHeight)) == 0 ||
         nextField(offsetof(cups_page_header2_t, cupsBytesPerLine)) == 0))
      return false;
    return !atEnd || delivered - pageEnd >= headerBytes;
  }
};

// Reads and prints pages until the stream ends; returns the exit status.
int pageLoop(cups_raster_t* raster, RasterSource& source, KelvoEngine& engine, unsigned char*& buffer) {
  size_t bufferBytes = 0;
  cups_page_header2_t header;
  int pageCount = 0;
  source.markPageEnd();
  while (!gJobCancelled) {
    if (!cupsRasterReadHeader2(raster, &header)) {
      if (gJobCancelled || !source.refused()) break;
      kelvoLogCommon(LogError, "Page %d: the raster stream holds %s after %d complete pages; the job stops here",
                     pageCount + 1, cupsLastErrorString() != nullptr && *cupsLastErrorString() != '\0'
                                        ? "a page header that is not valid (bits per pixel, bytes per line or "
                                          "height out of range)"
                                        : "bytes that are not a raster page",
                     pageCount);
      return 1;
    }
    // An empty page ends the whole job successfully: the spooler sends one
    // after the last real page on some printers.
    if (header.cupsBitsPerPixel == 8 && (header.cupsHeight == 0 || header.cupsBytesPerLine == 0)) return 0;
    // A page the printer could not print is refused before anything is
    // allocated for it: its cost would be for nobody.
    const std::string refusal = engine.checkPage(header, static_cast<unsigned>(pageCount) + 1);
    if (!refusal.empty()) {
      kelvoLogCommon(LogError, "%s", refusal.c_str());
      return 1;
    }
    const unsigned int pageBytes = header.cupsBytesPerLine * header.cupsHeight;

    if (pageBytes > bufferBytes) {  // the old contents are not needed
      std::free(buffer);
      buffer = static_cast<unsigned char*>(kelvoPageBuffer(pageBytes));
      bufferBytes = buffer != nullptr ? pageBytes : 0;
      if (buffer == nullptr) {
        kelvoLogCommon(LogError, "Page %d: out of memory for its %u bytes of raster; the job stops here",
                       pageCount + 1, pageBytes);
        return 1;
      }
    }

    // The page's copies and size name come with its header; the printer
    // repeats the page itself.
    KelvoJobSettings& settings = engine.settings();
    settings.copies = header.NumCopies;
    settings.sheet.assign(header.cupsPageSizeName, strnlen(header.cupsPageSizeName, sizeof header.cupsPageSizeName));
    engine.startPage(header);

    ++pageCount;
    logHeader(pageCount, header);

    const bool whole = cupsRasterReadPixels(raster, buffer, pageBytes) != 0;
    source.markPageEnd();
    if (whole && !gJobCancelled && !engine.finishPage(buffer)) {
      kelvoLogCommon(LogError, "Page %d: out of memory while processing it; the job stops here", pageCount);
      return 1;
    }
    // Stop at the first page the printer could not receive; the rest would
    // be rendered for nobody.
    if (outputFailed(stdout)) return gJobCancelled ? 0 : 1;
  }
  // Cancelling is the spooler's decision, not a failure of the job.
  if (gJobCancelled) kelvoLogCommon(LogDebug, "Job cancelled after %d pages", pageCount);
  return 0;
}

// One line a person can act on, after the fixed page size message: what is
// wrong with the printer's PPD.
void explainMissingPageSize(const Settings& settings) {
  const char* path = std::getenv("PPD");
  if (path == nullptr || *path == '\0') {
    kelvoLogCommon(LogError, "No PPD file: the environment variable PPD does not name the printer's PPD (run the "
                             "filter through CUPS, or set PPD=/path/to/printer.ppd)");
    return;
  }
  std::string why;
  ppd_file_t* ppd = kelvoPpdOpenFile(path, &why);
  if (ppd == nullptr) {
    kelvoLogCommon(LogError, "%s", why.c_str());
    return;
  }
  ppdClose(ppd);
  kelvoLogCommon(LogError, "The PPD file %s has no page size \"%s\"; choose one of its sizes with -o PageSize=...",
                 path, settings.PageSize);
}

// The recording file: created new (never through a link, never over an
// existing file), with the recordings of earlier jobs kept to a budget.
class Recording {
 public:
  explicit Recording(const char* path) : path_(path) {}
  ~Recording() {
    if (stream_ != nullptr) std::fclose(stream_);
  }
  Recording(const Recording&) = delete;
  Recording& operator=(const Recording&) = delete;

  FILE* open() {
    const std::string full = path_;
    const size_t slash = full.rfind('/');
    folder_ = slash == std::string::npos ? "" : full.substr(0, slash + 1);
    const std::string base = full.substr(slash == std::string::npos ? 0 : slash + 1);
    // "<prefix>-YYYYMMDDhhmmss.bin": the prefix is what stands before the
    // last 19 characters.
    prefix_ = base.size() > 19 ? base.substr(0, base.size() - 19) : base;
    if (!kelvoMakeRoom(folder_, [this](const char* name) { return ownsName(name); }, kBudget, 1, 0)) {
      kelvoLogCommon(LogWarning, "Printer commands not recorded: older recordings in %s could not be removed",
                     folder_.empty() ? "." : folder_.c_str());
      return nullptr;
    }
    const int fd = kelvoCreateNewFile(full, 0600);
    if (fd < 0) {
      kelvoLogCommon(LogWarning, "Printer commands not recorded: unable to create %s: %s", full.c_str(),
                     std::strerror(errno));
      return nullptr;
    }
    fd_ = fd;
    cookie_io_functions_t io{nullptr, write, nullptr, closeFd};
    stream_ = fopencookie(this, "w", io);
    if (stream_ == nullptr) close(fd);
    return stream_;
  }
  bool failed() const { return failed_; }

 private:
  // The last 64 recordings and 256 MB of them stay; a job that would pass the
  // bytes on its own is recorded up to there.
  static constexpr KelvoFileBudget kBudget{64, 256ull << 20};
  bool ownsName(const char* name) const {
    const std::string& prefix = prefix_;
    const size_t length = std::strlen(name);
    if (prefix.empty() || length != prefix.size() + 19 || std::strncmp(name, prefix.c_str(), prefix.size()) != 0)
      return false;
    const char* tail = name + prefix.size();
    if (tail[0] != '-' || std::strcmp(tail + 15, ".bin") != 0) return false;
    for (int i = 1; i < 15; ++i)
      if (tail[i] < '0' || tail[i] > '9') return false;
    return true;
  }
  static ssize_t write(void* cookie, const char* data, size_t size) {
    auto* self = static_cast<Recording*>(cookie);
    size_t keep = size;
    if (self->written_ + keep > kBudget.maxBytes) {
      keep = self->written_ < kBudget.maxBytes ? static_cast<size_t>(kBudget.maxBytes - self->written_) : 0;
      if (!self->full_)
        kelvoLogCommon(LogWarning, "Recording %s stops at %llu MB; the job prints on", self->path_,
                       static_cast<unsigned long long>(kBudget.maxBytes >> 20));
      self->full_ = true;
    }
    for (size_t done = 0; done < keep;) {
      const ssize_t n = ::write(self->fd_, data + done, keep - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        self->failed_ = true;
        break;
      }
      done += static_cast<size_t>(n);
    }
    self->written_ += keep;
    // The printer's stream must not fail because the recording did.
    return static_cast<ssize_t>(size);
  }
  static int closeFd(void* cookie) { return close(static_cast<Recording*>(cookie)->fd_); }

  const char* path_;
  std::string folder_;
  std::string prefix_;
  FILE* stream_ = nullptr;
  int fd_ = -1;
  uint64_t written_ = 0;
  bool full_ = false;
  bool failed_ = false;
};

int filterMain(int argc, char** argv) {
  const char* program = argc > 0 && argv[0] != nullptr ? argv[0] : "rastertokelvozpl";
  const char* jobId = argc > 1 && argv[1] != nullptr ? argv[1] : "";
  const char* options = argc > 5 ? argv[5] : nullptr;
  const char* rasterPath = argc > 6 ? argv[6] : nullptr;

  if (argc < 6) {
    // "copyies" is how the usage line has always been spelt.
    std::fprintf(stderr, "%s v%s\n\nUsage:\n\n    %s job_id user title copyies options [file]\n\n",
                 kelvoPathGetBasename(program), kVersion, kelvoPathGetBasename(program));
    return 1;
  }

  // Without it every byte would be lost, and a file opened next could take
  // its descriptor.
  if (fcntl(STDOUT_FILENO, F_GETFD) == -1) {
    kelvoLogCommon(LogError, "Standard output is closed, there is nowhere to send the job");
    return 1;
  }

  int fd = 0;
  if (rasterPath != nullptr) {
    std::string why;
    fd = kelvoOpenRegularFile(rasterPath, &why);
    if (fd == -1) {
      // The first words are what support staff search the logs for.
      std::fprintf(stderr, "ERROR: Unable to open raster file - %s: %s\n", rasterPath, why.c_str());
      return 1;
    }
  }

  gJobCancelled = 0;
  JobSignals signals;
  int status = 1;
  Settings settings{};
  unsigned char* buffer = nullptr;
  cups_raster_t* raster = nullptr;
  RasterSource source;
  source.fd = fd;

  KelvoPrintableArea area;
  kelvoParseSettings(&settings, options, &area);
  KelvoJobSettings job = kelvoEngineSettings(settings);
  if (settings.DebugImages != 0) {
    const char* tmp = std::getenv("TMPDIR");
    job.debugFolder = tmp != nullptr && *tmp != '\0' ? tmp : KELVO_DEBUG_IMAGE_DIR;
    job.debugTag = jobId;
  }
  KelvoSink sink(stdout);
  sink.setCancelFlag(&gJobCancelled);

  std::unique_ptr<Recording> recording;
  if (settings.outputFile[0] != '\0') {
    recording.reset(new Recording(settings.outputFile));
    if (FILE* stream = recording->open()) {
      kelvoLogCommon(LogDebug, "Filter data output to: %s", settings.outputFile);
      sink.addStream(stream);
    }
  }
  KelvoEngine engine(job, area, sink);

  // Only a missing or vanishing size is refused, whatever the message says;
  // the text is what support staff search the logs for.
  if (settings.pageWidth <= 0.000001 || settings.pageHeight <= 0.000001) {
    std::fprintf(stderr, "ERROR: Paper size must not less than 1.0 : (%f, %f)\n", settings.pageWidth,
                 settings.pageHeight);
    explainMissingPageSize(settings);
  } else {
    engine.wakePrinter();
    raster = cupsRasterOpenIO(RasterSource::read, &source, CUPS_RASTER_READ);
    try {
      status = raster != nullptr ? pageLoop(raster, source, engine, buffer) : 0;
    } catch (const std::bad_alloc&) {
      kelvoLogCommon(LogError, "A page could not be printed: out of memory; the job stops here");
      status = 1;
    }
  }

  std::free(buffer);
  if (raster != nullptr) cupsRasterClose(raster);
  // The last bytes may still sit in a buffer; a job whose end never reached
  // the printer has failed.
  if (status == 0 && outputFailed(stdout) && !gJobCancelled) status = 1;
  if (recording && recording->failed())
    kelvoLogCommon(LogWarning, "Recording file %s is incomplete", settings.outputFile);
  if (fd != 0) close(fd);
  return status;
}

}  // namespace

int kelvoFilterMain(int argc, char** argv) {
  // Memory that runs out anywhere ends the job with an error line rather
  // than an abort the spooler would only see as a crash. (The page loop
  // catches its own, to clean up as usual.)
  try {
    return filterMain(argc, argv);
  } catch (const std::bad_alloc&) {
    kelvoLogCommon(LogError, "The job ran out of memory; it stops here");
    return 1;
  }
}
